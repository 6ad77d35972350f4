#include "AudioMix.h"
#include "Frame.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "TlsTrust.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QRegularExpression>
#include <QSize>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::uint64_t framePeriodNs = 33333000;

QString outputFolder(const QString& name = QString())
{
    return QStringLiteral(VELMORA_TEST_OUTPUT "/") + name;
}

// A picture that changes every frame, so that the encoder has real motion to code.
std::shared_ptr<const tavrin::Frame> picture(QSize size, int index)
{
    auto frame = std::make_shared<tavrin::Frame>(size.width(), size.height());
    for (std::size_t i = 0; i < frame->pixels.size(); ++i)
        frame->pixels[i] =
            i % 4 == 3 ? 255 : std::uint8_t(i / 4 % std::size_t(size.width()) + index * (i % 4 + 2));
    return frame;
}

// One mix block of a continuous 440 Hz tone, the same on both channels.
std::vector<float> tone(int index)
{
    std::vector<float> block(tavrin::mixBlockSamples);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = float(0.2 * std::sin(2.0 * M_PI * 440.0 * double(index * 1600 + int(i / 2)) / 48000.0));
    return block;
}

struct Fed
{
    int frames = 0;
    qint64 longestCallMs = 0;
};

// Feeds an output the way the studio's tick does: a 5 ms precise timer, one push when the 30 fps pace
// clock is due, a poll on the other firings. Ends after `frames` pushes, when the output stops
// running, or at a deadline well past the stream's length.
Fed feed(Output& output, int frames, QSize size)
{
    Fed fed;
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        const std::uint64_t dueNs = std::uint64_t(fed.frames) * framePeriodNs;
        QElapsedTimer call;
        if (std::uint64_t(clock.nsecsElapsed()) >= dueNs) {
            const auto frame = picture(size, fed.frames);
            const std::vector<float> audio = tone(fed.frames);
            call.start();
            output.push(frame, audio, dueNs);
            ++fed.frames;
        } else {
            call.start();
            output.poll();
        }
        fed.longestCallMs = std::max(fed.longestCallMs, call.elapsed());
        if (fed.frames >= frames || !output.running)
            loop.quit();
    });
    QTimer::singleShot(int(std::uint64_t(frames) * framePeriodNs / 1000000) + 15000, &loop,
                       &QEventLoop::quit);
    timer.start(5);
    loop.exec();
    return fed;
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
        gst_pad_add_probe(
            pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
            [](GstPad*, GstPadProbeInfo* info, gpointer data) {
                auto* times = static_cast<SeenTimes*>(data);
                const std::lock_guard<std::mutex> guard(times->lock);
                times->pts.push_back(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)));
                return GST_PAD_PROBE_OK;
            },
            this, nullptr);
    }
};

} // namespace

class tst_Output : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void missingComponent();
    void profiles_data();
    void profiles();
    void delivery_data();
    void delivery();
    void failedConnection_data();
    void failedConnection();
    void sizeChangeStops();
    void gapCarriesElapsedTime();
    void recordingEncoderThreadsFollowCores();
};

void tst_Output::initTestCase()
{
    gst_init(nullptr, nullptr);
    QVERIFY(QDir().mkpath(outputFolder()));
}

void tst_Output::missingComponent()
{
    try {
        Output::make("velmora-absent-element");
        QFAIL("no exception");
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()),
                 QStringLiteral("Componente no disponible: velmora-absent-element"));
    }
}

void tst_Output::profiles_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<bool>("stream");
    QTest::addColumn<QString>("target");
    QTest::addColumn<int>("bitrate");
    QTest::addColumn<QString>("refusal"); // empty: the output starts

    const auto row = [](const char* name, QSize size, int bitrate, const QString& refusal,
                        bool stream = false,
                        const QString& target = outputFolder(QStringLiteral("profile.webm"))) {
        QTest::newRow(name) << size << stream << target << bitrate << refusal;
    };
    const QString profile = QStringLiteral("Perfil de salida invalido");
    const QString scheme = QStringLiteral("Destino debe usar RTMP o RTMPS");
    row("bitrate 499999", {640, 360}, 499999, profile);
    row("bitrate 20000001", {640, 360}, 20000001, profile);
    row("width 4097", {4097, 360}, 6000000, profile);
    row("width 0", {0, 360}, 6000000, profile);
    row("height 4097", {640, 4097}, 6000000, profile);
    row("profile before address", {4097, 360}, 6000000, profile, true, QStringLiteral("srt://x"));
    row("srt address", {640, 360}, 6000000, scheme, true, QStringLiteral("srt://x"));
    row("address without scheme", {640, 360}, 6000000, scheme, true, QStringLiteral("127.0.0.1/app/key"));
    row("empty file path", {640, 360}, 6000000, QStringLiteral("Selecciona archivo de grabacion"), false,
        QString());
    row("smallest", {1, 1}, 500000, QString());
    row("largest", {4096, 4096}, 20000000, QString());
    // Nothing is pushed, so nothing connects: a stream starts without its server.
    row("rtmps address", {640, 360}, 6000000, QString(), true,
        QStringLiteral("rtmps://127.0.0.1:%1/app/key").arg(RtmpServer::freePort()));
}

