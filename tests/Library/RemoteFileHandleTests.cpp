// RemoteFileHandleTests.cpp - the remote file handle over real files, real
// extended attributes and the in-process HTTP server.
#include "HttpTestServer.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRemoteFileHandle.h>
#include <QXFoundation/QXRemoteFileHandleConnectionDelegate.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/xattr.h>
#include <thread>
#include <tuple>
#include <unistd.h>

using namespace qx;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Handle = QXRemoteFileHandle;

namespace {

constexpr const char* kFork = "user.com.apple.ResourceFork";

struct TempDir {
    fs::path path;
    explicit TempDir(const fs::path& parent = "/tmp") {
        std::string pattern = (parent / "qx-remote-XXXXXX").string();
        if (::mkdtemp(pattern.data())) path = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path.empty()) fs::remove_all(path, ec);
    }
    std::string file(const std::string& name, const std::vector<std::uint8_t>& contents) const {
        const auto p = (path / name).string();
        FILE* f = std::fopen(p.c_str(), "wb");
        if (!contents.empty()) std::fwrite(contents.data(), 1, contents.size(), f);
        std::fclose(f);
        return p;
    }
};

std::vector<std::uint8_t> bytesOf(const Ref<Data>& d) { return d ? d->vector() : std::vector<std::uint8_t>{}; }
std::vector<std::uint8_t> slice(const std::vector<std::uint8_t>& v, std::size_t from, std::size_t n) {
    return {v.begin() + static_cast<std::ptrdiff_t>(from), v.begin() + static_cast<std::ptrdiff_t>(from + n)};
}

// What a chunked read delivered. `over` is set once every copy of the handler
// is gone, which happens only when the read has ended on all its threads and
// queues: from then on nothing more can be delivered.
struct Deliveries {
    struct Call {
        std::size_t length;
        bool hadChunk, done;
        Ref<Error> error;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Call> calls;
    std::vector<std::uint8_t> bytes;
    std::vector<std::thread::id> threads;
    bool over = false;
    // Answers true unless told otherwise; may also observe the handle.
    std::function<bool(Handle&, std::size_t callIndex, const Ref<Data>&)> answer;

    struct Sentinel {
        std::shared_ptr<Deliveries> d;
        ~Sentinel() {
            std::lock_guard<std::mutex> lock(d->mutex);
            d->over = true;
            d->changed.notify_all();
        }
    };

    static Handle::DataHandler handler(const std::shared_ptr<Deliveries>& d) {
        std::shared_ptr<Sentinel> sentinel(new Sentinel{d});
        return [d, sentinel](const Ref<Handle>& h, const Ref<Data>& chunk, bool done, const Ref<Error>& error) {
            std::size_t index;
            {
                std::lock_guard<std::mutex> lock(d->mutex);
                index = d->calls.size();
                d->calls.push_back({chunk ? chunk->length() : 0, static_cast<bool>(chunk), done, error});
                if (chunk) d->bytes.insert(d->bytes.end(), chunk->bytes(), chunk->bytes() + chunk->length());
                d->threads.push_back(std::this_thread::get_id());
            }
            const bool goOn = d->answer ? d->answer(*h, index, chunk) : true;
            d->changed.notify_all();
            return goOn;
        };
    }
    bool waitOver() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 60s, [&] { return over; });
    }
    std::size_t doneCount() {
        std::lock_guard<std::mutex> lock(mutex);
        std::size_t n = 0;
        for (const auto& c : calls) n += c.done;
        return n;
    }
};

// Where user attributes can be set: /tmp first, then the build tree.
std::unique_ptr<TempDir> forkCapableDir(std::string& why) {
    for (const fs::path& parent : {fs::path("/tmp"), fs::current_path()}) {
        auto dir = std::make_unique<TempDir>(parent);
        if (dir->path.empty()) continue;
        const auto probe = dir->file("probe", {});
        if (::setxattr(probe.c_str(), kFork, "x", 1, 0) == 0) return dir;
        why += parent.string() + ": " + std::strerror(errno) + "; ";
    }
    return nullptr;
}

Ref<URL> fileURL(const std::string& path) { return URL::fileURLWithPath(path); }

} // namespace

// ---- Local data fork ----

