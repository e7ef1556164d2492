// HTTPClient.cpp - libcurl multi transfers on one thread per client.
#include <qx/HTTPClient.h>

#include <qx/Number.h>

#include "CurlHandles.h"

#include <algorithm>
#include <cmath>
#include <strings.h>
#include <thread>

namespace qx {

namespace {

// Large reads cut per-call overhead; loopback transfers are bound by it.
constexpr long kReceiveBufferSize = 512 * 1024;
constexpr long kMaxRedirects = 16;

void initCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool sameField(const std::string& a, const std::string& b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return std::string(s.substr(first, last - first + 1));
}

Ref<Error> urlError(std::int64_t code, const std::string& text, const Ref<URL>& url) {
    auto info = Dictionary::create();
    info->setObject(str(text), NSLocalizedDescriptionKey);
    if (url) {
        info->setObject(url, NSURLErrorFailingURLErrorKey);
        info->setObject(str(url->absoluteString()), NSURLErrorFailingURLStringErrorKey);
    }
    return Error::create(NSURLErrorDomain, code, info);
}

Ref<Error> cancelledError(const Ref<URL>& url) { return urlError(NSURLErrorCancelled, "cancelled", url); }

std::int64_t urlErrorCode(CURLcode rc) {
    switch (rc) {
    case CURLE_UNSUPPORTED_PROTOCOL: return NSURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT: return NSURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return NSURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT: return NSURLErrorTimedOut;
    case CURLE_TOO_MANY_REDIRECTS: return NSURLErrorHTTPTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING: return NSURLErrorBadServerResponse;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return NSURLErrorNetworkConnectionLost;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER: return NSURLErrorSecureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE: return NSURLErrorServerCertificateUntrusted;
    default: return NSURLErrorUnknown;
    }
}

} // namespace

// ---- HTTPRequest ----

Ref<HTTPRequest> HTTPRequest::requestWithURL(const Ref<URL>& url) { return url ? std::make_shared<HTTPRequest>(url) : nullptr; }

void HTTPRequest::setValue(const std::string& value, const std::string& field) {
    auto it = std::find_if(headers_.begin(), headers_.end(), [&](const auto& h) { return sameField(h.first, field); });
    if (value.empty()) {
        if (it != headers_.end()) headers_.erase(it);
    } else if (it != headers_.end()) {
        it->second = value;
    } else {
        headers_.emplace_back(field, value);
    }
}

Ref<String> HTTPRequest::valueForHTTPHeaderField(const std::string& field) const {
    for (const auto& [name, value] : headers_)
        if (sameField(name, field)) return str(value);
    return nullptr;
}

std::string HTTPRequest::description() const { return "<HTTPRequest " + method_ + " " + (url_ ? url_->absoluteString() : "") + ">"; }

// ---- HTTPResponse ----

Ref<String> HTTPResponse::valueForHTTPHeaderField(const std::string& field) const {
    for (const auto& entry : *headers_)
        if (auto name = dyn_cast<String>(entry.first); name && sameField(name->utf8(), field)) return dyn_cast<String>(entry.second);
    return nullptr;
}

std::string HTTPResponse::description() const {
    return "<HTTPResponse " + std::to_string(statusCode_) + " " + (url_ ? url_->absoluteString() : "") + ">";
}

// ---- the transfer engine ----

struct HTTPClient::Engine {
    std::mutex mutex;
    CurlMulti multi;                        // reset (under mutex) once the thread has ended
    bool quit = false;                      // guarded by mutex
    std::vector<Ref<HTTPTask>> incoming;    // guarded by mutex: resumed, not yet added
    std::vector<Ref<HTTPTask>> active;      // transfer thread only
    std::atomic<bool> attention{false};     // a task asks to be cancelled or resumed
    std::thread thread;

    void wake() {
        std::lock_guard<std::mutex> lock(mutex);
        if (multi) curl_multi_wakeup(multi.get());
    }
    void run();
    bool setUp(HTTPTask& task);
    void finish(const Ref<HTTPTask>& task, Ref<Error> error);
    void shutdown();
};

struct HTTPTask::Private {
    std::weak_ptr<HTTPClient::Engine> engine;
    std::uint64_t maxBuffered;
    std::atomic<bool> cancelRequested{false};
    std::atomic<bool> paused{false};            // the transfer waits for the delegate
    std::atomic<bool> unpauseRequested{false};
    std::atomic<std::uint64_t> outstanding{0};  // body bytes queued, not yet delivered

