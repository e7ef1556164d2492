// HttpTestServer.cpp - the test server on cpp-httplib.

#include "TestSupport.h"
#include "HttpTestServer.h"

#include <httplib.h>

#include <strings.h>

struct HttpTestServer::Impl {
    httplib::Server server;
    std::thread thread;
    int port = -1;
    std::vector<std::uint8_t> content;
    std::size_t truncateAfter = 0;

    mutable std::mutex mutex;
    std::condition_variable released;
    bool stopping = false;
    std::vector<Request> log;
    std::atomic<bool> listenReturned{false};

    // Writes content[from, from + length) to the sink in pieces of 1 MiB.
    bool send(std::size_t from, std::size_t length, httplib::DataSink& sink) const {
        while (length > 0) {
            const std::size_t n = std::min<std::size_t>(length, 1 << 20);
            if (!sink.write(reinterpret_cast<const char*>(content.data() + from), n)) return false;
            from += n, length -= n;
        }
        return true;
    }
};

std::string HttpTestServer::Request::header(const std::string& name) const {
    auto it = std::find_if(headers.begin(), headers.end(), [&](auto& h) { return !::strcasecmp(h.first.c_str(), name.c_str()); });
    return it == headers.end() ? "" : it->second;
}

std::vector<std::uint8_t> HttpTestServer::patternBytes(std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>((i * 7 + i / 251) % 251);
    return bytes;
}

HttpTestServer::HttpTestServer(std::vector<std::uint8_t> content, std::size_t truncateAfter) : impl_(std::make_unique<Impl>()) {
    Impl& s = *impl_;
    s.content = std::move(content);
    s.truncateAfter = truncateAfter ? std::min(truncateAfter, s.content.size()) : s.content.size() / 2;
    auto& server = s.server;
    server.set_keep_alive_timeout(1);

    server.set_pre_routing_handler([&s](const httplib::Request& req, httplib::Response&) {
        Request r{req.method, req.path, {}};
        for (const auto& [key, value] : req.headers) r.headers.emplace_back(key, value);
        std::lock_guard<std::mutex> lock(s.mutex);
        s.log.push_back(std::move(r));
        return httplib::Server::HandlerResponse::Unhandled;
    });

    auto whole = [&s](httplib::Response& res) {
        res.set_content_provider(s.content.size(), "application/octet-stream",
                                 [&s](std::size_t offset, std::size_t length, httplib::DataSink& sink) { return s.send(offset, length, sink); });
    };
    server.Get(RangesPath, [whole, &s](const httplib::Request& req, httplib::Response& res) {
        // A range running past the end ends at the last byte, as a server
        // must answer it; the library would read past the content instead.
        for (auto& range : const_cast<httplib::Request&>(req).ranges)
            if (range.second >= static_cast<ssize_t>(s.content.size())) range.second = static_cast<ssize_t>(s.content.size()) - 1;
        res.set_header("Accept-Ranges", "bytes");
        whole(res);  // the library answers a Range with 206 and the slice
    });
    for (const auto& [path, none] : {std::pair{NoRangesPath, false}, {RangesNonePath, true}}) {
        server.Get(path, [whole, none = none](const httplib::Request& req, httplib::Response& res) {
            // The library applies ranges after the handler; these resources must not, so they are dropped.
            const_cast<httplib::Request&>(req).ranges.clear();
            res.status = 200;
            if (none) res.set_header("Accept-Ranges", "none");
            whole(res);
        });
    }
    server.Get(ChunkedPath, [&s](const httplib::Request& req, httplib::Response& res) {
        const_cast<httplib::Request&>(req).ranges.clear();
        res.set_chunked_content_provider("application/octet-stream", [&s](std::size_t offset, httplib::DataSink& sink) {
            const std::size_t n = std::min<std::size_t>(64 * 1024, s.content.size() - offset);
            if (n > 0 && !sink.write(reinterpret_cast<const char*>(s.content.data() + offset), n)) return false;
            if (offset + n == s.content.size()) sink.done();
            return true;
        });
    });
    server.Get(TruncatedPath, [&s](const httplib::Request& req, httplib::Response& res) {
        const_cast<httplib::Request&>(req).ranges.clear();
        res.status = 200;
        res.set_content_provider(s.content.size(), "application/octet-stream",
                                 [&s](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                     if (offset >= s.truncateAfter) return false;  // drops the connection
                                     return s.send(offset, std::min(length, s.truncateAfter - offset), sink);
                                 });
    });
    server.Get(R"(/redirect(?:/(\d+))?)", [](const httplib::Request& req, httplib::Response& res) {
        const int hops = req.matches.size() > 1 && req.matches[1].matched ? std::stoi(req.matches[1].str()) : 1;
        res.set_redirect(hops > 1 ? std::string(RedirectPath) + "/" + std::to_string(hops - 1) : std::string(RangesPath));
    });
    for (const auto& [path, status, body] :
         {std::tuple{NotFoundPath, 404, "no such resource"}, {ServerErrorPath, 500, "server failure"}})
        server.Get(path, [status = status, body = body](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(body, "text/plain");
        });
    server.Get(HangPath, [&s](const httplib::Request&, httplib::Response& res) {
        std::unique_lock<std::mutex> lock(s.mutex);
        s.released.wait(lock, [&s] { return s.stopping; });
        res.status = 503;
    });

    s.port = server.bind_to_any_port("127.0.0.1");
    // The socket listens from here on; connections wait in the backlog until
    // the accept loop below takes them.
    s.thread = std::thread([&s] {
        s.server.listen_after_bind();
        s.listenReturned = true;
    });
}

HttpTestServer::~HttpTestServer() { stop(); }

void HttpTestServer::stop() {
    Impl& s = *impl_;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stopping = true;
    }
    s.released.notify_all();
    // The server library only stops a loop that has started; the start is a
    // few instructions away on the listening thread.
    while (s.thread.joinable() && !s.listenReturned && !s.server.is_running()) std::this_thread::yield();
    s.server.stop();
    if (s.thread.joinable()) s.thread.join();
}

int HttpTestServer::port() const { return impl_->port; }

std::string HttpTestServer::url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(impl_->port) + path; }

const std::vector<std::uint8_t>& HttpTestServer::content() const { return impl_->content; }

std::vector<HttpTestServer::Request> HttpTestServer::requests() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->log;
}

std::vector<HttpTestServer::Request> HttpTestServer::requestsFor(const std::string& path) const {
    std::vector<Request> out;
    for (auto& r : requests())
        if (r.path == path) out.push_back(std::move(r));
    return out;
}
