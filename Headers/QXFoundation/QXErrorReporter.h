// QXErrorReporter.h - hands errors to the application on the main thread.
#pragma once

#include <qx/Error.h>

/// Posts reported errors as QXErrorOccurredNotification (no sender, user info
/// { "Error": error }) on the default notification centre. Observers always
/// run on the main thread: a report from another thread is handed to the
/// main run loop (common modes) and the reporting thread waits until the
/// observers have run, so it must not hold anything the main thread waits for.
class QXErrorReporter final : public qx::Object {
public:
    /// The one reporter of the process, made on first use (safe against
    /// concurrent first calls) and never destroyed.
    static qx::Ref<QXErrorReporter> sharedInstance();

    void reportError(const qx::Ref<qx::Error>& error);

    std::string className() const override { return "QXErrorReporter"; }

private:
    QXErrorReporter() = default;
};
