// StreamTests.cpp - stream statuses, reads and writes, and where events arrive.

#include "TestSupport.h"
#include "HttpTestServer.h"
#include "StreamTestSupport.h"

#include <qx/HTTPInputStream.h>
#include <qx/Number.h>
#include <qx/OutputStream.h>

using namespace qx;
using streamtest::EventRecorder;
using streamtest::kMode;
using streamtest::readInto;
using streamtest::runUntil;

namespace {

// A delegate that reads up to chunk bytes into bytes at every HasBytesAvailable.
std::shared_ptr<EventRecorder> reader(std::string& bytes, std::size_t chunk = 4) {
    auto r = std::make_shared<EventRecorder>();
    r->then = [&bytes, chunk](Stream& s, StreamEventMask e) {
        if (e == StreamEventHasBytesAvailable && chunk) readInto(static_cast<InputStream&>(s), bytes, chunk);
    };
    return r;
}

bool ended(const EventRecorder& r) { return r.all() & (StreamEventEndEncountered | StreamEventErrorOccurred); }

std::int64_t readAll(InputStream& s, std::string& out) {
    std::int64_t n;
    while ((n = readInto(s, out, 7)) > 0) {
    }
    return n;
}

const std::uint8_t* bytesOf(const char* s) { return reinterpret_cast<const std::uint8_t*>(s); }

} // namespace

TEST(Stream, EventsRaisedOnAnotherThreadWaitForTheLoopAndMerge) {
    auto stream = InputStream::inputStreamWithData(Data::withString("abc"));
    std::string bytes;
    auto r = reader(bytes, 0);  // looks, never reads
    stream->setDelegate(r);
    std::thread([&] {
        stream->open();  // raised here, before any loop is scheduled
        std::uint8_t buffer[3];
        EXPECT_EQ(stream->read(buffer, 3), 3);
    }).join();
    EXPECT_TRUE(r->events.empty());
    stream->scheduleInRunLoop(RunLoop::current(), RunLoop::CommonModes);
    ASSERT_TRUE(runUntil([&] { return ended(*r); }, RunLoop::DefaultMode));
    // One delivery, each bit once; "has bytes" dropped as the stream is at its end.
    EXPECT_EQ(r->events, (std::vector<StreamEventMask>{StreamEventOpenCompleted, StreamEventEndEncountered}));
}

TEST(Stream, FileAndMemoryStreamsReadWriteAndKeepTheirOffset) {
    qxtest::TempDir dir;
    const auto path = dir / "f";
    auto out = OutputStream::outputStreamToFileAtPath(path, false);
    EXPECT_EQ(out->write(bytesOf("abc"), 3), -1);  // not open
    out->open();
    EXPECT_TRUE(out->hasSpaceAvailable());
    EXPECT_EQ(out->write(bytesOf("0123456789"), 10), 10);
    EXPECT_EQ(dyn_cast<Number>(out->propertyForKey(Stream::FileCurrentOffsetKey))->uint64Value(), 10u);
    out->close();
    auto appending = OutputStream::outputStreamWithURL(URL::fileURLWithPath(path), true);
    appending->open();
    EXPECT_EQ(appending->write(bytesOf("AB"), 2), 2);
    appending->close();

    auto in = InputStream::inputStreamWithFileAtPath(path);
    EXPECT_TRUE(in->setProperty(Number::withUInt64(3), Stream::FileCurrentOffsetKey));  // applies at the open
    in->open();
    std::string text;
    EXPECT_EQ(readAll(*in, text), 0);
    EXPECT_EQ(text, "3456789AB");
    EXPECT_FALSE(in->setProperty(str("8"), Stream::FileCurrentOffsetKey));
    EXPECT_FALSE(in->propertyForKey("no such key"));

    auto memory = OutputStream::outputStreamToMemory();
    memory->open();
    memory->write(bytesOf("ab"), 2);
    memory->write(bytesOf("cd"), 2);
    auto data = dyn_cast<Data>(memory->propertyForKey(Stream::DataWrittenToMemoryStreamKey));
    ASSERT_TRUE(data);
    EXPECT_EQ(data->view(), "abcd");
}

TEST(HTTPInputStream, ReadsARangeThroughTheScheduledLoopAndReportsABrokenTransfer) {
    HttpTestServer server(HttpTestServer::patternBytes(300000), 100000);
    auto headers = Dictionary::create();
    headers->setObject(str("bytes=1000-200999"), "Range");
    auto stream = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")), headers);
    stream->setBufferLimit(16 * 1024);  // the transfer waits for the reader
    std::string bytes;
    auto r = reader(bytes, 5000);
    stream->setDelegate(r);
    stream->scheduleInRunLoop(RunLoop::current(), kMode);
    stream->open();
    ASSERT_TRUE(runUntil([&] { return ended(*r); }));
    EXPECT_EQ(r->events.back(), StreamEventEndEncountered);
    const auto& content = server.content();
    EXPECT_TRUE(bytes == std::string(content.begin() + 1000, content.begin() + 201000));
    auto response = dyn_cast<HTTPResponse>(stream->propertyForKey(HTTPInputStream::HTTPResponseHeaderKey));
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusCode(), 206);
    EXPECT_EQ(server.requestsFor("/ranges").at(0).header("Range"), "bytes=1000-200999");

    auto broken = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/truncated")), nullptr);
    broken->open();
    std::string text;
    EXPECT_EQ(readAll(*broken, text), -1);
    EXPECT_EQ(broken->streamStatus(), StreamStatus::Error);
    EXPECT_QX_ERROR(broken->streamError(), NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
    EXPECT_LE(text.size(), 100000u);

    // Closed midway, with the transfer held back by a full buffer: no hang.
    auto open = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")), nullptr);
    open->setBufferLimit(8192);
    open->open();
    std::uint8_t buffer[100];
    EXPECT_GT(open->read(buffer, sizeof buffer), 0);
    open->close();
    EXPECT_EQ(open->read(buffer, sizeof buffer), -1);
}
