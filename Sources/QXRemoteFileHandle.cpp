// QXRemoteFileHandle.cpp - one handle over local files, resource forks and
// HTTP resources: making handles, the local data-fork path, and the dispatch
// to the resource-fork and HTTP units (Internal/QXRemoteFileHandle*.cpp).
#include <QXFoundation/QXRemoteFileHandle.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXFoundationPrivate.h"
#include "Internal/QXRemoteFileHandleLocalReader.h"
#include "Internal/QXRemoteFileHandlePrivate.h"
#include "Internal/QXRemoteFileHandleStreamWindow.h"

#include <qx/Thread.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using qx::Data;
using qx::Error;
using qx::FileHandle;
using qx::Ref;
using qxrfh::kMaxReadBuffer;
using qxrfh::posixError;

const char* const kQXRemoteFileHandleErrorDomain = "QXRemoteFileHandleErrorDomain";

Ref<Error> qxrfh::posixError(int errnum, const Ref<qx::URL>& url) { return QXGenerateError(qx::NSPOSIXErrorDomain, errnum, url); }

bool qxrfh::startThread(const char* name, std::function<void()> work) {
    auto thread = qx::Thread::create(std::move(work));
    thread->setName(name);
    return thread->start();
}

namespace {

// The status flag a 64-bit kernel adds to every descriptor on its own
// (O_LARGEFILE, whose user-space value is 0 there); it says nothing about how
// the file was opened, so the strict flags comparison leaves it out.
#if defined(__aarch64__) || defined(__arm__)
constexpr int kKernelLargeFileFlag = 0400000;
#elif defined(__powerpc__) || defined(__powerpc64__)
constexpr int kKernelLargeFileFlag = 0200000;
#else
constexpr int kKernelLargeFileFlag = 0100000;
#endif

// What the file system says when a file URL cannot be reached: the file
// system's code with the system's error beneath.
Ref<Error> reachabilityError(int errnum, const Ref<qx::URL>& url) {
    auto info = qx::Dictionary::create();
    info->setObject(url, qx::NSURLErrorKey);
    info->setObject(qx::str(url->path()), qx::NSFilePathErrorKey);
    info->setObject(Error::create(qx::NSPOSIXErrorDomain, errnum), qx::NSUnderlyingErrorKey);
    return Error::create(qx::NSCocoaErrorDomain, (errnum == ENOENT || errnum == ENOTDIR) ? 260 : 256, info);
}

} // namespace

// ---- Descriptors that cannot seek ----

Ref<Data> QXRemoteFileHandle::readStream(std::uint64_t length, Ref<Error>* error) {
    const int fd = fileHandle_->fileDescriptor();
    auto data = Data::create();
    std::uint64_t total = 0;
    while (total < length) {
        // Grown a piece at a time: "to the end" must not allocate its length up front.
        const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(length - total, kMaxReadBuffer));
        data->setLength(static_cast<std::size_t>(total) + piece);
        const ssize_t n = stream_->read(fd, data->mutableBytes() + total, piece);
        if (n < 0) {
            if (error) *error = posixError(errno, url_);
            return nullptr;
        }
        if (n == 0) break;
        total += static_cast<std::uint64_t>(n);
    }
    data->setLength(static_cast<std::size_t>(total));
    return data;
}

bool QXRemoteFileHandle::seekStream(std::uint64_t offset, Ref<Error>* error) {
    const int errnum = stream_->seek(fileHandle_->fileDescriptor(), offset);
    if (errnum != 0 && error) *error = posixError(errnum, url_);
    return errnum == 0;
}

// ---- Making handles ----

QXRemoteFileHandle::QXRemoteFileHandle() = default;

