#include "AudioCapture.h"
#include "AudioProcessing.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "SoundServer.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

#include <gst/app/gstappsrc.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

struct BufferUnref
{
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using Buffer = std::unique_ptr<GstBuffer, BufferUnref>;

// An audio device that hands out source: "appsrc" (an input the test feeds by hand), any other
// factory name, or, when null, no element at all.
gstptr::Device makeDevice(const char* source)
{
    std::function<GstElement*(const gchar*)> makeElement;
    if (source)
        makeElement = [kind = std::string(source)](const gchar* name) {
            GstElement* element = gst_element_factory_make(kind.c_str(), name);
            if (element && kind == "appsrc") {
                const gstptr::Caps caps(gst_caps_from_string(
                    "audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
                g_object_set(element, "caps", caps.get(), "is-live", TRUE, "format", GST_FORMAT_TIME,
                             nullptr);
            }
            return element;
        };
    return makeFakeDevice("Mesa de prueba", "Audio/Source", nullptr, std::move(makeElement));
}

gstptr::Element inputOf(const AudioCapture& capture)
{
    return gstptr::Element(gst_bin_get_by_name(GST_BIN(capture.pipeline.get()), "audio-input"));
}

// Ten milliseconds of the same value on both channels.
void pushBlock(GstElement* appsrc, float value, GstClockTime pts = GST_CLOCK_TIME_NONE,
               std::size_t bytes = 3840)
{
    Buffer buffer(gst_buffer_new_allocate(nullptr, bytes, nullptr));
    std::vector<float> samples(bytes / sizeof(float), value);
    gst_buffer_fill(buffer.get(), 0, samples.data(), samples.size() * sizeof(float));
    GST_BUFFER_PTS(buffer.get()) = pts;
    gst_app_src_push_buffer(GST_APP_SRC(appsrc), buffer.release());
}

// Polls as the tick would, a few milliseconds apart, until done or the deadline.
template <typename Done>
bool pollUntil(AudioCapture& capture, const tavrin::AudioState& state, Done done, int timeoutMs = 8000)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        capture.poll(state);
        if (done())
            return true;
        if (deadline.hasExpired())
            return false;
        QTest::qWait(2);
    }
}

bool isZero(const tavrin::AudioLevels& levels)
{
    return levels.rms[0] == 0.0 && levels.rms[1] == 0.0 && levels.peak[0] == 0.0 && levels.peak[1] == 0.0 &&
           !levels.clipped;
}

QList<double> figures(const tavrin::AudioLevels& levels)
{
    return {levels.rms[0], levels.rms[1], levels.peak[0], levels.peak[1]};
}

bool near(const QList<double>& actual, const QList<double>& expected)
{
    if (actual.size() != expected.size())
        return false;
    for (qsizetype i = 0; i < actual.size(); ++i) {
        if (std::abs(actual[i] - expected[i]) > 1e-6)
            return false;
    }
    return true;
}

QByteArray show(const QList<double>& values)
{
    QByteArray text;
    for (double v : values)
        text += QByteArray::number(v) + ' ';
    return text;
}

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

} // namespace

class tst_AudioCapture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void processBlock_data();
    void processBlock();
    void processBlockGuards_data();
    void processBlockGuards();
    void meterValues_data();
    void meterValues();
    void testTone_data();
    void testTone();
    void deviceBlocksAndPts();
    void silenceRules();
    void stops_data();
    void stops();
    void badGainThrowsAndCaptureGoesOn();
    void constructionFailures_data();
    void constructionFailures();
    void pulseAudioMonitor();

private:
    bool trackingLeaks = false;
    QString outputDir;
    QString pulseSkip;
    QString pulseFailure;
    SoundServer pulse{QStringLiteral(VELMORA_TEST_OUTPUT "/runtime")};
};

void tst_AudioCapture::initTestCase()
{
    outputDir = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(outputDir));

    // A private sound server: the client library must see it before GStreamer loads its plug-in.
    SoundServer::useFolder(outputDir + QStringLiteral("/runtime"));
    if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty() ||
        QStandardPaths::findExecutable(QStringLiteral("paplay")).isEmpty()) {
        pulseSkip = QStringLiteral("pulseaudio or paplay is not installed");
    } else {
        QVERIFY(pulse.clearFolder());
        pulseFailure = pulse.start();
    }

    // Every object a capture makes must be gone when it is; the leaks tracer tells at shut-down.
    trackingLeaks = startLeakTracking();
    gst_init(nullptr, nullptr);
}

