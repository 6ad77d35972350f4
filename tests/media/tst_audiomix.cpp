#include "AudioMix.h"

#include <QTest>

class tst_AudioMix : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void mix_data();
    void mix();
    void queuesDrainInRealTime();
};

using Queue = std::deque<float>;

void tst_AudioMix::mix_data()
{
    QTest::addColumn<bool>("video");
    QTest::addColumn<float>("source"); // the first sample of the video or room queue
    QTest::addColumn<float>("voice");
    QTest::addColumn<bool>("muted");
    QTest::addColumn<double>("gain");
    QTest::addColumn<int>("original");
    QTest::addColumn<int>("voicePercent");
    QTest::addColumn<float>("expected");

    QTest::newRow("room as it is") << false << 0.5f << 0.0f << false << 2.0 << 100 << 100 << 0.5f;
    QTest::newRow("room ignores mute: the capture applied it") << false << 0.5f << 0.0f << true << 1.0 << 100 << 100 << 0.5f;
    QTest::newRow("room at half the original slider") << false << 0.8f << 0.0f << false << 1.0 << 50 << 100 << 0.4f;
    QTest::newRow("room plus voice clamps") << false << 0.8f << 0.6f << false << 1.0 << 100 << 100 << 1.0f;
    QTest::newRow("voice slider down") << false << 0.0f << 0.6f << false << 1.0 << 100 << 0 << 0.0f;
    QTest::newRow("video takes gain") << true << 0.3f << 0.0f << false << 2.0 << 100 << 100 << 0.6f;
    QTest::newRow("video gain clamps before the slider") << true << 0.8f << 0.0f << false << 2.0 << 50 << 100 << 0.5f;
    QTest::newRow("video muted leaves the voice") << true << 0.8f << 0.25f << true << 1.0 << 100 << 100 << 0.25f;
    QTest::newRow("negative clamps") << true << -0.9f << -0.9f << false << 1.0 << 100 << 100 << -1.0f;
}

void tst_AudioMix::mix()
{
    QFETCH(bool, video);
    QFETCH(float, source);
    QFETCH(float, voice);
    QFETCH(bool, muted);
    QFETCH(double, gain);
    QFETCH(int, original);
    QFETCH(int, voicePercent);
    QFETCH(float, expected);

    Queue videoQueue{source};
    Queue room{video ? 0.9f : source}; // with a video the room must not be heard
    Queue voiceQueue{voice};
    const auto block = tavrin::mixBlock(video ? &videoQueue : nullptr, room, voiceQueue,
                                        tavrin::AudioState{muted, gain}, original, voicePercent);
    QCOMPARE(block.size(), std::size_t(tavrin::mixBlockSamples));
    QCOMPARE(block[0], expected);
    QCOMPARE(block[1], 0.0f); // queues ran dry: silence, not a repeat
    QCOMPARE(room.size(), video ? std::size_t(1) : std::size_t(0));
}

void tst_AudioMix::queuesDrainInRealTime()
{
    Queue room(10000, 0.1f);
    Queue voice(100, 0.1f);
    tavrin::mixBlock(nullptr, room, voice, {}, 100, 100);
    QCOMPARE(room.size(), std::size_t(10000 - 3200));
    QVERIFY(voice.empty());
}

QTEST_APPLESS_MAIN(tst_AudioMix)
#include "tst_audiomix.moc"
