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

const QString nullMonitor = u"Monitor of Null Output"_s, connectSources = u"Conectar fuentes"_s;
const QString sourcesOpen = u"Fuentes abiertas. Prepara una escena y pulsa AL AIRE."_s;
const QString runtimeFolder = QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");
// Set before the application object and GStreamer exist, for the sound server's client library.
const bool soundServerEnvironment = (SoundServer::useFolder(runtimeFolder), true);

// Presses a button of the window as the operator does.
void press(const StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each->click();
    QFAIL(qPrintable(u"no button "_s + text));
}

// Loads or unloads a sound server module, as plugging a device in or out would.
void pactl(const QStringList& arguments)
{
    int exitCode = -1;
    const QString output = runTool(u"pactl"_s, arguments, &exitCode);
    QVERIFY2(exitCode == 0, qPrintable(output));
}

} // namespace

// Device lists and "Conectar fuentes" on a real window, against a real sound server with a null
// sink whose monitor is the audio input; the camera is the test pattern, as no camera exists here.
class tst_Devices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void audioInputOnConnect();
    void deviceThatWillNotOpenIsReported_data();
    void deviceThatWillNotOpenIsReported();
    void listsFollowTheDevicesOnRefresh(); // last: it takes the null sink away for a while

private:
    SoundServer soundServer{runtimeFolder};
    QString tonePath;
};

void tst_Devices::initTestCase()
{
    QVERIFY(soundServerEnvironment);
    QCoreApplication::setOrganizationName(u"Lorvane"_s);
    QCoreApplication::setApplicationName(u"TavrinStudio"_s);
    QSettings().setValue(u"onboarding_complete"_s, true);
    QVERIFY(soundServer.clearFolder());
    QCOMPARE(soundServer.start(), QString()); // the failure, if any
    gst_init(nullptr, nullptr);
    // Four seconds of a loud tone to play into the sink.
    tonePath = QStringLiteral(VELMORA_TEST_OUTPUT "/tone.wav");
    QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! "
                     "audio/x-raw,format=S16LE,rate=48000,channels=2 ! wavenc ! filesink location=\"" +
                     QFile::encodeName(tonePath) + '"'));
}

void tst_Devices::audioInputOnConnect()
{
    StudioWindow window(false);
    const std::shared_ptr<Media> pattern = window.camera;
    window.audioCombo->setCurrentIndex(window.audioCombo->findText(nullMonitor));
    press(window, connectSources);
    QCOMPARE(window.statusLabel->text(), sourcesOpen);
    // The sink plays nothing yet: its monitor runs, and the meter stays down.
    QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 10, 5000);
    QCOMPARE(window.inputMeter->value(), 0);
    QVERIFY(soundServer.play(tonePath));
    const auto stopPlayer = qScopeGuard([this] { soundServer.stopPlaying(); });
    QTRY_VERIFY_WITH_TIMEOUT(window.inputMeter->value() > 0, 10000);
    QTRY_VERIFY_WITH_TIMEOUT(peakOf(window.programAudio) > 0.1f, 5000);
    QVERIFY(window.programAudio.size() <= 96000);
    // Connecting again keeps the running camera and opens the audio anew.
    const gstptr::Element firstPipeline(GST_ELEMENT(gst_object_ref(window.capture->pipeline.get())));
    press(window, connectSources);
    QCOMPARE(window.camera, pattern);
    QVERIFY(window.capture && window.capture->pipeline.get() != firstPipeline.get());
    QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 5, 5000);
    // No input: nothing is captured while the frames go on.
    window.audioCombo->setCurrentIndex(0);
    press(window, connectSources);
    QVERIFY(!window.capture);
    QCOMPARE(window.statusLabel->text(), sourcesOpen);
    const std::uint32_t frames = window.camera->frameCount;
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount >= frames + 10, 5000);
    QVERIFY(window.programAudio.empty() && window.inputMeter->value() == 0);
}

void tst_Devices::deviceThatWillNotOpenIsReported_data()
{
    QTest::addColumn<bool>("camera");
    QTest::addColumn<QString>("message");
    QTest::newRow("audio") << false << "Audio: Faltan componentes de captura de audio";
    QTest::newRow("camera") << true << "Cámara: Falta componente de fuente multimedia";
}

void tst_Devices::deviceThatWillNotOpenIsReported()
{
    QFETCH(bool, camera);
    StudioWindow window(false);
    const std::shared_ptr<Media> pattern = window.camera;
    // Listed, but gone by the time it is opened: it makes no element.
    QComboBox* combo = camera ? window.cameraCombo : window.audioCombo;
    (camera ? window.videoDevices : window.audioDevices)
        .push_back(makeFakeDevice("Desenchufado", camera ? "Video/Source" : "Audio/Source", nullptr, {}));
    combo->addItem(u"Desenchufado"_s);
    combo->setCurrentIndex(combo->count() - 1);
    if (camera)
        window.audioCombo->setCurrentIndex(1);
    press(window, connectSources);
    QTEST(window.statusLabel->text(), "message");
    // The rest stands: the old camera stays, and a camera failure does not stop the audio.
    QVERIFY(window.camera == pattern && window.cameraIndex == -1);
    QCOMPARE(bool(window.capture), camera);
    const std::uint32_t frames = window.camera->frameCount;
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > frames + 5, 5000);
    if (camera)
        QTRY_VERIFY_WITH_TIMEOUT(window.capture->blockCount >= 5, 5000);
}

void tst_Devices::listsFollowTheDevicesOnRefresh()
{
    StudioWindow window(false);
    const int at = window.audioCombo->findText(nullMonitor);
    QVERIFY(at >= 2);
    // Devices are not watched: the lists change on a refresh only.
    pactl({"unload-module", "module-null-sink"});
    QCOMPARE(window.audioCombo->findText(nullMonitor), at);
    press(window, u"Actualizar dispositivos"_s);
    QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
    pactl({"load-module", "module-null-sink", "sink_name=studio"});
    QCOMPARE(window.audioCombo->findText(nullMonitor), -1);
    press(window, u"Actualizar dispositivos"_s);
    // The built-in entries lead; each entry after them is the device at the same place, less their number.
    QCOMPARE(window.cameraCombo->itemText(0), u"Barras de prueba"_s);
    QCOMPARE(std::size_t(window.cameraCombo->count()), 1 + window.videoDevices.size());
    QCOMPARE(window.audioCombo->itemText(0) + window.audioCombo->itemText(1),
             u"Sin entrada / silencioSeñal de prueba (sin altavoces)"_s);
    QCOMPARE(std::size_t(window.audioCombo->count()), 2 + window.audioDevices.size());
    const int back = window.audioCombo->findText(nullMonitor);
    QVERIFY(back >= 2);
    const gstptr::String name(gst_device_get_display_name(window.audioDevices.at(std::size_t(back - 2)).get()));
    QCOMPARE(QString::fromUtf8(name.get()), nullMonitor);
}

QTEST_MAIN(tst_Devices)
#include "tst_devices.moc"
