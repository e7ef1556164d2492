// FileHandle.cpp - descriptor I/O that throws, and the readability watcher.
#include <qx/FileHandle.h>

#include <qx/Log.h>
#include <qx/Number.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace qx {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
constexpr std::size_t kProbe = 16 * 1024;

[[noreturn]] void raise(const char* operation, int errnum) { throw Exception::fileHandleOperation(operation, errnum); }

// What a poll with no wait says about fd: 1 readable (data, end or error
// pending), 0 nothing yet, -1 the descriptor is not open any more.
int readableNow(int fd) {
    struct pollfd p {fd, POLLIN | POLLRDHUP, 0};
    int n;
    do n = ::poll(&p, 1, 0);
    while (n < 0 && errno == EINTR);
    if (n <= 0) return 0;
    if (p.revents & POLLNVAL) return -1;
    return 1;
}

// The platform's error for a file that cannot be opened: a file-system code
// chosen by what the caller wanted to do, with the system's error beneath.
Ref<Error> openError(int errnum, bool forWriting, const std::string& path, const Ref<URL>& url) {
    std::int64_t code;
    if (forWriting)
        code = errnum == ENOENT ? 4 : (errnum == EACCES || errnum == EPERM) ? 513 : errnum == EROFS ? 642
             : errnum == ENOSPC ? 640 : 512;
    else
        code = errnum == ENOENT ? 260 : (errnum == EACCES || errnum == EPERM) ? 257 : 256;
    auto info = Dictionary::create();
    if (url) info->setObject(url, NSURLErrorKey);
    info->setObject(str(path), NSFilePathErrorKey);
    info->setObject(Error::create(NSPOSIXErrorDomain, errnum), NSUnderlyingErrorKey);
    return Error::create(NSCocoaErrorDomain, code, info);
}

} // namespace

// Shared by the handle and its watcher thread, so a watcher told to stop from
// inside its own handler can finish without touching the handle again.
struct FileHandle::Watcher {
    std::mutex mutex;
    ReadabilityHandler handler;        // guarded by mutex
    bool stop = false;                 // guarded by mutex
    std::atomic<std::uint64_t> reads{0};  // reads through the handle
    std::atomic<bool> disarmed{false};    // waiting for a read before looking again
    UniqueFd wakeFd;
    UniqueFd epollFd;
    bool edgeWatched = false;          // fd is in epollFd (pipes, sockets, terminals)
    std::thread thread;

    void wake() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wakeFd.get(), &one, sizeof one);
    }
    static void run(const std::shared_ptr<Watcher>& w, FileHandle* handle, int fd);
};

void FileHandle::Watcher::run(const std::shared_ptr<Watcher>& w, FileHandle* handle, int fd) {
    bool armed = true;
    std::uint64_t seen = w->reads.load();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(w->mutex);
            if (w->stop) return;
        }
        int state = armed ? readableNow(fd) : 0;
        if (state < 0) return;  // the descriptor was closed beneath the handle
        if (state == 0) {
            // Sleep until new data arrives (an edge on pipes and sockets), the
            // handle is read (which re-arms), or we are told to stop.
            struct epoll_event events[2];
            const int n = ::epoll_wait(w->epollFd.get(), events, 2, -1);
            if (n < 0 && errno != EINTR) return;
            bool edge = false;
            for (int i = 0; i < n; ++i) {
                if (events[i].data.fd == w->wakeFd.get()) {
                    std::uint64_t count;
                    [[maybe_unused]] ssize_t r = ::read(w->wakeFd.get(), &count, sizeof count);
                } else {
                    edge = true;
                }
            }
            if (w->reads.load() != seen) armed = true;
            // An edge may be stale (reported before the data was read): look.
            if (!edge && !armed) continue;
            state = readableNow(fd);
            if (state < 0) return;
            if (state == 0) continue;
        }
        ReadabilityHandler handler;
        {
            std::lock_guard<std::mutex> lock(w->mutex);
            if (w->stop) return;
            handler = w->handler;
            seen = w->reads.load();
            w->disarmed = true;
        }
        try {
            handler(*handle);
        } catch (const std::exception& e) {
            // Nobody could catch it on this thread; keep watching.
            logLine(std::string("FileHandle readability handler threw: ") + e.what());
        }
        handler = nullptr;
        armed = w->reads.load() != seen;
        if (armed) w->disarmed = false;
    }
}

