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
#include <QProcess>
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

constexpr std::int64_t framePeriodUs = 33333;
constexpr std::uint64_t bufferDurationNs = 33333333;

QString outputFolder()
{
    return QStringLiteral(VELMORA_TEST_OUTPUT);
}

// A picture that changes every frame, so that an encoder has real motion to code.
std::shared_ptr<const tavrin::Frame> picture(QSize size, int index)
{
    auto made = std::make_shared<tavrin::Frame>(size.width(), size.height());
    tavrin::Frame& frame = *made;
    const int bar = (index * 7) % size.width();
    for (int y = 0; y < size.height(); ++y) {
        std::uint8_t* row = frame.pixels.data() + std::size_t(y) * std::size_t(size.width()) * 4;
        for (int x = 0; x < size.width(); ++x) {
            std::uint8_t* pixel = row + std::size_t(x) * 4;
            const bool onBar = x >= bar && x < bar + 16;
            pixel[0] = onBar ? 255 : std::uint8_t(x + index * 3);
            pixel[1] = onBar ? 255 : std::uint8_t(y + index * 2);
            pixel[2] = std::uint8_t(index * 5);
            pixel[3] = 255;
        }
    }
    return made;
}

// One mix block of a continuous 440 Hz tone, the same on both channels.
std::vector<float> tone(int index)
{
    std::vector<float> block(tavrin::mixBlockSamples);
    for (int i = 0; i < tavrin::mixBlockSamples / 2; ++i) {
        const double sample = double(index) * (tavrin::mixBlockSamples / 2) + i;
        const float value = float(0.2 * std::sin(2.0 * M_PI * 440.0 * sample / 48000.0));
        block[std::size_t(i) * 2] = value;
        block[std::size_t(i) * 2 + 1] = value;
    }
    return block;
}

struct Fed
{
    int frames = 0;
    qint64 longestCallMs = 0;
};

// Feeds an output the way the studio's tick does: a 5 ms precise timer, at most one push per firing
// when the 30 fps pace clock is due, a poll on the other firings. Push times come from the pace
// clock, not from a count. Ends after `frames` pushes, when the output stops running, or at a
// deadline well past the stream's length.
Fed feed(Output& output, int frames, QSize size)
{
    Fed fed;
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(5);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        const std::int64_t dueUs = std::int64_t(fed.frames) * framePeriodUs;
        QElapsedTimer call;
        if (clock.nsecsElapsed() / 1000 >= dueUs) {
            const auto frame = picture(size, fed.frames);
            const std::vector<float> audio = tone(fed.frames);
            call.start();
            output.push(frame, audio, std::uint64_t(dueUs) * 1000);
            ++fed.frames;
        } else {
            call.start();
            output.poll();
        }
        fed.longestCallMs = std::max(fed.longestCallMs, call.elapsed());
        if (fed.frames >= frames || !output.running)
            loop.quit();
    });
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    limit.start(int(frames * framePeriodUs / 1000) + 15000);
    timer.start();
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
};

void watch(GstElement* element, const char* padName, SeenTimes& seen)
{
    const gstptr::Pad pad(gst_element_get_static_pad(element, padName));
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer data) {
            auto* times = static_cast<SeenTimes*>(data);
            const std::lock_guard<std::mutex> guard(times->lock);
            times->pts.push_back(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)));
            return GST_PAD_PROBE_OK;
        },
        &seen, nullptr);
}

std::uint64_t latest(SeenTimes& seen)
{
    std::uint64_t last = 0;
    for (const std::uint64_t pts : seen.get())
        if (pts != GST_CLOCK_TIME_NONE)
            last = std::max(last, pts);
    return last;
}

// The pipeline's one sink, still owned by the pipeline.
GstElement* sinkOf(const Output& output)
{
    GstIterator* sinks = gst_bin_iterate_sinks(GST_BIN(output.pipeline.get()));
    GValue item = G_VALUE_INIT;
    GstElement* found = nullptr;
    if (gst_iterator_next(sinks, &item) == GST_ITERATOR_OK) {
        found = GST_ELEMENT(g_value_get_object(&item));
        g_value_unset(&item);
    }
    gst_iterator_free(sinks);
    return found;
}

} // namespace

