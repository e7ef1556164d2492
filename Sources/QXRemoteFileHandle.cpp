// QXRemoteFileHandle.cpp - local files, resource forks and HTTP range reads behind one handle.
#include <QXFoundation/QXRemoteFileHandle.h>

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRemoteFileHandleConnectionDelegate.h>

#include "Internal/QXFoundationPrivate.h"
#include "Internal/QXStoragePool.h"

#include <qx/Format.h>
#include <qx/SerialQueue.h>
#include <qx/Thread.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <limits>
#include <linux/limits.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using qx::Data;
using qx::Error;
using qx::FileHandle;
using qx::Ref;

const char* const kQXRemoteFileHandleErrorDomain = "QXRemoteFileHandleErrorDomain";

namespace {

// Linux keeps resource forks in the user namespace of extended attributes.
constexpr const char* kRsrcForkAttribute = "user.com.apple.ResourceFork";
constexpr std::uint64_t kMaxReadBuffer = 0x100000;
// Chunks kept for reuse: enough for the read-ahead of a 32 MiB limit.
constexpr std::size_t kMaxSpareChunks = 34;
// A handler that keeps up still sees its first chunks after a few reads at most.
constexpr std::uint64_t kMaxWakeBatch = 8;
constexpr const char* kCallbackQueueName = "com.tovarik.QXRemoteFileHandle.callback";
constexpr const char* kConnectionQueueName = "com.tovarik.QXRemoteFileHandle.connection";

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

Ref<Error> posixError(int errnum, const Ref<qx::URL>& url = nullptr) { return QXGenerateError(qx::NSPOSIXErrorDomain, errnum, url); }

// What the file system says when a file URL cannot be reached: the file
// system's code with the system's error beneath.
Ref<Error> reachabilityError(int errnum, const Ref<qx::URL>& url) {
    auto info = qx::Dictionary::create();
    info->setObject(url, qx::NSURLErrorKey);
    info->setObject(qx::str(url->path()), qx::NSFilePathErrorKey);
    info->setObject(Error::create(qx::NSPOSIXErrorDomain, errnum), qx::NSUnderlyingErrorKey);
    return Error::create(qx::NSCocoaErrorDomain, (errnum == ENOENT || errnum == ENOTDIR) ? 260 : 256, info);
}

// The whole fork into value; 0, or the errno (ENODATA when there is none).
int readWholeFork(int fd, std::vector<std::uint8_t>& value) {
    for (;;) {
        const ssize_t size = ::fgetxattr(fd, kRsrcForkAttribute, nullptr, 0);
        if (size < 0) return errno;
        value.resize(static_cast<std::size_t>(size));
        const ssize_t got = ::fgetxattr(fd, kRsrcForkAttribute, value.data(), value.size());
        if (got >= 0) {
            value.resize(static_cast<std::size_t>(got));
            return 0;
        }
        if (errno != ERANGE) return errno;  // ERANGE: it grew in between; ask again
    }
}

// Runs work on a new thread of its own; false when no thread can be had.
bool startThread(const char* name, std::function<void()> work) {
    auto thread = qx::Thread::create(std::move(work));
    thread->setName(name);
    return thread->start();
}

bool isHTTPScheme(const std::string& scheme) {
    return ::strcasecmp(scheme.c_str(), "http") == 0 || ::strcasecmp(scheme.c_str(), "https") == 0;
}

// Whether the HTTP client can take a request for url at all.
bool canHandleRequest(const Ref<qx::URL>& url) { return url && isHTTPScheme(url->scheme()) && !url->host().empty(); }

} // namespace

// ---- The local data-fork reader ----

// Shared by the reading thread and the one delivery operation on the callback
// queue. Chunks read but not yet handed over wait in `pending`; the delivery
// operation takes them in order and calls the handler with each, one at a
// time, for as long as the read lasts. One operation for the whole read
// rather than one per chunk: a queue that runs dry between chunks (the usual
// case with a quick handler) would otherwise pay for a new worker thread and
// a wake-up with every chunk. Each side wakes the other only when it sleeps,
// and then only once a few chunks (or a few buffers of room) have gathered,
// so that neither pays a thread switch per chunk when the other keeps up.
struct QXRemoteFileHandle::LocalReader {
    struct Delivery {
        Ref<Data> chunk;
        bool done = false;
        Ref<Error> error;
    };

