// FSEventsBenchmark.cpp - file-system events against their command-line peers, in one run.
//
//   qx_fsevents_bench --tree DIR [--runs N] [--burst N]
//
// Over a tree of 100,000 files in 10,000 folders (made under DIR when it is
// missing), page cache warm, medians of N runs:
//   history   latestFSEventAtURL against `find DIR -newercc REF`
//   start     startWatchingURL against `inotifywait -r -m` until "Watches established."
//   delivery  a burst of file creations in the watched tree, from the first
//             creation until the last event arrives (or a MustScanSubDirs
//             event says some were dropped), against inotifywait printing them
// Ratios are peer time / our time: above 1 means faster than the peer.
#include <QXFoundation/QXFSEventManager.h>

#include <qx/RunLoop.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// Batches of up to 50 ms, as an application that wants events promptly would
// ask for; the peer prints each event as it reads it.
constexpr double kDeliveryLatency = 0.05;

double since(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void makeTree(const fs::path& root) {
    if (fs::exists(root / "d99" / "e98" / "f9")) return;
    std::printf("making the tree under %s ...\n", root.c_str());
    for (int d = 0; d < 100; ++d)
        for (int e = 0; e < 99; ++e) {
            const fs::path folder = root / ("d" + std::to_string(d)) / ("e" + std::to_string(e));
            fs::create_directories(folder);
            for (int f = 0; f < 10; ++f) ::close(::open((folder / ("f" + std::to_string(f))).c_str(), O_CREAT | O_WRONLY, 0644));
        }
    for (int d = 0; d < 100; ++d)  // the top folders hold files too: 10,000 folders, 100,000 files
        for (int f = 0; f < 10; ++f)
            ::close(::open((root / ("d" + std::to_string(d)) / ("f" + std::to_string(f))).c_str(), O_CREAT | O_WRONLY, 0644));
}

// A peer process whose standard output or error comes through a pipe.
struct Peer {
    pid_t pid = -1;
    int fd = -1;
    std::string seen;

    Peer(std::vector<std::string> args, int stream) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], stream);
        if (stream != 2) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        fd = fds[0];
    }
    ~Peer() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
        if (fd >= 0) ::close(fd);
    }
    // Reads until done(seen) holds or the output ends; seen keeps only what
    // done needs (a tail), so long outputs cost no memory.
    void readUntil(const std::function<bool(std::string&)>& done) {
        char buffer[65536];
        while (!done(seen)) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n <= 0) return;
            seen.append(buffer, static_cast<std::size_t>(n));
        }
    }
};

int runCommand(std::vector<std::string> args) {
    Peer peer(std::move(args), 1);
    peer.readUntil([](std::string& s) { s.clear(); return false; });
    int status = 0;
    ::waitpid(peer.pid, &status, 0);
    peer.pid = -1;
    return status;
}

