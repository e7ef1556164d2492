// CompressorTests.cpp - the streaming compressor (round trips through the
// standard tools and our own decompressor, equality with the plain library
// calls, refusals) and its handle and file drivers (ranges, cancel, faults).
#include <gtest/gtest.h>

#include <QXFoundation/QXCompressor.h>

#include "DecompressorPayloads.h"
#include "Internal/QXParallelCompressor.h"
#include "ToolDecode.h"

#include <qx/Log.h>

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <optional>
#include <random>
#include <regex>

using qx::Error;
using namespace decompressorpayloads;
using qxtest::TempDir;
using qxtest::toolDecode;

namespace {

// Input fed in random pieces (empty ones among them, and some larger than one
// output room) to compress, then finish; null when either refused.
template <class Compress, class Finish>
Ref<Data> inPieces(const Bytes& input, unsigned seed, Compress compress, Finish finish) {
    std::mt19937 rng(seed);
    auto out = Data::create();
    for (std::size_t at = 0; at <= input.size();) {
        const std::size_t n = rng() % 8 == 0 ? 0 : std::min<std::size_t>(rng() % 150000 + 1, input.size() - at);
        auto piece = compress(input.data() + at, n);
        if (!piece) return nullptr;
        out->append(*piece);
        at += n;
        if (at == input.size() && n == 0) break;
    }
    auto last = finish();
    return last ? (out->append(*last), out) : nullptr;
}

// Every piece of a parallel stream's end.
Ref<Data> finishAll(QXParallelCompressor& c) {
    auto all = Data::create();
    do {
        auto piece = c.finish(nullptr);
        if (!piece) return nullptr;
        all->append(*piece);
    } while (!c.isFinished());
    return all;
}

Ref<Data> compressInPieces(const Ref<QXCompressor>& c, const Bytes& input, unsigned seed) {
    return inPieces(
        input, seed,
        [&](const std::uint8_t* bytes, std::size_t n) {
            return c->compressedDataFromStreamWithInputData(Data::withBytes(bytes, n));
        },
        [&] { return c->finalDataFromStreamWithError(); });
}

Bytes structuredBinary(std::size_t size) {
    Bytes out;
    for (std::uint32_t i = 0; out.size() < size; ++i)
        for (int b = 0; b < 4; ++b) out.push_back(static_cast<std::uint8_t>((i * 2654435761u) >> (8 * b) & (b ? 0xFF : 0x0F)));
    out.resize(size);
    return out;
}

Ref<qx::URL> fileURL(const std::string& path) { return qx::URL::fileURLWithPath(path); }

// What QXParallelCompressor writes for input at this level, in one piece.
Bytes blocksOf(QXDecompressionAlgorithm algorithm, int level, const Bytes& input) {
    auto c = QXParallelCompressor::create(algorithm, level, 2, nullptr);
    Bytes out = toBytes(c->compress(input.data(), input.size(), nullptr));
    const Bytes last = toBytes(c->finish(nullptr));
    out.insert(out.end(), last.begin(), last.end());
    return out;
}

bool isUniqueID(const std::string& name) {
    static const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    return std::regex_match(name, form);
}

} // namespace

// ---------------------------------------------------------------------------
// The streaming object

