// RemoteFileHandleBenchmark.cpp - chunked reads of the remote file handle
// against the plain tools: a local file against `cat file > /dev/null`, and a
// loopback HTTP resource against `curl -r` of the same range.
//
// Usage: qx_remote_bench [local MiB (1024)] [HTTP MiB (256)] [runs (3)] [directory (.)]
// The local file is written into the directory and deleted at the end. Runs
// alternate between the handle and its peer so both see the same load (and
// the same page cache); the best run of each counts.
#include "HttpTestServer.h"

#include <QXFoundation/QXRemoteFileHandle.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace qx;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "qx_remote_bench: %s\n", what.c_str());
    std::exit(1);
}

// Reads the whole source through the handle's chunked read, counting bytes.
double runHandle(const Ref<URL>& url, std::uint64_t limit, std::uint64_t expected) {
    Ref<Error> error;
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
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (failure || bytes != expected) fail("handle read " + std::to_string(bytes) + " bytes: " + describe(failure.get()));
    return seconds;
}

// Runs a tool with its standard output on /dev/null.
double runTool(std::vector<std::string> args) {
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
    waitpid(pid, &status, 0);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail(args[0] + " failed");
    return seconds;
}

void report(const char* what, const char* peer, std::uint64_t length, double handle, double tool) {
    const double mb = static_cast<double>(length) / 1e6;
    std::printf("  %-28s %8.1f MB/s   %-10s %8.1f MB/s   ratio %5.2f\n", what, mb / handle, peer, mb / tool, tool / handle);
}

} // namespace

int main(int argc, char** argv) {
    const std::uint64_t localMiB = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const std::uint64_t httpMiB = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 256;
    const int runs = std::max(1, argc > 3 ? std::atoi(argv[3]) : 3);
    const std::string directory = argc > 4 ? argv[4] : ".";

    std::printf("chunked reads, best of %d runs (ratio = handle / peer; target >= 0.90)\n", runs);
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
            double bestHandle = 1e9, bestCat = 1e9;
            for (int i = 0; i < runs; ++i) {
                bestCat = std::min(bestCat, runTool({"sh", "-c", "cat \"$0\" > /dev/null", path}));
                bestHandle = std::min(bestHandle, runHandle(url, limitMiB << 20, length));
            }
            const std::string what = "local " + std::to_string(localMiB) + " MiB, limit " + std::to_string(limitMiB) + " MiB";
            report(what.c_str(), "cat", length, bestHandle, bestCat);
        }
        std::remove(path.c_str());
    }
    if (httpMiB) {
        const std::uint64_t length = httpMiB << 20;
        HttpTestServer server(HttpTestServer::patternBytes(length));
        const std::string url = server.url(HttpTestServer::RangesPath);
        double bestHandle = 1e9, bestCurl = 1e9;
        for (int i = 0; i < runs; ++i) {
            bestCurl = std::min(bestCurl, runTool({"curl", "-s", "-f", "-r", "0-", url}));
            bestHandle = std::min(bestHandle, runHandle(URL::URLWithString(url), 32 << 20, length));
        }
        const std::string what = "HTTP " + std::to_string(httpMiB) + " MiB on loopback";
        report(what.c_str(), "curl -r", length, bestHandle, bestCurl);
    }
    return 0;
}
