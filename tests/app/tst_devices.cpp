#include "AudioCapture.h"
#include "AudioPeak.h"
#include "Media.h"
#include "GstTestRun.h"
#include "SoundServer.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QProcess>
#include <QProgressBar>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

namespace {

const QString nullMonitor = QStringLiteral("Monitor of Null Output");
const QString sourcesOpen = QStringLiteral("Fuentes abiertas. Prepara una escena y pulsa AL AIRE.");

QString runtimeFolder()
{
    return QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");
}

// The test's own sound server. Its client library, loaded by GStreamer's plug-in, reads these when it
// first connects; they are set before the application object and GStreamer exist.
const bool soundServerEnvironment = [] {
    SoundServer::useFolder(runtimeFolder());
    return true;
}();

// Runs one sound server tool to its end; English texts whatever the test's language.
bool runTool(const QString& program, const QStringList& arguments, QString* output = nullptr)
{
    QProcess tool;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    tool.setProcessEnvironment(environment);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, arguments);
    const bool finished = tool.waitForFinished(30000);
    if (output)
        *output = QString::fromLocal8Bit(tool.readAll());
    return finished && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
}

QPushButton* buttonNamed(const StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    return nullptr;
}

QStringList itemsOf(const QComboBox* combo)
{
    QStringList items;
    for (int index = 0; index < combo->count(); ++index)
        items.append(combo->itemText(index));
    return items;
}

} // namespace

// Device lists and "Conectar fuentes" on a real window, against a real sound server with a null
// sink whose monitor is the audio input; the camera is the test pattern, as no camera exists here.
class tst_Devices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void listsStartWithTheBuiltInEntries();
    void monitorFeedsMeterAndProgramAudio();
    void connectingAgainKeepsTheCameraAndRenewsTheAudio();
    void silenceLeavesNoCapture();
    void staleIndexIsReportedWithItsPrefix_data();
    void staleIndexIsReportedWithItsPrefix();
    void removedDeviceLeavesTheListOnRefresh();

private:
    void needSoundServer();
    static void connectSources(StudioWindow& window);
    QString skipReason;
    QString serverFailure;
    SoundServer soundServer{runtimeFolder()};
    QString tonePath;
};

void tst_Devices::initTestCase()
{
    QVERIFY(soundServerEnvironment);
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(folder));

    for (const char* tool : {"pulseaudio", "paplay", "pactl"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
            skipReason = QStringLiteral("%1 is not installed").arg(QString::fromLatin1(tool));
    }
    if (skipReason.isEmpty()) {
        QVERIFY(soundServer.clearFolder());
        serverFailure = soundServer.start();
    }
    gst_init(nullptr, nullptr);

    // Four seconds of a loud tone to play into the sink.
    tonePath = folder + QStringLiteral("/tone.wav");
    const QByteArray description =
        "audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! "
        "audio/x-raw,format=S16LE,rate=48000,channels=2 ! wavenc ! filesink location=\"" +
        QFile::encodeName(tonePath) + '"';
    QVERIFY(runToEnd(description));
}

void tst_Devices::cleanupTestCase()
{
    soundServer.stop();
}

void tst_Devices::needSoundServer()
{
    if (!skipReason.isEmpty())
        QSKIP(qPrintable(skipReason));
    if (!serverFailure.isEmpty())
        QFAIL(qPrintable(serverFailure));
}

// Presses "Conectar fuentes" as the operator does.
void tst_Devices::connectSources(StudioWindow& window)
{
    QPushButton* connectButton = buttonNamed(window, QStringLiteral("Conectar fuentes"));
    QVERIFY(connectButton);
    connectButton->click();
}

void tst_Devices::listsStartWithTheBuiltInEntries()
{
    needSoundServer();
    StudioWindow window(false);
    const QStringList cameras = itemsOf(window.cameraCombo);
    QCOMPARE(cameras.value(0), QStringLiteral("Barras de prueba"));
    QCOMPARE(std::size_t(cameras.size()), 1 + window.videoDevices.size());

    const QStringList inputs = itemsOf(window.audioCombo);
    QCOMPARE(inputs.mid(0, 2), (QStringList{QStringLiteral("Sin entrada / silencio"),
                                            QStringLiteral("Señal de prueba (sin altavoces)")}));
    QCOMPARE(std::size_t(inputs.size()), 2 + window.audioDevices.size());
    QVERIFY2(inputs.indexOf(nullMonitor) >= 2, qPrintable(inputs.join(QStringLiteral(" | "))));
    // Each entry from 2 on is the device at the same place, less two.
    const qsizetype at = inputs.indexOf(nullMonitor);
    const gstptr::String name(gst_device_get_display_name(window.audioDevices.at(std::size_t(at - 2)).get()));
    QCOMPARE(QString::fromUtf8(name.get()), nullMonitor);
}

void tst_Devices::monitorFeedsMeterAndProgramAudio()
{
    needSoundServer();
    StudioWindow window(false);
    const int monitor = window.audioCombo->findText(nullMonitor);
    QVERIFY(monitor >= 2);
    window.audioCombo->setCurrentIndex(monitor);
    connectSources(window);
    QVERIFY(window.capture);
    QCOMPARE(window.statusLabel->text(), sourcesOpen);

    // The sink plays nothing yet: its monitor runs, and the meter stays down.
    QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 10, 5000);
    QCOMPARE(window.inputMeter->value(), 0);

    QVERIFY(soundServer.play(tonePath));
    const auto stopPlayer = qScopeGuard([this] { soundServer.stopPlaying(); });
    QTRY_VERIFY_WITH_TIMEOUT(window.inputMeter->value() > 0, 10000);
    QTRY_VERIFY_WITH_TIMEOUT(peakOf(window.programAudio) > 0.1f, 5000);
    QVERIFY(window.programAudio.size() <= 96000);
    QVERIFY(window.capture && window.capture->running);
}

