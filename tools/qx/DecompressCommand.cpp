// DecompressCommand.cpp - `qx decompress`: a compressed payload to its bytes.
//
// The work runs on the library's asynchronous remote driver: its handler is
// called on the driver's threads with each piece of output, which it writes
// at once. The main thread only waits, redraws the progress line and watches
// for SIGINT and SIGTERM, whose handler does nothing but note the signal.
#include "DecompressCommand.h"

#include "ChecksumCommand.h"
#include "Diagnostics.h"
#include "FileIO.h"
#include "ProgressLine.h"
#include "StreamChain.h"
#include "ThreadedXZDecoder.h"
#include "TrailerCheck.h"

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <strings.h>

#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

struct DecompressOptions {
    QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmAutomatic;
    std::uint64_t offset = 0;
    std::uint64_t length = QXRemoteFileHandle::ToEndOfFile;
    QXChecksumAlgorithm checksum = QXChecksumAlgorithmNone;
    bool inPlace = false;
    std::string source;
    std::string destination;  // empty: standard output
};

const std::map<std::string, QXDecompressionAlgorithm> kAlgorithms = {
    {"auto", QXDecompressionAlgorithmAutomatic}, {"none", QXDecompressionAlgorithmNone},
    {"deflate", QXDecompressionAlgorithmDeflateAny}, {"raw-deflate", QXDecompressionAlgorithmRawDeflate},
    {"zlib", QXDecompressionAlgorithmZlib},      {"gzip", QXDecompressionAlgorithmGzip},
    {"bzip2", QXDecompressionAlgorithmBZip2},    {"xz", QXDecompressionAlgorithmXZ},
    {"pbzx", QXDecompressionAlgorithmPBZX},
};

// How often the waiting main thread looks at the signal flag and redraws.
constexpr auto kTick = std::chrono::milliseconds(100);

// Written by the signal handler, read by the handler of the driver's threads
// as well: a lock-free atomic, which a signal handler may store to.
std::atomic<int> gSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void noteSignal(int signal) { gSignal.store(signal); }

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = noteSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // Write failures are reported as errors (EPIPE, EFBIG), not deaths.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

bool isHTTPSource(const std::string& source) {
    return ::strncasecmp(source.c_str(), "http://", 7) == 0 || ::strncasecmp(source.c_str(), "https://", 8) == 0;
}

std::string checksumName(QXChecksumAlgorithm algorithm) {
    for (const auto& [name, value] : checksumAlgorithmsByName())
        if (value == algorithm) return name;
    return std::to_string(algorithm);
}

int usageFailure(const std::string& reason) {
    reportFailure("decompress", reason);
    return kExitUsage;
}

qx::Ref<QXRemoteFileHandle> openSource(const std::string& source, qx::Ref<qx::Error>* error) {
    if (source == "-")
        return QXRemoteFileHandle::initWithSystemFileHandle(qx::FileHandle::fileHandleWithStandardInput(), false, error);
    if (isHTTPSource(source)) {
        auto url = qx::URL::URLWithString(source);
        if (!url) {
            if (error) *error = qx::Error::create(qx::NSCocoaErrorDomain, 262);
            return nullptr;
        }
        return QXRemoteFileHandle::initForReadingFromURL(url, error);
    }
    return QXRemoteFileHandle::initForReadingFromURL(qx::URL::fileURLWithPath(source), error);
}

// The payload's format from its first bytes, as the library decides it for
// automatic detection and for the deflate family. Read here, at the range's
// start, rather than left to the driver: the trailer check must know the
// format too, and the driver would look at the handle's position instead.
// The handle is put back at the range's start.
bool resolveAlgorithm(QXRemoteFileHandle& handle, const DecompressOptions& options, QXDecompressionAlgorithm& algorithm,
                      qx::Ref<qx::Error>* error) {
    algorithm = options.algorithm;
    if (algorithm != QXDecompressionAlgorithmAutomatic && algorithm != QXDecompressionAlgorithmDeflateAny) return true;
    if (!handle.seekToFileOffset(options.offset, error)) return false;
    auto head = options.length == 0 ? qx::Data::create()
                                    : handle.readDataOfLength(std::min<std::uint64_t>(options.length, QXDecompressor::maxMagicLength()), error);
    if (!head || !handle.seekToFileOffset(options.offset, error)) return false;
    algorithm = QXDecompressor::resolvedAlgorithmForData(head, algorithm);
    return true;
}

