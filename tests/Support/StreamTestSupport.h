// StreamTestSupport.h - an event-recording delegate and run-loop helpers for the stream suites.
#pragma once

#include "TestSupport.h"

#include <qx/InputStream.h>
#include <qx/RunLoop.h>
#include <qx/Stream.h>

namespace streamtest {

constexpr const char* kMode = "com.tovarik.test.StreamMode";

using qxtest::Pipe;
// Some suites name the folder as a member rather than a call.
struct TempDir : qxtest::TempDir {
    const std::filesystem::path& path = qxtest::TempDir::path();
};

// Records every delivered mask with the thread it arrived on.
struct EventRecorder final : qx::StreamDelegate {
    mutable std::mutex mutex;
    std::vector<qx::StreamEventMask> events;
    std::vector<std::thread::id> threads;
    std::function<void(qx::Stream&, qx::StreamEventMask)> then;

    void stream(qx::Stream& s, qx::StreamEventMask event) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back(event);
            threads.push_back(std::this_thread::get_id());
        }
        if (then) then(s, event);
    }
    std::vector<qx::StreamEventMask> snapshot() const {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    qx::StreamEventMask all() const {
        qx::StreamEventMask mask = 0;
        for (auto e : snapshot()) mask |= e;
        return mask;
    }
    int count(qx::StreamEventMask bit) const {
        int n = 0;
        for (auto e : snapshot()) n += (e & bit) ? 1 : 0;
        return n;
    }
};

// Runs the calling thread's loop in mode until done() holds. The deadline
// only keeps a broken build from hanging the suite; nothing is timed.
inline bool runUntil(const std::function<bool()>& done, const std::string& mode = kMode) {
    const auto giveUp = qx::RunLoop::Clock::now() + std::chrono::seconds(60);
    while (!done()) {
        if (qx::RunLoop::Clock::now() > giveUp) return false;
        qx::RunLoop::current()->runMode(mode, std::chrono::seconds(5));
    }
    return true;
}

// Handles whatever is already due in mode, without waiting.
inline void drain(const std::string& mode = kMode) {
    while (qx::RunLoop::current()->runMode(mode, std::chrono::seconds(0)) == qx::RunLoop::RunResult::Handled) {
    }
}

/// Reads up to length bytes and appends what arrived to out; the read's result.
inline std::int64_t readInto(qx::InputStream& s, std::string& out, std::uint64_t length) {
    std::string buffer(length, '\0');
    const auto n = s.read(reinterpret_cast<std::uint8_t*>(buffer.data()), length);
    if (n > 0) out.append(buffer.data(), static_cast<std::size_t>(n));
    return n;
}

} // namespace streamtest
