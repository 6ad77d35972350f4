#include "FrameClock.h"

#include <QTest>
#include <vector>

class tst_FrameClock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stalls_data();
    void stalls();
};

void tst_FrameClock::stalls_data()
{
    QTest::addColumn<int>("stallMs");
    QTest::addColumn<int>("jumps");
    QTest::addColumn<int>("catchUpRun"); // frames made on consecutive firings right after the stall

    QTest::newRow("no stall") << 0 << 0 << 1;
    QTest::newRow("one late frame") << 40 << 0 << 2;
    QTest::newRow("200 ms is caught up") << 200 << 0 << 8;
    QTest::newRow("245 ms is still caught up") << 245 << 0 << 9;
    QTest::newRow("300 ms jumps once") << 300 << 1 << 1;
}

// A 5 ms timer that stops firing for a while, as a busy GUI thread does.
void tst_FrameClock::stalls()
{
    QFETCH(int, stallMs);
    QFETCH(int, jumps);
    QFETCH(int, catchUpRun);

    const std::int64_t startUs = 1000000;
    const std::int64_t stallStartUs = startUs + 500000;
    FrameClock clock(startUs);
    std::vector<std::int64_t> frames;
    std::vector<std::int64_t> firings;
    for (std::int64_t nowUs = startUs; nowUs < startUs + 2000000; nowUs += 5000) {
        if (nowUs >= stallStartUs && nowUs < stallStartUs + stallMs * 1000)
            continue;
        if (!clock.due(nowUs))
            continue;
        frames.push_back(clock.advance(nowUs));
        firings.push_back(nowUs);
    }

    int jumped = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        const std::int64_t step = frames[i] - frames[i - 1];
        if (step == FrameClock::periodUs)
            continue;
        ++jumped;
        QVERIFY(step > FrameClock::periodUs + FrameClock::slipLimitUs);
        QCOMPARE(frames[i], firings[i]); // the clock restarts at the present moment
    }
    QCOMPARE(jumped, jumps);

    // Right after the stall, frames come on every firing until the clock has caught up.
    const std::int64_t resumeUs = stallStartUs + stallMs * 1000;
    int run = 0;
    for (std::size_t i = 0; i < firings.size(); ++i) {
        if (firings[i] < resumeUs)
            continue;
        if (firings[i] != resumeUs + run * 5000)
            break;
        ++run;
    }
    QCOMPARE(run, catchUpRun);
    QVERIFY(clock.nextFrameUs > startUs + 2000000 - FrameClock::periodUs);
}

QTEST_APPLESS_MAIN(tst_FrameClock)
#include "tst_frameclock.moc"
