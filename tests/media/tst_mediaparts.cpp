#include "AudioMix.h"
#include "Frame.h"
#include "FramePool.h"
#include "StreamTarget.h"

#include <QTest>
#include <set>
#include <stdexcept>
#include <thread>

// One mix step: the first sample of the video (or room) queue and of the voice, the state, the two
// sliders, and the first sample mixed.
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

// The small parts of the media layer that need no pipeline.
class tst_MediaParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void frame_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("valid");
        QTest::newRow("smallest") << QSize(1, 1) << true;
        QTest::newRow("full HD") << QSize(1920, 1080) << true;
        QTest::newRow("widest") << QSize(8192, 2) << true;
        QTest::newRow("tallest") << QSize(2, 8192) << true;
        QTest::newRow("zero width") << QSize(0, 10) << false;
        QTest::newRow("too wide") << QSize(8193, 8) << false;
        QTest::newRow("zero height") << QSize(10, 0) << false;
        QTest::newRow("too tall") << QSize(10, 8193) << false;
    }

    void frame()
    {
        QFETCH(QSize, size);
        QFETCH(bool, valid);
        try {
            const tavrin::Frame frame(size.width(), size.height());
            QVERIFY(valid);
            QCOMPARE(frame.pixels.size(), std::size_t(size.width()) * std::size_t(size.height()) * 4);
            for (std::size_t i = 0; i < frame.pixels.size(); ++i) // opaque black
                QCOMPARE(int(frame.pixels[i]), i % 4 == 3 ? 255 : 0);
        } catch (const std::runtime_error& error) {
            QVERIFY(!valid);
            QCOMPARE(QByteArray(error.what()), QByteArray("Tamaño de cuadro inválido"));
        }
    }

    void poolNeverHandsOutAHeldFrame_data()
    {
        QTest::addColumn<int>("capacity");
        QTest::addColumn<int>("held");
        QTest::newRow("all free") << 4 << 0;
        QTest::newRow("some held") << 4 << 2;
        QTest::newRow("all held") << 4 << 4;
        QTest::newRow("more held than kept") << 2 << 5;
    }

    // An encoder still reading a picture must never see it overwritten; encoders let go on their own threads.
    void poolNeverHandsOutAHeldFrame()
    {
        QFETCH(int, capacity);
        QFETCH(int, held);
        FramePool pool{std::size_t(capacity)};
        std::vector<std::shared_ptr<const tavrin::Frame>> encoders;
        for (int i = 0; i < held; ++i)
            encoders.push_back(pool.acquire());
        for (int round = 0; round < 3; ++round) {
            const std::shared_ptr<tavrin::Frame> next = pool.acquire();
            for (const auto& busy : encoders)
                QVERIFY(next.get() != busy.get());
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
        QTest::newRow("another scheme") << "srt://host/app" << "k" << badServer;
        QTest::newRow("rtmp2 is not rtmp") << "RTMP2://host/app" << "k" << badServer;
        QTest::newRow("empty server") << "" << "k" << badServer;
        QTest::newRow("empty key") << "rtmp://host/app" << "   " << badKey;
        QTest::newRow("key with a blank") << "rtmp://host/app" << "ab cd" << badKey;
        QTest::newRow("key with a question mark") << "rtmp://host/app" << "ab?cd" << badKey;
        QTest::newRow("key with a hash") << "rtmp://host/app" << "ab#cd" << badKey;
    }

    void target()
    {
        QFETCH(QString, server);
        QFETCH(QString, key);
        QFETCH(QString, expected);
        try {
            QCOMPARE(tavrin::streamTarget(server, key), expected);
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), expected);
        }
        // The log shows the key's length and at most its first four characters.
        const QString line = tavrin::keyLogLine(QStringLiteral("YouTube"), QStringLiteral("rtmp://h/%3app"), key);
        QCOMPARE(line, QStringLiteral("Salida YouTube: servidor=rtmp://h/%3app clave: %1 caracteres, empieza \"%2\"")
                           .arg(key.size()).arg(key.left(4)));
    }
};

QTEST_APPLESS_MAIN(tst_MediaParts)
#include "tst_mediaparts.moc"