TEST(RemoteFileHandleLocal, InitialisersDecideFlagsFromTheDescriptor) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(5000);
    const auto path = dir.file("a", content);

    Ref<Error> error;
    auto reading = Handle::initForReadingFromURL(fileURL(path), &error);
    ASSERT_TRUE(reading) << describe(error.get());
    EXPECT_TRUE(reading->isReadable());
    EXPECT_FALSE(reading->isWritable());
    EXPECT_TRUE(reading->isSeekable());
    EXPECT_TRUE(reading->closeWhenDone());
    EXPECT_EQ(reading->fileSize(), 5000u);
    EXPECT_EQ(reading->offsetInFile(), 0u);  // finding the size put the position back
    EXPECT_TRUE(reading->URL()->isEqual(*fileURL(path)));

    auto writing = Handle::initForWritingToURL(fileURL(path), &error);
    ASSERT_TRUE(writing);
    EXPECT_FALSE(writing->isReadable());
    EXPECT_TRUE(writing->isWritable());
    EXPECT_FALSE(writing->URL());

    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto readEnd = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(fds[0], true), true);
    auto writeEnd = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(fds[1], true), true);
    EXPECT_FALSE(readEnd->isSeekable());
    EXPECT_TRUE(readEnd->isReadable());
    EXPECT_FALSE(readEnd->isWritable());
    EXPECT_FALSE(writeEnd->isReadable());
    EXPECT_TRUE(writeEnd->isWritable());

    auto both = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(::open(path.c_str(), O_RDWR), true), true);
    EXPECT_TRUE(both->isReadable() && both->isWritable());
    // Any further status flag makes the descriptor neither readable nor writable.
    auto appending = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(::open(path.c_str(), O_RDWR | O_APPEND), true), true);
    EXPECT_FALSE(appending->isReadable());
    EXPECT_FALSE(appending->isWritable());

    // A handle that does not own its descriptor leaves it open.
    const int fd = ::open(path.c_str(), O_RDONLY);
    auto borrowed = FileHandle::initWithFileDescriptor(fd, false);
    Handle::initWithSystemFileHandle(borrowed, false).reset();
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "descriptor was closed";
    ::close(fd);
}

TEST(RemoteFileHandleLocal, InitialiserFailures) {
    TempDir dir;
    Ref<Error> error;
    EXPECT_FALSE(Handle::initForReadingFromURL(fileURL((dir.path / "absent").string()), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), 260);
    EXPECT_TRUE(error->userInfo()->objectForKey(NSURLErrorKey));

    error = nullptr;
    EXPECT_FALSE(Handle::initForReadingFromURL(URL::URLWithString("ftp://127.0.0.1/file"), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), 262);
    EXPECT_EQ(error->userInfo()->count(), 0u);

    error = nullptr;
    EXPECT_FALSE(Handle::initForWritingToURL(fileURL((dir.path / "absent").string()), &error));
    EXPECT_TRUE(error);
}

TEST(RemoteFileHandleLocal, SynchronousReadsWritesAndFaults) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(3000);
    const auto path = dir.file("a", content);
    auto h = Handle::initForReadingFromURL(fileURL(path));
    ASSERT_TRUE(h);

    EXPECT_EQ(bytesOf(h->readDataOfLength(100)), slice(content, 0, 100));
    EXPECT_EQ(h->offsetInFile(), 100u);
    EXPECT_EQ(bytesOf(h->readDataInRange(2990, 100)), slice(content, 2990, 10));  // short at the end
    ASSERT_TRUE(h->seekToFileOffset(1000));
    EXPECT_EQ(bytesOf(h->readDataToEndOfFileAndReturnError()), slice(content, 1000, 2000));

    Ref<Error> error;
    EXPECT_FALSE(h->writeData(Data::withString("x"), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), EINVAL);

    // The platform handle's faults come back as Cocoa 256 with the URL and the fault's text.
    ASSERT_TRUE(h->closeFileAndReturnError());
    error = nullptr;
    EXPECT_FALSE(h->readDataOfLength(10, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), 256);
    EXPECT_TRUE(error->userInfo()->objectForKey(NSURLErrorKey));
    EXPECT_NE(error->localizedDescription().find("readDataOfLength"), std::string::npos) << error->localizedDescription();
    error = nullptr;
    EXPECT_FALSE(h->seekToFileOffset(0, &error));
    EXPECT_EQ(error ? error->code() : 0, 256);

    auto w = Handle::initForWritingToURL(fileURL(path));
    ASSERT_TRUE(w->seekToFileOffset(10));
    ASSERT_TRUE(w->writeData(Data::withString("HELLO")));
    EXPECT_FALSE(w->readDataOfLength(1, &error));
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    w.reset();
    auto check = Handle::initForReadingFromURL(fileURL(path));
    const auto written = check->readDataInRange(10, 5);
    EXPECT_EQ(written->view(), "HELLO");
}

TEST(RemoteFileHandleLocal, WriteWithCompletionRunsInTheBackground) {
    TempDir dir;
    const auto path = dir.file("a", {});
    auto run = [](const Ref<Handle>& h, const Ref<Data>& data) {
        auto result = std::make_shared<std::promise<std::pair<Ref<Error>, std::thread::id>>>();
        auto future = result->get_future();
        h->writeDataCompletionHandler(data, [result](const Ref<Handle>&, const Ref<Error>& error) {
            result->set_value({error, std::this_thread::get_id()});
        });
        EXPECT_EQ(future.wait_for(60s), std::future_status::ready);
        return future.get();
    };
    auto w = Handle::initForWritingToURL(fileURL(path));
    const auto [error, thread] = run(w, Data::withString("written"));
    EXPECT_FALSE(error);
    EXPECT_NE(thread, std::this_thread::get_id());
    auto r = Handle::initForReadingFromURL(fileURL(path));
    EXPECT_EQ(r->fileSize(), 7u);
    EXPECT_EQ(r->readDataToEndOfFileAndReturnError()->view(), "written");
    const auto [refused, unused] = run(r, Data::withString("x"));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code(), EINVAL);
}

