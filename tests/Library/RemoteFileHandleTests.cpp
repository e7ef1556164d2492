// RemoteFileHandleTests.cpp - the remote file handle over real files, real
// extended attributes and the in-process HTTP server.
#include "CallLog.h"
#include "HttpTestServer.h"
#include "TestSupport.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include <sys/xattr.h>

using namespace qx;
using namespace std::chrono_literals;
using qxtest::Bytes;
using qxtest::TempDir;
using qxtest::toBytes;
using Handle = QXRemoteFileHandle;

namespace {

constexpr const char* kFork = "user.com.apple.ResourceFork";
constexpr std::size_t MiB = 1024 * 1024;

Bytes slice(const Bytes& v, std::size_t from, std::size_t n) {
    return {v.begin() + static_cast<std::ptrdiff_t>(from), v.begin() + static_cast<std::ptrdiff_t>(from + n)};
}
Ref<URL> fileURL(const std::string& path) { return URL::fileURLWithPath(path); }
Ref<Handle> httpHandle(const HttpTestServer& server, const std::string& path) {
    return Handle::initForReadingFromURL(URL::URLWithString(server.url(path)));
}
Ref<Handle> wrap(int fd) { return Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(fd, true), true); }

// A temporary folder whose files take user extended attributes, or nothing.
std::unique_ptr<TempDir> forkDir() {
    auto dir = std::make_unique<TempDir>("qx-remote");
    const auto probe = dir->file("probe", "");
    return ::setxattr(probe.c_str(), kFork, "x", 1, 0) == 0 ? std::move(dir) : nullptr;
}
#define REQUIRE_FORK_DIR(dir) \
    auto dir = forkDir();     \
    if (!dir) GTEST_SKIP() << "the temporary folder takes no user extended attributes"

// What a chunked read delivered, once every copy of its handler is gone: the
// read has then ended on all its threads and queues.
struct Deliveries {
    struct Call { std::size_t length; bool hadChunk, done; Ref<Error> error; std::thread::id thread; Bytes bytes; };
    std::vector<Call> calls;
    Bytes bytes;
    std::size_t doneCount() const { return std::count_if(calls.begin(), calls.end(), [](auto& c) { return c.done; }); }

    // Starts read with a handler that answers true unless told otherwise (and
    // may observe the handle), and waits until the read is over.
    using Answer = std::function<bool(Handle&, std::size_t callIndex, const Ref<Data>&)>;
    static std::unique_ptr<Deliveries> of(const std::function<void(Handle::DataHandler)>& read, Answer answer = {}) {
        qxtest::CallLog<Call> log;
        read([log, token = log.token(), answer](const Ref<Handle>& h, const Ref<Data>& chunk, bool done, const Ref<Error>& e) {
            const auto thread = std::this_thread::get_id();
            const auto index = log.record({chunk ? chunk->length() : 0, bool(chunk), done, e, thread, toBytes(chunk)});
            return answer ? answer(*h, index, chunk) : true;
        });
        auto d = std::make_unique<Deliveries>();
        d->calls = log.wait();
        for (const auto& c : d->calls) d->bytes.insert(d->bytes.end(), c.bytes.begin(), c.bytes.end());
        return d;
    }
};

} // namespace

// ---- Making handles ----

TEST(RemoteFileHandle, FlagsComeFromTheDescriptorsStatusWord) {
    TempDir dir;
    const auto path = dir.file("a", HttpTestServer::patternBytes(100));
    qxtest::Pipe pipe;
    struct Row { const char* what; int fd; bool seekable, readable, writable; } rows[] = {
        {"read-only", ::open(path.c_str(), O_RDONLY), true, true, false},
        {"write-only", ::open(path.c_str(), O_WRONLY), true, false, true},
        {"read-write", ::open(path.c_str(), O_RDWR), true, true, true},
        // Any further status flag makes a descriptor neither readable nor writable.
        {"read-write, appending", ::open(path.c_str(), O_RDWR | O_APPEND), true, false, false},
        {"pipe's reading end", ::dup(pipe.reader()), false, true, false},
        {"pipe's writing end", ::dup(pipe.writer()), false, false, true},
    };
    for (const auto& row : rows) {
        auto h = wrap(row.fd);
        ASSERT_TRUE(h) << row.what;
        EXPECT_EQ(std::make_tuple(h->isSeekable(), h->isReadable(), h->isWritable(), h->isRsrcFork()),
                  std::make_tuple(row.seekable, row.readable, row.writable, false)) << row.what;
    }

    auto reading = Handle::initForReadingFromURL(fileURL(path));
    EXPECT_EQ(reading->fileSize(), 100u);
    EXPECT_EQ(reading->offsetInFile(), 0u);  // finding the size put the position back

    // A handle that does not own its descriptor leaves it open.
    const int fd = ::open(path.c_str(), O_RDONLY);
    Handle::initWithSystemFileHandle(FileHandle::initWithFileDescriptor(fd, false), false).reset();
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "the borrowed descriptor was closed";
    ::close(fd);
}

