#include "AudioPeak.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "Media.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <gst/app/gstappsrc.h>

#include <stdexcept>
#include <string>

namespace {

// A camera with these caps whose element comes from the factory `element` (an appsrc never sends a
// picture); with none, a camera whose element is missing.
gstptr::Device makeCamera(const QByteArray& element, const QByteArray& caps)
{
    const gstptr::Caps deviceCaps(gst_caps_from_string(caps.constData()));
    return makeFakeDevice("Cámara de prueba", "Video/Source", deviceCaps.get(), [element](const gchar* name) {
        return element.isEmpty() ? nullptr : gst_element_factory_make(element.constData(), name);
    });
}

const std::uint8_t* pixelAt(const tavrin::Frame& frame, QPoint at)
{
    return frame.pixels.data() + (std::size_t(at.y()) * std::size_t(frame.width) + std::size_t(at.x())) * 4;
}

bool isBlack(const std::uint8_t* p)
{
    return p[0] < 20 && p[1] < 20 && p[2] < 20;
}

// The middle bar of the SMPTE pattern, opaque.
bool isBarGreen(const std::uint8_t* p)
{
    return p[1] > 140 && p[0] < 70 && p[2] < 70 && p[3] == 255;
}

} // namespace

class tst_Media : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void pictures_data();
    void pictures();
    void failures_data();
    void failures();
    void noFrameTimeouts_data();
    void noFrameTimeouts();
    void firstAudioStreamWins_data();
    void firstAudioStreamWins();
    void audioRingAndOddBuffers();
    void chooseCaptureSize_data();
    void chooseCaptureSize();

private:
    QByteArray path(const QByteArray& name) const { return dir.filePath(QString::fromUtf8(name)).toUtf8(); }
    std::string uri(const QByteArray& name) const
    {
        return QUrl::fromLocalFile(QString::fromUtf8(path(name))).toString().toStdString();
    }

    bool trackingLeaks = false;
    QTemporaryDir dir;
    QProcess screen;
    QByteArray screenSkip;
};

void tst_Media::initTestCase()
{
    // Every object a Media makes must be gone when it is; the leaks tracer tells at shut-down.
    trackingLeaks = startLeakTracking();
    gst_init(nullptr, nullptr);
    QVERIFY(dir.isValid());

    // One second of 4:3 pattern with sound, as a phone or an editing program would leave it.
    QVERIFY(
        runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 ! vp8enc "
                 "deadline=1 ! webmmux name=m ! filesink location=\"" +
                 path("picture-and-sound.webm") +
                 "\" audiotestsrc num-buffers=47 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
                 "! audioconvert ! vorbisenc ! m."));
    // Sound only, in two tracks, loud and silent, in both orders.
    const auto twoTracks = [this](const QByteArray& name, const char* first, const char* second) {
        const QByteArray track =
            " num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! vorbisenc ! m.audio_";
        return runToEnd("webmmux name=m ! filesink location=\"" + path(name) + "\" audiotestsrc " + first +
                        track + "0 audiotestsrc " + second + track + "1");
    };
    QVERIFY(twoTracks("loud-first.webm", "wave=sine volume=0.5", "wave=silence"));
    QVERIFY(twoTracks("silent-first.webm", "wave=silence", "wave=sine volume=0.5"));
    QFile noise(QString::fromUtf8(path("noise.webm")));
    QVERIFY(noise.open(QIODevice::WriteOnly));
    for (int i = 0; i < 8192; ++i)
        noise.putChar(char((i * 7919 + 13) % 251));

    // A virtual 4:3 screen for the screen capture.
    if (!gstptr::makeElement("ximagesrc") ||
        QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty()) {
        screenSkip = "ximagesrc or Xvfb is not installed";
        return;
    }
    int number = 90 + int(QCoreApplication::applicationPid() % 100);
    while (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(number)))
        ++number;
    screen.start(
        QStringLiteral("Xvfb"),
        QStringLiteral(":%1 -nolisten tcp -screen 0 640x480x24").arg(number).split(QLatin1Char(' ')));
    QVERIFY(screen.waitForStarted());
    QTRY_VERIFY(QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number)));
    qputenv("DISPLAY", QStringLiteral(":%1").arg(number).toUtf8());
}

