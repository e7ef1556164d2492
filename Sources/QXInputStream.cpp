// QXInputStream.cpp - the background thread, the merged event path, limits and synchronous reads.
#include <QXFoundation/QXInputStream.h>

#include <QXFoundation/QXFileHandleInputStream.h>

#include "Internal/QXRunLoopTable.h"

#include <qx/Format.h>
#include <qx/HTTPInputStream.h>
#include <qx/NotificationCenter.h>
#include <qx/Semaphore.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

const char* const kQXInputStreamReadDataNotification = "com.tovarik.QXFoundation.QXInputStream.ReadDataNotification";
const char* const kQXInputStreamReachedEndNotification = "com.tovarik.QXFoundation.QXInputStream.ReachedEndNotification";
const char* const kQXInputStreamErrorOccurredNotification = "com.tovarik.QXFoundation.QXInputStream.ErrorOccurredNotification";
const char* const kQXInputStreamDataKey = "Data";
const char* const kQXInputStreamSynchronousReadMode = "com.tovarik.QXFoundation.QXInputStreamSynchronousReadMode";
const char* const kQXInputStreamBackgroundRunLoopMode = "com.tovarik.QXFoundation.QXInputStreamBackgroundRunLoopMode";

namespace {

constexpr std::uint64_t kMaxRead = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t kAvailableDataStep = 10240;
constexpr std::uint64_t kMaxDataPerRead = 0x6400000;  // 100 MiB

constexpr qx::StreamEventMask kFinishingEvents = qx::StreamEventEndEncountered | qx::StreamEventErrorOccurred;

} // namespace

// ---- creation ----------------------------------------------------------------

QXInputStream::QXInputStream(qx::Ref<qx::InputStream> underlyingStream, std::uint64_t maxDataLength)
    : runLoopTable_(std::make_unique<QXRunLoopTable>()),
      isLimitedLength_(maxDataLength < kUnlimitedLength),
      underlyingStream_(std::move(underlyingStream)),
      bytesLeft_(maxDataLength) {}

qx::Ref<QXInputStream> QXInputStream::self() { return std::static_pointer_cast<QXInputStream>(shared_from_this()); }

void QXInputStream::adoptUnderlyingStream() {
    auto me = self();
    if (underlyingStream_) underlyingStream_->setDelegate(me);
    // Weak: a scheduled source must not keep the stream alive, while a
    // delivery under way does.
    qx::WeakRef<QXInputStream> weak = me;
    runLoopSource_ = qx::RunLoopSource::create([weak] {
        if (auto stream = weak.lock()) stream->runLoopSourceCallback();
    });
}

qx::Ref<QXInputStream> QXInputStream::initWithInputStream(const qx::Ref<qx::InputStream>& stream, std::uint64_t maxDataLength) {
    qx::Ref<QXInputStream> result(new QXInputStream(stream, maxDataLength));
    result->adoptUnderlyingStream();
    return result;
}

qx::Ref<qx::InputStream> QXInputStream::underlyingStreamWithData(const qx::Ref<qx::Data>& data) {
    return qx::InputStream::inputStreamWithData(data);
}

qx::Ref<qx::InputStream> QXInputStream::underlyingStreamWithFileAtPath(const std::string& path) {
    return qx::InputStream::inputStreamWithFileAtPath(path);
}

qx::Ref<qx::InputStream> QXInputStream::underlyingStreamWithURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::Dictionary>& headers) {
    if (!url) return nullptr;
    if (url->isFileURL()) return qx::InputStream::inputStreamWithURL(url);
    return qx::HTTPInputStream::inputStreamWithURL(url, headers);
}

qx::Ref<qx::InputStream> QXInputStream::underlyingStreamWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                                       bool closeFileWhenStreamClosed) {
    return QXFileHandleInputStream::initWithFileHandle(fileHandle, closeFileWhenStreamClosed);
}

qx::Ref<QXInputStream> QXInputStream::initWithData(const qx::Ref<qx::Data>& data) {
    auto underlying = underlyingStreamWithData(data);
    return underlying ? initWithInputStream(underlying) : nullptr;
}

qx::Ref<QXInputStream> QXInputStream::initWithFileAtPath(const std::string& path) {
    auto underlying = underlyingStreamWithFileAtPath(path);
    return underlying ? initWithInputStream(underlying) : nullptr;
}

