#include "AudioCapture.h"
#include "AudioProcessing.h"
#include "FakeDevice.h"
#include "GstTestRun.h"
#include "SoundServer.h"

#include <QDir>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

#include <gst/app/gstappsrc.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

namespace {

// An audio input whose element comes from the factory `element` (an appsrc is fed by the test);
// with none, an input whose element is missing.
gstptr::Device makeInput(const QByteArray& element)
{
    return makeFakeDevice("Mesa de prueba", "Audio/Source", nullptr, [element](const gchar* name) {
        GstElement* made = element.isEmpty() ? nullptr : gst_element_factory_make(element.constData(), name);
        if (made && element == "appsrc") {
            const gstptr::Caps caps(
                gst_caps_from_string("audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2"));
            g_object_set(made, "caps", caps.get(), "is-live", TRUE, "format", GST_FORMAT_TIME, nullptr);
        }
        return made;
    });
}

// Ten milliseconds of one value on both channels, or an empty buffer.
void pushBlock(GstElement* appsrc, float value, GstClockTime pts = GST_CLOCK_TIME_NONE,
               std::size_t bytes = 3840)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
    const std::vector<float> samples(bytes / sizeof(float), value);
    gst_buffer_fill(buffer, 0, samples.data(), bytes);
    GST_BUFFER_PTS(buffer) = pts;
    gst_app_src_push_buffer(GST_APP_SRC(appsrc), buffer);
}

// To a millionth, so that levels worked out in float and in double compare equal.
QList<double> rounded(QList<double> values)
{
    for (double& value : values)
        value = std::round(value * 1e6) / 1e6;
    return values;
}

// rms left, rms right, peak left, peak right, clipped.
QList<double> figures(const tavrin::AudioLevels& levels)
{
    return rounded(
        {levels.rms[0], levels.rms[1], levels.peak[0], levels.peak[1], levels.clipped ? 1.0 : 0.0});
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
    void meterValues_data();
    void meterValues();
    void testTone_data();
    void testTone();
    void stopsAndStalls_data();
    void stopsAndStalls();
    void constructionFailures_data();
    void constructionFailures();
    void pulseAudioMonitor();

private:
    bool trackingLeaks = false;
    QString pulseSkip;
    QString pulseFailure;
    SoundServer pulse{QStringLiteral(VELMORA_TEST_OUTPUT "/runtime")};
};

void tst_AudioCapture::initTestCase()
{
    QVERIFY(QDir().mkpath(QStringLiteral(VELMORA_TEST_OUTPUT)));
    // A private sound server: the client library must see it before GStreamer loads its plug-in.
    SoundServer::useFolder(QStringLiteral(VELMORA_TEST_OUTPUT "/runtime"));
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
    QTest::addColumn<QList<double>>("input"); // as figures() gives them
    QTest::addColumn<QList<double>>("output");
    QTest::addColumn<QString>("thrown");

    const QList<double> silent{0, 0, 0, 0, 0};
    const auto row = [](const char* name, QList<float> samples, bool muted, double gain,
                        QList<float> delivered, const QList<double>& input, const QList<double>& output,
                        const char* thrown = "") {
        QTest::newRow(name) << samples << muted << gain << delivered << rounded(input) << rounded(output)
                            << QString::fromUtf8(thrown);
    };
    row("muted input moves only the input meter", {0.5f, -0.25f, -0.5f, 0.25f}, true, 1.0, {0, 0, 0, 0},
        {0.5, 0.25, 0.5, 0.25, 0}, silent);
    row("exactly full scale after gain is clipped", {0.5f, 0.0f}, false, 2.0, {1.0f, 0.0f},
        {0.5, 0, 0.5, 0, 0}, {1.0, 0, 1.0, 0, 1});
    row("negative overflow clamps, the input is not clipped", {-0.75f, 0.25f}, false, 1.5, {-1.0f, 0.375f},
        {0.75, 0.25, 0.75, 0.25, 0}, {1.0, 0.375, 1.0, 0.375, 1});
    row("full scale input is clipped even when turned down", {1.0f, -1.0f}, false, 0.5, {0.5f, -0.5f},
        {1, 1, 1, 1, 1}, {0.5, 0.5, 0.5, 0.5, 0});
    row("NaN counts as silence and is delivered as silence", {notANumber, 0.5f, 0.5f, 0.5f}, false, 2.0,
        {0.0f, 1.0f, 1.0f, 1.0f}, {std::sqrt(0.125), 0.5, 0.5, 0.5, 0}, {std::sqrt(0.5), 1, 1, 1, 1});
    row("infinities count as silence, not as clipping", {infinity, -infinity}, false, 1.0, {0, 0}, silent,
        silent);
    row("left and right are measured apart", {0.8f, 0.0f, -0.6f, 0.0f}, false, 1.0, {0.8f, 0.0f, -0.6f, 0.0f},
        {std::sqrt(0.5), 0, 0.8, 0, 0}, {std::sqrt(0.5), 0, 0.8, 0, 0});
    row("an empty block measures nothing", {}, false, 1.0, {}, silent, silent);
    row("odd count", {0.1f, 0.2f, 0.3f}, false, 1.0, {}, silent, silent, "Bloque de audio incompleto");
    row("gain above 2", {0.1f, 0.2f}, false, 2.0001, {}, silent, silent, "Ganancia invalida");
    row("negative gain", {0.1f, 0.2f}, false, -0.01, {}, silent, silent, "Ganancia invalida");
    row("gain not a number", {0.1f, 0.2f}, false, std::nan(""), {}, silent, silent, "Ganancia invalida");
}