    Ref<qx::SerialQueue> queue = qx::SerialQueue::create(kCallbackQueueName);
    const std::uint64_t bufferSize;
    const std::uint64_t limit;
    // Chunks gathered before a sleeping side is woken: a quarter of what the
    // limit holds (at most kMaxWakeBatch), so the side woken has work (or
    // room) for a while.
    const std::size_t batch;
    std::mutex mutex;
    std::condition_variable roomFreed;      // the reader sleeps on it
    std::condition_variable chunkQueued;    // the delivery operation sleeps on it
    std::deque<Delivery> pending;           // guarded by mutex
    bool handing = false;                   // a chunk is with the handler; guarded by mutex
    bool readerEnded = false;               // nothing more will be queued; guarded by mutex
    bool readerSleeps = false;              // guarded by mutex
    bool delivererSleeps = false;           // guarded by mutex
    std::atomic<bool> stopped{false};
    std::shared_ptr<QXStoragePool> spare;   // storage of chunks let go of

    LocalReader(std::uint64_t bufferSize, std::uint64_t limit)
        : bufferSize(bufferSize),
          limit(limit),
          batch(static_cast<std::size_t>(std::clamp<std::uint64_t>(bufferSize ? limit / bufferSize / 4 : 1, 1, kMaxWakeBatch))),
          spare(QXStoragePool::create(kMaxSpareChunks, static_cast<std::size_t>(bufferSize))) {}

    // Chunks read and not yet back from the handler: what the limit bounds.
    std::size_t undelivered() const { return pending.size() + (handing ? 1 : 0); }

    // Waits while one more buffer would take the undelivered chunks past
    // limit. The count is tested and waited on under one lock, so a delivery
    // that ends in between cannot be missed.
    void waitForRoom() {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopped.load() && (undelivered() + 1) * bufferSize > limit) {
            // Whatever has gathered goes out now: the reader cannot add to it.
            if (delivererSleeps && !pending.empty()) chunkQueued.notify_one();
            readerSleeps = true;
            roomFreed.wait(lock);
            readerSleeps = false;
        }
    }

    void enqueue(Delivery delivery) {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back(std::move(delivery));
        if (delivererSleeps) chunkQueued.notify_one();
    }

    // Drops every chunk read but not yet handed to the handler.
    void dropPending() {
        std::deque<Delivery> dropped;
        std::lock_guard<std::mutex> lock(mutex);
        dropped.swap(pending);
        if (readerSleeps) roomFreed.notify_one();
    }

    void endOfReading() {
        std::lock_guard<std::mutex> lock(mutex);
        readerEnded = true;
        if (delivererSleeps) chunkQueued.notify_one();
    }

    // A chunk whose storage can take `size` bytes read at file position
    // `position`: storage the most recently released chunk gave back
    // (likeliest still in cache), or new storage. Storage the kernel would
    // copy into slowly is passed over. A chunk gives its storage back to the
    // pool when its last holder lets go (see QXStoragePool.h).
    static Ref<Data> spareChunk(const std::shared_ptr<LocalReader>& reader, std::size_t size, std::uint64_t position) {
        std::vector<std::uint8_t> storage = reader->spare->takeStorage([&](const std::vector<std::uint8_t>& candidate) {
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
        return reader->spare->wrap(std::move(storage));
    }

    // The delivery operation: runs on the callback queue until the reader
    // has ended and everything it queued is handed over (or dropped).
    void deliver(const Ref<QXRemoteFileHandle>& handle, const DataHandler& handler) {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            while (pending.empty() && !readerEnded) {
                delivererSleeps = true;
                chunkQueued.wait(lock);
                delivererSleeps = false;
            }
            if (pending.empty()) return;
            Delivery delivery = std::move(pending.front());
            pending.pop_front();
            handing = true;
            lock.unlock();
            if (!stopped.load() && !handler(handle, delivery.chunk, delivery.done, delivery.error)) {
                stopped.store(true);
                dropPending();
            }
            delivery.error = nullptr;
            lock.lock();
            handing = false;
            // The chunk's storage goes back to the spare list (for a later
            // read: no allocation, no fresh pages to fault in) once the
            // handler and anyone it passed the chunk to let go of it.
            Ref<Data> chunk = std::move(delivery.chunk);
            // Room for a batch, or for whatever the limit holds once all is delivered.
            if (readerSleeps && (undelivered() + batch) * bufferSize <= limit) roomFreed.notify_one();
            if (chunk) {
                // Let go of it outside the lock.
                lock.unlock();
                chunk = nullptr;
                lock.lock();
            }
        }
    }
};