class tst_Output : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void make();
    void refusedProfile_data();
    void refusedProfile();
    void acceptedProfile_data();
    void acceptedProfile();
    void rtmpStream();
    void rtmpsStream();
    void rtmpsRefusesUnknownAuthority();
    void webmRecording();
    void sizeChangeStops();
    void unreachableServer_data();
    void unreachableServer();
    void gapCarriesElapsedTime();

private:
    void streamTo(bool tls);
};

void tst_Output::initTestCase()
{
    gst_init(nullptr, nullptr);
    QVERIFY(QDir().mkpath(outputFolder()));
}

void tst_Output::make()
{
    const gstptr::Element queue(GST_ELEMENT(gst_object_ref_sink(Output::make("queue"))));
    QVERIFY(queue);
    try {
        Output::make("velmora-absent-element");
        QFAIL("no exception");
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()),
                 QStringLiteral("Componente no disponible: velmora-absent-element"));
    }
}

void tst_Output::refusedProfile_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<bool>("stream");
    QTest::addColumn<QString>("target");
    QTest::addColumn<int>("bitrate");
    QTest::addColumn<QString>("message");

    const QString file = outputFolder() + QStringLiteral("/refused.webm");
    const QString profile = QStringLiteral("Perfil de salida invalido");
    QTest::newRow("bitrate 499999") << QSize(640, 360) << false << file << 499999 << profile;
    QTest::newRow("bitrate 20000001") << QSize(640, 360) << false << file << 20000001 << profile;
    QTest::newRow("width 4097") << QSize(4097, 360) << false << file << 6000000 << profile;
    QTest::newRow("width 0") << QSize(0, 360) << false << file << 6000000 << profile;
    QTest::newRow("height 4097") << QSize(640, 4097) << false << file << 6000000 << profile;
    QTest::newRow("profile before address")
        << QSize(4097, 360) << true << QStringLiteral("srt://x") << 6000000 << profile;
    QTest::newRow("srt address") << QSize(640, 360) << true << QStringLiteral("srt://x") << 6000000
                                 << QStringLiteral("Destino debe usar RTMP o RTMPS");
    QTest::newRow("address without scheme") << QSize(640, 360) << true << QStringLiteral("127.0.0.1/app/key")
                                            << 6000000 << QStringLiteral("Destino debe usar RTMP o RTMPS");
    QTest::newRow("empty file path") << QSize(640, 360) << false << QString() << 6000000
                                     << QStringLiteral("Selecciona archivo de grabacion");
}

void tst_Output::refusedProfile()
{
    QFETCH(QSize, size);
    QFETCH(bool, stream);
    QFETCH(QString, target);
    QFETCH(int, bitrate);
    QFETCH(QString, message);

    try {
        Output output(size.width(), size.height(), stream, target.toStdString(), bitrate, false);
        QFAIL("no exception");
    } catch (const std::runtime_error& failure) {
        QCOMPARE(QString::fromUtf8(failure.what()), message);
    }
}

void tst_Output::acceptedProfile_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<bool>("stream");
    QTest::addColumn<QString>("target");
    QTest::addColumn<int>("bitrate");

    const QString file = outputFolder() + QStringLiteral("/accepted.webm");
    QTest::newRow("smallest") << QSize(1, 1) << false << file << 500000;
    QTest::newRow("largest") << QSize(4096, 4096) << false << file << 20000000;
    // Nothing is pushed, so nothing connects: a stream starts without waiting for its server.
    QTest::newRow("rtmps address")
        << QSize(640, 360) << true
        << QStringLiteral("rtmps://127.0.0.1:%1/app/key").arg(RtmpServer::freePort()) << 6000000;
}

