// HTTPClientTests.cpp - the HTTP client against the in-process test server.
#include "HttpTestServer.h"
#include "TestSupport.h"

#include <qx/HTTPClient.h>

#include <arpa/inet.h>
#include <condition_variable>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

using namespace qx;
using namespace std::chrono_literals;

namespace {

// Records what a task's delegate is told; cancelAfter > 0 cancels the task
// from within the data call that brings the body to that many bytes or more.
struct Recorder final : HTTPTaskDelegate {
    std::mutex mutex;
    std::condition_variable completed;
    Ref<HTTPResponse> response;
    std::vector<std::uint8_t> body;
    int responses = 0, completions = 0, dataCalls = 0;
    bool dataBeforeResponse = false;
    Ref<Error> error;
    std::size_t cancelAfter = 0;
    std::function<void()> onFirstData;

    void didReceiveResponse(HTTPTask&, const Ref<HTTPResponse>& r) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++responses;
        response = r;
    }
    void didReceiveData(HTTPTask& task, const Ref<Data>& data) override {
        std::function<void()> first;
        {
            std::lock_guard<std::mutex> lock(mutex);
            dataBeforeResponse |= !response;
            if (dataCalls++ == 0) first = onFirstData;
            body.insert(body.end(), data->bytes(), data->bytes() + data->length());
            if (cancelAfter && body.size() >= cancelAfter) task.cancel();
        }
        if (first) first();
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
Ref<Recorder> fetch(const std::string& url, const std::string& method = "GET", const std::string& range = "",
                    std::uint64_t maxBuffered = 0, std::function<void(Recorder&)> setUp = nullptr) {
    auto recorder = std::make_shared<Recorder>();
    if (setUp) setUp(*recorder);
    auto queue = SerialQueue::create("test.http");
    {
        auto client = HTTPClient::create(queue);
        if (maxBuffered) client->setMaximumBufferedBytes(maxBuffered);
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

TEST_F(HTTPClientTest, DeliversTheFinalResponseThenItsBody) {
    struct Case {
        std::string method, path, range;
        int status;
        std::vector<std::uint8_t> body;
        std::int64_t expectedLength;
        bool acceptRanges;
    };
    const auto all = static_cast<std::int64_t>(kLength);
    const std::vector<Case> cases = {
        {"GET", "/ranges", "bytes=100-109", 206, slice(content, 100, 10), 10, true},
        {"GET", "/ranges", "bytes=1000-", 206, slice(content, 1000, kLength - 1000), all - 1000, true},
        {"GET", "/ranges", "", 200, content, all, true},
        {"GET", "/no-ranges", "bytes=100-109", 200, content, all, false},
        {"GET", "/chunked", "", 200, content, -1, false},
        {"GET", "/redirect", "bytes=5-9", 206, slice(content, 5, 5), 5, true},
        {"GET", "/redirect/3", "", 200, content, all, true},
        {"HEAD", "/ranges", "", 200, {}, all, true},
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
    // What the server was sent: the method, the caller's Range on every hop, no caching.
    const auto sent = server.requestsFor("/ranges");
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent[0].header("Range"), "bytes=100-109");
    EXPECT_EQ(sent[0].header("Cache-Control"), "no-cache");
    EXPECT_EQ(sent[0].header("Pragma"), "no-cache");
    EXPECT_EQ(sent.back().method, "HEAD");
    EXPECT_EQ(server.requestsFor("/redirect").at(0).header("Range"), "bytes=5-9");
}

TEST_F(HTTPClientTest, FailuresAreReportedOnceWithURLLoadingCodes) {
    struct Case {
        std::string url;
        std::int64_t code;
    };
    const std::vector<Case> cases = {
        {server.url("/truncated"), NSURLErrorNetworkConnectionLost},
        {"http://127.0.0.1:" + std::to_string(refusedPort()) + "/x", NSURLErrorCannotConnectToHost},
        {"ftp://127.0.0.1/x", NSURLErrorUnsupportedURL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto r = fetch(c.url);
        EXPECT_EQ(r->completions, 1);
        EXPECT_QX_ERROR(r->error, NSURLErrorDomain, c.code);
        ASSERT_TRUE(r->error);
        EXPECT_EQ(r->error->userInfo()->get<String>(NSURLErrorFailingURLStringErrorKey)->utf8(), c.url);
    }
    // The truncated body arrived as far as it went, and was right so far.
    auto r = fetch(server.url("/truncated"));
    EXPECT_LE(r->body.size(), 300000u);
    EXPECT_TRUE(r->body == slice(content, 0, r->body.size()));
}

TEST_F(HTTPClientTest, CancelFromTheDataCallbackStopsDeliveryAndCompletesAsCancelled) {
    // A small backlog keeps the transfer from finishing before the cancel.
    auto r = fetch(server.url("/ranges"), "GET", "", 64 * 1024, [](Recorder& rec) { rec.cancelAfter = 1; });
    EXPECT_EQ(r->completions, 1);
    EXPECT_QX_ERROR(r->error, NSURLErrorDomain, NSURLErrorCancelled);
    EXPECT_EQ(r->dataCalls, 1);  // nothing after the call that cancelled
    EXPECT_LT(r->body.size(), kLength);
}

TEST_F(HTTPClientTest, ADelegateThatBlocksPausesOnlyItsOwnTransfer) {
    // The first task's delegate holds its queue until a second client's
    // request has completed; with a 16 KiB backlog the first transfer pauses
    // and resumes many times, and its body must still come out whole.
    std::promise<void> otherDone;
    auto otherFuture = otherDone.get_future().share();
    auto blocked = fetch(server.url("/chunked"), "GET", "", 16 * 1024, [&](Recorder& rec) {
        rec.onFirstData = [&, otherFuture] {
            auto other = fetch(server.url("/ranges"), "GET", "bytes=0-99");
            EXPECT_TRUE(other->body == slice(content, 0, 100));
            otherDone.set_value();
            otherFuture.wait();
        };
    });
    EXPECT_FALSE(blocked->error);
    EXPECT_TRUE(blocked->body == content);
}

TEST_F(HTTPClientTest, CompletionHandlerGathersTheBody) {
    auto client = HTTPClient::create();
    std::promise<std::tuple<Ref<Data>, Ref<HTTPResponse>, Ref<Error>>> result;
    auto request = HTTPRequest::requestWithURL(URL::URLWithString(server.url("/ranges")));
    request->setValue("bytes=10-19", "Range");
    client->dataTaskWithRequest(request, [&](const Ref<Data>& body, const Ref<HTTPResponse>& response, const Ref<Error>& error) {
        result.set_value({body, response, error});
    })->resume();
    auto [body, response, error] = result.get_future().get();
    ASSERT_FALSE(error);
    EXPECT_EQ(response->statusCode(), 206);
    EXPECT_TRUE(body->vector() == slice(content, 10, 10));
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
