// FSEventTestSupport.h - watching real folders from tests: event logs and changes made elsewhere.
#pragma once

#include "TestSupport.h"

#include <QXFoundation/QXFSEventManager.h>

#include <qx/RunLoop.h>

struct LoggedEvent { std::string path; std::uint32_t flags; std::uint64_t identifier; };

// What a watch delivered, in order; filled on the test thread's run loop.
class EventLog {
public:
    QXFSEventManager::Handler handler() {
        return [this](const qx::Ref<qx::Array>& events) {
            ++batches;
            for (const auto& item : *events) {
                auto event = qx::dyn_cast<QXFSEvent>(item);
                if (event) entries.push_back(LoggedEvent{event->URL()->path(), event->eventFlags(), event->eventID()});
            }
        };
    }

    bool has(const std::string& path, std::uint32_t flags) const {
        for (const auto& entry : entries)
            if (entry.path == path && (entry.flags & flags) == flags) return true;
        return false;
    }

    std::string describe() const {
        std::string text;
        for (const auto& entry : entries) text += "  " + entry.path + " " + QXFSEventFlagNames(entry.flags) + "\n";
        return text.empty() ? "  (no events)\n" : text;
    }

    std::vector<LoggedEvent> entries;
    int batches = 0;
};

using qxtest::TempDir;

// Runs the calling thread's run loop until done() holds; false when it still
// does not after a generous time (a failure, never a way to wait).
inline bool runLoopUntil(const std::function<bool()>& done, std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto loop = qx::RunLoop::current();
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        loop->runMode(qx::RunLoop::DefaultMode, std::chrono::milliseconds(100));
    }
    return true;
}

// Makes changes from another thread and waits for it, so the changes come
// from elsewhere than the thread whose run loop receives them.
inline void changeOnAnotherThread(const std::function<void()>& change) { std::thread(change).join(); }

// Makes changes from a child process running a shell command.
inline void changeInChildProcess(const std::string& command) {
    ASSERT_EQ(std::system(("sh -c '" + command + "'").c_str()), 0) << command;
}

inline qx::Ref<qx::Array> urlArray(const std::vector<std::string>& paths) {
    auto array = qx::Array::create();
    for (const auto& path : paths) array->addObject(qx::URL::fileURLWithPath(path));
    return array;
}
