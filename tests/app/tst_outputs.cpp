#include "Media.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "SecretStore.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QSettings>
#include <QTest>
#include <QTimer>
#include <atomic>
#include <csignal>

// The outputs as the operator drives them: the real tick records and streams to a real RTMP server,
// ffprobe checks what arrived, and a recording cut off by a crash is repaired at the next start.
class tst_Outputs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void recordingThroughTheTick();
    void failingRowLeavesTheRestOnAir();
    void refusedEntryChangesNothing_data();
    void refusedEntryChangesNothing();
    void closingFinishesTheRecording_data();
    void closingFinishesTheRecording();
    void killedRecordingIsRepairedAtTheNextStart();

private:
    static void onAir(StudioWindow& window);
};

namespace {

const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);
const char* recordVariable = "VELMORA_RECORD_UNTIL_KILLED";

void answerNextBox(QMessageBox::StandardButton answer)
{
    QTimer::singleShot(0, [answer] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            box->button(answer)->click();
    });
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

void tst_Outputs::onAir(StudioWindow& window)
{
    window.audioCombo->setCurrentIndex(1); // test tone
    window.connectSources();
    window.fadeCheck->setChecked(false);
    window.take();
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2 && !window.programAudio.empty(), 10000);
}

void tst_Outputs::initTestCase()
{
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    QDir().mkpath(folder);
    // Stream keys go to the test's own data folder, never to the user's keyring.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + folder.toUtf8() + "/no-bus");
}

void tst_Outputs::recordingThroughTheTick()
{
    StudioWindow window(false);
    onAir(window);
    const QString path = folder + QStringLiteral("/program.webm");
    QFile::remove(path);
    QElapsedTimer wallClock;
    wallClock.start();
    window.startRecording(path);
    // A busy encoder's pictures are dropped at the source on purpose: the file holds what entered.
    std::atomic<int> entered{0};
    const gstptr::Pad sourcePad(gst_element_get_static_pad(window.recording->videoSource, "src"));
    gst_pad_add_probe(sourcePad.get(), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad*, GstPadProbeInfo*, gpointer counter) {
        ++*static_cast<std::atomic<int>*>(counter);
        return GST_PAD_PROBE_OK;
    }, &entered, nullptr);
    QVERIFY(!window.formatCombo->isEnabled());
    QSettings().remove(QStringLiteral("language"));
    window.languageCombo->setCurrentIndex(1);
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Detén las salidas antes de cambiar el idioma."));
    QCOMPARE(window.languageCombo->currentIndex(), 0);
    QVERIFY(!QSettings().contains(QStringLiteral("language")));

    QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 90, 20000);
    window.recordButton->click();
    const double recordedFor = wallClock.elapsed() / 1000.0;
    QCOMPARE(window.recordButton->text(), QStringLiteral("Finalizando..."));
    QTRY_VERIFY_WITH_TIMEOUT(!window.recording, 20000);
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Grabación guardada correctamente"));
    QCOMPARE(window.recordButton->text(), QStringLiteral("● Grabar"));
    QVERIFY(window.formatCombo->isEnabled());

    const auto streams = probeStreams(path);
    QVERIFY2(streams.contains(QStringLiteral("vp8")) && streams.contains(QStringLiteral("vorbis")),
             qPrintable(describeStreams(streams)));
    // The paced clock's timestamps: a period apart at least, never ahead of the wall clock.
    const double seconds = probeDuration(path);
    QVERIFY2(seconds >= (entered - 1) / 30.0 - 0.05 && seconds <= recordedFor + 0.3,
             qPrintable(QString::number(seconds)));
    QVERIFY2(qAbs(streams.value(QStringLiteral("vp8")).frames - entered) <= 2, qPrintable(describeStreams(streams)));
    QCOMPARE(playThrough(path), QString());
}