qx::Ref<QXInputStream> QXInputStream::initWithURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::Dictionary>& headers) {
    auto underlying = underlyingStreamWithURL(url, headers);
    return underlying ? initWithInputStream(underlying) : nullptr;
}

qx::Ref<QXInputStream> QXInputStream::initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle, bool closeFileWhenStreamClosed) {
    auto underlying = underlyingStreamWithFileHandle(fileHandle, closeFileWhenStreamClosed);
    return underlying ? initWithInputStream(underlying) : nullptr;
}

QXInputStream::~QXInputStream() {
    QXInputStream::close();
    // close() leaves a stream at its end or in error alone; its background
    // thread must still not outlive it.
    stopBackgroundThread();
    removeFromAllRunLoops();
    if (runLoopSource_) runLoopSource_->invalidate();
}

std::vector<std::string> QXInputStream::keyPathsForValuesAffectingStreamStatus() {
    return {"underlyingStream.streamStatus", "QXInputStream_isLimitedLength", "QXInputStream_bytesLeft"};
}

std::vector<std::string> QXInputStream::keyPathsForValuesAffectingStreamError() { return {"underlyingStream.streamError"}; }

std::vector<std::string> QXInputStream::keyPathsForValuesAffectingHasBytesAvailable() {
    return {"underlyingStream.hasBytesAvailable", "QXInputStream_isLimitedLength", "QXInputStream_bytesLeft"};
}

// ---- opening, closing, the background thread ---------------------------------

void QXInputStream::open() {
    if (streamStatus() != qx::StreamStatus::NotOpen || opened_.exchange(true)) return;
    startBackgroundThread();
    if (underlyingStream_) underlyingStream_->open();
}

void QXInputStream::startBackgroundThread() {
    struct Start {
        qx::Semaphore ready{0};
        qx::Ref<qx::RunLoop> runLoop;
    };
    auto start = std::make_shared<Start>();
    // The thread holds the stream only weakly between passes, so that a
    // stream its owner lets go of stops its thread instead of living on.
    qx::WeakRef<QXInputStream> weak = self();
    auto thread = QXThread::initWithClosure([weak, start] {
        auto loop = qx::RunLoop::current();
        start->runLoop = loop;
        {
            auto stream = weak.lock();
            if (stream && stream->underlyingStream_)
                stream->underlyingStream_->scheduleInRunLoop(loop, kQXInputStreamBackgroundRunLoopMode);
            start->ready.signal();
            if (!stream || static_cast<int>(stream->streamStatus()) > static_cast<int>(qx::StreamStatus::Open)) return;
        }
        for (;;) {
            {
                auto stream = weak.lock();
                if (!stream || stream->backgroundRunLoopDone_.load()) return;
            }
            loop->runMode(kQXInputStreamBackgroundRunLoopMode, qx::RunLoop::distantFuture());
            auto stream = weak.lock();
            if (!stream || static_cast<int>(stream->streamStatus()) >= static_cast<int>(qx::StreamStatus::Reading)) return;
        }
    });
    thread->setName(qx::format("%@ %p", qx::String::create(className()), static_cast<const void*>(this)));
    {
        std::lock_guard<std::mutex> lock(lock_);
        backgroundThread_ = thread;
    }
    if (!thread->start()) {
        std::lock_guard<std::mutex> lock(lock_);
        backgroundThread_ = nullptr;
        return;
    }
    start->ready.wait();
    std::lock_guard<std::mutex> lock(lock_);
    backgroundRunLoop_ = start->runLoop;
}

void QXInputStream::stopBackgroundThread() {
    qx::Ref<qx::RunLoop> loop;
    {
        std::lock_guard<std::mutex> lock(lock_);
        loop = std::move(backgroundRunLoop_);
        backgroundRunLoop_ = nullptr;
        backgroundThread_ = nullptr;
    }
    backgroundRunLoopDone_.store(true);
    if (!loop) return;
    if (underlyingStream_) underlyingStream_->removeFromRunLoop(loop, kQXInputStreamBackgroundRunLoopMode);
    loop->wakeUp();
}

void QXInputStream::close() {
    // Deliberately only from Open: a stream at its end or in error keeps its
    // underlying stream open and attached.
    if (streamStatus() != qx::StreamStatus::Open) return;
    stopBackgroundThread();
    if (underlyingStream_) {
        underlyingStream_->setDelegate(nullptr);
        underlyingStream_->close();
    }
}

