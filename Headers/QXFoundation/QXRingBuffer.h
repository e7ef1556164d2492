// QXRingBuffer.h - a bounded first-in-first-out byte queue between two threads.
//
// One producer thread writes and one consumer thread reads; each call either
// waits (for room, or for data) or does what it can at once and returns the
// count. The whole capacity is usable: how much is held is only ever taken
// from the two running totals (written - read), never from the positions.
//
// Wake-ups: every read or write call that moved bytes signals the other side
// exactly once, after it has released the lock, and never from inside its
// loop. So a waiting call that has moved part of its bytes and goes back to
// sleep does not wake the other side first. This is deliberate (the library's
// own consumer never waits), and it has a consequence for callers that wait
// on both sides: each waiting call must ask for at most `size()` bytes, or a
// writer that filled the buffer and a reader that emptied it can each sleep
// waiting for the other. A side that does not wait is never at risk.
//
// Reads and writes never fail and never allocate; a short count (0 included)
// only means the buffer was full or empty for a non-waiting call.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstdint>
#include <memory>

class QXByteStorage;

class QXRingBuffer final : public qx::Object {
public:
    /// A ring buffer of capacity bytes (0 is accepted and holds nothing).
    /// Fails with a POSIX error when its lock cannot be set up (the thread's
    /// errno) or, for a capacity the system cannot provide, with ENOMEM.
    static qx::Ref<QXRingBuffer> initWithCapacity(std::uint64_t capacity, qx::Ref<qx::Error>* error = nullptr);

    /// Copies up to length bytes in. Waiting, returns only when all are in;
    /// otherwise writes what fits now, in one pass, and returns that (0 when
    /// full). A length of 0 returns 0 at once.
    std::uint64_t writeBytes(const void* bytes, std::uint64_t length, bool wait = true);
    /// Writes data's bytes (nothing writes nothing).
    std::uint64_t writeData(const qx::Ref<qx::Data>& data, bool wait = true);

    /// Room for the producer to write into in place, without a copy: the
    /// free bytes from the write position up to the end of storage or the
    /// oldest unread byte, whichever comes first. Waiting, sleeps while the
    /// buffer is full; returns nullptr with *length 0 when it is full and
    /// either not waiting or closed. The bytes become readable only through
    /// commitWrite; until then no other write, clearBuffer or reopen may run.
    std::uint8_t* reserveWrite(std::uint64_t* length, bool wait = true);
    /// Makes the first count bytes of the room reserveWrite gave readable
    /// (count is at most that room) and wakes a waiting reader.
    void commitWrite(std::uint64_t count);

    /// Copies up to length bytes out. Waiting, returns only when all have
    /// arrived; otherwise takes what is there now (0 when empty).
    std::uint64_t readBytes(void* buffer, std::uint64_t length, bool wait = true);
    /// Appends up to maxLength of the bytes held now to the end of data,
    /// without waiting, and returns the count (0 when empty). Unlike reading
    /// into room made with setLength, the new bytes are written once.
    std::uint64_t appendBytesToData(qx::Data& data, std::uint64_t maxLength);
    /// Reads min(length, size()) bytes at most into a new data of exactly
    /// the count read.
    qx::Ref<qx::Data> readDataOfLength(std::uint64_t length, bool wait = true);

    /// The capacity, fixed at creation.
    std::uint64_t size() const { return bufferSize_; }
    /// Totals since creation or the last clearBuffer.
    std::uint64_t bytesRead() const;
    std::uint64_t bytesWritten() const;
    /// Bytes held now.
    std::uint64_t bytesAvailable() const;
    /// Room left now.
    std::uint64_t spaceAvailable() const { return size() - bytesAvailable(); }
    /// Empties the buffer and zeroes both totals; wakes nobody, wipes nothing.
    void clearBuffer();

    /// Ends all waiting, for good: every call waiting now wakes, and calls
    /// asked to wait from then on do what they can at once and return that
    /// count, as non-waiting calls do. Bytes held stay readable. A producer
    /// that is being stopped must not stay asleep on a full buffer whose
    /// consumer has gone away, and a consumer must not sleep for bytes that
    /// can no longer come; closing covers both.
    void close();
    bool isClosed() const;
    /// Empties the buffer, zeroes both totals and lets calls wait again: a
    /// closed buffer made ready for a new producer and consumer, keeping the
    /// memory it has already touched. Only once both old sides have let go.
    void reopen();
    /// Waits until some bytes are held or the buffer is closed, and returns
    /// the count held (0 only when closed and empty). Takes nothing out, so a
    /// consumer can sleep until there is something to take without asking
    /// for a count that could leave both sides asleep.
    std::uint64_t waitForBytesAvailable();

    std::string className() const override { return "QXRingBuffer"; }

    ~QXRingBuffer() override;

private:
    explicit QXRingBuffer(std::uint64_t capacity);
    void resetLocked();          // empties the buffer and zeroes both totals; the lock is held
    void rewindIfEmptyLocked();  // an empty buffer starts over at its beginning; the lock is held

    struct Sync;

    std::unique_ptr<QXByteStorage> buffer_;
    std::uint64_t readPointer_ = 0;   // 0 <= readPointer_ <= bufferSize_
    std::uint64_t writePointer_ = 0;  // 0 <= writePointer_ <= bufferSize_
    const std::uint64_t bufferSize_;
    std::uint64_t bytesRead_ = 0;     // bytesRead_ <= bytesWritten_ <= bytesRead_ + bufferSize_
    std::uint64_t bytesWritten_ = 0;
    bool closed_ = false;             // no call waits any more
    std::unique_ptr<Sync> sync_;      // the mutex and both conditions
};