// ---- Descriptors that cannot seek ----

// The position of a pipe-like descriptor and the bytes most recently read
// from it. Invariant: consumed - kept.size() <= position <= consumed. The lock
// is never held across a read of the descriptor, which may block for long.
struct QXRemoteFileHandle::StreamWindow {
    static constexpr std::size_t kCapacity = 64 * 1024;
    std::mutex mutex;
    std::uint64_t position = 0;      // where the next read starts; guarded by mutex
    std::uint64_t consumed = 0;      // bytes taken from the descriptor; guarded by mutex
    std::vector<std::uint8_t> kept;  // the bytes [consumed - kept.size(), consumed); guarded by mutex

    std::uint64_t currentPosition() {
        std::lock_guard<std::mutex> lock(mutex);
        return position;
    }

    // Up to length bytes from the position: kept bytes first, else one read
    // of the descriptor. 0 at the end; -1 with errno set on failure.
    ssize_t read(int fd, std::uint8_t* out, std::size_t length) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (position < consumed) {
                const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(length, consumed - position));
                std::memcpy(out, kept.data() + (kept.size() - (consumed - position)), count);
                position += count;
                return static_cast<ssize_t>(count);
            }
        }
        ssize_t n;
        do n = ::read(fd, out, length);
        while (n < 0 && errno == EINTR);
        if (n > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            keep(out, static_cast<std::size_t>(n));
            position = consumed;
        }
        return n;
    }

private:
    void keep(const std::uint8_t* bytes, std::size_t n) {
        if (n >= kCapacity) {
            kept.assign(bytes + (n - kCapacity), bytes + n);
        } else {
            if (kept.size() + n > kCapacity) kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(kept.size() + n - kCapacity));
            kept.insert(kept.end(), bytes, bytes + n);
        }
        consumed += n;
    }
};

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
    std::uint64_t consumed;
    {
        std::lock_guard<std::mutex> lock(stream_->mutex);
        if (offset < stream_->consumed - stream_->kept.size()) {
            if (error) *error = posixError(ESPIPE, url_);
            return false;
        }
        if (offset <= stream_->consumed) {
            stream_->position = offset;
            return true;
        }
        stream_->position = stream_->consumed;
        consumed = stream_->consumed;
    }
    // Forward: read and drop what lies between. A stream that ends first has
    // no such position: the seek fails, leaving the handle at the end.
    std::vector<std::uint8_t> scratch(static_cast<std::size_t>(std::min<std::uint64_t>(offset - consumed, kMaxReadBuffer)));
    while (consumed < offset) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(offset - consumed, scratch.size()));
        const ssize_t n = stream_->read(fileHandle_->fileDescriptor(), scratch.data(), want);
        if (n < 0) {
            if (error) *error = posixError(errno, url_);
            return false;
        }
        if (n == 0) {
            if (error) *error = posixError(ESPIPE, url_);
            return false;
        }
        consumed += static_cast<std::uint64_t>(n);
    }
    return true;
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
    } else if (url && isHTTPScheme(url->scheme())) {
        handle = Ref<QXRemoteFileHandle>(new QXRemoteFileHandle());
        handle->setIsSeekable(true);
    } else {
        // The platform's own error for a scheme it does not read, without user info.
        if (error) *error = Error::create(qx::NSCocoaErrorDomain, 262);
        return nullptr;
    }
    handle->setURL(url);
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
    if (stream) handle->stream_ = std::make_shared<StreamWindow>();
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
    if (fileHandle_) {
        try {
            const std::uint64_t offset = fileHandle_->offsetInFile();
            setPrivateSize(fileHandle_->seekToEndOfFile());
            fileHandle_->seekToFileOffset(offset);
        } catch (const std::exception&) {
            setPrivateSize(0);
        }
        if (sizeSemaphore_) sizeSemaphore_->signal();
        return;
    }
    auto request = qx::HTTPRequest::requestWithURL(url_);
    request->setHTTPMethod("HEAD");
    sizeSession_ = qx::HTTPClient::create();
    // Weak: dropping the handle cancels the request instead of waiting for it.
    qx::WeakRef<QXRemoteFileHandle> weak = self();
    auto task = sizeSession_->dataTaskWithRequest(request, [weak](const Ref<Data>&, const Ref<qx::HTTPResponse>& response, const Ref<Error>& error) {
        const auto handle = weak.lock();
        if (!handle) return;
        if (response) handle->statusCode_.store(response->statusCode());
        if (error) {
            handle->setPrivateSize(0);
            handle->setIsSeekable(false);
        } else {
            handle->setSizeWithURLResponse(response);
        }
        if (handle->sizeSemaphore_) handle->sizeSemaphore_->signal();
    });
    task->resume();
}