TEST(RemoteFileHandleLocal, ChunkedReadDeliversInOrderOnOneQueueWithOneDone) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(3 * 1024 * 1024 + 12345);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    ASSERT_TRUE(h->seekToFileOffset(100));

    auto d = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(2 * 1024 * 1024, 256 * 1024, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->bytes, slice(content, 100, 2 * 1024 * 1024));
    ASSERT_EQ(d->calls.size(), 8u);
    for (std::size_t i = 0; i < d->calls.size(); ++i) {
        EXPECT_EQ(d->calls[i].length, 256u * 1024);
        EXPECT_EQ(d->calls[i].done, i + 1 == d->calls.size());
        EXPECT_FALSE(d->calls[i].error);
        EXPECT_NE(d->threads[i], std::this_thread::get_id());
    }
    EXPECT_EQ(h->offsetInFile(), 100u + 2 * 1024 * 1024);

    // To the end: the end of file is a final empty chunk with done.
    // Chunks the handler keeps stay as they were delivered while later reads go on.
    const std::size_t restStart = 100 + 2 * 1024 * 1024;
    auto rest = std::make_shared<Deliveries>();
    std::vector<std::tuple<std::size_t, std::size_t, Ref<Data>>> kept;  // offset, length, chunk
    std::size_t seen = 0;
    rest->answer = [&](Handle&, std::size_t index, const Ref<Data>& chunk) {
        if (index % 2 == 0) kept.emplace_back(restStart + seen, chunk->length(), chunk);
        seen += chunk->length();
        return true;
    };
    h->readDataToEndOfFileWithMaxBufferSize(64 * 1024, Deliveries::handler(rest));
    ASSERT_TRUE(rest->waitOver());
    EXPECT_EQ(rest->bytes, slice(content, restStart, content.size() - restStart));
    EXPECT_GT(kept.size(), 4u);
    for (const auto& [at, length, chunk] : kept) EXPECT_EQ(bytesOf(chunk), slice(content, at, length)) << "chunk kept at " << at;
    ASSERT_FALSE(rest->calls.empty());
    EXPECT_TRUE(rest->calls.back().hadChunk);
    EXPECT_EQ(rest->calls.back().length, 0u);
    EXPECT_EQ(rest->doneCount(), 1u);
    for (auto& c : rest->calls) EXPECT_LE(c.length, 64u * 1024);  // one buffer at most
}

TEST(RemoteFileHandleLocal, ChunkedReadEdgeLengths) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(1000);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));

    // A buffer limit of 0: the first read takes nothing and counts as the end.
    auto zeroLimit = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(100, 0, Deliveries::handler(zeroLimit));
    ASSERT_TRUE(zeroLimit->waitOver());
    ASSERT_EQ(zeroLimit->calls.size(), 1u);
    EXPECT_TRUE(zeroLimit->calls[0].hadChunk && zeroLimit->calls[0].done);
    EXPECT_EQ(zeroLimit->calls[0].length, 0u);

    // Nothing asked for still ends with one done call.
    auto none = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(0, 4096, Deliveries::handler(none));
    ASSERT_TRUE(none->waitOver());
    ASSERT_EQ(none->calls.size(), 1u);
    EXPECT_TRUE(none->calls[0].done);

    // A failed seek is the one call.
    auto badSeek = std::make_shared<Deliveries>();
    ASSERT_TRUE(h->closeFileAndReturnError());
    h->readDataAtOffset(5, 10, 4096, Deliveries::handler(badSeek));
    ASSERT_TRUE(badSeek->waitOver());
    ASSERT_EQ(badSeek->calls.size(), 1u);
    EXPECT_TRUE(badSeek->calls[0].done);
    ASSERT_TRUE(badSeek->calls[0].error);
    EXPECT_EQ(badSeek->calls[0].error->code(), 256);

    // Not readable: one call with POSIX 22.
    auto w = Handle::initForWritingToURL(fileURL((dir.path / "a").string()));
    auto notReadable = std::make_shared<Deliveries>();
    w->readDataOfLengthMaxBufferSize(10, 10, Deliveries::handler(notReadable));
    ASSERT_TRUE(notReadable->waitOver());
    ASSERT_EQ(notReadable->calls.size(), 1u);
    EXPECT_TRUE(notReadable->calls[0].done);
    EXPECT_EQ(notReadable->calls[0].error->code(), EINVAL);
}

