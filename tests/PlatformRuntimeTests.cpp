// PlatformRuntimeTests.cpp - notification centre, run loops and main-thread dispatch.
#include <gtest/gtest.h>

#include <qx/NotificationCenter.h>
#include <qx/Number.h>
#include <qx/RunLoop.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace qx;
using namespace std::chrono_literals;

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

} // namespace

// --- Notification centre --------------------------------------------------

TEST(PlatformNotificationCenter, MatchesByNameAndSender) {
    auto center = freshCenter();
    auto a = newObject();
    auto b = newObject();
    int nameAny = 0, nameA = 0, anyAny = 0, otherName = 0;
    center->addObserver("N", nullptr, [&](const auto&) { ++nameAny; });
    center->addObserver("N", a, [&](const auto&) { ++nameA; });
    center->addObserver("", nullptr, [&](const auto&) { ++anyAny; });
    center->addObserver("M", nullptr, [&](const auto&) { ++otherName; });

    center->post("N", a);
    center->post("N", b);
    center->post("N");
    center->post("X", a);
    EXPECT_EQ(nameAny, 3);
    EXPECT_EQ(nameA, 1);
    EXPECT_EQ(anyAny, 4);
    EXPECT_EQ(otherName, 0);
}

TEST(PlatformNotificationCenter, PassesNotificationAndHoldsSenderWeakly) {
    auto center = freshCenter();
    auto sender = newObject();
    WeakRef<Object> weak = sender;
    int calls = 0;
    Ref<Notification> seen;
    center->addObserver("N", sender, [&](const Ref<Notification>& n) {
        ++calls;
        seen = n;
    });
    auto info = Dictionary::create();
    info->setObject(Number::withInt32(7), "k");
    center->post("N", sender, info);
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(seen->name(), "N");
    EXPECT_EQ(seen->object(), sender);
    EXPECT_EQ(seen->userInfo(), info);
    seen.reset();

    // Registering did not keep the sender alive, and a new object (which may
    // well reuse the address) is not mistaken for it.
    sender.reset();
    EXPECT_TRUE(weak.expired());
    for (int i = 0; i < 8; ++i) center->post("N", newObject());
    EXPECT_EQ(calls, 1);
}

TEST(PlatformNotificationCenter, DeliversOnPostingThreadBeforePostReturns) {
    auto center = freshCenter();
    std::thread::id observedOn;
    bool delivered = false;
    center->addObserver("N", nullptr, [&](const auto&) {
        observedOn = std::this_thread::get_id();
        delivered = true;
    });
    std::thread::id posterId;
    bool deliveredWhenPostReturned = false;
    std::thread poster([&] {
        posterId = std::this_thread::get_id();
        center->post("N");
        deliveredWhenPostReturned = delivered;
    });
    poster.join();
    EXPECT_TRUE(deliveredWhenPostReturned);
    EXPECT_EQ(observedOn, posterId);
}

TEST(PlatformNotificationCenter, CallbacksMayAddAndRemoveObservers) {
    auto center = freshCenter();
    std::vector<std::string> log;
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
    EXPECT_EQ(log, (std::vector<std::string>{"first", "self"}));  // "late" joined after this post began
    log.clear();
    center->post("N");
    EXPECT_EQ(log, (std::vector<std::string>{"first", "late"}));
    center->removeObserver(self);  // already gone
    center->removeObserver(0);
}

TEST(PlatformNotificationCenter, ConcurrentPostsAddsAndRemoves) {
    auto center = freshCenter();
    constexpr int kThreads = 4, kRounds = 300;
    std::atomic<int> stray{0};
    center->addObserver("Stray", nullptr, [&](const auto&) { ++stray; });
    std::vector<std::thread> threads;
    std::vector<int> counts(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string name = "T" + std::to_string(t);
            for (int r = 0; r < kRounds; ++r) {
                auto token = center->addObserver(name, nullptr, [&, t](const auto&) { ++counts[t]; });
                center->post(name);
                center->post("Stray");
                center->removeObserver(token);
                center->post(name);  // nobody listens now
            }
        });
    }
    for (auto& t : threads) t.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(counts[t], kRounds);
    EXPECT_EQ(stray.load(), kThreads * kRounds);
}

