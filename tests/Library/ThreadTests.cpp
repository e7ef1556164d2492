// Thread objects: their own run loop, names, joins, lifetime of the body.
#include <QXFoundation/QXThread.h>
#include <qx/RunLoop.h>
#include <qx/Semaphore.h>
#include <qx/Thread.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <future>
#include <stdexcept>

using namespace qx;
using namespace std::chrono_literals;

TEST(Thread, BodyRunsOnItsOwnThreadWithAUsableRunLoop) {
    std::promise<Ref<RunLoop>> loopOfThread;
    std::atomic<bool> sawItself{false}, sawMain{true};
    RunLoop::RunResult result{};
    Ref<Thread> thread;
    thread = Thread::create([&] {
        sawItself = Thread::current() == thread;
        sawMain = Thread::isMainThread();
        auto loop = RunLoop::current();
        loopOfThread.set_value(loop);
        result = loop->runMode("work", 60s);  // woken by the block queued from the test thread
    });
    EXPECT_FALSE(thread->isExecuting());
    EXPECT_TRUE(thread->start());
    EXPECT_FALSE(thread->start());
    auto loop = loopOfThread.get_future().get();
    EXPECT_NE(loop, RunLoop::main());
    int ran = 0;
    loop->performBlock("work", [&] { ++ran; });
    thread->join();
    thread->join();  // joining again returns at once
    EXPECT_TRUE(thread->isFinished() && !thread->isExecuting());
    EXPECT_EQ(result, RunLoop::RunResult::Handled);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(sawItself && !sawMain);
    EXPECT_TRUE(Thread::isMainThread());
    EXPECT_EQ(Thread::current(), nullptr);
}

TEST(Thread, NamesReachTheSystemAndJoiningItselfIsRefused) {
    std::promise<std::string> systemName;
    std::promise<bool> selfJoinRefused;
    auto thread = Thread::create([&] {
        char buffer[32] = {};
        ::pthread_getname_np(::pthread_self(), buffer, sizeof buffer);
        systemName.set_value(buffer);
        try {
            Thread::current()->join();
            selfJoinRefused.set_value(false);
        } catch (const std::logic_error&) {
            selfJoinRefused.set_value(true);
        }
    });
    thread->setName("a rather long worker name");
    thread->start();
    EXPECT_EQ(systemName.get_future().get(), "a rather long w");
    EXPECT_TRUE(selfJoinRefused.get_future().get());
    thread->join();
    EXPECT_EQ(thread->name(), "a rather long worker name");

    auto never = Thread::create([] {});
    never->join();  // never started: nothing to wait for
    EXPECT_FALSE(never->isFinished());
}

TEST(Thread, AStartedThreadOutlivesItsLastOutsideReference) {
    auto gate = Semaphore::create();
    auto reached = Semaphore::create();
    WeakRef<Thread> weak;
    {
        auto thread = Thread::detachNewThread([gate, reached] {
            reached->signal();
            gate->wait();
        });
        weak = thread;
    }
    reached->wait();
    auto again = weak.lock();
    ASSERT_NE(again, nullptr);
    gate->signal();
    again->join();
}

TEST(QXThread, TheClosuresCapturesAreReleasedOnItsThreadBeforeJoinReturns) {
    struct Tracked {
        Tracked(std::atomic<bool>* r, std::thread::id* on) : released(r), releasedOn(on) {}
        Tracked(const Tracked&) = delete;
        std::atomic<bool>* released;
        std::thread::id* releasedOn;
        ~Tracked() {
            *releasedOn = std::this_thread::get_id();
            released->store(true);
        }
    };
    std::atomic<bool> released{false};
    std::thread::id releasedOn;
    std::promise<std::thread::id> ranOn;
    auto gate = Semaphore::create();
    Ref<QXThread> thread;
    {
        auto tracked = std::make_shared<Tracked>(&released, &releasedOn);
        thread = QXThread::detachNewThreadWithClosure([tracked, gate, &ranOn] {
            gate->wait();  // the test lets go of its own reference first
            ranOn.set_value(std::this_thread::get_id());
        });
        ASSERT_NE(thread, nullptr);
    }
    EXPECT_FALSE(released.load());
    gate->signal();
    thread->join();
    EXPECT_TRUE(released.load());
    EXPECT_EQ(releasedOn, ranOn.get_future().get());

    int ran = 0;
    auto later = QXThread::initWithClosure([&] { ++ran; });  // not started until asked
    EXPECT_TRUE(later->start());
    later->join();
    EXPECT_EQ(ran, 1);
}
