// StreamTests.cpp - stream statuses, reads and writes, and where events arrive; the HTTP client
// under the HTTP stream, against the in-process test server.

#include "TestSupport.h"
#include "HttpTestServer.h"
#include "StreamTestSupport.h"

#include <qx/HTTPClient.h>
#include <qx/HTTPInputStream.h>
#include <qx/Number.h>
#include <qx/OutputStream.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace qx;
using namespace std::chrono_literals;
using streamtest::EventRecorder;
using streamtest::kMode;
using streamtest::readInto;
using streamtest::runUntil;

namespace {

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
    while ((n = readInto(s, out, 7)) > 0) {}
    return n;
}

const std::uint8_t* bytesOf(const char* s) { return reinterpret_cast<const std::uint8_t*>(s); }

struct Recorder final : HTTPTaskDelegate {
    std::mutex mutex;
    std::condition_variable completed;
    Ref<HTTPResponse> response;
    std::vector<std::uint8_t> body;
    int responses = 0, completions = 0, dataCalls = 0;
    bool dataBeforeResponse = false;
    Ref<Error> error;

    void didReceiveResponse(HTTPTask&, const Ref<HTTPResponse>& r) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++responses;
        response = r;
    }
    void didReceiveData(HTTPTask&, const Ref<Data>& data) override {
        std::lock_guard<std::mutex> lock(mutex);
        dataBeforeResponse |= !response;
        ++dataCalls;
        body.insert(body.end(), data->bytes(), data->bytes() + data->length());
    }
    void didCompleteWithError(HTTPTask&, const Ref<Error>& e) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++completions;
        error = e;
        completed.notify_all();
    }
    bool waitForCompletion() {
        std::unique_lock<std::mutex> lock(mutex);
        return completed.wait_for(lock, 60s, [&] { return completions > 0; });
    }
};

std::vector<std::uint8_t> slice(const std::vector<std::uint8_t>& v, std::size_t from, std::size_t length) {
    return {v.begin() + static_cast<std::ptrdiff_t>(from), v.begin() + static_cast<std::ptrdiff_t>(from + length)};
}

// Runs one request to its end; the client is dropped and its queue drained,
// so a second completion would have shown up in the recorder by then.
Ref<Recorder> fetch(const std::string& url, const std::string& method = "GET", const std::string& range = "") {
    auto recorder = std::make_shared<Recorder>();
    auto queue = SerialQueue::create("test.http");
    {
        auto client = HTTPClient::create(queue);
        auto request = HTTPRequest::requestWithURL(URL::URLWithString(url));
        request->setHTTPMethod(method);
        if (!range.empty()) request->setValue(range, "Range");
        client->dataTaskWithRequest(request, recorder)->resume();
        EXPECT_TRUE(recorder->waitForCompletion()) << url;
    }
    queue->drain();
    return recorder;
}

int refusedPort() {
    // Bound but never listening: connections to it are refused.
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    static int keep = fd;  // held open so no one else takes the port
    (void)keep;
    return ntohs(addr.sin_port);
}

class HTTPClientTest : public ::testing::Test {
protected:
    static constexpr std::size_t kLength = (1 << 20) + 17;
    HttpTestServer server{HttpTestServer::patternBytes(kLength), 300000};
    const std::vector<std::uint8_t>& content = server.content();
};

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

    auto broken = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/truncated")), nullptr);
    broken->open();
    std::string text;
    EXPECT_EQ(readAll(*broken, text), -1);
    EXPECT_EQ(broken->streamStatus(), StreamStatus::Error);
    EXPECT_QX_ERROR(broken->streamError(), NSURLErrorDomain, NSURLErrorNetworkConnectionLost);

    // Closed midway, with the transfer held back by a full buffer: no hang.
    auto open = HTTPInputStream::inputStreamWithURL(URL::URLWithString(server.url("/ranges")), nullptr);
    open->setBufferLimit(8192);
    open->open();
    std::uint8_t buffer[100];
    EXPECT_GT(open->read(buffer, sizeof buffer), 0);
    open->close();
    EXPECT_EQ(open->read(buffer, sizeof buffer), -1);
}

