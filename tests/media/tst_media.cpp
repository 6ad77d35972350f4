#include "AudioPeak.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "Media.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <gst/app/gstappsrc.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

// videotestsrc with a read-only integer "device-index", like the Windows capture elements have.
// Being a type of our own it has no factory, which the diagnostics must survive.
GType indexedPatternType()
{
    static GType type = 0;
    if (type)
        return type;
    const gstptr::Element probe = gstptr::makeElement("videotestsrc");
    GTypeQuery query;
    g_type_query(G_OBJECT_TYPE(probe.get()), &query);
    GTypeInfo info{};
    info.class_size = guint16(query.class_size);
    info.instance_size = guint16(query.instance_size);
    info.class_init = [](gpointer klass, gpointer) {
        GObjectClass* objectClass = G_OBJECT_CLASS(klass);
        objectClass->get_property = [](GObject* object, guint, GValue* value, auto*) {
            g_value_set_int(value, GPOINTER_TO_INT(g_object_get_data(object, "velmora-index")));
        };
        g_object_class_install_property(
            objectClass, 1, g_param_spec_int("device-index", "index", "index", -1, 64, 0, G_PARAM_READABLE));
    };
    type = g_type_register_static(G_OBJECT_TYPE(probe.get()), "VelmoraIndexedPattern", &info, GTypeFlags(0));
    return type;
}

// A camera that hands out source: "videotestsrc", "appsrc" (a camera that never sends a picture),
// "indexed" (a pattern with a "device-index") or, when null, no element at all.
gstptr::Device makeDevice(const char* source, const char* caps)
{
    std::function<GstElement*(const gchar*)> makeElement;
    if (source)
        makeElement = [kind = std::string(source)](const gchar* name) -> GstElement* {
            if (kind == "indexed") {
                auto* element = GST_ELEMENT(g_object_new(indexedPatternType(), "name", name, nullptr));
                g_object_set_data(G_OBJECT(element), "velmora-index", GINT_TO_POINTER(7));
                return element;
            }
            GstElement* element = gst_element_factory_make(kind.c_str(), name);
            if (element && kind == "appsrc") {
                const gstptr::Caps caps(
                    gst_caps_from_string("video/x-raw,format=RGBA,width=320,height=240,framerate=30/1"));
                g_object_set(element, "caps", caps.get(), "is-live", TRUE, "format", GST_FORMAT_TIME,
                             nullptr);
            }
            return element;
        };
    const gstptr::Caps deviceCaps(gst_caps_from_string(caps));
    return makeFakeDevice("Cámara de prueba", "Video/Source", deviceCaps.get(), std::move(makeElement));
}

// Polls as the tick would, a few milliseconds apart, until done or the deadline.
template <typename Done> bool pollUntil(Media& media, Done done, int timeoutMs = 8000)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        media.poll();
        if (done())
            return true;
        if (deadline.hasExpired())
            return false;
        QTest::qWait(2);
    }
}

struct Rgb
{
    int r, g, b;
};

Rgb pixelAt(const tavrin::Frame& frame, int x, int y)
{
    const std::size_t at = (std::size_t(y) * std::size_t(frame.width) + std::size_t(x)) * 4;
    return {frame.pixels[at], frame.pixels[at + 1], frame.pixels[at + 2]};
}

bool isBlack(Rgb c)
{
    return c.r < 20 && c.g < 20 && c.b < 20;
}

// The fourth bar of the SMPTE pattern.
bool isBarGreen(Rgb c)
{
    return c.g > 140 && c.r < 70 && c.b < 70;
}

QString fileUri(const QString& path)
{
    return QUrl::fromLocalFile(path).toString();
}

} // namespace

class tst_Media : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void fileWithPictureAndSound_data();
    void fileWithPictureAndSound();
    void testPattern();
    void device_data();
    void device();
    void deviceWithoutElement();
    void badAddress_data();
    void badAddress();
    void noFrameTimeouts_data();
    void noFrameTimeouts();
    void firstAudioStreamWins_data();
    void firstAudioStreamWins();
    void audioRingAndOddBuffers();
    void screen_data();
    void screen();
    void chooseCaptureSize_data();
    void chooseCaptureSize();

private:
    bool trackingLeaks = false;
    QTemporaryDir dir;
    QString pictureAndSound;
    QString soundOnly;
    QString toneThenSilence;
    QString silenceThenTone;
};