void tst_AudioCapture::cleanupTestCase()
{
    const auto stopServer = qScopeGuard([this] { pulse.stop(); });
    const QStringList alive = deinitAndListAlive(trackingLeaks);
    QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
}

void tst_AudioCapture::processBlock_data()
{
    QTest::addColumn<QList<float>>("samples");
    QTest::addColumn<bool>("muted");
    QTest::addColumn<double>("gain");
    QTest::addColumn<QList<float>>("delivered");
    QTest::addColumn<QList<double>>("input"); // rms left, rms right, peak left, peak right
    QTest::addColumn<bool>("inputClipped");
    QTest::addColumn<QList<double>>("output");
    QTest::addColumn<bool>("outputClipped");

    const QList<double> silent{0.0, 0.0, 0.0, 0.0};
    QTest::newRow("muted input moves only the input meter")
        << QList<float>{0.5f, -0.25f, -0.5f, 0.25f} << true << 1.0 << QList<float>{0.0f, 0.0f, 0.0f, 0.0f}
        << QList<double>{0.5, 0.25, 0.5, 0.25} << false << silent << false;
    QTest::newRow("gain 2 clips the output, not the input")
        << QList<float>{0.6f, 0.1f} << false << 2.0 << QList<float>{1.0f, 0.2f}
        << QList<double>{0.6f, 0.1f, 0.6f, 0.1f} << false << QList<double>{1.0, 0.2f, 1.0, 0.2f} << true;
    QTest::newRow("exactly full scale after gain is clipped")
        << QList<float>{0.5f, 0.0f} << false << 2.0 << QList<float>{1.0f, 0.0f}
        << QList<double>{0.5, 0.0, 0.5, 0.0} << false << QList<double>{1.0, 0.0, 1.0, 0.0} << true;
    QTest::newRow("negative overflow clamps")
        << QList<float>{-0.75f, 0.25f} << false << 1.5 << QList<float>{-1.0f, 0.375f}
        << QList<double>{0.75, 0.25, 0.75, 0.25} << false << QList<double>{1.0, 0.375, 1.0, 0.375} << true;
    QTest::newRow("full scale input is clipped even when turned down")
        << QList<float>{1.0f, -1.0f} << false << 0.5 << QList<float>{0.5f, -0.5f}
        << QList<double>{1.0, 1.0, 1.0, 1.0} << true << QList<double>{0.5, 0.5, 0.5, 0.5} << false;
    QTest::newRow("NaN counts as silence and is delivered as silence")
        << QList<float>{notANumber, 0.5f, 0.5f, 0.5f} << false << 2.0 << QList<float>{0.0f, 1.0f, 1.0f, 1.0f}
        << QList<double>{std::sqrt(0.125), 0.5, 0.5, 0.5} << false
        << QList<double>{std::sqrt(0.5), 1.0, 1.0, 1.0} << true;
    QTest::newRow("infinities count as silence, not as clipping")
        << QList<float>{infinity, -infinity} << false << 1.0 << QList<float>{0.0f, 0.0f} << silent << false
        << silent << false;
    QTest::newRow("left and right are measured apart")
        << QList<float>{0.8f, 0.0f, -0.6f, 0.0f} << false << 1.0 << QList<float>{0.8f, 0.0f, -0.6f, 0.0f}
        << QList<double>{std::sqrt((0.64 + 0.36) / 2), 0.0, 0.8f, 0.0} << false
        << QList<double>{std::sqrt((0.64 + 0.36) / 2), 0.0, 0.8f, 0.0} << false;
    QTest::newRow("gain 0 silences the output only")
        << QList<float>{0.3f, -0.3f} << false << 0.0 << QList<float>{0.0f, 0.0f}
        << QList<double>{0.3f, 0.3f, 0.3f, 0.3f} << false << silent << false;
    QTest::newRow("an empty block measures nothing")
        << QList<float>{} << false << 1.0 << QList<float>{} << silent << false << silent << false;
}