void tst_Media::cleanupTestCase()
{
    screen.terminate();
    if (!screen.waitForFinished(3000))
        screen.kill();
    const QStringList alive = deinitAndListAlive(trackingLeaks);
    QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
}

void tst_Media::pictures_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QByteArray>("caps"); // the camera's
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QString>("start");
    QTest::addColumn<QPoint>("black"); // a letterbox pixel, if any
    QTest::addColumn<QPoint>("green"); // in the pattern's middle bar, if any

    const QString file = QStringLiteral("fuente=uridecodebin (uri) primer cuadro caps=video/x-raw");
    const QString camera =
        QStringLiteral("fuente=videotestsrc (dispositivo) nombre=Cámara de prueba device-index=-1 pedido=");
    const QPoint none(-1, -1);
    // 320x240 grows to 480x360 with 80 black columns either side, or shrinks to 240x180 with 70 black
    // rows above and below.
    QTest::newRow("file, wide canvas") << QByteArray("file") << QByteArray() << QSize(640, 360) << file
                                       << QPoint(10, 180) << QPoint(320, 100);
    QTest::newRow("file, tall canvas") << QByteArray("file") << QByteArray() << QSize(240, 320) << file
                                       << QPoint(120, 10) << QPoint(120, 120);
    QTest::newRow("test pattern") << QByteArray("pattern") << QByteArray() << QSize(320, 180)
                                  << "fuente=videotestsrc (prueba) pedido=video/x-raw primer cuadro caps="
                                  << none << QPoint(160, 60);
    QTest::newRow("camera size by shape")
        << QByteArray("camera")
        << QByteArray("video/x-raw,width=640,height=480; video/x-raw,width=640,height=360") << QSize(320, 180)
        << camera + "video/x-raw, width=(int)640, height=(int)360 primer cuadro caps=" << none
        << QPoint(160, 60);
    QTest::newRow("camera with ranges only asks for no size")
        << QByteArray("camera") << QByteArray("video/x-raw,width=[1,4096],height=[1,4096]") << QSize(320, 180)
        << camera + "video/x-raw primer cuadro caps=" << none << QPoint(160, 60);
    // An idle screen still sends pictures: damage events are not relied on.
    QTest::newRow("screen") << QByteArray("screen") << QByteArray() << QSize(320, 180)
                            << "fuente=ximagesrc (pantalla) pedido=video/x-raw primer cuadro caps="
                            << QPoint(5, 90) << none;
}

void tst_Media::pictures()
{
    QFETCH(QByteArray, kind);
    QFETCH(QByteArray, caps);
    QFETCH(QSize, canvas);
    QFETCH(QString, start);
    QFETCH(QPoint, black);
    QFETCH(QPoint, green);
    if (kind == "screen" && !screenSkip.isEmpty())
        QSKIP(screenSkip.constData());

    const bool file = kind == "file";
    const gstptr::Device camera = kind == "camera" ? makeCamera("videotestsrc", caps) : gstptr::Device();
    Media media(canvas.width(), canvas.height(), camera.get(), file ? uri("picture-and-sound.webm") : "",
                kind == "pattern", kind == "screen");
    QCOMPARE(media.isDevice, bool(camera));
    std::size_t audioFloats = 0;
    media.onAudio = [&](const std::vector<float>& samples) { audioFloats += samples.size(); };
    QTRY_VERIFY((media.poll(), file ? !media.running : media.frameCount >= 5));
    QVERIFY2(media.error.empty(), media.error.c_str());
    QCOMPARE(media.ended, file);
    // Only the file has sound, in whole stereo pairs; none is made up for the others.
    QCOMPARE(audioFloats > 0, file);
    QCOMPARE(audioFloats % 2, std::size_t(0));

    // A decoder has no fixed output pad to report; facts of the first picture are written once.
    const QString diagnostics = QString::fromStdString(media.diagnostics);
    QVERIFY2(diagnostics.startsWith(start) &&
                 diagnostics.contains(QStringLiteral("width=(int)%1").arg(canvas.width())) &&
                 diagnostics.contains(QStringLiteral(" fuente caps=video/x-raw")) == !file &&
                 diagnostics.count(QStringLiteral("primer cuadro")) == 1,
             qPrintable(diagnostics));

    // Whatever size the source gives, the picture is the canvas, letterboxed rather than stretched;
    // a file's last picture stays after its end.
    QCOMPARE(QSize(media.latest.width, media.latest.height), canvas);
    QVERIFY(black.x() < 0 || isBlack(pixelAt(media.latest, black)));
    QVERIFY(green.x() < 0 || isBarGreen(pixelAt(media.latest, green)));
}