void tst_Media::initTestCase()
{
    // Every object a Media makes must be gone when it is; the leaks tracer tells at shut-down.
    trackingLeaks = startLeakTracking();
    gst_init(nullptr, nullptr);
    QVERIFY(dir.isValid());

    // One second of 4:3 pattern with sound, as a phone or an editing program would leave it.
    pictureAndSound = dir.filePath(QStringLiteral("picture-and-sound.webm"));
    QVERIFY(
        runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 "
                 "! vp8enc deadline=1 ! webmmux name=m ! filesink location=\"" +
                 pictureAndSound.toUtf8() +
                 "\" audiotestsrc num-buffers=47 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
                 "! audioconvert ! vorbisenc ! m."));

    soundOnly = dir.filePath(QStringLiteral("sound-only.wav"));
    QVERIFY(runToEnd("audiotestsrc num-buffers=150 samplesperbuffer=1600 ! audio/x-raw,rate=48000,channels=2 "
                     "! wavenc ! filesink location=\"" +
                     soundOnly.toUtf8() + "\""));

    // Two sound tracks, one loud and one silent, in both orders.
    const auto twoTracks = [](const QString& path, const char* first, const char* second) {
        return runToEnd(QByteArray("webmmux name=m ! filesink location=\"") + path.toUtf8() +
                        "\" audiotestsrc " + first +
                        " num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! vorbisenc ! m.audio_0 " +
                        "audiotestsrc " + second +
                        " num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! vorbisenc ! m.audio_1");
    };
    toneThenSilence = dir.filePath(QStringLiteral("tone-then-silence.webm"));
    silenceThenTone = dir.filePath(QStringLiteral("silence-then-tone.webm"));
    QVERIFY(twoTracks(toneThenSilence, "wave=sine volume=0.5", "wave=silence"));
    QVERIFY(twoTracks(silenceThenTone, "wave=silence", "wave=sine volume=0.5"));
}

void tst_Media::cleanupTestCase()
{
    const QStringList alive = deinitAndListAlive(trackingLeaks);
    QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
}

void tst_Media::fileWithPictureAndSound_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<QPoint>("bar");
    QTest::addColumn<QPoint>("picture");

    // 320x240 grows to 480x360 with 80 black columns either side.
    QTest::newRow("wide canvas, bars at the sides") << 640 << 360 << QPoint(10, 180) << QPoint(320, 100);
    // 320x240 shrinks to 240x180 with 70 black rows above and below.
    QTest::newRow("tall canvas, bars above and below") << 240 << 320 << QPoint(120, 10) << QPoint(120, 120);
}

void tst_Media::fileWithPictureAndSound()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(QPoint, bar);
    QFETCH(QPoint, picture);

    Media media(width, height, nullptr, fileUri(pictureAndSound).toStdString(), false, false);
    QVERIFY(!media.isDevice);
    int audioCalls = 0;
    std::size_t audioFloats = 0;
    media.onAudio = [&](const std::vector<float>& samples) {
        ++audioCalls;
        audioFloats += samples.size();
    };
    std::size_t largestRing = 0;
    QVERIFY(pollUntil(media, [&] {
        largestRing = std::max(largestRing, media.audioRing.size());
        return !media.running;
    }));

    QVERIFY(media.ended);
    QCOMPARE(QString::fromStdString(media.error), QString());
    QVERIFY(media.frameCount > 0);
    QVERIFY(audioCalls > 0);
    QVERIFY(audioFloats % 2 == 0);
    QVERIFY(!media.audioRing.empty());
    QVERIFY(largestRing <= 96000);

    const QString diagnostics = QString::fromStdString(media.diagnostics);
    QVERIFY2(
        diagnostics.startsWith(QStringLiteral("fuente=uridecodebin (uri) primer cuadro caps=video/x-raw")),
        qPrintable(diagnostics));
    QVERIFY(diagnostics.contains(QStringLiteral("width=(int)%1").arg(width)));
    // The decoder has no fixed output pad to report.
    QVERIFY(!diagnostics.contains(QStringLiteral("fuente caps=")));

    // The last picture stays after the end, at canvas size and letterboxed.
    QCOMPARE(media.latest.width, width);
    QCOMPARE(media.latest.height, height);
    QCOMPARE(media.latest.pixels.size(), std::size_t(width) * std::size_t(height) * 4);
    QVERIFY(isBlack(pixelAt(media.latest, bar.x(), bar.y())));
    QVERIFY(isBarGreen(pixelAt(media.latest, picture.x(), picture.y())));

    // A stopped source is left alone by later polls.
    const auto pixels = media.latest.pixels;
    const auto frames = media.frameCount;
    const auto calls = audioCalls;
    for (int i = 0; i < 5; ++i)
        media.poll();
    QVERIFY(!media.running);
    QVERIFY(media.ended);
    QCOMPARE(media.frameCount, frames);
    QCOMPARE(audioCalls, calls);
    QVERIFY(media.latest.pixels == pixels);
}