QXRemoteFileHandle::~QXRemoteFileHandle() {
    if (closeWhenDone()) (void)closeFileAndReturnError(nullptr);
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::self() { return std::static_pointer_cast<QXRemoteFileHandle>(shared_from_this()); }

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initForReadingFromURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    Ref<QXRemoteFileHandle> handle;
    if (url && url->isFileURL()) {
        struct stat st {};
        if (::stat(url->path().c_str(), &st) != 0) {
            if (error) *error = reachabilityError(errno, url);
            return nullptr;
        }
        auto fileHandle = FileHandle::fileHandleForReadingFromURL(url, error);
        if (!fileHandle) return nullptr;
        handle = initWithSystemFileHandle(fileHandle, true, error);
        if (!handle) return nullptr;
    } else if (url && qxrfh::isHTTPScheme(url->scheme())) {
        handle = Ref<QXRemoteFileHandle>(new QXRemoteFileHandle());
        handle->setIsSeekable(true);
    } else {
        // The platform's own error for a scheme it does not read, without user info.
        if (error) *error = Error::create(qx::NSCocoaErrorDomain, 262);
        return nullptr;
    }
    handle->url_ = url;
    handle->setIsReadable(true);
    handle->setIsWritable(false);
    handle->sizeSemaphore_ = qx::Semaphore::create(1);
    handle->calculateFileSize();
    handle->setCloseWhenDone(true);
    return handle;
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initForWritingToURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    auto fileHandle = FileHandle::fileHandleForWritingToURL(url, error);
    if (!fileHandle) return nullptr;
    return initWithSystemFileHandle(fileHandle, true, error);
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initWithSystemFileHandle(const Ref<FileHandle>& fileHandle, bool closeOnDealloc,
                                                                     Ref<Error>* error) {
    if (!fileHandle) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 256);
        return nullptr;
    }
    const int fd = fileHandle->fileDescriptor();
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        if (error) *error = posixError(errno);
        return nullptr;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) {
        if (error) *error = posixError(errno);
        return nullptr;
    }
    Ref<QXRemoteFileHandle> handle(new QXRemoteFileHandle());
    handle->fileHandle_ = fileHandle;
    handle->setCloseWhenDone(closeOnDealloc);
    const bool stream = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || (::lseek(fd, 0, SEEK_CUR) < 0 && errno == ESPIPE);
    handle->setIsSeekable(!stream);
    if (stream) handle->stream_ = std::make_shared<QXRemoteFileHandleStreamWindow>();
    // Deliberately the whole flags word, not the access mode: a descriptor
    // with O_APPEND, O_NONBLOCK and the like is neither readable nor writable.
    const int word = flags & ~kKernelLargeFileFlag;
    handle->setIsReadable(word == O_RDONLY || word == O_RDWR);
    handle->setIsWritable(word == O_WRONLY || word == O_RDWR);
    return handle;
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initForReadingFromResourceForkAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    auto fileHandle = FileHandle::fileHandleForReadingFromURL(url, error);
    if (!fileHandle) return nullptr;
    return initWithResourceForkForSystemFileHandle(fileHandle, true, false, true, error);
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initForWritingToResourceForkAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    auto fileHandle = FileHandle::fileHandleForWritingToURL(url, error);
    if (!fileHandle) return nullptr;
    return initWithResourceForkForSystemFileHandle(fileHandle, false, true, true, error);
}

Ref<QXRemoteFileHandle> QXRemoteFileHandle::initWithResourceForkForSystemFileHandle(const Ref<FileHandle>& fileHandle, bool forReading,
                                                                                    bool forWriting, bool closeOnDealloc,
                                                                                    Ref<Error>* error) {
    if (!fileHandle) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 256);
        return nullptr;
    }
    Ref<QXRemoteFileHandle> handle(new QXRemoteFileHandle());
    handle->fileHandle_ = fileHandle;
    handle->setIsReadable(forReading);
    handle->setIsWritable(forWriting);
    handle->setIsRsrcFork(true);
    std::uint64_t length = 0;
    if (!handle->getRsrcForkLength(&length, error)) return nullptr;  // the caller still owns the file: not closed here
    handle->setPrivateSize(length);
    handle->setCloseWhenDone(closeOnDealloc);
    return handle;
}

std::string QXRemoteFileHandle::description() const {
    std::string where = url_ ? url_->absoluteString()
                             : fileHandle_ ? "fd " + std::to_string(fileHandle_->fileDescriptor()) : std::string("(no source)");
    return "<QXRemoteFileHandle " + where + (isRsrcFork() ? " (resource fork)" : "") + ">";
}

Ref<Error> QXRemoteFileHandle::exceptionError(std::int64_t code, const std::exception& exception) const {
    const auto* platform = dynamic_cast<const qx::Exception*>(&exception);
    const std::string text = platform ? platform->description() : exception.what();
    return QXGenerateError(qx::NSCocoaErrorDomain, code, url_, nullptr, nullptr, QXFLocalizedString("%@"), qx::str(text));
}

// ---- Position and size ----