// What the driver's handler and the waiting main thread share. The driver
// makes exactly one call marked finished, the last; a failure or a stop asked
// for by the handler also ends with it. Once `over` is set the handler takes
// nothing more and the main thread owns the rest.
struct Transfer {
    std::mutex mutex;
    std::condition_variable changed;
    bool over = false;                       // guarded by mutex
    bool released = false;                   // guarded: the run has let go of its handler, and of the source
    qx::Ref<qx::Error> decodingError;        // guarded
    qx::Ref<qx::Error> writeError;           // guarded
    qx::Ref<qx::Data> decompressedChecksum;  // guarded
    std::string trailerReason;               // guarded: a stream chain's failed trailer
    std::unique_ptr<OutputFile> output;      // written by the handler until over
    TrailerCheck trailer;                    // fed by the handler until over
    // For gzip and bzip2: the driver passes the compressed bytes through and
    // the chain decodes every stream; the checksum is then taken here.
    std::unique_ptr<StreamChain> chain;
    // For xz: the same, decoded by liblzma's threaded decoder.
    std::unique_ptr<ThreadedXZDecoder> xz;
    qx::Ref<QXChecksum> checksum;
    std::atomic<std::uint64_t> compressedTotal{0};
    std::atomic<std::uint64_t> decompressedTotal{0};

    explicit Transfer(QXDecompressionAlgorithm algorithm) : trailer(algorithm) {}

    void end() {
        over = true;
        changed.notify_all();
    }
};

QXDecompressor::Handler makeHandler(const std::shared_ptr<Transfer>& transfer) {
    // The last copy of the handler goes only when the run is wholly over; until
    // then its reading may still use the source handle.
    std::shared_ptr<void> release(nullptr, [transfer](void*) {
        std::lock_guard<std::mutex> lock(transfer->mutex);
        transfer->released = true;
        transfer->changed.notify_all();
    });
    return [transfer, release](const qx::Ref<qx::Data>& output, std::uint64_t compressedTotal, std::uint64_t decompressedTotal, bool finished,
                      const qx::Ref<qx::Data>&, const qx::Ref<qx::Data>& decompressedChecksum, const qx::Ref<qx::Error>& error) {
        std::lock_guard<std::mutex> lock(transfer->mutex);
        if (transfer->over) return false;
        if (error) {
            transfer->decodingError = error;
            transfer->end();
            return false;
        }
        auto writeBytes = [&transfer](const std::uint8_t* bytes, std::size_t length) {
            qx::Ref<qx::Error> writeError;
            if (!transfer->output->write(bytes, length, &writeError)) {
                transfer->writeError = writeError;
                return false;
            }
            transfer->trailer.addOutput(bytes, length);
            if (transfer->checksum) transfer->checksum->updateWithInputData(bytes, length);
            transfer->decompressedTotal += length;
            return true;
        };
        auto write = [&writeBytes](const qx::Ref<qx::Data>& piece) { return writeBytes(piece->bytes(), piece->length()); };
        const bool decodedHere = transfer->chain || transfer->xz;
        if (decodedHere) {
            qx::Ref<qx::Error> decoderError;
            const bool ok = transfer->chain ? transfer->chain->feed(output ? output : qx::Data::create(), finished, write,
                                                                    &decoderError, &transfer->trailerReason)
                                            : transfer->xz->feed(output ? *output : qx::Data(), finished, writeBytes,
                                                                 &decoderError);
            if (!ok) {
                transfer->decodingError = decoderError;
                transfer->end();
                return false;
            }
        } else if (output && output->length() > 0) {
            if (!write(output)) {
                transfer->end();
                return false;
            }
        }
        transfer->compressedTotal = compressedTotal;
        if (!decodedHere) transfer->decompressedTotal = decompressedTotal;
        if (finished) {
            transfer->decompressedChecksum = transfer->checksum ? transfer->checksum->checksumData() : decompressedChecksum;
            transfer->end();
            return false;
        }
        // A signal is acted on by the main thread; stopping here spares the
        // decoder the rest when data is flowing.
        return gSignal.load() == 0;
    };
}