void tst_Output::acceptedProfile()
{
    QFETCH(QSize, size);
    QFETCH(bool, stream);
    QFETCH(QString, target);
    QFETCH(int, bitrate);

    QElapsedTimer started;
    started.start();
    const Output output(size.width(), size.height(), stream, target.toStdString(), bitrate, false);
    QVERIFY(started.elapsed() < 2000);
    QVERIFY(output.running);
    QVERIFY(!output.finishing);
    QVERIFY(!output.ended);
    QVERIFY(output.error.empty());
    QCOMPARE(output.startNs, ~std::uint64_t(0));
    QCOMPARE(output.width, size.width());
    QCOMPARE(output.height, size.height());
}

void tst_Output::streamTo(bool tls)
{
    const QString folder = outputFolder() + (tls ? QStringLiteral("/rtmps") : QStringLiteral("/rtmp"));
    QDir(folder).removeRecursively();
    RtmpServer server(folder, tls);
    QVERIFY2(server.ok(), qPrintable(server.errorString()));

    // The product keeps full certificate checks; the test makes its own authority the trusted one.
    std::optional<TlsTrust> trust;
    if (tls) {
        trust.emplace(server.caCertificate());
        QVERIFY2(trust->ok(), qPrintable(trust->errorString()));
    }

    const QString key = QStringLiteral("testkey");
    const QSize size(640, 360);
    const int frames = 120;
    auto output =
        std::make_unique<Output>(size.width(), size.height(), true,
                                 (tls ? server.tlsUrl(key) : server.url(key)).toStdString(), 6000000, false);
    SeenTimes videoOut;
    SeenTimes audioOut;
    SeenTimes sent;
    watch(output->videoSource, "src", videoOut);
    watch(output->audioSource, "src", audioOut);
    GstElement* sink = sinkOf(*output);
    QVERIFY(sink);
    watch(sink, "sink", sent);
    const Fed fed = feed(*output, frames, size);
    QVERIFY2(output->running, output->error.c_str());
    QCOMPARE(fed.frames, frames);
    QCOMPARE(output->videoFrames, std::uint64_t(frames));
    QCOMPARE(output->audioFrames, std::uint64_t(frames) * 1600);

    // A stream is simply dropped, as the studio retires it, so the test first lets the last picture
    // reach the sink (FLV times are whole milliseconds); what the sink had is then on the server.
    const std::uint64_t lastPts = std::uint64_t(frames - 1) * framePeriodUs * 1000;
    QTRY_VERIFY_WITH_TIMEOUT((output->poll(), !output->running || latest(sent) + 1000000 > lastPts), 15000);
    QVERIFY2(output->running, output->error.c_str());
    output.reset();
    server.stop();
    // A busy machine makes the leaky sources drop their oldest buffers; that is their job, so the
    // server is held to what entered the pipeline.
    const int videoEntered = int(videoOut.get().size());
    const int audioEntered = int(audioOut.get().size());
    if (videoEntered < frames || audioEntered < frames)
        qInfo("dropped under load: %d pictures, %d sound blocks", frames - videoEntered,
              frames - audioEntered);

    const auto streams = probeStreams(server.recording(key));
    QVERIFY2(streams.contains(QStringLiteral("h264")) && streams.contains(QStringLiteral("aac")),
             qPrintable(describeStreams(streams) + QStringLiteral(" | ") + server.log()));
    const ProbedStream video = streams.value(QStringLiteral("h264"));
    QCOMPARE(video.rate, QStringLiteral("30/1"));
    QVERIFY2(video.frames >= videoEntered - 2 && video.frames <= videoEntered, qPrintable(describeStreams(streams)));
    // The encoder keeps back what does not fill its last 1024-sample frame, and up to the muxer's
    // wait of sound may still be on its way.
    const int aacFrames = audioEntered * 1600 / 1024;
    const ProbedStream audio = streams.value(QStringLiteral("aac"));
    QVERIFY2(audio.frames >= aacFrames - 30 && audio.frames <= aacFrames + 1, qPrintable(describeStreams(streams)));
}