// --- Run loops -------------------------------------------------------------

TEST(PlatformRunLoop, OneLoopPerThreadAndMainIsTheFirstThread) {
    EXPECT_TRUE(RunLoop::isMainThread());
    EXPECT_EQ(RunLoop::current(), RunLoop::main());
    EXPECT_EQ(RunLoop::current(), RunLoop::current());
    Ref<RunLoop> a1, a2, b;
    bool aIsMain = true;
    std::thread ta([&] {
        a1 = RunLoop::current();
        a2 = RunLoop::current();
        aIsMain = RunLoop::isMainThread();
    });
    ta.join();
    std::thread tb([&] { b = RunLoop::current(); });
    tb.join();
    EXPECT_FALSE(aIsMain);
    EXPECT_EQ(a1, a2);
    EXPECT_NE(a1, b);
    EXPECT_NE(a1, RunLoop::main());
}

TEST(PlatformRunLoop, RunsOnlyWorkOfTheModeInQueueOrder) {
    std::thread([] {
        auto loop = RunLoop::current();
        std::vector<std::string> ran;
        loop->performBlock("A", [&] {
            ran.push_back("A1");
            loop->performBlock("A", [&] { ran.push_back("A3"); });  // waits for the next run
        });
        loop->performBlock("B", [&] { ran.push_back("B1"); });
        loop->performBlock(std::vector<std::string>{"A", "B"}, [&] { ran.push_back("AB"); });
        loop->performBlock("A", [&] { ran.push_back("A2"); });

        const auto past = RunLoop::Clock::now() - 1s;
        EXPECT_EQ(loop->runMode("B", past), RunLoop::RunResult::Handled);
        EXPECT_EQ(ran, (std::vector<std::string>{"B1", "AB"}));
        EXPECT_EQ(loop->runMode("A", past), RunLoop::RunResult::Handled);
        EXPECT_EQ(ran, (std::vector<std::string>{"B1", "AB", "A1", "A2"}));
        EXPECT_EQ(loop->runMode("A", past), RunLoop::RunResult::Handled);
        EXPECT_EQ(ran.back(), "A3");
        // Each block ran once: nothing is left in either mode.
        EXPECT_EQ(loop->runMode("A", past), RunLoop::RunResult::TimedOut);
        EXPECT_EQ(loop->runMode("B", past), RunLoop::RunResult::TimedOut);
    }).join();
}

TEST(PlatformRunLoop, CommonModesAreResolvedWhenTheLoopRuns) {
    std::thread([] {
        auto loop = RunLoop::current();
        const auto past = RunLoop::Clock::now() - 1s;
        int ran = 0;
        loop->performBlock(RunLoop::CommonModes, [&] { ++ran; });
        EXPECT_EQ(loop->runMode("Private", past), RunLoop::RunResult::TimedOut);
        loop->addCommonMode("Private");
        EXPECT_TRUE(loop->commonModes().count("Private"));
        EXPECT_TRUE(loop->commonModes().count(RunLoop::DefaultMode));
        EXPECT_EQ(loop->runMode("Private", past), RunLoop::RunResult::Handled);
        EXPECT_EQ(ran, 1);
        loop->performBlock(RunLoop::CommonModes, [&] { ++ran; });
        EXPECT_EQ(loop->runMode(RunLoop::DefaultMode, past), RunLoop::RunResult::Handled);
        EXPECT_EQ(ran, 2);
    }).join();
}

TEST(PlatformRunLoop, WaitsUntilWorkArrivesFromAnotherThread) {
    std::thread([] {
        auto loop = RunLoop::current();
        std::atomic<bool> ran{false};
        std::thread producer([&] { loop->performBlock("M", [&] { ran = true; }); });
        // No deadline: only the producer's block can end this wait.
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), RunLoop::RunResult::Handled);
        EXPECT_TRUE(ran.load());
        producer.join();
    }).join();
}