FileHandle::FileHandle(int fd, bool closeOnDealloc) : fd_(fd), closeOnDealloc_(closeOnDealloc) {}

FileHandle::~FileHandle() {
    stopWatcher();
    if (!closeOnDealloc_) (void)fd_.release();
}

Ref<FileHandle> FileHandle::openAtPath(const std::string& path, int flags, Ref<Error>* error, const Ref<URL>& url) {
    int fd;
    do fd = ::open(path.c_str(), flags | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        if (error) *error = openError(errno, (flags & O_ACCMODE) != O_RDONLY, path, url);
        return nullptr;
    }
    return std::make_shared<FileHandle>(fd, true);
}

Ref<FileHandle> FileHandle::fileHandleForReadingAtPath(const std::string& path) { return openAtPath(path, O_RDONLY, nullptr, nullptr); }
Ref<FileHandle> FileHandle::fileHandleForWritingAtPath(const std::string& path) { return openAtPath(path, O_WRONLY, nullptr, nullptr); }
Ref<FileHandle> FileHandle::fileHandleForUpdatingAtPath(const std::string& path) { return openAtPath(path, O_RDWR, nullptr, nullptr); }

namespace {
bool checkFileURL(const Ref<URL>& url, bool forWriting, Ref<Error>* error) {
    if (url && url->isFileURL()) return true;
    if (error) {
        auto info = Dictionary::create();
        if (url) info->setObject(url, NSURLErrorKey);
        *error = Error::create(NSCocoaErrorDomain, forWriting ? 518 : 262, info);
    }
    return false;
}
} // namespace

Ref<FileHandle> FileHandle::fileHandleForReadingFromURL(const Ref<URL>& url, Ref<Error>* error) {
    return checkFileURL(url, false, error) ? openAtPath(url->path(), O_RDONLY, error, url) : nullptr;
}
Ref<FileHandle> FileHandle::fileHandleForWritingToURL(const Ref<URL>& url, Ref<Error>* error) {
    return checkFileURL(url, true, error) ? openAtPath(url->path(), O_WRONLY, error, url) : nullptr;
}
Ref<FileHandle> FileHandle::fileHandleForUpdatingURL(const Ref<URL>& url, Ref<Error>* error) {
    return checkFileURL(url, true, error) ? openAtPath(url->path(), O_RDWR, error, url) : nullptr;
}

Ref<FileHandle> FileHandle::initWithFileDescriptor(int fd, bool closeOnDealloc) {
    if (fd < 0) return nullptr;
    return std::make_shared<FileHandle>(fd, closeOnDealloc);
}
Ref<FileHandle> FileHandle::fileHandleWithStandardInput() { return initWithFileDescriptor(STDIN_FILENO, false); }
Ref<FileHandle> FileHandle::fileHandleWithStandardOutput() { return initWithFileDescriptor(STDOUT_FILENO, false); }
Ref<FileHandle> FileHandle::fileHandleWithStandardError() { return initWithFileDescriptor(STDERR_FILENO, false); }
Ref<FileHandle> FileHandle::fileHandleWithNullDevice() { return openAtPath("/dev/null", O_RDWR, nullptr, nullptr); }

void FileHandle::checkOpen(const char* operation) const {
    if (fd_.get() < 0) raise(operation, EBADF);
}

void FileHandle::noteRead() {
    std::lock_guard<std::mutex> lock(watcherMutex_);
    if (!watcher_) return;
    watcher_->reads.fetch_add(1);
    if (watcher_->disarmed.load()) watcher_->wake();
}

