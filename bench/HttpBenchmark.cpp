// HttpBenchmark.cpp - ranged-read throughput of the HTTP client on loopback,
// against curl -r of the same range from the same in-process server.
//
// Usage: qx_http_bench [MiB (256)] [runs (5)]. Runs alternate between the two
// readers so both see the same machine load; the best run of each counts.
#include "HttpTestServer.h"

#include <qx/HTTPClient.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <spawn.h>
#include <string>
#include <sys/wait.h>

extern char** environ;

using namespace qx;
using Clock = std::chrono::steady_clock;

namespace {

// Counts the body and discards it, as curl -o /dev/null does.
struct Sink final : HTTPTaskDelegate {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::uint64_t bytes = 0;
    Ref<Error> error;
    int status = 0;
    void didReceiveResponse(HTTPTask&, const Ref<HTTPResponse>& r) override { status = r->statusCode(); }
    void didReceiveData(HTTPTask&, const Ref<Data>& data) override { bytes += data->length(); }
    void didCompleteWithError(HTTPTask&, const Ref<Error>& e) override {
        std::lock_guard<std::mutex> lock(mutex);
        error = e;
        finished = true;
        done.notify_all();
    }
};

double runClient(const std::string& url, const std::string& range, std::uint64_t expected) {
    auto client = HTTPClient::create();
    auto sink = std::make_shared<Sink>();
    auto request = HTTPRequest::requestWithURL(URL::URLWithString(url));
    request->setValue("bytes=" + range, "Range");
    const auto start = Clock::now();
    client->dataTaskWithRequest(request, sink)->resume();
    std::unique_lock<std::mutex> lock(sink->mutex);
    sink->done.wait(lock, [&] { return sink->finished; });
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (sink->error || sink->bytes != expected || sink->status != 206) {
        std::fprintf(stderr, "client read failed: %s, %llu bytes, status %d\n", sink->error ? sink->error->description().c_str() : "no error",
                     static_cast<unsigned long long>(sink->bytes), sink->status);
        std::exit(1);
    }
    return seconds;
}

double runCurl(const std::string& url, const std::string& range) {
    const char* argv[] = {"curl", "-s", "-f", "-o", "/dev/null", "-r", range.c_str(), url.c_str(), nullptr};
    const auto start = Clock::now();
    pid_t pid;
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        std::perror("curl");
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "curl failed (%d)\n", status);
        std::exit(1);
    }
    return seconds;
}

} // namespace

int main(int argc, char** argv) {
    const std::uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 256;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
    const std::uint64_t length = mib << 20;
    std::vector<std::uint8_t> content(length);
    for (std::uint64_t i = 0; i < length; ++i) content[i] = static_cast<std::uint8_t>(i * 2654435761u >> 24);
    HttpTestServer server(std::move(content));
    const std::string url = server.url(HttpTestServer::RangesPath);
    const std::string range = "0-" + std::to_string(length - 1);

    double bestClient = 1e9, bestCurl = 1e9;
    for (int i = 0; i < runs; ++i) {
        bestCurl = std::min(bestCurl, runCurl(url, range));
        bestClient = std::min(bestClient, runClient(url, range, length));
    }
    const double mb = static_cast<double>(length) / 1e6;
    std::printf("ranged GET of %llu MiB on loopback, best of %d runs\n", static_cast<unsigned long long>(mib), runs);
    std::printf("  qx::HTTPClient  %8.1f MB/s\n", mb / bestClient);
    std::printf("  curl -r         %8.1f MB/s\n", mb / bestCurl);
    std::printf("  ratio           %8.2f (client / curl; target >= 0.80)\n", bestCurl / bestClient);
    return 0;
}
