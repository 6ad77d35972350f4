#include "AudioCapture.h"
#include "AudioPeak.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "Media.h"
#include "MediaProbe.h"
#include "SoundServer.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>

using namespace Qt::StringLiterals;

namespace {

const QString nullMonitor = u"Monitor of Null Output"_s;
const QString sourcesOpen = u"Fuentes abiertas. Prepara una escena y pulsa AL AIRE."_s;
const QString runtimeFolder = QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");
// Set before the application object and GStreamer exist, for the sound server's client library.
const bool soundServerEnvironment = (SoundServer::useFolder(runtimeFolder), true);

// Presses a button of the window as the operator does.
void press(const StudioWindow& window, const QString& text = u"Conectar fuentes"_s)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each->click();
    QFAIL(qPrintable(u"no button "_s + text));
}

} // namespace

// Device lists and "Conectar fuentes" on a real window, against a real sound server with a null
// sink whose monitor is the audio input; the camera is the test pattern, as no camera exists here.
class tst_Devices : public QObject
{
    Q_OBJECT
    SoundServer soundServer{runtimeFolder};
    QString tonePath = QStringLiteral(VELMORA_TEST_OUTPUT "/tone.wav");

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(soundServerEnvironment);
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        QSettings().setValue(u"onboarding_complete"_s, true);
        QVERIFY(soundServer.clearFolder());
        QCOMPARE(soundServer.start(), QString()); // the failure, if any
        gst_init(nullptr, nullptr);
        QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! audio/x-raw,format=S16LE,"
                         "rate=48000,channels=2 ! wavenc ! filesink location=\"" + QFile::encodeName(tonePath) + '"'));
    }

    void audioInputOnConnect()
    {
        StudioWindow window(false);
        const std::shared_ptr<Media> pattern = window.camera;
        window.audioCombo->setCurrentIndex(window.audioCombo->findText(nullMonitor));
        press(window);
        QCOMPARE(window.statusLabel->text(), sourcesOpen);
        // The sink plays nothing yet: its monitor runs, and the meter stays down.
        QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 10, 5000);
        QCOMPARE(window.inputMeter->value(), 0);
        QVERIFY(soundServer.play(tonePath));
        const auto stopPlayer = qScopeGuard([this] { soundServer.stopPlaying(); });
        QTRY_VERIFY_WITH_TIMEOUT(window.inputMeter->value() > 0 && peakOf(window.programAudio) > 0.1f, 10000);
        QVERIFY(window.programAudio.size() <= 96000);
        // Connecting again keeps the running camera and opens the audio anew.
        const gstptr::Element firstPipeline(GST_ELEMENT(gst_object_ref(window.capture->pipeline.get())));
        press(window);
        QVERIFY(window.camera == pattern && window.capture && window.capture->pipeline.get() != firstPipeline.get());
        QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 5, 5000);
        // No input: nothing is captured while the frames go on.
        window.audioCombo->setCurrentIndex(0);
        press(window);
        QVERIFY(!window.capture && window.statusLabel->text() == sourcesOpen);
        const std::uint32_t frames = window.camera->frameCount;
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount >= frames + 10, 5000);
        QVERIFY(window.programAudio.empty() && window.inputMeter->value() == 0);
    }

    void deviceThatWillNotOpenIsReported_data()
    {
        QTest::addColumn<bool>("camera");
        QTest::addColumn<QString>("message");
        QTest::newRow("audio") << false << "Audio: Faltan componentes de captura de audio";
        QTest::newRow("camera") << true << "Cámara: Falta componente de fuente multimedia";
    }

    // Listed, but gone by the time it is opened: it makes no element. The old camera stays, and a
    // camera failure does not stop the audio.
    void deviceThatWillNotOpenIsReported()
    {
        QFETCH(bool, camera);
        StudioWindow window(false);
        const std::shared_ptr<Media> pattern = window.camera;
        QComboBox* combo = camera ? window.cameraCombo : window.audioCombo;
        (camera ? window.videoDevices : window.audioDevices)
            .push_back(makeFakeDevice("Desenchufado", camera ? "Video/Source" : "Audio/Source", nullptr, {}));
        combo->addItem(u"Desenchufado"_s);
        combo->setCurrentIndex(combo->count() - 1);
        if (camera)
            window.audioCombo->setCurrentIndex(1);
        press(window);
        QTEST(window.statusLabel->text(), "message");
        QVERIFY(window.camera == pattern && window.cameraIndex == -1 && bool(window.capture) == camera);
        const std::uint32_t frames = window.camera->frameCount;
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > frames + 5 && (!camera || window.capture->blockCount >= 5),
                                 5000);
    }

    // Devices are not watched: the lists change on a refresh only. Last: it takes the null sink away.
    void listsFollowTheDevicesOnRefresh()
    {
        StudioWindow window(false);
        const int at = window.audioCombo->findText(nullMonitor);
        QVERIFY(at >= 2);
        const auto pactl = [](const QStringList& arguments) {
            int exitCode = -1;
            return runTool(u"pactl"_s, arguments, &exitCode), exitCode == 0;
        };
        QVERIFY(pactl({u"unload-module"_s, u"module-null-sink"_s}));
        QCOMPARE(window.audioCombo->findText(nullMonitor), at);
        press(window, u"Actualizar dispositivos"_s);
        QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
        QVERIFY(pactl({u"load-module"_s, u"module-null-sink"_s, u"sink_name=studio"_s}));
        QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
        press(window, u"Actualizar dispositivos"_s);
        // After the built-in entries (one camera, two audio), each is the device at its place less their number.
        QCOMPARE(std::size_t(window.cameraCombo->count()), 1 + window.videoDevices.size());
        QCOMPARE(std::size_t(window.audioCombo->count()), 2 + window.audioDevices.size());
        const int back = window.audioCombo->findText(nullMonitor);
        QVERIFY(back >= 2);
        const gstptr::String name(gst_device_get_display_name(window.audioDevices.at(std::size_t(back - 2)).get()));
        QCOMPARE(QString::fromUtf8(name.get()), nullMonitor);
    }
};

QTEST_MAIN(tst_Devices)
#include "tst_devices.moc"
