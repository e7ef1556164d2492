// RemoteFileHandleBenchmark.cpp - chunked reads of the remote file handle
// against the plain tools: a local file against `cat file > /dev/null`, and a
// loopback HTTP resource against `curl -r` of the same range.
//
// Usage: qx_remote_bench [local MiB (1024)] [HTTP MiB (256)] [runs (5)] [directory (.)]
// The local file is written into the directory and deleted at the end; one
// untimed pass of each side warms the page cache first. Runs alternate
// between the handle and its peer, and which of them goes first, so both see
// the same load and the same cache. Each line gives the best run of each side
// and, beside it, the ratio of the medians; local lines also compare the
// processor time (user + system, all threads) both sides spent, which a busy
// machine disturbs far less than the wall clock.
#include "HttpTestServer.h"

#include <QXFoundation/QXRemoteFileHandle.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace qx;
using Clock = std::chrono::steady_clock;

namespace {

// One run: wall-clock and processor seconds.
struct Run {
    double wall = 0, cpu = 0;
};

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }
double processorSeconds(const rusage& u) { return seconds(u.ru_utime) + seconds(u.ru_stime); }

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "qx_remote_bench: %s\n", what.c_str());
    std::exit(1);
}

// Reads the whole source through the handle's chunked read, counting bytes.
// The processor time is the whole process's, so it includes any in-process
// server: compare it only for local files.
Run runHandle(const Ref<URL>& url, std::uint64_t limit, std::uint64_t expected) {
    Ref<Error> error;
    rusage before {};
    ::getrusage(RUSAGE_SELF, &before);
    const auto start = Clock::now();
    auto handle = QXRemoteFileHandle::initForReadingFromURL(url, &error);
    if (!handle) fail("cannot open " + url->absoluteString() + ": " + describe(error.get()));
    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    Ref<Error> failure;
    std::uint64_t bytes = 0;
    handle->readDataToEndOfFileWithMaxBufferSize(limit, [&](const Ref<QXRemoteFileHandle>&, const Ref<Data>& chunk, bool done, const Ref<Error>& e) {
        std::lock_guard<std::mutex> lock(mutex);
        if (chunk) bytes += chunk->length();
        if (done || e) {
            failure = e;
            over = true;
            ended.notify_all();
        }
        return true;
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait(lock, [&] { return over; });
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    // The read's threads may still be winding down; their last moments are
    // not part of the read.
    rusage after {};
    ::getrusage(RUSAGE_SELF, &after);
    if (failure || bytes != expected) fail("handle read " + std::to_string(bytes) + " bytes: " + describe(failure.get()));
    return {wall, processorSeconds(after) - processorSeconds(before)};
}

// Runs a tool with its standard output on /dev/null.
Run runTool(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = Clock::now();
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) fail("cannot run " + args[0]);
    int status = 0;
    rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail(args[0] + " failed");
    return {wall, processorSeconds(usage)};
}

double best(std::vector<double> v) { return *std::min_element(v.begin(), v.end()); }
double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Alternates handle and tool runs (first one, then the other, leading) after
// one untimed run of each.
void compare(int runs, const std::function<Run()>& handle, const std::function<Run()>& tool, std::vector<Run>& handleRuns,
             std::vector<Run>& toolRuns) {
    tool();
    handle();
    for (int i = 0; i < runs; ++i) {
        if (i % 2) {
            handleRuns.push_back(handle());
            toolRuns.push_back(tool());
        } else {
            toolRuns.push_back(tool());
            handleRuns.push_back(handle());
        }
    }
}

void report(const std::string& what, const char* peer, std::uint64_t length, const std::vector<Run>& handle, const std::vector<Run>& tool,
            bool withProcessorTime) {
    const double mb = static_cast<double>(length) / 1e6;
    auto walls = [](const std::vector<Run>& runs) {
        std::vector<double> v;
        for (const auto& r : runs) v.push_back(r.wall);
        return v;
    };
    auto cpus = [](const std::vector<Run>& runs) {
        std::vector<double> v;
        for (const auto& r : runs) v.push_back(r.cpu);
        return v;
    };
    std::printf("  %-28s %8.1f MB/s   %-8s %8.1f MB/s   ratio %5.2f   median ratio %5.2f", what.c_str(), mb / best(walls(handle)), peer,
                mb / best(walls(tool)), best(walls(tool)) / best(walls(handle)), median(walls(tool)) / median(walls(handle)));
    if (withProcessorTime) std::printf("   cpu ratio %5.2f", median(cpus(tool)) / median(cpus(handle)));
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv) {
    const std::uint64_t localMiB = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const std::uint64_t httpMiB = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 256;
    const int runs = std::max(1, argc > 3 ? std::atoi(argv[3]) : 5);
    const std::string directory = argc > 4 ? argv[4] : ".";

    double load[3] = {0, 0, 0};
    if (::getloadavg(load, 3) < 0) load[0] = -1;
    std::printf("chunked reads, best and median of %d runs (ratio = handle / peer speed; target >= 0.90); load average %.2f\n", runs,
                load[0]);
    if (localMiB) {
        const std::uint64_t length = localMiB << 20;
        const std::string path = directory + "/qx-remote-bench-" + std::to_string(::getpid()) + ".bin";
        {
            std::vector<std::uint8_t> block(1 << 20);
            for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(i * 2654435761u >> 24);
            FILE* f = std::fopen(path.c_str(), "wb");
            if (!f) fail("cannot write " + path);
            for (std::uint64_t i = 0; i < localMiB; ++i) std::fwrite(block.data(), 1, block.size(), f);
            if (std::fclose(f) != 0) fail("cannot write " + path);
        }
        const auto url = URL::fileURLWithPath(path);
        for (const std::uint64_t limitMiB : {2, 8, 32}) {
            std::vector<Run> handleRuns, catRuns;
            compare(
                runs, [&] { return runHandle(url, limitMiB << 20, length); },
                [&] { return runTool({"cat", path}); }, handleRuns, catRuns);
            report("local " + std::to_string(localMiB) + " MiB, limit " + std::to_string(limitMiB) + " MiB", "cat", length, handleRuns, catRuns,
                   true);
        }
        std::remove(path.c_str());
    }
    if (httpMiB) {
        const std::uint64_t length = httpMiB << 20;
        HttpTestServer server(HttpTestServer::patternBytes(length));
        const std::string url = server.url(HttpTestServer::RangesPath);
        std::vector<Run> handleRuns, curlRuns;
        compare(
            runs, [&] { return runHandle(URL::URLWithString(url), 32 << 20, length); },
            [&] { return runTool({"curl", "-s", "-f", "-r", "0-", url}); }, handleRuns, curlRuns);
        report("HTTP " + std::to_string(httpMiB) + " MiB on loopback", "curl -r", length, handleRuns, curlRuns, false);
    }
    return 0;
}
