// BuffersBenchmark.cpp - ring-buffer throughput between two threads against
// memcpy bandwidth, and QXInputStream reading a large file through a
// file-handle stream against `cat file > /dev/null`, each pair in one run.
//
// Usage: qx_buffers_bench ring [GiB per size (4)] [runs (3)]
//        qx_buffers_bench stream <file> [runs (3)] [read size in KiB (1024)]
// Runs alternate between the two sides so both see the same machine load;
// the best run of each counts.
#include <QXFoundation/QXInputStream.h>
#include <QXFoundation/QXRingBuffer.h>

#include <qx/FileHandle.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

extern char** environ;

using Clock = std::chrono::steady_clock;

namespace {

double seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// Page-aligned blocks: two heap blocks that happen to start a few bytes
// apart within a page make the C library's block copy crawl, which would
// measure the allocator's placement rather than the memory.
struct Block {
    std::uint8_t* bytes;
    explicit Block(std::size_t length, std::uint8_t fill) : bytes(static_cast<std::uint8_t*>(std::aligned_alloc(4096, length))) {
        std::memset(bytes, fill, length);
    }
    ~Block() { std::free(bytes); }
    std::uint8_t* data() const { return bytes; }
};

// memcpy of blocks of the transfer size from one buffer to another, the
// same total as the ring run.
double memcpyRun(std::size_t transfer, std::uint64_t total) {
    Block from(transfer, 0x3c), to(transfer, 0);
    const auto start = Clock::now();
    for (std::uint64_t done = 0; done < total; done += transfer) {
        std::memcpy(to.data(), from.data(), transfer);
        // Keep the copy from being optimised away.
        asm volatile("" : : "r"(to.data()) : "memory");
    }
    return seconds(start);
}

// A producer thread writes the total in transfer-sized waiting writes; this
// thread reads it back in transfer-sized waiting reads.
double ringRun(std::size_t transfer, std::uint64_t total) {
    auto ring = QXRingBuffer::initWithCapacity(4 * transfer);
    if (!ring) {
        std::fprintf(stderr, "no ring buffer\n");
        std::exit(1);
    }
    Block in(transfer, 0xa5), out(transfer, 0);
    const auto start = Clock::now();
    std::thread producer([&] {
        for (std::uint64_t done = 0; done < total; done += transfer) ring->writeBytes(in.data(), transfer, true);
    });
    std::uint64_t got = 0;
    while (got < total) got += ring->readBytes(out.data(), transfer, true);
    producer.join();
    const double elapsed = seconds(start);
    if (got != total || out.data()[transfer - 1] != 0xa5) {
        std::fprintf(stderr, "ring transfer lost bytes\n");
        std::exit(1);
    }
    return elapsed;
}

int ringBench(int argc, char** argv) {
    const std::uint64_t gib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 4;
    const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
    const std::uint64_t total = gib << 30;
    std::printf("%-10s %12s %12s %8s\n", "transfer", "ring GB/s", "memcpy GB/s", "ratio");
    for (std::size_t transfer : {std::size_t{64} << 10, std::size_t{1} << 20}) {
        double ringBest = 1e30, copyBest = 1e30;
        for (int i = 0; i < runs; ++i) {
            ringBest = std::min(ringBest, ringRun(transfer, total));
            copyBest = std::min(copyBest, memcpyRun(transfer, total));
        }
        const double ringRate = static_cast<double>(total) / ringBest / 1e9;
        const double copyRate = static_cast<double>(total) / copyBest / 1e9;
        std::printf("%-10s %12.2f %12.2f %8.2f\n", transfer == (std::size_t{1} << 20) ? "1 MiB" : "64 KiB", ringRate, copyRate,
                    ringRate / copyRate);
    }
    return 0;
}

double catRun(const std::string& path) {
    const std::string command = "cat '" + path + "' > /dev/null";
    const char* args[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    const auto start = Clock::now();
    pid_t pid;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(args), environ) != 0) {
        std::fprintf(stderr, "cannot run cat\n");
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const double elapsed = seconds(start);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "cat failed\n");
        std::exit(1);
    }
    return elapsed;
}

double streamRun(const std::string& path, std::size_t readSize, std::uint64_t expected) {
    const auto start = Clock::now();
    auto stream = QXInputStream::initWithFileHandle(qx::FileHandle::fileHandleForReadingAtPath(path), true);
    if (!stream) {
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
        std::exit(1);
    }
    stream->open();
    std::vector<std::uint8_t> buffer(readSize);
    std::uint64_t total = 0;
    std::int64_t n;
    while ((n = stream->read(buffer.data(), buffer.size())) > 0) total += static_cast<std::uint64_t>(n);
    stream->close();
    const double elapsed = seconds(start);
    if (n < 0 || total != expected) {
        std::fprintf(stderr, "stream read %llu of %llu bytes\n", static_cast<unsigned long long>(total),
                     static_cast<unsigned long long>(expected));
        std::exit(1);
    }
    return elapsed;
}

int streamBench(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: qx_buffers_bench stream <file> [runs] [read KiB]\n");
        return 2;
    }
    const std::string path = argv[2];
    const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
    const std::size_t readSize = (argc > 4 ? std::strtoull(argv[4], nullptr, 10) : 1024) << 10;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return 1;
    std::fseek(f, 0, SEEK_END);
    const auto size = static_cast<std::uint64_t>(std::ftell(f));
    std::fclose(f);
    catRun(path);  // both sides read from the page cache
    double streamBest = 1e30, catBest = 1e30;
    for (int i = 0; i < runs; ++i) {
        streamBest = std::min(streamBest, streamRun(path, readSize, size));
        catBest = std::min(catBest, catRun(path));
    }
    const double mib = static_cast<double>(size) / (1 << 20);
    std::printf("%-34s %10s %8s\n", "reader", "MiB/s", "ratio");
    std::printf("%-34s %10.0f %8.2f\n", ("QXInputStream, " + std::to_string(readSize >> 10) + " KiB reads").c_str(),
                mib / streamBest, catBest / streamBest);
    std::printf("%-34s %10.0f %8.2f\n", "cat file > /dev/null", mib / catBest, 1.0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "ring") return ringBench(argc, argv);
    if (mode == "stream") return streamBench(argc, argv);
    std::fprintf(stderr, "usage: qx_buffers_bench ring|stream ...\n");
    return 2;
}
