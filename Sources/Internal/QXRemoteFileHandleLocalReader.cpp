// QXRemoteFileHandleLocalReader.cpp - reading thread and delivery queue of a local chunked read.
#include "Internal/QXRemoteFileHandleLocalReader.h"

#include <algorithm>

using qx::Data;
using qx::Ref;

namespace {

constexpr const char* kCallbackQueueName = "com.tovarik.QXRemoteFileHandle.callback";
// Chunks kept for reuse: enough for the read-ahead of a 32 MiB limit.
constexpr std::size_t kMaxSpareChunks = 34;
// A handler that keeps up still sees its first chunks after a few reads at most.
constexpr std::uint64_t kMaxWakeBatch = 8;

// The kernel's copy into user memory slows down several times on some
// processors when the destination lies just past the source's offset within
// a page (the stores and the loads that follow them seem to alias). That is
// where the allocator puts a large block it maps on its own (behind a 16-byte
// header at a page boundary) whenever the file position is page-aligned.
bool copiesSlowly(const void* destination, std::size_t size, std::uint64_t position) {
    if (size == 0) return false;
    const std::uint64_t distance = (reinterpret_cast<std::uintptr_t>(destination) - position) & 4095;
    return distance != 0 && distance < 64;
}

} // namespace

QXRemoteFileHandleLocalReader::QXRemoteFileHandleLocalReader(std::uint64_t bufferSize, std::uint64_t limit)
    : queue_(qx::SerialQueue::create(kCallbackQueueName)),
      bufferSize_(bufferSize),
      limit_(limit),
      batch_(static_cast<std::size_t>(std::clamp<std::uint64_t>(bufferSize ? limit / bufferSize / 4 : 1, 1, kMaxWakeBatch))),
      spare_(QXStoragePool::create(kMaxSpareChunks, static_cast<std::size_t>(bufferSize))) {}

// The count is tested and waited on under one lock, so a delivery that ends
// in between cannot be missed.
void QXRemoteFileHandleLocalReader::waitForRoom() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopped_.load() && (undelivered() + 1) * bufferSize_ > limit_) {
        // Whatever has gathered goes out now: the reader cannot add to it.
        if (delivererSleeps_ && !pending_.empty()) chunkQueued_.notify_one();
        readerSleeps_ = true;
        roomFreed_.wait(lock);
        readerSleeps_ = false;
    }
}

void QXRemoteFileHandleLocalReader::enqueue(Delivery delivery) {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(std::move(delivery));
    if (delivererSleeps_) chunkQueued_.notify_one();
}

void QXRemoteFileHandleLocalReader::dropPending() {
    std::deque<Delivery> dropped;
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(pending_);
    if (readerSleeps_) roomFreed_.notify_one();
}

void QXRemoteFileHandleLocalReader::endOfReading() {
    std::lock_guard<std::mutex> lock(mutex_);
    readerEnded_ = true;
    if (delivererSleeps_) chunkQueued_.notify_one();
}

// The storage the most recently released chunk gave back is likeliest still
// in cache. Storage the kernel would copy into slowly is passed over. A chunk
// gives its storage back to the pool when its last holder lets go (see
// QXStoragePool.h).
Ref<Data> QXRemoteFileHandleLocalReader::spareChunk(const std::shared_ptr<QXRemoteFileHandleLocalReader>& reader, std::size_t size,
                                                    std::uint64_t position) {
    std::vector<std::uint8_t> storage = reader->spare_->takeStorage([&](const std::vector<std::uint8_t>& candidate) {
        return candidate.capacity() >= size && !copiesSlowly(candidate.data(), size, position);
    });
    if (storage.capacity() < size) {
        storage.reserve(size);
        if (copiesSlowly(storage.data(), size, position)) {
            // Typically a block the allocator mapped on its own. Giving it
            // back first lets the next request of this size be served from
            // its heap, at another offset; if not, it serves as it is.
            std::vector<std::uint8_t>().swap(storage);
            storage.reserve(size);
        }
    }
    return reader->spare_->wrap(std::move(storage));
}

void QXRemoteFileHandleLocalReader::deliver(const Ref<QXRemoteFileHandle>& handle, const QXRemoteFileHandle::DataHandler& handler) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        while (pending_.empty() && !readerEnded_) {
            delivererSleeps_ = true;
            chunkQueued_.wait(lock);
            delivererSleeps_ = false;
        }
        if (pending_.empty()) return;
        Delivery delivery = std::move(pending_.front());
        pending_.pop_front();
        handing_ = true;
        lock.unlock();
        if (!stopped_.load() && !handler(handle, delivery.chunk, delivery.done, delivery.error)) {
            stopped_.store(true);
            dropPending();
        }
        delivery.error = nullptr;
        lock.lock();
        handing_ = false;
        // The chunk's storage goes back to the spare list (for a later
        // read: no allocation, no fresh pages to fault in) once the
        // handler and anyone it passed the chunk to let go of it.
        Ref<Data> chunk = std::move(delivery.chunk);
        // Room for a batch, or for whatever the limit holds once all is delivered.
        if (readerSleeps_ && (undelivered() + batch_) * bufferSize_ <= limit_) roomFreed_.notify_one();
        if (chunk) {
            // Let go of it outside the lock.
            lock.unlock();
            chunk = nullptr;
            lock.lock();
        }
    }
}