void tst_Media::testPattern()
{
    Media media(640, 360, nullptr, "", true, false);
    QVERIFY(media.running);
    QVERIFY(pollUntil(media, [&] { return media.frameCount >= 3; }));
    QVERIFY(media.running);
    QVERIFY(media.error.empty());

    const QString diagnostics = QString::fromStdString(media.diagnostics);
    QVERIFY2(diagnostics.startsWith(QStringLiteral(
                 "fuente=videotestsrc (prueba) pedido=video/x-raw primer cuadro caps=video/x-raw")),
             qPrintable(diagnostics));
    QVERIFY(diagnostics.contains(QStringLiteral(" fuente caps=video/x-raw")));
    // Facts of the first picture are written once.
    QCOMPARE(diagnostics.count(QStringLiteral("primer cuadro")), 1);

    QCOMPARE(media.latest.width, 640);
    QCOMPARE(media.latest.height, 360);
    // Opaque, and the pattern's first bar is light grey.
    const Rgb first = pixelAt(media.latest, 10, 10);
    QVERIFY(first.r > 150 && first.g > 150 && first.b > 150);
    QCOMPARE(int(media.latest.pixels[3]), 255);
    // No sound comes from a pattern, and none is made up.
    QVERIFY(media.audioRing.empty());
}

void tst_Media::device_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<QByteArray>("caps");
    QTest::addColumn<QString>("start");

    QTest::newRow("camera size by shape")
        << QByteArray("videotestsrc")
        << QByteArray("video/x-raw,width=640,height=480; video/x-raw,width=640,height=360")
        << QStringLiteral("fuente=videotestsrc (dispositivo) nombre=Cámara de prueba device-index=-1 "
                          "pedido=video/x-raw, width=(int)640, height=(int)360 primer cuadro caps=");
    QTest::newRow("only ranges ask for no size")
        << QByteArray("videotestsrc") << QByteArray("video/x-raw,width=[1,4096],height=[1,4096]")
        << QStringLiteral("fuente=videotestsrc (dispositivo) nombre=Cámara de prueba device-index=-1 "
                          "pedido=video/x-raw primer cuadro caps=");
    QTest::newRow("element with an index and no factory")
        << QByteArray("indexed") << QByteArray("video/x-raw,width=320,height=180")
        << QStringLiteral("fuente=? (dispositivo) nombre=Cámara de prueba device-index=7 "
                          "pedido=video/x-raw, width=(int)320, height=(int)180 primer cuadro caps=");
}

void tst_Media::device()
{
    QFETCH(QByteArray, source);
    QFETCH(QByteArray, caps);
    QFETCH(QString, start);

    const gstptr::Device camera = makeDevice(source.constData(), caps.constData());
    Media media(320, 180, camera.get(), "", true, false);
    QVERIFY(media.isDevice);
    QVERIFY(pollUntil(media, [&] { return media.frameCount >= 2; }));
    QVERIFY2(QString::fromStdString(media.diagnostics).startsWith(start), media.diagnostics.c_str());
    // Whatever size the camera gives, the picture is the canvas.
    QCOMPARE(media.latest.width, 320);
    QCOMPARE(media.latest.height, 180);
    QVERIFY(media.error.empty());
}

void tst_Media::deviceWithoutElement()
{
    const gstptr::Device broken = makeDevice(nullptr, "video/x-raw,width=640,height=480");
    try {
        Media media(320, 180, broken.get(), "", true, false);
        QFAIL("expected a refusal");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString::fromUtf8(error.what()), QStringLiteral("Falta componente de fuente multimedia"));
    }
}

void tst_Media::badAddress_data()
{
    QTest::addColumn<QString>("uri");
    QTest::addColumn<bool>("test");
    QTest::addColumn<QString>("thrown");

    // A file that cannot be opened fails while the pipeline starts; one that opens but holds no
    // media fails later, on the bus.
    QTest::newRow("missing file") << QStringLiteral("missing.webm") << false
                                  << QStringLiteral("No se pudo iniciar fuente");
    QTest::newRow("not a media file") << QStringLiteral("noise.webm") << false << QString();
    QTest::newRow("empty address without the pattern")
        << QString() << false << QStringLiteral("No se pudo iniciar fuente");
}

