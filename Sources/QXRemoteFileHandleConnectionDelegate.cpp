// QXRemoteFileHandleConnectionDelegate.cpp - HTTP transfer events to one data handler.
#include <QXFoundation/QXRemoteFileHandleConnectionDelegate.h>

using qx::Data;
using qx::Error;
using qx::HTTPClient;
using qx::HTTPTask;
using qx::Ref;

Ref<QXRemoteFileHandleConnectionDelegate> QXRemoteFileHandleConnectionDelegate::initWithDataHandler(DataHandler handler) {
    return std::make_shared<QXRemoteFileHandleConnectionDelegate>(std::move(handler));
}

QXRemoteFileHandleConnectionDelegate::QXRemoteFileHandleConnectionDelegate(DataHandler handler) {
    setDataHandler(std::move(handler));
}

std::shared_ptr<const QXRemoteFileHandleConnectionDelegate::DataHandler> QXRemoteFileHandleConnectionDelegate::handler() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return handler_;
}

QXRemoteFileHandleConnectionDelegate::DataHandler QXRemoteFileHandleConnectionDelegate::dataHandler() const {
    const auto handler = this->handler();
    return handler ? *handler : DataHandler();
}

void QXRemoteFileHandleConnectionDelegate::setDataHandler(DataHandler handler) {
    auto shared = handler ? std::make_shared<const DataHandler>(std::move(handler)) : nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    handler_ = std::move(shared);
}

void QXRemoteFileHandleConnectionDelegate::setResponseHandler(ResponseHandler handler) {
    auto shared = handler ? std::make_shared<const ResponseHandler>(std::move(handler)) : nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    responseHandler_ = std::move(shared);
}

void QXRemoteFileHandleConnectionDelegate::setSession(Ref<HTTPClient> session) {
    std::lock_guard<std::mutex> lock(mutex_);
    session_ = std::move(session);
}

Ref<HTTPClient> QXRemoteFileHandleConnectionDelegate::session() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return session_;
}

void QXRemoteFileHandleConnectionDelegate::URLSessionDataTask(HTTPClient& session, HTTPTask&, const Ref<Data>& data) {
    if (!isStopped()) invokeDataHandlerWithSession(session, data, false, nullptr);
}

void QXRemoteFileHandleConnectionDelegate::URLSessionTask(HTTPClient& session, HTTPTask&, const Ref<Error>& error) {
    setIsStopped(true);
    if (error)
        invokeDataHandlerWithSession(session, nullptr, true, error);
    else
        invokeDataHandlerWithSession(session, Data::create(), true, nullptr);
    session.invalidateAndCancel();
}

void QXRemoteFileHandleConnectionDelegate::connectionDidReceiveData(HTTPTask& connection, const Ref<Data>& data) {
    if (!isStopped()) invokeDataHandlerWithConnection(connection, data, false, nullptr);
}

void QXRemoteFileHandleConnectionDelegate::connectionDidFailWithError(HTTPTask& connection, const Ref<Error>& error) {
    setIsStopped(true);
    invokeDataHandlerWithConnection(connection, nullptr, true, error);
}

void QXRemoteFileHandleConnectionDelegate::connectionDidFinishLoading(HTTPTask& connection) {
    // A finished connection leaves isStopped as it was; only its failure sets it.
    invokeDataHandlerWithConnection(connection, Data::create(), true, nullptr);
}

void QXRemoteFileHandleConnectionDelegate::invokeDataHandlerWithSession(HTTPClient& session, const Ref<Data>& data, bool isDone,
                                                                        const Ref<Error>& error) {
    const auto handler = this->handler();
    if (handler && !(*handler)(data, isDone, error)) {
        setIsStopped(true);
        session.invalidateAndCancel();
    }
}

void QXRemoteFileHandleConnectionDelegate::invokeDataHandlerWithConnection(HTTPTask& connection, const Ref<Data>& data, bool isDone,
                                                                           const Ref<Error>& error) {
    const auto handler = this->handler();
    if (handler && !(*handler)(data, isDone, error)) {
        setIsStopped(true);
        connection.cancel();
    }
}

void QXRemoteFileHandleConnectionDelegate::didReceiveResponse(HTTPTask&, const Ref<qx::HTTPResponse>& response) {
    std::shared_ptr<const ResponseHandler> handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        handler = responseHandler_;
    }
    if (handler) (*handler)(response);
}

void QXRemoteFileHandleConnectionDelegate::didReceiveData(HTTPTask& task, const Ref<Data>& data) {
    if (const auto session = this->session())
        URLSessionDataTask(*session, task, data);
    else
        connectionDidReceiveData(task, data);
}

void QXRemoteFileHandleConnectionDelegate::didCompleteWithError(HTTPTask& task, const Ref<Error>& error) {
    if (const auto session = this->session()) {
        URLSessionTask(*session, task, error);
        // The transfer is over: let go of the session (it may be this
        // delegate's only owner) and of the handler with what it holds.
        setSession(nullptr);
        setDataHandler(nullptr);
        setResponseHandler(nullptr);
    } else if (error) {
        connectionDidFailWithError(task, error);
    } else {
        connectionDidFinishLoading(task);
    }
}