TEST(RemoteFileHandleLocal, ReadErrorIsReportedWithoutDone) {
    TempDir dir;
    auto h = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(::open(dir.path.c_str(), O_RDONLY), true), true);
    ASSERT_TRUE(h && h->isReadable());
    auto d = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(100, 10, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    ASSERT_EQ(d->calls.size(), 1u);
    EXPECT_FALSE(d->calls[0].hadChunk);
    EXPECT_FALSE(d->calls[0].done);
    ASSERT_TRUE(d->calls[0].error);
    EXPECT_EQ(d->calls[0].error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(d->calls[0].error->code(), EISDIR);
}

TEST(RemoteFileHandleLocal, StopEndsDeliveriesEvenOfChunksAlreadyRead) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(4 * 1024 * 1024);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    auto d = std::make_shared<Deliveries>();
    d->answer = [](Handle&, std::size_t index, const Ref<Data>&) { return index < 2; };
    // A large limit lets the reader run ahead: chunks beyond the third are read but must not arrive.
    h->readDataToEndOfFileWithMaxBufferSize(16 * 1024 * 1024, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    ASSERT_EQ(d->calls.size(), 3u);
    EXPECT_EQ(d->bytes, slice(content, 0, 3 * 1024 * 1024));
    EXPECT_EQ(d->doneCount(), 0u);
}

TEST(RemoteFileHandleLocal, ReadAheadStaysWithinTheLimit) {
    TempDir dir;
    constexpr std::uint64_t kBuffer = 1024 * 1024, kLimit = 3 * kBuffer;
    const auto content = HttpTestServer::patternBytes(24 * kBuffer);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    const int fd = h->systemFileHandle()->fileDescriptor();

    auto d = std::make_shared<Deliveries>();
    std::uint64_t delivered = 0, worst = 0;
    d->answer = [&](Handle&, std::size_t index, const Ref<Data>& chunk) {
        const auto readSoFar = [&] { return static_cast<std::uint64_t>(::lseek(fd, 0, SEEK_CUR)); };
        if (index == 0) {
            // Hold the first delivery until the reader has used up its allowance.
            const auto deadline = std::chrono::steady_clock::now() + 30s;
            while (readSoFar() < kLimit && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
            EXPECT_GE(readSoFar(), kLimit) << "the reader did not run ahead";
        }
        worst = std::max(worst, readSoFar() - delivered);
        delivered += chunk->length();
        return true;
    };
    h->readDataToEndOfFileWithMaxBufferSize(kLimit, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->bytes, content);
    EXPECT_LE(worst, kLimit + kBuffer);
}

TEST(RemoteFileHandleLocal, FileShrinkingDuringTheReadEndsAtTheNewEnd) {
    TempDir dir;
    constexpr std::size_t kBuffer = 1024 * 1024;
    const auto content = HttpTestServer::patternBytes(4 * kBuffer);
    const auto path = dir.file("a", content);
    auto h = Handle::initForReadingFromURL(fileURL(path));
    auto d = std::make_shared<Deliveries>();
    d->answer = [&](Handle&, std::size_t index, const Ref<Data>&) {
        // With the limit at one buffer the reader waits for this delivery to end.
        if (index == 0) {
            EXPECT_EQ(::truncate(path.c_str(), kBuffer + kBuffer / 2), 0);
        }
        return true;
    };
    h->readDataOfLengthMaxBufferSize(content.size(), kBuffer, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->bytes, slice(content, 0, kBuffer + kBuffer / 2));
    ASSERT_EQ(d->doneCount(), 1u);
    EXPECT_TRUE(d->calls.back().done);
    EXPECT_EQ(d->calls.back().length, 0u);
}

// A pipe fed by a thread of its own, which ends once everything is written
// or the reader has gone.
struct FedPipe {
    Ref<Handle> handle;
    std::thread writer;
    explicit FedPipe(std::vector<std::uint8_t> content) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        handle = Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(fds[0], true), true);
        writer = std::thread([fd = fds[1], content = std::move(content)] {
            std::size_t at = 0;
            while (at < content.size()) {
                const ssize_t n = ::write(fd, content.data() + at, std::min<std::size_t>(content.size() - at, 7000));
                if (n <= 0) break;
                at += static_cast<std::size_t>(n);
            }
            ::close(fd);
        });
    }
    ~FedPipe() {
        handle.reset();  // closes the read end, so a blocked writer gives up
        if (writer.joinable()) writer.join();
    }
};