void tst_Media::badAddress()
{
    QFETCH(QString, uri);
    QFETCH(bool, test);
    QFETCH(QString, thrown);

    QFile noise(dir.filePath(QStringLiteral("noise.webm")));
    QVERIFY(noise.open(QIODevice::WriteOnly));
    QByteArray bytes(8192, '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char((i * 7919 + 13) % 251);
    noise.write(bytes);
    noise.close();

    const std::string address = uri.isEmpty() ? std::string() : fileUri(dir.filePath(uri)).toStdString();
    if (!thrown.isEmpty()) {
        try {
            Media media(320, 240, nullptr, address, test, false);
            QFAIL("expected a refusal");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), thrown);
        }
        return;
    }

    Media media(320, 240, nullptr, address, test, false);
    QVERIFY(pollUntil(media, [&] { return !media.running; }));
    const QString error = QString::fromStdString(media.error);
    QVERIFY2(error.startsWith(QStringLiteral("Fuente sin señal: ")), qPrintable(error));
    // GStreamer's debug text follows in brackets.
    QVERIFY2(error.contains(QStringLiteral(" [")) && error.endsWith(QLatin1Char(']')), qPrintable(error));
    QVERIFY(!media.ended);
    QVERIFY(media.latest.empty());

    // The tick empties the text after showing it; the source does not report again.
    media.error.clear();
    for (int i = 0; i < 5; ++i)
        media.poll();
    QVERIFY(media.error.empty());
    QVERIFY(!media.running);
}

void tst_Media::noFrameTimeouts_data()
{
    QTest::addColumn<bool>("camera");
    QTest::addColumn<qint64>("silentUs");
    QTest::addColumn<QString>("error");

    const QString cameraError = QStringLiteral("Cámara sin cuadros; se vuelve a abrir");
    const QString fileError = QStringLiteral("Fuente sin frames durante 10 segundos");
    QTest::newRow("camera quiet 4 s") << true << qint64(4000000) << QString();
    QTest::newRow("camera quiet past 4 s") << true << qint64(4000001) << cameraError;
    QTest::newRow("sound-only file quiet past 4 s") << false << qint64(4000001) << QString();
    QTest::newRow("sound-only file quiet 10 s") << false << qint64(10000000) << QString();
    QTest::newRow("sound-only file quiet past 10 s") << false << qint64(10000001) << fileError;
}

void tst_Media::noFrameTimeouts()
{
    QFETCH(bool, camera);
    QFETCH(qint64, silentUs);
    QFETCH(QString, error);

    // The camera's element never sends a picture.
    const gstptr::Device device = makeDevice("appsrc", "video/x-raw,width=320,height=240");
    const auto media =
        camera ? std::make_unique<Media>(320, 240, device.get(), "", true, false)
               : std::make_unique<Media>(320, 240, nullptr, fileUri(soundOnly).toStdString(), false, false);
    std::int64_t nowUs = media->lastFrameUs;
    media->clock = [&nowUs] { return nowUs; };
    if (!camera)
        QVERIFY(pollUntil(*media, [&] { return !media->audioRing.empty(); }));

    nowUs += silentUs;
    media->poll();
    QCOMPARE(QString::fromStdString(media->error), error);
    QCOMPARE(media->running, error.isEmpty());
    QVERIFY(!media->ended);
    QCOMPARE(media->frameCount, 0u);
    QVERIFY(media->latest.empty());

    if (!error.isEmpty()) {
        media->error.clear();
        nowUs += 20000000;
        media->poll();
        QVERIFY(media->error.empty());
        QVERIFY(!media->running);
    }
}

void tst_Media::firstAudioStreamWins_data()
{
    QTest::addColumn<bool>("toneFirst");
    QTest::newRow("tone first") << true;
    QTest::newRow("silence first") << false;
}

void tst_Media::firstAudioStreamWins()
{
    QFETCH(bool, toneFirst);

    Media media(64, 48, nullptr, fileUri(toneFirst ? toneThenSilence : silenceThenTone).toStdString(), false,
                false);
    QVERIFY(pollUntil(media, [&] { return media.audioRing.size() >= 9600; }));
    const float peak = peakOf(media.audioRing);
    if (toneFirst)
        QVERIFY2(peak > 0.2f, qPrintable(QString::number(peak)));
    else
        QVERIFY2(peak < 0.01f, qPrintable(QString::number(peak)));
    QVERIFY(media.running);
}

