// HTTPInputStream.cpp - a GET's body through a bounded buffer to a reader.
#include <qx/HTTPInputStream.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>

namespace qx {

// Shared by the stream and the transfer's delegate, which may still be
// running when the stream goes away.
struct HTTPInputStream::Buffer {
    std::mutex mutex;
    std::condition_variable changed;   // bytes, space, the end or the close
    std::deque<Ref<Data>> chunks;
    std::size_t frontOffset = 0;       // bytes of chunks.front() already read
    std::size_t buffered = 0;          // unread bytes in chunks
    std::size_t limit = 0;
    bool done = false;                 // the transfer has completed
    bool closed = false;
    Ref<Error> error;
    bool errorReported = false;        // the stream has been failed with error (readers wait for it)
    Ref<HTTPResponse> response;
};

class HTTPInputStreamFeeder final : public HTTPTaskDelegate {
public:
    HTTPInputStreamFeeder(std::shared_ptr<HTTPInputStream::Buffer> buffer, WeakRef<HTTPInputStream> stream)
        : buffer_(std::move(buffer)), stream_(std::move(stream)) {}

    void didReceiveResponse(HTTPTask&, const Ref<HTTPResponse>& response) override {
        std::lock_guard<std::mutex> lock(buffer_->mutex);
        buffer_->response = response;
    }

    void didReceiveData(HTTPTask&, const Ref<Data>& data) override {
        bool wasEmpty;
        {
            // Back-pressure: this is the client's private queue, so waiting
            // here holds up only this stream's transfer.
            std::unique_lock<std::mutex> lock(buffer_->mutex);
            buffer_->changed.wait(lock, [&] { return buffer_->buffered < buffer_->limit || buffer_->closed; });
            if (buffer_->closed) return;
            wasEmpty = buffer_->buffered == 0;
            buffer_->chunks.push_back(data);
            buffer_->buffered += data->length();
        }
        buffer_->changed.notify_all();
        if (wasEmpty) raise(StreamEventHasBytesAvailable);
    }

    void didCompleteWithError(HTTPTask&, const Ref<Error>& error) override {
        bool ended;
        {
            std::lock_guard<std::mutex> lock(buffer_->mutex);
            buffer_->done = true;
            buffer_->error = error;
            ended = !error && buffer_->buffered == 0 && !buffer_->closed;
        }
        buffer_->changed.notify_all();
        auto stream = stream_.lock();
        if (error) {
            if (stream && stream->streamStatus() == StreamStatus::Open) fail(*stream, error);
            {
                std::lock_guard<std::mutex> lock(buffer_->mutex);
                buffer_->errorReported = true;
            }
            buffer_->changed.notify_all();
        } else if (stream && ended) {
            end(*stream);
        }
    }

private:
    void raise(StreamEventMask event) {
        if (auto stream = stream_.lock()) stream->queueEvent(event);
    }
    static void fail(HTTPInputStream& stream, const Ref<Error>& error) { stream.failWithError(error); }
    static void end(HTTPInputStream& stream) {
        stream.setStatus(StreamStatus::AtEnd);
        stream.queueEvent(StreamEventEndEncountered);
    }

    std::shared_ptr<HTTPInputStream::Buffer> buffer_;
    WeakRef<HTTPInputStream> stream_;
};

Ref<HTTPInputStream> HTTPInputStream::inputStreamWithURL(const Ref<URL>& url, const Ref<Dictionary>& headers) {
    if (!url || (url->scheme() != "http" && url->scheme() != "https")) return nullptr;
    auto request = HTTPRequest::requestWithURL(url);
    if (headers)
        for (const auto& entry : *headers) {
            auto name = dyn_cast<String>(entry.first);
            auto value = dyn_cast<String>(entry.second);
            if (name && value) request->setValue(value->utf8(), name->utf8());
        }
    return std::make_shared<HTTPInputStream>(request);
}

HTTPInputStream::~HTTPInputStream() {
    if (buffer_) {
        {
            std::lock_guard<std::mutex> lock(buffer_->mutex);
            buffer_->closed = true;
        }
        buffer_->changed.notify_all();
    }
    if (task_) task_->cancel();
}

void HTTPInputStream::open() {
    std::lock_guard<std::mutex> lock(openMutex_);
    if (streamStatus() != StreamStatus::NotOpen) return;
    buffer_ = std::make_shared<Buffer>();
    buffer_->limit = bufferLimit_;
    client_ = HTTPClient::create();
    // The transfer's own backlog stays small: the stream's buffer is the bound.
    client_->setMaximumBufferedBytes(std::min<std::uint64_t>(bufferLimit_, 4u << 20));
    auto self = std::static_pointer_cast<HTTPInputStream>(shared_from_this());
    task_ = client_->dataTaskWithRequest(request_, std::make_shared<HTTPInputStreamFeeder>(buffer_, self));
    setStatus(StreamStatus::Open);
    queueEvent(StreamEventOpenCompleted);
    task_->resume();
}

void HTTPInputStream::close() {
    std::lock_guard<std::mutex> lock(openMutex_);
    if (buffer_) {
        {
            std::lock_guard<std::mutex> bufferLock(buffer_->mutex);
            buffer_->closed = true;
        }
        buffer_->changed.notify_all();
    }
    if (task_) task_->cancel();
    setStatus(StreamStatus::Closed);
}

std::int64_t HTTPInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
    const StreamStatus status = streamStatus();
    if (status == StreamStatus::AtEnd) return 0;
    if (status != StreamStatus::Open || !buffer || !buffer_) return -1;
    auto& b = *buffer_;
    std::unique_lock<std::mutex> lock(b.mutex);
    // A broken transfer is waited for until the stream carries its error, so
    // that -1 never comes with the stream still open and no error to read.
    b.changed.wait(lock, [&] { return b.buffered > 0 || b.closed || (b.done && (!b.error || b.errorReported)); });
    if (b.closed || (b.buffered == 0 && b.error)) return -1;
    std::uint64_t want = std::min<std::uint64_t>(maxLength, std::numeric_limits<std::int64_t>::max());
    std::uint64_t copied = 0;
    while (copied < want && !b.chunks.empty()) {
        const Data& front = *b.chunks.front();
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(want - copied, front.length() - b.frontOffset));
        std::memcpy(buffer + copied, front.bytes() + b.frontOffset, n);
        copied += n;
        b.frontOffset += n;
        b.buffered -= n;
        if (b.frontOffset == front.length()) {
            b.chunks.pop_front();
            b.frontOffset = 0;
        }
    }
    const bool ended = b.buffered == 0 && b.done && !b.error;
    const bool more = b.buffered > 0;
    lock.unlock();
    b.changed.notify_all();
    if (ended && streamStatus() == StreamStatus::Open) {
        setStatus(StreamStatus::AtEnd);
        queueEvent(StreamEventEndEncountered);
    } else if (more) {
        queueEvent(StreamEventHasBytesAvailable);
    }
    return static_cast<std::int64_t>(copied);
}

bool HTTPInputStream::hasBytesAvailable() const {
    if (streamStatus() != StreamStatus::Open || !buffer_) return false;
    std::lock_guard<std::mutex> lock(buffer_->mutex);
    return buffer_->buffered > 0;
}

Ref<HTTPResponse> HTTPInputStream::response() const {
    if (!buffer_) return nullptr;
    std::lock_guard<std::mutex> lock(buffer_->mutex);
    return buffer_->response;
}

Ref<Object> HTTPInputStream::propertyForKey(const std::string& key) const {
    return key == HTTPResponseHeaderKey ? response() : nullptr;
}

} // namespace qx
