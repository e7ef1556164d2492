// RuntimeBenchmark.cpp - the thread machinery's costs: a run-loop source's
// signal-to-callback round trip beside a semaphore ping-pong between two
// threads (the floor for any cross-thread hand-off), and the throughput of
// small blocks on an operation queue and on a serial queue.
#include <qx/OperationQueue.h>
#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>
#include <qx/Semaphore.h>
#include <qx/SerialQueue.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

namespace {

// The other thread runs its loop; each signal comes back through a semaphore.
void RunLoopSourceRoundTrip(benchmark::State& state) {
    auto back = qx::Semaphore::create();
    auto ready = qx::Semaphore::create();
    std::atomic<bool> done{false};
    auto source = qx::RunLoopSource::create([&] { back->signal(); });
    qx::Ref<qx::RunLoop> loop;
    std::thread runner([&] {
        loop = qx::RunLoop::current();
        loop->addSource(source, qx::RunLoop::DefaultMode);
        ready->signal();
        while (!done.load()) loop->runMode(qx::RunLoop::DefaultMode, qx::RunLoop::distantFuture());
    });
    ready->wait();
    for (auto _ : state) {
        source->signal();
        back->wait();
    }
    done.store(true);
    loop->wakeUp();
    runner.join();
    source->invalidate();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RunLoopSourceRoundTrip)->UseRealTime();

void SemaphorePingPong(benchmark::State& state) {
    auto ping = qx::Semaphore::create();
    auto pong = qx::Semaphore::create();
    std::atomic<bool> done{false};
    std::thread other([&] {
        for (;;) {
            ping->wait();
            if (done.load()) return;
            pong->signal();
        }
    });
    for (auto _ : state) {
        ping->signal();
        pong->wait();
    }
    done.store(true);
    ping->signal();
    other.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SemaphorePingPong)->UseRealTime();

constexpr int kBlocks = 10000;

// Argument: maxConcurrentOperationCount (-1: the default).
void OperationQueueSmallBlocks(benchmark::State& state) {
    auto queue = qx::OperationQueue::create("bench.operations");
    queue->setMaxConcurrentOperationCount(static_cast<int>(state.range(0)));
    std::atomic<long> sum{0};
    for (auto _ : state) {
        for (int i = 0; i < kBlocks; ++i) queue->addOperationWithBlock([&sum, i] { sum.fetch_add(i, std::memory_order_relaxed); });
        queue->waitUntilAllOperationsAreFinished();
    }
    benchmark::DoNotOptimize(sum.load());
    state.SetItemsProcessed(state.iterations() * kBlocks);
}
BENCHMARK(OperationQueueSmallBlocks)->Arg(1)->Arg(-1)->UseRealTime()->Unit(benchmark::kMillisecond);

void SerialQueueSmallBlocks(benchmark::State& state) {
    auto queue = qx::SerialQueue::create("bench.serial");
    long sum = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBlocks; ++i) queue->async([&sum, i] { sum += i; });
        queue->drain();
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kBlocks);
}
BENCHMARK(SerialQueueSmallBlocks)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