TEST(PlatformRunLoop, DeadlinePassesWhenOnlyOtherModesHaveWork) {
    std::thread([] {
        auto loop = RunLoop::current();
        loop->performBlock("Other", [] {});
        const auto start = RunLoop::Clock::now();
        EXPECT_EQ(loop->runMode("M", 50ms), RunLoop::RunResult::TimedOut);
        EXPECT_GE(RunLoop::Clock::now() - start, 50ms);
        EXPECT_EQ(loop->runMode("Other", 0s), RunLoop::RunResult::Handled);
    }).join();
}

TEST(PlatformRunLoop, WakeUpAndStopEndAWaitWithoutWork) {
    std::thread([] {
        auto loop = RunLoop::current();
        // Called before the run: the next run returns at once, and only once.
        loop->wakeUp();
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), RunLoop::RunResult::Finished);
        EXPECT_EQ(loop->runMode("M", 0s), RunLoop::RunResult::TimedOut);

        std::thread waker([loop] { loop->wakeUp(); });
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), RunLoop::RunResult::Finished);
        waker.join();

        std::thread stopper([loop] { loop->stop(); });
        EXPECT_EQ(loop->runMode("M", RunLoop::distantFuture()), RunLoop::RunResult::Stopped);
        stopper.join();
    }).join();
}

TEST(PlatformRunLoop, ThrowingBlockKeepsTheRestQueued) {
    std::thread([] {
        auto loop = RunLoop::current();
        int after = 0;
        loop->performBlock("M", [] { throw std::runtime_error("boom"); });
        loop->performBlock("M", [&] { ++after; });
        EXPECT_THROW(loop->runMode("M", 0s), std::runtime_error);
        EXPECT_EQ(after, 0);
        EXPECT_EQ(loop->runMode("M", 0s), RunLoop::RunResult::Handled);
        EXPECT_EQ(after, 1);
    }).join();
}

// --- Main-thread dispatch --------------------------------------------------

TEST(PlatformDispatch, SyncMainRunsDirectlyOnTheMainThread) {
    ASSERT_TRUE(RunLoop::isMainThread());
    bool ran = false;
    dispatchSyncMain([&] {
        ran = true;
        dispatchSyncMain([&] { EXPECT_TRUE(ran); });  // nested: still direct, no deadlock
    });
    EXPECT_TRUE(ran);
}

TEST(PlatformDispatch, SyncMainFromAnotherThreadWaitsForTheMainLoop) {
    std::atomic<bool> blockRan{false}, callerResumed{false}, resumedBeforeBlock{false};
    std::atomic<bool> ranOnMain{false};
    std::thread caller([&] {
        dispatchSyncMain([&] {
            ranOnMain = RunLoop::isMainThread();
            resumedBeforeBlock = callerResumed.load();
            blockRan = true;
        });
        callerResumed = true;
    });
    runMainUntil([&] { return blockRan.load(); });
    caller.join();
    EXPECT_TRUE(ranOnMain.load());
    EXPECT_FALSE(resumedBeforeBlock.load());
    EXPECT_TRUE(callerResumed.load());
}

TEST(PlatformDispatch, SyncMainRethrowsToTheCaller) {
    std::atomic<bool> done{false};
    bool caught = false;
    std::thread caller([&] {
        try {
            dispatchSyncMain([] { throw std::runtime_error("main failed"); });
        } catch (const std::runtime_error& e) {
            caught = std::string(e.what()) == "main failed";
        }
        done = true;
        RunLoop::main()->wakeUp();
    });
    runMainUntil([&] { return done.load(); });
    caller.join();
    EXPECT_TRUE(caught);
}

TEST(PlatformDispatch, AsyncMainReturnsAtOnceAndRunsInOrderOnMain) {
    std::vector<int> order;
    std::atomic<bool> queued{false};
    std::thread caller([&] {
        for (int i = 0; i < 3; ++i) dispatchAsyncMain([&order, i] { order.push_back(i); });
        queued = true;
    });
    caller.join();  // the caller never waited for the main loop
    EXPECT_TRUE(queued.load());
    EXPECT_TRUE(order.empty());
    runMainUntil([&] { return order.size() == 3; });
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}