std::uint64_t QXRemoteFileHandle::offsetInFile() const {
    if (stream_) return stream_->currentPosition();
    if (fileHandle_ && !isRsrcFork()) {
        try {
            return fileHandle_->offsetInFile();
        } catch (const std::exception&) {
            return 0;  // a closed handle has no position to report
        }
    }
    return privateOffsetInFile();
}

std::uint64_t QXRemoteFileHandle::fileSize() {
    if (!sizeSemaphore_) return privateSize();
    sizeSemaphore_->wait();
    const std::uint64_t size = privateSize();
    sizeSemaphore_->signal();
    return size;
}

void QXRemoteFileHandle::calculateFileSize() {
    if (sizeSemaphore_) sizeSemaphore_->wait();
    if (!fileHandle_) {
        calculateHTTPFileSize();
        return;
    }
    try {
        const std::uint64_t offset = fileHandle_->offsetInFile();
        setPrivateSize(fileHandle_->seekToEndOfFile());
        fileHandle_->seekToFileOffset(offset);
    } catch (const std::exception&) {
        setPrivateSize(0);
    }
    if (sizeSemaphore_) sizeSemaphore_->signal();
}

// ---- Synchronous reads ----

Ref<Data> QXRemoteFileHandle::readDataOfLength(std::uint64_t length, Ref<Error>* error) {
    if (!isReadable()) {
        if (error) *error = posixError(EINVAL);
        return nullptr;
    }
    if (isRsrcFork()) return readRsrcForkOfLength(length, error);
    if (stream_) return readStream(length, error);
    if (fileHandle_) {
        try {
            return fileHandle_->readDataOfLength(length);
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(256, e);
            return nullptr;
        }
    }
    return readDataInRange(offsetInFile(), length, error);
}

Ref<Data> QXRemoteFileHandle::readDataInRange(std::uint64_t offset, std::uint64_t length, Ref<Error>* error) {
    if (fileHandle_) {
        if (!seekToFileOffset(offset, error)) return nullptr;
        return readDataOfLength(length, error);
    }
    return readHTTPSynchronously(offset, length, false, error);
}

Ref<Data> QXRemoteFileHandle::readDataToEndOfFileAndReturnError(Ref<Error>* error) {
    if (isRsrcFork()) return readRsrcForkToEnd(error);
    if (stream_) return readStream(ToEndOfFile, error);
    if (fileHandle_) {
        try {
            return fileHandle_->readDataToEndOfFile();
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(256, e);
            return nullptr;
        }
    }
    return readHTTPSynchronously(0, 0, true, error);
}

// ---- Chunked reads ----

void QXRemoteFileHandle::readDataOfLengthMaxBufferSize(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    if (!isReadable()) {
        if (handler) handler(self(), nullptr, true, posixError(EINVAL));
        return;
    }
    if (!fileHandle_)
        readHTTP(length, std::move(handler));
    else if (isRsrcFork())
        readRsrcFork(length, maxBufferSize, std::move(handler));
    else
        readLocal(length, maxBufferSize, std::move(handler));
}

void QXRemoteFileHandle::readDataAtOffset(std::uint64_t offset, std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    Ref<Error> error;
    if (!seekToFileOffset(offset, &error)) {
        if (handler) handler(self(), nullptr, true, error);
        return;
    }
    readDataOfLengthMaxBufferSize(length, maxBufferSize, std::move(handler));
}

void QXRemoteFileHandle::readDataToEndOfFileWithMaxBufferSize(std::uint64_t maxBufferSize, DataHandler handler) {
    readDataOfLengthMaxBufferSize(ToEndOfFile, maxBufferSize, std::move(handler));
}