    // Transfer thread only. The list is declared first: it must outlive the handle that sends it.
    CurlSlist headerList;
    CurlEasy easy;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    std::vector<std::pair<std::string, std::string>> headers;  // of the latest response
    bool responseQueued = false;

    void releaseCurl() {
        easy.reset();
        headerList.reset();
    }
};

namespace {

Ref<HTTPResponse> makeResponse(CURL* easy, const std::vector<std::pair<std::string, std::string>>& headers, const Ref<URL>& fallback) {
    long code = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    char* effective = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
    Ref<URL> url = effective ? URL::URLWithString(effective) : nullptr;
    auto fields = Dictionary::create();
    for (const auto& [name, value] : headers) {
        if (auto previous = fields->get<String>(name))
            fields->setObject(str(previous->utf8() + ", " + value), name);
        else
            fields->setObject(str(value), name);
    }
    return std::make_shared<HTTPResponse>(url ? url : fallback, static_cast<int>(code), length < 0 ? -1 : static_cast<std::int64_t>(length), fields);
}

Ref<HTTPTask> taskRef(HTTPTask* task) { return std::static_pointer_cast<HTTPTask>(task->shared_from_this()); }

} // namespace

struct HTTPTaskCallbacks {
    static std::size_t onHeader(char* line, std::size_t size, std::size_t count, void* context) {
        auto* task = static_cast<HTTPTask*>(context);
        auto& p = *task->p_;
        const std::size_t length = size * count;
        const std::string_view text(line, length);
        if (text.starts_with("HTTP/")) {
            p.headers.clear();  // a new response (after a redirect or an interim 1xx)
        } else if (const auto colon = text.find(':'); colon != std::string_view::npos) {
            p.headers.emplace_back(trim(text.substr(0, colon)), trim(text.substr(colon + 1)));
        }
        return length;
    }

    static std::size_t onData(char* bytes, std::size_t size, std::size_t count, void* context) {
        auto* task = static_cast<HTTPTask*>(context);
        auto& p = *task->p_;
        const std::size_t length = size * count;
        if (p.cancelRequested.load()) return length == 0 ? 1 : 0;  // any other count aborts
        if (p.outstanding.load() >= p.maxBuffered) {
            // Announce the pause, then look again: a delegate that has just
            // emptied the backlog either shows here or sees the flag.
            p.paused.store(true);
            if (p.outstanding.load() >= p.maxBuffered) return CURL_WRITEFUNC_PAUSE;
            p.paused.store(false);
        }
        auto self = taskRef(task);
        if (!p.responseQueued) {
            p.responseQueued = true;
            auto response = makeResponse(p.easy.get(), p.headers, task->request_->url());
            task->queue_->async([self, response] { self->deliverResponse(response); });
        }
        if (length == 0) return 0;
        auto data = Data::withBytes(bytes, length);
        p.outstanding.fetch_add(length);
        task->queue_->async([self = std::move(self), data = std::move(data)] { self->deliverData(data); });
        return length;
    }
};

bool HTTPClient::Engine::setUp(HTTPTask& task) {
    auto& p = *task.p_;
    const auto& request = *task.request_;
    p.easy.reset(curl_easy_init());
    if (!p.easy) return false;
    CURL* e = p.easy.get();
    curl_easy_setopt(e, CURLOPT_URL, request.url()->absoluteString().c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &task);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, p.errorBuffer);
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &HTTPTaskCallbacks::onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &task);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &HTTPTaskCallbacks::onData);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &task);
    const double timeout = request.timeoutInterval();
    if (timeout > 0 && std::isfinite(timeout)) {
        const long seconds = std::max(1L, static_cast<long>(std::min(timeout, 1e6)));
        curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT, seconds);
        curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, seconds);
    }
    const std::string& method = request.HTTPMethod();
    if (method == "HEAD")
        curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    else if (method != "GET")
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
    bool hasCacheControl = false, hasPragma = false;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        hasCacheControl |= sameField(name, "Cache-Control");
        hasPragma |= sameField(name, "Pragma");
        if (!appendTo(p.headerList, (name + ": " + value).c_str())) return false;
    }
    if (!hasCacheControl && !appendTo(p.headerList, "Cache-Control: no-cache")) return false;
    if (!hasPragma && !appendTo(p.headerList, "Pragma: no-cache")) return false;
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, p.headerList.get());
    return curl_multi_add_handle(multi.get(), e) == CURLM_OK;
}

