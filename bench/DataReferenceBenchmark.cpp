// DataReferenceBenchmark.cpp - the data reference on a large file: random
// edits (time per edit as the chunk list grows), a search for an absent
// pattern against `grep -c -F` (and -i), and the write-out of one inserted
// byte in the middle against `cp` of the file.
//
// Usage: qx_bytes_bench [MiB (1024)] [edits (10000)] [runs (3)] [directory (.)]
// The file is written into the directory and deleted at the end. It is text
// (lower-case letters and newlines) so that grep sees lines as it would in
// practice; the pattern has capitals and cannot occur case-sensitively.
// Each peer comparison gives the best of the runs on both sides and their
// ratio (peer time / our time: above 1 means faster than the peer).
#include <QXFoundation/QXDataReference.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <ctime>

#include <fcntl.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "qx_bytes_bench: %s\n", what.c_str());
    std::exit(1);
}

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// This thread's processor time: what an edit costs, less the machine's other load.
double threadSeconds() {
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

template <class F> double best(int runs, F&& run) {
    double result = 1e300;
    for (int i = 0; i < runs; ++i) result = std::min(result, run());
    return result;
}

double shell(const std::string& command) {
    const auto start = Clock::now();
    if (std::system(command.c_str()) == -1) fail("cannot run " + command);
    return since(start);
}

void writeTextFile(const std::string& path, std::uint64_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) fail("cannot create " + path);
    std::mt19937_64 random(1);
    std::vector<char> block(1 << 20);
    for (std::uint64_t written = 0; written < size; written += block.size()) {
        for (std::size_t i = 0; i < block.size(); ++i) block[i] = (i % 80 == 79) ? '\n' : static_cast<char>('a' + random() % 26);
        const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - written));
        if (::write(fd, block.data(), count) != static_cast<ssize_t>(count)) fail("cannot write " + path);
    }
    ::close(fd);
}

std::size_t chunkCount(QXDataReference& reference) {
    std::size_t count = 0;
    for (auto chunk = reference.firstChunk(); chunk; chunk = chunk->nextChunk()) ++count;
    return count;
}

} // namespace

int main(int argc, char** argv) {
    const std::uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const int edits = argc > 2 ? std::atoi(argv[2]) : 10000;
    const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
    const std::string directory = argc > 4 ? argv[4] : ".";
    const std::string path = directory + "/bytes-bench.txt", copy = directory + "/bytes-bench.copy";
    const std::uint64_t size = mib << 20;
    writeTextFile(path, size);
    const auto url = qx::URL::fileURLWithPath(path);
    std::printf("file: %llu MiB of text\n", static_cast<unsigned long long>(mib));

    {
        auto reference = QXDataReference::dataReferenceWithURL(url);
        std::mt19937_64 random(2);
        const std::uint8_t bytes[16] = {'e', 'd', 'i', 't'};
        double total = 0, lastThousand = 0, lastThousandCPU = 0, worst = 0;
        for (int i = 0; i < edits; ++i) {
            const std::uint64_t current = reference->size();
            const std::uint64_t at = random() % current;
            const unsigned kind = static_cast<unsigned>(random() % 3);
            const QXDataRange range{at, kind == 0 ? 0 : std::min<std::uint64_t>(1 + random() % 16, current - at)};
            const std::uint64_t count = kind == 1 ? 0 : 1 + random() % 16;
            const double cpu = threadSeconds();
            const auto start = Clock::now();
            reference->replaceBytesInRange(range, bytes, count);
            const double took = since(start);
            if (i >= edits - 1000) lastThousandCPU += threadSeconds() - cpu;
            total += took;
            worst = std::max(worst, took);
            if (i >= edits - 1000) lastThousand += took;
        }
        std::printf("edits: %d, mean %.1f us, mean of the last 1000 %.1f us (processor %.1f us), worst %.1f us; %zu chunks\n", edits,
                    total / edits * 1e6, lastThousand / std::min(edits, 1000) * 1e6, lastThousandCPU / std::min(edits, 1000) * 1e6,
                    worst * 1e6, chunkCount(*reference));
    }

    {
        auto reference = QXDataReference::dataReferenceWithURL(url);
        const auto pattern = qx::Data::withString("QXNeverInThisFile");
        shell("cat '" + path + "' > /dev/null");
        for (const bool ignoreCase : {false, true}) {
            const std::uint64_t options = ignoreCase ? std::uint64_t{QXDataReferenceCaseInsensitiveSearch} : 0;
            QXDataRange answer;
            const double ours = best(runs, [&] {
                const auto start = Clock::now();
                answer = reference->fastSearch(pattern, options, QXDataRange{0, reference->size()});
                return since(start);
            });
            if (answer.length != 0) fail("the absent pattern was found");
            const std::string grep = std::string("grep -c -F ") + (ignoreCase ? "-i " : "") + "QXNeverInThisFile '" + path + "' > /dev/null";
            const double peer = best(runs, [&] { return shell(grep); });
            std::printf("search%s: %.3f s (%.0f MiB/s), grep -c -F%s %.3f s; ratio %.2f\n", ignoreCase ? " -i" : "", ours,
                        static_cast<double>(mib) / ours, ignoreCase ? " -i" : "", peer, peer / ours);
        }
    }

    {
        const double ours = best(runs, [&] {
            auto reference = QXDataReference::dataReferenceWithURL(url);
            reference->replaceBytesInRange(QXDataRange{size / 2, 0}, "x", 1);
            const auto start = Clock::now();
            qx::Ref<qx::Error> error;
            if (!reference->writeToFileAndReturnError(&error)) fail("write-out failed: " + qx::describe(error.get()));
            const double took = since(start);
            // Back to the original size for the next run.
            reference->replaceBytesInRange(QXDataRange{size / 2, 1}, nullptr, 0);
            if (!reference->writeToFileAndReturnError(&error)) fail("write-out failed: " + qx::describe(error.get()));
            return took;
        });
        const double peer = best(runs, [&] { return shell("cp '" + path + "' '" + copy + "'"); });
        std::printf("write-out of 1 inserted byte in the middle: %.3f s, cp %.3f s; ratio %.2f\n", ours, peer, peer / ours);
    }
    ::unlink(path.c_str());
    ::unlink(copy.c_str());
    return 0;
}