void tst_Output::profiles()
{
    QFETCH(QSize, size);
    QFETCH(bool, stream);
    QFETCH(QString, target);
    QFETCH(int, bitrate);
    QFETCH(QString, refusal);

    try {
        const Output output(size.width(), size.height(), stream, target.toStdString(), bitrate, false);
        QVERIFY2(refusal.isEmpty(), "no exception");
        QVERIFY2(output.running && output.error.empty(), output.error.c_str());
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()), refusal);
    }
}

void tst_Output::delivery_data()
{
    QTest::addColumn<bool>("stream");
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QString>("videoCodec");
    QTest::addColumn<QString>("audioCodec");
    QTest::newRow("rtmp") << true << false << QStringLiteral("h264") << QStringLiteral("aac");
    QTest::newRow("rtmps") << true << true << QStringLiteral("h264") << QStringLiteral("aac");
    QTest::newRow("webm") << false << false << QStringLiteral("vp8") << QStringLiteral("vorbis");
}

void tst_Output::delivery()
{
    QFETCH(bool, stream);
    QFETCH(bool, tls);
    QFETCH(QString, videoCodec);
    QFETCH(QString, audioCodec);

    const QString folder = outputFolder(QString::fromUtf8(QTest::currentDataTag()));
    QDir(folder).removeRecursively();
    QVERIFY(QDir().mkpath(folder));
    const QString key = QStringLiteral("testkey");
    QString target = folder + QStringLiteral("/recording.webm");
    std::optional<RtmpServer> server;
    std::optional<TlsTrust> trust;
    if (stream) {
        server.emplace(folder, tls);
        QVERIFY2(server->ok(), qPrintable(server->errorString()));
        target = tls ? server->tlsUrl(key) : server->url(key);
    }
    if (tls) {
        // The product keeps full certificate checks; the test makes its own authority the trusted one.
        trust.emplace(server->caCertificate());
        QVERIFY2(trust->ok(), qPrintable(trust->errorString()));
    }

    const QSize size(640, 360);
    const int frames = 90;
    // Declared first, as the pipeline's probes write into them until it is gone.
    SeenTimes videoIn;
    SeenTimes audioIn;
    auto output =
        std::make_unique<Output>(size.width(), size.height(), stream, target.toStdString(), 6000000, false);
    videoIn.watch(output->videoSource);
    audioIn.watch(output->audioSource);
    QCOMPARE(feed(*output, frames, size).frames, frames);
    QVERIFY2(output->running, output->error.c_str());

    // Once finishing, pushes only move the clock; the end of stream drains encoders and muxer.
    output->finish();
    output->push(picture(size, frames), tone(frames), std::uint64_t(frames) * framePeriodNs);
    QCOMPARE(output->videoFrames, std::uint64_t(frames));
    QCOMPARE(output->audioFrames, std::uint64_t(frames) * 1600);
    QTRY_VERIFY_WITH_TIMEOUT((output->poll(), output->ended || !output->error.empty()), 15000);
    QVERIFY2(output->ended, output->error.c_str());
    output.reset();
    const QString file = stream ? server->recording(key) : target;
    if (server)
        server->stop();

    // A busy machine makes the leaky sources drop their oldest buffers, which is their job, so the
    // file is held to what entered the pipeline; never the last picture, which the end of stream drains.
    const std::vector<std::uint64_t> video = videoIn.get();
    QVERIFY(!video.empty());
    QCOMPARE(video.back(), std::uint64_t(frames - 1) * framePeriodNs);
    const auto streams = probeStreams(file);
    const QByteArray found =
        (describeStreams(streams) + QStringLiteral(" | ") + (server ? server->log() : QString())).toUtf8();
    QVERIFY2(streams.contains(videoCodec) && streams.contains(audioCodec), found.constData());
    QCOMPARE(streams.value(videoCodec).rate, QStringLiteral("30/1"));
    const int videoFrames = streams.value(videoCodec).frames;
    QVERIFY2(videoFrames >= int(video.size()) - 2 && videoFrames <= int(video.size()), found.constData());
    // The AAC encoder keeps back what does not fill its last 1024-sample frame.
    const int aacFrames = int(audioIn.get().size()) * 1600 / 1024;
    QVERIFY2(!stream || std::abs(streams.value(audioCodec).frames - aacFrames) <= 2, found.constData());
    const double seconds = probeDuration(file);
    QVERIFY2(std::abs(seconds - frames / 30.0) <= 2.0 / 30.0, qPrintable(QString::number(seconds)));
    const QString complaints = playThrough(file);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
}