void createFiles(const fs::path& folder, int count) {
    for (int i = 0; i < count; ++i) ::close(::open((folder / ("n" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY, 0644));
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"file-system events against find and inotifywait"};
    std::string tree;
    int runs = 5, burst = 100000;
    app.add_option("--tree", tree, "Folder holding the benchmark tree")->required();
    app.add_option("--runs", runs, "Runs per measurement (medians are reported)");
    app.add_option("--burst", burst, "File creations in the delivery measurement");
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const fs::path root = fs::absolute(tree);
    makeTree(root / "tree");
    const fs::path reference = root / "reference";
    ::close(::open(reference.c_str(), O_CREAT | O_WRONLY, 0644));
    const auto url = qx::URL::fileURLWithPath((root / "tree").string());

    // History.
    std::vector<double> ours, peers;
    auto manager = QXFSEventManager::create();
    for (int run = 0; run <= runs; ++run) {  // run 0 warms the cache and is not counted
        auto start = Clock::now();
        const std::uint64_t latest = manager->latestFSEventAtURL(url);
        const double ourTime = since(start);
        start = Clock::now();
        runCommand({"find", (root / "tree").string(), "-newercc", reference.string()});
        const double peerTime = since(start);
        if (run == 0) {
            std::printf("latest event %llu\n", static_cast<unsigned long long>(latest));
            continue;
        }
        ours.push_back(ourTime);
        peers.push_back(peerTime);
    }
    std::printf("history   qx %8.1f ms   find -newercc %8.1f ms   ratio %.2f (target >= 1.5)\n", median(ours), median(peers),
                median(peers) / median(ours));

    // Watch start.
    ours.clear();
    peers.clear();
    for (int run = 0; run < runs; ++run) {
        auto watcher = QXFSEventManager::create();
        auto start = Clock::now();
        if (!watcher->startWatchingURL(url, [](const qx::Ref<qx::Array>&) {})) return std::fprintf(stderr, "watch failed\n"), 1;
        ours.push_back(since(start));
        watcher->dumpFSEventStream();
        start = Clock::now();
        Peer peer({"inotifywait", "-r", "-m", "-e", "create", (root / "tree").string()}, 2);
        peer.readUntil([](std::string& s) { return s.find("Watches established.") != std::string::npos; });
        peers.push_back(since(start));
    }
    std::printf("start     qx %8.1f ms   inotifywait -r %7.1f ms   ratio %.2f (target >= 1.0)\n", median(ours), median(peers),
                median(peers) / median(ours));

    // Delivery.
    ours.clear();
    peers.clear();
    int overflows = 0;
    for (int run = 0; run < std::max(1, runs / 2); ++run) {
        const fs::path folder = root / "tree" / "burst";
        fs::remove_all(folder);
        fs::create_directory(folder);
        {
            int created = 0;
            bool dropped = false;
            auto watcher = QXFSEventManager::create();
            watcher->setLatency(kDeliveryLatency);
            watcher->startWatchingURL(url, [&](const qx::Ref<qx::Array>& events) {
                for (const auto& item : *events) {
                    auto event = qx::dyn_cast<QXFSEvent>(item);
                    if (event->eventFlags() & QXFSEventFlagMustScanSubDirs) dropped = true;
                    if (event->eventFlags() & QXFSEventFlagItemCreated) ++created;
                }
            });
            auto loop = qx::RunLoop::current();
            const auto start = Clock::now();
            std::thread maker(createFiles, folder, burst);
            while (created < burst && !dropped) loop->runMode(qx::RunLoop::DefaultMode, std::chrono::milliseconds(100));
            ours.push_back(since(start));
            maker.join();
            overflows += dropped;
        }
        fs::remove_all(folder);
        fs::create_directory(folder);
        {
            // Line-buffered, as a reader of its output would run it.
            Peer peer({"stdbuf", "-oL", "inotifywait", "-r", "-m", "-e", "create", "--format", "%w%f",
                       (root / "tree").string()}, 1);
            // The watch is ready once a probe file shows in the output.
            std::atomic<bool> ready{false};
            std::thread prober([&] {
                for (int i = 0; i < 1000 && !ready; ++i) {
                    ::close(::open((root / "tree" / ("probe" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY, 0644));
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
            });
            peer.readUntil([](std::string& s) { return s.find("/probe") != std::string::npos; });
            ready = true;
            prober.join();
            int lines = 0;
            const std::string marker = "/burst/n";
            const auto start = Clock::now();
            std::thread maker(createFiles, folder, burst);
            peer.readUntil([&](std::string& s) {
                // Count whole lines only; keep a partial last line for the next read.
                std::size_t at = 0, end;
                while ((end = s.find('\n', at)) != std::string::npos) {
                    if (std::string_view(s.data() + at, end - at).find(marker) != std::string_view::npos) ++lines;
                    at = end + 1;
                }
                s.erase(0, at);
                return lines >= burst;
            });
            peers.push_back(since(start));
            maker.join();
        }
        fs::remove_all(folder);
        for (int i = 0; fs::remove(root / "tree" / ("probe" + std::to_string(i))); ++i) {
        }
    }
    std::printf("delivery  qx %8.1f ms   inotifywait %10.1f ms   ratio %.2f (target >= 1.0); %d files, latency %.2f s, "
                "%d run(s) with MustScanSubDirs\n",
                median(ours), median(peers), median(peers) / median(ours), burst, kDeliveryLatency, overflows);
    return 0;
}
