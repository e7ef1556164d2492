// QXRingBuffer.cpp - the byte queue: one mutex, a condition per direction.
#include <QXFoundation/QXRingBuffer.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXByteStorage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pthread.h>

struct QXRingBuffer::Sync {
    pthread_mutex_t mutex;
    pthread_cond_t readCond;   // a read took bytes out: a writer may find room
    pthread_cond_t writeCond;  // a write put bytes in: a reader may find data
    int ready = 0;             // how many of the three were set up

    ~Sync() {
        if (ready > 2) pthread_cond_destroy(&writeCond);
        if (ready > 1) pthread_cond_destroy(&readCond);
        if (ready > 0) pthread_mutex_destroy(&mutex);
    }
    bool setUp() {
        if (pthread_mutex_init(&mutex, nullptr) != 0) return false;
        ready = 1;
        if (pthread_cond_init(&readCond, nullptr) != 0) return false;
        ready = 2;
        if (pthread_cond_init(&writeCond, nullptr) != 0) return false;
        ready = 3;
        return true;
    }
};

namespace {

class Locker {
public:
    explicit Locker(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Locker() {
        if (locked_) pthread_mutex_unlock(&mutex_);
    }
    void unlock() {
        pthread_mutex_unlock(&mutex_);
        locked_ = false;
    }
    void wait(pthread_cond_t& condition) { pthread_cond_wait(&condition, &mutex_); }

private:
    pthread_mutex_t& mutex_;
    bool locked_ = true;
};

} // namespace

QXRingBuffer::QXRingBuffer(std::uint64_t capacity)
    : buffer_(std::make_unique<QXByteStorage>()), bufferSize_(capacity), sync_(std::make_unique<Sync>()) {}

QXRingBuffer::~QXRingBuffer() = default;

qx::Ref<QXRingBuffer> QXRingBuffer::initWithCapacity(std::uint64_t capacity, qx::Ref<qx::Error>* error) {
    qx::Ref<QXRingBuffer> ring(new QXRingBuffer(capacity));
    if (!ring->buffer_->allocate(capacity) || !ring->sync_->setUp()) {
        // The thread's errno, as the set-up calls leave it.
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, errno);
        return nullptr;
    }
    return ring;
}

std::uint64_t QXRingBuffer::writeBytes(const void* bytes, std::uint64_t length, bool wait) {
    if (length == 0 || !bytes) return 0;
    const auto* source = static_cast<const std::uint8_t*>(bytes);
    std::uint8_t* const storage = buffer_->bytes();
    std::uint64_t written = 0;
    Locker lock(sync_->mutex);
    for (;;) {
        rewindIfEmptyLocked();
        std::uint64_t held = bytesWritten_ - bytesRead_;
        while (held == bufferSize_) {
            if (!wait) return written;
            if (closed_) {
                lock.unlock();
                if (written > 0) pthread_cond_signal(&sync_->writeCond);
                return written;
            }
            lock.wait(sync_->readCond);
            held = bytesWritten_ - bytesRead_;
        }
        std::uint64_t chunk = std::min(bufferSize_ - held, length - written);
        const std::uint64_t toEnd = bufferSize_ - writePointer_;
        if (chunk > toEnd) {
            std::memcpy(storage + writePointer_, source, toEnd);
            bytesWritten_ += toEnd;
            writePointer_ = 0;
            source += toEnd;
            chunk -= toEnd;
            written += toEnd;
        }
        std::memcpy(storage + writePointer_, source, chunk);
        bytesWritten_ += chunk;
        writePointer_ += chunk;
        source += chunk;
        written += chunk;
        if (!wait || written >= length) {
            lock.unlock();
            pthread_cond_signal(&sync_->writeCond);
            return written;
        }
    }
}

std::uint8_t* QXRingBuffer::reserveWrite(std::uint64_t* length, bool wait) {
    *length = 0;
    Locker lock(sync_->mutex);
    rewindIfEmptyLocked();
    std::uint64_t held = bytesWritten_ - bytesRead_;
    while (held == bufferSize_) {
        if (!wait || closed_) return nullptr;
        lock.wait(sync_->readCond);
        held = bytesWritten_ - bytesRead_;
    }
    // Only the producer moves the write position, so the room stays free
    // after the lock is let go: the consumer reads below it, never in it.
    *length = std::min(bufferSize_ - held, bufferSize_ - writePointer_);
    return buffer_->bytes() + writePointer_;
}

void QXRingBuffer::commitWrite(std::uint64_t count) {
    if (count == 0) return;
    {
        Locker lock(sync_->mutex);
        bytesWritten_ += count;
        writePointer_ += count;
        if (writePointer_ == bufferSize_) writePointer_ = 0;
    }
    pthread_cond_signal(&sync_->writeCond);
}

std::uint64_t QXRingBuffer::writeData(const qx::Ref<qx::Data>& data, bool wait) {
    return data ? writeBytes(data->bytes(), data->length(), wait) : 0;
}