void QXRemoteFileHandle::setSizeWithURLResponse(const Ref<qx::HTTPResponse>& response) {
    const std::int64_t length = response ? response->expectedContentLength() : -1;
    if (length < 0) {
        setIsSeekable(false);
        setPrivateSize(0);
        return;
    }
    setPrivateSize(static_cast<std::uint64_t>(length));
    const auto ranges = response->valueForHTTPHeaderField("Accept-Ranges");
    setIsSeekable(ranges && ranges->utf8().find("bytes") != std::string::npos);
}

bool QXRemoteFileHandle::getRsrcForkLength(std::uint64_t* length, Ref<Error>* error) {
    if (!isRsrcFork() || !fileHandle_) {
        if (error) *error = posixError(EINVAL);
        return false;
    }
    const ssize_t size = ::fgetxattr(fileHandle_->fileDescriptor(), kRsrcForkAttribute, nullptr, 0);
    std::uint64_t result;
    if (size >= 0) {
        result = std::min<std::uint64_t>(static_cast<std::uint64_t>(size), MaxRsrcForkLength);
    } else if (errno == ENODATA) {
        result = 0;  // no fork yet
    } else {
        if (error) *error = posixError(errno);
        return false;
    }
    if (length) *length = result;
    return true;
}

// ---- Synchronous reads ----

