// QXInputStream.h - an input stream serviced on a background thread of its own.
//
// QXInputStream wraps another input stream (the underlying stream) and adds:
//
//  * a background thread with its own run loop, started by open(), on which
//    the underlying stream is scheduled (in kQXInputStreamBackgroundRunLoopMode),
//    so that no client thread ever has to run the underlying stream's events;
//  * delivery of events on the run loops and modes the client schedules this
//    stream in, through a run-loop source of its own. Events that arrive
//    between two deliveries are merged into one mask and delivered once, in
//    this fixed order of receivers: the delegate, the event callback, the
//    private event callbacks (in the order added), then for HasBytesAvailable
//    the readability callback and the private readability callbacks, then the
//    reached-end notification for EndEncountered, then the error notification
//    for ErrorOccurred. HasBytesAvailable is dropped from a mask delivered
//    when the stream is no longer open;
//  * an optional limit on the bytes that may be read: once it is used up the
//    stream reports AtEnd (and raises EndEncountered) though the underlying
//    stream is still open;
//  * readDataSynchronouslyOfLength, a blocking read that runs the caller's
//    run loop in a private mode until the bytes, the end or an error arrive.
//
// The first end or error handled finishes the stream: every later event,
// including those a later read would raise, is dropped. close() acts only on
// an open stream; at the end or after an error it leaves the underlying
// stream as it is. A stream cannot be reopened.
//
// Threads: the underlying stream's events arrive on the background thread;
// reads, and the end or error events a read raises, happen on the reading
// thread; every delivery to the client happens on the client's run loops.
//
// Subclasses (a decoding stream, for one) build on these hooks:
//  * primitiveRead() is where read() gets its bytes; the base reads the
//    underlying stream. An override returns transformed bytes and calls
//    QXInputStream::primitiveRead() for raw ones. read() itself is not to be
//    overridden: the limit, the read-data notifications and the end and error
//    detection stay in the base.
//  * getBuffer(), hasBytesAvailable(), streamStatus() and streamError() may be
//    overridden; each override may consult the base's answer.
//  * stream(Stream&, mask) receives the underlying stream's events; an
//    override passes the events it wants on to handleEvent(), the single
//    entry for every event, and ignores streams other than underlyingStream().
//  * QXInputStream_isLimitedLength() and QXInputStream_bytesLeft() tell an
//    override whether the read limit is in force and what it still allows.
//  * the key-path class operations may be hidden by the subclass's own.
//  * construction: a subclass's factory makes the object with make_shared
//    (its constructor chaining QXInputStream's protected one, given the
//    underlying stream and the limit), then calls adoptUnderlyingStream() on
//    it. The underlyingStreamWith… helpers make the underlying stream of each
//    creation route (data, path, URL with headers, file handle), so that a
//    subclass offers the same routes.
#pragma once

#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/InputStream.h>
#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>
#include <qx/URL.h>

#include <QXFoundation/QXThread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Posted after each read when sendsReadDataNotifications is set; user info
/// { "Data": the bytes just read }.
extern const char* const kQXInputStreamReadDataNotification;
/// Posted on a client run loop when EndEncountered is delivered.
extern const char* const kQXInputStreamReachedEndNotification;
/// Posted on a client run loop when ErrorOccurred is delivered.
extern const char* const kQXInputStreamErrorOccurredNotification;
/// The user-info key of the read-data notification.
extern const char* const kQXInputStreamDataKey;
/// The run-loop mode readDataSynchronouslyOfLength runs the caller's loop in.
extern const char* const kQXInputStreamSynchronousReadMode;
/// The mode the background thread runs its loop in.
extern const char* const kQXInputStreamBackgroundRunLoopMode;

class QXRunLoopTable;

class QXInputStream : public qx::InputStream, public qx::StreamDelegate {
public:
    using ReadabilityHandler = std::function<void(QXInputStream& stream)>;
    using EventHandler = std::function<void(QXInputStream& stream, qx::StreamEventMask event)>;

    static constexpr std::uint64_t kUnlimitedLength = ~std::uint64_t{0};