TEST(Compressor, RoundTripsThroughTheToolsAndTheDecompressor) {
    const std::pair<const char*, Bytes> inputs[] = {{"empty", {}},
                                                    {"one byte", {'x'}},
                                                    {"text", makePayload(300000)},
                                                    {"binary", structuredBinary(220000)},
                                                    {"incompressible", randomBytes(250000)}};
    const std::pair<QXDecompressionAlgorithm, int> algorithms[] = {
        {QXDecompressionAlgorithmNone, 0}, {QXDecompressionAlgorithmDeflateAny, 1}, {QXDecompressionAlgorithmRawDeflate, 6},
        {QXDecompressionAlgorithmZlib, 9}, {QXDecompressionAlgorithmGzip, 6},       {QXDecompressionAlgorithmBZip2, 2},
        {QXDecompressionAlgorithmXZ, 1}};
    unsigned seed = 1;
    for (const auto& [algorithm, level] : algorithms)
        for (const auto& [name, input] : inputs) {
            SCOPED_TRACE(std::string(name) + ", algorithm " + std::to_string(algorithm));
            auto compressed = compressInPieces(QXCompressor::initForStreamingWithAlgorithm(algorithm, level), input, ++seed);
            ASSERT_TRUE(compressed);
            const Bytes bytes = toBytes(compressed);
            if (algorithm == QXDecompressionAlgorithmNone) {
                EXPECT_EQ(bytes, input);
                continue;
            }
            EXPECT_EQ(toolDecode(algorithm, bytes), std::optional<Bytes>(input));
            EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromData(compressed, algorithm)), input);
        }
}

