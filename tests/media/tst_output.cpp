#include "AudioMix.h"
#include "Frame.h"
#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "TlsTrust.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHostAddress>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>
#include <cmath>
#include <mutex>
#include <optional>

namespace {

constexpr std::uint64_t framePeriodNs = 33333000;
const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT "/");

std::shared_ptr<const tavrin::Frame> picture(QSize size, int index)
{
    auto frame = std::make_shared<tavrin::Frame>(size.width(), size.height());
    for (std::size_t i = 0; i < frame->pixels.size(); ++i)
        frame->pixels[i] = i % 4 == 3 ? 255 : std::uint8_t(i / 4 % std::size_t(size.width()) + index * (i % 4 + 2));
    return frame;
}

std::vector<float> tone(int index)
{
    std::vector<float> block(tavrin::mixBlockSamples);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = float(0.2 * std::sin(2.0 * M_PI * 440.0 * double(index * 1600 + int(i / 2)) / 48000.0));
    return block;
}

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
            output.push(picture(size, fed), tone(fed), std::uint64_t(fed++) * framePeriodNs);
        longestMs = std::max(longestMs, call.elapsed());
        return fed >= frames || !output.running;
    }, frames * 34 + 15000);
    return {fed, longestMs};
}

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

template <typename Call> QString thrownBy(Call call)
{
    try {
        call();
    } catch (const std::runtime_error& failure) {
        return QString::fromUtf8(failure.what());
    }
    return {};
}

} // namespace

class tst_Output : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        gst_init(nullptr, nullptr);
        QVERIFY(QDir().mkpath(folder));
        QCOMPARE(thrownBy([] { Output::make("velmora-absent"); }), "Componente no disponible: velmora-absent");
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
        const QString dir = folder + QString::fromUtf8(QTest::currentDataTag());
        QDir(dir).removeRecursively();
        QVERIFY(QDir().mkpath(dir));
        std::optional<RtmpServer> server;
        if (!scheme.isEmpty())
            server.emplace(dir, scheme == QStringLiteral("rtmps"));
        QVERIFY2(!server || server->ok(), server ? qPrintable(server->errorString()) : "");
        // The product keeps full certificate checks; the test makes its own authority the trusted one.
        std::optional<TlsTrust> trust;
        if (scheme == QStringLiteral("rtmps"))
            trust.emplace(server->caCertificate());
        const QString key = QStringLiteral("key");
        const QString target = !server ? dir + QStringLiteral("/recording.webm")
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
        output->push(picture(size, frames), tone(frames), std::uint64_t(frames) * framePeriodNs);
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
        GstIterator* encoders = gst_bin_iterate_all_by_element_factory_name(GST_BIN(output.pipeline.get()), "vp8enc");
        GValue encoder = G_VALUE_INIT;
        QCOMPARE(gst_iterator_next(encoders, &encoder), GST_ITERATOR_OK);
        int threads = 0;
        g_object_get(g_value_get_object(&encoder), "threads", &threads, nullptr);
        g_value_unset(&encoder);
        gst_iterator_free(encoders);
        QCOMPARE(threads, g_get_num_processors() >= 3 ? 2 : 1);
        // The first push is time zero; after a two-second gap the next buffer carries the true elapsed time.
        const std::uint64_t start = 7000000000;
        for (const std::uint64_t at : {start, start + framePeriodNs, start + 2000000000})
            output.push(picture(size, 0), tone(0), at);
        const std::vector<std::uint64_t> expected = {0, framePeriodNs, 2000000000};
        QTRY_VERIFY(video.get() == expected && audio.get() == expected);
        // Another size stops the output for good; a clock before the first push counts as zero, not as huge.
        output.push(picture(QSize(640, 360), 1), tone(1), start + 3000000000);
        QCOMPARE(QString::fromStdString(output.error), QStringLiteral("El formato cambio durante salida"));
        output.push(picture(size, 2), tone(2), start - 1);
        QVERIFY(!output.running && output.videoFrames == 3 && output.audioFrames == 3 * 1600);
        QVERIFY(output.videoPts == 0 && output.audioPts == 0);
    }
};

QTEST_GUILESS_MAIN(tst_Output)
#include "tst_output.moc"