TEST(RemoteFileHandle, InitialiserFailures) {
    TempDir dir;
    const auto absent = fileURL(dir / "absent");
    struct Row { const char* what; std::function<Ref<Handle>(Ref<Error>*)> make; const char* domain; std::int64_t code; } rows[] = {
        {"missing file", [&](Ref<Error>* e) { return Handle::initForReadingFromURL(absent, e); }, NSCocoaErrorDomain, 260},
        {"missing file for writing", [&](Ref<Error>* e) { return Handle::initForWritingToURL(absent, e); }, NSCocoaErrorDomain, 4},
        {"scheme not read", [](Ref<Error>* e) { return Handle::initForReadingFromURL(URL::URLWithString("ftp://127.0.0.1/f"), e); },
         NSCocoaErrorDomain, 262},
        {"no file handle", [](Ref<Error>* e) { return Handle::initWithSystemFileHandle(nullptr, true, e); }, NSCocoaErrorDomain, 256},
        // procfs takes no user attributes at all.
        {"fork without user attributes",
         [](Ref<Error>* e) { return Handle::initForReadingFromResourceForkAtURL(fileURL("/proc/self/status"), e); }, NSPOSIXErrorDomain,
         EOPNOTSUPP},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Ref<Error> error;
        EXPECT_FALSE(row.make(&error));
        EXPECT_QX_ERROR(error, row.domain, row.code);
        // Only the scheme's is the platform's own error, bare.
        if (error && error->domain() == NSCocoaErrorDomain && error->code() != 256) {
            EXPECT_EQ(static_cast<bool>(error->userInfo()->objectForKey(NSURLErrorKey)), row.code != 262);
        }
    }
}

// ---- The three sources read alike ----

TEST(RemoteFileHandle, SynchronousReadsOfEachSource) {
    const auto content = HttpTestServer::patternBytes(3000);
    HttpTestServer server(content);
    REQUIRE_FORK_DIR(dir);
    const auto forked = dir->file("forked", "data fork");
    ASSERT_EQ(::setxattr(forked.c_str(), kFork, content.data(), content.size(), 0), 0);
    // A fork read leaves the offset where it was.
    struct Row { const char* what; Ref<Handle> handle; bool readsAdvance; std::int64_t status; } rows[] = {
        {"local file", Handle::initForReadingFromURL(fileURL(dir->file("a", content))), true, 0},
        {"resource fork", Handle::initForReadingFromResourceForkAtURL(fileURL(forked)), false, 0},
        {"HTTP", httpHandle(server, HttpTestServer::RangesPath), true, 206},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto& h = row.handle;
        ASSERT_TRUE(h);
        EXPECT_EQ(toBytes(h->readDataInRange(100, 10)), slice(content, 100, 10));
        EXPECT_EQ(h->offsetInFile(), row.readsAdvance ? 110u : 100u);
        EXPECT_EQ(toBytes(h->readDataOfLength(5)), slice(content, row.readsAdvance ? 110 : 100, 5));
        EXPECT_EQ(toBytes(h->readDataInRange(2990, 100)), slice(content, 2990, 10));  // short at the end
        ASSERT_TRUE(h->seekToFileOffset(1000));
        EXPECT_EQ(toBytes(h->readDataToEndOfFileAndReturnError()), slice(content, 1000, 2000));
        EXPECT_EQ(h->statusCode(), row.status);
        Ref<Error> error;
        EXPECT_FALSE(h->writeData(Data::withString("x"), &error));
        EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, EINVAL);
    }
    // HTTP reads ask for the bytes from the offset, and its end is the size.
    std::vector<std::string> ranges;
    for (const auto& r : server.requestsFor(HttpTestServer::RangesPath))
        if (r.method == "GET") ranges.push_back(r.header("Range"));
    EXPECT_EQ(ranges, (std::vector<std::string>{"bytes=100-109", "bytes=110-114", "bytes=2990-3089", "bytes=1000-"}));
    ASSERT_TRUE(rows[2].handle->seekToEndOfFileAndReturnError());
    EXPECT_EQ(rows[2].handle->offsetInFile(), 3000u);
}

