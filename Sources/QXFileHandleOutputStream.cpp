// QXFileHandleOutputStream.cpp - synchronous writes to a file handle.
#include <QXFoundation/QXFileHandleOutputStream.h>

#include <qx/Log.h>
#include <qx/Number.h>

#include <algorithm>
#include <limits>

QXFileHandleOutputStream::QXFileHandleOutputStream(qx::Ref<qx::FileHandle> fileHandle, bool closeFileWhenStreamClosed)
    : closeWhenDone_(closeFileWhenStreamClosed), fileHandle_(std::move(fileHandle)) {}

qx::Ref<QXFileHandleOutputStream> QXFileHandleOutputStream::initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                                               bool closeFileWhenStreamClosed) {
    if (!fileHandle) return nullptr;
    return qx::Ref<QXFileHandleOutputStream>(new QXFileHandleOutputStream(fileHandle, closeFileWhenStreamClosed));
}

QXFileHandleOutputStream::~QXFileHandleOutputStream() {
    QXLog("%@ dealloc", qx::String::create(description()));
    QXFileHandleOutputStream::close();
}

void QXFileHandleOutputStream::open() {
    qx::StreamStatus expected = qx::StreamStatus::NotOpen;
    status_.compare_exchange_strong(expected, qx::StreamStatus::Open);
}

void QXFileHandleOutputStream::close() {
    status_.store(qx::StreamStatus::Closed);
    if (!closeWhenDone_) return;
    try {
        fileHandle_->closeFile();
    } catch (const qx::Exception&) {
        // Closing an already closed handle is harmless; nothing else to report.
    }
}

std::int64_t QXFileHandleOutputStream::write(const std::uint8_t* buffer, std::uint64_t length) {
    if (status() != qx::StreamStatus::Open) return -1;
    const std::uint64_t count = std::min<std::uint64_t>(length, std::numeric_limits<std::int64_t>::max());
    try {
        if (count > 0 && !buffer) throw qx::Exception(qx::Exception::FileHandleOperationException, "no bytes to write");
        fileHandle_->writeBytes(buffer, static_cast<std::size_t>(count));
    } catch (const std::exception&) {
        // Faults are reported as an event only; the status stays as it is.
        if (auto receiver = qxDelegate()) receiver->stream(*this, qx::StreamEventErrorOccurred);
        return -1;
    }
    return static_cast<std::int64_t>(count);
}

qx::Ref<qx::Object> QXFileHandleOutputStream::propertyForKey(const std::string& key) const {
    if (key != FileCurrentOffsetKey) return nullptr;
    try {
        return qx::Number::withUInt64(fileHandle_->offsetInFile());
    } catch (const qx::Exception&) {
        return nullptr;
    }
}

bool QXFileHandleOutputStream::setProperty(const qx::Ref<qx::Object>&, const std::string&) { return false; }

qx::Ref<qx::StreamDelegate> QXFileHandleOutputStream::qxDelegate() const {
    std::lock_guard<std::mutex> lock(delegateLock_);
    return qxDelegate_.lock();
}

void QXFileHandleOutputStream::setQxDelegate(const qx::Ref<qx::StreamDelegate>& delegate) {
    std::lock_guard<std::mutex> lock(delegateLock_);
    qxDelegate_ = delegate;
}
