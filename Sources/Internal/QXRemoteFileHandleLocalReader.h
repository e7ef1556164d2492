// QXRemoteFileHandleLocalReader.h - the hand-over between the reading thread
// of a local chunked read and the one delivery operation on its callback queue.
//
// Chunks read but not yet handed over wait in a list; the delivery operation
// takes them in order and calls the handler with each, one at a time, for as
// long as the read lasts. One operation for the whole read rather than one
// per chunk: a queue that runs dry between chunks (the usual case with a
// quick handler) would otherwise pay for a new worker thread and a wake-up
// with every chunk. Each side wakes the other only when it sleeps, and then
// only once a few chunks (or a few buffers of room) have gathered, so that
// neither pays a thread switch per chunk when the other keeps up.
#pragma once

#include <QXFoundation/QXRemoteFileHandle.h>

#include "Internal/QXStoragePool.h"

#include <qx/SerialQueue.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

class QXRemoteFileHandleLocalReader {
public:
    struct Delivery {
        qx::Ref<qx::Data> chunk;
        bool done = false;
        qx::Ref<qx::Error> error;
    };

    /// bufferSize: the most one read takes; limit: what the undelivered
    /// chunks may add up to.
    QXRemoteFileHandleLocalReader(std::uint64_t bufferSize, std::uint64_t limit);

    /// The serial queue the delivery operation runs on.
    const qx::Ref<qx::SerialQueue>& queue() const { return queue_; }
    std::uint64_t bufferSize() const { return bufferSize_; }
    /// Set by a handler's false; both sides test it before doing work.
    bool isStopped() const { return stopped_.load(); }

    /// Waits while one more buffer would take the undelivered chunks past the limit.
    void waitForRoom();
    void enqueue(Delivery delivery);
    /// Drops every chunk read but not yet handed to the handler.
    void dropPending();
    /// Tells the delivery operation that nothing more is coming.
    void endOfReading();

    /// A chunk whose storage can take size bytes read at file position
    /// position: storage a released chunk gave back, or new storage.
    static qx::Ref<qx::Data> spareChunk(const std::shared_ptr<QXRemoteFileHandleLocalReader>& reader, std::size_t size,
                                        std::uint64_t position);

    /// The delivery operation: runs on the queue until the reader has ended
    /// and everything it queued is handed over (or dropped).
    void deliver(const qx::Ref<QXRemoteFileHandle>& handle, const QXRemoteFileHandle::DataHandler& handler);

private:
    // Chunks read and not yet back from the handler: what the limit bounds.
    std::size_t undelivered() const { return pending_.size() + (handing_ ? 1 : 0); }

    const qx::Ref<qx::SerialQueue> queue_;
    const std::uint64_t bufferSize_;
    const std::uint64_t limit_;
    // Chunks gathered before a sleeping side is woken: a quarter of what the
    // limit holds (at most a few), so the side woken has work (or room) for a while.
    const std::size_t batch_;
    std::mutex mutex_;
    std::condition_variable roomFreed_;    // the reader sleeps on it
    std::condition_variable chunkQueued_;  // the delivery operation sleeps on it
    std::deque<Delivery> pending_;         // guarded by mutex_
    bool handing_ = false;                 // a chunk is with the handler; guarded by mutex_
    bool readerEnded_ = false;             // nothing more will be queued; guarded by mutex_
    bool readerSleeps_ = false;            // guarded by mutex_
    bool delivererSleeps_ = false;         // guarded by mutex_
    std::atomic<bool> stopped_{false};
    std::shared_ptr<QXStoragePool> spare_;  // storage of chunks let go of
};
