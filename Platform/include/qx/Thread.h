// Thread.h - a thread object that runs one body, with a name and a join.
//
// The thread is made by create() and begins only at start(). The object is
// kept alive by its own thread until the body has returned, so a caller may
// start a thread and let go of it. Inside the body RunLoop::current() is the
// thread's own run loop, made on first use, and Thread::current() is this
// object. join() waits for the body to return; it may be called from any
// number of threads, before or after the end, but not from the thread itself.
#pragma once

#include <qx/Object.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace qx {

class Thread : public Object {
public:
    using Body = std::function<void()>;

    static Ref<Thread> create(Body body);
    /// create() then start(); the thread runs on its own.
    static Ref<Thread> detachNewThread(Body body);

    /// Starts the thread; false when it was started before or the system
    /// cannot make another thread.
    bool start();
    /// Waits until the body has returned. Returns at once for a thread that
    /// was never started. Throws std::logic_error when called by the thread
    /// itself, which would otherwise wait forever.
    void join();

    bool isExecuting() const;
    bool isFinished() const;

    /// The name; the system name of the thread follows it (cut to the 15
    /// bytes Linux keeps) when set before start() or by the thread itself.
    std::string name() const;
    void setName(std::string name);

    /// The Thread object running the caller, or null for a thread that no
    /// Thread started (the main thread, for one).
    static Ref<Thread> current();
    static bool isMainThread();

    std::string className() const override { return "Thread"; }
    std::string description() const override;

    explicit Thread(Body body);

protected:
    /// The thread's work: runs the body. Subclasses may run something else.
    virtual void main();

private:
    static void applySystemName(const std::string& name);

    Body body_;
    mutable std::mutex mutex_;
    std::condition_variable finishedCondition_;
    std::string name_;
    bool started_ = false;
    bool finished_ = false;
};

} // namespace qx