// ---- reading -----------------------------------------------------------------

std::int64_t QXInputStream::primitiveRead(std::uint8_t* buffer, std::uint64_t maxLength) {
    return underlyingStream_ ? underlyingStream_->read(buffer, maxLength) : -1;
}

std::int64_t QXInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
    std::uint64_t length = std::min(maxLength, kMaxRead);
    if (streamStatus() == qx::StreamStatus::AtEnd) return 0;
    if (streamStatus() != qx::StreamStatus::Open) return -1;
    if (isLimitedLength_) length = std::min(length, bytesLeft_.load());
    std::int64_t n = 0;
    if (length > 0) {
        n = primitiveRead(buffer, length);
        if (n >= 1) {
            if (isLimitedLength_) bytesLeft_.fetch_sub(std::min<std::uint64_t>(static_cast<std::uint64_t>(n), bytesLeft_.load()));
            if (sendsReadDataNotifications()) {
                auto info = qx::Dictionary::create();
                info->setObject(qx::Data::withBytes(buffer, static_cast<std::size_t>(n)), kQXInputStreamDataKey);
                qx::NotificationCenter::defaultCenter()->post(kQXInputStreamReadDataNotification, self(), info);
            }
        }
    }
    if (isFinished_.load()) return n;
    if (isLimitedLength_ && bytesLeft_.load() == 0) {
        handleEvent(qx::StreamEventEndEncountered);
        return n;
    }
    const qx::StreamStatus status = streamStatus();
    if (status == qx::StreamStatus::AtEnd)
        handleEvent(qx::StreamEventEndEncountered);
    else if (status == qx::StreamStatus::Error)
        handleEvent(qx::StreamEventErrorOccurred);
    return n;
}

bool QXInputStream::getBuffer(const std::uint8_t** buffer, std::uint64_t* length) {
    const std::uint8_t* bytes = nullptr;
    std::uint64_t available = 0;
    if (!underlyingStream_ || !underlyingStream_->getBuffer(&bytes, &available)) return false;
    if (isLimitedLength_) {
        available = std::min(available, bytesLeft_.load());
        if (available == 0) return false;
        bytesLeft_.fetch_sub(available);
    }
    if (buffer) *buffer = bytes;
    if (length) *length = available;
    if (sendsReadDataNotifications()) {
        auto info = qx::Dictionary::create();
        info->setObject(qx::Data::withBytes(bytes, static_cast<std::size_t>(available)), kQXInputStreamDataKey);
        qx::NotificationCenter::defaultCenter()->post(kQXInputStreamReadDataNotification, self(), info);
    }
    return true;
}

bool QXInputStream::hasBytesAvailable() const {
    if (isLimitedLength_ && bytesLeft_.load() == 0) return false;
    return underlyingStream_ && underlyingStream_->hasBytesAvailable();
}

qx::StreamStatus QXInputStream::streamStatus() const {
    if (!underlyingStream_) return qx::StreamStatus::NotOpen;
    const qx::StreamStatus status = underlyingStream_->streamStatus();
    if (status == qx::StreamStatus::Open && isLimitedLength_ && bytesLeft_.load() == 0) return qx::StreamStatus::AtEnd;
    return status;
}

qx::Ref<qx::Error> QXInputStream::streamError() const { return underlyingStream_ ? underlyingStream_->streamError() : nullptr; }

qx::Ref<qx::Object> QXInputStream::propertyForKey(const std::string& key) const {
    return underlyingStream_ ? underlyingStream_->propertyForKey(key) : nullptr;
}

bool QXInputStream::setProperty(const qx::Ref<qx::Object>& property, const std::string& key) {
    return underlyingStream_ && underlyingStream_->setProperty(property, key);
}

qx::Ref<qx::Data> QXInputStream::availableData() {
    auto result = qx::Data::create();
    std::uint8_t scratch[kAvailableDataStep];
    for (;;) {
        const std::int64_t n = read(scratch, sizeof scratch);
        if (n <= 0) break;
        result->append(scratch, static_cast<std::size_t>(n));
    }
    return result;
}

