// RunLoopSource.h - a signalable source whose callback runs on the run loops it is added to.
//
// A source is added to run loops per mode (RunLoop::addSource). signal() may
// be called from any thread: it marks the source and wakes every loop that
// holds it. The next runMode, on any of those loops, in a mode the source was
// added for, clears the mark and calls the perform callback once, however many
// signals arrived before (signals coalesce). A signal that arrives while the
// callback runs marks the source again for a later pass. invalidate() takes
// the source out of every loop; its callback is never called afterwards.
#pragma once

#include <qx/Object.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace qx {

class RunLoop;

class RunLoopSource final : public Object {
public:
    using Perform = std::function<void()>;

    /// A valid, unsignalled source that calls perform when handled.
    static Ref<RunLoopSource> create(Perform perform);

    /// Marks the source and wakes every run loop it is added to. Any thread.
    void signal();
    /// Removes the source from every run loop; later signals do nothing and
    /// the callback is not called again (a call already under way finishes).
    void invalidate();

    bool isValid() const { return valid_.load(std::memory_order_acquire); }
    bool isSignalled() const { return signalled_.load(std::memory_order_acquire); }

    std::string className() const override { return "RunLoopSource"; }

    explicit RunLoopSource(Perform perform);

private:
    friend class RunLoop;

    // Called by RunLoop under its own lock bookkeeping; never with a loop's
    // mutex held, so a signal never waits for a loop that waits for it.
    bool attach(const Ref<RunLoop>& loop);  // false once invalidated
    void detach(const RunLoop* loop);
    /// Clears the mark; true when this caller is the one that should perform.
    bool take() { return isValid() && signalled_.exchange(false, std::memory_order_acq_rel); }
    void perform() const;

    struct Attachment {
        WeakRef<RunLoop> loop;
        const RunLoop* key;
        int modes;  // how many modes of that loop hold the source
    };

    const Perform perform_;
    std::atomic<bool> signalled_{false};
    std::atomic<bool> valid_{true};
    mutable std::mutex mutex_;            // guards loops_
    std::vector<Attachment> loops_;
};

} // namespace qx
