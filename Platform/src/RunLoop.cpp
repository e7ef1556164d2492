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
    if (std::any_of(queue_.begin(), queue_.end(), [&](const Entry& e) { return matches(e, mode); })) return true;
    auto anySignalled = [&](const std::string& key) {
        auto it = sources_.find(key);
        if (it == sources_.end()) return false;
        return std::any_of(it->second.begin(), it->second.end(),
                           [](const Ref<RunLoopSource>& s) { return s->isSignalled() && s->isValid(); });
    };
    return anySignalled(mode) || (mode != CommonModes && commonModes_.count(mode) && anySignalled(CommonModes));
}

std::vector<Ref<RunLoopSource>> RunLoop::signalledSourcesFor(const std::string& mode) const {
    std::vector<Ref<RunLoopSource>> result;
    auto collect = [&](const std::string& key) {
        auto it = sources_.find(key);
        if (it == sources_.end()) return;
        for (const auto& s : it->second)
            if (s->isSignalled() && std::find(result.begin(), result.end(), s) == result.end()) result.push_back(s);
    };
    collect(mode);
    if (mode != CommonModes && commonModes_.count(mode)) collect(CommonModes);
    return result;
}

void RunLoop::addSource(const Ref<RunLoopSource>& source, const std::string& mode) {
    if (!source || !source->isValid()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& list = sources_[mode];
        if (std::find(list.begin(), list.end(), source) != list.end()) return;
        list.push_back(source);
    }
    auto self = std::static_pointer_cast<RunLoop>(weak_from_this().lock());
    if (!self || !source->attach(self)) {
        // Invalidated meanwhile (or a loop not held by a Ref, which no
        // signal could reach): take it out again.
        std::lock_guard<std::mutex> lock(mutex_);
        auto& list = sources_[mode];
        std::erase(list, source);
        return;
    }
    // It may have been signalled before it was added.
    if (source->isSignalled()) wakeCondition_.notify_all();
}

void RunLoop::removeSource(const Ref<RunLoopSource>& source, const std::string& mode) {
    if (!source) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sources_.find(mode);
        if (it == sources_.end() || std::erase(it->second, source) == 0) return;
        if (it->second.empty()) sources_.erase(it);
    }
    source->detach(this);
}

bool RunLoop::containsSource(const Ref<RunLoopSource>& source, const std::string& mode) const {
    if (!source) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    auto holds = [&](const std::string& key) {
        auto it = sources_.find(key);
        return it != sources_.end() && std::find(it->second.begin(), it->second.end(), source) != it->second.end();
    };
    return holds(mode) || (mode != CommonModes && commonModes_.count(mode) && holds(CommonModes));
}

void RunLoop::sourceSignalled() {
    // Taking the mutex orders this wake after a runMode that is between its
    // check for work and its wait: that runMode then sees the signal.
    { std::lock_guard<std::mutex> lock(mutex_); }
    wakeCondition_.notify_all();
}

void RunLoop::purgeSource(const RunLoopSource* source) {
    std::vector<Ref<RunLoopSource>> dropped;  // released after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = sources_.begin(); it != sources_.end();) {
        for (auto s = it->second.begin(); s != it->second.end();) {
            if (s->get() == source) {
                dropped.push_back(std::move(*s));
                s = it->second.erase(s);
            } else {
                ++s;
            }
        }
        it = it->second.empty() ? sources_.erase(it) : std::next(it);
    }
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
    for (;;) {
        std::vector<Entry> ready;
        std::vector<Ref<RunLoopSource>> signalled;
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
            signalled = signalledSourcesFor(mode);
        }
        bool handled = !ready.empty();
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
        // A source's mark is cleared just before its callback, so one that
        // throws leaves the others signalled for the next pass.
        for (const auto& source : signalled) {
            if (!source->take()) continue;  // handled by another loop, or invalidated
            handled = true;
            source->perform();
        }
        if (handled) return RunResult::Handled;
        // Every source we saw was taken by another loop first: wait again.
    }
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
    std::exception_ptr exception;
    {
        std::unique_lock<std::mutex> lock(completion->mutex);
        completion->condition.wait(lock, [&] { return completion->done; });
        exception = std::move(completion->exception);
    }
    // Rethrown from a local: the shared completion may be released on the
    // main thread (with the block's closure) while this thread unwinds.
    if (exception) std::rethrow_exception(exception);
}

void dispatchAsyncMain(std::function<void()> block) {
    RunLoop::main()->performBlock(std::vector<std::string>{RunLoop::CommonModes}, std::move(block));
}

} // namespace qx
