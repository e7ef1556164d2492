// QXSlidingWindow.h - the most recent bytes of a stream, copied out by distance.
//
// The window keeps the last `capacity()` bytes written to it, as the history
// of a dictionary-window decoder. A copy names where it starts by its
// distance back from the end: distance d starts at the d-th newest byte (1 is
// the newest itself) and runs forwards from there, never past the newest
// byte, so it yields at most d bytes.
//
// Writes, copies and clearBuffer take a short spin lock; bytesInBuffer reads
// without it.
//
// A copy that asks only for bytes older than the history (its distance at
// least bytesInBuffer() + length, among them distance == bytesInBuffer() with
// length 0) returns 0 and leaves the lock held: every later write, copy or
// clearBuffer on that window then spins for ever. Callers check the distance
// first; isLocked() tells whether a window got into that state.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <atomic>
#include <cstdint>
#include <memory>

class QXByteStorage;

class QXSlidingWindow final : public qx::Object {
public:
    /// A window of capacity bytes. Fails with POSIX EINVAL when capacity is
    /// 2^63 - 1 or more, and with ENOMEM when the system cannot provide it.
    static qx::Ref<QXSlidingWindow> initWithCapacity(std::uint64_t capacity, qx::Ref<qx::Error>* error = nullptr);

    /// Appends to the history; of a write longer than the capacity only the
    /// last capacity() bytes are kept.
    void writeBytes(const void* bytes, std::uint64_t length);
    /// Appends data's bytes (nothing appends nothing).
    void writeData(const qx::Ref<qx::Data>& data);

    /// Copies up to length bytes that start distance bytes before the end of
    /// the history into buffer and returns the count. Requested bytes older
    /// than the history are dropped (the copy still starts at buffer[0]); the
    /// copy stops at the newest byte.
    std::uint64_t getBytes(void* buffer, std::uint64_t distance, std::uint64_t length);
    /// The same into a new data; empty, without locking, for a distance of
    /// capacity() or more.
    qx::Ref<qx::Data> dataWithDistanceFromEnd(std::uint64_t distance, std::uint64_t length);

    std::uint64_t capacity() const { return bufferSize_; }
    /// How much history is held: capacity() once writing has wrapped, else
    /// the bytes written so far.
    std::uint64_t bytesInBuffer() const;
    /// Forgets the history (the storage is not wiped).
    void clearBuffer();

    /// True while the lock is held: during an operation, or for good after a
    /// copy that asked only for bytes older than the history.
    bool isLocked() const { return spinLock_.test(std::memory_order_acquire); }

    std::string className() const override { return "QXSlidingWindow"; }

    ~QXSlidingWindow() override;

protected:
    explicit QXSlidingWindow(std::uint64_t capacity);

private:
    void lock();
    void unlock();

    std::unique_ptr<QXByteStorage> buffer_;
    const std::uint64_t bufferSize_;
    // Atomic only so that bytesInBuffer may look without the lock.
    std::atomic<std::uint64_t> writePointer_{0};  // 0 <= writePointer_ <= bufferSize_
    std::atomic<bool> hasLooped_{false};           // writing has wrapped at least once
    std::atomic_flag spinLock_;                    // clear: unlocked
};
