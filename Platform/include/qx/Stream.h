// Stream.h - the base of input and output streams: status, error, events.
//
// A stream reports what happens to it as events to a weakly held delegate.
// Events are delivered only on the run loops the stream is scheduled in, and
// only while such a loop runs one of the modes it was scheduled for; events
// raised meanwhile are merged and wait (so a stream that is never scheduled
// delivers nothing, and one scheduled later gets what is pending). Each event
// bit is delivered by its own call, in the order of the bits; "has bytes" and
// "has space" are left out when the stream is no longer open by then.
//
// Every operation is virtual so that streams of the library can be built on
// this one, keeping or replacing its event machinery. Subclasses raise events
// with queueEvent and change state with setStatus / failWithError.
#pragma once

#include <qx/Error.h>
#include <qx/RunLoop.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace qx {

/// The platform's stream statuses (the values are part of the interface).
enum class StreamStatus : int {
    NotOpen = 0,
    Opening = 1,
    Open = 2,
    Reading = 3,
    Writing = 4,
    AtEnd = 5,
    Closed = 6,
    Error = 7,
};

/// A set of event bits; several may be merged into one mask.
using StreamEventMask = std::uint64_t;
enum StreamEvent : StreamEventMask {
    StreamEventNone = 0,
    StreamEventOpenCompleted = 1,
    StreamEventHasBytesAvailable = 2,
    StreamEventHasSpaceAvailable = 4,
    StreamEventErrorOccurred = 8,
    StreamEventEndEncountered = 16,
};

class Stream;

/// Receives a stream's events ("stream:handleEvent:").
class StreamDelegate {
public:
    virtual ~StreamDelegate() = default;
    virtual void stream(Stream& stream, StreamEventMask event) = 0;
};

class Stream : public Object {
public:
    /// Property: the position in a file stream (a Number, unsigned 64-bit).
    static constexpr const char* FileCurrentOffsetKey = "kCFStreamPropertyFileCurrentOffset";
    /// Property of a stream writing to memory: a copy of the bytes written (Data).
    static constexpr const char* DataWrittenToMemoryStreamKey = "kCFStreamPropertyDataWritten";

    ~Stream() override = default;

    /// From NotOpen: opens and raises OpenCompleted (the base does just that).
    virtual void open();
    /// Closes; a closed stream reads and writes nothing and raises no events.
    virtual void close();

    virtual StreamStatus streamStatus() const;
    /// The error that put the stream in Error, or nothing.
    virtual Ref<Error> streamError() const;

    /// The delegate, or nothing once it is gone or when none was set.
    virtual Ref<StreamDelegate> delegate() const;
    /// Held weakly; nothing clears it.
    virtual void setDelegate(const Ref<StreamDelegate>& delegate);

    /// Delivers events on runLoop while it runs mode (or one of the common
    /// modes, for RunLoop::CommonModes). Scheduling twice is harmless.
    virtual void scheduleInRunLoop(const Ref<RunLoop>& runLoop, const std::string& mode);
    virtual void removeFromRunLoop(const Ref<RunLoop>& runLoop, const std::string& mode);

    /// Nothing for keys the stream does not know (the base knows none).
    virtual Ref<Object> propertyForKey(const std::string& key) const;
    /// False when the key is unknown or the value cannot be set.
    virtual bool setProperty(const Ref<Object>& property, const std::string& key);

    std::string className() const override { return "Stream"; }

protected:
    Stream() = default;

    void setStatus(StreamStatus status) { status_.store(status); }
    /// Status Error, the error kept, ErrorOccurred raised.
    void failWithError(const Ref<Error>& error);
    /// Merges events into those waiting and arranges their delivery on every
    /// scheduled run loop. Callable from any thread.
    void queueEvent(StreamEventMask events);

private:
    struct Scheduled {
        WeakRef<RunLoop> loop;
        const RunLoop* key;
        std::set<std::string> modes;
    };
    using Target = std::pair<Ref<RunLoop>, std::vector<std::string>>;

    std::vector<Target> targetsLocked() const;  // with eventMutex_ held
    void post(const std::vector<Target>& targets);
    void deliver(const RunLoop* loop);

    std::atomic<StreamStatus> status_{StreamStatus::NotOpen};
    mutable std::mutex eventMutex_;  // guards everything below
    Ref<Error> error_;
    WeakRef<StreamDelegate> delegate_;
    std::vector<Scheduled> scheduled_;
    StreamEventMask pending_ = 0;  // raised, not yet delivered
    bool posted_ = false;          // a delivery is queued on the scheduled loops
};

} // namespace qx
