// RunLoop.h - per-thread run loops with named modes, and the main-thread dispatch.
//
// Each thread has one run loop, made on first use. Work is scheduled on a run
// loop for a set of modes and runs only while that loop is run in one of
// them, on the loop's own thread. The pseudo-mode CommonModes stands for every
// mode in the loop's common-modes set (DefaultMode to begin with); membership
// is looked up when the loop runs, so a mode added to the set later also
// picks up work queued for the common modes before.
//
// The main run loop belongs to the process's first thread (gettid() ==
// getpid()); it exists before that thread first asks for it, so other threads
// can queue work on it at any time.
#pragma once

#include <qx/Object.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace qx {

class RunLoop final : public Object {
public:
    using Clock = std::chrono::steady_clock;
    using Block = std::function<void()>;

    static constexpr const char* DefaultMode = "kCFRunLoopDefaultMode";
    static constexpr const char* CommonModes = "kCFRunLoopCommonModes";

    /// Why runMode returned.
    enum class RunResult {
        Finished = 1,  // woken by wakeUp() with nothing to handle
        Stopped = 2,   // stop() was called
        TimedOut = 3,  // the deadline passed with nothing to handle
        Handled = 4,   // queued work ran
    };

    /// The calling thread's run loop.
    static Ref<RunLoop> current();
    /// The run loop of the process's first thread.
    static Ref<RunLoop> main();
    static bool isMainThread();
    /// A deadline that never passes.
    static Clock::time_point distantFuture() { return Clock::time_point::max(); }

    void addCommonMode(const std::string& mode);
    std::set<std::string> commonModes() const;

    /// Queues block to run once, the next time this loop runs in one of modes.
    /// Callable from any thread; wakes the loop.
    void performBlock(const std::vector<std::string>& modes, Block block);
    void performBlock(const std::string& mode, Block block) { performBlock(std::vector<std::string>{mode}, std::move(block)); }

    /// Runs the loop once in mode: waits (without spinning) until work for the
    /// mode is queued, the deadline passes, or stop() / wakeUp() is called;
    /// then runs every block that was queued for the mode at that moment, in
    /// the order queued, and returns. Blocks queued while those run wait for
    /// the next call. Must be called on the loop's own thread; may be nested
    /// inside a block.
    RunResult runMode(const std::string& mode, Clock::time_point deadline);
    RunResult runMode(const std::string& mode, std::chrono::duration<double> timeout) {
        return runMode(mode, deadlineAfter(timeout));
    }

    /// Makes a waiting runMode return (Finished) if it has nothing to do; when
    /// the loop is not waiting, the next runMode returns at once.
    void wakeUp();
    /// Makes the running (or else the next) runMode return Stopped.
    void stop();

    std::string className() const override { return "RunLoop"; }

    RunLoop() = default;

private:
    struct Entry {
        std::vector<std::string> modes;
        Block block;
    };

    static Clock::time_point deadlineAfter(std::chrono::duration<double> timeout);
    bool matches(const Entry& entry, const std::string& mode) const;  // with mutex_ held
    bool hasWorkFor(const std::string& mode) const;                    // with mutex_ held

    mutable std::mutex mutex_;
    std::condition_variable wakeCondition_;
    std::deque<Entry> queue_;
    std::set<std::string> commonModes_{DefaultMode};
    bool wakePending_ = false;
    bool stopPending_ = false;
};

/// Runs block on the main thread and returns when it has run: directly when
/// called there, otherwise queued in the common modes of the main run loop,
/// which the main thread must run. An exception thrown by block is rethrown
/// to the caller.
void dispatchSyncMain(const std::function<void()>& block);
/// Queues block in the common modes of the main run loop and returns at once.
void dispatchAsyncMain(std::function<void()> block);

} // namespace qx