TEST(Compressor, OutputIsThePlainLibraryCallsAtTheDefaultOrGivenLevel) {
    const Bytes input = makePayload(400000, 7);
    constexpr int kDefault = 100;  // initForStreamingWithAlgorithm without a level
    const struct { QXDecompressionAlgorithm algorithm; int level; Bytes expected; } cases[] = {
        {QXDecompressionAlgorithmDeflateAny, kDefault, deflateBytes(input, 15, 9)},
        {QXDecompressionAlgorithmRawDeflate, kDefault, deflateBytes(input, -15, -1)},
        {QXDecompressionAlgorithmZlib, kDefault, deflateBytes(input, 15, -1)},
        {QXDecompressionAlgorithmGzip, kDefault, deflateBytes(input, 31, -1)},
        {QXDecompressionAlgorithmGzip, 1, deflateBytes(input, 31, 1)},
        {QXDecompressionAlgorithmBZip2, kDefault, bzip2Bytes(input)},
        // The xz tool writes liblzma's single stream with its CRC-64 check.
        {QXDecompressionAlgorithmXZ, 1, qxtest::runFilter("xz -1 -T1 -c", input).value_or(Bytes{})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("algorithm " + std::to_string(c.algorithm) + " level " + std::to_string(c.level));
        auto compressor = c.level == kDefault ? QXCompressor::initForStreamingWithAlgorithm(c.algorithm)
                                              : QXCompressor::initForStreamingWithAlgorithm(c.algorithm, c.level);
        ASSERT_TRUE(compressor);
        auto out = compressInPieces(compressor, input, 3);
        ASSERT_TRUE(out);
        EXPECT_TRUE(toBytes(out) == c.expected);
        EXPECT_TRUE(compressor->isFinished());
        EXPECT_TRUE(toBytes(compressor->finalDataFromStreamWithError()).empty()) << "a second final adds bytes";
    }
}

TEST(Compressor, RefusalsGiveTheirDomainCodeTextAndLogLine) {
    // description "": not checked; logLine "": none.
    const struct { QXDecompressionAlgorithm algorithm; int level; const char *domain, *description, *logLine; int code; } cases[] = {
        {QXDecompressionAlgorithmPBZX, 9, "NSPOSIXErrorDomain", "", "", 22},
        {QXDecompressionAlgorithmAutomatic, 9, "NSPOSIXErrorDomain", "", "", 22},
        {QXDecompressionAlgorithmGzip, 10, "QXCompressorZLIBErrorDomain", "deflateInit error -2: stream error",
         "deflateInit: error -2", Z_STREAM_ERROR},
        {QXDecompressionAlgorithmBZip2, 0, "QXCompressorBZ2ErrorDomain", "BZ2_bzCompressEnd error -2",
         "BZ2_bzCompressInit: error -2", BZ_PARAM_ERROR},
        {QXDecompressionAlgorithmXZ, 10, "lzma_easy_encoder", "", "lzma_easy_encoder: error 8", LZMA_OPTIONS_ERROR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("algorithm " + std::to_string(c.algorithm) + " level " + std::to_string(c.level));
        qx::ScopedLogCapture log;
        Ref<Error> error;
        EXPECT_FALSE(QXCompressor::initForStreamingWithAlgorithm(c.algorithm, c.level, &error));
        EXPECT_QX_ERROR(error, c.domain, c.code);
        EXPECT_TRUE(!*c.description || (error && error->localizedDescription() == c.description));
        EXPECT_EQ(log.lines(), *c.logLine ? std::vector<std::string>{c.logLine} : std::vector<std::string>{});
    }
    // Input that no longer belongs to the stream is refused, not dropped.
    auto finished = QXCompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmZlib);
    ASSERT_TRUE(finished->finalDataFromStreamWithError());
    Ref<Error> error;
    EXPECT_FALSE(finished->compressedDataFromStreamWithInputData(toData("late"), &error));
    EXPECT_QX_ERROR(error, "NSPOSIXErrorDomain", 22);
}

TEST(ParallelCompressor, SameBytesForAnyThreadCountReadByTheTools) {
    // Several deflate blocks and bzip2 streams (level 1: 100,000-byte streams), with the cuts inside pieces.
    Bytes mixed = makePayload(450000, 9);
    const Bytes noise = randomBytes(140000, 9);
    mixed.insert(mixed.begin() + 200000, noise.begin(), noise.end());
    const std::pair<const char*, Bytes> inputs[] = {
        {"empty", {}}, {"one byte", {'y'}}, {"one block", makePayload(131072, 3)}, {"mixed", mixed}};
    const std::pair<QXDecompressionAlgorithm, int> algorithms[] = {
        {QXDecompressionAlgorithmGzip, 6}, {QXDecompressionAlgorithmZlib, 9}, {QXDecompressionAlgorithmRawDeflate, 1},
        {QXDecompressionAlgorithmBZip2, 1}, {QXDecompressionAlgorithmXZ, 0}};
    for (const auto& [algorithm, level] : algorithms)
        for (const auto& [name, input] : inputs) {
            SCOPED_TRACE(std::string(name) + ", algorithm " + std::to_string(algorithm));
            std::optional<Bytes> first;
            for (unsigned threads : {2u, 4u, 8u}) {
                auto c = QXParallelCompressor::create(algorithm, level, threads, nullptr);
                ASSERT_TRUE(c);
                const Bytes out = toBytes(inPieces(
                    input, threads, [&](const std::uint8_t* bytes, std::size_t n) { return c->compress(bytes, n, nullptr); },
                    [&] { return finishAll(*c); }));
                if (!first) {
                    first = out;
                    EXPECT_EQ(toolDecode(algorithm, out), std::optional<Bytes>(input));
                } else {
                    EXPECT_TRUE(out == *first) << threads << " threads";
                }
            }
        }
    // Blocks primed with the input before them lose almost nothing against one stream.
    const Bytes text = makePayload(1000000, 12);
    auto parallel = QXParallelCompressor::create(QXDecompressionAlgorithmGzip, 6, 2, nullptr);
    const std::size_t parallelSize = parallel->compress(text.data(), text.size(), nullptr)->length() +
                                     parallel->finish(nullptr)->length();
    EXPECT_LE(parallelSize, deflateBytes(text, 31, 6).size() * 1005 / 1000);
    Ref<Error> error;
    EXPECT_FALSE(QXParallelCompressor::create(QXDecompressionAlgorithmGzip, 10, 2, &error));
    EXPECT_QX_ERROR(error, "QXCompressorZLIBErrorDomain", Z_STREAM_ERROR);
}

// ---------------------------------------------------------------------------
// Drivers

TEST(CompressorDrivers, FileRangesAndTheCountConsumed) {
    TempDir dir;
    const Bytes content = makePayload(500000, 4);
    const std::string source = dir.file("source", content);
    const struct { std::uint64_t offset, length, expected; } cases[] = {
        {0, 0, 500000}, {1000, 300000, 300000}, {250000, 0, 250000}, {499999, 1, 1},
        {400000, 900000, 100000}, {102400, 102400, 102400}, {7, 102401, 102401}, {500000, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.length));
        const Bytes slice(content.begin() + static_cast<long>(c.offset),
                          content.begin() + static_cast<long>(c.offset + c.expected));
        auto in = qx::FileHandle::fileHandleForReadingAtPath(source);
        dir.file("out", "");
        auto out = qx::FileHandle::fileHandleForWritingToURL(fileURL(dir / "out"));
        ASSERT_TRUE(in && out);
        EXPECT_EQ(QXCompressor::compressFileHandle(in, c.offset, c.length, out, QXDecompressionAlgorithmXZ, nullptr,
                                                   nullptr),
                  static_cast<std::int64_t>(c.expected));
        out->closeFile();
        EXPECT_EQ(toolDecode(QXDecompressionAlgorithmXZ, qxtest::readBytes(dir / "out")), std::optional<Bytes>(slice));
    }
    // The buffer form goes through a temporary file that it removes again.
    TempDir temporaries;
    const std::string previous = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "";
    ::setenv("TMPDIR", temporaries.path().c_str(), 1);
    auto data = QXCompressor::compressedDataFromFileAtURL(fileURL(source), 1000, 300000, QXDecompressionAlgorithmBZip2);
    previous.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", previous.c_str(), 1);
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmBZip2, toBytes(data)),
              std::optional<Bytes>(Bytes(content.begin() + 1000, content.begin() + 301000)));
    EXPECT_TRUE(temporaries.names().empty());
}

