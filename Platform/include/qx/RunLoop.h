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
//
// Sources (RunLoopSource) are added per mode as well; a signalled source is
// handled by the next runMode in one of its modes, after the queued blocks.
#pragma once

#include <qx/Object.h>
#include <qx/RunLoopSource.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
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
        Handled = 4,   // queued blocks or signalled sources ran
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

    /// Adds source to this loop for mode (or the common modes). Adding it
    /// twice for one mode is harmless; an invalidated source is not added.
    /// The loop keeps the source alive until it is removed or invalidated.
    void addSource(const Ref<RunLoopSource>& source, const std::string& mode);
    void removeSource(const Ref<RunLoopSource>& source, const std::string& mode);
    /// True when the source would be handled while the loop runs mode: added
    /// for it, or for CommonModes and mode is one of the common modes.
    bool containsSource(const Ref<RunLoopSource>& source, const std::string& mode) const;

    /// Runs the loop once in mode: waits (without spinning) until work for the
    /// mode is queued or a source of the mode is signalled, the deadline
    /// passes, or stop() / wakeUp() is called; then runs every block that was
    /// queued for the mode at that moment, in the order queued, then performs
    /// each signalled source of the mode once, and returns. Work queued or
    /// signalled while those run waits for the next call. Must be called on
    /// the loop's own thread; may be nested inside a block or a source.
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
    friend class RunLoopSource;

    struct Entry {
        std::vector<std::string> modes;
        Block block;
    };

    static Clock::time_point deadlineAfter(std::chrono::duration<double> timeout);
    bool matches(const Entry& entry, const std::string& mode) const;  // with mutex_ held
    bool hasWorkFor(const std::string& mode) const;                    // with mutex_ held
    std::vector<Ref<RunLoopSource>> signalledSourcesFor(const std::string& mode) const;  // with mutex_ held
    // For RunLoopSource: wake a waiting runMode after a signal, and drop a
    // source that was invalidated, from every mode.
    void sourceSignalled();
    void purgeSource(const RunLoopSource* source);

    mutable std::mutex mutex_;
    std::condition_variable wakeCondition_;
    std::deque<Entry> queue_;
    std::map<std::string, std::vector<Ref<RunLoopSource>>> sources_;  // by mode, in order added
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
