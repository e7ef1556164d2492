// Log.cpp - the log sink.
#include <qx/Log.h>

#include <cstdio>
#include <cstdlib>
#include <syslog.h>

namespace qx {

namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

LogSink& currentSink() {
    static LogSink sink;
    return sink;
}

void defaultSink(const std::string& line) {
    syslog(LOG_NOTICE, "%s", line.c_str());
    static const bool toStderr = std::getenv("QX_LOG_STDERR") != nullptr;
    if (toStderr) std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace

LogSink setLogSink(LogSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    LogSink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

void logLine(const std::string& line) {
    LogSink sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex());
        sink = currentSink();
    }
    if (sink) sink(line);
    else defaultSink(line);
}

ScopedLogCapture::ScopedLogCapture() {
    previous_ = setLogSink([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    });
}

ScopedLogCapture::~ScopedLogCapture() { setLogSink(std::move(previous_)); }

std::vector<std::string> ScopedLogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

bool ScopedLogCapture::contains(const std::string& line) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_)
        if (l == line) return true;
    return false;
}

void ScopedLogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

} // namespace qx