void tst_Output::failedConnection_data()
{
    QTest::addColumn<QByteArray>("peer");
    QTest::newRow("closed port") << QByteArray("closed");
    // Takes the connection and never answers the handshake: the sink gives up after its time-out,
    // which must not be spent on the caller's thread.
    QTest::newRow("silent peer") << QByteArray("silent");
    // The certificate check is the product's, in full: the test's authority is not trusted here.
    QTest::newRow("RTMPS server of an unknown authority") << QByteArray("untrusted");
}

void tst_Output::failedConnection()
{
    QFETCH(QByteArray, peer);
    QTcpServer silent;
    std::optional<RtmpServer> server;
    QString target = QStringLiteral("rtmp://127.0.0.1:%1/app/key").arg(RtmpServer::freePort());
    if (peer == "silent") {
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        target = QStringLiteral("rtmp://127.0.0.1:%1/app/key").arg(silent.serverPort());
    } else if (peer == "untrusted") {
        QDir(outputFolder(QStringLiteral("rtmps-untrusted"))).removeRecursively();
        server.emplace(outputFolder(QStringLiteral("rtmps-untrusted")), true);
        QVERIFY2(server->ok(), qPrintable(server->errorString()));
        target = server->tlsUrl(QStringLiteral("key"));
    }

    const QSize size(320, 240);
    Output output(size.width(), size.height(), true, target.toStdString(), 6000000, false);
    QVERIFY(output.running);
    // Bounded: at most ten seconds of frames.
    const Fed fed = feed(output, 300, size);
    QVERIFY2(!output.running && !output.ended, "the failed connection was never reported");
    QVERIFY2(fed.longestCallMs < 1000, qPrintable(QString::number(fed.longestCallMs)));
    const QRegularExpression text(
        QStringLiteral("^Fallo de salida \\(codigo \\d+\\)\\. Revisa destino, permisos y codecs\\.$"));
    QVERIFY2(text.match(QString::fromStdString(output.error)).hasMatch(), output.error.c_str());
    if (server) {
        server->stop();
        QCOMPARE(QFileInfo(server->recording(QStringLiteral("key"))).size(), qint64(0));
    }
}

void tst_Output::sizeChangeStops()
{
    Output output(320, 240, false, outputFolder(QStringLiteral("size-change.webm")).toStdString(), 6000000,
                  false);
    output.push(picture(QSize(320, 240), 0), tone(0), 0);
    QVERIFY2(output.running, output.error.c_str());

    output.push(picture(QSize(640, 360), 1), tone(1), framePeriodNs);
    QVERIFY(!output.running);
    QCOMPARE(QString::fromStdString(output.error), QStringLiteral("El formato cambio durante salida"));
    // Neither picture nor sound of that step went out, nor of later ones of the right size.
    output.push(picture(QSize(320, 240), 2), tone(2), 2 * framePeriodNs);
    QCOMPARE(output.videoFrames, std::uint64_t(1));
    QCOMPARE(output.audioFrames, std::uint64_t(1600));
}

void tst_Output::gapCarriesElapsedTime()
{
    const QSize size(320, 240);
    SeenTimes video;
    SeenTimes audio;
    Output output(size.width(), size.height(), false, outputFolder(QStringLiteral("gap.webm")).toStdString(),
                  6000000, false);
    video.watch(output.videoSource);
    audio.watch(output.audioSource);

    // The studio clock is far from zero when an output starts; its first push is time zero. After two
    // seconds without a push, the next buffer carries the true elapsed time, not the third frame's slot.
    const std::uint64_t start = 7000000000;
    for (const std::uint64_t at : {start, start + framePeriodNs, start + 2000000000})
        output.push(picture(size, 0), tone(0), at);
    const std::vector<std::uint64_t> expected = {0, framePeriodNs, 2000000000};
    QTRY_VERIFY(video.get() == expected);
    QTRY_VERIFY(audio.get() == expected);

    // A clock value before the first push counts as zero, never as a huge unsigned time.
    output.push(picture(size, 0), tone(0), start - 1);
    QCOMPARE(output.videoPts, std::uint64_t(33333333));
    QCOMPARE(output.audioPts, std::uint64_t(33333333));
}

// Two VP8 row threads only where a third core keeps them from spinning against the rest of the studio.
void tst_Output::recordingEncoderThreadsFollowCores()
{
    Output output(320, 240, false, outputFolder(QStringLiteral("threads.webm")).toStdString(), 6000000, false);
    GstIterator* encoders = gst_bin_iterate_all_by_element_factory_name(GST_BIN(output.pipeline.get()), "vp8enc");
    GValue item = G_VALUE_INIT;
    QCOMPARE(gst_iterator_next(encoders, &item), GST_ITERATOR_OK);
    int threads = 0;
    g_object_get(g_value_get_object(&item), "threads", &threads, nullptr);
    g_value_unset(&item);
    gst_iterator_free(encoders);
    QCOMPARE(threads, g_get_num_processors() >= 3 ? 2 : 1);
}

QTEST_GUILESS_MAIN(tst_Output)
#include "tst_output.moc"
