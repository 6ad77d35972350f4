#include "AudioCapture.h"
#include "AudioProcessing.h"
#include "Frame.h"
#include "GstSupport.h"
#include "Media.h"
#include "Output.h"
#include "Processes.h"
#include "RtmpServer.h"
#include "StreamTarget.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>
#include <cmath>
#include <gst/app/gstappsrc.h>
#include <optional>

namespace {

// A made-up device whose element comes from the factory `element`; an audio appsrc sends live stereo floats.
gstptr::Device fakeDevice(const char* kind, const QByteArray& element, const char* caps = nullptr)
{
    const gstptr::Caps deviceCaps(caps ? gst_caps_from_string(caps) : nullptr);
    return makeFakeDevice("Cámara de prueba", kind, deviceCaps.get(), [element, kind](const gchar* name) {
        GstElement* made = gst_element_factory_make(element.constData(), name);
        if (made && element == "appsrc" && g_str_equal(kind, "Audio/Source"))
            g_object_set(made, "is-live", TRUE, "format", GST_FORMAT_TIME, "caps", gstptr::Caps(gst_caps_from_string(
                "audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2")).get(), nullptr);
        return made;
    });
}

template <typename Call> QString thrownBy(Call call)
{
    try {
        call();
        return {};
    } catch (const std::runtime_error& failure) { return QString::fromUtf8(failure.what()); }
}

QString colourAt(const tavrin::Frame& frame, QPoint at)
{
    const std::uint8_t* p = frame.pixels.data() + (std::size_t(at.y()) * std::size_t(frame.width) + at.x()) * 4;
    return p[0] < 20 && p[1] < 20 && p[2] < 20             ? QStringLiteral("black")
           : p[1] > 140 && p[0] < 70 && p[2] < 70 && p[3] == 255 ? QStringLiteral("green") : QString();
}

constexpr std::uint64_t framePeriodNs = 33333000;
const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT "/");
const std::vector<float> sound(3200, 0.5f); // a frame's worth of stereo sound at 48 kHz, at half scale

} // namespace

