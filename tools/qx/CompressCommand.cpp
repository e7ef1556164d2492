// CompressCommand.cpp - `qx compress`: bytes to a compressed payload.
//
// One thread reads SOURCE, feeds the library's stream compressor (which for
// -T other than 1 hands the work to its own threads, as the library's file
// drivers do) and writes what it returns. SIGINT and SIGTERM interrupt a
// blocked read (their handler is installed without SA_RESTART and only notes
// the signal); the loop then stops and the output object's destruction
// removes the temporary.
#include "CompressCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"
#include "ProgressLine.h"

#include <QXFoundation/QXCompressor.h>
#include <QXFoundation/QXError.h>

#include "Internal/QXStreamCompressor.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

struct CompressOptions {
    QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmGzip;
    int level = kUnsetLevel;
    unsigned threads = 0;
    std::uint64_t offset = 0;
    std::uint64_t length = std::numeric_limits<std::uint64_t>::max();
    bool inPlace = false;
    std::string source;
    std::string destination;  // empty: standard output

    static constexpr int kUnsetLevel = std::numeric_limits<int>::min();
};

const std::map<std::string, QXDecompressionAlgorithm> kAlgorithms = {
    {"gzip", QXDecompressionAlgorithmGzip}, {"zlib", QXDecompressionAlgorithmZlib},
    {"deflate", QXDecompressionAlgorithmRawDeflate}, {"bzip2", QXDecompressionAlgorithmBZip2},
    {"xz", QXDecompressionAlgorithmXZ},
};

// How much is read and handed to the compressor at once.
constexpr std::size_t kReadSize = 1 << 20;

std::atomic<int> gSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

// Written by the handler, watched by every read: a signal that lands just
// before a read begins would otherwise leave that read blocked on a quiet pipe.
int gWakePipe[2] = {-1, -1};

extern "C" void noteCompressSignal(int signal) {
    gSignal.store(signal);
    const char byte = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(gWakePipe[1], &byte, 1);
}

void installSignalHandlers() {
    if (::pipe2(gWakePipe, O_CLOEXEC | O_NONBLOCK) != 0) gWakePipe[0] = gWakePipe[1] = -1;
    struct sigaction action {};
    action.sa_handler = noteCompressSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // a blocked read returns EINTR, so the loop sees the signal
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // Write failures are reported as errors (EPIPE, EFBIG), not deaths.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

int usageFailure(const std::string& reason) {
    reportFailure("compress", reason);
    return kExitUsage;
}

qx::Ref<qx::Error> posixError(int code) { return QXGenerateError(qx::NSPOSIXErrorDomain, code); }

// The levels each library takes, and the level used when none is given.
struct LevelRange {
    int lowest, highest, fallback;
};
LevelRange levelRange(QXDecompressionAlgorithm algorithm) {
    if (algorithm == QXDecompressionAlgorithmBZip2) return {1, 9, 9};
    return {0, 9, 6};
}

// SOURCE's bytes from offset, at most length of them.
class RangeReader {
public:
    RangeReader(int fd, std::uint64_t length) : fd_(fd), left_(length) {}

    /// Skips to offset: a seek where the source allows it, else by reading.
    /// 0 or an errno value.
    int skip(std::uint64_t offset) {
        if (offset == 0) return 0;
        if (::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) >= 0) return 0;
        std::vector<std::uint8_t> discard(kReadSize);
        while (offset > 0) {
            if (!waitReadable()) return errno;
            const ssize_t n = ::read(fd_, discard.data(), std::min<std::uint64_t>(offset, discard.size()));
            if (n < 0 && errno == EINTR && gSignal.load() == 0) continue;
            if (n < 0) return errno;
            if (n == 0) return 0;
            offset -= static_cast<std::uint64_t>(n);
        }
        return 0;
    }

    /// Fills buffer as far as the range and the source go; the count read, or
    /// -1 with errno (EINTR once a signal arrived).
    ssize_t read(std::uint8_t* buffer, std::size_t size) {
        std::size_t filled = 0;
        while (filled < size && left_ > 0) {
            if (!waitReadable()) return -1;
            const std::size_t want = std::min<std::uint64_t>(size - filled, left_);
            const ssize_t n = ::read(fd_, buffer + filled, want);
            if (n < 0 && errno == EINTR && gSignal.load() == 0) continue;
            if (n < 0) return -1;
            if (n == 0) break;
            filled += static_cast<std::size_t>(n);
            left_ -= static_cast<std::uint64_t>(n);
        }
        return static_cast<ssize_t>(filled);
    }

private:
    // False with errno EINTR once a signal came.
    bool waitReadable() const {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {gWakePipe[0], POLLIN, 0}};
        for (;;) {
            if (gSignal.load() != 0) {
                errno = EINTR;
                return false;
            }
            if (::poll(fds, gWakePipe[0] >= 0 ? 2 : 1, -1) >= 0 || errno != EINTR) return true;
        }
    }

    int fd_;
    std::uint64_t left_;
};

