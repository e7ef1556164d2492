// Order, exclusion, sync re-entry and drain of serial queues under real threads.

#include "TestSupport.h"
#include <qx/SerialQueue.h>

using namespace qx;

TEST(SerialQueue, BlocksFromManyThreadsRunAloneInOrderAlsoAfterTheQueueRanDry) {
    // Bursts from several producers, some drained between: a burst may meet
    // a worker still running, one on its way out, or none; either way every
    // block runs once, alone, in each producer's order.
    std::vector<std::vector<int>> seen(3);
    std::atomic<int> inside{0};
    bool overlapped = false;
    {
        auto queue = SerialQueue::create("test.bursts");
        std::vector<std::thread> producers;
        for (int p = 0; p < 3; ++p)
            producers.emplace_back([&, p] {
                for (int burst = 0; burst < 60; ++burst) {
                    for (int i = 0; i < 3; ++i)
                        queue->async([&, p, n = burst * 3 + i] {
                            if (inside.fetch_add(1) != 0) overlapped = true;
                            seen[p].push_back(n);
                            inside.fetch_sub(1);
                        });
                    if (burst % 2) queue->drain();
                }
            });
        for (auto& t : producers) t.join();
        queue->drain();
        // A block queued from a block of the same queue after it ran dry.
        std::promise<void> inner;
        queue->async([&] { queue->async([&] { inner.set_value(); }); });
        inner.get_future().wait();
    }  // dropping an idle queue reaps its last worker
    EXPECT_FALSE(overlapped);
    for (const auto& s : seen) {
        ASSERT_EQ(s.size(), 180u);
        for (int n = 0; n < 180; ++n) EXPECT_EQ(s[n], n);
    }
}

TEST(SerialQueue, SyncWaitsForEarlierBlocksAndReentersWithoutDeadlock) {
    auto queue = SerialQueue::create("test.sync");
    std::vector<int> order;
    queue->async([&] { order.push_back(1); });
    queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        order.push_back(2);
        queue->sync([&] { order.push_back(3); });  // runs inline
    });
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, DestructionWaitsForQueuedWorkAndMayHappenInsideABlock) {
    std::atomic<int> ran{0};
    {
        auto queue = SerialQueue::create("test.drop");
        for (int i = 0; i < 100; ++i) queue->async([&] { ran.fetch_add(1); });
    }
    EXPECT_EQ(ran.load(), 100);

    // A block that holds the last reference drops the queue on its own
    // worker; the block queued after it must still run.
    std::promise<void> second;
    {
        auto queue = SerialQueue::create("test.self");
        queue->async([queue] {});
        queue->async([&second] { second.set_value(); });
    }
    second.get_future().wait();
}