void tst_Media::audioRingAndOddBuffers()
{
    // Sound pushed by hand through the same decoder path as any address. It is already 48 kHz
    // stereo float, so the conversion passes each buffer as it is.
    Media media(64, 48, nullptr, "appsrc://", false, false);
    GstElement* rawSource = nullptr;
    g_object_get(media.source, "source", &rawSource, nullptr);
    const gstptr::Element appSource(rawSource);
    QVERIFY(appSource);
    const gstptr::Caps caps(
        gst_caps_from_string("audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
    g_object_set(appSource.get(), "caps", caps.get(), nullptr);

    // Count what reaches the audio sink, to be sure the odd buffer is there to be dropped.
    std::atomic<int> oddArrived{0};
    const gstptr::Pad sinkPad(gst_element_get_static_pad(media.audioSink, "sink"));
    gst_pad_add_probe(
        sinkPad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer counter) {
            if (gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info)) % 8 != 0)
                ++*static_cast<std::atomic<int>*>(counter);
            return GST_PAD_PROBE_OK;
        },
        &oddArrived, nullptr);

    std::vector<std::vector<float>> received;
    media.onAudio = [&](const std::vector<float>& samples) { received.push_back(samples); };
    const auto push = [&](const void* data, std::size_t bytes) {
        return gst_app_src_push_buffer(GST_APP_SRC(appSource.get()), gst_buffer_new_memdup(data, bytes)) ==
               GST_FLOW_OK;
    };
    const auto pushFilled = [&](float value) {
        const std::vector<float> block(40000, value);
        return push(block.data(), block.size() * sizeof(float));
    };

    QVERIFY(pushFilled(1.0f));
    QVERIFY(pollUntil(media, [&] { return received.size() == 1; }));
    QCOMPARE(received[0], std::vector<float>(40000, 1.0f));

    const float oddBytes[3] = {5.0f, 5.0f, 5.0f};
    QVERIFY(push(oddBytes, 12));
    QVERIFY(pushFilled(2.0f));
    QVERIFY(pollUntil(media, [&] {
        return !received.empty() && received.back().size() == 40000 && received.back()[0] == 2.0f;
    }));
    QCOMPARE(oddArrived.load(), 1);
    QCOMPARE(received.size(), std::size_t(2));

    QVERIFY(pushFilled(3.0f));
    QVERIFY(pollUntil(media, [&] { return received.size() == 3; }));

    // 120000 floats came; the oldest 24000 went from the front.
    QCOMPARE(media.audioRing.size(), std::size_t(96000));
    QCOMPARE(media.audioRing.front(), 1.0f);
    QCOMPARE(media.audioRing[15999], 1.0f);
    QCOMPARE(media.audioRing[16000], 2.0f);
    QCOMPARE(media.audioRing[55999], 2.0f);
    QCOMPARE(media.audioRing[56000], 3.0f);
    QCOMPARE(media.audioRing.back(), 3.0f);
    QVERIFY(media.running);
    QVERIFY(media.error.empty());
}

void tst_Media::screen_data()
{
    QTest::addColumn<bool>("virtualDisplay");
    QTest::newRow("no display") << false;
    QTest::newRow("virtual display") << true;
}

