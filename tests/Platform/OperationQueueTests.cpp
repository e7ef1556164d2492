// Operation queues under real worker threads: concurrency limits, order,
// cancellation, dependencies and count-change waits.

#include "TestSupport.h"
#include <qx/Operation.h>
#include <qx/OperationQueue.h>
#include <qx/Semaphore.h>

using namespace qx;
using namespace std::chrono_literals;

namespace {

void raiseMax(std::atomic<int>& max, int value) {
    int seen = max.load();
    while (value > seen && !max.compare_exchange_weak(seen, value)) {
    }
}

} // namespace

TEST(OperationQueue, NeverRunsMoreThanTheLimitAndFillsNewPlacesAtOnce) {
    auto queue = OperationQueue::create("test.limit");
    queue->setMaxConcurrentOperationCount(3);
    auto gate = Semaphore::create();
    auto entered = Semaphore::create();
    std::atomic<int> inFlight{0}, maxInFlight{0}, started{0};
    constexpr int total = 40;
    for (int i = 0; i < total; ++i)
        queue->addOperationWithBlock([&] {
            raiseMax(maxInFlight, inFlight.fetch_add(1) + 1);
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
    EXPECT_LE(maxInFlight.load(), 5);
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
