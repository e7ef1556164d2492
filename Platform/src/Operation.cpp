// Operation.cpp - the ready / executing / finished life cycle.
#include "OperationQueueState.h"

#include <qx/Operation.h>

#include <algorithm>

namespace qx {

Operation::~Operation() = default;

void Operation::start() {
    bool skip;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::Ready) return;
        state_ = State::Executing;
        // Cancelled before it ran: it still has to finish so that waiters
        // and the queue move on.
        skip = cancelled_;
    }
    if (!skip) {
        try {
            main();
        } catch (...) {
            // See main(): the operation's work owns its failures.
        }
        if (isAsynchronous()) return;
    }
    finish();
}

void Operation::cancel() {
    bool wasReady;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (cancelled_ || state_ == State::Finished) return;
        cancelled_ = true;
        wasReady = state_ == State::Ready;
    }
    // A cancelled operation is ready whatever its dependencies say.
    if (wasReady) dependencyFinished();
}

void Operation::finish() {
    Block completion;
    std::vector<WeakRef<Operation>> dependents;
    std::shared_ptr<OperationQueueState> queue;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == State::Finished) return;
        state_ = State::Finished;
        completion = std::move(completion_);
        completion_ = nullptr;
        dependents.swap(dependents_);
        queue = queue_.lock();
        queue_.reset();
        // Dependencies are kept so that dependencies() still answers, but
        // a finished operation needs them no more.
    }
    finishedCondition_.notify_all();
    if (queue) queue->operationFinished(this);
    for (const auto& weak : dependents)
        if (auto dependent = weak.lock()) dependent->dependencyFinished();
    if (completion) completion();
}

void Operation::dependencyFinished() {
    std::shared_ptr<OperationQueueState> queue;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue = queue_.lock();
    }
    if (queue) queue->readinessChanged();
}

bool Operation::isReady() const {
    std::vector<Ref<Operation>> dependencies;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::Ready) return false;
        if (cancelled_) return true;
        dependencies = dependencies_;
    }
    return std::all_of(dependencies.begin(), dependencies.end(), [](const Ref<Operation>& d) { return d->isFinished(); });
}

bool Operation::isExecuting() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_ == State::Executing;
}

bool Operation::isFinished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_ == State::Finished;
}

bool Operation::isCancelled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
}

void Operation::addDependency(const Ref<Operation>& op) {
    if (!op || op.get() == this) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (std::find(dependencies_.begin(), dependencies_.end(), op) != dependencies_.end()) return;
        dependencies_.push_back(op);
    }
    bool finishedAlready;
    {
        std::lock_guard<std::mutex> lock(op->mutex_);
        finishedAlready = op->state_ == State::Finished;
        if (!finishedAlready) op->dependents_.push_back(std::static_pointer_cast<Operation>(shared_from_this()));
    }
    if (finishedAlready) dependencyFinished();
}

void Operation::removeDependency(const Ref<Operation>& op) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (std::erase(dependencies_, op) == 0) return;
    }
    dependencyFinished();  // may have been the last one waited for
}

std::vector<Ref<Operation>> Operation::dependencies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return dependencies_;
}

void Operation::setCompletionBlock(Block block) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::Finished) {
            completion_ = std::move(block);
            return;
        }
    }
    // Finished already: the block would otherwise never run.
    if (block) block();
}

void Operation::waitUntilFinished() const {
    std::unique_lock<std::mutex> lock(mutex_);
    finishedCondition_.wait(lock, [&] { return state_ == State::Finished; });
}

bool Operation::waitUntilFinished(Clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    if (deadline == Clock::time_point::max()) {
        finishedCondition_.wait(lock, [&] { return state_ == State::Finished; });
        return true;
    }
    return finishedCondition_.wait_until(lock, deadline, [&] { return state_ == State::Finished; });
}

std::string Operation::name() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return name_;
}

void Operation::setName(std::string name) {
    std::lock_guard<std::mutex> lock(mutex_);
    name_ = std::move(name);
}

Ref<BlockOperation> BlockOperation::create(Block block) {
    auto op = std::make_shared<BlockOperation>();
    op->addExecutionBlock(std::move(block));
    return op;
}

void BlockOperation::addExecutionBlock(Block block) {
    if (!block) return;
    std::lock_guard<std::mutex> lock(blocksMutex_);
    if (!taken_) blocks_.push_back(std::move(block));
}

void BlockOperation::main() {
    std::vector<Block> blocks;
    {
        std::lock_guard<std::mutex> lock(blocksMutex_);
        taken_ = true;
        blocks.swap(blocks_);
    }
    // The blocks, and what they captured, are released before the
    // operation counts as finished.
    for (auto& block : blocks) block();
}

} // namespace qx