TEST(RemoteFileHandleLocal, PipeReadsFrontToBackAndGoesBackWithinTheLastBytes) {
    const auto content = HttpTestServer::patternBytes(300 * 1024 + 17);
    FedPipe pipe(content);
    auto& h = pipe.handle;
    ASSERT_TRUE(h);
    EXPECT_FALSE(h->isSeekable());

    // Looking at the first bytes, then reading the whole from the start, as a
    // decompressor that detects the format first does.
    EXPECT_EQ(bytesOf(h->readDataOfLength(6)), slice(content, 0, 6));
    EXPECT_EQ(h->offsetInFile(), 6u);
    auto d = std::make_shared<Deliveries>();
    h->readDataAtOffset(0, Handle::ToEndOfFile, 64 * 1024, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->bytes, content);
    EXPECT_EQ(d->doneCount(), 1u);
    EXPECT_EQ(h->offsetInFile(), content.size());

    // The last bytes can be read again; what lies further back is gone.
    Ref<Error> error;
    ASSERT_TRUE(h->seekToFileOffset(content.size() - 8, &error)) << describe(error.get());
    EXPECT_EQ(bytesOf(h->readDataOfLength(100)), slice(content, content.size() - 8, 8));
    EXPECT_FALSE(h->seekToFileOffset(1000, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ESPIPE);
    EXPECT_EQ(h->offsetInFile(), content.size());
}

TEST(RemoteFileHandleLocal, PipeSeeksForwardByReading) {
    const auto content = HttpTestServer::patternBytes(200 * 1024);
    FedPipe pipe(content);
    auto& h = pipe.handle;
    ASSERT_TRUE(h);
    ASSERT_TRUE(h->seekToFileOffset(100000));
    EXPECT_EQ(bytesOf(h->readDataOfLength(10)), slice(content, 100000, 10));

    auto d = std::make_shared<Deliveries>();
    h->readDataAtOffset(150000, 5000, 1024, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->bytes, slice(content, 150000, 5000));
    EXPECT_EQ(d->doneCount(), 1u);

    // Past the end there is no such position: the handle stops at the end.
    Ref<Error> error;
    EXPECT_FALSE(h->seekToFileOffset(10 * 1024 * 1024, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ESPIPE);
    EXPECT_EQ(h->offsetInFile(), content.size());
    EXPECT_TRUE(bytesOf(h->readDataToEndOfFileAndReturnError()).empty());
}

TEST(RemoteFileHandleLocal, StopReachesAReaderThatWaitsForRoom) {
    TempDir dir;
    constexpr std::uint64_t kBuffer = 1024 * 1024;
    const auto content = HttpTestServer::patternBytes(16 * kBuffer);
    for (const std::uint64_t limitBuffers : {1, 2}) {
        auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
        auto d = std::make_shared<Deliveries>();
        // The reader is held at the limit while the last accepted chunk is with the handler.
        d->answer = [&](Handle&, std::size_t index, const Ref<Data>&) { return index + 1 < limitBuffers; };
        h->readDataToEndOfFileWithMaxBufferSize(limitBuffers * kBuffer, Deliveries::handler(d));
        ASSERT_TRUE(d->waitOver()) << "limit of " << limitBuffers << " buffers";
        EXPECT_EQ(d->calls.size(), limitBuffers);
        EXPECT_EQ(d->bytes, slice(content, 0, limitBuffers * kBuffer));
        EXPECT_LE(h->offsetInFile(), (2 * limitBuffers + 1) * kBuffer) << "the reader went on after the stop";
    }
}

TEST(RemoteFileHandleLocal, WithoutAHandlerTheReaderStillReadsTheLength) {
    TempDir dir;
    constexpr std::uint64_t kBuffer = 64 * 1024;
    const auto content = HttpTestServer::patternBytes(40 * kBuffer + 7);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    // Nobody takes the chunks, so nothing may hold the reader at the limit.
    h->readDataOfLengthMaxBufferSize(30 * kBuffer + 5, kBuffer, nullptr);
    const int fd = h->systemFileHandle()->fileDescriptor();
    const auto end = static_cast<off_t>(30 * kBuffer + 5);
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (::lseek(fd, 0, SEEK_CUR) < end && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), end);
}

// ---- Resource fork ----

TEST(RemoteFileHandleFork, ReadsWritesSeeksAndKeepsItsOffset) {
    std::string why;
    auto dir = forkCapableDir(why);
    if (!dir) GTEST_SKIP() << "no file system here takes user extended attributes: " << why;
    const auto path = dir->file("f", HttpTestServer::patternBytes(10));

    Ref<Error> error;
    auto reader = Handle::initForReadingFromResourceForkAtURL(fileURL(path), &error);
    ASSERT_TRUE(reader) << describe(error.get());
    std::uint64_t length = 99;
    ASSERT_TRUE(reader->getRsrcForkLength(&length));
    EXPECT_EQ(length, 0u);  // no fork yet
    EXPECT_FALSE(reader->isSeekable());
    EXPECT_EQ(reader->readDataToEndOfFileAndReturnError()->length(), 0u);

    auto writer = Handle::initForWritingToResourceForkAtURL(fileURL(path), &error);
    ASSERT_TRUE(writer) << describe(error.get());
    ASSERT_TRUE(writer->writeData(Data::withString("resource fork")));
    EXPECT_EQ(writer->offsetInFile(), 13u);
    ASSERT_TRUE(writer->seekToFileOffset(9));
    ASSERT_TRUE(writer->writeData(Data::withString("FORK!")));  // overwrites and extends
    EXPECT_EQ(writer->offsetInFile(), 14u);
    EXPECT_FALSE(writer->readDataOfLength(1, &error));
    EXPECT_EQ(error->code(), EINVAL);

    char raw[64];
    const ssize_t n = ::getxattr(path.c_str(), kFork, raw, sizeof raw);
    EXPECT_EQ(std::string(raw, static_cast<std::size_t>(std::max<ssize_t>(n, 0))), "resource FORK!");

    ASSERT_TRUE(reader->getRsrcForkLength(&length));
    EXPECT_EQ(length, 14u);
    ASSERT_TRUE(reader->seekToFileOffset(9));
    EXPECT_EQ(reader->readDataOfLength(4)->view(), "FORK");
    EXPECT_EQ(reader->readDataOfLength(4)->view(), "FORK");  // the offset did not move
    EXPECT_EQ(reader->readDataToEndOfFileAndReturnError()->view(), "FORK!");
    EXPECT_TRUE(reader->seekToFileOffset(14));
    error = nullptr;
    EXPECT_FALSE(reader->seekToFileOffset(15, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ERANGE);

    // seekToEnd moves the file's own position, not the fork's.
    ASSERT_TRUE(reader->seekToFileOffset(3));
    ASSERT_TRUE(reader->seekToEndOfFileAndReturnError());
    EXPECT_EQ(reader->offsetInFile(), 3u);
    EXPECT_EQ(reader->systemFileHandle()->offsetInFile(), 10u);

    // Larger than any attribute can be: a clean failure, the fork unchanged.
    error = nullptr;
    EXPECT_FALSE(writer->writeData(Ref<Data>(new Data(std::vector<std::uint8_t>(1 << 20, 7))), &error));
    EXPECT_TRUE(error);
    ASSERT_TRUE(reader->getRsrcForkLength(&length));
    EXPECT_EQ(length, 14u);

    // A data-fork handle has no fork length.
    auto data = Handle::initForReadingFromURL(fileURL(path));
    error = nullptr;
    EXPECT_FALSE(data->getRsrcForkLength(&length, &error));
    EXPECT_EQ(error ? error->code() : 0, EINVAL);
}

TEST(RemoteFileHandleFork, AFileSystemWithoutUserAttributesRefusesTheFork) {
    // procfs takes no user attributes at all.
    Ref<Error> error;
    EXPECT_FALSE(Handle::initForReadingFromResourceForkAtURL(fileURL("/proc/self/status"), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), EOPNOTSUPP);
    EXPECT_FALSE(error->localizedDescription().empty());
    // The data fork of the same file is still there.
    auto data = Handle::initForReadingFromURL(fileURL("/proc/self/status"));
    ASSERT_TRUE(data);
    EXPECT_GT(data->readDataToEndOfFileAndReturnError()->length(), 0u);
}

TEST(RemoteFileHandleFork, ChunkedReadsRereadTheSameBytesAndAnswerAStop) {
    std::string why;
    auto dir = forkCapableDir(why);
    if (!dir) GTEST_SKIP() << "no file system here takes user extended attributes: " << why;
    const auto path = dir->file("f", {});
    ASSERT_EQ(::setxattr(path.c_str(), kFork, "0123456789", 10, 0), 0);
    auto h = Handle::initForReadingFromResourceForkAtURL(fileURL(path));
    ASSERT_TRUE(h->seekToFileOffset(2));

    auto d = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(8, 3, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(std::string(d->bytes.begin(), d->bytes.end()), "23423423");
    ASSERT_EQ(d->calls.size(), 3u);
    EXPECT_TRUE(d->calls.back().done);
    EXPECT_EQ(d->doneCount(), 1u);
    EXPECT_NE(d->threads[0], std::this_thread::get_id());

    // To the end: bounded by what the fork holds past the offset.
    auto all = std::make_shared<Deliveries>();
    h->readDataToEndOfFileWithMaxBufferSize(1 << 20, Deliveries::handler(all));
    ASSERT_TRUE(all->waitOver());
    EXPECT_EQ(std::string(all->bytes.begin(), all->bytes.end()), "23456789");
    EXPECT_EQ(all->doneCount(), 1u);

    auto stopped = std::make_shared<Deliveries>();
    stopped->answer = [](Handle&, std::size_t, const Ref<Data>&) { return false; };
    h->readDataOfLengthMaxBufferSize(8, 3, Deliveries::handler(stopped));
    ASSERT_TRUE(stopped->waitOver());
    ASSERT_EQ(stopped->calls.size(), 2u);
    EXPECT_FALSE(stopped->calls[0].done);
    EXPECT_TRUE(stopped->calls[1].done);
    ASSERT_TRUE(stopped->calls[1].error);
    EXPECT_EQ(stopped->calls[1].error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(stopped->calls[1].error->code(), 3072);
}

// ---- HTTP ----

TEST(RemoteFileHandleHTTP, SizeComesFromTheHeadRequest) {
    HttpTestServer server(HttpTestServer::patternBytes(100000));
    auto ranges = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesPath)));
    ASSERT_TRUE(ranges);
    EXPECT_FALSE(ranges->systemFileHandle());
    // fileSize waits for the answer; asked at once it must not see the unset size.
    EXPECT_EQ(ranges->fileSize(), 100000u);
    EXPECT_TRUE(ranges->isSeekable());
    ASSERT_EQ(server.requestsFor(HttpTestServer::RangesPath).size(), 1u);
    EXPECT_EQ(server.requestsFor(HttpTestServer::RangesPath)[0].method, "HEAD");

    auto noRanges = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesNonePath)));
    EXPECT_EQ(noRanges->fileSize(), 100000u);
    EXPECT_FALSE(noRanges->isSeekable());

    auto unknown = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::ChunkedPath)));
    EXPECT_EQ(unknown->fileSize(), 0u);
    EXPECT_FALSE(unknown->isSeekable());

    // Nobody listening: size 0, not seekable.
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    ::close(s);
    auto refused = Handle::initForReadingFromURL(URL::URLWithString("HTTP://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/x"));
    ASSERT_TRUE(refused);  // the scheme is compared without case
    EXPECT_EQ(refused->fileSize(), 0u);
    EXPECT_FALSE(refused->isSeekable());
}