Ref<Data> QXRemoteFileHandle::readDataOfLength(std::uint64_t length, Ref<Error>* error) {
    if (!isReadable()) {
        if (error) *error = posixError(EINVAL);
        return nullptr;
    }
    if (isRsrcFork()) {
        // The fork is read whole and sliced: the attribute interface has no
        // positional read here. A missing fork reads as empty.
        std::vector<std::uint8_t> value;
        const int rc = readWholeFork(fileHandle_->fileDescriptor(), value);
        if (rc != 0 && rc != ENODATA) {
            if (error) *error = posixError(rc);
            return nullptr;
        }
        // Deliberately not advanced: a fork read leaves the offset where it was.
        const std::uint64_t position = static_cast<std::uint32_t>(privateOffsetInFile());
        if (position >= value.size()) return Data::create();
        const std::uint64_t count = std::min<std::uint64_t>(length, value.size() - position);
        return Data::withBytes(value.data() + position, static_cast<std::size_t>(count));
    }
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
    if (isRsrcFork()) {
        std::uint64_t length = 0;
        if (!getRsrcForkLength(&length, error)) return nullptr;
        const std::uint64_t offset = offsetInFile();
        return readDataOfLength(offset < length ? length - offset : 0, error);
    }
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

Ref<Data> QXRemoteFileHandle::readHTTPSynchronously(std::uint64_t offset, std::uint64_t length, bool toEnd, Ref<Error>* error) {
    // Shared with the handler, which the transfer may keep a little after
    // the last call that released the caller.
    struct Result {
        Ref<Data> buffer = Data::create();
        Ref<Error> error;
        Ref<qx::Semaphore> finished = qx::Semaphore::create(0);
    };
    auto result = std::make_shared<Result>();
    DataHandler handler = [result](const Ref<QXRemoteFileHandle>&, const Ref<Data>& chunk, bool done, const Ref<Error>& failure) {
        if (failure) {
            result->error = failure;
            result->finished->signal();
            return false;
        }
        if (chunk) result->buffer->append(*chunk);
        if (done) result->finished->signal();
        return true;
    };
    if (toEnd)
        readDataToEndOfFileWithMaxBufferSize(ToEndOfFile, std::move(handler));
    else
        readDataAtOffset(offset, length, ToEndOfFile, std::move(handler));
    result->finished->wait();
    if (result->error) {
        if (error) *error = result->error;
        return nullptr;
    }
    return result->buffer;
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

void QXRemoteFileHandle::readHTTP(std::uint64_t length, DataHandler handler) {
    const auto handle = self();
    const std::uint64_t first = offsetInFile();
    // Unsigned on purpose: a length of 0 names a last byte one below the first.
    const std::string range = length == ToEndOfFile ? qx::format("bytes=%llu-", static_cast<unsigned long long>(first))
                                                    : qx::format("bytes=%llu-%llu", static_cast<unsigned long long>(first),
                                                                 static_cast<unsigned long long>(first + length - 1));
    auto request = qx::HTTPRequest::requestWithURL(url_);
    request->setValue(range, "Range");
    if (!canHandleRequest(url_)) {
        // Deliberately -1004 in the Cocoa domain (not the URL-loading one).
        if (handler) handler(handle, nullptr, true, QXGenerateError(qx::NSCocoaErrorDomain, -1004));
        return;
    }
    auto delegate = QXRemoteFileHandleConnectionDelegate::initWithDataHandler(
        [handle, handler = std::move(handler)](const Ref<Data>& chunk, bool done, const Ref<Error>& error) {
            handle->setOffsetInFile(handle->offsetInFile() + (chunk ? chunk->length() : 0));
            return handler ? handler(handle, chunk, done, error) : true;
        });
    delegate->setResponseHandler([handle](const Ref<qx::HTTPResponse>& response) {
        if (response) handle->statusCode_.store(response->statusCode());
    });
    // The session lives as long as its transfer: the delegate holds it until
    // the completion, the task holds the delegate until then.
    auto session = qx::HTTPClient::create(qx::SerialQueue::create(kConnectionQueueName));
    delegate->setSession(session);
    session->dataTaskWithRequest(request, delegate)->resume();
}

void QXRemoteFileHandle::readRsrcFork(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    const auto handle = self();
    // Each pass rereads from the same offset (fork reads keep it). A read to
    // the end would then repeat forever; it is bounded by what the fork holds
    // beyond the offset when the read starts.
    std::uint64_t available = 0;
    if (getRsrcForkLength(&available, nullptr)) {
        const std::uint64_t position = static_cast<std::uint32_t>(privateOffsetInFile());
        available = position < available ? available - position : 0;
        length = std::min(length, available);
    }
    auto work = [handle, length, maxBufferSize, handler] {
        std::uint64_t total = 0;
        for (;;) {
            Ref<Error> error;
            const auto chunk = handle->readDataOfLength(std::min(length - total, maxBufferSize), &error);
            if (!chunk) {
                if (handler) handler(handle, nullptr, true, error);
                return;
            }
            const std::uint64_t n = chunk->length();
            total += n;
            const bool done = n == 0 || total >= length;
            if (handler && !handler(handle, chunk, done, nullptr)) {
                if (!done) handler(handle, nullptr, true, QXGenerateError(qx::NSCocoaErrorDomain, 3072));
                return;
            }
            if (done) return;
        }
    };
    if (!startThread("qx.rfh.fork", work) && handler) handler(handle, nullptr, true, posixError(EAGAIN));
}

void QXRemoteFileHandle::readLocal(std::uint64_t length, std::uint64_t maxBufferSize, DataHandler handler) {
    const auto handle = self();
    auto reader = std::make_shared<LocalReader>(std::min(maxBufferSize, kMaxReadBuffer), maxBufferSize);
    auto work = [handle, reader, length, handler] {
        const int fd = handle->fileHandle_->fileDescriptor();
        const std::uint64_t bufferSize = reader->bufferSize;
        if (handler) {
            try {
                reader->queue->async([reader, handle, handler] { reader->deliver(handle, handler); });
            } catch (const std::system_error&) {
                handler(handle, nullptr, true, posixError(EAGAIN));
                return;
            }
        }
        // Whatever way the loop ends, the delivery operation learns that
        // nothing more is coming.
        struct EndOfReading {
            LocalReader& reader;
            ~EndOfReading() { reader.endOfReading(); }
        } endOfReading{*reader};
        // A read of nothing still ends with its one done call.
        if (length == 0 && handler) reader->enqueue({Data::create(), true, nullptr});
        std::uint64_t remaining = length;
        // Only where the reads fall within a page matters (see copiesSlowly).
        const off_t start = ::lseek(fd, 0, SEEK_CUR);
        std::uint64_t position = start < 0 ? 0 : static_cast<std::uint64_t>(start);
        Ref<Data> chunk;  // without a handler one chunk serves every read
        while (remaining > 0 && !reader->stopped.load()) {
            if (handler) reader->waitForRoom();
            if (reader->stopped.load()) break;
            const std::size_t want = static_cast<std::size_t>(std::min(bufferSize, remaining));
            // Read straight into the chunk handed out: no copy out of a
            // separate read buffer.
            if (!chunk) chunk = LocalReader::spareChunk(reader, want, position);
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
    if (!startThread("qx.rfh.reader", work) && handler) handler(handle, nullptr, true, posixError(EAGAIN));
}

// ---- Writing, seeking, closing ----

bool QXRemoteFileHandle::writeData(const Ref<Data>& data, Ref<Error>* error) {
    if (!isWritable() || !fileHandle_) {
        if (error) *error = posixError(EINVAL);
        return false;
    }
    const std::uint64_t dataLength = data ? data->length() : 0;
    if (!isRsrcFork()) {
        try {
            if (data) fileHandle_->writeData(*data);
            return true;
        } catch (const std::exception& e) {
            if (error) *error = exceptionError(512, e);
            return false;
        }
    }
    std::uint64_t forkLength = 0;
    if (!getRsrcForkLength(&forkLength, error)) return false;
    std::uint64_t count = dataLength;
    // The cap comes from the fork's length, not the position; a write cut
    // short by it is deliberately not reported.
    if (dataLength > MaxRsrcForkLength || forkLength + dataLength > MaxRsrcForkLength) count = MaxRsrcForkLength - forkLength;
    const std::uint64_t position = static_cast<std::uint32_t>(offsetInFile());
    // No attribute can hold more than XATTR_SIZE_MAX: refuse before building it.
    if (position + count > XATTR_SIZE_MAX) {
        if (error) *error = posixError(E2BIG);
        return false;
    }
    const int fd = fileHandle_->fileDescriptor();
    std::vector<std::uint8_t> value;
    const int rc = readWholeFork(fd, value);
    if (rc != 0 && rc != ENODATA) {
        if (error) *error = posixError(rc);
        return false;
    }
    if (value.size() < position + count) value.resize(static_cast<std::size_t>(position + count));
    if (count) std::memcpy(value.data() + position, data->bytes(), static_cast<std::size_t>(count));
    if (::fsetxattr(fd, kRsrcForkAttribute, value.data(), value.size(), 0) != 0) {
        if (error) *error = posixError(errno);
        return false;
    }
    return seekToFileOffset(offsetInFile() + count, error);
}

void QXRemoteFileHandle::writeDataCompletionHandler(const Ref<Data>& data, WriteCompletionHandler completion) {
    const auto handle = self();
    auto work = [handle, data, completion] {
        Ref<Error> error;
        const bool written = handle->writeData(data, &error);
        if (completion) completion(handle, written ? nullptr : error);
    };
    if (!startThread("qx.rfh.write", work) && completion) completion(handle, posixError(EAGAIN));
}

bool QXRemoteFileHandle::seekToFileOffset(std::uint64_t offset, Ref<Error>* error) {
    if (isRsrcFork()) {
        std::uint64_t length = 0;
        if (!getRsrcForkLength(&length, error)) return false;
        if (offset > MaxRsrcForkLength || offset > length) {
            if (error) *error = posixError(ERANGE);
            return false;
        }
        setPrivateOffsetInFile(offset);
        return true;
    }
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
