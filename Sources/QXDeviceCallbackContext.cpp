// QXDeviceCallbackContext.cpp - carries a device request's answer back to the waiting call.
#include <QXFoundation/QXDeviceCallbackContext.h>

qx::Ref<qx::Error> QXDeviceCallbackContext::error() const {
    std::lock_guard<std::mutex> lock(_lock);
    return _error;
}

void QXDeviceCallbackContext::setError(const qx::Ref<qx::Error>& error) {
    auto copy = error ? qx::dyn_cast<qx::Error>(error->copy()) : nullptr;
    std::lock_guard<std::mutex> lock(_lock);
    _error = copy ? copy : error;
}