TEST_F(HTTPClientTest, DeliversTheFinalResponseThenItsBody) {
    struct Case { std::string method, path, range; int status; std::vector<std::uint8_t> body; std::int64_t expectedLength; bool acceptRanges; };
    const std::vector<Case> cases = {
        {"GET", "/ranges", "bytes=100-109", 206, slice(content, 100, 10), 10, true},
        {"GET", "/chunked", "", 200, content, -1, false},
        {"GET", "/redirect", "bytes=5-9", 206, slice(content, 5, 5), 5, true},
        {"HEAD", "/chunked", "", 200, {}, -1, true},  // the server offers ranges to HEAD alone
        // Error statuses are responses with their bodies, not failures.
        {"GET", "/missing", "", 404, qxtest::toBytes(std::string("no such resource")), 16, false},
        {"GET", "/error", "", 500, qxtest::toBytes(std::string("server failure")), 14, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + c.path + " " + c.range);
        auto r = fetch(server.url(c.path), c.method, c.range);
        EXPECT_EQ(r->completions, 1);
        EXPECT_EQ(r->responses, 1);
        EXPECT_FALSE(r->dataBeforeResponse);
        ASSERT_FALSE(r->error) << r->error->description();
        ASSERT_TRUE(r->response);
        EXPECT_EQ(r->response->statusCode(), c.status);
        EXPECT_EQ(r->response->expectedContentLength(), c.expectedLength);
        EXPECT_EQ(r->response->url()->path(), c.path.starts_with("/redirect") ? "/ranges" : c.path);
        auto acceptRanges = r->response->valueForHTTPHeaderField("accept-ranges");
        EXPECT_EQ(acceptRanges && acceptRanges->utf8() == "bytes", c.acceptRanges);
        EXPECT_TRUE(r->body == c.body);
        EXPECT_EQ(r->dataCalls == 0, c.body.empty());
    }
    // What the server was sent: the caller's Range on every hop, no caching.
    const auto sent = server.requestsFor("/ranges");
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent[0].header("Range"), "bytes=100-109");
    EXPECT_EQ(sent[0].header("Cache-Control"), "no-cache");
    EXPECT_EQ(sent[0].header("Pragma"), "no-cache");
    EXPECT_EQ(server.requestsFor("/redirect").at(0).header("Range"), "bytes=5-9");
}

TEST_F(HTTPClientTest, FailuresAreReportedOnceWithURLLoadingCodes) {
    for (const auto& [url, code] : std::vector<std::pair<std::string, std::int64_t>>{
             {server.url("/truncated"), NSURLErrorNetworkConnectionLost},
             {"http://127.0.0.1:" + std::to_string(refusedPort()) + "/x", NSURLErrorCannotConnectToHost},
             {"ftp://127.0.0.1/x", NSURLErrorUnsupportedURL}}) {
        SCOPED_TRACE(url);
        auto r = fetch(url);
        EXPECT_EQ(r->completions, 1);
        EXPECT_QX_ERROR(r->error, NSURLErrorDomain, code);
        ASSERT_TRUE(r->error);
        EXPECT_EQ(r->error->userInfo()->get<String>(NSURLErrorFailingURLStringErrorKey)->utf8(), url);
    }
}

TEST_F(HTTPClientTest, CancelFromAnotherThreadOrDroppingTheClientEndsARequestThatNeverAnswers) {
    auto cancelled = std::make_shared<Recorder>(), dropped = std::make_shared<Recorder>();
    auto queue = SerialQueue::create("test.drop");
    {
        auto client = HTTPClient::create(queue);
        auto hang = HTTPRequest::requestWithURL(URL::URLWithString(server.url("/hang")));
        auto task = client->dataTaskWithRequest(hang, cancelled);
        task->resume();
        client->dataTaskWithRequest(hang, dropped)->resume();
        std::thread([task] { task->cancel(); }).join();
        ASSERT_TRUE(cancelled->waitForCompletion());
        EXPECT_EQ(task->state(), HTTPTask::State::Completed);
    }
    ASSERT_TRUE(dropped->waitForCompletion());
    for (const auto& r : {cancelled, dropped}) EXPECT_QX_ERROR(r->error, NSURLErrorDomain, NSURLErrorCancelled);
}