TEST(CompressorDrivers, CancelEndsACompleteStreamOfWhatWasRead) {
    TempDir dir;
    const Bytes content = makePayload(1000000, 5);
    const std::string source = dir.file("source", content);
    for (auto algorithm : {QXDecompressionAlgorithmGzip, QXDecompressionAlgorithmBZip2, QXDecompressionAlgorithmXZ})
        for (unsigned threads : {1u, 2u}) {
            SCOPED_TRACE("algorithm " + std::to_string(algorithm) + ", threads " + std::to_string(threads));
            int asked = 0;
            std::int64_t reported = 0;
            dir.file("out", "");
            auto out = qx::FileHandle::fileHandleForWritingToURL(fileURL(dir / "out"));
            const std::int64_t count = QXCompressor::compressFileAtURLToFileHandle(
                fileURL(source), out, algorithm, threads, [&] { return ++asked == 3; },
                [&](std::int64_t n) { reported += n; });
            ASSERT_TRUE(out);
            out->closeFile();
            EXPECT_EQ(count, 2 * 102400);
            EXPECT_EQ(reported, count);
            EXPECT_EQ(toolDecode(algorithm, qxtest::readBytes(dir / "out")),
                      std::optional<Bytes>(Bytes(content.begin(), content.begin() + 2 * 102400)));
        }
}

