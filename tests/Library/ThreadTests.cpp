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
    auto thread = Thread::create([&] {
        EXPECT_THROW(Thread::current()->join(), std::logic_error);
        char buffer[32] = {};
        ::pthread_getname_np(::pthread_self(), buffer, sizeof buffer);
        systemName.set_value(buffer);  // also shows the body ran
    });
    thread->setName("a rather long worker name");
    thread->start();
    EXPECT_EQ(systemName.get_future().get(), "a rather long w");
    thread->join();
    EXPECT_EQ(thread->name(), "a rather long worker name");

    auto never = Thread::create([] {});
    never->join();  // never started: nothing to wait for
    EXPECT_FALSE(never->isFinished());
}

TEST(QXThread, TheClosuresCapturesAreReleasedOnItsThreadBeforeJoinReturns) {
    std::atomic<bool> released{false};
    std::thread::id releasedOn;
    std::promise<std::thread::id> ranOn;
    auto gate = Semaphore::create();
    Ref<QXThread> thread;
    {
        std::shared_ptr<int> tracked(nullptr, [&](int*) {  // notes where and when the closure lets go
            releasedOn = std::this_thread::get_id();
            released = true;
        });
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