void tst_Outputs::failingRowLeavesTheRestOnAir()
{
    RtmpServer server(folder + QStringLiteral("/rtmp"));
    QVERIFY2(server.ok(), qPrintable(server.errorString()));
    StudioWindow window(false);
    onAir(window);
    window.startRecording(folder + QStringLiteral("/beside-the-rows.webm"));

    // Two rows selected: one reaches the server, one reaches nobody.
    Destination& row = window.destinations[3];
    Destination& failing = window.destinations[2];
    const QString key = QStringLiteral("tick-stream-key"), failingKey = QStringLiteral("nobody-listens");
    QFile::remove(server.recording(key));
    row.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/app/").arg(server.port()));
    row.key->setText(key);
    failing.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/app").arg(RtmpServer::freePort()));
    failing.key->setText(failingKey);
    row.enabled->setChecked(true);
    failing.enabled->setChecked(true);
    window.startSelectedDestinations();
    QCOMPARE(row.status->text(), QStringLiteral("Enviando · confirma recepción en la plataforma"));
    QTRY_VERIFY_WITH_TIMEOUT(!failing.output, 20000);
    QVERIFY2(failing.status->text().startsWith(QStringLiteral("Fallo de salida (codigo ")),
             qPrintable(failing.status->text()));
    QCOMPARE(failing.button->text(), QStringLiteral("Iniciar"));
    QVERIFY(!window.formatCombo->isEnabled());
    // The other row and the recording go on.
    const std::uint64_t recorded = window.recording->videoFrames;
    QTRY_VERIFY_WITH_TIMEOUT(window.recording && window.recording->videoFrames > recorded + 15 && row.output &&
                                 row.output->videoFrames >= 120, 20000);
    const std::uint64_t pushed = row.output->videoFrames;
    row.button->click();
    QCOMPARE(row.button->text(), QStringLiteral("Iniciar"));
    QCOMPARE(row.status->text(), QStringLiteral("Detenido"));
    QTRY_VERIFY_WITH_TIMEOUT(window.retired.empty(), 20000);
    server.stop();

    // A busy encoder's pictures are dropped at the source, so not all of them need arrive.
    const auto streams = probeStreams(server.recording(key));
    QVERIFY2(streams.value(QStringLiteral("h264")).frames >= int(pushed / 2) &&
                 streams.value(QStringLiteral("aac")).frames > 0, qPrintable(describeStreams(streams)));
    // The keys appear nowhere but in their fields.
    const QString log = QString::fromUtf8(contents(StudioWindow::logPath()));
    QVERIFY(log.contains(QStringLiteral("Salida Otro RTMP: servidor=rtmp://127.0.0.1:%1/app/ clave: 15 caracteres, "
                                        "empieza \"tick\"").arg(server.port())));
    QSettings settings;
    for (const QString& secret : {key, failingKey}) {
        QVERIFY(!log.contains(secret));
        for (const QString& setting : settings.allKeys())
            QVERIFY(!settings.value(setting).toString().contains(secret));
    }
}

void tst_Outputs::refusedEntryChangesNothing_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("recording"); // when set, a recording into this file is started instead
    QTest::addColumn<QString>("message");
    const QString badServer = QStringLiteral("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
    QTest::newRow("key in the server") << "rtmp://127.0.0.1/app?key=abc" << "k" << "" << badServer;
    QTest::newRow("no host, a key in the store") << "rtmp://" << "" << "" << badServer;
    QTest::newRow("key with a blank") << "rtmp://127.0.0.1/app" << "ab cd" << "" << "Clave de transmisión inválida";
    QTest::newRow("recording into a missing folder")
        << "rtmp://" << "" << "/no/such/folder/program.webm" << "No se pudo iniciar salida";
}