TEST(CompressorDrivers, ToAURLAndInPlaceReplaceOnlyOnSuccess) {
    TempDir dir;
    const Bytes content = makePayload(300000, 6);
    const std::string source = dir.file("source", content), destination = dir.file("destination", "old");
    ::chmod(destination.c_str(), 0640);
    EXPECT_EQ(QXCompressor::compressFileAtURLToURL(fileURL(source), fileURL(destination), QXDecompressionAlgorithmGzip),
              300000);
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmGzip, qxtest::readBytes(destination)), std::optional<Bytes>(content));
    EXPECT_EQ(qxtest::fileMode(destination), 0640u);

    const struct { const char* name; std::string from; QXDecompressionAlgorithm algorithm; const char* domain; int code; } failures[] = {
        {"missing source", dir / "missing", QXDecompressionAlgorithmGzip, "NSCocoaErrorDomain", 260},
        {"algorithm 7", source, QXDecompressionAlgorithmPBZX, "NSPOSIXErrorDomain", 22},
        {"a folder as source", dir.path().string(), QXDecompressionAlgorithmXZ, "NSCocoaErrorDomain", 256}};
    const Bytes before = qxtest::readBytes(destination);
    for (const auto& f : failures)
        for (unsigned threads : {1u, 2u}) {
            SCOPED_TRACE(std::string(f.name) + ", threads " + std::to_string(threads));
            Ref<Error> error;
            EXPECT_EQ(QXCompressor::compressFileAtURLToURL(fileURL(f.from), fileURL(destination), f.algorithm, threads,
                                                           nullptr, nullptr, &error),
                      -1);
            EXPECT_QX_ERROR(error, f.domain, f.code);
            EXPECT_EQ(qxtest::readBytes(destination), before);
            EXPECT_EQ(dir.names(), (std::vector<std::string>{"destination", "source"}));
        }

    EXPECT_EQ(QXCompressor::compressFileAtURL(fileURL(source), QXDecompressionAlgorithmBZip2), 300000);
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmBZip2, qxtest::readBytes(source)), std::optional<Bytes>(content));
    EXPECT_EQ(dir.names(), (std::vector<std::string>{"destination", "source"}));
}

TEST(CompressorDrivers, AFullDestinationLeavesEverythingAsItWas) {
    TempDir dir;
    const Bytes content = randomBytes(400000, 8);
    const std::string source = dir.file("source", content), destination = dir.file("destination", "old");
    for (bool inPlace : {false, true})
        for (unsigned threads : {1u, 2u}) {
            SCOPED_TRACE(std::string(inPlace ? "in place" : "to a URL") + ", threads " + std::to_string(threads));
            // The limit is set in a child, so that it does not reach the other tests.
            const pid_t child = ::fork();
            if (child == 0) {
                std::signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{65536, 65536};
                ::setrlimit(RLIMIT_FSIZE, &limit);
                Ref<Error> error;
                const std::int64_t count =
                    inPlace ? QXCompressor::compressFileAtURL(fileURL(source), QXDecompressionAlgorithmGzip, threads,
                                                              nullptr, nullptr, &error)
                            : QXCompressor::compressFileAtURLToURL(fileURL(source), fileURL(destination),
                                                                   QXDecompressionAlgorithmGzip, threads, nullptr,
                                                                   nullptr, &error);
                ::_exit(count == -1 && qxtest::isError(error, "NSCocoaErrorDomain", 512) ? 0 : 1);
            }
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "no write error reported";
            EXPECT_EQ(qxtest::readBytes(source), content);
            EXPECT_EQ(qxtest::readFile(destination), "old");
            EXPECT_EQ(dir.names(), (std::vector<std::string>{"destination", "source"}));
        }
}

TEST(CompressorDrivers, ParallelXZEndsInPiecesThatTheDriversWriteWhole) {
    // Incompressible input under one xz block: the whole stream is made at the end.
    TempDir dir;
    const Bytes content = randomBytes(3 << 20, 15);
    const std::string source = dir.file("source", content);
    ASSERT_EQ(QXCompressor::compressFileAtURLToURL(fileURL(source), fileURL(dir / "out"), QXDecompressionAlgorithmXZ,
                                                   2, nullptr, nullptr),
              static_cast<std::int64_t>(content.size()));
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmXZ, qxtest::readBytes(dir / "out")), std::optional<Bytes>(content));
}

