// PlatformRuntimeTests.cpp - notification centre, run loops and their sources, main-thread dispatch.

#include "TestSupport.h"

#include <qx/NotificationCenter.h>
#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>
#include <qx/Semaphore.h>

#include <stdexcept>

using namespace qx;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Result = RunLoop::RunResult;

namespace {

// A private centre per test keeps other suites' observers out of the counts.
Ref<NotificationCenter> freshCenter() { return std::make_shared<NotificationCenter>(); }

struct PlainObject final : Object {};
Ref<Object> newObject() { return std::make_shared<PlainObject>(); }

// Runs the main loop until done() holds; each turn waits without a time limit
// for work, so the caller's worker must queue something or finish via the loop.
template <class Pred> void runMainUntil(Pred done) {
    ASSERT_TRUE(RunLoop::isMainThread());
    const auto giveUp = RunLoop::Clock::now() + 60s;
    while (!done() && RunLoop::Clock::now() < giveUp) RunLoop::main()->runMode(RunLoop::DefaultMode, 5s);
    ASSERT_TRUE(done()) << "the main run loop never got the work";
}

template <class Body> void onOwnLoop(Body body) {
    std::thread([body] { body(RunLoop::current(), RunLoop::Clock::now() - 1s); }).join();
}

} // namespace

TEST(PlatformNotificationCenter, MatchesByNameAndSender) {
    auto center = freshCenter();
    auto a = newObject();
    int nameAny = 0, nameA = 0, anyAny = 0, otherName = 0;
    center->addObserver("N", nullptr, [&](const auto&) { ++nameAny; });
    center->addObserver("N", a, [&](const auto&) { ++nameA; });
    center->addObserver("", nullptr, [&](const auto&) { ++anyAny; });
    center->addObserver("M", nullptr, [&](const auto&) { ++otherName; });
    center->post("N", a);
    center->post("N", newObject());
    center->post("N");
    center->post("X", a);
    EXPECT_EQ(std::vector<int>({nameAny, nameA, anyAny, otherName}), std::vector<int>({3, 1, 4, 0}));
}

TEST(PlatformNotificationCenter, DeliversOnThePostingThreadAndHoldsTheSenderWeakly) {
    auto center = freshCenter();
    auto sender = newObject();
    WeakRef<Object> weak = sender;
    int calls = 0;
    Ref<Notification> seen;
    std::thread::id observedOn, posterId;
    center->addObserver("N", sender, [&](const Ref<Notification>& n) {
        ++calls;
        seen = n;
        observedOn = std::this_thread::get_id();
    });
    auto info = Dictionary::create();
    int callsWhenPostReturned = 0;
    std::thread([&] {
        posterId = std::this_thread::get_id();
        center->post("N", sender, info);
        callsWhenPostReturned = calls;
    }).join();
    EXPECT_EQ(callsWhenPostReturned, 1);
    EXPECT_EQ(observedOn, posterId);
    EXPECT_TRUE(seen->name() == "N" && seen->object() == sender && seen->userInfo() == info);
    seen.reset();

    // Registering did not keep the sender alive, and a new object (which may
    // well reuse the address) is not mistaken for it.
    sender.reset();
    EXPECT_TRUE(weak.expired());
    for (int i = 0; i < 8; ++i) center->post("N", newObject());
    EXPECT_EQ(calls, 1);
}

TEST(PlatformNotificationCenter, CallbacksMayAddAndRemoveObservers) {
    auto center = freshCenter();
    Strings log;
    NotificationCenter::ObserverToken second = 0, self = 0;
    bool added = false;
    center->addObserver("N", nullptr, [&](const auto&) {
        log.push_back("first");
        center->removeObserver(second);  // before its turn: must not be called
        if (!added) {
            added = true;
            center->addObserver("N", nullptr, [&](const auto&) { log.push_back("late"); });
        }
    });
    second = center->addObserver("N", nullptr, [&](const auto&) { log.push_back("second"); });
    self = center->addObserver("N", nullptr, [&](const auto&) {
        log.push_back("self");
        center->removeObserver(self);
        center->post("Nested");  // re-entrant posting is allowed
    });
    center->post("N");
    EXPECT_EQ(log, (Strings{"first", "self"}));  // "late" joined after this post began
    log.clear();
    center->post("N");
    EXPECT_EQ(log, (Strings{"first", "late"}));
    center->removeObserver(self);  // already gone
    center->removeObserver(0);
}

