#include "AudioCapture.h"
#include "AudioProcessing.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "SoundServer.h"

#include <QDir>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>
#include <cmath>
#include <gst/app/gstappsrc.h>
#include <stdexcept>

namespace {

// An audio input whose element comes from the factory `element`; an appsrc is fed by the test.
gstptr::Device makeInput(const QByteArray& element)
{
    return makeFakeDevice("Mesa de prueba", "Audio/Source", nullptr, [element](const gchar* name) {
        GstElement* made = element.isEmpty() ? nullptr : gst_element_factory_make(element.constData(), name);
        const gstptr::Caps caps(
            gst_caps_from_string("audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
        if (made && element == "appsrc")
            g_object_set(made, "caps", caps.get(), "is-live", TRUE, "format", GST_FORMAT_TIME, nullptr);
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

// To a millionth, as float and double sums differ.
QList<double> rounded(QList<double> values)
{
    for (double& value : values)
        value = std::round(value * 1e6) / 1e6;
    return values;
}

// rms left, rms right, peak left, peak right, clipped.
QList<double> figures(const tavrin::AudioLevels& l)
{
    return rounded({l.rms[0], l.rms[1], l.peak[0], l.peak[1], l.clipped ? 1.0 : 0.0});
}

} // namespace

class tst_AudioCapture : public QObject
{
    Q_OBJECT
    bool trackingLeaks = false;
    QString pulseSkip;
    QString pulseFailure;
    SoundServer pulse{QStringLiteral(VELMORA_TEST_OUTPUT "/runtime")};

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
        // Every object a capture makes must be gone when it is; the leaks tracer tells at shut-down.
        trackingLeaks = startLeakTracking();
        gst_init(nullptr, nullptr);
    }

    void cleanupTestCase()
    {
        const auto stopServer = qScopeGuard([this] { pulse.stop(); });
        const QStringList alive = deinitAndListAlive(trackingLeaks);
        QVERIFY2(alive.isEmpty(), qPrintable(alive.join(QLatin1Char('\n'))));
    }

    void processBlock_data()
    {
        QTest::addColumn<QList<float>>("samples");
        QTest::addColumn<double>("gain"); // negative: muted
        QTest::addColumn<QList<float>>("delivered");
        QTest::addColumn<QList<double>>("levels"); // the input's figures, then the output's
        QTest::addColumn<int>("meter"); // of the output; -1: refused with `error`
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
        row("below the meter's floor", {0.00001f, 0}, 1.0, {0.00001f, 0}, {0.00001, 0, 0.00001, 0, 0,
            0.00001, 0, 0.00001, 0, 0}, 0);
        row("empty block", {}, 1.0, {}, silent, 0);
        row("odd count", {0.1f, 0.2f, 0.3f}, 1.0, {}, {}, -1, "Bloque de audio incompleto");
        row("gain above 2", {0.1f, 0.2f}, 2.0001, {}, {}, -1, "Ganancia invalida");
        row("gain not a number", {0.1f, 0.2f}, NAN, {}, {}, -1, "Ganancia invalida");
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
        // A negative gain is refused, muted or not.
        QCOMPARE(thrownBy([&] { tavrin::processBlock({0.1f, 0.2f}, {gain < 0, -0.01}); }), "Ganancia invalida");
    }

    // Without a device the capture plays a sine of amplitude 0.25, in buffers of 1024 stereo frames.
    // Without a device the capture plays a sine of amplitude 0.25, in buffers of 1024 stereo frames.
    void testTone_data()
    {
        QTest::addColumn<bool>("muted");
        QTest::newRow("gain 2") << false;
        QTest::newRow("muted") << true;
    }
    void testTone()
    {
        QFETCH(bool, muted);
        AudioCapture capture(nullptr);
        std::vector<tavrin::AudioBlock> blocks;
        capture.onBlock = [&](const tavrin::AudioBlock& block) { blocks.push_back(block); };
        QTRY_VERIFY((capture.poll({muted, 2.0}), blocks.size() >= 4));
        const tavrin::AudioBlock& last = blocks.back();
        QVERIFY(capture.running && blocks.front().pts < last.pts && last.samples.size() == 2048);
        for (const double peak : last.input.peak)
            QVERIFY2(peak > 0.24 && peak <= 0.2501, qPrintable(QString::number(peak)));
        QVERIFY(std::abs(last.input.rms[1] - 0.25 / std::sqrt(2.0)) < 0.01);
        QCOMPARE(rounded({last.output.peak[0]}), rounded({muted ? 0.0 : last.input.peak[0] * 2}));
        QVERIFY(!last.input.clipped && !last.output.clipped);
        QVERIFY(!muted || last.samples == std::vector<float>(2048, 0.0f));
        // The capture's meters show the newest block.
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
        const gstptr::Device device = makeInput("appsrc");
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
            // The next buffer brings the meters back; one without a time has pts 0.
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

    void constructionFailures_data()
    {
        QTest::addColumn<QByteArray>("element");
        QTest::addColumn<QString>("message");
        QTest::newRow("no element") << QByteArray() << QStringLiteral("Faltan componentes de captura de audio");
        QTest::newRow("no sound") << QByteArray("videotestsrc") << QStringLiteral("No se pudo enlazar el dispositivo de audio");
        // A file source without a file fails as it starts, like a device that is already taken.
        QTest::newRow("cannot start") << QByteArray("filesrc") << QStringLiteral("No se pudo iniciar audio");
    }
    void constructionFailures()
    {
        QFETCH(QByteArray, element);
        const gstptr::Device device = makeInput(element);
        QTEST(thrownBy([&] { AudioCapture capture(device.get()); }), "message");
    }

    void pulseAudioMonitor()
    {
        if (!pulseSkip.isEmpty())
            QSKIP(qPrintable(pulseSkip));
        QVERIFY2(pulseFailure.isEmpty(), qPrintable(pulseFailure));
        const QString tone = QStringLiteral(VELMORA_TEST_OUTPUT "/tone.wav");
        QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 ! audio/x-raw,format=S16LE,"
                         "rate=48000,channels=2 ! wavenc ! filesink location=\"" + tone.toUtf8() + "\""));
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
        // Nothing plays into the sink yet: its monitor is silent.
        QTRY_VERIFY((capture.poll({}), capture.blockCount >= 5));
        QVERIFY(capture.input.peak[0] < 0.001 && capture.input.peak[1] < 0.001);
        QVERIFY(pulse.play(tone));
        const auto stopPlayer = qScopeGuard([this] { pulse.stopPlaying(); });
        QTRY_VERIFY2_WITH_TIMEOUT((capture.poll({}), capture.input.peak[0] > 0.1 && capture.input.peak[1] > 0.1),
                                  pulse.playerOutput().constData(), 10000);
        QVERIFY2(capture.running && capture.output.peak[0] > 0.1, capture.error.c_str());
    }
};

QTEST_GUILESS_MAIN(tst_AudioCapture)
#include "tst_audiocapture.moc"
