// HttpTestServer.h - an HTTP server on 127.0.0.1 inside the test process.
//
// Serves one resource (bytes the test chooses) in the shapes HTTP clients
// must cope with, on an ephemeral port, from construction until stop() or
// destruction. Every request is recorded with its header fields, so tests can
// check what a client sent (a "Range" value, say).
//
//   /ranges      the resource, "Accept-Ranges: bytes", Range honoured (206)
//   /no-ranges   the resource, no "Accept-Ranges", Range ignored (always 200)
//   /ranges-none the resource, "Accept-Ranges: none", Range ignored (200);
//                (/no-ranges still answers a HEAD with the server library's
//                own "Accept-Ranges: bytes")
//   /chunked     the resource in chunks, no length announced
//   /truncated   announces the whole length, sends truncateAfter bytes, then
//                drops the connection
//   /redirect    302 to /ranges (/redirect/N: N hops, then /ranges)
//   /missing     404 with the body "no such resource"
//   /error       500 with the body "server failure"
//   /hang        never answers; held until stop()
//
// Any other path is a plain 404 from the server library.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class HttpTestServer {
public:
    static constexpr const char* RangesPath = "/ranges";
    static constexpr const char* NoRangesPath = "/no-ranges";
    static constexpr const char* RangesNonePath = "/ranges-none";
    static constexpr const char* ChunkedPath = "/chunked";
    static constexpr const char* TruncatedPath = "/truncated";
    static constexpr const char* RedirectPath = "/redirect";
    static constexpr const char* NotFoundPath = "/missing";
    static constexpr const char* ServerErrorPath = "/error";
    static constexpr const char* HangPath = "/hang";

    struct Request {
        std::string method;
        std::string path;
        std::vector<std::pair<std::string, std::string>> headers;
        /// The value of a header field (name compared without case), or "".
        std::string header(const std::string& name) const;
    };

    /// content: the resource; truncateAfter: what /truncated sends (half when 0).
    explicit HttpTestServer(std::vector<std::uint8_t> content, std::size_t truncateAfter = 0);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    /// length bytes of a fixed pattern that no offset of itself repeats
    /// within 251 bytes, so a misplaced range is always caught.
    static std::vector<std::uint8_t> patternBytes(std::size_t length);

    int port() const;
    /// "http://127.0.0.1:<port><path>".
    std::string url(const std::string& path) const;
    const std::vector<std::uint8_t>& content() const;

    /// Every request received so far, in order of arrival.
    std::vector<Request> requests() const;
    /// Those for one path.
    std::vector<Request> requestsFor(const std::string& path) const;

    /// Releases /hang requests and stops serving; idempotent.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