void HTTPClient::Engine::finish(const Ref<HTTPTask>& task, Ref<Error> error) {
    auto& p = *task->p_;
    if (p.easy) {
        curl_multi_remove_handle(multi.get(), p.easy.get());
        if (!error && !p.responseQueued) {
            // No body came (HEAD, empty bodies): the response goes out now.
            p.responseQueued = true;
            auto response = makeResponse(p.easy.get(), p.headers, task->request_->url());
            task->queue_->async([task, response] { task->deliverResponse(response); });
        }
    }
    p.releaseCurl();
    task->queue_->async([task, error = std::move(error)] { task->deliverCompletion(error); });
}

void HTTPClient::Engine::run() {
    for (;;) {
        std::vector<Ref<HTTPTask>> added;
        bool quitting;
        {
            std::lock_guard<std::mutex> lock(mutex);
            added.swap(incoming);
            quitting = quit;
        }
        for (auto& task : added) {
            const auto& url = task->request_->url();
            if (quitting || task->p_->cancelRequested.load()) {
                finish(task, cancelledError(url));
            } else if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
                finish(task, urlError(NSURLErrorUnsupportedURL, "unsupported URL", url));
            } else if (!setUp(*task)) {
                task->p_->releaseCurl();
                finish(task, urlError(NSURLErrorUnknown, "the transfer could not be set up", url));
            } else {
                active.push_back(std::move(task));
            }
        }
        if (attention.exchange(false) || quitting) {
            for (auto it = active.begin(); it != active.end();) {
                auto& p = *(*it)->p_;
                if (quitting || p.cancelRequested.load()) {
                    finish(*it, cancelledError((*it)->request_->url()));
                    it = active.erase(it);
                    continue;
                }
                if (p.unpauseRequested.exchange(false) && p.paused.exchange(false)) curl_easy_pause(p.easy.get(), CURLPAUSE_CONT);
                ++it;
            }
        }
        if (quitting) return;
        int running = 0;
        curl_multi_perform(multi.get(), &running);
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            auto it = std::find_if(active.begin(), active.end(), [&](const Ref<HTTPTask>& t) { return t->p_->easy.get() == message->easy_handle; });
            if (it == active.end()) continue;
            Ref<HTTPTask> task = std::move(*it);
            active.erase(it);
            const CURLcode rc = message->data.result;
            auto& p = *task->p_;
            Ref<Error> error;
            if (p.cancelRequested.load())
                error = cancelledError(task->request_->url());
            else if (rc != CURLE_OK)
                error = urlError(urlErrorCode(rc), p.errorBuffer[0] ? p.errorBuffer : curl_easy_strerror(rc), task->request_->url());
            finish(task, std::move(error));
        }
        curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr);
    }
}

void HTTPClient::Engine::shutdown() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        quit = true;
        if (multi) curl_multi_wakeup(multi.get());
    }
    if (thread.joinable()) thread.join();
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& task : incoming) task->queue_->async([task] { task->deliverCompletion(cancelledError(task->request_->url())); });
    incoming.clear();
    multi.reset();
}

// ---- HTTPClient ----

HTTPClient::HTTPClient(Ref<SerialQueue> delegateQueue)
    : queue_(delegateQueue ? std::move(delegateQueue) : SerialQueue::create("com.tovarik.qx.HTTPClient.delegate")),
      engine_(std::make_shared<Engine>()) {
    initCurlOnce();
    engine_->multi.reset(curl_multi_init());
    if (engine_->multi) engine_->thread = std::thread([engine = engine_.get()] { engine->run(); });
}

Ref<HTTPClient> HTTPClient::create(Ref<SerialQueue> delegateQueue) { return std::make_shared<HTTPClient>(std::move(delegateQueue)); }

HTTPClient::~HTTPClient() { engine_->shutdown(); }

void HTTPClient::invalidateAndCancel() {
    {
        std::lock_guard<std::mutex> lock(engine_->mutex);
        engine_->quit = true;
    }
    engine_->wake();
}

Ref<HTTPTask> HTTPClient::dataTaskWithRequest(const Ref<HTTPRequest>& request, Ref<HTTPTaskDelegate> delegate) {
    if (!request) return nullptr;
    auto task = std::make_shared<HTTPTask>(request, std::move(delegate), queue_, maxBuffered_.load());
    task->p_->engine = engine_;
    return task;
}

