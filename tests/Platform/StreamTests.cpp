// StreamTests.cpp - stream statuses, reads and writes, and where events arrive.
#include "HttpTestServer.h"

#include <qx/HTTPInputStream.h>
#include <qx/InputStream.h>
#include <qx/Number.h>
#include <qx/OutputStream.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

using namespace qx;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr const char* kModeA = "com.tovarik.test.A";
constexpr const char* kModeB = "com.tovarik.test.B";

// Reads up to chunk bytes on every HasBytesAvailable and records each event
// with the thread it arrived on.
struct Reader final : StreamDelegate {
    std::size_t chunk = 4;
    std::vector<StreamEventMask> events;
    std::vector<std::thread::id> threads;
    std::string bytes;
    void stream(Stream& s, StreamEventMask event) override {
        events.push_back(event);
        threads.push_back(std::this_thread::get_id());
        if (event == StreamEventHasBytesAvailable) {
            std::string buffer(chunk, '\0');
            const auto n = static_cast<InputStream&>(s).read(reinterpret_cast<std::uint8_t*>(buffer.data()), chunk);
            if (n > 0) bytes.append(buffer.data(), static_cast<std::size_t>(n));
        }
    }
    bool ended() const { return !events.empty() && (events.back() == StreamEventEndEncountered || events.back() == StreamEventErrorOccurred); }
};

// Runs the current loop in mode until the reader has seen the end or an error.
void runUntilEnded(Reader& reader, const std::string& mode) {
    const auto giveUp = RunLoop::Clock::now() + 60s;
    while (!reader.ended() && RunLoop::Clock::now() < giveUp) RunLoop::current()->runMode(mode, 5s);
    ASSERT_TRUE(reader.ended());
}

struct TempDir {
    fs::path path;
    TempDir() {
        char pattern[] = "/tmp/qx-stream-XXXXXX";
        path = ::mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(path); }
};

std::int64_t readAll(InputStream& s, std::string& out) {
    std::uint8_t buffer[7];
    std::int64_t n;
    while ((n = s.read(buffer, sizeof buffer)) > 0) out.append(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(n));
    return n;
}

} // namespace

TEST(Stream, EventsArriveOnlyOnTheScheduledLoopInItsMode) {
    auto stream = InputStream::inputStreamWithData(Data::withString("0123456789"));
    auto reader = std::make_shared<Reader>();
    stream->setDelegate(reader);
    stream->scheduleInRunLoop(RunLoop::current(), kModeA);
    stream->open();
    // Another mode runs nothing of the stream's.
    // (A wake-up left over from an earlier test may end the pass early; either
    // way nothing of the stream's may be handled in this mode.)
    EXPECT_NE(RunLoop::current()->runMode(kModeB, RunLoop::Clock::now()), RunLoop::RunResult::Handled);
    EXPECT_TRUE(reader->events.empty());
    runUntilEnded(*reader, kModeA);
    EXPECT_EQ(reader->bytes, "0123456789");
    const std::vector<StreamEventMask> expected = {StreamEventOpenCompleted, StreamEventHasBytesAvailable, StreamEventHasBytesAvailable,
                                                   StreamEventHasBytesAvailable, StreamEventEndEncountered};
    EXPECT_EQ(reader->events, expected);
    for (auto id : reader->threads) EXPECT_EQ(id, std::this_thread::get_id());
    EXPECT_EQ(stream->streamStatus(), StreamStatus::AtEnd);
    std::uint8_t byte;
    EXPECT_EQ(stream->read(&byte, 1), 0);
    stream->close();
    EXPECT_EQ(stream->read(&byte, 1), -1);
}

