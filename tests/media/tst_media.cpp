#include "AudioCapture.h"
#include "AudioMix.h"
#include "AudioPeak.h"
#include "AudioProcessing.h"
#include "Frame.h"
#include "FakeDevice.h"
#include "FramePool.h"
#include "GstTestRun.h"
#include "Media.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "SoundServer.h"
#include "StreamTarget.h"
#include "TlsTrust.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>
#include <cmath>
#include <gst/app/gstappsrc.h>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

// One mix step: first video (or room) sample, first voice sample, state, sliders, first sample mixed.
struct Mix
{
    bool video;
    float source, voice;
    bool muted;
    double gain;
    int original, voicePercent;
    float expected;
};
Q_DECLARE_METATYPE(Mix)

namespace {

const char* const floatStereo = "audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2";

// A made-up device whose element comes from the factory `element`, or is missing.
gstptr::Device fakeDevice(const char* name, const char* kind, const QByteArray& element, const char* caps = nullptr)
{
    const gstptr::Caps deviceCaps(caps ? gst_caps_from_string(caps) : nullptr);
    return makeFakeDevice(name, kind, deviceCaps.get(), [element, kind](const gchar* elementName) {
        GstElement* made = element.isEmpty() ? nullptr : gst_element_factory_make(element.constData(), elementName);
        const gstptr::Caps sound(gst_caps_from_string(floatStereo));
        if (made && element == "appsrc" && g_str_equal(kind, "Audio/Source"))
            g_object_set(made, "caps", sound.get(), "is-live", TRUE, "format", GST_FORMAT_TIME, nullptr);
        return made;
    });
}

// Ten milliseconds of one value on both channels, or an empty buffer.
void pushBlock(GstElement* appsrc, float value, GstClockTime pts = GST_CLOCK_TIME_NONE, std::size_t bytes = 3840)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
    const std::vector<float> samples(bytes / sizeof(float), value);
    gst_buffer_fill(buffer, 0, samples.data(), bytes);
    GST_BUFFER_PTS(buffer) = pts;
    gst_app_src_push_buffer(GST_APP_SRC(appsrc), buffer);
}

template <typename Call> QString thrownBy(Call call)
{
    try {
        call();
    } catch (const std::runtime_error& failure) {
        return QString::fromUtf8(failure.what());
    }
    return {};
}

// rms left and right, peak left and right, clipped; to a millionth, as float and double sums differ.
QList<double> rounded(QList<double> values)
{
    for (double& value : values)
        value = std::round(value * 1e6) / 1e6;
    return values;
}

QList<double> figures(const tavrin::AudioLevels& l)
{
    return rounded({l.rms[0], l.rms[1], l.peak[0], l.peak[1], l.clipped ? 1.0 : 0.0});
}

QString colourAt(const tavrin::Frame& frame, QPoint at)
{
    const std::uint8_t* p = frame.pixels.data() + (std::size_t(at.y()) * std::size_t(frame.width) + at.x()) * 4;
    if (p[0] < 20 && p[1] < 20 && p[2] < 20)
        return QStringLiteral("black");
    return p[1] > 140 && p[0] < 70 && p[2] < 70 && p[3] == 255 ? QStringLiteral("green") : QString();
}

constexpr std::uint64_t framePeriodNs = 33333000;
const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT "/");

std::shared_ptr<const tavrin::Frame> picture(QSize size, int index)
{
    auto frame = std::make_shared<tavrin::Frame>(size.width(), size.height());
    for (std::size_t i = 0; i < frame->pixels.size(); ++i)
        frame->pixels[i] = i % 4 == 3 ? 255 : std::uint8_t(i / 4 % std::size_t(size.width()) + index * (i % 4 + 2));
    return frame;
}

const std::vector<float> sound(tavrin::mixBlockSamples, 0.2f);

// Pushes when the 30 fps clock is due and polls otherwise, as the studio's tick; returns pushes, longest ms.
std::pair<int, qint64> feed(Output& output, int frames, QSize size)
{
    QElapsedTimer clock;
    clock.start();
    int fed = 0;
    qint64 longestMs = 0;
    (void)QTest::qWaitFor([&] {
        QElapsedTimer call;
        call.start();
        if (std::uint64_t(clock.nsecsElapsed()) < std::uint64_t(fed) * framePeriodNs)
            output.poll();
        else
            output.push(picture(size, fed), sound, std::uint64_t(fed++) * framePeriodNs);
        longestMs = std::max(longestMs, call.elapsed());
        return fed >= frames || !output.running;
    }, frames * 34 + 15000);
    return {fed, longestMs};
}

// Buffer times as they leave a source, seen on GStreamer's streaming thread.
struct SeenTimes
{
    std::mutex lock;
    std::vector<std::uint64_t> pts;
    std::vector<std::uint64_t> get()
    {
        const std::lock_guard<std::mutex> guard(lock);
        return pts;
    }
    void watch(GstElement* source)
    {
        const gstptr::Pad pad(gst_element_get_static_pad(source, "src"));
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad*, GstPadProbeInfo* info, gpointer data) {
            auto* times = static_cast<SeenTimes*>(data);
            const std::lock_guard<std::mutex> guard(times->lock);
            times->pts.push_back(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)));
            return GST_PAD_PROBE_OK;
        }, this, nullptr);
    }
};

} // namespace

