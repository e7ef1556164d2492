// RunLoop.cpp - mode-keyed work queues, one per thread, and main-thread dispatch.
#include <qx/RunLoop.h>

#include <algorithm>
#include <exception>
#include <unistd.h>

namespace qx {

bool RunLoop::isMainThread() { return ::gettid() == ::getpid(); }

Ref<RunLoop> RunLoop::main() {
    // Never destroyed: threads may still queue work while the process exits.
    static Ref<RunLoop>* const loop = new Ref<RunLoop>(std::make_shared<RunLoop>());
    return *loop;
}

Ref<RunLoop> RunLoop::current() {
    if (isMainThread()) return main();
    thread_local const Ref<RunLoop> loop = std::make_shared<RunLoop>();
    return loop;
}

RunLoop::Clock::time_point RunLoop::deadlineAfter(std::chrono::duration<double> timeout) {
    const auto now = Clock::now();
    if (timeout.count() <= 0) return now;
    // Anything beyond a century is "never" and must not overflow the clock.
    if (timeout > std::chrono::hours(24 * 365 * 100)) return distantFuture();
    return now + std::chrono::duration_cast<Clock::duration>(timeout);
}

void RunLoop::addCommonMode(const std::string& mode) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (mode == CommonModes || !commonModes_.insert(mode).second) return;
    }
    // Work queued for the common modes may now be due in a waiting mode.
    wakeCondition_.notify_all();
}

std::set<std::string> RunLoop::commonModes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commonModes_;
}

bool RunLoop::matches(const Entry& entry, const std::string& mode) const {
    for (const auto& m : entry.modes)
        if (m == mode || (m == CommonModes && commonModes_.count(mode))) return true;
    return false;
}

bool RunLoop::hasWorkFor(const std::string& mode) const {
    return std::any_of(queue_.begin(), queue_.end(), [&](const Entry& e) { return matches(e, mode); });
}

void RunLoop::performBlock(const std::vector<std::string>& modes, Block block) {
    if (!block || modes.empty()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back({modes, std::move(block)});
    }
    wakeCondition_.notify_all();
}

RunLoop::RunResult RunLoop::runMode(const std::string& mode, Clock::time_point deadline) {
    std::vector<Entry> ready;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!hasWorkFor(mode)) {
            if (stopPending_) {
                stopPending_ = false;
                return RunResult::Stopped;
            }
            if (wakePending_) {
                wakePending_ = false;
                return RunResult::Finished;
            }
            if (deadline == distantFuture()) {
                wakeCondition_.wait(lock);
            } else {
                if (Clock::now() >= deadline) return RunResult::TimedOut;
                wakeCondition_.wait_until(lock, deadline);
            }
        }
        for (auto it = queue_.begin(); it != queue_.end();) {
            if (matches(*it, mode)) {
                ready.push_back(std::move(*it));
                it = queue_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (std::size_t i = 0; i < ready.size(); ++i) {
        try {
            ready[i].block();
        } catch (...) {
            // The blocks after the one that threw keep their turn.
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.insert(queue_.begin(), std::make_move_iterator(ready.begin() + static_cast<std::ptrdiff_t>(i) + 1),
                          std::make_move_iterator(ready.end()));
            throw;
        }
    }
    return RunResult::Handled;
}

void RunLoop::wakeUp() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        wakePending_ = true;
    }
    wakeCondition_.notify_all();
}

void RunLoop::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopPending_ = true;
    }
    wakeCondition_.notify_all();
}

void dispatchSyncMain(const std::function<void()>& block) {
    if (RunLoop::isMainThread()) {
        block();
        return;
    }
    struct Completion {
        std::mutex mutex;
        std::condition_variable condition;
        bool done = false;
        std::exception_ptr exception;
    };
    auto completion = std::make_shared<Completion>();
    // block is captured by reference: this thread waits below until it has run.
    RunLoop::main()->performBlock(std::vector<std::string>{RunLoop::CommonModes}, [completion, &block] {
        std::exception_ptr exception;
        try {
            block();
        } catch (...) {
            exception = std::current_exception();
        }
        {
            // Moved, not copied: once done is set this thread must hold no
            // reference to the exception the caller is about to rethrow.
            std::lock_guard<std::mutex> lock(completion->mutex);
            completion->exception = std::move(exception);
            completion->done = true;
        }
        completion->condition.notify_one();
    });
    std::unique_lock<std::mutex> lock(completion->mutex);
    completion->condition.wait(lock, [&] { return completion->done; });
    if (completion->exception) std::rethrow_exception(completion->exception);
}

void dispatchAsyncMain(std::function<void()> block) {
    RunLoop::main()->performBlock(std::vector<std::string>{RunLoop::CommonModes}, std::move(block));
}

} // namespace qx
