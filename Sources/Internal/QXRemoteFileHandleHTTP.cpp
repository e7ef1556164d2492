// QXRemoteFileHandleHTTP.cpp - the HTTP path of QXRemoteFileHandle: the size
// from a HEAD request, data from GET requests with a byte "Range".
#include <QXFoundation/QXRemoteFileHandle.h>

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRemoteFileHandleConnectionDelegate.h>

#include "Internal/QXFoundationPrivate.h"
#include "Internal/QXRemoteFileHandlePrivate.h"

#include <qx/Format.h>
#include <qx/SerialQueue.h>

#include <memory>
#include <strings.h>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

constexpr const char* kConnectionQueueName = "com.tovarik.QXRemoteFileHandle.connection";

// Whether the HTTP client can take a request for url at all.
bool canHandleRequest(const Ref<qx::URL>& url) { return url && qxrfh::isHTTPScheme(url->scheme()) && !url->host().empty(); }

} // namespace

bool qxrfh::isHTTPScheme(const std::string& scheme) {
    return ::strcasecmp(scheme.c_str(), "http") == 0 || ::strcasecmp(scheme.c_str(), "https") == 0;
}

void QXRemoteFileHandle::calculateHTTPFileSize() {
    auto request = qx::HTTPRequest::requestWithURL(url_);
    request->setHTTPMethod("HEAD");
    sizeSession_ = qx::HTTPClient::create();
    // Weak: dropping the handle cancels the request instead of waiting for it.
    qx::WeakRef<QXRemoteFileHandle> weak = self();
    auto task = sizeSession_->dataTaskWithRequest(request, [weak](const Ref<Data>&, const Ref<qx::HTTPResponse>& response, const Ref<Error>& error) {
        const auto handle = weak.lock();
        if (!handle) return;
        // The HEAD runs beside the reads: an answer that comes after a ranged
        // GET's must not hide the GET's status.
        std::int64_t none = 0;
        if (response) handle->statusCode_.compare_exchange_strong(none, response->statusCode());
        if (error) {
            handle->setPrivateSize(0);
            handle->setIsSeekable(false);
        } else {
            handle->setSizeWithURLResponse(response);
        }
        if (handle->sizeSemaphore_) handle->sizeSemaphore_->signal();
    });
    task->resume();
}

void QXRemoteFileHandle::setSizeWithURLResponse(const Ref<qx::HTTPResponse>& response) {
    const std::int64_t length = response ? response->expectedContentLength() : -1;
    if (length < 0) {
        setIsSeekable(false);
        setPrivateSize(0);
        return;
    }
    setPrivateSize(static_cast<std::uint64_t>(length));
    const auto ranges = response->valueForHTTPHeaderField("Accept-Ranges");
    setIsSeekable(ranges && ranges->utf8().find("bytes") != std::string::npos);
}

Ref<Data> QXRemoteFileHandle::readHTTPSynchronously(std::uint64_t offset, std::uint64_t length, bool toEnd, Ref<Error>* error) {
    // Shared with the handler, which the transfer may keep a little after
    // the last call that released the caller.
    struct Result {
        Ref<Data> buffer = Data::create();
        Ref<Error> error;
        Ref<qx::Semaphore> finished = qx::Semaphore::create(0);
    };
    auto result = std::make_shared<Result>();
    DataHandler handler = [result](const Ref<QXRemoteFileHandle>&, const Ref<Data>& chunk, bool done, const Ref<Error>& failure) {
        if (failure) {
            result->error = failure;
            result->finished->signal();
            return false;
        }
        if (chunk) result->buffer->append(*chunk);
        if (done) result->finished->signal();
        return true;
    };
    if (toEnd)
        readDataToEndOfFileWithMaxBufferSize(ToEndOfFile, std::move(handler));
    else
        readDataAtOffset(offset, length, ToEndOfFile, std::move(handler));
    result->finished->wait();
    if (result->error) {
        if (error) *error = result->error;
        return nullptr;
    }
    return result->buffer;
}

void QXRemoteFileHandle::readHTTP(std::uint64_t length, DataHandler handler) {
    const auto handle = self();
    const std::uint64_t first = offsetInFile();
    // Unsigned on purpose: a length of 0 names a last byte one below the first.
    const std::string range = length == ToEndOfFile ? qx::format("bytes=%llu-", static_cast<unsigned long long>(first))
                                                    : qx::format("bytes=%llu-%llu", static_cast<unsigned long long>(first),
                                                                 static_cast<unsigned long long>(first + length - 1));
    auto request = qx::HTTPRequest::requestWithURL(url_);
    request->setValue(range, "Range");
    if (!canHandleRequest(url_)) {
        // Deliberately -1004 in the Cocoa domain (not the URL-loading one).
        if (handler) handler(handle, nullptr, true, QXGenerateError(qx::NSCocoaErrorDomain, -1004));
        return;
    }
    auto delegate = QXRemoteFileHandleConnectionDelegate::initWithDataHandler(
        [handle, handler = std::move(handler)](const Ref<Data>& chunk, bool done, const Ref<Error>& error) {
            handle->setOffsetInFile(handle->offsetInFile() + (chunk ? chunk->length() : 0));
            return handler ? handler(handle, chunk, done, error) : true;
        });
    delegate->setResponseHandler([handle](const Ref<qx::HTTPResponse>& response) {
        if (response) handle->statusCode_.store(response->statusCode());
    });
    // The session lives as long as its transfer: the delegate holds it until
    // the completion, the task holds the delegate until then.
    auto session = qx::HTTPClient::create(qx::SerialQueue::create(kConnectionQueueName));
    delegate->setSession(session);
    session->dataTaskWithRequest(request, delegate)->resume();
}