// The size of the compressed range when the source knows its size, else 0.
std::uint64_t rangeSize(QXRemoteFileHandle& handle, const DecompressOptions& options) {
    if (!handle.isSeekable()) return 0;
    const std::uint64_t size = handle.fileSize();
    if (size <= options.offset) return 0;
    return std::min(options.length, size - options.offset);
}

int runDecompress(const DecompressOptions& options) {
    const bool http = isHTTPSource(options.source);
    if (options.inPlace) {
        if (options.source == "-") return usageFailure("--in-place needs a file to replace, not standard input");
        if (http) return usageFailure("--in-place cannot replace a URL");
        if (!options.destination.empty()) return usageFailure("--in-place and -o exclude each other");
        struct stat st {};
        if (::stat(options.source.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
            return usageFailure("--in-place needs a regular file: " + options.source + " is not one");
    }
    installSignalHandlers();

    const std::string sourceName = inputDisplayName(options.source);
    const std::string destinationPath = options.inPlace ? options.source : options.destination.empty() ? "-" : options.destination;
    const std::string destinationName = outputDisplayName(destinationPath);

    qx::Ref<qx::Error> error;
    auto handle = openSource(options.source, &error);
    if (!handle) return reportFailure(sourceName, reasonFromError(error));
    QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmNone;
    if (!resolveAlgorithm(*handle, options, algorithm, &error)) return reportFailure(sourceName, reasonFromError(error));
    // As the standard decompressors do: a copy is made only on request (-a none).
    // An HTTP error page is reported as what it is, not as an unknown format.
    if (options.algorithm == QXDecompressionAlgorithmAutomatic && algorithm == QXDecompressionAlgorithmNone) {
        if (http && handle->statusCode() >= 400)
            return reportFailure(sourceName, "the server answered with HTTP status " + std::to_string(handle->statusCode()));
        return reportFailure(sourceName, "not in a known compressed format");
    }

    // Gzip, bzip2 and xz pass through the driver undecoded and are decoded
    // here (see StreamChain and ThreadedXZDecoder).
    const bool chained = StreamChain::handles(algorithm) || algorithm == QXDecompressionAlgorithmXZ;
    auto transfer = std::make_shared<Transfer>(chained ? QXDecompressionAlgorithmNone : algorithm);
    if (chained) {
        if (algorithm == QXDecompressionAlgorithmXZ) {
            transfer->xz = std::make_unique<ThreadedXZDecoder>();
        } else {
            transfer->chain = std::make_unique<StreamChain>(algorithm);
        }
        if (options.checksum != QXChecksumAlgorithmNone) transfer->checksum = QXChecksum::initWithAlgorithm(options.checksum);
    }
    transfer->output = OutputFile::open(destinationPath, &error);
    if (!transfer->output) return reportFailure(destinationName, reasonFromError(error));

    // Not drawn among decompressed data shown on the same terminal.
    const bool progressWanted = ::isatty(STDERR_FILENO) == 1 && !(destinationPath == "-" && ::isatty(STDOUT_FILENO) == 1);
    ProgressLine progress(progressWanted ? rangeSize(*handle, options) : 0, progressWanted);
    QXDecompressor::decompressRemoteFileHandle(handle, options.offset, options.length,
                                               chained ? QXDecompressionAlgorithmNone : algorithm, QXChecksumAlgorithmNone,
                                               chained ? QXChecksumAlgorithmNone : options.checksum, makeHandler(transfer));

    std::unique_lock<std::mutex> lock(transfer->mutex);
    // The trailer is read again through the source handle, which the run's
    // reading may still be using after its last call: that waits for the run
    // to let go of the handler.
    const auto wanted = [&] {
        return transfer->over && (transfer->released || !transfer->trailer.active() || transfer->decodingError || transfer->writeError);
    };
    while (!wanted()) {
        transfer->changed.wait_for(lock, kTick);
        if (gSignal.load() != 0) {
            // The driver may be blocked on a source that sends nothing: do not
            // wait for it. Taking the output away under the lock means no
            // handler call writes again; its destruction removes the
            // temporary file.
            const int signal = gSignal.load();
            transfer->end();
            transfer->output.reset();
            progress.clear();
            std::fflush(stdout);
            ::_exit(128 + signal);
        }
        progress.update(transfer->compressedTotal, transfer->decompressedTotal);
    }
    progress.clear();
    auto output = std::move(transfer->output);
    const auto decodingError = transfer->decodingError;
    const auto writeError = transfer->writeError;
    const auto decompressedChecksum = transfer->decompressedChecksum;
    const std::string trailerReason = transfer->trailerReason;
    lock.unlock();

    if (writeError) return reportFailure(destinationName, reasonFromError(writeError));
    if (!trailerReason.empty()) return reportFailure(sourceName, trailerReason);
    if (decodingError) return reportFailure(sourceName, reasonFromError(decodingError));

    if (transfer->trailer.active()) {
        // The range's last bytes: read again, which a file, an HTTP server
        // that takes ranges and a pipe's kept tail all allow.
        const std::uint64_t consumed = transfer->compressedTotal;
        if (!http || handle->isSeekable()) {
            const std::uint64_t tailLength = std::min<std::uint64_t>(consumed, transfer->trailer.tailLength());
            auto tail = handle->readDataInRange(options.offset + consumed - tailLength, tailLength, &error);
            if (!tail) return reportFailure(sourceName, reasonFromError(error));
            const std::string reason = transfer->trailer.verify(*tail);
            if (!reason.empty()) return reportFailure(sourceName, reason);
        }
    }

    // As the library's in-place driver: nothing decompressed, nothing replaced.
    const bool keepSource = options.inPlace && transfer->decompressedTotal == 0;
    if (!keepSource && !output->commit(&error)) return reportFailure(destinationName, reasonFromError(error));
    if (options.checksum != QXChecksumAlgorithmNone) {
        const std::string line = checksumName(options.checksum) + " (decompressed): " +
                                 checksumText(decompressedChecksum, options.checksum) + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    if (transfer->chain && transfer->chain->trailingGarbage()) {
        const std::string line = "qx: " + sourceName + ": warning: trailing garbage ignored\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    return kExitSuccess;
}

} // namespace

void addDecompressCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<DecompressOptions>();
    auto* decompress = app.add_subcommand("decompress", "Decompress a gzip, zlib, raw deflate, bzip2, xz or PBZX payload");
    decompress->add_option("-a,--algorithm", options->algorithm, "auto, none, deflate, raw-deflate, zlib, gzip, bzip2, xz or pbzx")
        ->transform(CLI::CheckedTransformer(kAlgorithms, CLI::ignore_case))
        ->default_str("auto");
    decompress->add_option("--offset", options->offset, "Where the compressed bytes start in SOURCE");
    decompress->add_option("--length", options->length, "How many compressed bytes to read (default: to the end)");
    decompress->add_option("--checksum", options->checksum, "Also print this checksum of the output on standard error")
        ->transform(CLI::CheckedTransformer(checksumAlgorithmsByName(), CLI::ignore_case));
    decompress->add_flag("--in-place", options->inPlace, "Replace SOURCE by its decompressed content");
    decompress->add_option("SOURCE", options->source, "A file, \"-\" for standard input, or an http(s) URL")->required();
    decompress->add_option("-o,--output", options->destination, "Where to write (default: standard output)");
    decompress->callback([&selected, options] { selected = [options] { return runDecompress(*options); }; });
}

} // namespace qxtool