TEST(PlatformRunLoop, RunsOnlyWorkOfTheModeInQueueOrderAndKeepsItPastAThrow) {
    onOwnLoop([](Ref<RunLoop> loop, auto past) {
        Strings ran;
        loop->performBlock("A", [&] {
            ran.push_back("A1");
            loop->performBlock("A", [&] { ran.push_back("A3"); });  // waits for the next run
        });
        loop->performBlock("B", [&] { ran.push_back("B1"); });
        loop->performBlock(Strings{"A", "B"}, [&] { ran.push_back("AB"); });
        loop->performBlock("A", [&] { ran.push_back("A2"); });
        EXPECT_EQ(loop->runMode("B", past), Result::Handled);
        EXPECT_EQ(ran, (Strings{"B1", "AB"}));
        EXPECT_EQ(loop->runMode("A", past), Result::Handled);
        EXPECT_EQ(ran, (Strings{"B1", "AB", "A1", "A2"}));
        EXPECT_EQ(loop->runMode("A", past), Result::Handled);
        EXPECT_EQ(ran.back(), "A3");
        // Each block ran once: nothing is left in either mode.
        EXPECT_EQ(loop->runMode("A", past), Result::TimedOut);
        EXPECT_EQ(loop->runMode("B", past), Result::TimedOut);

        // Common modes are resolved when the loop runs, not when work is queued.
        int common = 0;
        loop->performBlock(RunLoop::CommonModes, [&] { ++common; });
        EXPECT_EQ(loop->runMode("Private", past), Result::TimedOut);
        loop->addCommonMode("Private");
        EXPECT_TRUE(loop->commonModes().count("Private") && loop->commonModes().count(RunLoop::DefaultMode));
        EXPECT_EQ(loop->runMode("Private", past), Result::Handled);
        loop->performBlock(RunLoop::CommonModes, [&] { ++common; });
        EXPECT_EQ(loop->runMode(RunLoop::DefaultMode, past), Result::Handled);
        EXPECT_EQ(common, 2);

        // A block that throws leaves the rest queued for the next run.
        loop->performBlock("M", [] { throw std::runtime_error("boom"); });
        loop->performBlock("M", [&] { ++common; });
        EXPECT_THROW(loop->runMode("M", past), std::runtime_error);
        EXPECT_EQ(common, 2);
        EXPECT_EQ(loop->runMode("M", past), Result::Handled);
        EXPECT_EQ(common, 3);
    });
}

TEST(PlatformRunLoop, WaitsEndWithWorkDeadlineWakeUpOrStop) {
    onOwnLoop([](Ref<RunLoop> loop, auto) {
        // No deadline: only the producer's block can end this wait.
        std::atomic<bool> ran{false};
        std::thread producer([&] { loop->performBlock("M", [&] { ran = true; }); });
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), Result::Handled);
        EXPECT_TRUE(ran.load());
        producer.join();

        // Work in another mode does not end the wait early.
        loop->performBlock("Other", [] {});
        const auto start = RunLoop::Clock::now();
        EXPECT_EQ(loop->runMode("M", 50ms), Result::TimedOut);
        EXPECT_GE(RunLoop::Clock::now() - start, 50ms);
        EXPECT_EQ(loop->runMode("Other", 0s), Result::Handled);

        // A wake-up before the run ends the next run at once, and only once.
        loop->wakeUp();
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), Result::Finished);
        EXPECT_EQ(loop->runMode("M", 0s), Result::TimedOut);
        std::thread waker([loop] { loop->wakeUp(); });
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), Result::Finished);
        waker.join();
        std::thread stopper([loop] { loop->stop(); });
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), Result::Stopped);
        stopper.join();
    });
}

