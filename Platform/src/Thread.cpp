// Thread.cpp - detached system threads that keep their Thread object alive.
#include <qx/RunLoop.h>
#include <qx/Thread.h>

#include <pthread.h>

#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace qx {

namespace {
thread_local Thread* currentThread = nullptr;
}

Thread::Thread(Body body) : body_(std::move(body)) {}

Ref<Thread> Thread::create(Body body) { return std::make_shared<Thread>(std::move(body)); }

Ref<Thread> Thread::detachNewThread(Body body) {
    auto thread = create(std::move(body));
    thread->start();
    return thread;
}

void Thread::main() {
    // Moved out, so what the body captured is released when it ends, on
    // this thread, before the thread counts as finished.
    Body body = std::move(body_);
    body_ = nullptr;
    if (body) body();
}

bool Thread::start() {
    std::string name;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (started_) return false;
        started_ = true;
        name = name_;
    }
    auto self = std::static_pointer_cast<Thread>(shared_from_this());
    try {
        std::thread([self, name] {
            currentThread = self.get();
            if (!name.empty()) applySystemName(name);
            try {
                self->main();
            } catch (...) {
                // An exception may not end the process from a thread the
                // caller cannot reach; the body owns its own failures.
            }
            currentThread = nullptr;
            {
                std::lock_guard<std::mutex> lock(self->mutex_);
                self->finished_ = true;
            }
            self->finishedCondition_.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        std::lock_guard<std::mutex> lock(mutex_);
        started_ = false;
        return false;
    }
    return true;
}

void Thread::join() {
    if (currentThread == this) throw std::logic_error("a thread cannot join itself");
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_) return;
    finishedCondition_.wait(lock, [&] { return finished_; });
}

bool Thread::isExecuting() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return started_ && !finished_;
}

bool Thread::isFinished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
}

std::string Thread::name() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return name_;
}

void Thread::setName(std::string name) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        name_ = name;
    }
    if (currentThread == this) applySystemName(name);
}

void Thread::applySystemName(const std::string& name) {
    // Linux keeps 15 bytes and rejects longer names outright.
    ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
}

Ref<Thread> Thread::current() {
    if (!currentThread) return nullptr;
    return std::static_pointer_cast<Thread>(currentThread->shared_from_this());
}

bool Thread::isMainThread() { return RunLoop::isMainThread(); }

std::string Thread::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return "<" + className() + ": " + address + ">{name = " + name() + "}";
}

} // namespace qx