class tst_Media : public QObject
{
    Q_OBJECT
    bool trackingLeaks = false;
    QString pulseSkip;
    QString pulseFailure;
    SoundServer pulse{QStringLiteral(VELMORA_TEST_OUTPUT "/runtime")};
    QTemporaryDir dir;
    QProcess screen;

    std::string uri(const QByteArray& name) const
    {
        return QUrl::fromLocalFile(dir.filePath(QString::fromUtf8(name))).toString().toStdString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A private sound server: the client library must see it before GStreamer loads its plug-in.
        SoundServer::useFolder(QStringLiteral(VELMORA_TEST_OUTPUT "/runtime"));
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty() ||
            QStandardPaths::findExecutable(QStringLiteral("paplay")).isEmpty())
            pulseSkip = QStringLiteral("pulseaudio or paplay is not installed");
        else if (QDir().mkpath(QStringLiteral(VELMORA_TEST_OUTPUT)) && pulse.clearFolder())
            pulseFailure = pulse.start();
        trackingLeaks = startLeakTracking();
        gst_init(nullptr, nullptr);
        QVERIFY(QDir().mkpath(folder));
        QCOMPARE(thrownBy([] { Output::make("velmora-absent"); }), "Componente no disponible: velmora-absent");
        const QByteArray path = dir.path().toUtf8() + '/';
        // One second of 4:3 pattern with sound, as a phone or an editing program would leave it.
        QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 ! vp8enc "
                         "deadline=1 ! webmmux name=m ! filesink location=\"" + path + "picture-and-sound.webm\" "
                         "audiotestsrc num-buffers=47 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
                         "! audioconvert ! vorbisenc ! m."));
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
        // A virtual 4:3 screen; Xvfb picks a free display and prints it once it accepts clients.
        if (!gstptr::makeElement("ximagesrc") || QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
            return;
        const QString arguments = QStringLiteral("-displayfd 1 -nolisten tcp -screen 0 640x480x24");
        screen.start(QStringLiteral("Xvfb"), arguments.split(u' '));
        QTRY_VERIFY(screen.canReadLine());
        qputenv("DISPLAY", ":" + screen.readLine().trimmed());
    }

    void cleanupTestCase()
    {
        const auto stopServer = qScopeGuard([this] { pulse.stop(); });
        screen.terminate();
        if (!screen.waitForFinished(3000))
            screen.kill();
        const QStringList alive = deinitAndListAlive(trackingLeaks);
        QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
    }

    void frame_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QString>("refusal");
        const QString refused = QStringLiteral("Tamaño de cuadro inválido");
        for (const QSize size : {QSize(1, 1), QSize(1920, 1080), QSize(8192, 2), QSize(2, 8192)})
            QTest::addRow("%dx%d", size.width(), size.height()) << size << QString();
        for (const QSize size : {QSize(0, 10), QSize(8193, 8), QSize(10, 0), QSize(10, 8193)})
            QTest::addRow("%dx%d", size.width(), size.height()) << size << refused;
    }
    void frame()
    {
        QFETCH(QSize, size);
        QTEST(thrownBy([&] {
            const tavrin::Frame frame(size.width(), size.height());
            QCOMPARE(frame.pixels.size(), std::size_t(size.width()) * std::size_t(size.height()) * 4);
            for (std::size_t i = 0; i < frame.pixels.size(); ++i) // opaque black
                QCOMPARE(int(frame.pixels[i]), i % 4 == 3 ? 255 : 0);
        }), "refusal");
    }

    // An encoder still reading a picture must never see it overwritten; encoders let go on their own threads.
    void poolNeverHandsOutAHeldFrame()
    {
        FramePool pool(2);
        std::vector<std::shared_ptr<const tavrin::Frame>> encoders;
        for (int i = 0; i < 5; ++i) {
            const std::shared_ptr<const tavrin::Frame> next = pool.acquire();
            for (const auto& busy : encoders)
                QVERIFY(next != busy);
            encoders.push_back(next);
        }
        std::thread([held = std::move(encoders)]() mutable { held.clear(); }).join();
        std::set<const tavrin::Frame*> reused;
        for (int round = 0; round < 8; ++round)
            reused.insert(pool.acquire().get());
        QCOMPARE(int(reused.size()), 1);
    }

    void mix_data()
    {
        QTest::addColumn<Mix>("mix");
        QTest::newRow("room as it is") << Mix{false, 0.5f, 0.0f, false, 2.0, 100, 100, 0.5f};
        QTest::newRow("room ignores mute") << Mix{false, 0.5f, 0.0f, true, 1.0, 100, 100, 0.5f};
        QTest::newRow("room at half") << Mix{false, 0.8f, 0.0f, false, 1.0, 50, 100, 0.4f};
        QTest::newRow("room plus voice clamps") << Mix{false, 0.8f, 0.6f, false, 1.0, 100, 100, 1.0f};
        QTest::newRow("voice slider down") << Mix{false, 0.0f, 0.6f, false, 1.0, 100, 0, 0.0f};
        QTest::newRow("video takes gain") << Mix{true, 0.3f, 0.0f, false, 2.0, 100, 100, 0.6f};
        QTest::newRow("video gain clamps first") << Mix{true, 0.8f, 0.0f, false, 2.0, 50, 100, 0.5f};
        QTest::newRow("video muted leaves the voice") << Mix{true, 0.8f, 0.25f, true, 1.0, 100, 100, 0.25f};
        QTest::newRow("negative clamps") << Mix{true, -0.9f, -0.9f, false, 1.0, 100, 100, -1.0f};
    }
    void mix()
    {
        QFETCH(Mix, mix);
        std::deque<float> videoQueue{mix.source};
        std::deque<float> room(4001, 0.0f); // drained in real time, and not heard with a video
        room.front() = mix.video ? 0.9f : mix.source;
        std::deque<float> voiceQueue{mix.voice};
        const auto block = tavrin::mixBlock(mix.video ? &videoQueue : nullptr, room, voiceQueue,
                                            tavrin::AudioState{mix.muted, mix.gain}, mix.original, mix.voicePercent);
        QCOMPARE(block.size(), std::size_t(tavrin::mixBlockSamples));
        QCOMPARE(block[0], mix.expected);
        QCOMPARE(block[1], 0.0f); // a queue run dry gives silence, not a repeat
        QCOMPARE(room.size(), std::size_t(mix.video ? 4001 : 4001 - tavrin::mixBlockSamples));
    }

    void target_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected"); // a URL, or the refusal
        const QString badServer = QStringLiteral("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
        const QString badKey = QStringLiteral("Clave de transmisión inválida");
        QTest::newRow("youtube preset") << "rtmps://a.rtmps.youtube.com/live2" << "abcd-1234"
                                        << "rtmps://a.rtmps.youtube.com/live2/abcd-1234";
        QTest::newRow("trailing slash") << "rtmp://127.0.0.1:1935/app/" << "k" << "rtmp://127.0.0.1:1935/app/k";
        QTest::newRow("blanks trimmed") << "  rtmp://host/app  " << "  key  " << "rtmp://host/app/key";
        QTest::newRow("no path") << "rtmp://host" << "key" << "rtmp://host/key";
        QTest::newRow("key in the query") << "rtmp://host/app?key=abc" << "k" << badServer;
        QTest::newRow("user part") << "rtmp://user@host/app" << "k" << badServer;
        QTest::newRow("fragment") << "rtmp://host/app#k" << "k" << badServer;
        QTest::newRow("no host") << "rtmp://" << "k" << badServer;
        QTest::newRow("rtmp2 is not rtmp") << "RTMP2://host/app" << "k" << badServer;
        QTest::newRow("empty key") << "rtmp://host/app" << "   " << badKey;
        QTest::newRow("key with a blank") << "rtmp://host/app" << "ab cd" << badKey;
        QTest::newRow("key with a hash") << "rtmp://host/app" << "ab#cd" << badKey;
    }
    void target()
    {
        QFETCH(QString, server);
        QFETCH(QString, key);
        QString built;
        const QString refusal = thrownBy([&] { built = tavrin::streamTarget(server, key); });
        QTEST(refusal.isEmpty() ? built : refusal, "expected");
        QCOMPARE(tavrin::keyLogLine(QStringLiteral("YouTube"), QStringLiteral("rtmp://h/%3app"), key),
                 QStringLiteral("Salida YouTube: servidor=rtmp://h/%3app clave: %1 caracteres, empieza \"%2\"")
                     .arg(key.size()).arg(key.left(4)));
    }

    void processBlock_data()
    {
        QTest::addColumn<QList<float>>("samples");
        QTest::addColumn<double>("gain"); // negative: muted
        QTest::addColumn<QList<float>>("delivered");
        QTest::addColumn<QList<double>>("levels"); // the input's figures, then the output's
        QTest::addColumn<int>("meter"); // of the output
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, QList<float> samples, double gain, QList<float> delivered,
                            const QList<double>& levels, int meter, const char* error = "") {
            QTest::newRow(name) << samples << gain << delivered << rounded(levels) << meter << QString(error);
        };
        const QList<double> silent(10, 0.0);
        row("muted moves only the input meter", {0.5f, -0.25f, -0.5f, 0.25f}, -1.0, {0, 0, 0, 0},
            {0.5, 0.25, 0.5, 0.25, 0, 0, 0, 0, 0, 0}, 0);
        row("full scale after gain clips", {0.5f, 0}, 2.0, {1.0f, 0}, {0.5, 0, 0.5, 0, 0, 1, 0, 1, 0, 1}, 100);
        row("negative overflow clamps", {-0.75f, 0.25f}, 1.5, {-1.0f, 0.375f},
            {0.75, 0.25, 0.75, 0.25, 0, 1.0, 0.375, 1.0, 0.375, 1}, 100);
        row("full scale input clips though turned down", {1.0f, -1.0f}, 0.5, {0.5f, -0.5f},
            {1, 1, 1, 1, 1, 0.5, 0.5, 0.5, 0.5, 0}, 89);
        row("NaN is silence", {NAN, 0.5f, 0.5f, 0.5f}, 2.0, {0, 1.0f, 1.0f, 1.0f},
            {std::sqrt(0.125), 0.5, 0.5, 0.5, 0, std::sqrt(0.5), 1, 1, 1, 1}, 100);
        row("infinities are silence, not clipping", {INFINITY, -INFINITY}, 1.0, {0, 0}, silent, 0);
        row("right channel louder", {0.0f, 0.01f, 0.0f, -0.0316228f}, 1.0, {0, 0.01f, 0, -0.0316228f},
            {0, std::sqrt(0.00055), 0, 0.0316228, 0, 0, std::sqrt(0.00055), 0, 0.0316228, 0}, 50);
        row("empty block", {}, 1.0, {}, silent, 0);
        row("odd count", {0.1f, 0.2f, 0.3f}, 1.0, {}, {}, 0, "Bloque de audio incompleto");
        row("gain above 2", {0.1f, 0.2f}, 2.0001, {}, {}, 0, "Ganancia invalida");
        row("gain not a number", {0.1f, 0.2f}, NAN, {}, {}, 0, "Ganancia invalida");
    }
    void processBlock()
    {
        QFETCH(QList<float>, samples);
        QFETCH(double, gain);
        QTEST(thrownBy([&] {
            const auto block = tavrin::processBlock({samples.begin(), samples.end()}, {gain < 0, std::abs(gain)});
            QTEST(QList<float>(block.samples.begin(), block.samples.end()), "delivered");
            QTEST(figures(block.input) + figures(block.output), "levels");
            QTEST(tavrin::meterValue(block.output), "meter");
        }), "error");
        QCOMPARE(thrownBy([&] { tavrin::processBlock({0.1f, 0.2f}, {gain < 0, -0.01}); }), "Ganancia invalida");
    }

    // Without a device the capture plays a sine of amplitude 0.25, in buffers of 1024 stereo frames.
    void testTone()
    {
        AudioCapture capture(nullptr);
        std::vector<tavrin::AudioBlock> blocks;
        capture.onBlock = [&](const tavrin::AudioBlock& block) { blocks.push_back(block); };
        QTRY_VERIFY((capture.poll({false, 2.0}), blocks.size() >= 4));
        const tavrin::AudioBlock& last = blocks.back();
        QVERIFY(capture.running && blocks.front().pts < last.pts && last.samples.size() == 2048);
        QVERIFY2(last.input.peak[1] > 0.24 && last.input.peak[1] <= 0.2501, qPrintable(QString::number(
            last.input.peak[1])));
        QVERIFY(std::abs(last.input.rms[0] - 0.25 / std::sqrt(2.0)) < 0.01 && !last.output.clipped);
        QCOMPARE(rounded({last.output.peak[0]}), rounded({last.input.peak[0] * 2}));
        QCOMPARE(figures(capture.input) + figures(capture.output), figures(last.input) + figures(last.output));
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
        row("quiet past 2 s drops them", "quiet", 2000001);
        row("quiet 5 s goes on", "quiet", 5000000);
        row("quiet past 5 s stops", "quiet", 5000001, QStringLiteral("Sin buffers de audio durante 5 segundos"));
        row("end of stream", "eos", 0, ended);
        row("device error with its text", "error", 0, QStringLiteral("Dispositivo de audio desconectado"));
        row("device error without text", "silent error", 0, ended);
        row("empty buffer", "empty", 0, QStringLiteral("Bloque de audio invalido"));
        row("bad gain loses the block only", "bad gain", 0);
    }
    void stopsAndStalls()
    {
        QFETCH(QByteArray, cause);
        QFETCH(qint64, quietUs);
        QFETCH(QString, error);
        const gstptr::Device device = fakeDevice("Mesa de prueba", "Audio/Source", "appsrc");
        AudioCapture capture(device.get());
        const gstptr::Element source(gst_bin_get_by_name(GST_BIN(capture.pipeline.get()), "audio-input"));
        std::int64_t nowUs = capture.lastBufferUs;
        capture.clock = [&] { return nowUs; };
        std::vector<std::int64_t> pts;
        capture.onBlock = [&](const tavrin::AudioBlock& block) { pts.push_back(block.pts); };
        const tavrin::AudioState state{false, 1.5}, badGain{false, 3.0};
        pushBlock(source.get(), 0.5f, 123456789);
        QTRY_COMPARE((capture.poll(state), capture.blockCount), std::uint64_t(1));
        nowUs += quietUs;
        if (cause == "eos")
            gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
        if (cause == "empty" || cause == "bad gain")
            pushBlock(source.get(), 0.5f, GST_CLOCK_TIME_NONE, cause == "empty" ? 0 : 3840);
        const QByteArray text = cause == "error" ? error.toUtf8() : QByteArray();
        const gstptr::Error failure(g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, text.constData()));
        if (cause.endsWith("error"))
            gst_element_post_message(source.get(), gst_message_new_error(GST_OBJECT(source.get()), failure.get(), {}));
        QString thrown;
        QTRY_VERIFY((thrown += thrownBy([&] { capture.poll(cause == "bad gain" ? badGain : state); }),
                     cause == "bad gain" ? !thrown.isEmpty() : error.isEmpty() || !capture.running));
        QCOMPARE(thrown, cause == "bad gain" ? QStringLiteral("Ganancia invalida") : QString());
        QCOMPARE(QString::fromStdString(capture.error), error);
        // Levels before and after the gain of 1.5, shown for two seconds without a buffer.
        const bool shown = quietUs <= 2000000 && error.isEmpty();
        QVERIFY(capture.input.peak[0] == (shown ? 0.5 : 0.0) && capture.output.peak[1] == (shown ? 0.75 : 0.0));
        if (error.isEmpty()) {
            pushBlock(source.get(), -0.25f);
            QTRY_COMPARE((capture.poll(state), capture.blockCount), std::uint64_t(2));
            QCOMPARE(pts, (std::vector<std::int64_t>{123456789, 0}));
            QVERIFY(capture.running && capture.output.peak[0] == 0.375);
            return;
        }
        // Stopped for good, with the device let go: the pipeline dropped it and took it to NULL.
        QVERIFY(!capture.running && !capture.pipeline && !capture.sink && !capture.bus);
        QVERIFY(GST_OBJECT_REFCOUNT_VALUE(source.get()) == 1 && GST_STATE(source.get()) == GST_STATE_NULL);
    }

    void captureRefused_data()
    {
        QTest::addColumn<QByteArray>("element");
        QTest::addColumn<QString>("message");
        QTest::newRow("no element") << QByteArray() << "Faltan componentes de captura de audio";
        QTest::newRow("no sound") << QByteArray("videotestsrc") << "No se pudo enlazar el dispositivo de audio";
        // A file source without a file fails as it starts, like a device that is already taken.
        QTest::newRow("cannot start") << QByteArray("filesrc") << "No se pudo iniciar audio";
    }
    void captureRefused()
    {
        QFETCH(QByteArray, element);
        const gstptr::Device device = fakeDevice("Mesa de prueba", "Audio/Source", element);
        QTEST(thrownBy([&] { AudioCapture capture(device.get()); }), "message");
    }

    void pulseAudioMonitor()
    {
        if (!pulseSkip.isEmpty())
            QSKIP(qPrintable(pulseSkip));
        QVERIFY2(pulseFailure.isEmpty(), qPrintable(pulseFailure));
        const QString wav = QStringLiteral(VELMORA_TEST_OUTPUT "/tone.wav");
        QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! audio/x-raw,format=S16LE,"
                         "rate=48000,channels=2 ! wavenc ! filesink location=\"" + wav.toUtf8() + "\""));
        const gstptr::Object<GstDeviceMonitor> monitor(gst_device_monitor_new());
        gst_device_monitor_add_filter(monitor.get(), "Audio/Source", nullptr);
        QVERIFY(gst_device_monitor_start(monitor.get()));
        const auto stopMonitor = qScopeGuard([&] { gst_device_monitor_stop(monitor.get()); });
        gstptr::Device sinkMonitor;
        QTRY_VERIFY_WITH_TIMEOUT([&] {
            GList* list = gst_device_monitor_get_devices(monitor.get());
            for (GList* item = list; item; item = item->next) {
                gstptr::Device device(GST_DEVICE(item->data));
                const gstptr::String name(gst_device_get_display_name(device.get()));
                if (name && g_str_equal(name.get(), "Monitor of Null Output"))
                    sinkMonitor = std::move(device);
            }
            g_list_free(list);
            return bool(sinkMonitor);
        }(), 10000);
        AudioCapture capture(sinkMonitor.get());
        QTRY_VERIFY((capture.poll({}), capture.blockCount >= 5));
        QVERIFY(capture.input.peak[0] < 0.001 && capture.input.peak[1] < 0.001);
        QVERIFY(pulse.play(wav));
        const auto stopPlayer = qScopeGuard([this] { pulse.stopPlaying(); });
        QTRY_VERIFY2_WITH_TIMEOUT((capture.poll({}), capture.input.peak[0] > 0.1 && capture.input.peak[1] > 0.1),
                                  pulse.playerOutput().constData(), 10000);
        QVERIFY2(capture.running && capture.output.peak[0] > 0.1, capture.error.c_str());
    }

    void pictures_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<QByteArray>("caps"); // the camera's
        QTest::addColumn<QSize>("canvas");
        QTest::addColumn<QString>("start"); // of the diagnostics
        QTest::addColumn<QPoint>("black"); // a letterbox pixel
        QTest::addColumn<QPoint>("green"); // in the pattern's middle bar
        const QString file = QStringLiteral("fuente=uridecodebin (uri) primer cuadro caps=video/x-raw");
        const QString camera = QStringLiteral("fuente=videotestsrc (dispositivo) nombre=Cámara de prueba "
                                              "device-index=-1 pedido=");
        const auto row = [](const char* name, const char* kind, QSize canvas, const QString& start, QPoint black,
                            QPoint green, const char* caps = "") {
            QTest::newRow(name) << QByteArray(kind) << QByteArray(caps) << canvas << start << black << green;
        };
        // 320x240 grows to 480x360 with 80 black columns either side, or shrinks to 240x180 with 70 black rows.
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
        const gstptr::Device camera = kind == "camera" ? fakeDevice("Cámara de prueba", "Video/Source", "videotestsrc",
                                                                    caps.constData()) : gstptr::Device();
        Media media(canvas.width(), canvas.height(), camera.get(), file ? uri("picture-and-sound.webm") : "",
                    kind == "pattern", kind == "screen");
        QCOMPARE(media.isDevice, bool(camera));
        std::size_t audioFloats = 0;
        media.onAudio = [&](const std::vector<float>& samples) { audioFloats += samples.size(); };
        QTRY_VERIFY((media.poll(), file ? !media.running : media.frameCount >= 5));
        QVERIFY2(media.error.empty() && media.ended == file, media.error.c_str());
        QVERIFY((audioFloats > 0) == file && audioFloats % 2 == 0);
        const QString diagnostics = QString::fromStdString(media.diagnostics);
        QVERIFY2(diagnostics.startsWith(start)
                 && diagnostics.contains(QStringLiteral("width=(int)%1").arg(canvas.width()))
                 && diagnostics.contains(QStringLiteral(" fuente caps=video/x-raw")) == !file
                 && diagnostics.count(QStringLiteral("primer cuadro")) == 1, qPrintable(diagnostics));
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
        const gstptr::Device device = camera ? fakeDevice("Cámara", "Video/Source", {}, "video/x-raw") : nullptr;
        QTEST(thrownBy([&] {
            Media media(320, 240, device.get(), file.isEmpty() ? std::string() : uri(file), false, false);
            QTRY_VERIFY((media.poll(), !media.running));
            const QString error = QString::fromStdString(media.error);
            QVERIFY2(error.startsWith(QStringLiteral("Fuente sin señal: ")) && error.endsWith(u']'),
                     qPrintable(error));
            QVERIFY(!media.ended && media.latest.empty());
        }), "thrown");
    }

    // A camera is reopened soon, a file gets longer; a sound-only file plays its first audio stream only.
    void noFrameTimeouts_data()
    {
        QTest::addColumn<QByteArray>("file"); // empty: a camera that sends nothing
        QTest::addColumn<qint64>("silentUs");
        QTest::addColumn<QString>("error");
        const QString file = QStringLiteral("Fuente sin frames durante 10 segundos");
        QTest::newRow("camera quiet 4 s") << QByteArray() << qint64(4000000) << QString();
        QTest::newRow("camera quiet past 4 s")
            << QByteArray() << qint64(4000001) << "Cámara sin cuadros; se vuelve a abrir";
        QTest::newRow("sound-only file quiet past 4 s") << QByteArray("loud-first") << qint64(4000001) << QString();
        QTest::newRow("sound-only file quiet 10 s") << QByteArray("silent-first") << qint64(10000000) << QString();
        QTest::newRow("sound-only file quiet past 10 s") << QByteArray("loud-first") << qint64(10000001) << file;
    }
    void noFrameTimeouts()
    {
        QFETCH(QByteArray, file);
        QFETCH(qint64, silentUs);
        const gstptr::Device device = file.isEmpty() ? fakeDevice("Cámara", "Video/Source", "appsrc", "video/x-raw")
                                                     : gstptr::Device();
        Media media(320, 240, device.get(), file.isEmpty() ? "" : uri(file + ".webm"), file.isEmpty(), false);
        std::int64_t nowUs = media.lastFrameUs;
        media.clock = [&nowUs] { return nowUs; };
        QTRY_VERIFY((media.poll(), file.isEmpty() || media.audioRing.size() >= 9600));
        const float peak = peakOf(media.audioRing);
        QVERIFY2(file.startsWith("loud") ? peak > 0.2f : peak < 0.01f, qPrintable(QString::number(peak)));
        nowUs += silentUs;
        media.poll();
        QTEST(QString::fromStdString(media.error), "error");
        QVERIFY(media.running == media.error.empty() && media.frameCount == 0);
    }

    void audioRingAndOddBuffers()
    {
        Media media(64, 48, nullptr, "appsrc://", false, false);
        GstElement* rawSource = nullptr;
        g_object_get(media.source, "source", &rawSource, nullptr);
        const gstptr::Element appSource(rawSource);
        const gstptr::Caps caps(gst_caps_from_string(floatStereo));
        g_object_set(appSource.get(), "caps", caps.get(), nullptr);
        std::vector<float> firsts;
        media.onAudio = [&](const std::vector<float>& samples) { firsts.push_back(samples.at(0)); };
        const float odd[3] = {5.0f, 5.0f, 5.0f};
        for (const float value : {1.0f, 2.0f, 3.0f}) {
            const std::vector<float> block(40000, value);
            GstAppSrc* source = GST_APP_SRC(appSource.get());
            QCOMPARE(gst_app_src_push_buffer(source, gst_buffer_new_memdup(block.data(), 160000)), GST_FLOW_OK);
            if (value == 2.0f)
                QCOMPARE(gst_app_src_push_buffer(source, gst_buffer_new_memdup(odd, sizeof odd)), GST_FLOW_OK);
        }
        QTRY_COMPARE((media.poll(), firsts), (std::vector<float>{1.0f, 2.0f, 3.0f}));
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
        row("other memory and compressed skipped even when exact", "video/x-raw(memory:GLMemory),width=1280,"
            "height=720; image/jpeg,width=1280,height=720; video/x-raw,width=640,height=480", {640, 480});
        row("portrait canvas prefers portrait", "video/x-raw,width=1920,height=1080; video/x-raw,width=720,"
            "height=1280", {720, 1280}, {1080, 1920});
        row("no caps", "", {0, 0});
    }
    void chooseCaptureSize()
    {
        QFETCH(QByteArray, caps);
        QFETCH(QSize, canvas);
        const gstptr::Caps deviceCaps(caps.isEmpty() ? nullptr : gst_caps_from_string(caps.constData()));
        const auto size = tavrin::chooseCaptureSize(deviceCaps.get(), canvas.width(), canvas.height());
        QTEST(QSize(size.width, size.height), "chosen");
    }

    void profiles_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<int>("bitrate");
        QTest::addColumn<QString>("target"); // a stream's address, or a file
        QTest::addColumn<QString>("refusal"); // empty: the output starts
        const QString profile = QStringLiteral("Perfil de salida invalido");
        const QString scheme = QStringLiteral("Destino debe usar RTMP o RTMPS");
        const QString file = folder + QStringLiteral("profile.webm");
        QTest::newRow("bitrate 499999") << QSize(640, 360) << 499999 << file << profile;
        QTest::newRow("bitrate 20000001") << QSize(640, 360) << 20000001 << file << profile;
        QTest::newRow("width 4097") << QSize(4097, 360) << 6000000 << file << profile;
        QTest::newRow("width 0") << QSize(0, 360) << 6000000 << file << profile;
        QTest::newRow("height 4097") << QSize(640, 4097) << 6000000 << file << profile;
        QTest::newRow("height 0") << QSize(640, 0) << 6000000 << file << profile;
        QTest::newRow("profile before address") << QSize(4097, 360) << 6000000 << "srt://x" << profile;
        QTest::newRow("srt address") << QSize(640, 360) << 6000000 << "srt://x" << scheme;
        QTest::newRow("address without scheme") << QSize(640, 360) << 6000000 << "127.0.0.1/app/key" << scheme;
        QTest::newRow("empty file path") << QSize(640, 360) << 6000000 << "" << "Selecciona archivo de grabacion";
        QTest::newRow("smallest") << QSize(1, 1) << 500000 << file << "";
        QTest::newRow("largest") << QSize(4096, 4096) << 20000000 << file << "";
        // Nothing is pushed, so nothing connects: a stream starts without its server.
        QTest::newRow("rtmps address") << QSize(640, 360) << 6000000 << "rtmps://127.0.0.1:9/app/key" << "";
    }
    void profiles()
    {
        QFETCH(QSize, size);
        QFETCH(int, bitrate);
        QFETCH(QString, target);
        const bool stream = !target.isEmpty() && !target.endsWith(QStringLiteral(".webm"));
        QTEST(thrownBy([&] {
            const Output output(size.width(), size.height(), stream, target.toStdString(), bitrate, false);
            QVERIFY2(output.running && output.error.empty(), output.error.c_str());
        }), "refusal");
    }

    void delivery_data()
    {
        QTest::addColumn<QString>("scheme"); // of the server, or none for a file
        QTest::addColumn<QString>("videoCodec");
        QTest::addColumn<QString>("audioCodec");
        QTest::newRow("rtmp") << "rtmp" << "h264" << "aac";
        QTest::newRow("rtmps") << "rtmps" << "h264" << "aac";
        QTest::newRow("webm") << "" << "vp8" << "vorbis";
    }
    void delivery()
    {
        QFETCH(QString, scheme);
        QFETCH(QString, videoCodec);
        QFETCH(QString, audioCodec);
        const QString out = folder + QString::fromUtf8(QTest::currentDataTag());
        QDir(out).removeRecursively();
        QVERIFY(QDir().mkpath(out));
        std::optional<RtmpServer> server;
        if (!scheme.isEmpty())
            server.emplace(out, scheme == QStringLiteral("rtmps"));
        QVERIFY2(!server || server->ok(), server ? qPrintable(server->errorString()) : "");
        // The product keeps full certificate checks; the test makes its own authority the trusted one.
        std::optional<TlsTrust> trust;
        if (scheme == QStringLiteral("rtmps"))
            trust.emplace(server->caCertificate());
        const QString key = QStringLiteral("key");
        const QString target = !server ? out + QStringLiteral("/recording.webm")
                                       : scheme == QStringLiteral("rtmps") ? server->tlsUrl(key) : server->url(key);
        const QSize size(640, 360);
        const int frames = 60;
        SeenTimes videoIn; // before the output, as its probes write into them until it is gone
        SeenTimes audioIn;
        auto output = std::make_unique<Output>(size.width(), size.height(), bool(server), target.toStdString(),
                                               6000000, false);
        videoIn.watch(output->videoSource);
        audioIn.watch(output->audioSource);
        QVERIFY2(feed(*output, frames, size).first == frames && output->running, output->error.c_str());
        output->finish();
        output->push(picture(size, frames), sound, std::uint64_t(frames) * framePeriodNs);
        QCOMPARE(output->videoFrames, std::uint64_t(frames));
        QCOMPARE(output->audioFrames, std::uint64_t(frames) * 1600);
        QTRY_VERIFY_WITH_TIMEOUT((output->poll(), output->ended || !output->error.empty()), 15000);
        QVERIFY2(output->ended, output->error.c_str());
        output.reset();
        const QString file = server ? server->recording(key) : target;
        if (server)
            server->stop();
        // Leaky sources may drop their oldest buffers on a busy machine, so the file is held to what
        // entered the pipeline; never the last picture, which the end of stream drains.
        const std::vector<std::uint64_t> video = videoIn.get();
        QVERIFY(!video.empty() && video.back() == std::uint64_t(frames - 1) * framePeriodNs);
        const auto streams = probeStreams(file);
        const QByteArray found = (describeStreams(streams) + (server ? server->log() : QString())).toUtf8();
        const int videoFrames = streams.value(videoCodec).frames;
        QVERIFY2(videoFrames >= int(video.size()) - 2 && videoFrames <= int(video.size()) &&
                 streams.value(videoCodec).rate == QStringLiteral("30/1") && streams.contains(audioCodec),
                 found.constData());
        // The AAC encoder keeps back what does not fill its last 1024-sample frame.
        const int aacFrames = int(audioIn.get().size()) * 1600 / 1024;
        QVERIFY2(!server || std::abs(streams.value(audioCodec).frames - aacFrames) <= 2, found.constData());
        QVERIFY2(std::abs(probeDuration(file) - frames / 30.0) <= 2.0 / 30.0, found.constData());
        QCOMPARE(playThrough(file), QString());
    }

    void failedConnection_data()
    {
        QTest::addColumn<QByteArray>("peer");
        QTest::newRow("closed port") << QByteArray("closed");
        // Takes the connection and never answers: the sink's time-out must not be spent on the caller's thread.
        QTest::newRow("silent peer") << QByteArray("silent");
        QTest::newRow("RTMPS server of an unknown authority") << QByteArray("untrusted");
    }
    void failedConnection()
    {
        QFETCH(QByteArray, peer);
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        std::optional<RtmpServer> server;
        if (peer == "untrusted")
            server.emplace(folder + QStringLiteral("rtmps-untrusted"), true);
        QVERIFY(!server || server->ok());
        const QString target = server ? server->tlsUrl(QStringLiteral("key"))
                                      : QStringLiteral("rtmp://127.0.0.1:%1/app/key")
                                            .arg(peer == "silent" ? silent.serverPort() : RtmpServer::freePort());
        Output output(320, 240, true, target.toStdString(), 6000000, false);
        QVERIFY(output.running);
        const qint64 longestMs = feed(output, 300, QSize(320, 240)).second; // at most ten seconds
        QVERIFY2(!output.running && !output.ended, "the failed connection was never reported");
        QVERIFY2(longestMs < 1000, qPrintable(QString::number(longestMs)));
        const QRegularExpression text(
            QStringLiteral("^Fallo de salida \\(codigo \\d+\\)\\. Revisa destino, permisos y codecs\\.$"));
        QVERIFY2(text.match(QString::fromStdString(output.error)).hasMatch(), output.error.c_str());
        if (server)
            server->stop();
        QVERIFY(!server || QFileInfo(server->recording(QStringLiteral("key"))).size() == 0);
    }

    void recordingFile()
    {
        const QSize size(320, 240);
        SeenTimes video;
        SeenTimes audio;
        Output output(size.width(), size.height(), false, (folder + "gap.webm").toStdString(), 6000000, false);
        video.watch(output.videoSource);
        audio.watch(output.audioSource);
        // Two VP8 row threads only where a third core keeps them from spinning against the rest of the studio.
        int threads = 0;
        for (GList* child = GST_BIN_CHILDREN(output.pipeline.get()); child; child = child->next)
            if (g_str_has_prefix(GST_OBJECT_NAME(child->data), "vp8enc"))
                g_object_get(child->data, "threads", &threads, nullptr);
        QCOMPARE(threads, g_get_num_processors() >= 3 ? 2 : 1);
        // The first push is time zero; after a two-second gap the next buffer carries the true elapsed time.
        const std::uint64_t start = 7000000000;
        for (const std::uint64_t at : {start, start + framePeriodNs, start + 2000000000})
            output.push(picture(size, 0), sound, at);
        const std::vector<std::uint64_t> expected = {0, framePeriodNs, 2000000000};
        QTRY_VERIFY(video.get() == expected && audio.get() == expected);
        // Another size stops the output for good; a clock before the first push counts as zero, not as huge.
        output.push(picture(QSize(640, 360), 1), sound, start + 3000000000);
        QCOMPARE(QString::fromStdString(output.error), QStringLiteral("El formato cambio durante salida"));
        output.push(picture(size, 2), sound, start - 1);
        QVERIFY(!output.running && output.videoFrames == 3 && output.audioFrames == 3 * 1600);
        QVERIFY(output.videoPts == 0 && output.audioPts == 0);
    }
};

QTEST_GUILESS_MAIN(tst_Media)
#include "tst_media.moc"