std::uint64_t QXRingBuffer::readBytes(void* buffer, std::uint64_t length, bool wait) {
    if (length == 0 || !buffer) return 0;
    auto* destination = static_cast<std::uint8_t*>(buffer);
    const std::uint8_t* const storage = buffer_->bytes();
    std::uint64_t read = 0;
    Locker lock(sync_->mutex);
    for (;;) {
        while (bytesWritten_ == bytesRead_) {
            if (!wait) return read;
            if (closed_) {
                lock.unlock();
                if (read > 0) pthread_cond_signal(&sync_->readCond);
                return read;
            }
            lock.wait(sync_->writeCond);
        }
        std::uint64_t chunk = std::min(bytesWritten_ - bytesRead_, length - read);
        const std::uint64_t toEnd = bufferSize_ - readPointer_;
        if (chunk > toEnd) {
            std::memcpy(destination, storage + readPointer_, toEnd);
            bytesRead_ += toEnd;
            readPointer_ = 0;
            destination += toEnd;
            chunk -= toEnd;
            read += toEnd;
        }
        std::memcpy(destination, storage + readPointer_, chunk);
        bytesRead_ += chunk;
        readPointer_ += chunk;
        destination += chunk;
        read += chunk;
        if (!wait || read >= length) {
            lock.unlock();
            pthread_cond_signal(&sync_->readCond);
            return read;
        }
    }
}

std::uint64_t QXRingBuffer::appendBytesToData(qx::Data& data, std::uint64_t maxLength) {
    const std::uint8_t* const storage = buffer_->bytes();
    std::uint64_t taken = 0;
    {
        Locker lock(sync_->mutex);
        taken = std::min(bytesWritten_ - bytesRead_, maxLength);
        if (taken == 0) return 0;
        std::vector<std::uint8_t>& bytes = data.vector();
        if (bytes.capacity() - bytes.size() < taken)
            bytes.reserve(std::max<std::size_t>(bytes.size() + taken, 2 * bytes.capacity()));
        const std::uint64_t first = std::min(taken, bufferSize_ - readPointer_);
        data.append(storage + readPointer_, first);
        if (taken > first) data.append(storage, taken - first);
        bytesRead_ += taken;
        readPointer_ = (readPointer_ + taken) % bufferSize_;
    }
    pthread_cond_signal(&sync_->readCond);
    return taken;
}

qx::Ref<qx::Data> QXRingBuffer::readDataOfLength(std::uint64_t length, bool wait) {
    const std::uint64_t want = std::min(size(), length);
    auto data = qx::Data::create();
    data->setLength(static_cast<std::size_t>(want));
    data->setLength(static_cast<std::size_t>(readBytes(data->mutableBytes(), want, wait)));
    return data;
}

std::uint64_t QXRingBuffer::bytesRead() const {
    Locker lock(sync_->mutex);
    return bytesRead_;
}

std::uint64_t QXRingBuffer::bytesWritten() const {
    Locker lock(sync_->mutex);
    return bytesWritten_;
}

std::uint64_t QXRingBuffer::bytesAvailable() const {
    Locker lock(sync_->mutex);
    return bytesWritten_ - bytesRead_;
}

void QXRingBuffer::resetLocked() {
    readPointer_ = 0;
    writePointer_ = 0;
    bytesRead_ = 0;
    bytesWritten_ = 0;
}

void QXRingBuffer::rewindIfEmptyLocked() {
    // Only the producer calls this, so no room it was given is outstanding;
    // the consumer copies under the lock and holds no position of its own.
    // Starting an empty buffer over keeps a producer whose consumer keeps up
    // on the same few pages, still in cache, instead of walking through the
    // whole capacity and having the system clear every page of it first.
    if (bytesWritten_ == bytesRead_) readPointer_ = writePointer_ = 0;
    // A copy that ended exactly at the end of storage leaves the position
    // there; in-place room starts at the beginning instead of being empty.
    if (writePointer_ == bufferSize_) writePointer_ = 0;
}

void QXRingBuffer::clearBuffer() {
    Locker lock(sync_->mutex);
    resetLocked();
}

void QXRingBuffer::close() {
    {
        Locker lock(sync_->mutex);
        closed_ = true;
    }
    pthread_cond_broadcast(&sync_->readCond);
    pthread_cond_broadcast(&sync_->writeCond);
}

void QXRingBuffer::reopen() {
    Locker lock(sync_->mutex);
    resetLocked();
    closed_ = false;
}

bool QXRingBuffer::isClosed() const {
    Locker lock(sync_->mutex);
    return closed_;
}

std::uint64_t QXRingBuffer::waitForBytesAvailable() {
    Locker lock(sync_->mutex);
    while (bytesWritten_ == bytesRead_ && !closed_) lock.wait(sync_->writeCond);
    return bytesWritten_ - bytesRead_;
}
