// QXThread.h - a thread object that runs one closure.
#pragma once

#include <qx/Thread.h>

#include <functional>

/// A thread whose body is one closure, run inside a scope of its own: what
/// the closure captured is released on the thread as soon as it returns, so a
/// closure that holds an object keeps it alive exactly as long as it runs.
/// Everything else (name, start, join, the thread's run loop) is qx::Thread's.
class QXThread : public qx::Thread {
public:
    using Closure = std::function<void()>;

    /// A thread, not yet started, that will run closure.
    static qx::Ref<QXThread> initWithClosure(Closure closure);
    /// Makes a thread for closure and starts it; the thread is returned so
    /// the caller may name or join it, but need not be kept.
    static qx::Ref<QXThread> detachNewThreadWithClosure(Closure closure);

    std::string className() const override { return "QXThread"; }

    explicit QXThread(Closure closure);

protected:
    void main() override;

private:
    Closure closure_;
};
