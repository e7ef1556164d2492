// QXRemoteFileHandleConnectionDelegate.h - turns an HTTP transfer's events
// into calls of one data handler.
//
// The handler is called with (chunk, done, error) and returns whether to go
// on. Body pieces arrive as (piece, false, nothing) until the delegate stops;
// the end arrives as (empty data, true, nothing) or (nothing, true, error).
// A handler that returns false stops the delegate and cancels the transfer.
//
// Two styles of transfer feed it: a session (an HTTPClient and one of its
// tasks; the session is invalidated when the transfer ends) and a connection
// (a single task; cancelling it cancels the connection). Attached to a
// session with setSession, the delegate takes the client's task events in
// session style; without one, in connection style.
//
// Events arrive on the client's serial delegate queue; isStopped may be read
// from any thread.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/HTTPClient.h>

#include <atomic>
#include <functional>
#include <mutex>

class QXRemoteFileHandleConnectionDelegate : public qx::Object, public qx::HTTPTaskDelegate {
public:
    using DataHandler = std::function<bool(const qx::Ref<qx::Data>& chunk, bool done, const qx::Ref<qx::Error>& error)>;
    /// Told of the response (status and header fields) before any body piece.
    using ResponseHandler = std::function<void(const qx::Ref<qx::HTTPResponse>& response)>;

    static qx::Ref<QXRemoteFileHandleConnectionDelegate> initWithDataHandler(DataHandler handler);

    DataHandler dataHandler() const;
    /// Copied when set.
    void setDataHandler(DataHandler handler);
    /// Copied when set; let go of with the data handler when a session transfer ends.
    void setResponseHandler(ResponseHandler handler);
    bool isStopped() const { return stopped_.load(); }
    void setIsStopped(bool value) { stopped_.store(value); }

    /// The session whose task events this delegate receives (held until the
    /// transfer ends, then invalidated and let go).
    void setSession(qx::Ref<qx::HTTPClient> session);

    // Session style. Two selectors begin with URLSession; each is named with
    // its next keyword.
    /// A body piece: handed on unless stopped.
    void URLSessionDataTask(qx::HTTPClient& session, qx::HTTPTask& dataTask, const qx::Ref<qx::Data>& data);
    /// The end: stops, hands on (empty data, true) or (nothing, true, error),
    /// then invalidates and cancels the session.
    void URLSessionTask(qx::HTTPClient& session, qx::HTTPTask& task, const qx::Ref<qx::Error>& error);

    // Connection style (the connection is the task).
    void connectionDidReceiveData(qx::HTTPTask& connection, const qx::Ref<qx::Data>& data);
    /// Stops and hands on (nothing, true, error).
    void connectionDidFailWithError(qx::HTTPTask& connection, const qx::Ref<qx::Error>& error);
    /// Hands on (empty data, true, nothing) without stopping.
    void connectionDidFinishLoading(qx::HTTPTask& connection);

    /// Calls the handler (if any); a false answer stops the delegate and
    /// cancels the session, respectively the connection.
    void invokeDataHandlerWithSession(qx::HTTPClient& session, const qx::Ref<qx::Data>& data, bool isDone, const qx::Ref<qx::Error>& error);
    void invokeDataHandlerWithConnection(qx::HTTPTask& connection, const qx::Ref<qx::Data>& data, bool isDone,
                                         const qx::Ref<qx::Error>& error);

    // qx::HTTPTaskDelegate: routed to the session or the connection style.
    void didReceiveResponse(qx::HTTPTask& task, const qx::Ref<qx::HTTPResponse>& response) override;
    void didReceiveData(qx::HTTPTask& task, const qx::Ref<qx::Data>& data) override;
    void didCompleteWithError(qx::HTTPTask& task, const qx::Ref<qx::Error>& error) override;

    std::string className() const override { return "QXRemoteFileHandleConnectionDelegate"; }

    explicit QXRemoteFileHandleConnectionDelegate(DataHandler handler);

private:
    qx::Ref<qx::HTTPClient> session() const;
    // Shared so that a call takes it with one count instead of a copy.
    std::shared_ptr<const DataHandler> handler() const;

    mutable std::mutex mutex_;  // guards handler_, responseHandler_ and session_
    std::shared_ptr<const DataHandler> handler_;
    std::shared_ptr<const ResponseHandler> responseHandler_;
    qx::Ref<qx::HTTPClient> session_;
    std::atomic<bool> stopped_{false};
};
