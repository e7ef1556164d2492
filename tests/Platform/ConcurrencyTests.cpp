// Semaphores, serial queues and operation queues under real threads: counts kept under
// contention, order and exclusion, sync re-entry and drain, concurrency limits, cancellation,
// dependencies and count-change waits.

#include "TestSupport.h"
#include <qx/Operation.h>
#include <qx/OperationQueue.h>
#include <qx/Semaphore.h>
#include <qx/SerialQueue.h>

using namespace qx;
using namespace std::chrono_literals;

TEST(Semaphore, TimedWaitsGiveUpWithoutTakingAndLaterSignalsAreKept) {
    auto sem = Semaphore::create(2);
    EXPECT_TRUE(sem->tryWait() && sem->waitFor(0s));
    EXPECT_FALSE(sem->tryWait() || sem->waitFor(5ms) || sem->waitFor(-1s) || sem->waitUntil(Semaphore::Clock::now() - 1h));
    sem->signal();
    sem->signal();
    EXPECT_TRUE(sem->waitFor(0s) && sem->waitUntil(Semaphore::Clock::time_point::max()));
    EXPECT_FALSE(sem->tryWait());

    auto negative = Semaphore::create(-1);  // needs two signals before a wait passes
    negative->signal();
    EXPECT_FALSE(negative->tryWait());
    negative->signal();
    EXPECT_TRUE(negative->tryWait());
}

TEST(Semaphore, EverySignalIsTakenExactlyOnceUnderContention) {
    constexpr int producers = 4, consumers = 4, perProducer = 5000;
    auto sem = Semaphore::create();
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&] {
            for (int i = 0; i < producers * perProducer / consumers; ++i) {
                // Untimed and timed waits mixed; a timed one that gives up must not take.
                if (i % 2) sem->wait();
                else while (!sem->waitFor(1ms)) {}
                taken.fetch_add(1);
            }
        });
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < perProducer; ++i) sem->signal();
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(taken.load(), producers * perProducer);
    EXPECT_FALSE(sem->tryWait());
}

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

TEST(OperationQueue, NeverRunsMoreThanTheLimitAndFillsNewPlacesAtOnce) {
    auto queue = OperationQueue::create("test.limit");
    queue->setMaxConcurrentOperationCount(3);
    auto gate = Semaphore::create();
    auto entered = Semaphore::create();
    std::atomic<int> inFlight{0}, started{0};
    constexpr int total = 40;
    for (int i = 0; i < total; ++i)
        queue->addOperationWithBlock([&] {
            EXPECT_LE(inFlight.fetch_add(1) + 1, 5);
            started.fetch_add(1);
            entered->signal();
            gate->wait();
            inFlight.fetch_sub(1);
        });
    for (int i = 0; i < 3; ++i) entered->wait();
    EXPECT_EQ(started.load(), 3);  // the others wait for a place
    EXPECT_EQ(queue->operationCount(), static_cast<std::size_t>(total));

    queue->setMaxConcurrentOperationCount(5);
    for (int i = 0; i < 2; ++i) entered->wait();
    EXPECT_EQ(started.load(), 5);

    for (int i = 0; i < total; ++i) gate->signal();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(started.load(), total);
    EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueue, CancelledBeforeStartFinishesWithoutRunning) {
    auto queue = OperationQueue::create("test.cancel");
    queue->setSuspended(true);
    std::atomic<int> ran{0};
    std::vector<Ref<BlockOperation>> ops;
    for (int i = 0; i < 10; ++i) {
        ops.push_back(BlockOperation::create([&] { ran.fetch_add(1); }));
        queue->addOperation(ops.back());
    }
    EXPECT_FALSE(queue->addOperation(ops.front()));  // already queued
    ops[3]->cancel();
    ops[7]->cancel();
    EXPECT_TRUE(ops[3]->isReady());
    EXPECT_EQ(queue->operationCount(), 10u);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 8);
    for (const auto& op : ops) EXPECT_TRUE(op->isFinished());
    EXPECT_FALSE(queue->addOperation(ops.front()));  // finished

    queue->setSuspended(true);
    for (int i = 0; i < 5; ++i) queue->addOperationWithBlock([&] { ran.fetch_add(1); });
    queue->cancelAllOperations();
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran.load(), 8);
}

TEST(OperationQueue, DependenciesAcrossQueuesHoldBackTheDependent) {
    auto upstream = OperationQueue::create("test.up");
    auto downstream = OperationQueue::create("test.down");
    upstream->setSuspended(true);
    std::vector<int> order;
    std::mutex orderLock;
    auto record = [&](int v) {
        std::lock_guard<std::mutex> lock(orderLock);
        order.push_back(v);
    };
    auto a = BlockOperation::create([&] { record(1); });
    auto b = BlockOperation::create([&] { record(2); });
    auto c = BlockOperation::create([&] { record(3); });
    b->addDependency(a);
    c->addDependency(b);
    downstream->addOperation(c);
    downstream->addOperation(b);
    upstream->addOperation(a);
    EXPECT_FALSE(b->isReady());
    auto generation = downstream->operationCountGeneration();
    EXPECT_EQ(downstream->waitForOperationCountChange(generation, std::chrono::steady_clock::now()), generation);
    EXPECT_EQ(downstream->operationCount(), 2u);  // nothing could start
    upstream->setSuspended(false);
    downstream->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    // A dependency on an operation that is never run stops being one when
    // the dependent is cancelled.
    auto orphan = BlockOperation::create([] {});
    auto waiting = BlockOperation::create([&] { record(4); });
    waiting->addDependency(orphan);
    downstream->addOperation(waiting);
    waiting->cancel();
    waiting->waitUntilFinished();
    EXPECT_EQ(order.size(), 3u);
}

TEST(OperationQueue, CountChangeWaitsMissNoChangeUnderRacingProducers) {
    auto queue = OperationQueue::create("test.count");
    queue->setMaxConcurrentOperationCount(2);
    constexpr int producers = 3, perProducer = 300;
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < perProducer; ++i) queue->addOperationWithBlock([&] { ran.fetch_add(1); });
        });
    // The waiter reads the generation, looks, then waits for it to move:
    // every pass must be ended by a real change, the last one emptying the
    // queue after every block has run (a block counts itself before its
    // operation finishes, so the count changes last).
    int passes = 0;
    bool timedOut = false;
    for (;;) {
        const auto generation = queue->operationCountGeneration();
        if (ran.load() == producers * perProducer && queue->operationCount() == 0) break;
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        if (queue->waitForOperationCountChange(generation, deadline) == generation) {
            timedOut = true;
            break;
        }
        ++passes;
    }
    for (auto& t : threads) t.join();
    EXPECT_FALSE(timedOut);
    EXPECT_LE(passes, 2 * producers * perProducer);  // one add and one finish per operation at most
}