    // Creation. Each returns nothing when its underlying stream cannot be made.
    /// Wraps stream; reads stop after maxDataLength bytes unless it is
    /// kUnlimitedLength.
    static qx::Ref<QXInputStream> initWithInputStream(const qx::Ref<qx::InputStream>& stream,
                                                      std::uint64_t maxDataLength = kUnlimitedLength);
    static qx::Ref<QXInputStream> initWithData(const qx::Ref<qx::Data>& data);
    static qx::Ref<QXInputStream> initWithFileAtPath(const std::string& path);
    /// A file URL reads the file; any other URL is fetched by an HTTP/1.1 GET
    /// carrying every header of headers (name to value strings; may be
    /// nothing), following redirects.
    static qx::Ref<QXInputStream> initWithURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::Dictionary>& headers = nullptr);
    /// Reads the handle through a QXFileHandleInputStream.
    static qx::Ref<QXInputStream> initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle, bool closeFileWhenStreamClosed);

    /// Key paths the computed answers depend on.
    static std::vector<std::string> keyPathsForValuesAffectingStreamStatus();
    static std::vector<std::string> keyPathsForValuesAffectingStreamError();
    static std::vector<std::string> keyPathsForValuesAffectingHasBytesAvailable();

    ~QXInputStream() override;

    /// From NotOpen only: starts the background thread (returning once it
    /// runs its loop with the underlying stream scheduled), then opens the
    /// underlying stream.
    void open() override;
    /// Only when open: stops the background thread, detaches from and closes
    /// the underlying stream.
    void close() override;

    /// Up to maxLength bytes (at most what the limit leaves); 0 at the end,
    /// -1 when not open or on failure. Not to be overridden (see above).
    std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) final;
    /// The underlying stream's buffer, clipped to (and counted against) the
    /// limit; false when it has none or the limit is used up.
    bool getBuffer(const std::uint8_t** buffer, std::uint64_t* length) override;
    /// False when the limit is used up, else the underlying stream's answer.
    bool hasBytesAvailable() const override;
    /// The underlying stream's status, AtEnd instead of Open once the limit
    /// is used up (NotOpen without an underlying stream).
    qx::StreamStatus streamStatus() const override;
    qx::Ref<qx::Error> streamError() const override;
    /// Forwarded to the underlying stream.
    qx::Ref<qx::Object> propertyForKey(const std::string& key) const override;
    bool setProperty(const qx::Ref<qx::Object>& property, const std::string& key) override;

    /// The delegate; the stream itself when none is set (delivery to it does
    /// nothing). Held weakly; setting nothing makes the stream its own.
    qx::Ref<qx::StreamDelegate> delegate() const override;
    void setDelegate(const qx::Ref<qx::StreamDelegate>& delegate) override;

    /// Delivers events on runLoop while it runs mode. Scheduling twice in one
    /// mode is a no-op.
    void scheduleInRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override;
    void removeFromRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) override;
    void removeFromAllRunLoops();

    /// Reads in 10240-byte steps until a read returns 0 or less; what was
    /// gathered (a failure is not told from the end).
    qx::Ref<qx::Data> availableData();
    /// One read of up to min(maxLength, 100 MiB) bytes: nothing on failure,
    /// empty at the end.
    qx::Ref<qx::Data> availableDataWithMaxLength(std::uint64_t maxLength);
    /// Blocks, running the caller's run loop in kQXInputStreamSynchronousReadMode,
    /// until length bytes, the end or an error have arrived. Returns the bytes
    /// (fewer when the end came first); nothing on failure: POSIX EBADF for
    /// a stream that is not open or closed, else the stream's error.
    qx::Ref<qx::Data> readDataSynchronouslyOfLength(std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    qx::Ref<qx::Data> readDataSynchronouslyToEndOfStream(qx::Ref<qx::Error>* error = nullptr) {
        return readDataSynchronouslyOfLength(kUnlimitedLength, error);
    }

    const qx::Ref<qx::InputStream>& underlyingStream() const { return underlyingStream_; }
    ReadabilityHandler readabilityHandler() const;
    void setReadabilityHandler(ReadabilityHandler handler);
    EventHandler eventHandler() const;
    void setEventHandler(EventHandler handler);
    bool sendsReadDataNotifications() const { return sendsReadDataNotifications_.load(); }
    void setSendsReadDataNotifications(bool sends) { sendsReadDataNotifications_.store(sends); }

    std::string className() const override { return "QXInputStream"; }

protected:
    QXInputStream(qx::Ref<qx::InputStream> underlyingStream, std::uint64_t maxDataLength);
    /// Second half of construction, on the shared object: becomes the
    /// underlying stream's delegate and makes the run-loop source.
    void adoptUnderlyingStream();

    static qx::Ref<qx::InputStream> underlyingStreamWithData(const qx::Ref<qx::Data>& data);
    static qx::Ref<qx::InputStream> underlyingStreamWithFileAtPath(const std::string& path);
    static qx::Ref<qx::InputStream> underlyingStreamWithURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::Dictionary>& headers);
    static qx::Ref<qx::InputStream> underlyingStreamWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                                   bool closeFileWhenStreamClosed);

    /// Where read() gets its bytes; the base reads the underlying stream.
    virtual std::int64_t primitiveRead(std::uint8_t* buffer, std::uint64_t maxLength);
    /// The underlying stream's delegate entry (on the background thread):
    /// events of the underlying stream go to handleEvent, others are ignored.
    void stream(qx::Stream& stream, qx::StreamEventMask event) override;
    /// The single entry for every event: queues it for delivery and, unless
    /// it ends the stream, turns an end or error that the status already
    /// shows into an event of its own.
    void handleEvent(qx::StreamEventMask event);
    /// The read limit: whether one is in force, and what it still allows.
    bool QXInputStream_isLimitedLength() const { return isLimitedLength_; }
    std::uint64_t QXInputStream_bytesLeft() const { return bytesLeft_.load(); }