TEST(RunLoopSource, SignalsCoalesceAndASignalDuringThePerformCountsAgain) {
    onOwnLoop([](Ref<RunLoop> loop, auto past) {
        int fired = 0;
        Ref<RunLoopSource> source = RunLoopSource::create([&] {
            if (++fired == 2) source->signal();  // re-marked for the next pass, not this one
        });
        loop->addSource(source, "M");
        loop->addSource(source, "M");  // harmless twice
        for (int i = 0; i < 5; ++i) source->signal();
        EXPECT_EQ(loop->runMode("M", past), Result::Handled);
        EXPECT_EQ(fired, 1);
        EXPECT_EQ(loop->runMode("M", past), Result::TimedOut);

        source->signal();
        EXPECT_EQ(loop->runMode("M", past), Result::Handled);
        EXPECT_EQ(fired, 2);
        EXPECT_EQ(loop->runMode("M", past), Result::Handled);
        EXPECT_EQ(fired, 3);
        EXPECT_EQ(loop->runMode("M", past), Result::TimedOut);
        source->invalidate();  // breaks the source -> closure -> source cycle
    });
}

TEST(RunLoopSource, FiresOnlyInItsModesUntilRemovedOrInvalidated) {
    onOwnLoop([](Ref<RunLoop> loop, auto past) {
        int fired = 0;
        auto source = RunLoopSource::create([&] { ++fired; });
        loop->addSource(source, "A");
        loop->addSource(source, "B");
        source->signal();
        EXPECT_EQ(loop->runMode("C", past), Result::TimedOut);
        EXPECT_TRUE(fired == 0 && source->isSignalled());
        loop->removeSource(source, "A");
        EXPECT_FALSE(loop->containsSource(source, "A"));
        EXPECT_EQ(loop->runMode("A", past), Result::TimedOut);
        EXPECT_EQ(loop->runMode("B", past), Result::Handled);
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
        EXPECT_EQ(loop->runMode("B", past), Result::TimedOut);
        loop->addSource(source, "B");  // an invalid source is not taken
        EXPECT_FALSE(loop->containsSource(source, "B"));
        source->signal();
        EXPECT_EQ(loop->runMode("B", past), Result::TimedOut);
        EXPECT_EQ(fired, 1);
        release.set_value();
        other.join();
    });
}

TEST(RunLoopSource, ASignalFromAnotherThreadWakesAWaitingLoop) {
    // Ping-pong: each round the loop waits with no useful deadline and must
    // be woken by the other thread's signal; a lost wake-up hangs the round
    // until the generous deadline and shows as TimedOut.
    onOwnLoop([](Ref<RunLoop> loop, auto) {
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

TEST(PlatformDispatch, SyncMainRunsDirectlyOnMainOtherwiseWaitsForTheMainLoopAndRethrows) {
    int direct = 0;
    dispatchSyncMain([&] { dispatchSyncMain([&] { ++direct; }); });  // nested: still direct, no deadlock
    EXPECT_EQ(direct, 1);

    std::atomic<bool> blockRan{false}, callerResumed{false}, resumedBeforeBlock{false}, ranOnMain{false}, done{false};
    std::string caught;
    std::thread caller([&] {
        dispatchSyncMain([&] {
            ranOnMain = RunLoop::isMainThread();
            resumedBeforeBlock = callerResumed.load();
            blockRan = true;
        });
        callerResumed = true;
        try {
            dispatchSyncMain([] { throw std::runtime_error("main failed"); });
        } catch (const std::runtime_error& e) {
            caught = e.what();
        }
        done = true;
        RunLoop::main()->wakeUp();
    });
    runMainUntil([&] { return done.load(); });
    caller.join();
    EXPECT_TRUE(blockRan.load() && ranOnMain.load());
    EXPECT_FALSE(resumedBeforeBlock.load());
    EXPECT_EQ(caught, "main failed");
}

TEST(PlatformDispatch, AsyncMainReturnsAtOnceAndRunsInOrderOnMain) {
    std::vector<int> order;
    std::thread([&] {
        for (int i = 0; i < 3; ++i) dispatchAsyncMain([&order, i] { order.push_back(i); });
    }).join();  // the caller never waited for the main loop
    EXPECT_TRUE(order.empty());
    runMainUntil([&] { return order.size() == 3; });
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}