void tst_AudioCapture::processBlock()
{
    QFETCH(QList<float>, samples);
    QFETCH(bool, muted);
    QFETCH(double, gain);
    QFETCH(QList<float>, delivered);
    QFETCH(QList<double>, input);
    QFETCH(bool, inputClipped);
    QFETCH(QList<double>, output);
    QFETCH(bool, outputClipped);

    const tavrin::AudioBlock block = tavrin::processBlock(std::vector<float>(samples.begin(), samples.end()),
                                                          tavrin::AudioState{muted, gain});
    QCOMPARE(QList<float>(block.samples.begin(), block.samples.end()), delivered);
    QVERIFY2(near(figures(block.input), input), show(figures(block.input)).constData());
    QCOMPARE(block.input.clipped, inputClipped);
    QVERIFY2(near(figures(block.output), output), show(figures(block.output)).constData());
    QCOMPARE(block.output.clipped, outputClipped);
    QCOMPARE(block.pts, std::int64_t(0));
}

void tst_AudioCapture::processBlockGuards_data()
{
    QTest::addColumn<QList<float>>("samples");
    QTest::addColumn<double>("gain");
    QTest::addColumn<QString>("message");

    const QString incomplete = QStringLiteral("Bloque de audio incompleto");
    const QString badGain = QStringLiteral("Ganancia invalida");
    QTest::newRow("odd count") << QList<float>{0.1f, 0.2f, 0.3f} << 1.0 << incomplete;
    QTest::newRow("odd count is named before the gain") << QList<float>{0.1f} << 5.0 << incomplete;
    QTest::newRow("gain above 2") << QList<float>{0.1f, 0.2f} << 2.0001 << badGain;
    QTest::newRow("negative gain") << QList<float>{0.1f, 0.2f} << -0.01 << badGain;
    QTest::newRow("gain not a number")
        << QList<float>{0.1f, 0.2f} << std::numeric_limits<double>::quiet_NaN() << badGain;
    QTest::newRow("infinite gain") << QList<float>{} << std::numeric_limits<double>::infinity() << badGain;
}

void tst_AudioCapture::processBlockGuards()
{
    QFETCH(QList<float>, samples);
    QFETCH(double, gain);
    QFETCH(QString, message);

    try {
        tavrin::processBlock(std::vector<float>(samples.begin(), samples.end()),
                             tavrin::AudioState{false, gain});
        QFAIL("no exception");
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()), message);
    }
}

void tst_AudioCapture::testTone_data()
{
    QTest::addColumn<bool>("muted");
    QTest::addColumn<double>("gain");

    QTest::newRow("as it comes") << false << 1.0;
    QTest::newRow("gain 2") << false << 2.0;
    QTest::newRow("muted") << true << 1.0;
}

void tst_AudioCapture::testTone()
{
    QFETCH(bool, muted);
    QFETCH(double, gain);
    const tavrin::AudioState state{muted, gain};

    AudioCapture capture(nullptr);
    QVERIFY(capture.running);
    QVERIFY(capture.error.empty());
    const gstptr::String pipelineName(gst_element_get_name(capture.pipeline.get()));
    QCOMPARE(pipelineName.get(), "tavrin-audio");
    const gstptr::String sinkName(gst_element_get_name(capture.sink));
    QCOMPARE(sinkName.get(), "audio-blocks");
    const gstptr::Element tone = inputOf(capture);
    QVERIFY(tone);
    gboolean live = FALSE;
    double volume = 0.0;
    gint samplesPerBuffer = 0;
    g_object_get(tone.get(), "is-live", &live, "volume", &volume, "samplesperbuffer", &samplesPerBuffer,
                 nullptr);
    QVERIFY(live);
    QCOMPARE(volume, 0.25);
    QCOMPARE(samplesPerBuffer, 1024);

    std::vector<tavrin::AudioBlock> blocks;
    capture.onBlock = [&](const tavrin::AudioBlock& block) { blocks.push_back(block); };
    QVERIFY(pollUntil(capture, state, [&] { return blocks.size() >= 4; }));
    QVERIFY(capture.running);
    QCOMPARE(capture.blockCount, std::uint64_t(blocks.size()));

    const double expectedOutputPeak = muted ? 0.0 : 0.25 * gain;
    std::int64_t previousPts = -1;
    for (const tavrin::AudioBlock& block : blocks) {
        // 1024 stereo frames per buffer of the tone.
        QCOMPARE(block.samples.size(), std::size_t(2048));
        QVERIFY(block.pts > previousPts);
        previousPts = block.pts;
        for (int c = 0; c < 2; ++c) {
            // A sine of amplitude 0.25: its peak is near 0.25, its rms near 0.25 / sqrt(2).
            QVERIFY2(block.input.peak[c] > 0.24 && block.input.peak[c] <= 0.2501,
                     QByteArray::number(block.input.peak[c]).constData());
            QVERIFY2(std::abs(block.input.rms[c] - 0.25 / std::sqrt(2.0)) < 0.01,
                     QByteArray::number(block.input.rms[c]).constData());
            QVERIFY2(std::abs(block.output.peak[c] - block.input.peak[c] * expectedOutputPeak / 0.25) < 1e-6,
                     QByteArray::number(block.output.peak[c]).constData());
        }
        QVERIFY(!block.input.clipped);
        QVERIFY(!block.output.clipped);
        if (muted) {
            for (float sample : block.samples)
                QCOMPARE(sample, 0.0f);
        }
    }
    QVERIFY(blocks.back().pts > 0);
    // The capture's meters show the newest block.
    QVERIFY(near(figures(capture.input), figures(blocks.back().input)));
    QVERIFY(near(figures(capture.output), figures(blocks.back().output)));
}