TEST(RemoteFileHandleHTTP, SynchronousReadsSendRangesAndAdvance) {
    const auto content = HttpTestServer::patternBytes(50000);
    HttpTestServer server(content);
    auto h = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesPath)));
    ASSERT_TRUE(h);

    Ref<Error> error;
    EXPECT_EQ(bytesOf(h->readDataInRange(100, 10, &error)), slice(content, 100, 10));
    EXPECT_EQ(h->offsetInFile(), 110u);
    EXPECT_EQ(bytesOf(h->readDataOfLength(5)), slice(content, 110, 5));
    ASSERT_TRUE(h->seekToFileOffset(49000));
    EXPECT_EQ(bytesOf(h->readDataToEndOfFileAndReturnError()), slice(content, 49000, 1000));
    EXPECT_EQ(h->offsetInFile(), 50000u);

    std::vector<std::string> ranges;
    for (const auto& r : server.requestsFor(HttpTestServer::RangesPath)) {
        if (r.method == "GET") ranges.push_back(r.header("Range"));
    }
    EXPECT_EQ(ranges, (std::vector<std::string>{"bytes=100-109", "bytes=110-114", "bytes=49000-"}));

    EXPECT_FALSE(h->writeData(Data::withString("x"), &error));
    EXPECT_EQ(error->code(), EINVAL);
    ASSERT_TRUE(h->seekToEndOfFileAndReturnError());
    EXPECT_EQ(h->offsetInFile(), 50000u);
    EXPECT_TRUE(h->closeFileAndReturnError());
}