void tst_AudioCapture::processBlock()
{
    QFETCH(QList<float>, samples);
    QFETCH(bool, muted);
    QFETCH(double, gain);
    QFETCH(QList<float>, delivered);
    QFETCH(QList<double>, input);
    QFETCH(QList<double>, output);
    QFETCH(QString, thrown);

    try {
        const tavrin::AudioBlock block = tavrin::processBlock(
            std::vector<float>(samples.begin(), samples.end()), tavrin::AudioState{muted, gain});
        QVERIFY2(thrown.isEmpty(), "no exception");
        QCOMPARE(QList<float>(block.samples.begin(), block.samples.end()), delivered);
        QCOMPARE(figures(block.input), input);
        QCOMPARE(figures(block.output), output);
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()), thrown);
    }
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

    AudioCapture capture(nullptr);
    std::vector<tavrin::AudioBlock> blocks;
    capture.onBlock = [&](const tavrin::AudioBlock& block) { blocks.push_back(block); };
    QTRY_VERIFY((capture.poll({muted, gain}), blocks.size() >= 4));
    QVERIFY2(capture.running, capture.error.c_str());

    // 1024 stereo frames per buffer of a sine of amplitude 0.25: peak near 0.25, rms near 0.25 / sqrt(2).
    const tavrin::AudioBlock& last = blocks.back();
    QVERIFY(blocks.front().pts < last.pts);
    QCOMPARE(last.samples.size(), std::size_t(2048));
    for (int c = 0; c < 2; ++c) {
        QVERIFY2(last.input.peak[c] > 0.24 && last.input.peak[c] <= 0.2501,
                 qPrintable(QString::number(last.input.peak[c])));
        QVERIFY2(std::abs(last.input.rms[c] - 0.25 / std::sqrt(2.0)) < 0.01,
                 qPrintable(QString::number(last.input.rms[c])));
        QCOMPARE(rounded({last.output.peak[c]}), rounded({muted ? 0.0 : last.input.peak[c] * gain}));
    }
    QVERIFY(!last.input.clipped && !last.output.clipped);
    QVERIFY(!muted || last.samples == std::vector<float>(2048, 0.0f));
    // The capture's meters show the newest block.
    QCOMPARE(figures(capture.input), figures(last.input));
    QCOMPARE(figures(capture.output), figures(last.output));
}

void tst_AudioCapture::stopsAndStalls_data()
{
    QTest::addColumn<QByteArray>("cause");
    QTest::addColumn<qint64>("quietUs"); // how far the clock moves without a buffer
    QTest::addColumn<bool>("metersShown");
    QTest::addColumn<QString>("error"); // empty: the capture goes on

    const QString ended = QStringLiteral("La entrada de audio termino");
    const QByteArray quiet = "quiet";
    QTest::newRow("quiet 2 s keeps the meters") << quiet << qint64(2000000) << true << QString();
    QTest::newRow("quiet past 2 s drops the meters") << quiet << qint64(2000001) << false << QString();
    QTest::newRow("quiet 5 s goes on") << quiet << qint64(5000000) << false << QString();
    QTest::newRow("quiet past 5 s stops")
        << quiet << qint64(5000001) << false << QStringLiteral("Sin buffers de audio durante 5 segundos");
    QTest::newRow("end of stream") << QByteArray("eos") << qint64(0) << false << ended;
    QTest::newRow("device error with its own text")
        << QByteArray("error") << qint64(0) << false << QStringLiteral("Dispositivo de audio desconectado");
    QTest::newRow("device error without text") << QByteArray("silent error") << qint64(0) << false << ended;
    QTest::newRow("empty buffer") << QByteArray("empty") << qint64(0) << false
                                  << QStringLiteral("Bloque de audio invalido");
    // The block is lost, the capture goes on.
    QTest::newRow("bad gain throws") << QByteArray("bad gain") << qint64(0) << true << QString();
}

