#include "AudioPeak.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "Media.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>
#include <gst/app/gstappsrc.h>
#include <stdexcept>

namespace {

// A camera with these caps whose element comes from the factory `element`; none: the element is missing.
gstptr::Device makeCamera(const QByteArray& element, const QByteArray& caps)
{
    const gstptr::Caps deviceCaps(gst_caps_from_string(caps.constData()));
    return makeFakeDevice("Cámara de prueba", "Video/Source", deviceCaps.get(), [element](const gchar* name) {
        return element.isEmpty() ? nullptr : gst_element_factory_make(element.constData(), name);
    });
}

// "black", or "green" for the opaque middle bar of the SMPTE pattern.
QString colourAt(const tavrin::Frame& frame, QPoint at)
{
    const std::uint8_t* p = frame.pixels.data() + (std::size_t(at.y()) * std::size_t(frame.width) + at.x()) * 4;
    if (p[0] < 20 && p[1] < 20 && p[2] < 20)
        return QStringLiteral("black");
    return p[1] > 140 && p[0] < 70 && p[2] < 70 && p[3] == 255 ? QStringLiteral("green") : QStringLiteral("other");
}

} // namespace

class tst_Media : public QObject
{
    Q_OBJECT
    bool trackingLeaks = false;
    QTemporaryDir dir;
    QProcess screen;