TEST(RemoteFileHandleHTTP, WhateverTheServerSendsIsDelivered) {
    const auto content = HttpTestServer::patternBytes(20000);
    HttpTestServer server(content);
    // Not seekable, yet read with ranges; a server that ignores them sends it all.
    auto plain = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesNonePath)));
    EXPECT_FALSE(plain->fileSize() && plain->isSeekable());
    EXPECT_EQ(bytesOf(plain->readDataInRange(10, 10)), content);
    EXPECT_EQ(server.requestsFor(HttpTestServer::RangesNonePath).back().header("Range"), "bytes=10-19");
    // Error statuses are not examined: their bodies are the data.
    auto missing = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::NotFoundPath)));
    EXPECT_EQ(missing->readDataToEndOfFileAndReturnError()->view(), "no such resource");
    auto failing = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::ServerErrorPath)));
    EXPECT_EQ(failing->readDataToEndOfFileAndReturnError()->view(), "server failure");
    // No length announced: read to the end all the same.
    auto chunked = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::ChunkedPath)));
    EXPECT_EQ(bytesOf(chunked->readDataToEndOfFileAndReturnError()), content);
    // Redirects are followed.
    auto moved = Handle::initForReadingFromURL(URL::URLWithString(server.url("/redirect/2")));
    EXPECT_EQ(bytesOf(moved->readDataInRange(500, 100)), slice(content, 500, 100));
}

TEST(RemoteFileHandleHTTP, StatusCodeIsThatOfTheLastResponse) {
    const auto content = HttpTestServer::patternBytes(1000);
    HttpTestServer server(content);
    auto ranged = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesPath)));
    EXPECT_EQ(ranged->fileSize(), 1000u);
    EXPECT_EQ(ranged->statusCode(), 200);  // the HEAD
    // A ranged GET's status is there by its first chunk.
    auto seen = std::make_shared<std::atomic<std::int64_t>>(0);
    auto d = std::make_shared<Deliveries>();
    d->answer = [seen](Handle& h, std::size_t, const Ref<Data>&) {
        if (!seen->load()) seen->store(h.statusCode());
        return true;
    };
    ranged->readDataAtOffset(10, 20, Handle::ToEndOfFile, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(seen->load(), 206);
    EXPECT_EQ(ranged->statusCode(), 206);

    auto missing = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::NotFoundPath)));
    EXPECT_EQ(missing->readDataToEndOfFileAndReturnError()->view(), "no such resource");
    EXPECT_EQ(missing->statusCode(), 404);

    TempDir dir;
    auto local = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    EXPECT_EQ(local->readDataOfLength(10)->length(), 10u);
    EXPECT_EQ(local->statusCode(), 0);
}