class tst_Media : public QObject
{
    Q_OBJECT
    bool trackingLeaks = false;
    QString pulseFailure;
    SoundServer pulse{QStringLiteral(VELMORA_TEST_OUTPUT "/runtime")};
    QTemporaryDir dir;
    QProcess screen;

private Q_SLOTS:
    void initTestCase()
    {
        // A private sound server: the client library must see it before GStreamer loads its plug-in.
        SoundServer::useFolder(QStringLiteral(VELMORA_TEST_OUTPUT "/runtime"));
        QVERIFY(QDir().mkpath(folder) && pulse.clearFolder());
        pulseFailure = pulse.start();
        trackingLeaks = startLeakTracking();
        gst_init(nullptr, nullptr);
        QCOMPARE(thrownBy([] { Output::make("velmora-absent"); }), "Componente no disponible: velmora-absent");
        const QByteArray path = dir.path().toUtf8() + '/';
        // One second of 4:3 pattern with sound; and sound only, a loud first stream and a silent second.
        QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 ! vp8enc "
                         "deadline=1 ! webmmux name=m ! filesink location=\"" + path + "picture-and-sound.webm\" "
                         "audiotestsrc num-buffers=47 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
                         "! audioconvert ! vorbisenc ! m."));
        const QByteArray track = " num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! vorbisenc ! m.audio_";
        QVERIFY(runToEnd("webmmux name=m ! filesink location=\"" + path + "sound.webm\" audiotestsrc wave=sine "
                         "volume=0.5" + track + "0 audiotestsrc wave=silence" + track + "1"));
        QFile noise(dir.filePath(QStringLiteral("noise.webm")));
        QVERIFY(noise.open(QIODevice::WriteOnly) && noise.write(QByteArray(8192, 'Z')) == 8192);
        // A virtual 4:3 screen; Xvfb picks a free display and prints it once it accepts clients.
        screen.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "640x480x24"});
        QTRY_VERIFY(screen.canReadLine());
        qputenv("DISPLAY", ":" + screen.readLine().trimmed());
    }

    void cleanupTestCase()
    {
        screen.terminate();
        screen.waitForFinished(3000);
        const QStringList alive = deinitAndListAlive(trackingLeaks);
        QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
    }

    void target_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected"); // a URL, or the refusal
        const QString badServer = QStringLiteral("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
        QTest::newRow("blanks trimmed") << " rtmps://h/live2/ " << " ab-12 " << "rtmps://h/live2/ab-12";
        QTest::newRow("no path") << "rtmp://h" << "key" << "rtmp://h/key";
        QTest::newRow("key in the query") << "rtmp://h/app?key=abc" << "k" << badServer;
        QTest::newRow("user part") << "rtmp://user@h/app" << "k" << badServer;
        QTest::newRow("fragment") << "rtmp://h/app#k" << "k" << badServer;
        QTest::newRow("no host") << "rtmp://" << "k" << badServer;
        QTest::newRow("rtmp2 is not rtmp") << "RTMP2://h/app" << "k" << badServer;
        QTest::newRow("empty key") << "rtmp://h/app" << "   " << "Clave de transmisión inválida";
        QTest::newRow("key with a blank") << "rtmp://h/app" << "ab cd" << "Clave de transmisión inválida";
    }
    void target()
    {
        QFETCH(QString, server);
        QFETCH(QString, key);
        QString built;
        const QString refusal = thrownBy([&] { built = tavrin::streamTarget(server, key); });
        QTEST(refusal.isEmpty() ? built : refusal, "expected");
        QCOMPARE(tavrin::keyLogLine("YouTube", "rtmp://h/%3app", key), QStringLiteral("Salida YouTube: servidor="
                 "rtmp://h/%3app clave: %1 caracteres, empieza \"%2\"").arg(key.size()).arg(key.left(4)));
    }

    void processBlock_data()
    {
        QTest::addColumn<QList<float>>("samples");
        QTest::addColumn<double>("gain"); // negative: muted
        QTest::addColumn<QList<float>>("delivered");
        QTest::addColumn<QList<double>>("levels"); // input peak left, rms right; output peak left; clipped in, out
        QTest::addColumn<int>("meter"); // of the output
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, QList<float> samples, double gain, QList<float> delivered,
                            const QList<double>& levels, int meter, const char* error = "") {
            QTest::newRow(name) << samples << gain << delivered << levels << meter << QString(error);
        };
        row("muted moves only the input", {0.5f, -0.25f, -0.5f, 0.25f}, -1.0, {0, 0, 0, 0}, {0.5, 0.25, 0, 0, 0}, 0);
        row("full scale after gain clips", {0.5f, 0}, 2.0, {1.0f, 0}, {0.5, 0, 1, 0, 1}, 100);
        row("negative overflow clamps", {-0.75f, 0.25f}, 1.5, {-1.0f, 0.375f}, {0.75, 0.25, 1, 0, 1}, 100);
        row("full scale input clips though turned down", {1.0f, -1.0f}, 0.5, {0.5f, -0.5f}, {1, 1, 0.5, 1, 0}, 89);
        row("NaN is silence", {NAN, 0.5f, 0.5f, 0.5f}, 2.0, {0, 1.0f, 1.0f, 1.0f}, {0.5, 0.5, 1, 0, 1}, 100);
        row("empty block", {}, 1.0, {}, {0, 0, 0, 0, 0}, 0);
        row("odd count", {0.1f, 0.2f, 0.3f}, 1.0, {}, {}, 0, "Bloque de audio incompleto");
        row("gain above 2", {0.1f, 0.2f}, 2.0001, {}, {}, 0, "Ganancia invalida");
        row("gain not a number", {0.1f, 0.2f}, NAN, {}, {}, 0, "Ganancia invalida");
    }
    void processBlock()
    {
        QFETCH(QList<float>, samples);
        QFETCH(double, gain);
        QTEST(thrownBy([&] {
            const auto b = tavrin::processBlock({samples.begin(), samples.end()}, {gain < 0, std::abs(gain)});
            QTEST(QList<float>(b.samples.begin(), b.samples.end()), "delivered");
            QTEST((QList<double>{b.input.peak[0], std::round(b.input.rms[1] * 1e6) / 1e6, b.output.peak[0],
                                 double(b.input.clipped), double(b.output.clipped)}), "levels");
            QTEST(tavrin::meterValue(b.output), "meter");
        }), "error");
        QCOMPARE(thrownBy([&] { tavrin::processBlock({0.1f, 0.2f}, {gain < 0, -0.01}); }), "Ganancia invalida");
    }

    void stopsAndStalls_data()
    {
        QTest::addColumn<QByteArray>("cause");
        QTest::addColumn<qint64>("quietUs"); // how far the clock moves without a buffer
        QTest::addColumn<QString>("error"); // empty: the capture goes on
        const QString ended = QStringLiteral("La entrada de audio termino");
        const auto row = [](const char* name, const char* cause, qint64 quietUs, const QString& error = {}) {
            QTest::newRow(name) << QByteArray(cause) << quietUs << error;
        };
        row("quiet 2 s keeps the meters", "quiet", 2000000);
        row("quiet 5 s goes on", "quiet", 5000000);
        row("quiet past 5 s stops", "quiet", 5000001, QStringLiteral("Sin buffers de audio durante 5 segundos"));
        row("end of stream", "eos", 0, ended);
        row("device error with its text", "error", 0, QStringLiteral("Dispositivo de audio desconectado"));
        row("device error without text", "silent error", 0, ended);
        row("empty buffer", "empty", 0, QStringLiteral("Bloque de audio invalido"));
    }
    void stopsAndStalls()
    {
        QFETCH(QByteArray, cause);
        QFETCH(qint64, quietUs);
        QFETCH(QString, error);
        const gstptr::Device device = fakeDevice("Audio/Source", "appsrc");
        AudioCapture capture(device.get());
        const gstptr::Element source(gst_bin_get_by_name(GST_BIN(capture.pipeline.get()), "audio-input"));
        std::int64_t nowUs = capture.lastBufferUs;
        capture.clock = [&] { return nowUs; };
        std::vector<std::int64_t> pts; // a buffer's own time, in nanoseconds
        capture.onBlock = [&](const tavrin::AudioBlock& block) { pts.push_back(block.pts); };
        const tavrin::AudioState state{false, 1.5};
        GstBuffer* block = gst_buffer_new_memdup(sound.data(), sound.size() * sizeof(float));
        GST_BUFFER_PTS(block) = 123456789;
        gst_app_src_push_buffer(GST_APP_SRC(source.get()), block);
        QTRY_COMPARE((capture.poll(state), capture.blockCount), std::uint64_t(1));
        nowUs += quietUs;
        if (cause == "eos")
            gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
        if (cause == "empty")
            gst_app_src_push_buffer(GST_APP_SRC(source.get()), gst_buffer_new());
        const QByteArray text = cause == "error" ? error.toUtf8() : QByteArray();
        const gstptr::Error failure(g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, text.constData()));
        if (cause.endsWith("error"))
            gst_element_post_message(source.get(), gst_message_new_error(GST_OBJECT(source.get()), failure.get(), {}));
        QTRY_COMPARE((capture.poll(state), capture.running), error.isEmpty());
        QCOMPARE(QString::fromStdString(capture.error), error);
        // Levels before and after the gain of 1.5, shown for two seconds without a buffer.
        const bool shown = quietUs <= 2000000 && error.isEmpty();
        QVERIFY(capture.input.peak[0] == (shown ? 0.5 : 0.0) && capture.output.peak[1] == (shown ? 0.75 : 0.0));
        QCOMPARE(pts, std::vector<std::int64_t>{123456789});
        // Stopped for good, with the device let go: the pipeline dropped it and took it to NULL.
        QVERIFY(error.isEmpty() || (!capture.pipeline && !capture.sink && !capture.bus &&
                GST_OBJECT_REFCOUNT_VALUE(source.get()) == 1 && GST_STATE(source.get()) == GST_STATE_NULL));
    }

    void pulseAudioMonitor()
    {
        QVERIFY2(pulseFailure.isEmpty(), qPrintable(pulseFailure));
        const QString wav = folder + QStringLiteral("tone.wav");
        QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! audio/x-raw,format=S16LE,"
                         "rate=48000,channels=2 ! wavenc ! filesink location=\"" + wav.toUtf8() + "\""));
        const gstptr::Object<GstDeviceMonitor> monitor(gst_device_monitor_new());
        gst_device_monitor_add_filter(monitor.get(), "Audio/Source", nullptr);
        gstptr::Device sinkMonitor; // probed: the server is up once started
        GList* list = gst_device_monitor_get_devices(monitor.get());
        for (GList* item = list; item; item = item->next) {
            gstptr::Device device(GST_DEVICE(item->data));
            const gstptr::String name(gst_device_get_display_name(device.get()));
            if (name && g_str_equal(name.get(), "Monitor of Null Output"))
                sinkMonitor = std::move(device);
        }
        g_list_free(list);
        QVERIFY(sinkMonitor);
        AudioCapture capture(sinkMonitor.get()), tone(nullptr);
        QTRY_VERIFY((capture.poll({}), tone.poll({false, 2.0}), capture.blockCount >= 5 && tone.blockCount >= 4));
        QVERIFY(tone.running && tone.input.peak[1] > 0.24 && tone.input.peak[1] <= 0.2501);
        QVERIFY(std::abs(tone.output.peak[0] - 2 * tone.input.peak[0]) < 1e-6 && !tone.output.clipped);
        QVERIFY(pulse.play(wav));
        QTRY_VERIFY2_WITH_TIMEOUT((capture.poll({}), capture.input.peak[0] > 0.1 && capture.input.peak[1] > 0.1),
                                  pulse.playerOutput().constData(), 10000);
        QVERIFY2(capture.running && capture.output.peak[0] > 0.1, capture.error.c_str());
    }

    // Pictures fit the canvas, letterboxed. A camera that goes quiet is reopened soon, a file gets longer; a
    // sound-only file plays its first audio stream only.
    void sources_data()
    {
        QTest::addColumn<QByteArray>("kind"); // a file, "pattern", "screen", "camera" or "quiet camera"
        QTest::addColumn<QSize>("canvas");
        QTest::addColumn<QPoint>("black"); // a letterbox pixel; neither point: no pictures come
        QTest::addColumn<QPoint>("green"); // in the pattern's middle bar
        QTest::addColumn<qint64>("quietUs"); // how far the clock then moves without a picture
        QTest::addColumn<QString>("error"); // a pattern for the failure that stops the source, or is thrown
        const auto row = [](const char* name, const char* kind, QSize canvas, QPoint black, QPoint green,
                            qint64 quietUs = 0, const char* error = "") {
            QTest::newRow(name) << QByteArray(kind) << canvas << black << green << quietUs << QString(error);
        };
        // 320x240 grows to 480x360 with 80 black columns either side, or shrinks to 240x180 with 70 black rows.
        row("file, wide canvas", "picture-and-sound.webm", {640, 360}, {10, 180}, {320, 100});
        row("file, tall canvas", "picture-and-sound.webm", {240, 320}, {120, 10}, {120, 120});
        row("test pattern", "pattern", {320, 180}, {}, {160, 60});
        row("camera asks for its size of the canvas's shape", "camera", {320, 180}, {}, {160, 60});
        // An idle screen still sends pictures: damage events are not relied on.
        row("screen", "screen", {320, 180}, {5, 90}, {});
        row("camera quiet 4 s", "quiet camera", {320, 240}, {}, {}, 4000000);
        row("camera past 4 s", "quiet camera", {320, 240}, {}, {}, 4000001, "Cámara sin cuadros; se vuelve a abrir");
        row("file quiet 10 s", "sound.webm", {320, 240}, {}, {}, 10000000);
        row("file past 10 s", "sound.webm", {320, 240}, {}, {}, 10000001, "Fuente sin frames durante 10 segundos");
        row("missing file", "missing.webm", {320, 240}, {}, {}, 0, "No se pudo iniciar fuente");
        row("not a media file", "noise.webm", {320, 240}, {}, {}, 0, "(?s)Fuente sin señal: .+\\]");
    }
    void sources()
    {
        QFETCH(QByteArray, kind);
        QFETCH(QSize, canvas);
        QFETCH(QPoint, black);
        QFETCH(QPoint, green);
        QFETCH(qint64, quietUs);
        const bool file = kind.endsWith(".webm"), pictured = !black.isNull() || !green.isNull();
        const gstptr::Device camera = kind == "camera" ? fakeDevice("Video/Source", "videotestsrc",
            "video/x-raw,width=640,height=480; video/x-raw,width=640,height=360")
            : kind == "quiet camera" ? fakeDevice("Video/Source", "appsrc", "video/x-raw") : nullptr;
        QString stopped;
        const QString thrown = thrownBy([&] {
            const QUrl uri = QUrl::fromLocalFile(dir.filePath(QString::fromUtf8(kind)));
            Media media(canvas.width(), canvas.height(), camera.get(), file ? uri.toString().toStdString() : "",
                        kind == "pattern", kind == "screen");
            std::int64_t nowUs = media.lastFrameUs;
            media.clock = [&nowUs] { return nowUs; };
            std::size_t audioFloats = 0;
            media.onAudio = [&](const std::vector<float>& samples) { audioFloats += samples.size(); };
            QTRY_VERIFY((media.poll(), quietUs ? bool(camera) || media.audioRing.size() >= 9600
                                               : file ? !media.running : media.frameCount >= 5));
            nowUs += quietUs;
            media.poll();
            stopped = QString::fromStdString(media.error);
            QVERIFY(media.running == (stopped.isEmpty() && !media.ended) && media.isDevice == bool(camera));
            QVERIFY(media.ended == (file && pictured) && (media.frameCount > 0) == pictured);
            QVERIFY((audioFloats > 0) == kind.contains("sound") && audioFloats % 2 == 0);
            QVERIFY(kind != "sound.webm" || peakOf(media.audioRing) > 0.2f);
            const QString shown = QString::fromStdString(media.diagnostics);
            QVERIFY2(shown.contains(QStringLiteral(" fuente caps=video/x-raw")) == (pictured && !file) &&
                     (kind != "camera" || shown.contains(QStringLiteral(
                         "pedido=video/x-raw, width=(int)640, height=(int)360 primer"))), qPrintable(shown));
            QCOMPARE(QSize(media.latest.width, media.latest.height), pictured ? canvas : QSize(0, 0));
            QVERIFY(black.isNull() || colourAt(media.latest, black) == QStringLiteral("black"));
            QVERIFY(green.isNull() || colourAt(media.latest, green) == QStringLiteral("green"));
        });
        QFETCH(QString, error);
        const QRegularExpression expected(QRegularExpression::anchoredPattern(error));
        QVERIFY2(expected.match(thrown + stopped).hasMatch(), qPrintable(thrown + stopped));
    }

    void chooseCaptureSize_data()
    {
        QTest::addColumn<QByteArray>("caps");
        QTest::addColumn<QSize>("chosen"); // for a 1280x720 canvas
        const auto row = [](const char* name, const char* caps, QSize chosen) {
            QTest::newRow(name) << QByteArray(caps) << chosen;
        };
        row("shape beats area", "video/x-raw,width=640,height=480; video/x-raw,width=1920,height=1080", {1920, 1080});
        row("nearest area of the same shape", "video/x-raw,width=640,height=360; video/x-raw,width=1280,height=720; "
            "video/x-raw,width=1920,height=1080", {1280, 720});
        row("tie keeps the first", "video/x-raw,width=2560,height=1440; video/x-raw,width=3840,height=2160",
            {2560, 1440});
        // Other memory needs an upload step; compressed pictures, ranges and lists are no size to ask for.
        row("only plain fixed sizes", "video/x-raw(memory:GLMemory),width=1280,height=720; image/jpeg,width=1280,"
            "height=720; video/x-raw,width=[1,4096],height=[1,4096]; video/x-raw,width={640,1280},height={360,720}; "
            "video/x-raw,width=640,height=480", {640, 480});
        row("no caps", "", {0, 0});
    }
    void chooseCaptureSize()
    {
        QFETCH(QByteArray, caps);
        const gstptr::Caps deviceCaps(caps.isEmpty() ? nullptr : gst_caps_from_string(caps.constData()));
        const auto size = tavrin::chooseCaptureSize(deviceCaps.get(), 1280, 720);
        QTEST(QSize(size.width, size.height), "chosen");
    }

    void profiles_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<int>("bitrate");
        QTest::addColumn<QString>("target"); // a stream's address, or a file
        QTest::addColumn<QString>("refusal"); // empty: the output starts
        const QString file = folder + "profile.webm", profile = QStringLiteral("Perfil de salida invalido");
        for (const auto& [w, h, rate] : {std::tuple(4097, 360, 6000000), std::tuple(0, 360, 6000000),
                                         std::tuple(640, 4097, 6000000), std::tuple(640, 0, 6000000),
                                         std::tuple(640, 360, 499999), std::tuple(640, 360, 20000001)})
            QTest::addRow("%dx%d at %d", w, h, rate) << QSize(w, h) << rate << file << profile;
        QTest::newRow("srt address") << QSize(640, 360) << 6000000 << "srt://x" << "Destino debe usar RTMP o RTMPS";
        QTest::newRow("empty file path") << QSize(640, 360) << 6000000 << "" << "Selecciona archivo de grabacion";
        QTest::newRow("smallest") << QSize(1, 1) << 500000 << file << "";
        QTest::newRow("largest") << QSize(4096, 4096) << 20000000 << file << "";
    }
    void profiles()
    {
        QFETCH(QSize, size);
        QFETCH(int, bitrate);
        QFETCH(QString, target);
        QTEST(thrownBy([&] {
            Output output(size.width(), size.height(), target.startsWith("srt"), target.toStdString(), bitrate, false);
            QVERIFY2(output.running && output.error.empty(), output.error.c_str());
            output.push(std::make_shared<tavrin::Frame>(2, 2), sound, 0); // another size stops the output for good
            QVERIFY(output.error == "El formato cambio durante salida" && !output.running && output.videoFrames == 0);
        }), "refusal");
    }

    // To the real nginx over RTMP and RTMPS, and to a file; ffprobe reads back what arrived.
    void delivery_data()
    {
        QTest::addColumn<QString>("scheme"); // of the server, "silent" for a peer that never answers, or a file
        QTest::addColumn<bool>("trusted"); // the server's authority
        QTest::addColumn<QStringList>("codecs"); // video and audio found; none: the connection fails
        QTest::newRow("rtmp") << "rtmp" << true << QStringList{"h264", "aac"};
        QTest::newRow("rtmps") << "rtmps" << true << QStringList{"h264", "aac"};
        QTest::newRow("webm") << "" << true << QStringList{"vp8", "vorbis"};
        // The sink's time-out for a peer that never answers must not be spent on the caller's thread.
        QTest::newRow("silent peer") << "silent" << true << QStringList();
        QTest::newRow("RTMPS server of an unknown authority") << "rtmps" << false << QStringList();
    }
    void delivery()
    {
        QFETCH(QString, scheme);
        QFETCH(bool, trusted);
        QFETCH(QStringList, codecs);
        const QString out = folder + QString::fromUtf8(QTest::currentDataTag());
        QVERIFY(QDir(out).removeRecursively() && QDir().mkpath(out));
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        std::optional<RtmpServer> server;
        std::optional<TlsTrust> trust; // the product keeps full certificate checks: the test's authority is trusted
        if (scheme.startsWith(QStringLiteral("rtmp")))
            server.emplace(out, scheme == QStringLiteral("rtmps"));
        QVERIFY2(!server || server->ok(), server ? qPrintable(server->errorString()) : "");
        if (server && scheme == QStringLiteral("rtmps") && trusted)
            trust.emplace(server->caCertificate());
        const QString target = !server ? (scheme.isEmpty() ? out + "/recording.webm"
                                          : QStringLiteral("rtmp://127.0.0.1:%1/app/key").arg(silent.serverPort()))
                                       : scheme == QStringLiteral("rtmps") ? server->tlsUrl("key") : server->url("key");
        const QSize size = codecs.isEmpty() ? QSize(320, 240) : QSize(640, 360);
        const int frames = codecs.isEmpty() ? 300 : 60; // a failure within ten seconds
        Output output(size.width(), size.height(), !scheme.isEmpty(), target.toStdString(), 6000000, false);
        // Pushes when the 30 fps clock is due and polls otherwise, as the studio's tick; keeps the longest call.
        QElapsedTimer clock;
        clock.start();
        int fed = 0;
        qint64 longestMs = 0;
        (void)QTest::qWaitFor([&] {
            const qint64 before = clock.elapsed();
            if (std::uint64_t(clock.nsecsElapsed()) < std::uint64_t(fed) * framePeriodNs)
                output.poll();
            else
                output.push(std::make_shared<tavrin::Frame>(size.width(), size.height()), sound, fed++ * framePeriodNs);
            longestMs = std::max(longestMs, clock.elapsed() - before);
            return fed >= frames || !output.running;
        }, frames * 34 + 15000);
        const QString file = server ? server->recording("key") : target;
        if (codecs.isEmpty()) {
            QVERIFY2(!output.running && !output.ended && longestMs < 1000, qPrintable(QString::number(longestMs)));
            const QString error = QString::fromStdString(output.error);
            QVERIFY2(error.startsWith("Fallo de salida (codigo ") &&
                     error.endsWith(". Revisa destino, permisos y codecs."), output.error.c_str());
            QVERIFY(!server || (server->stop(), QFileInfo(file).size() == 0));
            return;
        }
        QVERIFY2(fed == frames && output.running, output.error.c_str());
        output.finish();
        output.push(std::make_shared<tavrin::Frame>(640, 360), sound, frames * framePeriodNs); // not counted
        QVERIFY(output.videoFrames == std::uint64_t(frames) && output.audioFrames == std::uint64_t(frames) * 1600);
        QTRY_VERIFY2_WITH_TIMEOUT((output.poll(), output.ended), output.error.c_str(), 15000);
        if (server)
            server->stop();
        // Leaky sources may drop a few of the oldest buffers on a busy machine; the encoder drains the rest.
        const auto streams = probeStreams(file);
        const QByteArray found = (describeStreams(streams) + (server ? server->log() : QString())).toUtf8();
        const ProbedStream video = streams.value(codecs[0]);
        QVERIFY2(video.frames >= frames - 6 && video.frames <= frames && video.rate == QStringLiteral("30/1") &&
                 streams.contains(codecs[1]), found.constData());
        QVERIFY2(std::abs(probeDuration(file) - frames / 30.0) <= 2.0 / 30.0, found.constData());
        QCOMPARE(playThrough(file), QString());
    }
};

QTEST_GUILESS_MAIN(tst_Media)
#include "tst_media.moc"