    std::string uri(const QByteArray& name) const
    {
        return QUrl::fromLocalFile(dir.filePath(QString::fromUtf8(name))).toString().toStdString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Every object a Media makes must be gone when it is; the leaks tracer tells at shut-down.
        trackingLeaks = startLeakTracking();
        gst_init(nullptr, nullptr);
        const QByteArray path = dir.path().toUtf8() + '/';
        // One second of 4:3 pattern with sound, as a phone or an editing program would leave it.
        QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 ! vp8enc "
                         "deadline=1 ! webmmux name=m ! filesink location=\"" + path + "picture-and-sound.webm\" "
                         "audiotestsrc num-buffers=47 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
                         "! audioconvert ! vorbisenc ! m."));
        // Sound only, in two tracks, loud and silent, in both orders.
        const QByteArray loud = "wave=sine volume=0.5", silent = "wave=silence";
        for (const QByteArray& first : {loud, silent}) {
            const QByteArray track = " num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! vorbisenc ! m.audio_";
            QVERIFY(runToEnd("webmmux name=m ! filesink location=\"" + path + (first == loud ? "loud" : "silent") +
                             "-first.webm\" audiotestsrc " + first + track + "0 audiotestsrc " +
                             (first == loud ? silent : loud) + track + "1"));
        }
        QFile noise(dir.filePath(QStringLiteral("noise.webm")));
        QVERIFY(noise.open(QIODevice::WriteOnly));
        for (int i = 0; i < 8192; ++i)
            noise.putChar(char((i * 7919 + 13) % 251));
        // A virtual 4:3 screen for the screen capture.
        if (!gstptr::makeElement("ximagesrc") || QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
            return;
        // Xvfb picks a free display and prints its number once it accepts clients.
        screen.start(QStringLiteral("Xvfb"), QStringLiteral("-displayfd 1 -nolisten tcp -screen 0 640x480x24").split(u' '));
        QTRY_VERIFY(screen.canReadLine());
        qputenv("DISPLAY", ":" + screen.readLine().trimmed());
    }

    void cleanupTestCase()
    {
        screen.terminate();
        if (!screen.waitForFinished(3000))
            screen.kill();
        const QStringList alive = deinitAndListAlive(trackingLeaks);
        QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
    }

    void pictures_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<QByteArray>("caps"); // the camera's
        QTest::addColumn<QSize>("canvas");
        QTest::addColumn<QString>("start");
        QTest::addColumn<QPoint>("black"); // a letterbox pixel
        QTest::addColumn<QPoint>("green"); // in the pattern's middle bar
        const QString file = QStringLiteral("fuente=uridecodebin (uri) primer cuadro caps=video/x-raw");
        const QString camera = QStringLiteral("fuente=videotestsrc (dispositivo) nombre=Cámara de prueba "
                                              "device-index=-1 pedido=");
        const auto row = [](const char* name, const char* kind, QSize canvas, const QString& start, QPoint black,
                            QPoint green, const char* caps = "") {
            QTest::newRow(name) << QByteArray(kind) << QByteArray(caps) << canvas << start << black << green;
        };
        // 320x240 grows to 480x360 with 80 black columns either side, or shrinks to 240x180 with 70 black
        // rows above and below.
        row("file, wide canvas", "file", {640, 360}, file, {10, 180}, {320, 100});
        row("file, tall canvas", "file", {240, 320}, file, {120, 10}, {120, 120});
        row("test pattern", "pattern", {320, 180}, QStringLiteral("fuente=videotestsrc (prueba) pedido=video/x-raw "
                                                                 "primer cuadro caps="), {}, {160, 60});
        row("camera size by shape", "camera", {320, 180}, camera + "video/x-raw, width=(int)640, height=(int)360 "
            "primer cuadro caps=", {}, {160, 60}, "video/x-raw,width=640,height=480; video/x-raw,width=640,height=360");
        row("camera with ranges asks for no size", "camera", {320, 180}, camera + "video/x-raw primer cuadro caps=",
            {}, {160, 60}, "video/x-raw,width=[1,4096],height=[1,4096]");
        // An idle screen still sends pictures: damage events are not relied on.
        row("screen", "screen", {320, 180}, QStringLiteral("fuente=ximagesrc (pantalla) pedido=video/x-raw primer "
                                                           "cuadro caps="), {5, 90}, {});
    }
    void pictures()
    {
        QFETCH(QByteArray, kind);
        QFETCH(QByteArray, caps);
        QFETCH(QSize, canvas);
        QFETCH(QString, start);
        QFETCH(QPoint, black);
        QFETCH(QPoint, green);
        if (kind == "screen" && screen.state() != QProcess::Running)
            QSKIP("ximagesrc or Xvfb is not installed");
        const bool file = kind == "file";
        const gstptr::Device camera = kind == "camera" ? makeCamera("videotestsrc", caps) : gstptr::Device();
        Media media(canvas.width(), canvas.height(), camera.get(), file ? uri("picture-and-sound.webm") : "",
                    kind == "pattern", kind == "screen");
        QCOMPARE(media.isDevice, bool(camera));
        std::size_t audioFloats = 0;
        media.onAudio = [&](const std::vector<float>& samples) { audioFloats += samples.size(); };
        QTRY_VERIFY((media.poll(), file ? !media.running : media.frameCount >= 5));
        QVERIFY2(media.error.empty() && media.ended == file, media.error.c_str());
        // Only the file has sound, in whole stereo pairs; none is made up for the others.
        QVERIFY((audioFloats > 0) == file && audioFloats % 2 == 0);
        // A decoder has no fixed output pad to report; facts of the first picture are written once.
        const QString diagnostics = QString::fromStdString(media.diagnostics);
        QVERIFY2(diagnostics.startsWith(start)
                 && diagnostics.contains(QStringLiteral("width=(int)%1").arg(canvas.width()))
                 && diagnostics.contains(QStringLiteral(" fuente caps=video/x-raw")) == !file
                 && diagnostics.count(QStringLiteral("primer cuadro")) == 1, qPrintable(diagnostics));
        // Whatever size the source gives, the picture is the canvas, letterboxed rather than stretched; a
        // file's last picture stays after its end.
        QCOMPARE(QSize(media.latest.width, media.latest.height), canvas);
        QVERIFY(black.isNull() || colourAt(media.latest, black) == QStringLiteral("black"));
        QVERIFY(green.isNull() || colourAt(media.latest, green) == QStringLiteral("green"));
    }

    void failures_data()
    {
        QTest::addColumn<bool>("camera"); // whose element is missing
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("thrown"); // empty: the failure comes later, on the bus
        const QString notStarted = QStringLiteral("No se pudo iniciar fuente");
        QTest::newRow("camera without an element") << true << QByteArray() << "Falta componente de fuente multimedia";
        QTest::newRow("missing file") << false << QByteArray("missing.webm") << notStarted;
        QTest::newRow("empty address without the pattern") << false << QByteArray() << notStarted;
        QTest::newRow("not a media file") << false << QByteArray("noise.webm") << QString();
    }
    void failures()
    {
        QFETCH(bool, camera);
        QFETCH(QByteArray, file);
        QFETCH(QString, thrown);
        const gstptr::Device device = camera ? makeCamera({}, "video/x-raw") : gstptr::Device();
        try {
            Media media(320, 240, device.get(), file.isEmpty() ? std::string() : uri(file), false, false);
            QVERIFY(thrown.isEmpty());
            QTRY_VERIFY((media.poll(), !media.running));
            // GStreamer's debug text follows in brackets.
            const QString error = QString::fromStdString(media.error);
            QVERIFY2(error.startsWith(QStringLiteral("Fuente sin señal: ")) && error.endsWith(u']'), qPrintable(error));
            QVERIFY(!media.ended && media.latest.empty());
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), thrown);
        }
    }

    // Frames that stop: a camera is reopened soon, a file gets longer. A sound-only file plays its first
    // audio stream only.
    void noFrameTimeouts_data()
    {
        QTest::addColumn<QByteArray>("file"); // empty: a camera that sends nothing
        QTest::addColumn<qint64>("silentUs");
        QTest::addColumn<QString>("error");
        QTest::newRow("camera quiet 4 s") << QByteArray() << qint64(4000000) << QString();
        QTest::newRow("camera quiet past 4 s")
            << QByteArray() << qint64(4000001) << QStringLiteral("Cámara sin cuadros; se vuelve a abrir");
        QTest::newRow("sound-only file quiet past 4 s") << QByteArray("loud-first") << qint64(4000001) << QString();
        QTest::newRow("sound-only file quiet 10 s") << QByteArray("silent-first") << qint64(10000000) << QString();
        QTest::newRow("sound-only file quiet past 10 s")
            << QByteArray("loud-first") << qint64(10000001) << QStringLiteral("Fuente sin frames durante 10 segundos");
    }
    void noFrameTimeouts()
    {
        QFETCH(QByteArray, file);
        QFETCH(qint64, silentUs);
        const gstptr::Device device = file.isEmpty() ? makeCamera("appsrc", "video/x-raw") : gstptr::Device();
        Media media(320, 240, device.get(), file.isEmpty() ? "" : uri(file + ".webm"), file.isEmpty(), false);
        std::int64_t nowUs = media.lastFrameUs;
        media.clock = [&nowUs] { return nowUs; };
        QTRY_VERIFY((media.poll(), file.isEmpty() || media.audioRing.size() >= 9600));
        const float peak = peakOf(media.audioRing);
        QVERIFY2(file.startsWith("loud") ? peak > 0.2f : peak < 0.01f, qPrintable(QString::number(peak)));
        nowUs += silentUs;
        media.poll();
        QTEST(QString::fromStdString(media.error), "error");
        QCOMPARE(media.running, media.error.empty());
        QCOMPARE(media.frameCount, 0u);
    }

    void audioRingAndOddBuffers()
    {
        // Already 48 kHz stereo float, so each buffer pushed reaches the sink as it is.
        Media media(64, 48, nullptr, "appsrc://", false, false);
        GstElement* rawSource = nullptr;
        g_object_get(media.source, "source", &rawSource, nullptr);
        const gstptr::Element appSource(rawSource);
        const gstptr::Caps caps(gst_caps_from_string("audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
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
        QVERIFY(media.audioRing[15999] == 1.0f && media.audioRing[16000] == 2.0f && media.audioRing[56000] == 3.0f);
    }

    void chooseCaptureSize_data()
    {
        QTest::addColumn<QByteArray>("caps");
        QTest::addColumn<QSize>("canvas");
        QTest::addColumn<QSize>("chosen");
        const auto row = [](const char* name, const char* caps, QSize chosen, QSize canvas = QSize(1280, 720)) {
            QTest::newRow(name) << QByteArray(caps) << canvas << chosen;
        };
        row("shape beats area", "video/x-raw,width=640,height=480; video/x-raw,width=1920,height=1080", {1920, 1080});
        row("nearest area of the same shape", "video/x-raw,width=640,height=360; video/x-raw,width=1280,"
            "height=720; video/x-raw,width=1920,height=1080", {1280, 720});
        row("ranges and lists are not sizes", "video/x-raw,width=[1,4096],height=[1,4096]; "
            "video/x-raw,width={640,1280},height={360,720}; video/x-raw,width=800,height=600", {800, 600});
        row("tie keeps the first", "video/x-raw,width=3840,height=2160; video/x-raw,width=2560,height=1440",
            {3840, 2160});
        row("tie keeps the first, other order", "video/x-raw,width=2560,height=1440; video/x-raw,width=3840,"
            "height=2160", {2560, 1440});
        row("other memory skipped even when exact", "video/x-raw(memory:GLMemory),width=1280,height=720; "
            "video/x-raw,width=640,height=480", {640, 480});
        row("compressed skipped even when exact", "image/jpeg,width=1280,height=720; video/x-raw,width=640,"
            "height=480", {640, 480});
        row("portrait canvas prefers portrait", "video/x-raw,width=1920,height=1080; video/x-raw,width=720,"
            "height=1280", {720, 1280}, {1080, 1920});
        row("no caps", "", {0, 0});
    }
    void chooseCaptureSize()
    {
        QFETCH(QByteArray, caps);
        QFETCH(QSize, canvas);
        const gstptr::Caps deviceCaps(caps.isEmpty() ? nullptr : gst_caps_from_string(caps.constData()));
        QVERIFY(caps.isEmpty() || deviceCaps);
        const auto size = tavrin::chooseCaptureSize(deviceCaps.get(), canvas.width(), canvas.height());
        QTEST(QSize(size.width, size.height), "chosen");
    }
};

QTEST_GUILESS_MAIN(tst_Media)
#include "tst_media.moc"