void tst_Media::failures_data()
{
    QTest::addColumn<bool>("camera"); // a camera whose element is missing
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QString>("thrown"); // empty: the failure comes later, on the bus

    const QString notStarted = QStringLiteral("No se pudo iniciar fuente");
    QTest::newRow("camera without an element")
        << true << QByteArray() << QStringLiteral("Falta componente de fuente multimedia");
    QTest::newRow("missing file") << false << QByteArray("missing.webm") << notStarted;
    QTest::newRow("empty address without the pattern") << false << QByteArray() << notStarted;
    QTest::newRow("not a media file") << false << QByteArray("noise.webm") << QString();
}

void tst_Media::failures()
{
    QFETCH(bool, camera);
    QFETCH(QByteArray, file);
    QFETCH(QString, thrown);

    const gstptr::Device device = camera ? makeCamera({}, "video/x-raw") : gstptr::Device();
    const std::string address = file.isEmpty() ? std::string() : uri(file);
    if (!thrown.isEmpty()) {
        try {
            Media media(320, 240, device.get(), address, false, false);
            QFAIL("expected a refusal");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), thrown);
        }
        return;
    }
    Media media(320, 240, nullptr, address, false, false);
    QTRY_VERIFY((media.poll(), !media.running));
    // GStreamer's debug text follows in brackets.
    const QString error = QString::fromStdString(media.error);
    QVERIFY2(error.startsWith(QStringLiteral("Fuente sin señal: ")) && error.endsWith(QLatin1Char(']')),
             qPrintable(error));
    QVERIFY(!media.ended && media.latest.empty());
}

void tst_Media::noFrameTimeouts_data()
{
    QTest::addColumn<bool>("camera");
    QTest::addColumn<qint64>("silentUs");
    QTest::addColumn<QString>("error");

    const QString cameraError = QStringLiteral("Cámara sin cuadros; se vuelve a abrir");
    QTest::newRow("camera quiet 4 s") << true << qint64(4000000) << QString();
    QTest::newRow("camera quiet past 4 s") << true << qint64(4000001) << cameraError;
    QTest::newRow("sound-only file quiet past 4 s") << false << qint64(4000001) << QString();
    QTest::newRow("sound-only file quiet 10 s") << false << qint64(10000000) << QString();
    QTest::newRow("sound-only file quiet past 10 s")
        << false << qint64(10000001) << QStringLiteral("Fuente sin frames durante 10 segundos");
}

void tst_Media::noFrameTimeouts()
{
    QFETCH(bool, camera);
    QFETCH(qint64, silentUs);
    QFETCH(QString, error);

    const gstptr::Device device = camera ? makeCamera("appsrc", "video/x-raw") : gstptr::Device();
    Media media(320, 240, device.get(), camera ? "" : uri("loud-first.webm"), camera, false);
    std::int64_t nowUs = media.lastFrameUs;
    media.clock = [&nowUs] { return nowUs; };
    if (!camera)
        QTRY_VERIFY((media.poll(), !media.audioRing.empty()));

    nowUs += silentUs;
    media.poll();
    QCOMPARE(QString::fromStdString(media.error), error);
    QCOMPARE(media.running, error.isEmpty());
    QCOMPARE(media.frameCount, 0u);
}

void tst_Media::firstAudioStreamWins_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<bool>("loud");
    QTest::newRow("tone first") << QByteArray("loud-first.webm") << true;
    QTest::newRow("silence first") << QByteArray("silent-first.webm") << false;
}

void tst_Media::firstAudioStreamWins()
{
    QFETCH(QByteArray, file);
    QFETCH(bool, loud);

    Media media(64, 48, nullptr, uri(file), false, false);
    QTRY_VERIFY((media.poll(), media.audioRing.size() >= 9600));
    const float peak = peakOf(media.audioRing);
    QVERIFY2(loud ? peak > 0.2f : peak < 0.01f, qPrintable(QString::number(peak)));
}

