// SerialQueue.cpp - an on-demand worker thread over a FIFO of blocks.
#include <qx/SerialQueue.h>

namespace qx {

// Shared with the worker, so a worker that outlives its queue object (the
// queue was dropped by one of its own blocks) still has its queue to drain.
struct SerialQueue::State {
    std::mutex mutex;
    std::condition_variable idle;  // signalled when the queue runs dry
    std::deque<Block> blocks;
    std::thread worker;            // joinable once started; ends when empty
    bool running = false;          // a worker is between start and its exit
    std::uint64_t queued = 0;      // blocks ever queued
    std::uint64_t finished = 0;    // blocks ever run

    static void run(const std::shared_ptr<State>& state);
};

namespace {
thread_local const void* currentQueueState = nullptr;
}

void SerialQueue::State::run(const std::shared_ptr<State>& state) {
    currentQueueState = state.get();
    std::unique_lock<std::mutex> lock(state->mutex);
    while (!state->blocks.empty()) {
        Block block = std::move(state->blocks.front());
        state->blocks.pop_front();
        lock.unlock();
        block();
        block = nullptr;  // captured objects go before the next block runs
        lock.lock();
        ++state->finished;
        state->idle.notify_all();
    }
    state->running = false;
    state->idle.notify_all();
    currentQueueState = nullptr;
}

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>()), label_(std::move(label)) {}

Ref<SerialQueue> SerialQueue::create(std::string label) { return std::make_shared<SerialQueue>(std::move(label)); }

SerialQueue::~SerialQueue() {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->worker.joinable()) return;
    if (state_->worker.get_id() == std::this_thread::get_id()) {
        // Dropped from one of its own blocks: the worker keeps the state
        // alive and finishes the queue on its own.
        state_->worker.detach();
        return;
    }
    state_->idle.wait(lock, [&] { return !state_->running; });
    std::thread worker = std::move(state_->worker);
    lock.unlock();
    worker.join();
}

void SerialQueue::async(Block block) {
    if (!block) return;
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->blocks.push_back(std::move(block));
    ++state_->queued;
    if (state_->running) return;
    // The previous worker has left its loop (running is false); reap it
    // before starting the next so at most one thread exists per queue.
    if (state_->worker.joinable()) {
        if (state_->worker.get_id() == std::this_thread::get_id())
            state_->worker.detach();  // queued from the exiting worker's last block
        else
            state_->worker.join();
    }
    state_->running = true;
    state_->worker = std::thread(&State::run, state_);
}

void SerialQueue::sync(const Block& block) {
    if (!block) return;
    if (isCurrent()) {
        block();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneCondition;
    bool done = false;
    async([&] {
        block();
        std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
        doneCondition.notify_all();
    });
    std::unique_lock<std::mutex> lock(doneMutex);
    doneCondition.wait(lock, [&] { return done; });
}

void SerialQueue::drain() {
    if (isCurrent()) return;  // the caller's own block is still running
    std::unique_lock<std::mutex> lock(state_->mutex);
    const std::uint64_t target = state_->queued;
    state_->idle.wait(lock, [&] { return state_->finished >= target; });
}

bool SerialQueue::isCurrent() const { return currentQueueState == state_.get(); }

std::string SerialQueue::description() const { return "<SerialQueue " + label_ + ">"; }

} // namespace qx