TEST(Stream, EventsRaisedOnAnotherThreadWaitForTheLoopAndMerge) {
    auto stream = InputStream::inputStreamWithData(Data::withString("abc"));
    auto reader = std::make_shared<Reader>();
    reader->chunk = 0;  // looks, never reads
    stream->setDelegate(reader);
    std::thread([&] {
        stream->open();  // raised here, before any loop is scheduled
        std::uint8_t buffer[3];
        EXPECT_EQ(stream->read(buffer, 3), 3);
    }).join();
    EXPECT_TRUE(reader->events.empty());
    stream->scheduleInRunLoop(RunLoop::current(), RunLoop::CommonModes);
    runUntilEnded(*reader, RunLoop::DefaultMode);
    // One delivery, each bit once; "has bytes" dropped as the stream is at its end.
    EXPECT_EQ(reader->events, (std::vector<StreamEventMask>{StreamEventOpenCompleted, StreamEventEndEncountered}));
}

TEST(Stream, ARemovedOrVanishedDelegateGetsNothing) {
    auto stream = InputStream::inputStreamWithData(Data::withString("abc"));
    auto reader = std::make_shared<Reader>();
    stream->setDelegate(reader);
    stream->scheduleInRunLoop(RunLoop::current(), kModeA);
    stream->open();
    stream->removeFromRunLoop(RunLoop::current(), kModeA);
    EXPECT_EQ(RunLoop::current()->runMode(kModeA, RunLoop::Clock::now()), RunLoop::RunResult::Handled);
    EXPECT_TRUE(reader->events.empty());
    reader.reset();
    EXPECT_FALSE(stream->delegate());
    stream->scheduleInRunLoop(RunLoop::current(), kModeA);
    RunLoop::current()->runMode(kModeA, RunLoop::Clock::now());  // delivers to no one, safely
}

TEST(Stream, MemoryStreamsOfferTheirBufferAndStatusesFollowTheRules) {
    auto stream = InputStream::inputStreamWithData(Data::withString("hello"));
    std::uint8_t buffer[8];
    EXPECT_EQ(stream->read(buffer, 8), -1);  // not open
    EXPECT_FALSE(stream->hasBytesAvailable());
    stream->open();
    const std::uint8_t* bytes = nullptr;
    std::uint64_t length = 0;
    ASSERT_TRUE(stream->getBuffer(&bytes, &length));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), length), "hello");
    EXPECT_EQ(stream->read(buffer, 2), 2);
    ASSERT_TRUE(stream->getBuffer(&bytes, &length));
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(stream->read(buffer, 8), 3);
    EXPECT_EQ(stream->streamStatus(), StreamStatus::AtEnd);

    auto empty = InputStream::inputStreamWithData(Data::create());
    empty->open();
    EXPECT_EQ(empty->streamStatus(), StreamStatus::AtEnd);
    EXPECT_EQ(empty->read(buffer, 1), 0);
}

TEST(Stream, FileStreamsReadWriteAndKeepTheirOffset) {
    TempDir dir;
    const auto path = (dir.path / "f").string();
    auto out = OutputStream::outputStreamToFileAtPath(path, false);
    EXPECT_EQ(out->write(reinterpret_cast<const std::uint8_t*>("abc"), 3), -1);  // not open
    out->open();
    EXPECT_TRUE(out->hasSpaceAvailable());
    EXPECT_EQ(out->write(reinterpret_cast<const std::uint8_t*>("0123456789"), 10), 10);
    EXPECT_EQ(dyn_cast<Number>(out->propertyForKey(Stream::FileCurrentOffsetKey))->uint64Value(), 10u);
    out->close();
    auto appending = OutputStream::outputStreamWithURL(URL::fileURLWithPath(path), true);
    appending->open();
    EXPECT_EQ(appending->write(reinterpret_cast<const std::uint8_t*>("AB"), 2), 2);
    appending->close();

    auto in = InputStream::inputStreamWithFileAtPath(path);
    EXPECT_TRUE(in->setProperty(Number::withUInt64(3), Stream::FileCurrentOffsetKey));  // applies at the open
    in->open();
    std::string text;
    EXPECT_EQ(readAll(*in, text), 0);
    EXPECT_EQ(text, "3456789AB");
    EXPECT_EQ(in->streamStatus(), StreamStatus::AtEnd);
    EXPECT_TRUE(in->setProperty(Number::withUInt64(8), Stream::FileCurrentOffsetKey));  // back from the end
    text.clear();
    readAll(*in, text);
    EXPECT_EQ(text, "89AB");
    EXPECT_FALSE(in->setProperty(str("8"), Stream::FileCurrentOffsetKey));
    EXPECT_FALSE(in->propertyForKey("no such key"));
}

