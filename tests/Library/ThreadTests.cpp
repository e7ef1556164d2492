// Thread objects: names, joins, lifetime of the body.

#include "TestSupport.h"
#include <QXFoundation/QXThread.h>
#include <qx/Semaphore.h>
#include <qx/Thread.h>

#include <pthread.h>

#include <stdexcept>

using namespace qx;

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
}