void tst_AudioCapture::stopsAndStalls()
{
    QFETCH(QByteArray, cause);
    QFETCH(qint64, quietUs);
    QFETCH(bool, metersShown);
    QFETCH(QString, error);

    const gstptr::Device device = makeInput("appsrc");
    AudioCapture capture(device.get());
    const gstptr::Element source(gst_bin_get_by_name(GST_BIN(capture.pipeline.get()), "audio-input"));
    QVERIFY(source);
    std::int64_t nowUs = capture.lastBufferUs;
    capture.clock = [&] { return nowUs; };
    std::vector<std::int64_t> pts;
    capture.onBlock = [&](const tavrin::AudioBlock& block) { pts.push_back(block.pts); };
    const tavrin::AudioState state{false, 1.5};
    pushBlock(source.get(), 0.5f, 123456789);
    QTRY_COMPARE((capture.poll(state), capture.blockCount), std::uint64_t(1));
    QCOMPARE(pts, std::vector<std::int64_t>{123456789});

    if (cause == "quiet") {
        nowUs += quietUs;
        capture.poll(state);
    } else if (cause == "bad gain") {
        pushBlock(source.get(), 1.0f);
        QString thrown;
        const auto pollWithBadGain = [&] {
            try {
                capture.poll(tavrin::AudioState{false, 3.0});
            } catch (const std::runtime_error& failure) {
                thrown = QString::fromUtf8(failure.what());
            }
            return !thrown.isEmpty();
        };
        QTRY_VERIFY(pollWithBadGain());
        QCOMPARE(thrown, QStringLiteral("Ganancia invalida"));
    } else {
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
        QTRY_VERIFY((capture.poll(state), !capture.running));
    }
    QCOMPARE(QString::fromStdString(capture.error), error);
    // Levels before and after the gain of 1.5.
    QCOMPARE(capture.input.peak[0], metersShown ? 0.5 : 0.0);
    QCOMPARE(capture.output.peak[1], metersShown ? 0.75 : 0.0);

    if (error.isEmpty()) {
        // The next buffer brings the meters back; one without a time has pts 0.
        pushBlock(source.get(), -0.25f);
        QTRY_COMPARE((capture.poll(state), capture.blockCount), std::uint64_t(2));
        QCOMPARE(pts, (std::vector<std::int64_t>{123456789, 0}));
        QCOMPARE(capture.output.peak[0], 0.375);
        QVERIFY(capture.running);
        return;
    }
    // Stopped for good, with the device let go: the pipeline dropped it and took it to NULL.
    QVERIFY(!capture.running && !capture.pipeline && !capture.sink && !capture.bus);
    QCOMPARE(GST_OBJECT_REFCOUNT_VALUE(source.get()), 1);
    GstState current = GST_STATE_VOID_PENDING;
    gst_element_get_state(source.get(), &current, nullptr, 0);
    QCOMPARE(current, GST_STATE_NULL);
}

void tst_AudioCapture::constructionFailures_data()
{
    QTest::addColumn<QByteArray>("element");
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
    QFETCH(QByteArray, element);
    QFETCH(QString, message);

    const gstptr::Device device = makeInput(element);
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
    const QString tonePath = QStringLiteral(VELMORA_TEST_OUTPUT "/tone.wav");
    QVERIFY(runToEnd("audiotestsrc num-buffers=188 samplesperbuffer=1024 volume=0.5 "
                     "! audio/x-raw,format=S16LE,rate=48000,channels=2 ! wavenc ! filesink location=\"" +
                     tonePath.toUtf8() + "\""));

    const gstptr::Object<GstDeviceMonitor> monitor(gst_device_monitor_new());
    gst_device_monitor_add_filter(monitor.get(), "Audio/Source", nullptr);
    QVERIFY(gst_device_monitor_start(monitor.get()));
    const auto stopMonitor = qScopeGuard([&] { gst_device_monitor_stop(monitor.get()); });
    const auto findNullMonitor = [&] {
        gstptr::Device found;
        GList* list = gst_device_monitor_get_devices(monitor.get());
        for (GList* item = list; item; item = item->next) {
            gstptr::Device device(GST_DEVICE(item->data));
            const gstptr::String name(gst_device_get_display_name(device.get()));
            if (name && g_str_equal(name.get(), "Monitor of Null Output"))
                found = std::move(device);
        }
        g_list_free(list);
        return found;
    };
    gstptr::Device nullMonitor;
    QTRY_VERIFY_WITH_TIMEOUT((nullMonitor = findNullMonitor()) != nullptr, 10000);

    AudioCapture capture(nullMonitor.get());
    // Nothing plays into the sink yet: its monitor is silent.
    QTRY_VERIFY((capture.poll({}), capture.blockCount >= 5));
    QVERIFY2(capture.input.peak[0] < 0.001 && capture.input.peak[1] < 0.001,
             qPrintable(QString::number(capture.input.peak[0])));

    QVERIFY(pulse.play(tonePath));
    const auto stopPlayer = qScopeGuard([this] { pulse.stopPlaying(); });
    QTRY_VERIFY2_WITH_TIMEOUT((capture.poll({}), capture.input.peak[0] > 0.1 && capture.input.peak[1] > 0.1),
                              pulse.playerOutput().constData(), 10000);
    QVERIFY2(capture.running, capture.error.c_str());
    QVERIFY(capture.output.peak[0] > 0.1);
}

QTEST_GUILESS_MAIN(tst_AudioCapture)
#include "tst_audiocapture.moc"