void tst_AudioCapture::deviceBlocksAndPts()
{
    const gstptr::Device device = makeDevice("appsrc");
    AudioCapture capture(device.get());
    const gstptr::Element source = inputOf(capture);
    QVERIFY(source);
    std::vector<tavrin::AudioBlock> blocks;
    capture.onBlock = [&](const tavrin::AudioBlock& block) { blocks.push_back(block); };

    const tavrin::AudioState state{false, 1.5};
    pushBlock(source.get(), 0.5f, 123456789);
    pushBlock(source.get(), -0.25f);
    QVERIFY(pollUntil(capture, state, [&] { return blocks.size() == 2; }));

    QCOMPARE(blocks[0].pts, std::int64_t(123456789));
    QCOMPARE(blocks[0].samples.size(), std::size_t(960));
    QCOMPARE(blocks[0].samples.front(), 0.75f);
    QCOMPARE(blocks[0].input.peak[1], 0.5);
    QCOMPARE(blocks[0].output.peak[1], 0.75);
    // A buffer without a time has pts 0.
    QCOMPARE(blocks[1].pts, std::int64_t(0));
    QCOMPARE(blocks[1].samples.back(), -0.375f);
    QCOMPARE(capture.blockCount, std::uint64_t(2));
}

void tst_AudioCapture::silenceRules()
{
    const gstptr::Device device = makeDevice("appsrc");
    AudioCapture capture(device.get());
    const gstptr::Element source = inputOf(capture);
    QVERIFY(source);
    std::int64_t nowUs = capture.lastBufferUs;
    capture.clock = [&] { return nowUs; };
    const tavrin::AudioState state;

    pushBlock(source.get(), 0.5f);
    QVERIFY(pollUntil(capture, state, [&] { return capture.blockCount == 1; }));
    QCOMPARE(capture.input.peak[0], 0.5);
    QCOMPARE(capture.lastBufferUs, nowUs);

    // Two seconds exactly still shows the last levels; past them the meters fall, the capture stays.
    nowUs += 2000000;
    capture.poll(state);
    QCOMPARE(capture.input.peak[0], 0.5);
    nowUs += 1;
    capture.poll(state);
    QVERIFY(isZero(capture.input));
    QVERIFY(isZero(capture.output));
    QVERIFY(capture.running);
    QVERIFY(capture.pipeline);

    // The next buffer brings them back.
    pushBlock(source.get(), 0.25f);
    QVERIFY(pollUntil(capture, state, [&] { return capture.blockCount == 2; }));
    QCOMPARE(capture.input.peak[0], 0.25);
    QCOMPARE(capture.output.peak[1], 0.25);
    QCOMPARE(capture.lastBufferUs, nowUs);

    nowUs += 5000000;
    capture.poll(state);
    QVERIFY(capture.running);
    QVERIFY(isZero(capture.input));
    nowUs += 1;
    capture.poll(state);
    QVERIFY(!capture.running);
    QCOMPARE(QString::fromStdString(capture.error),
             QStringLiteral("Sin buffers de audio durante 5 segundos"));
    QVERIFY(!capture.pipeline);
    QVERIFY(!capture.sink);
    QVERIFY(!capture.bus);
    // The device element is ours alone now: the pipeline let it go and took it to NULL.
    QCOMPARE(GST_OBJECT_REFCOUNT_VALUE(source.get()), 1);
    GstState current = GST_STATE_VOID_PENDING;
    gst_element_get_state(source.get(), &current, nullptr, 0);
    QCOMPARE(current, GST_STATE_NULL);

    // Once stopped it stays stopped.
    nowUs += 1000000;
    capture.poll(state);
    QVERIFY(!capture.running);
    QCOMPARE(capture.blockCount, std::uint64_t(2));
}

