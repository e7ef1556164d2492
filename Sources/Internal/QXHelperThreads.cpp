// QXHelperThreads.cpp - helpers that wait for a job, run it, and report back.
#include "Internal/QXHelperThreads.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <unistd.h>

QXHelperThreads& QXHelperThreads::shared() {
    // Never deleted: its threads wait on it until the process ends.
    static QXHelperThreads* const helpers =
        new QXHelperThreads(std::clamp(std::thread::hardware_concurrency(), 1u, 4u) - 1);
    return *helpers;
}

QXHelperThreads::QXHelperThreads(unsigned count) : owner_(::getpid()) {
    for (unsigned i = 0; i < count; ++i) {
        try {
            std::thread([this] { serve(); }).detach();
        } catch (const std::system_error&) {
            break;  // fewer helpers, or none: callers do the rest
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++threads_;
    }
}

void QXHelperThreads::run(const std::function<void()>& job) {
    std::unique_lock<std::mutex> busy(busy_, std::try_to_lock);
    if (!busy || threads_ == 0 || ::getpid() != owner_) {
        job();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = &job;
        pending_ = threads_;
        ++generation_;
    }
    wake_.notify_all();
    job();
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
    job_ = nullptr;
}

void QXHelperThreads::serve() {
    std::uint64_t seen = 0;
    for (;;) {
        const std::function<void()>* job = nullptr;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            // A helper started after the first job still takes part in it:
            // pending_ counted it when it was handed out.
            wake_.wait(lock, [this, seen] { return generation_ != seen && job_; });
            seen = generation_;
            job = job_;
        }
        (*job)();
        std::lock_guard<std::mutex> lock(mutex_);
        if (--pending_ == 0) done_.notify_one();
    }
}