// ---- Local data fork ----

TEST(RemoteFileHandleLocal, PlatformHandleFaultsBecomeCocoaErrors) {
    TempDir dir;
    const auto path = dir.file("a", "contents");
    auto h = Handle::initForReadingFromURL(fileURL(path));
    ASSERT_TRUE(h->closeFileAndReturnError());
    Ref<Error> error;
    EXPECT_FALSE(h->readDataOfLength(10, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 256);
    EXPECT_TRUE(error->userInfo()->objectForKey(NSURLErrorKey));
    EXPECT_NE(error->localizedDescription().find("readDataOfLength"), std::string::npos) << error->localizedDescription();
    EXPECT_FALSE(h->seekToFileOffset(0, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 256);
    auto d = Deliveries::of([&](auto handler) { h->readDataAtOffset(5, 10, 4096, handler); });  // the seek's error, once
    ASSERT_EQ(d->calls.size(), 1u);
    EXPECT_TRUE(d->calls[0].done);
    EXPECT_QX_ERROR(d->calls[0].error, NSCocoaErrorDomain, 256);

    auto w = Handle::initForWritingToURL(fileURL(path));
    ASSERT_TRUE(w->closeFileAndReturnError());
    EXPECT_FALSE(w->writeData(Data::withString("x"), &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 512);
}

TEST(RemoteFileHandleLocal, WriteWithCompletionWritesInTheBackground) {
    TempDir dir;
    const auto path = dir.file("a", std::string(20, '.'));
    auto write = [](const Ref<Handle>& h, const std::string& text) {
        std::promise<std::pair<Ref<Error>, std::thread::id>> result;
        h->writeDataCompletionHandler(Data::withString(text), [&](const Ref<Handle>&, const Ref<Error>& error) {
            result.set_value({error, std::this_thread::get_id()});
        });
        return result.get_future().get();
    };
    auto w = Handle::initForWritingToURL(fileURL(path));
    ASSERT_TRUE(w->seekToFileOffset(10));
    const auto [error, thread] = write(w, "HELLO");
    EXPECT_FALSE(error);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(qxtest::readFile(path), "..........HELLO.....");
    EXPECT_QX_ERROR(write(Handle::initForReadingFromURL(fileURL(path)), "x").first, NSPOSIXErrorDomain, EINVAL);
}

TEST(RemoteFileHandleLocal, ChunkedReadDeliversInOrderOffTheCallersThread) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(3 * MiB + 12345);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    auto d = Deliveries::of([&](auto handler) { h->readDataAtOffset(100, 2 * MiB, 256 * 1024, handler); });
    EXPECT_EQ(d->bytes, slice(content, 100, 2 * MiB));
    ASSERT_EQ(d->calls.size(), 8u);
    for (const auto& c : d->calls) EXPECT_TRUE(c.length == 256u * 1024 && !c.error && c.thread != std::this_thread::get_id());
    EXPECT_TRUE(d->doneCount() == 1 && d->calls.back().done);
    EXPECT_EQ(h->offsetInFile(), 100 + 2 * MiB);

    // To the end, in chunks of one buffer at most. Chunks the handler keeps
    // stay as they were delivered while later reads go on.
    const std::size_t restStart = 100 + 2 * MiB;
    std::vector<std::tuple<std::size_t, Ref<Data>>> kept;  // offset, chunk
    std::size_t seen = 0;
    auto rest = Deliveries::of([&](auto handler) { h->readDataToEndOfFileWithMaxBufferSize(64 * 1024, handler); },
                               [&](Handle&, std::size_t index, const Ref<Data>& chunk) {
                                   if (index % 2 == 0) kept.emplace_back(restStart + seen, chunk);
                                   seen += chunk->length();
                                   return true;
                               });
    EXPECT_EQ(rest->bytes, slice(content, restStart, content.size() - restStart));
    EXPECT_GT(kept.size(), 4u);
    for (const auto& [at, chunk] : kept) EXPECT_EQ(toBytes(chunk), slice(content, at, chunk->length())) << "chunk kept at " << at;
    for (const auto& c : rest->calls) EXPECT_LE(c.length, 64u * 1024);
}

TEST(RemoteFileHandleLocal, ChunkedReadEndsWithOneDoneCall) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(1000);
    const auto path = dir.file("a", content);
    struct Row { const char* what; std::uint64_t length, limit; std::size_t bytes; } rows[] = {
        {"a limit of 0: the first read takes nothing and is the end", 100, 0, 0},
        {"nothing asked for", 0, 4096, 0},
        {"the file ends before the length", 5000, 300, 1000},
        {"to the end", Handle::ToEndOfFile, 300, 1000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto h = Handle::initForReadingFromURL(fileURL(path));
        auto d = Deliveries::of([&](auto handler) { h->readDataOfLengthMaxBufferSize(row.length, row.limit, handler); });
        EXPECT_EQ(d->bytes, slice(content, 0, row.bytes));
        ASSERT_EQ(d->doneCount(), 1u);
        // The end of file is an empty chunk.
        EXPECT_TRUE(d->calls.back().done && d->calls.back().hadChunk && !d->calls.back().error && !d->calls.back().length);
    }
}

// A handle that cannot be read refuses both kinds of read, the chunked one in
// one done call; a failing read is one call with the error and without done.
TEST(RemoteFileHandle, ChunkedReadFailuresAreOneCall) {
    REQUIRE_FORK_DIR(dir);
    const auto path = dir->file("a", "contents");
    const std::tuple<Ref<Handle>, bool, int> rows[] = {
        {Handle::initForWritingToURL(fileURL(path)), true, EINVAL},
        {Handle::initForWritingToResourceForkAtURL(fileURL(path)), true, EINVAL},
        {wrap(::open(dir->path().c_str(), O_RDONLY)), false, EISDIR}};
    for (const auto& [handle, done, code] : rows) {
        SCOPED_TRACE(code);
        const Ref<Handle> h = handle;  // a lambda below captures it
        Ref<Error> error;
        EXPECT_TRUE(h->isReadable() || (!h->readDataOfLength(1, &error) && qxtest::isError(error, NSPOSIXErrorDomain, code)));
        auto d = Deliveries::of([&](auto handler) { h->readDataOfLengthMaxBufferSize(100, 10, handler); });
        ASSERT_EQ(d->calls.size(), 1u);
        EXPECT_TRUE(d->calls[0].done == done && !d->calls[0].hadChunk);
        EXPECT_QX_ERROR(d->calls[0].error, NSPOSIXErrorDomain, code);
    }
}

TEST(RemoteFileHandleLocal, StopEndsDeliveriesEvenOfChunksAlreadyRead) {
    TempDir dir;
    const auto content = HttpTestServer::patternBytes(16 * MiB);
    const auto path = dir.file("a", content);
    // A large limit lets the reader run ahead; small ones hold it at the
    // limit while the last accepted chunk is with the handler.
    for (const auto& row : {std::pair<std::uint64_t, std::size_t>{16 * MiB, 3}, {MiB, 1}, {2 * MiB, 2}}) {
        const auto limit = row.first;  // named copies: clang 14 cannot capture structured bindings
        const auto calls = row.second;
        SCOPED_TRACE(limit);
        auto h = Handle::initForReadingFromURL(fileURL(path));
        auto d = Deliveries::of([&](auto handler) { h->readDataToEndOfFileWithMaxBufferSize(limit, handler); },
                                [&](Handle&, std::size_t index, const Ref<Data>&) { return index + 1 < calls; });
        EXPECT_EQ(d->calls.size(), calls);
        EXPECT_EQ(d->bytes, slice(content, 0, calls * MiB));
        EXPECT_EQ(d->doneCount(), 0u);
        if (limit < 16 * MiB) { EXPECT_LE(h->offsetInFile(), (2 * calls + 1) * MiB) << "the reader went on after the stop"; }
    }
}

TEST(RemoteFileHandleLocal, ReadAheadStaysWithinTheLimit) {
    TempDir dir;
    constexpr std::uint64_t kLimit = 3 * MiB;
    const auto content = HttpTestServer::patternBytes(24 * MiB);
    auto h = Handle::initForReadingFromURL(fileURL(dir.file("a", content)));
    const int fd = h->systemFileHandle()->fileDescriptor();
    const auto readSoFar = [&] { return static_cast<std::uint64_t>(::lseek(fd, 0, SEEK_CUR)); };
    std::uint64_t delivered = 0, worst = 0;
    auto d = Deliveries::of([&](auto handler) { h->readDataToEndOfFileWithMaxBufferSize(kLimit, handler); },
                            [&](Handle&, std::size_t index, const Ref<Data>& chunk) {
                                if (index == 0) {
                                    // Hold the first delivery until the reader has used up its allowance.
                                    const auto deadline = std::chrono::steady_clock::now() + 30s;
                                    while (readSoFar() < kLimit && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
                                    EXPECT_GE(readSoFar(), kLimit) << "the reader did not run ahead";
                                }
                                worst = std::max(worst, readSoFar() - delivered);
                                delivered += chunk->length();
                                return true;
                            });
    EXPECT_EQ(d->bytes, content);
    EXPECT_LE(worst, kLimit + MiB);
}

TEST(RemoteFileHandleLocal, APipeIsReadFrontToBackKeepingItsLastBytes) {
    const auto content = HttpTestServer::patternBytes(300 * 1024 + 17);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto h = wrap(fds[0]);
    std::thread writer([fd = fds[1], &content] {
        for (std::size_t at = 0; at < content.size();) {
            const ssize_t n = ::write(fd, content.data() + at, std::min<std::size_t>(content.size() - at, 7000));
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        ::close(fd);
    });
    // Also when an assertion leaves early: the writer gives up once the reading end is closed.
    std::shared_ptr<void> joiner(nullptr, [&](void*) { h.reset(), writer.join(); });
    // Look at the first bytes, go back and read from the start, as a
    // decompressor that detects the format first does.
    EXPECT_EQ(toBytes(h->readDataOfLength(6)), slice(content, 0, 6));
    EXPECT_EQ(h->offsetInFile(), 6u);
    auto d = Deliveries::of([&](auto handler) { h->readDataAtOffset(0, 20000, 1024, handler); });
    EXPECT_EQ(d->bytes, slice(content, 0, 20000));
    // Forward by reading; back among the last bytes only.
    ASSERT_TRUE(h->seekToFileOffset(100000));
    EXPECT_EQ(toBytes(h->readDataOfLength(10)), slice(content, 100000, 10));
    ASSERT_TRUE(h->seekToFileOffset(100010 - 64 * 1024));
    EXPECT_EQ(toBytes(h->readDataOfLength(4)), slice(content, 100010 - 64 * 1024, 4));
    Ref<Error> error;
    EXPECT_FALSE(h->seekToFileOffset(100010 - 64 * 1024 - 1, &error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, ESPIPE);
    // Past the end there is no such position: the handle stops at the end.
    EXPECT_FALSE(h->seekToFileOffset(10 * MiB, &error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, ESPIPE);
    EXPECT_EQ(h->offsetInFile(), content.size());
    EXPECT_TRUE(toBytes(h->readDataToEndOfFileAndReturnError()).empty());
}

// ---- Resource fork ----

TEST(RemoteFileHandleFork, WritesSeeksAndLimits) {
    REQUIRE_FORK_DIR(dir);
    const auto path = dir->file("f", "data fork!");
    auto reader = Handle::initForReadingFromResourceForkAtURL(fileURL(path));
    ASSERT_TRUE(reader);
    std::uint64_t length = 99;
    ASSERT_TRUE(reader->getRsrcForkLength(&length));
    EXPECT_EQ(length, 0u);  // no fork yet
    EXPECT_FALSE(reader->isSeekable());
    EXPECT_TRUE(reader->isRsrcFork());

    auto writer = Handle::initForWritingToResourceForkAtURL(fileURL(path));
    ASSERT_TRUE(writer->writeData(Data::withString("resource fork")));
    EXPECT_EQ(writer->offsetInFile(), 13u);
    ASSERT_TRUE(writer->seekToFileOffset(9));
    ASSERT_TRUE(writer->writeData(Data::withString("FORK!")));  // overwrites and extends
    EXPECT_EQ(writer->offsetInFile(), 14u);
    char raw[64];
    const ssize_t n = ::getxattr(path.c_str(), kFork, raw, sizeof raw);
    EXPECT_EQ(std::string(raw, static_cast<std::size_t>(std::max<ssize_t>(n, 0))), "resource FORK!");

    // Positions run to the fork's length, not past it.
    Ref<Error> error;
    EXPECT_TRUE(reader->seekToFileOffset(14));
    EXPECT_FALSE(reader->seekToFileOffset(15, &error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, ERANGE);
    // seekToEnd moves the file's own position, not the fork's.
    ASSERT_TRUE(reader->seekToFileOffset(3));
    ASSERT_TRUE(reader->seekToEndOfFileAndReturnError());
    EXPECT_EQ(reader->offsetInFile(), 3u);
    EXPECT_EQ(reader->systemFileHandle()->offsetInFile(), 10u);

    // Larger than any attribute can be: a clean failure, the fork unchanged.
    EXPECT_FALSE(writer->writeData(qxtest::toData(Bytes(MiB, 7)), &error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, E2BIG);
    ASSERT_TRUE(reader->getRsrcForkLength(&length));
    EXPECT_EQ(length, 14u);
    // A data-fork handle has no fork length.
    EXPECT_FALSE(Handle::initForReadingFromURL(fileURL(path))->getRsrcForkLength(&length, &error));
    EXPECT_QX_ERROR(error, NSPOSIXErrorDomain, EINVAL);
}

TEST(RemoteFileHandleFork, ChunkedReadsRereadTheSameBytesAndAnswerAStop) {
    REQUIRE_FORK_DIR(dir);
    const auto path = dir->file("f", "");
    ASSERT_EQ(::setxattr(path.c_str(), kFork, "0123456789", 10, 0), 0);
    auto h = Handle::initForReadingFromResourceForkAtURL(fileURL(path));
    ASSERT_TRUE(h->seekToFileOffset(2));

    auto d = Deliveries::of([&](auto handler) { h->readDataOfLengthMaxBufferSize(8, 3, handler); });
    EXPECT_EQ(qxtest::toString(d->bytes), "23423423");
    ASSERT_EQ(d->calls.size(), 3u);
    EXPECT_TRUE(d->doneCount() == 1 && d->calls.back().done && d->calls[0].thread != std::this_thread::get_id());

    // To the end: bounded by what the fork holds past the offset.
    auto all = Deliveries::of([&](auto handler) { h->readDataToEndOfFileWithMaxBufferSize(MiB, handler); });
    EXPECT_EQ(qxtest::toString(all->bytes), "23456789");
    EXPECT_EQ(all->doneCount(), 1u);

    auto stopped = Deliveries::of([&](auto handler) { h->readDataOfLengthMaxBufferSize(8, 3, handler); },
                                  [](Handle&, std::size_t, const Ref<Data>&) { return false; });
    ASSERT_EQ(stopped->calls.size(), 2u);
    EXPECT_TRUE(!stopped->calls[0].done && stopped->calls[1].done);
    EXPECT_QX_ERROR(stopped->calls[1].error, NSCocoaErrorDomain, 3072);
}

// ---- HTTP ----

TEST(RemoteFileHandleHTTP, SizeComesFromTheHeadRequest) {
    HttpTestServer server(HttpTestServer::patternBytes(100000)), gone({});
    gone.stop();
    struct Row { std::string url; std::uint64_t size; bool seekable; std::int64_t status; } rows[] = {
        {server.url(HttpTestServer::RangesPath), 100000, true, 200},
        {server.url(HttpTestServer::RangesNonePath), 100000, false, 200},  // "Accept-Ranges: none"
        {server.url(HttpTestServer::ChunkedPath), 0, false, 200},          // no length announced
        // Nobody listening (and the scheme compared without case).
        {"HTTP://127.0.0.1:" + std::to_string(gone.port()) + "/x", 0, false, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        auto h = Handle::initForReadingFromURL(URL::URLWithString(row.url));
        ASSERT_TRUE(h && !h->systemFileHandle());
        // fileSize waits for the answer; asked at once it must not see the unset size.
        EXPECT_EQ(h->fileSize(), row.size);  // first: the others are known once it has returned
        EXPECT_EQ(std::make_pair(h->isSeekable(), h->statusCode()), std::make_pair(row.seekable, row.status));
    }
    ASSERT_EQ(server.requestsFor(HttpTestServer::RangesPath).size(), 1u);
    EXPECT_EQ(server.requestsFor(HttpTestServer::RangesPath)[0].method, "HEAD");
}

TEST(RemoteFileHandleHTTP, WhateverTheServerSendsIsDeliveredWithItsStatus) {
    const auto content = HttpTestServer::patternBytes(20000);
    HttpTestServer server(content);
    const auto text = [](const char* s) { return qxtest::toBytes(std::string(s)); };
    struct Row { const char* path; std::uint64_t offset, length; Bytes body; std::int64_t status; } rows[] = {
        {HttpTestServer::RangesPath, 10, 10, slice(content, 10, 10), 206},
        {HttpTestServer::RangesNonePath, 10, 10, content, 200},  // not seekable, still asked for a range
        {HttpTestServer::NotFoundPath, 0, Handle::ToEndOfFile, text("no such resource"), 404},
        {HttpTestServer::ChunkedPath, 0, Handle::ToEndOfFile, content, 200},
        {"/redirect/2", 500, 100, slice(content, 500, 100), 206},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        auto h = httpHandle(server, row.path);
        h->fileSize();  // the HEAD's status is in before the GET's
        auto d = Deliveries::of([&](auto handler) { h->readDataAtOffset(row.offset, row.length, Handle::ToEndOfFile, handler); });
        EXPECT_EQ(d->bytes, row.body);
        EXPECT_EQ(h->statusCode(), row.status);
    }
    EXPECT_EQ(server.requestsFor(HttpTestServer::RangesNonePath).back().header("Range"), "bytes=10-19");
}

TEST(RemoteFileHandleHTTP, ChunkedReadEndsWithExactlyOneDone) {
    const auto content = HttpTestServer::patternBytes(3 * MiB);
    HttpTestServer server(content, MiB);
    auto h = httpHandle(server, HttpTestServer::RangesPath);
    std::int64_t statusAtFirstChunk = 0;
    auto whole = Deliveries::of([&](auto handler) { h->readDataAtOffset(1000, Handle::ToEndOfFile, 4096, handler); },
                                [&](Handle& handle, std::size_t index, const Ref<Data>&) {
                                    if (index == 0) statusAtFirstChunk = handle.statusCode();
                                    return true;
                                });
    EXPECT_EQ(whole->bytes, slice(content, 1000, content.size() - 1000));
    EXPECT_EQ(whole->doneCount(), 1u);
    EXPECT_TRUE(whole->calls.back().done && whole->calls.back().hadChunk && whole->calls.back().length == 0);
    EXPECT_EQ(h->offsetInFile(), content.size());
    EXPECT_EQ(statusAtFirstChunk, 206);

    // Dropped mid-body: one final call with no chunk, done and the failure.
    auto cut = httpHandle(server, HttpTestServer::TruncatedPath);
    auto truncated = Deliveries::of([&](auto handler) { cut->readDataToEndOfFileWithMaxBufferSize(Handle::ToEndOfFile, handler); });
    EXPECT_EQ(truncated->bytes, slice(content, 0, MiB));
    EXPECT_TRUE(truncated->doneCount() == 1 && !truncated->calls.back().hadChunk);
    ASSERT_TRUE(truncated->calls.back().error);
    EXPECT_EQ(truncated->calls.back().error->domain(), NSURLErrorDomain);
    Ref<Error> error;
    EXPECT_FALSE(cut->readDataInRange(0, 10, &error));
    EXPECT_TRUE(error);
}

TEST(RemoteFileHandleHTTP, StopFromTheCallbackEndsTheTransfer) {
    HttpTestServer server(HttpTestServer::patternBytes(32 * MiB));
    auto h = httpHandle(server, HttpTestServer::RangesPath);
    auto d = Deliveries::of([&](auto handler) { h->readDataToEndOfFileWithMaxBufferSize(Handle::ToEndOfFile, handler); },
                            [](Handle&, std::size_t, const Ref<Data>&) { return false; });
    ASSERT_EQ(d->calls.size(), 2u);
    EXPECT_TRUE(d->calls[0].hadChunk && !d->calls[0].done);
    // The end is the cancellation, or the success of a body that had all
    // arrived before the stop was seen; either way one call, no more data.
    EXPECT_TRUE(d->calls[1].done && d->calls[1].length == 0);
    EXPECT_TRUE(!d->calls[1].error || qxtest::isError(d->calls[1].error, NSURLErrorDomain, NSURLErrorCancelled));
    EXPECT_EQ(h->offsetInFile(), d->calls[0].length);
}