int runCompress(const CompressOptions& options) {
    if (options.inPlace) {
        if (options.source == "-") return usageFailure("--in-place needs a file to replace, not standard input");
        if (!options.destination.empty()) return usageFailure("--in-place and -o exclude each other");
        struct stat st {};
        if (::stat(options.source.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
            return usageFailure("--in-place needs a regular file: " + options.source + " is not one");
    }
    const LevelRange range = levelRange(options.algorithm);
    const int level = options.level == CompressOptions::kUnsetLevel ? range.fallback : options.level;
    if (level < range.lowest || level > range.highest)
        return usageFailure("level " + std::to_string(level) + " is out of range (" + std::to_string(range.lowest) +
                            " to " + std::to_string(range.highest) + " for this algorithm)");
    installSignalHandlers();

    const std::string sourceName = inputDisplayName(options.source);
    const std::string destinationPath = options.inPlace ? options.source
                                        : options.destination.empty() ? "-"
                                                                      : options.destination;
    const std::string destinationName = outputDisplayName(destinationPath);

    qx::UniqueFd opened;
    if (options.source != "-") {
        opened.reset(::open(options.source.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
        if (!opened) return reportFailure(sourceName, reasonFromError(posixError(errno)));
    }
    const int sourceFd = opened ? opened.get() : STDIN_FILENO;
    struct stat sourceStat {};
    const bool regular = ::fstat(sourceFd, &sourceStat) == 0 && S_ISREG(sourceStat.st_mode);
    if (!regular && ::fstat(sourceFd, &sourceStat) == 0 && S_ISDIR(sourceStat.st_mode))
        return reportFailure(sourceName, reasonFromError(posixError(EISDIR)));
    RangeReader reader(sourceFd, options.length);
    if (const int code = reader.skip(options.offset)) {
        if (const int signal = gSignal.load()) return 128 + signal;
        return reportFailure(sourceName, reasonFromError(posixError(code)));
    }

    // One thread is the library's single stream; more cut the input into
    // blocks (output the same for any count of two or more).
    qx::Ref<qx::Error> error;
    auto compressor = QXStreamCompressor::create(options.algorithm, level, options.threads, &error);
    if (!compressor) return reportFailure(sourceName, reasonFromError(error));
    auto output = OutputFile::open(destinationPath, &error);
    if (!output) return reportFailure(destinationName, reasonFromError(error));

    std::uint64_t inputTotal = 0;
    if (regular && static_cast<std::uint64_t>(sourceStat.st_size) > options.offset)
        inputTotal = std::min<std::uint64_t>(options.length, static_cast<std::uint64_t>(sourceStat.st_size) - options.offset);
    const bool progressWanted = ::isatty(STDERR_FILENO) == 1 && !(destinationPath == "-" && ::isatty(STDOUT_FILENO) == 1);
    ProgressLine progress(inputTotal, progressWanted);

    std::uint64_t consumed = 0, produced = 0;
    auto write = [&](const qx::Ref<qx::Data>& out) {
        produced += out->length();
        return out->length() == 0 || output->write(out->bytes(), out->length(), &error);
    };
    auto buffer = qx::Data::create();
    for (;;) {
        buffer->setLength(kReadSize);
        const ssize_t n = reader.read(buffer->mutableBytes(), kReadSize);
        if (gSignal.load() != 0) break;
        if (n < 0) return reportFailure(sourceName, reasonFromError(posixError(errno)));
        if (n == 0) break;
        buffer->setLength(static_cast<std::size_t>(n));
        auto out = compressor->compress(buffer, &error);
        if (!out) return reportFailure(sourceName, reasonFromError(error));
        if (!write(out)) return reportFailure(destinationName, reasonFromError(error));
        consumed += static_cast<std::uint64_t>(n);
        progress.update(consumed, produced);
    }
    if (const int signal = gSignal.load()) {
        progress.clear();
        compressor.reset();  // stops the workers
        output.reset();  // removes the temporary; SOURCE was never touched
        return 128 + signal;
    }
    do {
        auto last = compressor->finish(&error);
        if (!last) return reportFailure(sourceName, reasonFromError(error));
        if (!write(last)) return reportFailure(destinationName, reasonFromError(error));
    } while (!compressor->isFinished());
    progress.clear();
    if (!output->commit(&error)) return reportFailure(destinationName, reasonFromError(error));
    return kExitSuccess;
}

} // namespace

void addCompressCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<CompressOptions>();
    auto* compress = app.add_subcommand("compress", "Compress into a gzip, zlib, raw deflate, bzip2 or xz payload");
    compress->add_option("-a,--algorithm", options->algorithm, "gzip, zlib, deflate (raw), bzip2 or xz")
        ->transform(CLI::CheckedTransformer(kAlgorithms, CLI::ignore_case))
        ->default_str("gzip");
    compress->add_option("-l,--level", options->level, "Compression level (default 6; bzip2 9)");
    compress->add_option("-T,--threads", options->threads, "Threads, 0 for one per processor (default 0)");
    compress->add_option("--offset", options->offset, "Where the bytes to compress start in SOURCE");
    compress->add_option("--length", options->length, "How many bytes to compress (default: to the end)");
    compress->add_flag("--in-place", options->inPlace, "Replace SOURCE by its compressed form");
    compress->add_option("SOURCE", options->source, "A file, or \"-\" for standard input")->required();
    compress->add_option("-o,--output", options->destination, "Where to write (default: standard output)");
    compress->callback([&selected, options] { selected = [options] { return runCompress(*options); }; });
}

} // namespace qxtool
