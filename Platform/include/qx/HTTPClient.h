// HTTPClient.h - asynchronous HTTP requests on libcurl, delivered on a queue.
//
// A client runs its transfers on one transfer thread of its own and tells a
// task's delegate what happens, always on the client's delegate queue (a
// serial queue, so a delegate sees one call at a time, in order): first the
// response (status, headers, expected length) of the final request after
// redirects, then the body as it arrives, in pieces, and then, exactly once,
// the completion with nothing or an error in NSURLErrorDomain. HTTP status
// codes are not errors: a 404's body is delivered like any other.
//
// Requests never use a cache: every request asks every cache on the way to
// reload ("Cache-Control: no-cache", "Pragma: no-cache") unless it sets those
// headers itself, and the client keeps none. Redirects are followed.
//
// Back-pressure: a delegate may block in its data call. The transfer keeps at
// most maximumBufferedBytes of a task's body waiting for the delegate and then
// pauses that transfer (others go on) until the delegate catches up.
//
// Cancelling (from any thread, also from within a delegate call) stops the
// transfer: no data is delivered after cancel() returns, and the completion
// reports NSURLErrorCancelled unless the task had completed already.
#pragma once

#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/SerialQueue.h>
#include <qx/URL.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qx {

// The URL-loading error codes the client reports (NSURLErrorDomain).
inline constexpr std::int64_t NSURLErrorUnknown = -1;
inline constexpr std::int64_t NSURLErrorCancelled = -999;
inline constexpr std::int64_t NSURLErrorBadURL = -1000;
inline constexpr std::int64_t NSURLErrorTimedOut = -1001;
inline constexpr std::int64_t NSURLErrorUnsupportedURL = -1002;
inline constexpr std::int64_t NSURLErrorCannotFindHost = -1003;
inline constexpr std::int64_t NSURLErrorCannotConnectToHost = -1004;
inline constexpr std::int64_t NSURLErrorNetworkConnectionLost = -1005;
inline constexpr std::int64_t NSURLErrorHTTPTooManyRedirects = -1007;
inline constexpr std::int64_t NSURLErrorBadServerResponse = -1011;
inline constexpr std::int64_t NSURLErrorZeroByteResource = -1014;
inline constexpr std::int64_t NSURLErrorSecureConnectionFailed = -1200;
inline constexpr std::int64_t NSURLErrorServerCertificateUntrusted = -1202;

/// What to ask for: a URL, a method (GET unless set), header fields, and how
/// long the transfer may go without progress before it times out.
class HTTPRequest final : public Object {
public:
    static Ref<HTTPRequest> requestWithURL(const Ref<URL>& url);

    const Ref<URL>& url() const { return url_; }
    const std::string& HTTPMethod() const { return method_; }
    /// "GET", "HEAD" (no body is read) or another method, sent as given.
    void setHTTPMethod(std::string method) { method_ = std::move(method); }
    /// Header fields in the order set; setting a field again replaces it
    /// (names compare without case); an empty value removes it.
    const std::vector<std::pair<std::string, std::string>>& allHTTPHeaderFields() const { return headers_; }
    void setValue(const std::string& value, const std::string& field);
    /// The value of a field, or nothing.
    Ref<String> valueForHTTPHeaderField(const std::string& field) const;
    /// Seconds without progress (or to connect) before NSURLErrorTimedOut; 60 by default.
    double timeoutInterval() const { return timeout_; }
    void setTimeoutInterval(double seconds) { timeout_ = seconds; }

    std::string className() const override { return "HTTPRequest"; }
    std::string description() const override;

    explicit HTTPRequest(Ref<URL> url) : url_(std::move(url)) {}

private:
    Ref<URL> url_;
    std::string method_ = "GET";
    std::vector<std::pair<std::string, std::string>> headers_;
    double timeout_ = 60;
};

/// The final response of a request (after any redirects).
class HTTPResponse final : public Object {
public:
    HTTPResponse(Ref<URL> url, int statusCode, std::int64_t expectedContentLength, Ref<Dictionary> headers)
        : url_(std::move(url)), statusCode_(statusCode), expectedContentLength_(expectedContentLength), headers_(std::move(headers)) {}

    /// Where the response came from (the last URL after redirects).
    const Ref<URL>& url() const { return url_; }
    int statusCode() const { return statusCode_; }
    /// The body's announced length, or -1 when the server did not say.
    std::int64_t expectedContentLength() const { return expectedContentLength_; }
    /// Every header field as received (name to value; repeated fields joined by ", ").
    const Ref<Dictionary>& allHeaderFields() const { return headers_; }
    /// A field's value by name, compared without case; nothing when absent.
    Ref<String> valueForHTTPHeaderField(const std::string& field) const;