void tst_Output::rtmpStream()
{
    streamTo(false);
}

void tst_Output::rtmpsStream()
{
    streamTo(true);
}

void tst_Output::rtmpsRefusesUnknownAuthority()
{
    // The same server without the test's trust: the certificate check is the product's, in full.
    const QString folder = outputFolder() + QStringLiteral("/rtmps-untrusted");
    QDir(folder).removeRecursively();
    RtmpServer server(folder, true);
    QVERIFY2(server.ok(), qPrintable(server.errorString()));

    const QSize size(320, 240);
    Output output(size.width(), size.height(), true, server.tlsUrl(QStringLiteral("testkey")).toStdString(),
                  6000000, false);
    feed(output, 300, size);
    QVERIFY2(!output.running, "an unknown authority was accepted");
    QVERIFY2(output.error.rfind("Fallo de salida (codigo ", 0) == 0, output.error.c_str());
    server.stop();
    QVERIFY(!QFileInfo(server.recording(QStringLiteral("testkey"))).size());
}

void tst_Output::webmRecording()
{
    const QString path = outputFolder() + QStringLiteral("/recording.webm");
    QFile::remove(path);
    const QSize size(640, 360);
    const int frames = 90;

    Output output(size.width(), size.height(), false, path.toStdString(), 6000000, false);
    SeenTimes videoOut;
    watch(output.videoSource, "src", videoOut);
    const Fed fed = feed(output, frames, size);
    QVERIFY2(output.running, output.error.c_str());
    QCOMPARE(fed.frames, frames);

    output.finish();
    QVERIFY(output.finishing);
    // Once finishing, pushes only move the clock.
    output.push(picture(size, frames), tone(frames), std::uint64_t(frames) * framePeriodUs * 1000);
    QCOMPARE(output.videoFrames, std::uint64_t(frames));
    QCOMPARE(output.audioFrames, std::uint64_t(frames) * 1600);

    QTRY_VERIFY_WITH_TIMEOUT((output.poll(), output.ended || !output.error.empty()), 15000);
    QVERIFY2(output.ended, output.error.c_str());
    QVERIFY(!output.running);

    // Every picture that entered the pipeline is in the file; on a busy machine the leaky source may
    // have dropped a few before that, never the last ones, which the end of stream drains.
    const std::vector<std::uint64_t> entered = videoOut.get();
    QVERIFY(!entered.empty());
    QCOMPARE(entered.back(), std::uint64_t(frames - 1) * framePeriodUs * 1000);
    if (int(entered.size()) < frames)
        qInfo("dropped under load: %d pictures", frames - int(entered.size()));
    const auto streams = probeStreams(path);
    QVERIFY2(streams.contains(QStringLiteral("vp8")) && streams.contains(QStringLiteral("vorbis")),
             qPrintable(describeStreams(streams)));
    QVERIFY2(std::abs(streams.value(QStringLiteral("vp8")).frames - int(entered.size())) <= 2,
             qPrintable(describeStreams(streams)));

    const double seconds = probeDuration(path);
    QVERIFY2(std::abs(seconds - frames / 30.0) <= 2.0 / 30.0, qPrintable(QString::number(seconds)));

    const QString complaints = playThrough(path);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
}

void tst_Output::sizeChangeStops()
{
    const QString path = outputFolder() + QStringLiteral("/size-change.webm");
    Output output(320, 240, false, path.toStdString(), 6000000, false);
    output.push(picture(QSize(320, 240), 0), tone(0), 0);
    QVERIFY2(output.running, output.error.c_str());
    QCOMPARE(output.videoFrames, std::uint64_t(1));

    output.push(picture(QSize(640, 360), 1), tone(1), std::uint64_t(framePeriodUs) * 1000);
    QVERIFY(!output.running);
    QCOMPARE(QString::fromStdString(output.error), QStringLiteral("El formato cambio durante salida"));
    // Neither picture nor sound of that step went out.
    QCOMPARE(output.videoFrames, std::uint64_t(1));
    QCOMPARE(output.audioFrames, std::uint64_t(1600));

    // A stopped output stays stopped, even when the size is right again.
    output.push(picture(QSize(320, 240), 2), tone(2), std::uint64_t(framePeriodUs) * 2000);
    QVERIFY(!output.running);
    QCOMPARE(output.videoFrames, std::uint64_t(1));
}

