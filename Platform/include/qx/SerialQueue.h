// SerialQueue.h - a labelled queue that runs blocks one at a time, in order.
//
// Blocks run on a worker thread that the queue starts when work arrives and
// that ends when the queue is empty, so an idle queue costs no thread. Blocks
// never overlap and run in the order they were queued, whichever thread
// queued them. Destroying the queue waits for the blocks already queued; a
// queue may be destroyed from one of its own blocks (it then finishes the
// queued work after the owner has let go).
#pragma once

#include <qx/Object.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qx {

class SerialQueue final : public Object {
public:
    using Block = std::function<void()>;

    static Ref<SerialQueue> create(std::string label);
    ~SerialQueue() override;

    const std::string& label() const { return label_; }

    /// Queues block and returns at once. A block must not throw.
    void async(Block block);
    /// Queues block and waits until it has run. Called from one of this
    /// queue's own blocks it runs block at once instead of deadlocking.
    void sync(const Block& block);
    /// Waits until every block queued before the call has run.
    void drain();
    /// True while the calling thread runs one of this queue's blocks.
    bool isCurrent() const;

    std::string className() const override { return "SerialQueue"; }
    std::string description() const override;

    explicit SerialQueue(std::string label);

private:
    struct State;
    std::shared_ptr<State> state_;
    std::string label_;
};

} // namespace qx