TEST(Stream, AFileThatCannotBeOpenedPutsTheStreamInError) {
    auto reader = std::make_shared<Reader>();
    auto in = InputStream::inputStreamWithURL(URL::fileURLWithPath("/nonexistent/qx/file"));
    in->setDelegate(reader);
    in->scheduleInRunLoop(RunLoop::current(), kModeA);
    in->open();
    EXPECT_EQ(in->streamStatus(), StreamStatus::Error);
    ASSERT_TRUE(in->streamError());
    EXPECT_EQ(in->streamError()->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(in->streamError()->code(), ENOENT);
    std::uint8_t byte;
    EXPECT_EQ(in->read(&byte, 1), -1);
    runUntilEnded(*reader, kModeA);
    EXPECT_EQ(reader->events.back(), StreamEventErrorOccurred);
}

TEST(Stream, MemoryOutputCollectsWhatIsWritten) {
    auto out = OutputStream::outputStreamToMemory();
    out->open();
    out->write(reinterpret_cast<const std::uint8_t*>("ab"), 2);
    out->write(reinterpret_cast<const std::uint8_t*>("cd"), 2);
    auto data = dyn_cast<Data>(out->propertyForKey(Stream::DataWrittenToMemoryStreamKey));
    ASSERT_TRUE(data);
    EXPECT_EQ(data->view(), "abcd");
}

TEST(HTTPInputStream, ReadsARangeThroughTheScheduledLoop) {
    HttpTestServer server(HttpTestServer::patternBytes(300000));
    auto headers = Dictionary::create();
    headers->setObject(str("bytes=1000-200999"), "Range");
    auto stream = InputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")));
    ASSERT_TRUE(stream);
    stream = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")), headers);
    static_cast<HTTPInputStream&>(*stream).setBufferLimit(16 * 1024);  // the transfer waits for the reader
    auto reader = std::make_shared<Reader>();
    reader->chunk = 5000;
    stream->setDelegate(reader);
    stream->scheduleInRunLoop(RunLoop::current(), kModeA);
    stream->open();
    runUntilEnded(*reader, kModeA);
    EXPECT_EQ(reader->events.back(), StreamEventEndEncountered);
    const auto& content = server.content();
    EXPECT_TRUE(reader->bytes == std::string(content.begin() + 1000, content.begin() + 201000));
    auto response = dyn_cast<HTTPResponse>(stream->propertyForKey(HTTPInputStream::HTTPResponseHeaderKey));
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusCode(), 206);
    EXPECT_EQ(server.requestsFor("/ranges").at(0).header("Range"), "bytes=1000-200999");
}

TEST(HTTPInputStream, ABrokenTransferIsAnErrorAndClosingMidwayDoesNotHang) {
    HttpTestServer server(HttpTestServer::patternBytes(4 << 20), 100000);
    auto broken = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/truncated")), nullptr);
    broken->open();
    std::string text;
    EXPECT_EQ(readAll(*broken, text), -1);
    EXPECT_EQ(broken->streamStatus(), StreamStatus::Error);
    EXPECT_EQ(broken->streamError()->code(), -1005);
    EXPECT_LE(text.size(), 100000u);

    auto open = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")), nullptr);
    open->setBufferLimit(8192);
    open->open();
    std::uint8_t buffer[100];
    EXPECT_GT(open->read(buffer, sizeof buffer), 0);
    open->close();
    EXPECT_EQ(open->read(buffer, sizeof buffer), -1);
}
