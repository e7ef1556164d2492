// QXFileHandleInputStream.cpp - blocking reads with a read-ahead, events through a source of its own.
#include <QXFoundation/QXFileHandleInputStream.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXRunLoopTable.h"

#include <qx/Number.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {
constexpr std::uint64_t kMaxRead = std::numeric_limits<std::int64_t>::max();

qx::Ref<qx::Error> faultError(const qx::Exception& exception) {
    return QXGenerateError(qx::NSCocoaErrorDomain, 256, nullptr, nullptr, nullptr, "%@", qx::String::create(exception.description()));
}
} // namespace

QXFileHandleInputStream::QXFileHandleInputStream(qx::Ref<qx::FileHandle> fileHandle, bool closeFileWhenStreamClosed)
    : runLoopTable_(std::make_unique<QXRunLoopTable>()),
      closeWhenDone_(closeFileWhenStreamClosed),
      fileHandle_(std::move(fileHandle)) {}

qx::Ref<QXFileHandleInputStream> QXFileHandleInputStream::initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                                             bool closeFileWhenStreamClosed) {
    if (!fileHandle) return nullptr;
    qx::Ref<QXFileHandleInputStream> stream(new QXFileHandleInputStream(fileHandle, closeFileWhenStreamClosed));
    // The source holds the stream weakly: a delivery keeps it alive while it
    // runs, but a scheduled source never keeps it alive by itself.
    qx::WeakRef<QXFileHandleInputStream> weak = stream;
    stream->runLoopSource_ = qx::RunLoopSource::create([weak] {
        if (auto self = weak.lock()) self->runLoopSourceCallback();
    });
    return stream;
}

QXFileHandleInputStream::~QXFileHandleInputStream() {
    QXFileHandleInputStream::close();
    removeFromAllRunLoops();
    if (runLoopSource_) runLoopSource_->invalidate();
}

std::vector<std::string> QXFileHandleInputStream::keyPathsForValuesAffectingStreamStatus() {
    return {"qxFileHandleStreamStatus"};
}

std::vector<std::string> QXFileHandleInputStream::keyPathsForValuesAffectinStreamError() {
    return {"qxFileHandleStreamError"};
}

void QXFileHandleInputStream::open() {
    qx::StreamStatus expected = qx::StreamStatus::NotOpen;
    if (status_.load() != expected) return;
    qx::WeakRef<QXFileHandleInputStream> weak = std::static_pointer_cast<QXFileHandleInputStream>(shared_from_this());
    fileHandle_->setReadabilityHandler([weak](qx::FileHandle&) {
        auto self = weak.lock();
        if (self && !self->willReadAgain_.load()) self->notifyDelegateOfEvent(qx::StreamEventHasBytesAvailable);
    });
    if (!status_.compare_exchange_strong(expected, qx::StreamStatus::Open)) return;
    notifyDelegateOfEvent(qx::StreamEventOpenCompleted);
}

void QXFileHandleInputStream::stopReadabilityReports() { fileHandle_->setReadabilityHandler(nullptr); }

void QXFileHandleInputStream::close() {
    stopReadabilityReports();
    status_.store(qx::StreamStatus::Closed);
    if (!closeWhenDone_) return;
    std::lock_guard<std::mutex> lock(lock_);
    if (!fileIsOpen_) return;
    fileIsOpen_ = false;
    try {
        fileHandle_->closeFile();
    } catch (const qx::Exception&) {
        // The descriptor is gone either way; nothing to tell a closing stream.
    }
}

qx::Ref<qx::Data> QXFileHandleInputStream::readDataFromFileHandleWithLength(std::uint64_t length, qx::Ref<qx::Error>* error) {
    try {
        return fileHandle_->readDataOfLength(length);
    } catch (const qx::Exception& exception) {
        if (error) *error = faultError(exception);
        return nullptr;
    }
}

