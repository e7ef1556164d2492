// Log.h - the one log function and its sink.
//
// Every fixed log line of the library goes through QXLog. The default sink
// writes to syslog, and to standard error as well when QX_LOG_STDERR is set.
// Tests capture lines with qx::ScopedLogCapture.
#pragma once

#include <qx/Format.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qx {

using LogSink = std::function<void(const std::string& line)>;

/// Installs a sink (null restores the default); returns the previous one.
LogSink setLogSink(LogSink sink);
/// Sends one already formatted line to the current sink.
void logLine(const std::string& line);

/// Collects every line logged (from any thread) while it lives.
class ScopedLogCapture {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    LogSink previous_;
};

} // namespace qx

/// Logs one line; the format is as qx::format's ("%@" takes objects).
template <class... Args> void QXLog(const char* fmt, const Args&... args) {
    qx::logLine(qx::format(fmt, args...));
}
