// HttpTestServer.h - an HTTP server on 127.0.0.1 inside the test process, on an ephemeral port, from
// construction until stop(). It serves one resource in the shapes clients must cope with (see the paths)
// and records every request with its header fields. Any other path is the server library's plain 404.
#pragma once

#include "TestSupport.h"

class HttpTestServer {
public:
    static constexpr const char* RangesPath = "/ranges";  // "Accept-Ranges: bytes", Range honoured (206)
    // Range ignored (200), no "Accept-Ranges" (though a HEAD gets the library's "bytes").
    static constexpr const char* NoRangesPath = "/no-ranges";
    static constexpr const char* RangesNonePath = "/ranges-none";      // "Accept-Ranges: none", Range ignored
    static constexpr const char* ChunkedPath = "/chunked";             // chunked, no length announced
    static constexpr const char* TruncatedPath = "/truncated";         // the whole length, then truncateAfter bytes
    static constexpr const char* RedirectPath = "/redirect";           // 302 to /ranges; /redirect/N: N hops
    static constexpr const char* NotFoundPath = "/missing";            // 404 "no such resource"
    static constexpr const char* ServerErrorPath = "/error";           // 500 "server failure"
    static constexpr const char* HangPath = "/hang";                   // held until stop()

    struct Request {
        std::string method, path;
        std::vector<std::pair<std::string, std::string>> headers;
        /// The value of a header field (name compared without case), or "".
        std::string header(const std::string& name) const;
    };

    /// content: the resource; truncateAfter: what /truncated sends (half when 0).
    explicit HttpTestServer(std::vector<std::uint8_t> content, std::size_t truncateAfter = 0);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    /// Bytes that no offset of themselves repeats within 251 bytes, so a misplaced range is caught.
    static std::vector<std::uint8_t> patternBytes(std::size_t length);

    int port() const;
    /// "http://127.0.0.1:<port><path>".
    std::string url(const std::string& path) const;
    const std::vector<std::uint8_t>& content() const;

    /// Every request received so far, in order of arrival; those for one path.
    std::vector<Request> requests() const;
    std::vector<Request> requestsFor(const std::string& path) const;

    /// Releases /hang requests and stops serving; idempotent.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
