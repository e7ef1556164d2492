// OperationQueueState.h - the part of a queue that its workers and operations share.
//
// Kept apart from OperationQueue so that workers and finishing operations can
// reach it after the queue object itself has been dropped.
#pragma once

#include <qx/Operation.h>
#include <qx/OperationQueue.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace qx {

struct OperationQueueState : std::enable_shared_from_this<OperationQueueState> {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;  // the generation moved
    std::condition_variable workAvailable;    // handoff gained an operation
    std::deque<Ref<Operation>> pending;       // added, not yet started, in order
    std::vector<Ref<Operation>> executing;    // started (or handed to a worker), not finished
    std::deque<Ref<Operation>> handoff;       // subset of executing not yet taken by a worker
    std::uint64_t generation = 0;
    int maxConcurrent = OperationQueue::DefaultMaxConcurrentOperationCount;
    int workers = 0;      // worker threads alive
    int idleWorkers = 0;  // of those, waiting for a handoff
    int busyWorkers = 0;  // of those, inside an operation's start()
    bool suspended = false;
    std::string name;
    WeakRef<OperationQueue> owner;

    // With mutex held: start what may start, on idle or new workers.
    // freeingWorker: the caller is a worker about to come back for more.
    void pump(bool freeingWorker = false);
    // Called by an operation when it has finished.
    void operationFinished(const Operation* op);
    // Locks and pumps: a dependency of a pending operation finished.
    void readinessChanged();

    std::size_t capacity() const;  // with mutex held
    void bump();                   // with mutex held: the count changed

    static void work(std::shared_ptr<OperationQueueState> state);
};

} // namespace qx
