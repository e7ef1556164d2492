// WatchCommand.cpp - `qx watch`: file-system events under folders.
#include "WatchCommand.h"

#include "Diagnostics.h"

#include <QXFoundation/QXFSEventManager.h>

#include <qx/RunLoop.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace qxtool {

namespace {

struct WatchOptions {
    std::vector<std::string> folders;
    double latency = 0;
    bool json = false;
    bool latest = false;
    std::string changedSince;
};

int usageFailure(std::string_view name, std::string_view reason) {
    reportFailure(name, reason);
    return kExitUsage;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string eventLine(const QXFSEvent& event, bool json) {
    const std::string path = event.URL() ? event.URL()->path() : std::string();
    const std::string names = QXFSEventFlagNames(event.eventFlags());
    if (!json) return std::to_string(event.eventID()) + " " + names + " " + path + "\n";
    std::string flags;
    for (std::size_t start = 0; start <= names.size();) {
        const std::size_t bar = std::min(names.find('|', start), names.size());
        if (!flags.empty()) flags += ',';
        flags += jsonString(names.substr(start, bar - start));
        start = bar + 1;
    }
    if (event.eventFlags() == 0) flags.clear();
    return "{\"id\":" + std::to_string(event.eventID()) + ",\"flags\":[" + flags + "],\"path\":" + jsonString(path) + "}\n";
}

// Runs the main run loop until SIGINT or SIGTERM. The signals are blocked in
// every thread and taken by one waiting thread, so the library's threads
// never see them and the loop is woken rather than interrupted.
int watchUntilInterrupted(const WatchOptions& options, const qx::Ref<qx::Array>& urls) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::atomic<bool> interrupted{false};
    auto loop = qx::RunLoop::current();
    std::thread waiter([&] {
        int signal = 0;
        sigwait(&signals, &signal);
        interrupted = true;
        loop->wakeUp();
    });

    bool failed = false;
    auto manager = QXFSEventManager::create();
    manager->setLatency(options.latency);
    const bool started = manager->startWatchingURLs(urls, [&](const qx::Ref<qx::Array>& events) {
        std::string text;
        for (const auto& item : *events)
            if (auto event = qx::dyn_cast<QXFSEvent>(item)) text += eventLine(*event, options.json);
        if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
            failed = true;  // a reader that went away ends the watch
            loop->stop();
        }
    });
    if (started) {
        while (!interrupted && !failed) loop->runMode(qx::RunLoop::DefaultMode, qx::RunLoop::distantFuture());
    }
    manager->dumpFSEventStream();
    if (!interrupted) pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
    if (!started) return usageFailure("watch", "the folders could not be watched (no inotify instance left?)");
    return failed ? usageFailure(outputDisplayName("-"), std::strerror(errno ? errno : EPIPE)) : kExitSuccess;
}

int runWatch(const WatchOptions& options) {
    auto urls = qx::Array::create();
    for (const auto& folder : options.folders) {
        struct stat st {};
        if (::stat(folder.c_str(), &st) != 0) return usageFailure(folder, std::strerror(errno));
        if (!S_ISDIR(st.st_mode)) return usageFailure(folder, std::strerror(ENOTDIR));
        urls->addObject(qx::URL::fileURLWithPath(folder));
    }
    if (options.latest && !options.changedSince.empty())
        return usageFailure("watch", "--latest and --changed-since cannot be combined");
    if (!options.latest && options.changedSince.empty()) return watchUntilInterrupted(options, urls);

    std::uint64_t since = 0;
    if (!options.changedSince.empty()) {
        const char* end = options.changedSince.data() + options.changedSince.size();
        const auto parsed = std::from_chars(options.changedSince.data(), end, since);
        if (parsed.ec != std::errc() || parsed.ptr != end)
            return usageFailure("watch", "not an event identifier: " + options.changedSince);
    }
    auto manager = QXFSEventManager::create();
    const std::uint64_t latest = manager->latestFSEventAtURLs(urls, since);
    std::printf("%llu\n", static_cast<unsigned long long>(latest));
    if (std::fflush(stdout) != 0) return usageFailure(outputDisplayName("-"), std::strerror(errno));
    if (options.latest) return kExitSuccess;
    return latest != since ? kExitSuccess : kExitFailure;
}

} // namespace

void addWatchCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<WatchOptions>();
    auto* watch = app.add_subcommand("watch", "Print file-system events under folders, or whether they changed since an event");
    watch->add_option("DIR", options->folders, "Folders to watch")->required();
    watch->add_option("--latency", options->latency, "Seconds to gather changes before printing them")
        ->check(CLI::NonNegativeNumber);
    watch->add_flag("--json", options->json, "Print one JSON object per event");
    watch->add_flag("--latest", options->latest, "Print the latest event identifier and exit");
    watch->add_option("--changed-since", options->changedSince,
                      "Exit 0 when something changed after this event identifier, 1 when not");
    watch->callback([&selected, options] { selected = [options] { return runWatch(*options); }; });
}

} // namespace qxtool
