// QXDeviceCallbackContext.h - carries a device request's answer back to the waiting call.
//
// The completion of a mount, unmount or eject writes it; the call that
// waits for the answer reads it between turns of its run loop. The error is
// copied when set, and both fields may be read from any thread.
#pragma once

#include <qx/Error.h>

#include <atomic>
#include <mutex>

class QXDeviceCallbackContext : public qx::Object {
public:
    using Ref = qx::Ref<QXDeviceCallbackContext>;

    /// A context with success false and no error.
    static Ref create() { return std::make_shared<QXDeviceCallbackContext>(); }

    bool success() const { return _success.load(std::memory_order_acquire); }
    void setSuccess(bool success) { _success.store(success, std::memory_order_release); }

    qx::Ref<qx::Error> error() const;
    void setError(const qx::Ref<qx::Error>& error);

    std::string className() const override { return "QXDeviceCallbackContext"; }

private:
    std::atomic<bool> _success{false};
    mutable std::mutex _lock;  // guards _error
    qx::Ref<qx::Error> _error;
};
