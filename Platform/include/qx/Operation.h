// Operation.h - a unit of work with a life cycle that queues and waiters can follow.
//
// An operation is ready, then executing, then finished; it can be cancelled
// at any point, which is only a request: a cancelled operation that has not
// started finishes as soon as it is started, without running its work, and
// one that runs is expected to look at isCancelled() and stop early.
//
// A synchronous operation's work is main(); start() runs it on the calling
// thread and the operation is finished when main() returns. An asynchronous
// operation (isAsynchronous() true) only begins its work in main(); it stays
// executing after start() returns, holding its place in the queue, until it
// calls finish() itself, from any thread.
//
// Dependencies: an operation is not ready until every operation it depends
// on has finished (cancelled or not). A cancelled operation is always ready,
// so that it can be started and finish.
#pragma once

#include <qx/Object.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace qx {

struct OperationQueueState;
class OperationQueue;

class Operation : public Object {
public:
    using Block = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    /// Runs the operation on the calling thread (a queue calls it on a worker
    /// of its own). Does nothing when the operation was started before.
    void start();
    /// Marks the operation cancelled; see the file comment.
    void cancel();
    /// Announces the end of an asynchronous operation's work: the operation
    /// becomes finished, its waiters wake and its queue releases its place.
    /// Harmless when already finished; also called by start() for a
    /// synchronous operation when main() returns.
    void finish();

    virtual bool isAsynchronous() const { return false; }
    bool isReady() const;
    bool isExecuting() const;
    bool isFinished() const;
    bool isCancelled() const;

    /// This operation is not ready before op has finished. Cycles are the
    /// caller's fault: the operations involved never become ready.
    void addDependency(const Ref<Operation>& op);
    void removeDependency(const Ref<Operation>& op);
    std::vector<Ref<Operation>> dependencies() const;

    /// Runs once after the operation has finished, on the finishing thread
    /// (for a queued synchronous operation, its worker): keep it short.
    void setCompletionBlock(Block block);

    /// Blocks until the operation has finished. Must not be called from the
    /// operation's own work.
    void waitUntilFinished() const;
    /// As waitUntilFinished, giving up at deadline; true when finished.
    bool waitUntilFinished(Clock::time_point deadline) const;

    std::string name() const;
    void setName(std::string name);

    std::string className() const override { return "Operation"; }

    ~Operation() override;

protected:
    Operation() = default;
    /// The work. A synchronous operation does all of it here; an
    /// asynchronous one begins it and calls finish() when done. An exception
    /// thrown here is swallowed: a synchronous operation then just finishes.
    virtual void main() {}

private:
    friend struct OperationQueueState;
    friend class OperationQueue;
    enum class State { Ready, Executing, Finished };

    void dependencyFinished();

    mutable std::mutex mutex_;
    mutable std::condition_variable finishedCondition_;
    State state_ = State::Ready;
    bool cancelled_ = false;
    std::string name_;
    Block completion_;
    std::vector<Ref<Operation>> dependencies_;
    std::vector<WeakRef<Operation>> dependents_;
    std::weak_ptr<OperationQueueState> queue_;  // set while queued
};

/// An operation that runs blocks, in the order added, on the thread that
/// starts it. Blocks must not throw; they should look at isCancelled() when
/// they run long.
class BlockOperation final : public Operation {
public:
    static Ref<BlockOperation> create(Block block = nullptr);
    /// Adds a block; ignored once the operation has started.
    void addExecutionBlock(Block block);

    std::string className() const override { return "BlockOperation"; }

    BlockOperation() = default;

protected:
    void main() override;

private:
    std::mutex blocksMutex_;
    std::vector<Block> blocks_;
    bool taken_ = false;
};

} // namespace qx