TEST(RemoteFileHandleHTTP, ChunkedReadEndsWithExactlyOneDone) {
    const auto content = HttpTestServer::patternBytes(3 * 1024 * 1024);
    HttpTestServer server(content, 1024 * 1024);
    auto h = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesPath)));

    auto whole = std::make_shared<Deliveries>();
    h->readDataAtOffset(1000, Handle::ToEndOfFile, 4096, Deliveries::handler(whole));
    ASSERT_TRUE(whole->waitOver());
    EXPECT_EQ(whole->bytes, slice(content, 1000, content.size() - 1000));
    EXPECT_EQ(whole->doneCount(), 1u);
    EXPECT_TRUE(whole->calls.back().done && whole->calls.back().hadChunk && whole->calls.back().length == 0);
    EXPECT_EQ(h->offsetInFile(), content.size());

    // Dropped mid-body: one final call with no chunk, done and the failure.
    auto cut = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::TruncatedPath)));
    auto truncated = std::make_shared<Deliveries>();
    cut->readDataToEndOfFileWithMaxBufferSize(Handle::ToEndOfFile, Deliveries::handler(truncated));
    ASSERT_TRUE(truncated->waitOver());
    EXPECT_EQ(truncated->bytes, slice(content, 0, 1024 * 1024));
    EXPECT_EQ(truncated->doneCount(), 1u);
    EXPECT_FALSE(truncated->calls.back().hadChunk);
    ASSERT_TRUE(truncated->calls.back().error);
    EXPECT_EQ(truncated->calls.back().error->domain(), NSURLErrorDomain);
    Ref<Error> error;
    EXPECT_FALSE(cut->readDataInRange(0, 10, &error));
    EXPECT_TRUE(error);
}

TEST(RemoteFileHandleHTTP, StopFromTheCallbackEndsTheTransfer) {
    const auto content = HttpTestServer::patternBytes(32 * 1024 * 1024);
    HttpTestServer server(content);
    auto h = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::RangesPath)));
    auto d = std::make_shared<Deliveries>();
    d->answer = [](Handle&, std::size_t, const Ref<Data>&) { return false; };
    h->readDataToEndOfFileWithMaxBufferSize(Handle::ToEndOfFile, Deliveries::handler(d));
    ASSERT_TRUE(d->waitOver());
    ASSERT_EQ(d->calls.size(), 2u);
    EXPECT_TRUE(d->calls[0].hadChunk && !d->calls[0].done);
    // The end is the cancellation, or the success of a body that had all
    // arrived before the stop was seen; either way one call, no more data.
    EXPECT_TRUE(d->calls[1].done);
    EXPECT_EQ(d->calls[1].length, 0u);
    if (d->calls[1].error) {
        EXPECT_EQ(d->calls[1].error->code(), NSURLErrorCancelled);
    }
    EXPECT_EQ(h->offsetInFile(), d->calls[0].length);
}

TEST(RemoteFileHandleHTTP, AServerThatNeverAnswersEndsWhenReleased) {
    HttpTestServer server(HttpTestServer::patternBytes(100));
    auto h = Handle::initForReadingFromURL(URL::URLWithString(server.url(HttpTestServer::NoRangesPath)));
    ASSERT_EQ(h->fileSize(), 100u);
    h->setURL(URL::URLWithString(server.url(HttpTestServer::HangPath)));
    auto d = std::make_shared<Deliveries>();
    h->readDataOfLengthMaxBufferSize(10, 10, Deliveries::handler(d));
    {
        std::unique_lock<std::mutex> lock(d->mutex);
        EXPECT_TRUE(d->calls.empty());
    }
    server.stop();  // the held request is answered (or dropped) now
    ASSERT_TRUE(d->waitOver());
    EXPECT_EQ(d->doneCount(), 1u);
    EXPECT_TRUE(d->calls.back().done);
}

TEST(RemoteFileHandleHTTP, ConnectionStyleDelegate) {
    const auto content = HttpTestServer::patternBytes(8 * 1024 * 1024);
    HttpTestServer server(content);
    struct Log {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::tuple<std::size_t, bool, std::int64_t>> calls;  // length, done, error code
    };
    auto run = [&](bool stopAtOnce) {
        auto log = std::make_shared<Log>();
        auto delegate = QXRemoteFileHandleConnectionDelegate::initWithDataHandler([log, stopAtOnce](const Ref<Data>& chunk, bool done, const Ref<Error>& error) {
            std::lock_guard<std::mutex> lock(log->mutex);
            log->calls.emplace_back(chunk ? chunk->length() : 0, done, error ? error->code() : 0);
            log->changed.notify_all();
            return !stopAtOnce;
        });
        auto client = HTTPClient::create();
        client->dataTaskWithRequest(HTTPRequest::requestWithURL(URL::URLWithString(server.url(HttpTestServer::RangesPath))), delegate)->resume();
        std::unique_lock<std::mutex> lock(log->mutex);
        EXPECT_TRUE(log->changed.wait_for(lock, 60s, [&] { return !log->calls.empty() && std::get<1>(log->calls.back()); }));
        return std::make_pair(delegate, log->calls);
    };
    auto [finished, calls] = run(false);
    EXPECT_FALSE(finished->isStopped());  // a finished connection is not stopped
    std::size_t total = 0;
    for (auto& c : calls) total += std::get<0>(c);
    EXPECT_EQ(total, content.size());

    auto [stopped, stopCalls] = run(true);
    EXPECT_TRUE(stopped->isStopped());
    ASSERT_EQ(stopCalls.size(), 2u);
    // No data after the stop: the end is the cancellation, unless the whole
    // body had arrived before it was seen.
    EXPECT_TRUE(std::get<1>(stopCalls[1]));
    EXPECT_TRUE(std::get<2>(stopCalls[1]) == NSURLErrorCancelled || std::get<2>(stopCalls[1]) == 0);
}