namespace {
class GatheringDelegate final : public HTTPTaskDelegate {
public:
    explicit GatheringDelegate(HTTPClient::CompletionHandler handler) : handler_(std::move(handler)) {}
    void didReceiveResponse(HTTPTask&, const Ref<HTTPResponse>& response) override { response_ = response; }
    void didReceiveData(HTTPTask&, const Ref<Data>& data) override { body_->append(*data); }
    void didCompleteWithError(HTTPTask&, const Ref<Error>& error) override {
        if (!handler_) return;
        if (error)
            handler_(nullptr, nullptr, error);
        else
            handler_(body_, response_, nullptr);
        handler_ = nullptr;
    }

private:
    HTTPClient::CompletionHandler handler_;
    Ref<HTTPResponse> response_;
    Ref<Data> body_ = Data::create();
};
} // namespace

Ref<HTTPTask> HTTPClient::dataTaskWithRequest(const Ref<HTTPRequest>& request, CompletionHandler completion) {
    return dataTaskWithRequest(request, std::make_shared<GatheringDelegate>(std::move(completion)));
}

// ---- HTTPTask ----

HTTPTask::HTTPTask(Ref<HTTPRequest> request, Ref<HTTPTaskDelegate> delegate, Ref<SerialQueue> queue, std::uint64_t maxBuffered)
    : request_(std::move(request)), queue_(std::move(queue)), p_(std::make_unique<Private>()), delegate_(std::move(delegate)) {
    p_->maxBuffered = maxBuffered;
}

HTTPTask::~HTTPTask() { p_->releaseCurl(); }

void HTTPTask::resume() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::Suspended) return;
        state_ = State::Running;
    }
    auto self = std::static_pointer_cast<HTTPTask>(shared_from_this());
    if (auto engine = p_->engine.lock()) {
        std::lock_guard<std::mutex> lock(engine->mutex);
        if (engine->multi && !engine->quit) {
            engine->incoming.push_back(self);
            curl_multi_wakeup(engine->multi.get());
            return;
        }
    }
    // The client is gone or invalidated.
    queue_->async([self] { self->deliverCompletion(cancelledError(self->request_->url())); });
}

void HTTPTask::cancel() {
    p_->cancelRequested.store(true);
    bool wasSuspended;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == State::Completed || state_ == State::Canceling) return;
        wasSuspended = state_ == State::Suspended;
        state_ = State::Canceling;
    }
    if (wasSuspended) {
        auto self = std::static_pointer_cast<HTTPTask>(shared_from_this());
        queue_->async([self] { self->deliverCompletion(cancelledError(self->request_->url())); });
        return;
    }
    if (auto engine = p_->engine.lock()) {
        engine->attention.store(true);
        engine->wake();
    }
}

HTTPTask::State HTTPTask::state() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

Ref<HTTPResponse> HTTPTask::response() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return response_;
}

Ref<Error> HTTPTask::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

void HTTPTask::deliverResponse(const Ref<HTTPResponse>& response) {
    Ref<HTTPTaskDelegate> delegate;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (completionDelivered_ || p_->cancelRequested.load()) return;
        response_ = response;
        delegate = delegate_;
    }
    if (delegate) delegate->didReceiveResponse(*this, response);
}

void HTTPTask::deliverData(const Ref<Data>& data) {
    Ref<HTTPTaskDelegate> delegate;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!completionDelivered_ && !p_->cancelRequested.load()) delegate = delegate_;
    }
    if (delegate) {
        received_.fetch_add(data->length());
        delegate->didReceiveData(*this, data);
    }
    p_->outstanding.fetch_sub(data->length());
    if (p_->paused.load()) {
        p_->unpauseRequested.store(true);
        if (auto engine = p_->engine.lock()) {
            engine->attention.store(true);
            engine->wake();
        }
    }
}

void HTTPTask::deliverCompletion(const Ref<Error>& error) {
    Ref<HTTPTaskDelegate> delegate;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (completionDelivered_) return;
        completionDelivered_ = true;
        state_ = State::Completed;
        error_ = error;
        delegate = std::move(delegate_);
        delegate_ = nullptr;
    }
    if (delegate) delegate->didCompleteWithError(*this, error);
}

} // namespace qx
