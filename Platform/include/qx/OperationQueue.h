// OperationQueue.h - runs operations on worker threads, at most N at a time.
//
// Operations start in the order they were added, skipping those not yet
// ready, on worker threads of the queue; an executing operation, synchronous
// or asynchronous, holds one of maxConcurrentOperationCount places until it
// has finished. A suspended queue starts nothing new. Workers are made when
// work arrives and end after a short idle spell, so an idle queue costs no
// thread for long. Dropping the queue does not cancel or wait: operations
// already in it still run (unless it is suspended).
//
// operationCount counts operations added and not yet finished. Each change of
// it bumps a generation number, so a waiter that reads the generation before
// looking at the queue and then waits for it to move cannot miss a change
// that happens in between.
#pragma once

#include <qx/Operation.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qx {

class OperationQueue final : public Object {
public:
    using Clock = std::chrono::steady_clock;

    /// maxConcurrentOperationCount's default: one place per hardware thread.
    static constexpr int DefaultMaxConcurrentOperationCount = -1;

    static Ref<OperationQueue> create(std::string name = {});
    /// The queue whose worker runs the caller's operation (during start(), and
    /// so during a synchronous operation's main()), or null.
    static Ref<OperationQueue> currentQueue();

    /// Adds op and returns at once. False (and nothing done) when op is
    /// null, already in a queue, or started or finished before.
    bool addOperation(const Ref<Operation>& op);
    bool addOperationWithBlock(Operation::Block block);
    /// Adds all of ops; with waitUntilFinished, returns when they have finished.
    void addOperations(const std::vector<Ref<Operation>>& ops, bool waitUntilFinished);

    /// The operations added and not yet finished, in the order added.
    std::vector<Ref<Operation>> operations() const;
    std::size_t operationCount() const;
    std::uint64_t operationCountGeneration() const;
    /// Blocks until the generation differs from since; returns the new one.
    std::uint64_t waitForOperationCountChange(std::uint64_t since) const;
    /// As above, giving up at deadline (then since is returned).
    std::uint64_t waitForOperationCountChange(std::uint64_t since, Clock::time_point deadline) const;

    void cancelAllOperations();
    /// Blocks until the queue is empty (operations added meanwhile included).
    /// Must not be called from one of the queue's own operations.
    void waitUntilAllOperationsAreFinished() const;

    int maxConcurrentOperationCount() const;
    /// -1 for the default; 0 starts nothing until raised.
    void setMaxConcurrentOperationCount(int count);
    bool isSuspended() const;
    void setSuspended(bool suspended);
    std::string name() const;
    void setName(std::string name);

    std::string className() const override { return "OperationQueue"; }
    std::string description() const override;

    explicit OperationQueue(std::string name);

private:
    std::shared_ptr<OperationQueueState> state_;
};

} // namespace qx