std::int64_t QXFileHandleInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
    if (status_.load() != qx::StreamStatus::Open) return -1;
    std::uint64_t length = std::min(maxLength, kMaxRead);
    if (length > 0 && !buffer) return -1;
    std::uint64_t count = 0;
    if (aheadEnd_ > aheadStart_) {
        const std::uint64_t m = std::min<std::uint64_t>(aheadEnd_ - aheadStart_, length);
        std::memcpy(buffer, readAhead_ + aheadStart_, m);
        buffer += m;
        length -= m;
        count = m;
        aheadStart_ += m;
    }
    willReadAgain_.store(aheadStart_ == aheadEnd_);
    bool readFromHandle = false;
    if (length > 0) {
        // Straight into the caller's memory: the same blocking read as
        // readDataFromFileHandleWithLength, without a copy through a data.
        readFromHandle = true;
        std::uint64_t n = 0;
        try {
            n = fileHandle_->readBytesOfLength(buffer, length);
        } catch (const qx::Exception& exception) {
            errorOccurred(faultError(exception));
            return -1;
        }
        if (n == 0)
            endEncountered();
        else
            count += n;
    }
    if (willReadAgain_.load()) {
        willReadAgain_.store(false);
        readFromHandle = true;
        std::uint64_t n = 0;
        try {
            n = fileHandle_->readBytesOfLength(readAhead_, kReadAhead);
        } catch (const qx::Exception& exception) {
            errorOccurred(faultError(exception));
            return -1;
        }
        aheadStart_ = 0;
        aheadEnd_ = static_cast<std::size_t>(n);
        if (n == 0) endEncountered();
    }
    if (!readFromHandle) notifyDelegateOfEvent(qx::StreamEventHasBytesAvailable);
    return static_cast<std::int64_t>(count);
}

bool QXFileHandleInputStream::getBuffer(const std::uint8_t**, std::uint64_t*) { return false; }

bool QXFileHandleInputStream::hasBytesAvailable() const { return status_.load() == qx::StreamStatus::Open; }

qx::Ref<qx::Object> QXFileHandleInputStream::propertyForKey(const std::string& key) const {
    if (key != FileCurrentOffsetKey) return nullptr;
    try {
        return qx::Number::withUInt64(fileHandle_->offsetInFile());
    } catch (const qx::Exception&) {
        return nullptr;
    }
}

bool QXFileHandleInputStream::setProperty(const qx::Ref<qx::Object>&, const std::string&) { return false; }

void QXFileHandleInputStream::scheduleInRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->schedule(runLoopSource_, runLoop, mode);
}

void QXFileHandleInputStream::removeFromRunLoop(const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->remove(runLoopSource_, runLoop, mode);
}

void QXFileHandleInputStream::removeFromAllRunLoops() {
    std::lock_guard<std::mutex> lock(lock_);
    runLoopTable_->removeAll(runLoopSource_);
}

void QXFileHandleInputStream::wakeUpRunLoop() {
    std::vector<qx::Ref<qx::RunLoop>> loops;
    {
        std::lock_guard<std::mutex> lock(lock_);
        loops = runLoopTable_->loops();
    }
    for (const auto& loop : loops) loop->wakeUp();
}

void QXFileHandleInputStream::endEncountered() {
    stopReadabilityReports();
    status_.store(qx::StreamStatus::AtEnd);
    notifyDelegateOfEvent(qx::StreamEventEndEncountered);
}

void QXFileHandleInputStream::errorOccurred(const qx::Ref<qx::Error>& error) {
    stopReadabilityReports();
    {
        std::lock_guard<std::mutex> lock(lock_);
        error_ = error;
    }
    status_.store(qx::StreamStatus::Error);
    notifyDelegateOfEvent(qx::StreamEventErrorOccurred);
}

void QXFileHandleInputStream::notifyDelegateOfEvent(qx::StreamEventMask event) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!delegate_.lock()) return;
        currentEvent_ |= event;
    }
    runLoopSource_->signal();
    wakeUpRunLoop();
}

void QXFileHandleInputStream::runLoopSourceCallback() {
    qx::StreamEventMask mask;
    qx::Ref<qx::StreamDelegate> receiver;
    {
        std::lock_guard<std::mutex> lock(lock_);
        mask = currentEvent_;
        currentEvent_ = 0;
        receiver = delegate_.lock();
    }
    if (mask == 0) return;
    if (status_.load() != qx::StreamStatus::Open) mask &= ~qx::StreamEventMask{qx::StreamEventHasBytesAvailable};
    if (receiver) receiver->stream(*this, mask);
}

bool QXFileHandleInputStream::qxFileHandleStreamFileIsOpen() const {
    std::lock_guard<std::mutex> lock(lock_);
    return fileIsOpen_;
}

qx::Ref<qx::StreamDelegate> QXFileHandleInputStream::qxFileHandleStreamDelegate() const {
    std::lock_guard<std::mutex> lock(lock_);
    return delegate_.lock();
}

void QXFileHandleInputStream::setQxFileHandleStreamDelegate(const qx::Ref<qx::StreamDelegate>& delegate) {
    std::lock_guard<std::mutex> lock(lock_);
    delegate_ = delegate;
}

qx::Ref<qx::Error> QXFileHandleInputStream::qxFileHandleStreamError() const {
    std::lock_guard<std::mutex> lock(lock_);
    return error_;
}
