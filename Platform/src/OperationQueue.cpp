// OperationQueue.cpp - pending operations handed to a pool of short-lived workers.
#include "OperationQueueState.h"

#include <qx/OperationQueue.h>

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <thread>

namespace qx {

namespace {
// How long an idle worker waits for more work before it ends: long enough
// that a queue fed in bursts does not make a thread per operation.
constexpr auto workerKeepAlive = std::chrono::seconds(2);
thread_local OperationQueueState* currentState = nullptr;
thread_local const Operation* currentOperation = nullptr;  // started by this worker
} // namespace

std::size_t OperationQueueState::capacity() const {
    if (maxConcurrent >= 0) return static_cast<std::size_t>(maxConcurrent);
    // Asked once: the system answers by reading a file, far too slow for
    // every operation start.
    static const std::size_t hardware = std::max(1u, std::thread::hardware_concurrency());
    return hardware;
}

void OperationQueueState::bump() {
    ++generation;
    changed.notify_all();
}

void OperationQueueState::pump(bool freeingWorker) {
    if (suspended) return;
    while (executing.size() < capacity()) {
        auto it = std::find_if(pending.begin(), pending.end(), [](const Ref<Operation>& op) { return op->isReady(); });
        if (it == pending.end()) break;
        executing.push_back(*it);
        handoff.push_back(std::move(*it));
        pending.erase(it);
    }
    if (handoff.empty()) return;
    // Every worker not inside an operation will look at the handoff before
    // it idles or ends (and so will the caller, when it is a worker whose
    // operation just finished); new workers are made only for the rest, so
    // a stream of small operations reuses the same threads.
    const std::size_t coming = static_cast<std::size_t>(workers - busyWorkers + (freeingWorker ? 1 : 0));
    std::size_t spawn = handoff.size() > coming ? handoff.size() - coming : 0;
    for (std::size_t i = 0; i < spawn; ++i) {
        try {
            std::thread(work, shared_from_this()).detach();
            ++workers;
        } catch (const std::system_error&) {
            // No thread to be had: the workers there are will take the
            // handed-off operations in turn.
            if (workers == 0 && idleWorkers == 0) break;
        }
    }
    // One idle worker per operation: waking them all for a single one
    // costs a context switch each on a busy machine.
    const std::size_t wake = std::min(handoff.size(), static_cast<std::size_t>(idleWorkers));
    for (std::size_t i = 0; i < wake; ++i) workAvailable.notify_one();
}

void OperationQueueState::work(std::shared_ptr<OperationQueueState> state) {
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        if (!state->handoff.empty()) {
            Ref<Operation> op = std::move(state->handoff.front());
            state->handoff.pop_front();
            ++state->busyWorkers;
            lock.unlock();
            currentState = state.get();
            currentOperation = op.get();
            op->start();
            currentOperation = nullptr;
            currentState = nullptr;
            op.reset();  // the last reference may go here, outside the lock
            lock.lock();
            --state->busyWorkers;
            continue;
        }
        ++state->idleWorkers;
        const bool gotWork =
            state->workAvailable.wait_for(lock, workerKeepAlive, [&] { return !state->handoff.empty(); });
        --state->idleWorkers;
        if (!gotWork) break;
    }
    --state->workers;
}

void OperationQueueState::operationFinished(const Operation* op) {
    Ref<Operation> released;  // dropped after the lock
    std::lock_guard<std::mutex> lock(mutex);
    auto it = std::find_if(executing.begin(), executing.end(), [&](const Ref<Operation>& e) { return e.get() == op; });
    if (it != executing.end()) {
        released = std::move(*it);
        executing.erase(it);
    } else {
        // Finished without being started by us (someone called finish()
        // or start() on it directly while it waited here).
        auto p = std::find_if(pending.begin(), pending.end(), [&](const Ref<Operation>& e) { return e.get() == op; });
        if (p == pending.end()) return;
        released = std::move(*p);
        pending.erase(p);
    }
    bump();
    pump(currentState == this && currentOperation == op);
}

void OperationQueueState::readinessChanged() {
    std::lock_guard<std::mutex> lock(mutex);
    pump();
}

OperationQueue::OperationQueue(std::string name) : state_(std::make_shared<OperationQueueState>()) {
    state_->name = std::move(name);
}

Ref<OperationQueue> OperationQueue::create(std::string name) {
    auto queue = std::make_shared<OperationQueue>(std::move(name));
    queue->state_->owner = queue;
    return queue;
}

Ref<OperationQueue> OperationQueue::currentQueue() {
    if (!currentState) return nullptr;
    std::lock_guard<std::mutex> lock(currentState->mutex);
    return currentState->owner.lock();
}

bool OperationQueue::addOperation(const Ref<Operation>& op) {
    if (!op) return false;
    {
        std::lock_guard<std::mutex> opLock(op->mutex_);
        if (op->state_ != Operation::State::Ready || !op->queue_.expired()) return false;
        op->queue_ = state_;
    }
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->pending.push_back(op);
    state_->bump();
    state_->pump();
    return true;
}

bool OperationQueue::addOperationWithBlock(Operation::Block block) {
    if (!block) return false;
    return addOperation(BlockOperation::create(std::move(block)));
}

void OperationQueue::addOperations(const std::vector<Ref<Operation>>& ops, bool waitUntilFinished) {
    for (const auto& op : ops) addOperation(op);
    if (!waitUntilFinished) return;
    for (const auto& op : ops)
        if (op) op->waitUntilFinished();
}

std::vector<Ref<Operation>> OperationQueue::operations() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    // Started ones were added before every pending one still waiting
    // behind them, except for those that skipped ahead while not ready;
    // the order added is kept among each group.
    std::vector<Ref<Operation>> all(state_->executing.begin(), state_->executing.end());
    all.insert(all.end(), state_->pending.begin(), state_->pending.end());
    return all;
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->executing.size() + state_->pending.size();
}

std::uint64_t OperationQueue::operationCountGeneration() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->generation;
}

std::uint64_t OperationQueue::waitForOperationCountChange(std::uint64_t since) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait(lock, [&] { return state_->generation != since; });
    return state_->generation;
}

std::uint64_t OperationQueue::waitForOperationCountChange(std::uint64_t since, Clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (deadline == Clock::time_point::max())
        state_->changed.wait(lock, [&] { return state_->generation != since; });
    else
        state_->changed.wait_until(lock, deadline, [&] { return state_->generation != since; });
    return state_->generation;
}

void OperationQueue::cancelAllOperations() {
    for (const auto& op : operations()) op->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait(lock, [&] { return state_->executing.empty() && state_->pending.empty(); });
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->maxConcurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->maxConcurrent = count < 0 ? DefaultMaxConcurrentOperationCount : count;
    state_->pump();
}

bool OperationQueue::isSuspended() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->suspended;
}

void OperationQueue::setSuspended(bool suspended) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->suspended = suspended;
    state_->pump();
}

std::string OperationQueue::name() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->name;
}

void OperationQueue::setName(std::string name) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->name = std::move(name);
}

std::string OperationQueue::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return "<OperationQueue: " + std::string(address) + ">{name = '" + name() + "'}";
}

} // namespace qx
