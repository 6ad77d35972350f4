#include "Media.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <atomic>
#include <csignal>

using namespace Qt::StringLiterals;

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

// The outputs as the operator drives them: the real tick records and streams to a real RTMP server,
// ffprobe checks what arrived, and a recording cut off by a crash is repaired at the next start.
class tst_Outputs : public QObject
{
    Q_OBJECT

    static void onAir(StudioWindow& window)
    {
        window.audioCombo->setCurrentIndex(1); // test tone
        window.connectSources();
        window.fadeCheck->setChecked(false);
        window.take();
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2 && !window.programAudio.empty(), 10000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QSettings().setValue(u"onboarding_complete"_s, true);
        QDir().mkpath(folder);
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + folder.toUtf8() + "/no-bus"); // not the user's keyring
    }

    // One run: a recording, a row that reaches the server and a row that reaches nobody.
    void streamAndRecordWhileARowFails()
    {
        RtmpServer server(folder + u"/rtmp"_s);
        QVERIFY2(server.ok(), qPrintable(server.errorString()));
        StudioWindow window(false);
        onAir(window);
        const QString path = folder + u"/program.webm"_s, key = u"tick-stream-key"_s, failingKey = u"nobody"_s;
        QFile::remove(path);
        QFile::remove(server.recording(key));
        QElapsedTimer wallClock;
        wallClock.start();
        window.startRecording(path);
        // A busy encoder's pictures are dropped at the source on purpose: the file holds what entered.
        std::atomic<int> entered{0};
        const gstptr::Pad pad(gst_element_get_static_pad(window.recording->videoSource, "src"));
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad*, GstPadProbeInfo*, gpointer counter) {
            ++*static_cast<std::atomic<int>*>(counter);
            return GST_PAD_PROBE_OK;
        }, &entered, nullptr);
        QSettings().remove(u"language"_s);
        window.languageCombo->setCurrentIndex(1);
        QCOMPARE(window.statusLabel->text(), u"Detén las salidas antes de cambiar el idioma."_s);
        QVERIFY(window.languageCombo->currentIndex() == 0 && !QSettings().contains(u"language"_s));

        Destination &row = window.destinations[3], &failing = window.destinations[2];
        row.server->setText(u"rtmp://127.0.0.1:%1/app/"_s.arg(server.port()));
        failing.server->setText(u"rtmp://127.0.0.1:%1/app"_s.arg(RtmpServer::freePort()));
        row.key->setText(key);
        failing.key->setText(failingKey);
        row.enabled->setChecked(true);
        failing.enabled->setChecked(true);
        window.startSelectedDestinations();
        QCOMPARE(row.status->text(), u"Enviando · confirma recepción en la plataforma"_s);
        QTRY_VERIFY_WITH_TIMEOUT(!failing.output, 20000);
        const QString failed = failing.status->text();
        QVERIFY2(failed.startsWith(u"Fallo de salida (codigo "_s) && failing.button->text() == u"Iniciar"_s,
                 qPrintable(failed));
        // The other row and the recording go on.
        const std::uint64_t enough = std::max<std::uint64_t>(window.recording->videoFrames + 15, 90);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording && window.recording->videoFrames > enough && row.output &&
                                     row.output->videoFrames >= 120, 20000);
        const std::uint64_t pushed = row.output->videoFrames;
        row.button->click();
        QCOMPARE(row.button->text() + row.status->text(), u"IniciarDetenido"_s);
        QVERIFY(!window.formatCombo->isEnabled());
        window.recordButton->click();
        const double recordedFor = wallClock.elapsed() / 1000.0;
        QCOMPARE(window.recordButton->text(), u"Finalizando..."_s);
        QTRY_VERIFY_WITH_TIMEOUT(!window.recording && window.retired.empty(), 20000);
        QCOMPARE(window.statusLabel->text() + window.recordButton->text(),
                 u"Grabación guardada correctamente● Grabar"_s);
        QVERIFY(window.formatCombo->isEnabled());
        server.stop();
        const auto sent = probeStreams(server.recording(key)), streams = probeStreams(path);
        QVERIFY2(sent.value(u"h264"_s).frames >= int(pushed / 2) && sent.value(u"aac"_s).frames > 0,
                 qPrintable(describeStreams(sent)));
        QVERIFY2(streams.contains(u"vorbis"_s) && qAbs(streams.value(u"vp8"_s).frames - entered) <= 2,
                 qPrintable(describeStreams(streams)));
        // The paced clock's timestamps: a period apart at least, never ahead of the wall clock.
        const double seconds = probeDuration(path);
        QVERIFY2(seconds >= (entered - 1) / 30.0 - 0.05 && seconds <= recordedFor + 0.3,
                 qPrintable(QString::number(seconds)));
        QCOMPARE(playThrough(path), QString());
        // The keys appear nowhere but in their fields.
        const QString log = QString::fromUtf8(contents(StudioWindow::logPath()));
        QVERIFY(log.contains(u"Salida Otro RTMP: servidor=rtmp://127.0.0.1:%1/app/ clave: 15 caracteres, "
                             "empieza \"tick\""_s.arg(server.port())));
        QStringList texts{log};
        for (const QString& setting : QSettings().allKeys())
            texts << QSettings().value(setting).toString();
        for (const QString& text : texts)
            QVERIFY(!text.contains(key) && !text.contains(failingKey));
    }

    void refusedEntryChangesNothing_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("recording"); // when set, a recording into this file is started instead
        QTest::addColumn<QString>("message");
        QTest::newRow("key in the server") << "rtmp://127.0.0.1/app?key=abc" << "k" << ""
                                           << "Servidor RTMP/RTMPS inválido. Separa la clave del servidor.";
        QTest::newRow("key with a blank") << "rtmp://127.0.0.1/app" << "a b" << "" << "Clave de transmisión inválida";
        QTest::newRow("missing folder") << "" << "" << "/no/such/program.webm" << "No se pudo iniciar salida";
    }

    void refusedEntryChangesNothing()
    {
        QFETCH(QString, server);
        QFETCH(QString, key);
        QFETCH(QString, recording);
        StudioWindow window(false);
        Destination& row = window.destinations[3];
        row.server->setText(server);
        row.key->setText(key);
        answerNextBox(QMessageBox::Ok);
        window.runGuarded([&] { recording.isEmpty() ? row.button->click() : window.startRecording(recording); });
        QTEST(window.statusLabel->text(), "message");
        QVERIFY(!window.outputsRunning() && window.formatCombo->isEnabled());
        QCOMPARE(row.button->text() + window.recordButton->text() + row.server->text() + row.key->text(),
                 u"Iniciar● Grabar"_s + server + key);
    }

    // Closing asks first: "no" keeps the tick and the recording going, "yes" finishes the file.
    void closingFinishesTheRecording()
    {
        const QString path = folder + u"/closing.webm"_s;
        QFile::remove(path);
        StudioWindow window(false);
        window.show();
        onAir(window);
        window.startRecording(path);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 30, 20000);
        answerNextBox(QMessageBox::No);
        QVERIFY(!window.close());
        const std::uint64_t recorded = window.recording->videoFrames;
        QTRY_VERIFY(window.recording->videoFrames > recorded + 10);
        answerNextBox(QMessageBox::Yes);
        QVERIFY(window.close());
        QVERIFY(window.recording->ended && playThrough(path).isEmpty() && probeDuration(path) > 0.9);
    }

    void killedRecordingIsRepairedAtTheNextStart()
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
        QTRY_VERIFY_WITH_TIMEOUT(std::ranges::any_of(window.findChildren<QLabel*>(), [&](QLabel* label) {
            return label->text() == u"Grabación interrumpida reparada: "_s + repaired;
        }), 60000);
        QVERIFY(!QSettings().contains(u"unfinished_recording"_s));
        const double seconds = probeDuration(repaired);
        QVERIFY2(seconds > wallSeconds / 2 && seconds <= wallSeconds + 0.5, qPrintable(QString::number(seconds)));
        // A seek index now: the Cues element, named also by the head's seek table. The original is left as is.
        const QByteArray cues = QByteArray::fromHex("1c53bb6b");
        QVERIFY(contents(repaired).count(cues) == 2 && original.count(cues) == 1 && contents(path) == original);
        QCOMPARE(playThrough(repaired), QString());
    }
};

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