void tst_Media::audioRingAndOddBuffers()
{
    // Already 48 kHz stereo float, so each buffer pushed reaches the sink as it is.
    Media media(64, 48, nullptr, "appsrc://", false, false);
    GstElement* rawSource = nullptr;
    g_object_get(media.source, "source", &rawSource, nullptr);
    const gstptr::Element appSource(rawSource);
    QVERIFY(appSource);
    const gstptr::Caps caps(
        gst_caps_from_string("audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
    g_object_set(appSource.get(), "caps", caps.get(), nullptr);
    std::vector<float> firsts;
    media.onAudio = [&](const std::vector<float>& samples) { firsts.push_back(samples.at(0)); };

    // Three floats, not whole stereo pairs, between the second and third blocks.
    const float odd[3] = {5.0f, 5.0f, 5.0f};
    for (const float value : {1.0f, 2.0f, 3.0f}) {
        const std::vector<float> block(40000, value);
        GstAppSrc* source = GST_APP_SRC(appSource.get());
        QCOMPARE(gst_app_src_push_buffer(source, gst_buffer_new_memdup(block.data(), 160000)), GST_FLOW_OK);
        if (value == 2.0f)
            QCOMPARE(gst_app_src_push_buffer(source, gst_buffer_new_memdup(odd, sizeof odd)), GST_FLOW_OK);
    }
    QTRY_COMPARE((media.poll(), firsts), (std::vector<float>{1.0f, 2.0f, 3.0f}));

    // 120000 floats came; the oldest 24000 went from the front.
    QCOMPARE(media.audioRing.size(), std::size_t(96000));
    QCOMPARE(media.audioRing[15999], 1.0f);
    QCOMPARE(media.audioRing[16000], 2.0f);
    QCOMPARE(media.audioRing[56000], 3.0f);
}

void tst_Media::chooseCaptureSize_data()
{
    QTest::addColumn<QByteArray>("caps");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QSize>("chosen");

    const auto row = [](const char* name, const char* caps, QSize chosen, QSize canvas = QSize(1280, 720)) {
        QTest::newRow(name) << QByteArray(caps) << canvas << chosen;
    };
    row("shape beats area", "video/x-raw,width=640,height=480; video/x-raw,width=1920,height=1080",
        {1920, 1080});
    row("nearest area of the same shape",
        "video/x-raw,width=640,height=360; video/x-raw,width=1280,height=720; "
        "video/x-raw,width=1920,height=1080",
        {1280, 720});
    row("ranges and lists are not sizes",
        "video/x-raw,width=[1,4096],height=[1,4096]; video/x-raw,width={640,1280},height={360,720}", {0, 0});
    row("range passed over", "video/x-raw,width=[1,4096],height=[1,4096]; video/x-raw,width=800,height=600",
        {800, 600});
    row("tie keeps the first", "video/x-raw,width=3840,height=2160; video/x-raw,width=2560,height=1440",
        {3840, 2160});
    row("tie keeps the first, other order",
        "video/x-raw,width=2560,height=1440; video/x-raw,width=3840,height=2160", {2560, 1440});
    row("other memory skipped even when exact",
        "video/x-raw(memory:GLMemory),width=1280,height=720; video/x-raw,width=640,height=480", {640, 480});
    row("compressed skipped even when exact",
        "image/jpeg,width=1280,height=720; video/x-raw,width=640,height=480", {640, 480});
    row("portrait canvas prefers portrait",
        "video/x-raw,width=1920,height=1080; video/x-raw,width=720,height=1280", {720, 1280}, {1080, 1920});
    row("no caps", "", {0, 0});
}

void tst_Media::chooseCaptureSize()
{
    QFETCH(QByteArray, caps);
    QFETCH(QSize, canvas);
    QFETCH(QSize, chosen);

    const gstptr::Caps deviceCaps(caps.isEmpty() ? nullptr : gst_caps_from_string(caps.constData()));
    QVERIFY(caps.isEmpty() || deviceCaps);
    const auto size = tavrin::chooseCaptureSize(deviceCaps.get(), canvas.width(), canvas.height());
    QCOMPARE(QSize(size.width, size.height), chosen);
}

QTEST_GUILESS_MAIN(tst_Media)
#include "tst_media.moc"