void QXRemoteFileHandle::readLocal(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    const auto handle = self();
    auto reader = std::make_shared<QXRemoteFileHandleLocalReader>(std::min(maxBufferSize, kMaxReadBuffer), maxBufferSize);
    auto work = [handle, reader, length, handler] {
        const int fd = handle->fileHandle_->fileDescriptor();
        const std::uint64_t bufferSize = reader->bufferSize();
        if (handler) {
            try {
                reader->queue()->async([reader, handle, handler] { reader->deliver(handle, handler); });
            } catch (const std::system_error&) {
                handler(handle, nullptr, true, posixError(EAGAIN));
                return;
            }
        }
        // Whatever way the loop ends, the delivery operation learns that
        // nothing more is coming.
        struct EndOfReading {
            QXRemoteFileHandleLocalReader& reader;
            ~EndOfReading() { reader.endOfReading(); }
        } endOfReading{*reader};
        // A read of nothing still ends with its one done call.
        if (length == 0 && handler) reader->enqueue({Data::create(), true, nullptr});
        std::uint64_t remaining = length;
        // Only where the reads fall within a page matters (see copiesSlowly).
        const off_t start = ::lseek(fd, 0, SEEK_CUR);
        std::uint64_t position = start < 0 ? 0 : static_cast<std::uint64_t>(start);
        Ref<Data> chunk;  // without a handler one chunk serves every read
        while (remaining > 0 && !reader->isStopped()) {
            if (handler) reader->waitForRoom();
            if (reader->isStopped()) break;
            const std::size_t want = static_cast<std::size_t>(std::min(bufferSize, remaining));
            // Read straight into the chunk handed out: no copy out of a
            // separate read buffer.
            if (!chunk) chunk = QXRemoteFileHandleLocalReader::spareChunk(reader, want, position);
            chunk->setLength(want);
            ssize_t n;
            if (handle->stream_) {
                n = handle->stream_->read(fd, chunk->mutableBytes(), want);
            } else {
                do n = ::read(fd, chunk->mutableBytes(), want);
                while (n < 0 && errno == EINTR);
            }
            if (n < 0) {
                const int errnum = errno;
                reader->dropPending();
                // Deliberately done = false: only this path reports an error without done.
                if (handler) reader->enqueue({nullptr, false, QXGenerateError(qx::NSPOSIXErrorDomain, errnum, handle->URL())});
                break;
            }
            const std::uint64_t count = std::min<std::uint64_t>(static_cast<std::uint64_t>(n), remaining);
            chunk->setLength(static_cast<std::size_t>(count));
            remaining -= count;
            position += count;
            const bool done = n == 0 || remaining == 0;
            if (handler) reader->enqueue({std::move(chunk), done, nullptr});
            if (done) break;
        }
    };
    if (!qxrfh::startThread("qx.rfh.reader", work) && handler) handler(handle, nullptr, true, posixError(EAGAIN));
}

// ---- Writing, seeking, closing ----

bool QXRemoteFileHandle::writeData(const Ref<Data>& data, Ref<Error>* error) {
    if (!isWritable() || !fileHandle_) {
        if (error) *error = posixError(EINVAL);
        return false;
    }
    if (!isRsrcFork()) {
        try {
            if (data) fileHandle_->writeData(*data);
            return true;
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(512, e);
            return false;
        }
    }
    return writeRsrcFork(data, error);
}

void QXRemoteFileHandle::writeDataCompletionHandler(const Ref<Data>& data, WriteCompletionHandler completion) {
    const auto handle = self();
    auto work = [handle, data, completion] {
        Ref<Error> error;
        const bool written = handle->writeData(data, &error);
        if (completion) completion(handle, written ? nullptr : error);
    };
    if (!qxrfh::startThread("qx.rfh.write", work) && completion) completion(handle, posixError(EAGAIN));
}

bool QXRemoteFileHandle::seekToFileOffset(std::uint64_t offset, Ref<Error>* error) {
    if (isRsrcFork()) return seekRsrcFork(offset, error);
    if (stream_) return seekStream(offset, error);
    if (fileHandle_) {
        try {
            fileHandle_->seekToFileOffset(offset);
            return true;
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(256, e);
            return false;
        }
    }
    setPrivateOffsetInFile(offset);
    return true;
}

bool QXRemoteFileHandle::seekToEndOfFileAndReturnError(Ref<Error>* error) {
    if (stream_) {
        // The end of a stream is wherever reading runs out.
        Ref<Error> ignored;
        seekStream(std::numeric_limits<std::uint64_t>::max(), &ignored);
        return true;
    }
    if (fileHandle_) {
        try {
            fileHandle_->seekToEndOfFile();
            return true;
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(256, e);
            return false;
        }
    }
    setPrivateOffsetInFile(fileSize());
    return true;
}

bool QXRemoteFileHandle::closeFileAndReturnError(Ref<Error>* error) {
    if (!fileHandle_) return true;
    try {
        fileHandle_->closeFile();
        return true;
    } catch (const std::exception& e) {
        if (error) *error = exceptionError(256, e);
        return false;
    }
}
