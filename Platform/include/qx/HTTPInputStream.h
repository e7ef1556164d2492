// HTTPInputStream.h - an input stream over the body of an HTTP GET.
//
// open() starts a GET (HTTP/1.1, the caller's header fields, redirects
// followed, no cache) on a background transfer that fills a bounded buffer;
// when the buffer is full the transfer waits for the reader. read() blocks
// until bytes, the end or a failure arrive. A failed transfer puts the stream
// in Error with the client's error; the status code is not judged: the body
// of any response is the stream's content (response() tells which it was).
#pragma once

#include <qx/HTTPClient.h>
#include <qx/InputStream.h>

namespace qx {

class HTTPInputStream final : public InputStream {
public:
    /// Property: the HTTPResponse, once it has arrived.
    static constexpr const char* HTTPResponseHeaderKey = "kCFStreamPropertyHTTPResponseHeader";

    /// headers maps field names to value strings; it may be nothing. Nothing
    /// for a URL that is not http or https.
    static Ref<HTTPInputStream> inputStreamWithURL(const Ref<URL>& url, const Ref<Dictionary>& headers);

    void open() override;
    void close() override;
    std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
    bool hasBytesAvailable() const override;
    Ref<Object> propertyForKey(const std::string& key) const override;

    /// The response, or nothing before it has arrived.
    Ref<HTTPResponse> response() const;
    /// Bytes the stream may hold for its reader (1 MiB unless set before open).
    void setBufferLimit(std::size_t bytes) { bufferLimit_ = bytes ? bytes : 1; }

    std::string className() const override { return "HTTPInputStream"; }

    explicit HTTPInputStream(Ref<HTTPRequest> request) : request_(std::move(request)) {}
    ~HTTPInputStream() override;

    struct Buffer;

private:
    friend class HTTPInputStreamFeeder;
    Ref<HTTPRequest> request_;
    std::size_t bufferLimit_ = 1u << 20;
    std::shared_ptr<Buffer> buffer_;  // set by open
    Ref<HTTPClient> client_;
    Ref<HTTPTask> task_;
    std::mutex openMutex_;  // guards open / close against each other
};

} // namespace qx