void tst_AudioCapture::stops_data()
{
    QTest::addColumn<QByteArray>("cause");
    QTest::addColumn<QString>("error");

    QTest::newRow("end of stream") << QByteArray("eos") << QStringLiteral("La entrada de audio termino");
    QTest::newRow("device error with its own text")
        << QByteArray("error") << QStringLiteral("Dispositivo de audio desconectado");
    QTest::newRow("device error without text")
        << QByteArray("silent error") << QStringLiteral("La entrada de audio termino");
    QTest::newRow("empty buffer") << QByteArray("empty") << QStringLiteral("Bloque de audio invalido");
}

void tst_AudioCapture::stops()
{
    QFETCH(QByteArray, cause);
    QFETCH(QString, error);

    const gstptr::Device device = makeDevice("appsrc");
    AudioCapture capture(device.get());
    const gstptr::Element source = inputOf(capture);
    QVERIFY(source);
    const tavrin::AudioState state;
    pushBlock(source.get(), 0.5f);
    QVERIFY(pollUntil(capture, state, [&] { return capture.blockCount == 1; }));
    QVERIFY(!isZero(capture.input));

    if (cause == "eos") {
        gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
    } else if (cause == "empty") {
        pushBlock(source.get(), 0.5f, GST_CLOCK_TIME_NONE, 0);
    } else {
        const QByteArray text = cause == "error" ? error.toUtf8() : QByteArray();
        const gstptr::Error failure(
            g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, text.constData()));
        gst_element_post_message(source.get(),
                                 gst_message_new_error(GST_OBJECT(source.get()), failure.get(), nullptr));
    }
    QVERIFY(pollUntil(capture, state, [&] { return !capture.running; }));
    QCOMPARE(QString::fromStdString(capture.error), error);
    QVERIFY(!capture.pipeline);
    QVERIFY(!capture.sink);
    QVERIFY(!capture.bus);
    QVERIFY(isZero(capture.input));
    QVERIFY(isZero(capture.output));
    QCOMPARE(capture.blockCount, std::uint64_t(1));
}

void tst_AudioCapture::badGainThrowsAndCaptureGoesOn()
{
    const gstptr::Device device = makeDevice("appsrc");
    AudioCapture capture(device.get());
    const gstptr::Element source = inputOf(capture);
    QVERIFY(source);
    int calls = 0;
    capture.onBlock = [&](const tavrin::AudioBlock&) { ++calls; };

    pushBlock(source.get(), 0.5f);
    QString message;
    const QDeadlineTimer deadline(8000);
    while (message.isEmpty() && !deadline.hasExpired()) {
        try {
            capture.poll(tavrin::AudioState{false, 3.0});
        } catch (const std::runtime_error& failure) {
            message = QString::fromUtf8(failure.what());
        }
        QTest::qWait(2);
    }
    QCOMPARE(message, QStringLiteral("Ganancia invalida"));
    QVERIFY(capture.running);
    QCOMPARE(calls, 0);
    QCOMPARE(capture.blockCount, std::uint64_t(0));

    // The thrown block is gone; the next one with a valid gain goes through.
    pushBlock(source.get(), 0.5f);
    QVERIFY(pollUntil(capture, tavrin::AudioState{}, [&] { return capture.blockCount == 1; }));
    QCOMPARE(calls, 1);
    QCOMPARE(capture.output.peak[0], 0.5);
}

void tst_AudioCapture::constructionFailures_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<QString>("message");

    QTest::newRow("device without an element")
        << QByteArray() << QStringLiteral("Faltan componentes de captura de audio");
    QTest::newRow("device that gives no sound")
        << QByteArray("videotestsrc") << QStringLiteral("No se pudo enlazar el dispositivo de audio");
    // A file source without a file fails as it starts, like a device that is already taken.
    QTest::newRow("device that cannot start")
        << QByteArray("filesrc") << QStringLiteral("No se pudo iniciar audio");
}

