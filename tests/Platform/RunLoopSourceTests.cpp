// Run-loop sources: modes, wake-ups from other threads, coalescing,
// removal and invalidation, and one handling per signal across loops.

#include "TestSupport.h"
#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>
#include <qx/Semaphore.h>

using namespace qx;
using namespace std::chrono_literals;
using Result = RunLoop::RunResult;

namespace {

// Runs body on a fresh thread, with that thread's own run loop.
template <class F> void onOwnLoop(F body) {
    std::thread([&] { body(RunLoop::current()); }).join();
}

const auto past = [] { return RunLoop::Clock::now() - 1s; };

} // namespace

TEST(RunLoopSource, SignalsCoalesceAndASignalDuringThePerformCountsAgain) {
    onOwnLoop([](Ref<RunLoop> loop) {
        int fired = 0;
        Ref<RunLoopSource> source;
        source = RunLoopSource::create([&] {
            if (++fired == 2) source->signal();  // re-marked for the next pass, not this one
        });
        loop->addSource(source, "M");
        loop->addSource(source, "M");  // harmless twice
        for (int i = 0; i < 5; ++i) source->signal();
        EXPECT_EQ(loop->runMode("M", past()), Result::Handled);
        EXPECT_EQ(fired, 1);
        EXPECT_EQ(loop->runMode("M", past()), Result::TimedOut);

        source->signal();
        EXPECT_EQ(loop->runMode("M", past()), Result::Handled);
        EXPECT_EQ(fired, 2);
        EXPECT_EQ(loop->runMode("M", past()), Result::Handled);
        EXPECT_EQ(fired, 3);
        EXPECT_EQ(loop->runMode("M", past()), Result::TimedOut);
        source->invalidate();  // breaks the source -> closure -> source cycle
    });
}

TEST(RunLoopSource, FiresOnlyInItsModesUntilRemovedOrInvalidated) {
    onOwnLoop([](Ref<RunLoop> loop) {
        int fired = 0;
        auto source = RunLoopSource::create([&] { ++fired; });
        loop->addSource(source, "A");
        loop->addSource(source, "B");
        source->signal();
        EXPECT_EQ(loop->runMode("C", past()), Result::TimedOut);
        EXPECT_TRUE(fired == 0 && source->isSignalled());
        loop->removeSource(source, "A");
        EXPECT_FALSE(loop->containsSource(source, "A"));
        EXPECT_EQ(loop->runMode("A", past()), Result::TimedOut);
        EXPECT_EQ(loop->runMode("B", past()), Result::Handled);
        EXPECT_TRUE(fired == 1 && !source->isSignalled());

        // A pending signal dies with the source.
        std::promise<Ref<RunLoop>> otherLoop;
        std::promise<void> release;
        std::thread other([&] {
            otherLoop.set_value(RunLoop::current());
            release.get_future().wait();
        });
        auto second = otherLoop.get_future().get();
        second->addSource(source, "B");
        source->signal();
        source->invalidate();
        EXPECT_FALSE(source->isValid() || loop->containsSource(source, "B") || second->containsSource(source, "B"));
        EXPECT_EQ(loop->runMode("B", past()), Result::TimedOut);
        loop->addSource(source, "B");  // an invalid source is not taken
        EXPECT_FALSE(loop->containsSource(source, "B"));
        source->signal();
        EXPECT_EQ(loop->runMode("B", past()), Result::TimedOut);
        EXPECT_EQ(fired, 1);
        release.set_value();
        other.join();
    });
}

TEST(RunLoopSource, ASignalFromAnotherThreadWakesAWaitingLoop) {
    // Ping-pong: each round the loop waits with no useful deadline and must
    // be woken by the other thread's signal; a lost wake-up hangs the round
    // until the generous deadline and shows as TimedOut.
    onOwnLoop([](Ref<RunLoop> loop) {
        constexpr int rounds = 2000;
        auto pong = Semaphore::create();
        int fired = 0;
        auto source = RunLoopSource::create([&] {
            ++fired;
            pong->signal();
        });
        loop->addSource(source, "M");
        std::thread signaller([&] {
            for (int i = 0; i < rounds; ++i) {
                source->signal();
                pong->wait();
            }
        });
        int handled = 0;
        while (fired < rounds) {
            if (loop->runMode("M", 60s) != Result::Handled) break;
            ++handled;
        }
        signaller.join();
        EXPECT_EQ(fired, rounds);
        EXPECT_EQ(handled, rounds);
    });
}

TEST(RunLoopSource, EachSignalIsHandledByExactlyOneOfSeveralLoops) {
    constexpr int signals = 1000;
    std::atomic<int> fired{0};
    std::atomic<bool> done{false};
    auto handledOne = Semaphore::create();
    auto source = RunLoopSource::create([&] {
        fired.fetch_add(1);
        handledOne->signal();
    });
    auto ready = Semaphore::create();
    std::vector<std::thread> runners;
    std::vector<Ref<RunLoop>> loops(3);
    for (auto& loop : loops)
        runners.emplace_back([&] {
            loop = RunLoop::current();
            loop->addSource(source, RunLoop::DefaultMode);
            ready->signal();
            while (!done.load()) loop->runMode(RunLoop::DefaultMode, RunLoop::distantFuture());
        });
    for (int i = 0; i < 3; ++i) ready->wait();
    for (int i = 0; i < signals; ++i) {
        source->signal();
        handledOne->wait();
    }
    done.store(true);
    for (const auto& loop : loops) loop->wakeUp();
    for (auto& t : runners) t.join();
    EXPECT_EQ(fired.load(), signals);
    source->invalidate();
}