namespace {
// Reads into out until it holds length bytes or the end is reached; with
// once, stops after the first read that returns anything. The buffer is sized
// once from what the descriptor says it holds; only reads past that go
// through a small probe buffer, so reading a whole file never reallocates it.
void readInto(int fd, Data& out, std::uint64_t length, bool once, const char* operation) {
    std::uint64_t hint = kReadChunk;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        const off_t at = ::lseek(fd, 0, SEEK_CUR);
        hint = at >= 0 && st.st_size > at ? static_cast<std::uint64_t>(st.st_size - at) : 0;
    } else {
        int queued = 0;
        if (::ioctl(fd, FIONREAD, &queued) == 0 && queued > 0) hint = std::max<std::uint64_t>(hint, static_cast<std::uint64_t>(queued));
    }
    auto& bytes = out.vector();
    bytes.reserve(static_cast<std::size_t>(std::min(length, hint)));
    std::uint8_t probe[kProbe];
    while (bytes.size() < length) {
        const std::size_t start = bytes.size();
        const std::uint64_t room = length - start;
        const bool direct = bytes.capacity() > start;
        const std::size_t want = static_cast<std::size_t>(
            std::min<std::uint64_t>({room, direct ? bytes.capacity() - start : sizeof probe, SSIZE_MAX}));
        if (direct) bytes.resize(start + want);
        std::uint8_t* into = direct ? bytes.data() + start : probe;
        ssize_t n;
        do n = ::read(fd, into, want);
        while (n < 0 && errno == EINTR);
        if (n < 0) {
            const int errnum = errno;
            bytes.resize(start);
            raise(operation, errnum);
        }
        if (direct)
            bytes.resize(start + static_cast<std::size_t>(n));
        else
            bytes.insert(bytes.end(), probe, probe + n);
        if (n == 0 || once) break;
    }
}
} // namespace

Ref<Data> FileHandle::readDataOfLength(std::uint64_t length) {
    checkOpen("readDataOfLength:");
    auto data = Data::create();
    if (length > 0) readInto(fd_.get(), *data, length, false, "readDataOfLength:");
    noteRead();
    return data;
}

std::uint64_t FileHandle::readBytesOfLength(void* buffer, std::uint64_t length) {
    checkOpen("readDataOfLength:");
    auto* into = static_cast<std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < length) {
        const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(length - done, SSIZE_MAX));
        ssize_t n;
        do n = ::read(fd_.get(), into + done, want);
        while (n < 0 && errno == EINTR);
        if (n < 0) raise("readDataOfLength:", errno);
        if (n == 0) break;
        done += static_cast<std::uint64_t>(n);
    }
    noteRead();
    return done;
}

Ref<Data> FileHandle::readDataToEndOfFile() {
    checkOpen("readDataToEndOfFile");
    auto data = Data::create();
    readInto(fd_.get(), *data, std::numeric_limits<std::uint64_t>::max(), false, "readDataToEndOfFile");
    noteRead();
    return data;
}

Ref<Data> FileHandle::availableData() {
    checkOpen("availableData");
    auto data = Data::create();
    struct stat st;
    const bool regular = ::fstat(fd_.get(), &st) == 0 && S_ISREG(st.st_mode);
    readInto(fd_.get(), *data, std::numeric_limits<std::uint64_t>::max(), !regular, "availableData");
    noteRead();
    return data;
}

void FileHandle::writeData(const Data& data) {
    checkOpen("writeData:");
    writeBytes(data.bytes(), data.length());
}

