#include "AudioCapture.h"
#include "GstSupport.h"
#include "Media.h"
#include "Output.h"
#include "Processes.h"
#include "RtmpServer.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <csignal>

using namespace Qt::StringLiterals;

static const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT), tone = folder + u"/tone.wav"_s;
static const QString nullMonitor = u"Monitor of Null Output"_s;

static QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Sources and outputs as the operator drives them: a real sound server's null sink is the audio input; the
// tick records and streams to a real RTMP server, and a recording cut off by a crash is repaired.
class tst_Outputs : public QObject
{
    Q_OBJECT
    SoundServer soundServer{folder + u"/runtime"_s};

private Q_SLOTS:
    void initTestCase()
    {
        QDir().mkpath(folder);
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + folder.toUtf8() + "/no-bus"); // not the user's keyring
        QVERIFY(soundServer.clearFolder());
        QCOMPARE(soundServer.start(), QString()); // the failure, if any
        QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! audio/x-raw,format=S16LE,"
                         "rate=48000,channels=2 ! wavenc ! filesink location=\"" + QFile::encodeName(tone) + '"'));
    }

    // Sources: a real sink's monitor, no input, a refresh, devices gone when opened. Then outputs: a refused
    // destination or recording shows why and changes nothing; then a recording, a row that reaches the server and
    // a row that reaches nobody. Closing asks first: "no" keeps all on air, "yes" ends the file.
    void sourcesThenOutputs()
    {
        RtmpServer server(folder + u"/rtmp"_s);
        QVERIFY(server.ok());
        StudioWindow window(false);
        const std::shared_ptr<Media> pattern = window.camera;
        window.audioCombo->setCurrentIndex(window.audioCombo->findText(nullMonitor));
        window.connectSources();
        QCOMPARE(window.statusLabel->text(), u"Fuentes abiertas. Prepara una escena y pulsa AL AIRE."_s);
        // The sink plays nothing yet: its monitor runs, and the meter stays down.
        QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 10, 5000);
        QCOMPARE(window.inputMeter->value(), 0);
        QVERIFY(soundServer.play(tone));
        const auto stopPlayer = qScopeGuard([this] { soundServer.stopPlaying(); });
        QTRY_VERIFY_WITH_TIMEOUT(window.inputMeter->value() > 0 && peakOf(window.programAudio) > 0.1f, 10000);
        // No input: the running camera stays, nothing is captured.
        window.audioCombo->setCurrentIndex(0);
        window.connectSources();
        QVERIFY(!window.capture && window.camera == pattern);
        QTRY_VERIFY(window.programAudio.empty() && window.inputMeter->value() == 0);
        // A refresh drops a device gone and finds it back.
        runTool(u"pactl"_s, {u"unload-module"_s, u"module-null-sink"_s});
        window.refreshDevices();
        QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
        runTool(u"pactl"_s, {u"load-module"_s, u"module-null-sink"_s, u"sink_name=studio"_s});
        window.refreshDevices();
        QVERIFY(window.audioCombo->findText(nullMonitor) >= 2); // after "none" and the test tone
        // Listed, but gone when opened: the old camera stays, and a camera failure does not stop the audio.
        for (const bool camera : {false, true}) {
            QComboBox* combo = camera ? window.cameraCombo : window.audioCombo;
            (camera ? window.videoDevices : window.audioDevices)
                .push_back(makeFakeDevice("Desenchufado", camera ? "Video/Source" : "Audio/Source", nullptr, {}));
            combo->addItem(u"Desenchufado"_s);
            combo->setCurrentIndex(combo->count() - 1);
            if (camera)
                window.audioCombo->setCurrentIndex(1);
            window.connectSources();
            QCOMPARE(window.statusLabel->text(), camera ? u"Cámara: Falta componente de fuente multimedia"_s
                                                        : u"Audio: Faltan componentes de captura de audio"_s);
            QVERIFY(window.camera == pattern && window.cameraIndex == -1 && bool(window.capture) == camera);
            const std::uint32_t frames = window.camera->frameCount;
            QTRY_VERIFY_WITH_TIMEOUT(
                window.camera->frameCount > frames + 5 && (!camera || window.capture->blockCount >= 5), 5000);
        }
        Destination &row = window.destinations[3], &failing = window.destinations[2];
        row.server->setText(u"rtmp://127.0.0.1/app?key=abc"_s);
        row.key->setText(u"k"_s);
        for (const bool recording : {false, true}) {
            answerNextBox(QMessageBox::Ok);
            window.runGuarded([&] { recording ? window.startRecording(u"/no/such/a.webm"_s) : row.button->click(); });
            const QString badServer = u"Servidor RTMP/RTMPS inválido. Separa la clave del servidor."_s;
            QCOMPARE(window.statusLabel->text(), recording ? u"No se pudo iniciar salida"_s : badServer);
            QVERIFY(!window.outputsRunning() && window.formatCombo->isEnabled());
            QCOMPARE(row.button->text() + window.recordButton->text() + row.server->text() + row.key->text(),
                     u"Iniciar● Grabarrtmp://127.0.0.1/app?key=abck"_s);
        }
        window.fadeCheck->setChecked(false); // the test tone and the test pattern from above
        window.take();
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2 && !window.programAudio.empty(), 10000);
        const QString path = folder + u"/program.webm"_s, closing = folder + u"/closing.webm"_s;
        const QString key = u"tick-stream-key"_s, failingKey = u"nobody"_s;
        QFile::remove(path);
        QFile::remove(closing);
        window.startRecording(path);
        for (auto [each, port, text] : {std::tuple{&row, server.port(), key},
                                        {&failing, RtmpServer::freePort(), failingKey}}) {
            each->server->setText(u"rtmp://127.0.0.1:%1/app/"_s.arg(port));
            each->key->setText(text);
            each->enabled->setChecked(true);
        }
        window.startSelectedDestinations();
        QCOMPARE(row.status->text(), u"Enviando · confirma recepción en la plataforma"_s);
        window.languageCombo->setCurrentIndex(1); // no change of language on air, and nothing stored
        QCOMPARE(window.statusLabel->text(), u"Detén las salidas antes de cambiar el idioma."_s);
        QVERIFY(window.languageCombo->currentIndex() == 0 && QSettings().value(u"language"_s, u"es"_s) == u"es"_s);
        answerNextBox(QMessageBox::No);
        QVERIFY(!window.close());
        QTRY_VERIFY_WITH_TIMEOUT(!failing.output, 20000);
        QVERIFY(failing.status->text().startsWith(u"Fallo de salida (codigo "_s));
        QCOMPARE(failing.button->text(), u"Iniciar"_s);
        // The other row and the recording go on.
        const std::uint64_t enough = std::max<std::uint64_t>(window.recording->videoFrames + 15, 90);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording && window.recording->videoFrames > enough && row.output &&
                                     row.output->videoFrames >= 120, 20000);
        const std::uint64_t pushed = row.output->videoFrames;
        row.button->click();
        QVERIFY(row.status->text() == u"Detenido"_s && !window.formatCombo->isEnabled());
        window.recordButton->click();
        QCOMPARE(window.recordButton->text(), u"Finalizando..."_s);
        QTRY_VERIFY_WITH_TIMEOUT(!window.recording && window.retired.empty(), 20000);
        QCOMPARE(window.statusLabel->text(), u"Grabación guardada correctamente"_s);
        QVERIFY(window.formatCombo->isEnabled());
        server.stop();
        const auto sent = probeStreams(server.recording(key)), streams = probeStreams(path);
        QVERIFY(sent.value(u"h264"_s).frames >= int(pushed / 2) && sent.value(u"aac"_s).frames > 0);
        QVERIFY(streams.contains(u"vorbis"_s) && streams.value(u"vp8"_s).frames > 30 && playThrough(path).isEmpty());
        // The keys appear nowhere but in their fields: the log tells only their length and start.
        QString texts = QString::fromUtf8(contents(StudioWindow::logPath()));
        QVERIFY(texts.contains(u"clave: 15 caracteres, empieza \"tick\""_s));
        for (const QString& setting : QSettings().allKeys())
            texts += QSettings().value(setting).toString();
        QVERIFY(!texts.contains(key) && !texts.contains(failingKey));
        window.startRecording(closing);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 30, 20000);
        answerNextBox(QMessageBox::Yes);
        QVERIFY(window.close() && window.recording->ended);
        QVERIFY(playThrough(closing).isEmpty() && probeDuration(closing) > 0.9);
    }

    void killedRecordingIsRepairedAtTheNextStart()
    {
        const QString path = folder + u"/service.webm"_s, repaired = folder + u"/service-reparada.webm"_s;
        QFile::remove(path);
        QFile::remove(repaired);
        QProcess studio; // this program again, recording until it is killed
        QElapsedTimer wall;
        wall.start();
        qputenv("VELMORA_RECORD_UNTIL_KILLED", path.toUtf8());
        studio.start(QCoreApplication::applicationFilePath(), {});
        qunsetenv("VELMORA_RECORD_UNTIL_KILLED");
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(path).size() > 1500000, 60000);
        ::kill(pid_t(studio.processId()), SIGKILL);
        const double wallSeconds = double(wall.elapsed()) / 1000.0;
        QVERIFY(studio.waitForFinished() && QSettings().value(u"unfinished_recording"_s).toString() == path);
        const QByteArray original = contents(path);
        StudioWindow window(false);
        QTRY_COMPARE_WITH_TIMEOUT(window.statusLabel->text(), u"Grabación interrumpida reparada: "_s + repaired,
                                  60000);
        QVERIFY(!QSettings().contains(u"unfinished_recording"_s));
        const double seconds = probeDuration(repaired);
        QVERIFY(seconds > wallSeconds / 2 && seconds <= wallSeconds + 0.5);
        // A seek index now: the Cues element, named also by the head's seek table. The original is left as is.
        const QByteArray cues = QByteArray::fromHex("1c53bb6b");
        QVERIFY(contents(repaired).count(cues) == 2 && original.count(cues) == 1 && contents(path) == original);
        QCOMPARE(playThrough(repaired), QString());
    }
};

int main(int argc, char** argv)
{
    SoundServer::useFolder(folder + u"/runtime"_s); // before the application and GStreamer, for the client library
    QApplication app(argc, argv);
    prepareStudioTest();
    if (qEnvironmentVariableIsSet("VELMORA_RECORD_UNTIL_KILLED")) {
        StudioWindow window(false);
        window.take();
        window.startRecording(qEnvironmentVariable("VELMORA_RECORD_UNTIL_KILLED"));
        return QApplication::exec();
    }
    tst_Outputs test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_outputs.moc"