private:
    /// Names one added private callback, for its removal (never 0).
    using HandlerToken = std::uint64_t;
    // Private callbacks, called after the public ones, in the order added
    // (the synchronous read waits through them).
    HandlerToken QXInputStream_addPrivateReadabilityHandler(ReadabilityHandler handler);
    void QXInputStream_removePrivateReadabilityHandler(HandlerToken token);
    HandlerToken QXInputStream_addPrivateEventHandler(EventHandler handler);
    void QXInputStream_removePrivateEventHandler(HandlerToken token);
    /// Snapshots of the lists.
    std::vector<ReadabilityHandler> QXInputStream_privateReadabilityHandlers() const;
    std::vector<EventHandler> QXInputStream_privateEventHandlers() const;

    qx::Ref<qx::StreamDelegate> QXInputStream_streamDelegate() const;
    bool QXInputStream_isFinished() const { return isFinished_.load(); }

    // Steps of the event path and of the background thread.
    void QXInputStream_notifyDelegateOfEvent(qx::StreamEventMask event);
    void QXInputStream_sendNotificationsForEvent(qx::StreamEventMask event);
    void wakeUpRunLoop();
    void startBackgroundThread();
    void stopBackgroundThread();

    template <class Handler> struct Entry {
        HandlerToken token;
        Handler handler;
    };

    void runLoopSourceCallback();
    qx::Ref<QXInputStream> self();

    // The handler lists, under their own recursive lock so that a callback
    // may edit them while a delivery runs.
    mutable std::recursive_mutex handlersLock_;
    std::vector<Entry<ReadabilityHandler>> privateReadabilityHandlers_;
    std::vector<Entry<EventHandler>> privateEventHandlers_;
    HandlerToken nextToken_ = 1;
    ReadabilityHandler readabilityHandler_;
    EventHandler eventHandler_;

    // Guards currentEvent_, the run-loop table, the background thread fields
    // and the delegate; held only for short updates, never across a callback.
    mutable std::mutex lock_;
    std::unique_ptr<QXRunLoopTable> runLoopTable_;
    qx::StreamEventMask currentEvent_ = 0;
    qx::Ref<QXThread> backgroundThread_;
    qx::Ref<qx::RunLoop> backgroundRunLoop_;
    std::atomic<bool> backgroundRunLoopDone_{false};
    std::atomic<bool> opened_{false};
    qx::Ref<qx::RunLoopSource> runLoopSource_;
    qx::WeakRef<qx::StreamDelegate> streamDelegate_;

    std::atomic<bool> sendsReadDataNotifications_{false};
    const bool isLimitedLength_;
    std::atomic<bool> isFinished_{false};
    const qx::Ref<qx::InputStream> underlyingStream_;
    std::atomic<std::uint64_t> bytesLeft_;
};