void FileHandle::writeBytes(const void* bytes, std::size_t length) {
    checkOpen("writeData:");
    // A broken pipe must be an exception, not the end of the process: hold
    // SIGPIPE back on this thread and swallow the one our write raised.
    sigset_t pipeSet, oldSet, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    int failure = 0;
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    while (length > 0) {
        const ssize_t n = ::write(fd_.get(), p, std::min<std::size_t>(length, SSIZE_MAX));
        if (n < 0) {
            if (errno == EINTR) continue;
            failure = errno;
            break;
        }
        if (n == 0) {
            failure = EIO;
            break;
        }
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    if (failure == EPIPE && !wasPending) {
        const struct timespec zero {};
        while (::sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
    if (failure) raise("writeData:", failure);
}

std::uint64_t FileHandle::offsetInFile() {
    checkOpen("offsetInFile");
    const off_t at = ::lseek(fd_.get(), 0, SEEK_CUR);
    if (at < 0) raise("offsetInFile", errno);
    return static_cast<std::uint64_t>(at);
}

std::uint64_t FileHandle::seekToEndOfFile() {
    checkOpen("seekToEndOfFile");
    const off_t at = ::lseek(fd_.get(), 0, SEEK_END);
    if (at < 0) raise("seekToEndOfFile", errno);
    return static_cast<std::uint64_t>(at);
}

void FileHandle::seekToFileOffset(std::uint64_t offset) {
    checkOpen("seekToFileOffset:");
    if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) raise("seekToFileOffset:", EINVAL);
    if (::lseek(fd_.get(), static_cast<off_t>(offset), SEEK_SET) < 0) raise("seekToFileOffset:", errno);
}

void FileHandle::truncateFileAtOffset(std::uint64_t offset) {
    checkOpen("truncateFileAtOffset:");
    if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) raise("truncateFileAtOffset:", EINVAL);
    int r;
    do r = ::ftruncate(fd_.get(), static_cast<off_t>(offset));
    while (r < 0 && errno == EINTR);
    if (r < 0) raise("truncateFileAtOffset:", errno);
    if (::lseek(fd_.get(), static_cast<off_t>(offset), SEEK_SET) < 0) raise("truncateFileAtOffset:", errno);
}

void FileHandle::synchronizeFile() {
    checkOpen("synchronizeFile");
    int r;
    do r = ::fsync(fd_.get());
    while (r < 0 && errno == EINTR);
    if (r < 0) raise("synchronizeFile", errno);
}

void FileHandle::closeFile() {
    stopWatcher();
    // Closed also when the handle was not to close it on deallocation: the
    // caller asked. UniqueFd counts EINTR as closed, as the descriptor is gone.
    if (const int failure = fd_.close(); failure != 0) raise("closeFile", failure);
}

void FileHandle::setReadabilityHandler(ReadabilityHandler handler) {
    if (!handler) {
        stopWatcher();
        return;
    }
    std::lock_guard<std::mutex> lock(watcherMutex_);
    if (watcher_) {
        std::lock_guard<std::mutex> wlock(watcher_->mutex);
        watcher_->handler = std::move(handler);
        return;
    }
    if (fd_.get() < 0) return;  // a closed handle has nothing to watch
    auto w = std::make_shared<Watcher>();
    w->handler = std::move(handler);
    w->wakeFd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    w->epollFd.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!w->wakeFd || !w->epollFd) raise("setReadabilityHandler:", errno);
    struct epoll_event ev {};
    ev.events = EPOLLIN;
    ev.data.fd = w->wakeFd.get();
    if (::epoll_ctl(w->epollFd.get(), EPOLL_CTL_ADD, w->wakeFd.get(), &ev) < 0) raise("setReadabilityHandler:", errno);
    // Regular files and /dev/null cannot be watched for edges (EPERM); they
    // are always readable, so only reads re-arm them.
    ev.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    ev.data.fd = fd_.get();
    w->edgeWatched = ::epoll_ctl(w->epollFd.get(), EPOLL_CTL_ADD, fd_.get(), &ev) == 0;
    w->thread = std::thread(&Watcher::run, w, this, fd_.get());
    watcher_ = std::move(w);
}

FileHandle::ReadabilityHandler FileHandle::readabilityHandler() const {
    std::lock_guard<std::mutex> lock(watcherMutex_);
    if (!watcher_) return nullptr;
    std::lock_guard<std::mutex> wlock(watcher_->mutex);
    return watcher_->handler;
}

void FileHandle::stopWatcher() {
    std::shared_ptr<Watcher> w;
    {
        std::lock_guard<std::mutex> lock(watcherMutex_);
        w = std::move(watcher_);
        watcher_ = nullptr;
    }
    if (!w) return;
    ReadabilityHandler dropped;  // released outside the watcher's lock
    {
        std::lock_guard<std::mutex> lock(w->mutex);
        w->stop = true;
        dropped = std::move(w->handler);
        w->handler = nullptr;
    }
    w->wake();
    if (w->thread.get_id() == std::this_thread::get_id())
        w->thread.detach();  // cleared from the handler: the watcher ends when it returns
    else
        w->thread.join();
}

std::string FileHandle::description() const { return "<FileHandle fd " + std::to_string(fd_.get()) + ">"; }

} // namespace qx