    std::string className() const override { return "HTTPResponse"; }
    std::string description() const override;

private:
    Ref<URL> url_;
    int statusCode_;
    std::int64_t expectedContentLength_;
    Ref<Dictionary> headers_;
};

class HTTPTask;

/// Receives a task's events on the client's delegate queue.
class HTTPTaskDelegate {
public:
    virtual ~HTTPTaskDelegate() = default;
    /// Once, before any data (when the request got that far).
    virtual void didReceiveResponse(HTTPTask& task, const Ref<HTTPResponse>& response) {}
    /// A piece of the body (never empty).
    virtual void didReceiveData(HTTPTask& task, const Ref<Data>& data) {}
    /// Exactly once, last: nothing on success, else why it failed.
    virtual void didCompleteWithError(HTTPTask& task, const Ref<Error>& error) = 0;
};

class HTTPClient;
struct HTTPTaskCallbacks;

/// One request's transfer. Made suspended by the client; resume() starts it.
class HTTPTask final : public Object {
public:
    enum class State { Suspended, Running, Canceling, Completed };

    /// Starts the transfer (once; later calls do nothing).
    void resume();
    /// Stops the transfer; see the file comment. Callable from any thread.
    void cancel();

    State state() const;
    const Ref<HTTPRequest>& originalRequest() const { return request_; }
    /// The response once delivered, else nothing.
    Ref<HTTPResponse> response() const;
    /// Body bytes handed to the delegate so far.
    std::uint64_t countOfBytesReceived() const { return received_.load(); }
    /// The error the completion reported, once completed.
    Ref<Error> error() const;

    std::string className() const override { return "HTTPTask"; }

    struct Private;
    HTTPTask(Ref<HTTPRequest> request, Ref<HTTPTaskDelegate> delegate, Ref<SerialQueue> queue, std::uint64_t maxBuffered);
    ~HTTPTask() override;

private:
    friend class HTTPClient;
    friend struct HTTPTaskCallbacks;
    void deliverResponse(const Ref<HTTPResponse>& response);
    void deliverData(const Ref<Data>& data);
    void deliverCompletion(const Ref<Error>& error);

    const Ref<HTTPRequest> request_;
    const Ref<SerialQueue> queue_;
    std::unique_ptr<Private> p_;
    std::atomic<std::uint64_t> received_{0};
    mutable std::mutex mutex_;      // guards the fields below
    State state_ = State::Suspended;
    Ref<HTTPTaskDelegate> delegate_;  // held until the completion is delivered
    Ref<HTTPResponse> response_;
    Ref<Error> error_;
    bool completionDelivered_ = false;
};

class HTTPClient final : public Object {
public:
    using CompletionHandler = std::function<void(const Ref<Data>& body, const Ref<HTTPResponse>& response, const Ref<Error>& error)>;

    /// A client delivering on delegateQueue, or on a serial queue of its own
    /// when none is given.
    static Ref<HTTPClient> create(Ref<SerialQueue> delegateQueue = nullptr);
    /// Cancels every unfinished task (their completions still arrive) and
    /// waits for the transfer thread to end; never waits for the delegate
    /// queue, so it may be dropped from a delegate call.
    ~HTTPClient() override;

    /// A suspended task for request; the delegate is held until it completes.
    Ref<HTTPTask> dataTaskWithRequest(const Ref<HTTPRequest>& request, Ref<HTTPTaskDelegate> delegate);
    /// A suspended task that gathers the body and calls completion once, on
    /// the delegate queue (body and response nothing on failure).
    Ref<HTTPTask> dataTaskWithRequest(const Ref<HTTPRequest>& request, CompletionHandler completion);

    /// Cancels every unfinished task; tasks made afterwards fail at once.
    void invalidateAndCancel();

    const Ref<SerialQueue>& delegateQueue() const { return queue_; }
    /// Body bytes a task may have waiting for its delegate before its
    /// transfer pauses (16 MiB by default). Applies to tasks made afterwards.
    std::uint64_t maximumBufferedBytes() const { return maxBuffered_.load(); }
    void setMaximumBufferedBytes(std::uint64_t bytes) { maxBuffered_.store(bytes ? bytes : 1); }

    std::string className() const override { return "HTTPClient"; }

    explicit HTTPClient(Ref<SerialQueue> delegateQueue);

private:
    friend class HTTPTask;
    struct Engine;
    Ref<SerialQueue> queue_;
    std::shared_ptr<Engine> engine_;
    std::atomic<std::uint64_t> maxBuffered_{16u << 20};
};

} // namespace qx