void tst_Devices::connectingAgainKeepsTheCameraAndRenewsTheAudio()
{
    needSoundServer();
    StudioWindow window(false);
    window.audioCombo->setCurrentIndex(window.audioCombo->findText(nullMonitor));
    const std::shared_ptr<Media> pattern = window.camera;
    QVERIFY(pattern);
    QTRY_VERIFY_WITH_TIMEOUT(pattern->frameCount > 2, 10000);

    connectSources(window);
    QVERIFY(window.capture);
    // Held so that the address cannot come back for the next capture.
    const gstptr::Element firstPipeline(GST_ELEMENT(gst_object_ref(window.capture->pipeline.get())));
    QCOMPARE(window.camera, pattern);

    connectSources(window);
    QCOMPARE(window.camera, pattern);
    QVERIFY(window.camera->running);
    QVERIFY(window.capture);
    QVERIFY(window.capture->pipeline.get() != firstPipeline.get());
    QCOMPARE(window.statusLabel->text(), sourcesOpen);
    QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 5, 5000);
}

void tst_Devices::silenceLeavesNoCapture()
{
    // The test signal needs no sound server.
    StudioWindow window(false);
    window.audioCombo->setCurrentIndex(1);
    connectSources(window);
    QVERIFY(window.capture);
    QTRY_VERIFY_WITH_TIMEOUT(!window.programAudio.empty(), 5000);

    window.audioCombo->setCurrentIndex(0);
    connectSources(window);
    QVERIFY(!window.capture);
    QVERIFY(window.programAudio.empty());
    QCOMPARE(window.statusLabel->text(), sourcesOpen);
    // Some frames later nothing has come in.
    const std::uint32_t frames = window.camera->frameCount;
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount >= frames + 10, 5000);
    QVERIFY(window.programAudio.empty());
    QCOMPARE(window.inputMeter->value(), 0);
}

void tst_Devices::staleIndexIsReportedWithItsPrefix_data()
{
    QTest::addColumn<bool>("cameraGone");
    QTest::newRow("audio") << false;
    QTest::newRow("camera") << true;
}

void tst_Devices::staleIndexIsReportedWithItsPrefix()
{
    QFETCH(bool, cameraGone);

    StudioWindow window(false);
    const std::shared_ptr<Media> pattern = window.camera;
    // A combo entry whose device is no longer in the list, as after a scan that found fewer.
    QComboBox* combo = cameraGone ? window.cameraCombo : window.audioCombo;
    combo->addItem(QStringLiteral("Dispositivo retirado"));
    combo->setCurrentIndex(combo->count() - 1);
    if (!cameraGone)
        window.audioDevices.clear();
    else {
        window.videoDevices.clear();
        window.audioCombo->setCurrentIndex(1);
    }

    connectSources(window);
    const QString prefix = cameraGone ? QStringLiteral("Cámara: ") : QStringLiteral("Audio: ");
    const QString status = window.statusLabel->text();
    QVERIFY2(status.startsWith(prefix) && status.size() > prefix.size(), qPrintable(status));
    // The rest stands: the old camera stays, and a camera failure does not stop the audio.
    QCOMPARE(window.camera, pattern);
    QCOMPARE(window.cameraIndex, -1);
    QCOMPARE(bool(window.capture), cameraGone);
    const std::uint32_t frames = window.camera->frameCount;
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > frames + 5, 5000);
    if (cameraGone)
        QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 5, 5000);
}

void tst_Devices::removedDeviceLeavesTheListOnRefresh()
{
    needSoundServer();
    StudioWindow window(false);
    QVERIFY(window.audioCombo->findText(nullMonitor) >= 2);
    QPushButton* refresh = buttonNamed(window, QStringLiteral("Actualizar dispositivos"));
    QVERIFY(refresh);

    QString output;
    QVERIFY2(runTool(QStringLiteral("pactl"),
                     {QStringLiteral("unload-module"), QStringLiteral("module-null-sink")}, &output),
             qPrintable(output));
    bool loaded = false;
    const auto restore = qScopeGuard([&loaded] {
        if (!loaded)
            runTool(QStringLiteral("pactl"),
                    {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                     QStringLiteral("sink_name=studio")});
    });
    // Devices are not watched: the list changes only on a refresh.
    QVERIFY(window.audioCombo->findText(nullMonitor) >= 2);
    refresh->click();
    const QStringList inputs = itemsOf(window.audioCombo);
    QCOMPARE(inputs.indexOf(nullMonitor), -1);
    QCOMPARE(inputs.mid(0, 2), (QStringList{QStringLiteral("Sin entrada / silencio"),
                                            QStringLiteral("Señal de prueba (sin altavoces)")}));
    QCOMPARE(std::size_t(inputs.size()), 2 + window.audioDevices.size());
    QCOMPARE(window.cameraCombo->itemText(0), QStringLiteral("Barras de prueba"));

    // Back again, it shows after the next refresh only.
    QVERIFY2(runTool(QStringLiteral("pactl"),
                     {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                      QStringLiteral("sink_name=studio")},
                     &output),
             qPrintable(output));
    loaded = true;
    QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
    refresh->click();
    QVERIFY(window.audioCombo->findText(nullMonitor) >= 2);
}

QTEST_MAIN(tst_Devices)
#include "tst_devices.moc"