qx::Ref<qx::Data> QXInputStream::availableDataWithMaxLength(std::uint64_t maxLength) {
    const auto size = static_cast<std::size_t>(std::min(maxLength, kMaxDataPerRead));
    // Not zero-filled: pages a short read never touches are never backed.
    std::unique_ptr<std::uint8_t[]> scratch(new (std::nothrow) std::uint8_t[size ? size : 1]);
    if (!scratch) return nullptr;
    const std::int64_t n = read(scratch.get(), size);
    if (n < 0) return nullptr;
    return qx::Data::withBytes(scratch.get(), static_cast<std::size_t>(n));
}

qx::Ref<qx::Data> QXInputStream::readDataSynchronouslyOfLength(std::uint64_t length, qx::Ref<qx::Error>* error) {
    const auto loop = qx::RunLoop::current();
    scheduleInRunLoop(loop, kQXInputStreamSynchronousReadMode);
    struct Unschedule {
        QXInputStream& stream;
        const qx::Ref<qx::RunLoop>& loop;
        ~Unschedule() { stream.removeFromRunLoop(loop, kQXInputStreamSynchronousReadMode); }
    } unschedule{*this, loop};

    auto first = availableDataWithMaxLength(length);
    const qx::StreamStatus status = streamStatus();
    if (status == qx::StreamStatus::NotOpen || status == qx::StreamStatus::Closed) {
        if (error) *error = qx::Error::create(qx::NSPOSIXErrorDomain, EBADF);
        return nullptr;
    }
    if (status == qx::StreamStatus::Error) {
        if (error) *error = streamError();
        return nullptr;
    }
    if (!first || status == qx::StreamStatus::AtEnd || first->length() >= length) return first;

    struct State {
        qx::Ref<qx::Data> buffer;
        std::uint64_t remaining;
        bool ended = false;
        bool failed = false;
    };
    // Shared with the callbacks, which a delivery may still hold a copy of
    // after this call has returned.
    auto state = std::make_shared<State>(State{std::static_pointer_cast<qx::Data>(first->copy()), length - first->length()});
    const auto readable = QXInputStream_addPrivateReadabilityHandler([state](QXInputStream& stream) {
        if (state->ended || state->failed || state->remaining == 0) return;
        auto more = stream.availableDataWithMaxLength(state->remaining);
        if (!more) {
            state->failed = true;
            return;
        }
        if (more->length() == 0) state->ended = true;
        state->buffer->append(*more);
        state->remaining -= more->length();
    });
    const auto events = QXInputStream_addPrivateEventHandler([state](QXInputStream&, qx::StreamEventMask event) {
        if (event & qx::StreamEventEndEncountered) state->ended = true;
        if (event & qx::StreamEventErrorOccurred) state->failed = true;
    });
    struct RemoveHandlers {
        QXInputStream& stream;
        HandlerToken readable, events;
        ~RemoveHandlers() {
            stream.QXInputStream_removePrivateReadabilityHandler(readable);
            stream.QXInputStream_removePrivateEventHandler(events);
        }
    };
    {
        RemoveHandlers remove{*this, readable, events};
        while (state->remaining != 0 && !state->ended && !state->failed)
            loop->runMode(kQXInputStreamSynchronousReadMode, qx::RunLoop::distantFuture());
    }
    if (state->failed) {
        if (error) *error = streamError();
        return nullptr;
    }
    return state->buffer;
}

// ---- events ------------------------------------------------------------------

void QXInputStream::stream(qx::Stream& stream, qx::StreamEventMask event) {
    if (&stream != underlyingStream_.get()) return;
    handleEvent(event);
}

void QXInputStream::handleEvent(qx::StreamEventMask event) {
    if (isFinished_.load()) return;
    QXInputStream_notifyDelegateOfEvent(event);
    const qx::StreamStatus status = streamStatus();
    if (event & kFinishingEvents) {
        isFinished_.store(true);
        return;
    }
    if (status == qx::StreamStatus::AtEnd || status == qx::StreamStatus::Closed)
        handleEvent(qx::StreamEventEndEncountered);
    else if (status == qx::StreamStatus::Error)
        handleEvent(qx::StreamEventErrorOccurred);
}

void QXInputStream::QXInputStream_notifyDelegateOfEvent(qx::StreamEventMask event) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        currentEvent_ |= event;
    }
    if (runLoopSource_) runLoopSource_->signal();
    wakeUpRunLoop();
}

void QXInputStream::wakeUpRunLoop() {
    std::vector<qx::Ref<qx::RunLoop>> loops;
    {
        std::lock_guard<std::mutex> lock(lock_);
        loops = runLoopTable_->loops();
    }
    for (const auto& loop : loops) loop->wakeUp();
}