void tst_Output::unreachableServer_data()
{
    QTest::addColumn<bool>("silent");
    QTest::newRow("closed port") << false;
    // Takes the connection and never answers the handshake: the sink gives up after its time-out,
    // which must not be spent on the caller's thread.
    QTest::newRow("silent peer") << true;
}

void tst_Output::unreachableServer()
{
    QFETCH(bool, silent);
    QTcpServer peer;
    quint16 port = 0;
    if (silent) {
        QVERIFY(peer.listen(QHostAddress::LocalHost, 0));
        port = peer.serverPort();
    } else {
        port = RtmpServer::freePort();
    }
    QVERIFY(port != 0);
    const QSize size(320, 240);

    QElapsedTimer started;
    started.start();
    Output output(size.width(), size.height(), true,
                  QStringLiteral("rtmp://127.0.0.1:%1/app/key").arg(port).toStdString(), 6000000, false);
    QVERIFY(started.elapsed() < 2000);
    QVERIFY(output.running);

    // Bounded: at most ten seconds of frames.
    const Fed fed = feed(output, 300, size);
    QVERIFY2(!output.running, "the failed connection was never reported");
    QVERIFY(!output.ended);
    QVERIFY2(fed.longestCallMs < 1000, qPrintable(QString::number(fed.longestCallMs)));
    const QRegularExpression text(
        QStringLiteral("^Fallo de salida \\(codigo \\d+\\)\\. Revisa destino, permisos y codecs\\.$"));
    QVERIFY2(text.match(QString::fromStdString(output.error)).hasMatch(), output.error.c_str());
}

void tst_Output::gapCarriesElapsedTime()
{
    const QString path = outputFolder() + QStringLiteral("/gap.webm");
    const QSize size(320, 240);
    Output output(size.width(), size.height(), false, path.toStdString(), 6000000, false);
    SeenTimes video;
    SeenTimes audio;
    watch(output.videoSource, "src", video);
    watch(output.audioSource, "src", audio);

    // The studio clock is far from zero when an output starts; its first push is time zero.
    const std::uint64_t start = 7000000000;
    output.push(picture(size, 0), tone(0), start);
    QCOMPARE(output.startNs, start);
    QCOMPARE(output.videoPts, bufferDurationNs);
    QCOMPARE(output.audioPts, bufferDurationNs);

    output.push(picture(size, 1), tone(1), start + 33333000);
    QCOMPARE(output.videoPts, 33333000 + bufferDurationNs);
    QCOMPARE(output.audioPts, 33333000 + bufferDurationNs);

    // Two seconds without a push: the next buffer is stamped with the true elapsed time, not with
    // the third frame's slot.
    output.push(picture(size, 2), tone(2), start + 2000000000);
    QVERIFY2(output.running, output.error.c_str());
    QCOMPARE(output.videoPts, 2000000000 + bufferDurationNs);
    QCOMPARE(output.audioPts, 2000000000 + bufferDurationNs);
    QCOMPARE(output.videoFrames, std::uint64_t(3));
    QCOMPARE(output.audioFrames, std::uint64_t(3 * 1600));

    const std::vector<std::uint64_t> expected = {0, 33333000, 2000000000};
    QTRY_VERIFY_WITH_TIMEOUT(video.get() == expected, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(audio.get() == expected, 5000);

    // A clock value before the first push counts as zero, never as a huge unsigned time.
    output.push(picture(size, 3), tone(3), start - 1);
    QCOMPARE(output.videoPts, bufferDurationNs);
    QCOMPARE(output.audioPts, bufferDurationNs);
}

QTEST_GUILESS_MAIN(tst_Output)
#include "tst_output.moc"