TEST(CompressorDrivers, ThreadCountPicksTheSingleStreamOrBlocksInEveryDriver) {
    TempDir dir;
    const Bytes content = makePayload(600000, 13);  // several deflate blocks
    const std::string source = dir.file("source", content);
    const Bytes single = deflateBytes(content, 31, -1), blocks = blocksOf(QXDecompressionAlgorithmGzip, 6, content);
    ASSERT_NE(single, blocks);
    const bool severalProcessors = QXParallelCompressor::resolvedThreadCount(0) > 1;
    const std::pair<std::optional<unsigned>, const Bytes*> counts[] = {
        {std::nullopt, &single}, {1u, &single}, {2u, &blocks}, {3u, &blocks}, {0u, severalProcessors ? &blocks : &single}};

    // Each writes source's compressed form to dir/"out" (in place: to a copy there), through the
    // form without a thread count when none is given.
    using Run = std::function<std::int64_t(std::optional<unsigned>)>;
    const auto gzip = QXDecompressionAlgorithmGzip;
    const auto from = fileURL(source), to = fileURL(dir / "out");
    const auto in = [&] { return qx::FileHandle::fileHandleForReadingAtPath(source); };
    const auto out = [&] { dir.file("out", ""); return qx::FileHandle::fileHandleForWritingToURL(to); };  // closed after the call
    const std::pair<const char*, Run> drivers[] = {
        {"handle range", [&](auto t) { return t ? QXCompressor::compressFileHandle(in(), 0, 0, out(), gzip, *t, nullptr, nullptr)
                                                : QXCompressor::compressFileHandle(in(), 0, 0, out(), gzip, nullptr, nullptr); }},
        {"handle to handle", [&](auto t) { return t ? QXCompressor::compressFileHandleToFileHandle(in(), out(), gzip, *t, nullptr, nullptr)
                                                    : QXCompressor::compressFileHandleToFileHandle(in(), out(), gzip); }},
        {"file to handle", [&](auto t) { return t ? QXCompressor::compressFileAtURLToFileHandle(from, out(), gzip, *t, nullptr, nullptr)
                                                  : QXCompressor::compressFileAtURLToFileHandle(from, out(), gzip); }},
        {"file to URL", [&](auto t) { return t ? QXCompressor::compressFileAtURLToURL(from, to, gzip, *t, nullptr, nullptr)
                                               : QXCompressor::compressFileAtURLToURL(from, to, gzip); }},
        {"in place", [&](auto t) {
             qxtest::writeFile(dir / "out", content);
             return t ? QXCompressor::compressFileAtURL(to, gzip, *t, nullptr, nullptr) : QXCompressor::compressFileAtURL(to, gzip);
         }},
    };
    for (const auto& [name, run] : drivers)
        for (const auto& [threads, expected] : counts) {
            SCOPED_TRACE(std::string(name) + ", threads " + (threads ? std::to_string(*threads) : "not given"));
            EXPECT_EQ(run(threads), static_cast<std::int64_t>(content.size()));
            EXPECT_TRUE(qxtest::readBytes(dir / "out") == *expected);
            EXPECT_EQ(dir.names(), (std::vector<std::string>{"out", "source"}));
        }
}

TEST(CompressorDrivers, TheTemporaryBesideTheTargetIsAFreshUniqueID) {
    TempDir dir;
    const Bytes content = makePayload(300000, 14);
    const std::string source = dir.file("source", content), destination = dir / "destination";
    for (unsigned threads : {1u, 2u}) {
        std::vector<std::string> temporaries;
        auto look = [&](std::int64_t) {
            for (const auto& name : dir.names())
                if (name != "source" && name != "destination" &&
                    std::find(temporaries.begin(), temporaries.end(), name) == temporaries.end())
                    temporaries.push_back(name);
        };
        EXPECT_EQ(QXCompressor::compressFileAtURLToURL(fileURL(source), fileURL(destination), QXDecompressionAlgorithmGzip,
                                                       threads, nullptr, look),
                  300000);
        EXPECT_EQ(QXCompressor::compressFileAtURL(fileURL(source), QXDecompressionAlgorithmGzip, threads, nullptr, look),
                  300000);
        ASSERT_EQ(temporaries.size(), 2u) << "one temporary per run, each new";
        EXPECT_TRUE(isUniqueID(temporaries[0]) && isUniqueID(temporaries[1])) << temporaries[0] << " " << temporaries[1];
        EXPECT_EQ(dir.names(), (std::vector<std::string>{"destination", "source"}));
        qxtest::writeFile(source, content);
    }
}