void QXInputStream::runLoopSourceCallback() {
    qx::StreamEventMask mask;
    {
        std::lock_guard<std::mutex> lock(lock_);
        mask = currentEvent_;
        currentEvent_ = 0;
    }
    if (mask == 0) return;
    if (streamStatus() != qx::StreamStatus::Open) mask &= ~qx::StreamEventMask{qx::StreamEventHasBytesAvailable};
    if (auto receiver = delegate()) receiver->stream(*this, mask);
    QXInputStream_sendNotificationsForEvent(mask);
}

void QXInputStream::QXInputStream_sendNotificationsForEvent(qx::StreamEventMask event) {
    if (auto handler = eventHandler()) handler(*this, event);
    for (const auto& handler : QXInputStream_privateEventHandlers()) handler(*this, event);
    if (event & qx::StreamEventHasBytesAvailable) {
        if (auto handler = readabilityHandler()) handler(*this);
        for (const auto& handler : QXInputStream_privateReadabilityHandlers()) handler(*this);
    }
    if (event & qx::StreamEventEndEncountered)
        qx::NotificationCenter::defaultCenter()->post(kQXInputStreamReachedEndNotification, self());
    if (event & qx::StreamEventErrorOccurred)
        qx::NotificationCenter::defaultCenter()->post(kQXInputStreamErrorOccurredNotification, self());
}

// ---- delegate, scheduling, callbacks -----------------------------------------

qx::Ref<qx::StreamDelegate> QXInputStream::delegate() const {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (auto delegate = streamDelegate_.lock()) return delegate;
    }
    return std::static_pointer_cast<QXInputStream>(std::const_pointer_cast<qx::Object>(shared_from_this()));
}

void QXInputStream::setDelegate(const qx::Ref<qx::StreamDelegate>& delegate) {
    std::lock_guard<std::mutex> lock(lock_);
    streamDelegate_ = delegate;  // nothing: the stream is its own delegate again
}

qx::Ref<qx::StreamDelegate> QXInputStream::QXInputStream_streamDelegate() const { return delegate(); }

void QXInputStream::scheduleInRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->schedule(runLoopSource_, runLoop, mode);
}

void QXInputStream::removeFromRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->remove(runLoopSource_, runLoop, mode);
}

void QXInputStream::removeFromAllRunLoops() {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->removeAll(runLoopSource_);
}

QXInputStream::ReadabilityHandler QXInputStream::readabilityHandler() const {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    return readabilityHandler_;
}

void QXInputStream::setReadabilityHandler(ReadabilityHandler handler) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    readabilityHandler_ = std::move(handler);
}

QXInputStream::EventHandler QXInputStream::eventHandler() const {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    return eventHandler_;
}

void QXInputStream::setEventHandler(EventHandler handler) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    eventHandler_ = std::move(handler);
}

QXInputStream::HandlerToken QXInputStream::QXInputStream_addPrivateReadabilityHandler(ReadabilityHandler handler) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    privateReadabilityHandlers_.push_back({nextToken_, std::move(handler)});
    return nextToken_++;
}

void QXInputStream::QXInputStream_removePrivateReadabilityHandler(HandlerToken token) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    std::erase_if(privateReadabilityHandlers_, [&](const auto& e) { return e.token == token; });
}

QXInputStream::HandlerToken QXInputStream::QXInputStream_addPrivateEventHandler(EventHandler handler) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    privateEventHandlers_.push_back({nextToken_, std::move(handler)});
    return nextToken_++;
}

void QXInputStream::QXInputStream_removePrivateEventHandler(HandlerToken token) {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    std::erase_if(privateEventHandlers_, [&](const auto& e) { return e.token == token; });
}

std::vector<QXInputStream::ReadabilityHandler> QXInputStream::QXInputStream_privateReadabilityHandlers() const {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    std::vector<ReadabilityHandler> snapshot;
    for (const auto& e : privateReadabilityHandlers_) snapshot.push_back(e.handler);
    return snapshot;
}

std::vector<QXInputStream::EventHandler> QXInputStream::QXInputStream_privateEventHandlers() const {
    std::lock_guard<std::recursive_mutex> lock(handlersLock_);
    std::vector<EventHandler> snapshot;
    for (const auto& e : privateEventHandlers_) snapshot.push_back(e.handler);
    return snapshot;
}
