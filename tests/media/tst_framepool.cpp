#include "Frame.h"
#include "FramePool.h"

#include <QTest>
#include <set>
#include <thread>

class tst_FramePool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void heldFramesAreNeverHandedOut_data();
    void heldFramesAreNeverHandedOut();
    void releasedOnAnotherThreadIsReused();
};

void tst_FramePool::heldFramesAreNeverHandedOut_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<int>("held");

    QTest::newRow("all free") << 4 << 0;
    QTest::newRow("some held") << 4 << 2;
    QTest::newRow("all held") << 4 << 4;
    QTest::newRow("more held than kept") << 2 << 5;
}

// An encoder still reading a picture must never see it overwritten: a frame is handed out again only
// when nothing else holds it, and the pool keeps no more than its capacity.
void tst_FramePool::heldFramesAreNeverHandedOut()
{
    QFETCH(int, capacity);
    QFETCH(int, held);

    FramePool pool{std::size_t(capacity)};
    std::vector<std::shared_ptr<const tavrin::Frame>> encoders;
    std::set<const tavrin::Frame*> handedOut;
    for (int i = 0; i < held; ++i) {
        encoders.push_back(pool.acquire());
        handedOut.insert(encoders.back().get());
    }
    QCOMPARE(int(handedOut.size()), held);

    for (int round = 0; round < 3; ++round) {
        const std::shared_ptr<tavrin::Frame> next = pool.acquire();
        for (const auto& busy : encoders)
            QVERIFY(next.get() != busy.get());
        handedOut.insert(next.get());
    }
    encoders.clear();
    std::set<const tavrin::Frame*> reused;
    for (int round = 0; round < 8; ++round)
        reused.insert(pool.acquire().get());
    QCOMPARE(int(reused.size()), 1);
}

void tst_FramePool::releasedOnAnotherThreadIsReused()
{
    FramePool pool(1);
    std::shared_ptr<const tavrin::Frame> encoder = pool.acquire();
    const tavrin::Frame* first = encoder.get();
    QVERIFY(pool.acquire().get() != first);
    std::thread([held = std::move(encoder)]() mutable { held.reset(); }).join();
    QCOMPARE(pool.acquire().get(), first);
}

QTEST_GUILESS_MAIN(tst_FramePool)
#include "tst_framepool.moc"