void tst_Media::screen()
{
    QFETCH(bool, virtualDisplay);
#ifdef _WIN32
    QSKIP("the screen capture of this platform is checked by hand");
#endif
    if (!gstptr::makeElement("ximagesrc"))
        QSKIP("ximagesrc is not installed");

    const QByteArray oldDisplay = qgetenv("DISPLAY");
    const auto restore = qScopeGuard([&] {
        if (oldDisplay.isNull())
            qunsetenv("DISPLAY");
        else
            qputenv("DISPLAY", oldDisplay);
    });

    if (!virtualDisplay) {
        qunsetenv("DISPLAY");
        try {
            Media media(320, 180, nullptr, "", false, true);
            QFAIL("expected a refusal");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), QStringLiteral("No se pudo iniciar fuente"));
        }
        return;
    }

    if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
        QSKIP("Xvfb is not installed");
    int number = 90 + int(QCoreApplication::applicationPid() % 100);
    while (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(number)))
        ++number;
    QProcess server;
    server.start(QStringLiteral("Xvfb"),
                 {QStringLiteral(":%1").arg(number), QStringLiteral("-nolisten"), QStringLiteral("tcp"),
                  QStringLiteral("-screen"), QStringLiteral("0"), QStringLiteral("640x480x24")});
    QVERIFY(server.waitForStarted());
    const auto stop = qScopeGuard([&] {
        server.terminate();
        if (!server.waitForFinished(3000))
            server.kill();
        server.waitForFinished(3000);
    });
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number)), 5000);
    qputenv("DISPLAY", QStringLiteral(":%1").arg(number).toUtf8());

    Media media(320, 180, nullptr, "", false, true);
    QVERIFY(!media.isDevice);
    QVERIFY2(QString::fromStdString(media.diagnostics)
                 .startsWith(QStringLiteral("fuente=ximagesrc (pantalla) pedido=video/x-raw")),
             media.diagnostics.c_str());
    // An idle screen still sends pictures: damage events are not relied on.
    QVERIFY(pollUntil(media, [&] { return media.frameCount >= 5; }));
    QCOMPARE(media.latest.width, 320);
    QCOMPARE(media.latest.height, 180);
    // A 4:3 screen on a 16:9 canvas keeps its shape: black columns at the sides.
    QVERIFY(isBlack(pixelAt(media.latest, 5, 90)));
}

void tst_Media::chooseCaptureSize_data()
{
    QTest::addColumn<QByteArray>("caps");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QSize>("chosen");

    const QSize wide(1280, 720);
    QTest::newRow("shape beats area")
        << QByteArray("video/x-raw,width=640,height=480; video/x-raw,width=1920,height=1080") << wide
        << QSize(1920, 1080);
    QTest::newRow("nearest area of the same shape")
        << QByteArray("video/x-raw,width=640,height=360; video/x-raw,width=1280,height=720; "
                      "video/x-raw,width=1920,height=1080")
        << wide << QSize(1280, 720);
    QTest::newRow("ranges only") << QByteArray("video/x-raw,width=[1,4096],height=[1,4096]") << wide
                                 << QSize(0, 0);
    QTest::newRow("lists are not sizes")
        << QByteArray("video/x-raw,width={640,1280},height={360,720}") << wide << QSize(0, 0);
    QTest::newRow("range passed over, fixed entry kept")
        << QByteArray("video/x-raw,width=[1,4096],height=[1,4096]; video/x-raw,width=800,height=600") << wide
        << QSize(800, 600);
    QTest::newRow("tie keeps the first")
        << QByteArray("video/x-raw,width=3840,height=2160; video/x-raw,width=2560,height=1440") << wide
        << QSize(3840, 2160);
    QTest::newRow("tie keeps the first, other order")
        << QByteArray("video/x-raw,width=2560,height=1440; video/x-raw,width=3840,height=2160") << wide
        << QSize(2560, 1440);
    QTest::newRow("system memory is plain memory")
        << QByteArray("video/x-raw(memory:SystemMemory),width=640,height=360") << wide << QSize(640, 360);
    QTest::newRow("other memory skipped even when exact")
        << QByteArray("video/x-raw(memory:GLMemory),width=1280,height=720; video/x-raw,width=640,height=480")
        << wide << QSize(640, 480);
    QTest::newRow("compressed skipped even when exact")
        << QByteArray("image/jpeg,width=1280,height=720; video/x-raw,width=640,height=480") << wide
        << QSize(640, 480);
    QTest::newRow("zero size skipped")
        << QByteArray("video/x-raw,width=0,height=720; video/x-raw,width=320,height=240") << wide
        << QSize(320, 240);
    QTest::newRow("portrait canvas prefers portrait")
        << QByteArray("video/x-raw,width=1920,height=1080; video/x-raw,width=720,height=1280")
        << QSize(1080, 1920) << QSize(720, 1280);
    QTest::newRow("no caps") << QByteArray() << wide << QSize(0, 0);
}

void tst_Media::chooseCaptureSize()
{
    QFETCH(QByteArray, caps);
    QFETCH(QSize, canvas);
    QFETCH(QSize, chosen);

    const gstptr::Caps deviceCaps(caps.isEmpty() ? nullptr : gst_caps_from_string(caps.constData()));
    QVERIFY(caps.isEmpty() || deviceCaps);
    const tavrin::CaptureSize size =
        tavrin::chooseCaptureSize(deviceCaps.get(), canvas.width(), canvas.height());
    QCOMPARE(QSize(size.width, size.height), chosen);
}

QTEST_GUILESS_MAIN(tst_Media)
#include "tst_media.moc"