void tst_AudioCapture::constructionFailures()
{
    QFETCH(QByteArray, source);
    QFETCH(QString, message);

    const gstptr::Device device = makeDevice(source.isEmpty() ? nullptr : source.constData());
    try {
        AudioCapture capture(device.get());
        QFAIL("no exception");
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()), message);
    }
}

void tst_AudioCapture::pulseAudioMonitor()
{
    if (!pulseSkip.isEmpty())
        QSKIP(qPrintable(pulseSkip));
    if (!pulseFailure.isEmpty())
        QFAIL(qPrintable(pulseFailure));

    const QString tonePath = outputDir + QStringLiteral("/tone.wav");
    QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 "
                     "! audio/x-raw,format=S16LE,rate=48000,channels=2 ! wavenc ! filesink location=\"" +
                     tonePath.toUtf8() + "\""));

    const gstptr::Object<GstDeviceMonitor> monitor(gst_device_monitor_new());
    gst_device_monitor_add_filter(monitor.get(), "Audio/Source", nullptr);
    QVERIFY(gst_device_monitor_start(monitor.get()));
    const auto stopMonitor = qScopeGuard([&] { gst_device_monitor_stop(monitor.get()); });
    gstptr::Device nullMonitor;
    const QDeadlineTimer found(10000);
    while (!nullMonitor && !found.hasExpired()) {
        GList* list = gst_device_monitor_get_devices(monitor.get());
        std::vector<gstptr::Device> devices;
        for (GList* item = list; item; item = item->next)
            devices.emplace_back(GST_DEVICE(item->data));
        g_list_free(list);
        for (gstptr::Device& device : devices) {
            const gstptr::String name(gst_device_get_display_name(device.get()));
            if (name && g_str_equal(name.get(), "Monitor of Null Output"))
                nullMonitor = std::move(device);
        }
        if (!nullMonitor)
            QTest::qWait(50);
    }
    QVERIFY2(nullMonitor, "no \"Monitor of Null Output\" among the audio sources");

    AudioCapture capture(nullMonitor.get());
    const tavrin::AudioState state;
    // Nothing plays into the sink yet: its monitor is silent.
    QVERIFY(pollUntil(capture, state, [&] { return capture.blockCount >= 5; }));
    QVERIFY2(capture.input.peak[0] < 0.001 && capture.input.peak[1] < 0.001,
             QByteArray::number(capture.input.peak[0]).constData());

    QVERIFY(pulse.play(tonePath));
    const auto stopPlayer = qScopeGuard([this] { pulse.stopPlaying(); });
    QVERIFY2(pollUntil(
                 capture, state, [&] { return capture.input.peak[0] > 0.1 && capture.input.peak[1] > 0.1; },
                 10000),
             pulse.playerOutput().constData());
    QVERIFY(capture.running);
    QVERIFY(capture.error.empty());
    QVERIFY(capture.output.peak[0] > 0.1);
}

void tst_AudioCapture::meterValues_data()
{
    QTest::addColumn<double>("left");
    QTest::addColumn<double>("right");
    QTest::addColumn<int>("value");

    QTest::newRow("silence") << 0.0 << 0.0 << 0;
    QTest::newRow("full scale") << 1.0 << 0.2 << 100;
    QTest::newRow("louder channel counts") << 0.01 << 0.5 << 89;
    QTest::newRow("minus 30 dBFS") << 0.0316228 << 0.0 << 50;
    QTest::newRow("at the floor") << 0.001 << 0.0 << 0;
    QTest::newRow("below the floor") << 0.00001 << 0.0 << 0;
    QTest::newRow("not a number") << std::nan("") << 0.0 << 0;
}

void tst_AudioCapture::meterValues()
{
    QFETCH(double, left);
    QFETCH(double, right);
    QFETCH(int, value);

    tavrin::AudioLevels levels;
    levels.peak[0] = left;
    levels.peak[1] = right;
    QCOMPARE(tavrin::meterValue(levels), value);
}

QTEST_GUILESS_MAIN(tst_AudioCapture)
#include "tst_audiocapture.moc"
