#include "Media.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "SecretStore.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <atomic>
#include <csignal>

using namespace Qt::StringLiterals;

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
    static void onAir(StudioWindow& window)
    {
        window.audioCombo->setCurrentIndex(1); // test tone
        window.connectSources();
        window.fadeCheck->setChecked(false);
        window.take();
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2 && !window.programAudio.empty(), 10000);
    }
};

static const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);

static void answerNextBox(QMessageBox::StandardButton answer)
{
    QTimer::singleShot(0, [answer] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            box->button(answer)->click();
    });
}

static QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void tst_Outputs::initTestCase()
{
    QSettings().setValue(u"onboarding_complete"_s, true);
    QDir().mkpath(folder);
    // Stream keys go to the test's own data folder, never to the user's keyring.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + folder.toUtf8() + "/no-bus");
}

void tst_Outputs::recordingThroughTheTick()
{
    StudioWindow window(false);
    onAir(window);
    const QString path = folder + u"/program.webm"_s;
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
    QSettings().remove(u"language"_s);
    window.languageCombo->setCurrentIndex(1);
    QCOMPARE(window.statusLabel->text(), u"Detén las salidas antes de cambiar el idioma."_s);
    QVERIFY(window.languageCombo->currentIndex() == 0 && !QSettings().contains(u"language"_s));

    QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 90, 20000);
    window.recordButton->click();
    const double recordedFor = wallClock.elapsed() / 1000.0;
    QCOMPARE(window.recordButton->text(), u"Finalizando..."_s);
    QTRY_VERIFY_WITH_TIMEOUT(!window.recording, 20000);
    QCOMPARE(window.statusLabel->text(), u"Grabación guardada correctamente"_s);
    QCOMPARE(window.recordButton->text(), u"● Grabar"_s);
    QVERIFY(window.formatCombo->isEnabled());
    const auto streams = probeStreams(path);
    QVERIFY2(streams.contains(u"vp8"_s) && streams.contains(u"vorbis"_s), qPrintable(describeStreams(streams)));
    QVERIFY(qAbs(streams.value(u"vp8"_s).frames - entered) <= 2);
    // The paced clock's timestamps: a period apart at least, never ahead of the wall clock.
    const double seconds = probeDuration(path);
    QVERIFY2(seconds >= (entered - 1) / 30.0 - 0.05 && seconds <= recordedFor + 0.3,
             qPrintable(QString::number(seconds)));
    QCOMPARE(playThrough(path), QString());
}

void tst_Outputs::failingRowLeavesTheRestOnAir()
{
    RtmpServer server(folder + u"/rtmp"_s);
    QVERIFY2(server.ok(), qPrintable(server.errorString()));
    StudioWindow window(false);
    onAir(window);
    window.startRecording(folder + u"/beside-the-rows.webm"_s);
    // Two rows selected: one reaches the server, one reaches nobody.
    Destination &row = window.destinations[3], &failing = window.destinations[2];
    const QString key = u"tick-stream-key"_s, failingKey = u"nobody-listens"_s;
    QFile::remove(server.recording(key));
    row.server->setText(u"rtmp://127.0.0.1:%1/app/"_s.arg(server.port()));
    row.key->setText(key);
    failing.server->setText(u"rtmp://127.0.0.1:%1/app"_s.arg(RtmpServer::freePort()));
    failing.key->setText(failingKey);
    row.enabled->setChecked(true);
    failing.enabled->setChecked(true);
    window.startSelectedDestinations();
    QCOMPARE(row.status->text(), u"Enviando · confirma recepción en la plataforma"_s);
    QTRY_VERIFY_WITH_TIMEOUT(!failing.output, 20000);
    QVERIFY2(failing.status->text().startsWith(u"Fallo de salida (codigo "_s), qPrintable(failing.status->text()));
    QCOMPARE(failing.button->text(), u"Iniciar"_s);
    QVERIFY(!window.formatCombo->isEnabled());
    // The other row and the recording go on.
    const std::uint64_t recorded = window.recording->videoFrames;
    QTRY_VERIFY_WITH_TIMEOUT(window.recording && window.recording->videoFrames > recorded + 15 && row.output &&
                                 row.output->videoFrames >= 120, 20000);
    const std::uint64_t pushed = row.output->videoFrames;
    row.button->click();
    QCOMPARE(row.button->text() + row.status->text(), u"IniciarDetenido"_s);
    QTRY_VERIFY_WITH_TIMEOUT(window.retired.empty(), 20000);
    server.stop();
    // A busy encoder's pictures are dropped at the source, so not all of them need arrive.
    const auto streams = probeStreams(server.recording(key));
    QVERIFY2(streams.value(u"h264"_s).frames >= int(pushed / 2) && streams.value(u"aac"_s).frames > 0,
             qPrintable(describeStreams(streams)));
    // The keys appear nowhere but in their fields.
    const QString log = QString::fromUtf8(contents(StudioWindow::logPath()));
    QVERIFY(log.contains(u"Salida Otro RTMP: servidor=rtmp://127.0.0.1:%1/app/ clave: 15 caracteres, empieza \"tick\""_s
                             .arg(server.port())));
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
    const QString badServer = u"Servidor RTMP/RTMPS inválido. Separa la clave del servidor."_s;
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
    QVERIFY(storeSecret(u"stream-Otro RTMP"_s, u"stored-key"_s));
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
    QVERIFY(!window.outputsRunning() && window.formatCombo->isEnabled());
    QCOMPARE(row.button->text() + window.recordButton->text(), u"Iniciar● Grabar"_s);
    QCOMPARE(row.server->text() + row.key->text(), server + key);
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
    const QString path = folder + u"/closing.webm"_s;
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
    const QString path = folder + u"/service.webm"_s, repaired = folder + u"/service-reparada.webm"_s;
    QFile::remove(path);
    QFile::remove(repaired);
    QProcess studio; // this program again, recording until it is killed
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"VELMORA_RECORD_UNTIL_KILLED"_s, path);
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
    QCOMPARE(QSettings().value(u"unfinished_recording"_s).toString(), path);
    QCOMPARE(probeDuration(path), 0.0);

    StudioWindow window(false);
    const auto shown = [&window](const QString& text) {
        const auto labels = window.findChildren<QLabel*>();
        return std::any_of(labels.begin(), labels.end(), [&text](QLabel* label) { return label->text() == text; });
    };
    QTRY_VERIFY_WITH_TIMEOUT(shown(u"Grabación interrumpida reparada: "_s + repaired), 60000);
    QVERIFY(!QSettings().contains(u"unfinished_recording"_s));
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
    QCoreApplication::setOrganizationName(u"Lorvane"_s);
    QCoreApplication::setApplicationName(u"TavrinStudio"_s);
    gst_init(nullptr, nullptr);
    if (qEnvironmentVariableIsSet("VELMORA_RECORD_UNTIL_KILLED")) {
        StudioWindow window(false);
        window.take();
        window.startRecording(qEnvironmentVariable("VELMORA_RECORD_UNTIL_KILLED"));
        std::printf("recording\n");
        std::fflush(stdout);
        return QApplication::exec();
    }
    tst_Outputs test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_outputs.moc"