void tst_Outputs::refusedEntryChangesNothing()
{
    QFETCH(QString, server);
    QFETCH(QString, key);
    QFETCH(QString, recording);
    QVERIFY(storeSecret(QStringLiteral("stream-Otro RTMP"), QStringLiteral("stored-key")));
    StudioWindow window(false);
    Destination& row = window.destinations[3];
    row.server->setText(server);
    row.key->setText(key);
    answerNextBox(QMessageBox::Ok);
    if (recording.isEmpty())
        row.button->click();
    else
        window.runGuarded([&] { window.startRecording(recording); });
    QTEST(window.statusLabel->text(), "message");
    QVERIFY(!window.outputsRunning());
    QCOMPARE(row.button->text(), QStringLiteral("Iniciar"));
    QCOMPARE(window.recordButton->text(), QStringLiteral("● Grabar"));
    QCOMPARE(row.server->text() + row.key->text(), server + key);
    QVERIFY(window.formatCombo->isEnabled());
}

void tst_Outputs::closingFinishesTheRecording_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("the operator confirms") << true;
    QTest::newRow("the operator keeps recording") << false;
}

void tst_Outputs::closingFinishesTheRecording()
{
    QFETCH(bool, confirm);
    const QString path = folder + QStringLiteral("/closing.webm");
    QFile::remove(path);
    StudioWindow window(false);
    window.show();
    onAir(window);
    window.startRecording(path);
    QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 30, 20000);
    answerNextBox(confirm ? QMessageBox::Yes : QMessageBox::No);
    QCOMPARE(window.close(), confirm);
    const std::uint64_t recorded = window.recording->videoFrames;
    if (!confirm)
        QTRY_VERIFY(window.recording->videoFrames > recorded + 10); // tick and recording go on
    else
        QVERIFY(window.recording->ended && playThrough(path).isEmpty() && probeDuration(path) > 0.9);
}

void tst_Outputs::killedRecordingIsRepairedAtTheNextStart()
{
    const QString path = folder + QStringLiteral("/service.webm");
    const QString repaired = folder + QStringLiteral("/service-reparada.webm");
    QFile::remove(path);
    QFile::remove(repaired);
    QProcess studio; // this program again, recording until it is killed
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(recordVariable), path);
    studio.setProcessEnvironment(environment);
    studio.start(QCoreApplication::applicationFilePath(), {});
    QTRY_VERIFY_WITH_TIMEOUT(studio.canReadLine() || studio.state() == QProcess::NotRunning, 30000);
    QCOMPARE(studio.readLine(), QByteArray("recording\n"));
    QElapsedTimer wall;
    wall.start();
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(path).size() > 1500000, 60000);
    ::kill(pid_t(studio.processId()), SIGKILL);
    const double wallSeconds = double(wall.elapsed()) / 1000.0;
    QVERIFY(studio.waitForFinished());
    const QByteArray original = contents(path);
    QCOMPARE(QSettings().value(QStringLiteral("unfinished_recording")).toString(), path);
    QCOMPARE(probeDuration(path), 0.0);

    StudioWindow window(false);
    const auto shown = [&window](const QString& text) {
        for (const QLabel* label : window.findChildren<QLabel*>())
            if (label->text() == text)
                return true;
        return false;
    };
    QTRY_VERIFY_WITH_TIMEOUT(shown(QStringLiteral("Grabación interrumpida reparada: ") + repaired), 60000);
    QVERIFY(!QSettings().contains(QStringLiteral("unfinished_recording")));
    // The copy has its length and a seek index: the Cues element, whose ID the head's seek table
    // also names; in the cut-off original, left as it was, only the seek table names it.
    const double seconds = probeDuration(repaired);
    QVERIFY2(seconds > wallSeconds / 2 && seconds <= wallSeconds + 0.5, qPrintable(QString::number(seconds)));
    const QByteArray cues = QByteArray::fromHex("1c53bb6b");
    QCOMPARE(contents(repaired).count(cues), 2);
    QCOMPARE(original.count(cues), 1);
    QCOMPARE(contents(path), original);
    QCOMPARE(playThrough(repaired), QString());
}

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    if (qEnvironmentVariableIsSet(recordVariable)) {
        StudioWindow window(false);
        window.take();
        window.startRecording(qEnvironmentVariable(recordVariable));
        std::printf("recording\n");
        std::fflush(stdout);
        return QApplication::exec();
    }
    tst_Outputs test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_outputs.moc"
