// DecompressorTests.cpp - detection, the streaming decompressor and its drivers,
// on payloads made at test time by zlib, libbz2 and liblzma.
#include <gtest/gtest.h>

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXDecompressor.h>

#include "DecompressorPayloads.h"
#include "Internal/QXDecompressorTesting.h"
#include "LegacyZipEncoders.h"
#include "LegacyZipFixtures.h"
#include "StreamTestSupport.h"

#include <qx/Log.h>
#include <qx/OperationQueue.h>
#include <qx/String.h>

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using qx::Data;
using qx::Error;
using qx::Ref;
using namespace decompressorpayloads;

namespace {

// Feeds input in pieces of `step` bytes, then an empty final call, draining
// while the decompressor asks to run again. Null on failure.
Ref<Data> decodeInPieces(const Ref<QXDecompressor>& d, const Bytes& input, std::size_t step, Ref<Error>* error) {
    auto out = Data::create();
    for (std::size_t at = 0; at < input.size(); at += step) {
        const std::size_t n = std::min(step, input.size() - at);
        auto piece = d->decompressedDataFromStreamWithInputData(Data::withBytes(input.data() + at, n), false,
                                                                nullptr, error);
        if (!piece) return nullptr;
        out->append(*piece);
    }
    bool again = false;
    do {
        auto piece = d->decompressedDataFromStreamWithInputData(Data::create(), true, &again, error);
        if (!piece) return nullptr;
        out->append(*piece);
    } while (again);
    return out;
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/qx-decompressor-XXXXXX";
        path_ = ::mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(path_); }
    fs::path path(const std::string& name) const { return path_ / name; }
    Ref<qx::URL> url(const std::string& name) const { return qx::URL::fileURLWithPath(path(name).string()); }
    Ref<qx::URL> write(const std::string& name, const Bytes& bytes) const {
        std::ofstream(path(name), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                          static_cast<std::streamsize>(bytes.size()));
        return url(name);
    }
    Bytes read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(path_)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    const fs::path& root() const { return path_; }

private:
    fs::path path_;
};

void expectError(const Ref<Error>& error, const std::string& domain, std::int64_t code) {
    ASSERT_TRUE(error) << "no error for " << domain << " " << code;
    EXPECT_EQ(error->domain(), domain);
    EXPECT_EQ(error->code(), code) << error->localizedDescription();
}

} // namespace

// ---------------------------------------------------------------------------
// Detection

TEST(DecompressorDetection, MagicTableLimitsAndExtensions) {
    EXPECT_EQ(QXDecompressor::maxMagicLength(), 6u);
    auto extensions = QXDecompressor::supportedFilenameExtensions();
    std::vector<std::string> names;
    for (const auto& e : *extensions) names.push_back(qx::dyn_cast<qx::String>(e)->utf8());
    EXPECT_EQ(names, (std::vector<std::string>{"gz", "gzip", "bz", "bz2", "xz"}));
    auto queue = QXDecompressor::operationQueue();
    EXPECT_EQ(queue, QXDecompressor::operationQueue());
    EXPECT_EQ(queue->maxConcurrentOperationCount(), QXDecompressor::maxOperationCount());
}

TEST(DecompressorDetection, RealPayloadsAreRecognisedFromDataAndFiles) {
    const auto& p = payloads();
    const std::vector<std::pair<const Bytes*, QXDecompressionAlgorithm>> cases = {
        {&p.gzip, QXDecompressionAlgorithmGzip}, {&p.zlib, QXDecompressionAlgorithmZlib},
        {&p.bzip2, QXDecompressionAlgorithmBZip2}, {&p.xz, QXDecompressionAlgorithmXZ},
        {&p.pbzx, QXDecompressionAlgorithmPBZX}, {&p.raw, QXDecompressionAlgorithmNone},
        {&p.plain, QXDecompressionAlgorithmNone}};
    TempDir dir;
    for (const auto& [bytes, expected] : cases) {
        QXDecompressionAlgorithm fromData = 99, fromFile = 99;
        EXPECT_EQ(QXDecompressor::isDataCompressed(toData(*bytes), &fromData), expected != 0);
        EXPECT_EQ(fromData, expected);
        auto url = dir.write("f", *bytes);
        EXPECT_EQ(QXDecompressor::isFileCompressedAtURL(url, &fromFile), expected != 0);
        EXPECT_EQ(fromFile, expected);
    }
    EXPECT_TRUE(QXDecompressor::isFileXZCompressedAtURL(dir.write("x", p.xz)));
    EXPECT_FALSE(QXDecompressor::isFileGZCompressedAtURL(dir.url("missing")));
    QXDecompressionAlgorithm missing = 99;
    EXPECT_FALSE(QXDecompressor::isFileCompressedAtURL(dir.url("missing"), &missing));
    EXPECT_EQ(missing, 0);
}

TEST(DecompressorDetection, ZlibPrefixesAndShortData) {
    for (std::uint8_t second : {0x9C, 0xDA, 0x01})
        EXPECT_TRUE(QXDecompressor::isDataZlibCompressed(toData({0x78, second, 0x00})));
    EXPECT_FALSE(QXDecompressor::isDataZlibCompressed(toData({0x78, 0x5E, 0x00})));
    EXPECT_FALSE(QXDecompressor::isDataGZCompressed(toData({0x1F})));
    EXPECT_FALSE(QXDecompressor::isDataXZCompressed(toData({0xFD, 0x37, 0x7A, 0x58, 0x5A})));
    EXPECT_FALSE(QXDecompressor::isDataCompressed(Data::create()));
    // A prefix list is tried in order and each prefix must fit in the data.
    auto magics = qx::Array::create();
    magics->addObject(toData({1, 2, 3, 4}));
    magics->addObject(toData({1, 2}));
    EXPECT_TRUE(QXDecompressor::doesMagic(magics, toData({1, 2, 3})));
    EXPECT_FALSE(QXDecompressor::doesMagic(magics, toData({1})));
}

// ---------------------------------------------------------------------------
// The streaming object

TEST(DecompressorStreaming, EveryFormatDecodesWholeAndInPieces) {
    const auto& p = payloads();
    const std::vector<std::tuple<const char*, const Bytes*, QXDecompressionAlgorithm>> cases = {
        {"gzip auto", &p.gzip, -1},  {"gzip", &p.gzip, 4},          {"gzip any", &p.gzip, 1},
        {"zlib auto", &p.zlib, -1},  {"zlib", &p.zlib, 3},          {"zlib any", &p.zlib, 1},
        {"raw", &p.raw, 2},          {"raw any", &p.raw, 1},        {"bzip2 auto", &p.bzip2, -1},
        {"bzip2", &p.bzip2, 5},      {"xz auto", &p.xz, -1},        {"xz", &p.xz, 6},
        {"pbzx auto", &p.pbzx, -1},  {"pbzx", &p.pbzx, 7}};
    for (const auto& [name, input, algorithm] : cases) {
        SCOPED_TRACE(name);
        Ref<Error> error;
        auto whole = QXDecompressor::decompressedDataFromData(toData(*input), algorithm, &error);
        ASSERT_TRUE(whole) << (error ? error->localizedDescription() : "");
        EXPECT_EQ(toBytes(whole), p.plain);
        for (std::size_t step : {7u, 4093u, 65536u}) {
            SCOPED_TRACE(step);
            auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm, &error);
            ASSERT_TRUE(d);
            auto out = decodeInPieces(d, *input, step, &error);
            ASSERT_TRUE(out) << (error ? error->localizedDescription() : "");
            EXPECT_EQ(toBytes(out), p.plain);
        }
    }
}

TEST(DecompressorStreaming, OneByteAtATime) {
    const Bytes plain = makePayload(20000, 7);
    const std::vector<std::pair<Bytes, QXDecompressionAlgorithm>> cases = {
        {deflateBytes(plain, 31), -1}, {deflateBytes(plain, 15), 1}, {deflateBytes(plain, -15), 2},
        {bzip2Bytes(plain), -1},       {xzBytes(plain), 6},          {pbzxBytes({plain}), -1}};
    for (const auto& [input, algorithm] : cases) {
        SCOPED_TRACE(algorithm);
        Ref<Error> error;
        auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm, &error);
        ASSERT_TRUE(d);
        auto out = decodeInPieces(d, input, 1, &error);
        ASSERT_TRUE(out) << (error ? error->localizedDescription() : "");
        EXPECT_EQ(toBytes(out), plain);
    }
}

// Output buffers are recycled between calls once the caller lets go of them:
// outputs the caller still holds must never change, and the bytes released and
// reused must still come out in order.
TEST(DecompressorStreaming, OutputsKeptByTheCallerStayIntactAcrossCalls) {
    const auto& p = payloads();
    const std::vector<std::pair<const Bytes*, QXDecompressionAlgorithm>> cases = {
        {&p.gzip, 4}, {&p.zlib, 3}, {&p.raw, 2}, {&p.bzip2, 5}, {&p.xz, 6}};
    for (const auto& [input, algorithm] : cases) {
        SCOPED_TRACE(algorithm);
        auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm);
        std::vector<std::pair<Ref<Data>, Bytes>> pieces;  // every other output held, the rest copied
        const std::size_t step = 2039;
        for (std::size_t at = 0; at <= input->size(); at += step) {
            const std::size_t n = std::min(step, input->size() - at);
            const bool isFinal = at + n == input->size();
            auto out = d->decompressedDataFromStreamWithInputData(Data::withBytes(input->data() + at, n), isFinal);
            ASSERT_TRUE(out);
            if (pieces.size() % 2 == 0) {
                pieces.emplace_back(out, Bytes{});
            } else {
                pieces.emplace_back(nullptr, toBytes(out));
            }
            if (isFinal) break;
        }
        Bytes joined;
        for (const auto& [held, copy] : pieces) {
            const Bytes bytes = held ? toBytes(held) : copy;
            joined.insert(joined.end(), bytes.begin(), bytes.end());
        }
        EXPECT_EQ(joined, p.plain);
    }
}

// Gzip holds back the last 8 bytes of everything it is given; whatever the
// piece sizes around that boundary, no byte is lost or reordered.
TEST(DecompressorStreaming, GzipPiecesAroundTheHeldTrailer) {
    const auto& p = payloads();
    for (std::size_t step : {8u, 9u, 10u, 16u, 17u}) {
        SCOPED_TRACE(step);
        Ref<Error> error;
        auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmGzip);
        auto out = decodeInPieces(d, p.gzip, step, &error);
        ASSERT_TRUE(out) << (error ? error->localizedDescription() : "");
        EXPECT_EQ(toBytes(out), p.plain);
    }
    // Trailers never reach the decoder, so a wrong CRC-32 goes unnoticed here.
    Bytes badCRC = p.gzip;
    badCRC[badCRC.size() - 6] ^= 0xFF;
    EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromData(toData(badCRC), QXDecompressionAlgorithmGzip)),
              p.plain);
}

// A gzip header may carry a CRC-16 of itself; that one is checked.
TEST(DecompressorStreaming, GzipHeaderChecksumIsVerified) {
    const auto& p = payloads();
    Bytes header = {0x1F, 0x8B, 8, 0x0A /* FHCRC | FNAME */, 0, 0, 0, 0, 0, 3, 'a', '.', 't', 'x', 't', 0};
    const uLong crc = crc32(0, header.data(), static_cast<uInt>(header.size()));
    Bytes good = header;
    good.push_back(static_cast<std::uint8_t>(crc));
    good.push_back(static_cast<std::uint8_t>(crc >> 8));
    good.insert(good.end(), p.raw.begin(), p.raw.end());
    const Bytes trailer(p.gzip.end() - 8, p.gzip.end());
    good.insert(good.end(), trailer.begin(), trailer.end());
    for (std::size_t step : {5u, 65536u}) {
        SCOPED_TRACE(step);
        Ref<Error> error;
        auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic);
        auto out = decodeInPieces(d, good, step, &error);
        ASSERT_TRUE(out) << (error ? error->localizedDescription() : "");
        EXPECT_EQ(toBytes(out), p.plain);

        Bytes bad = good;
        bad[header.size()] ^= 0x01;
        d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic);
        EXPECT_FALSE(decodeInPieces(d, bad, step, &error));
        expectError(error, "inflate", Z_DATA_ERROR);
    }
}

TEST(DecompressorStreaming, ShortFirstChunksAreHeldUntilTheyDecide) {
    const auto& p = payloads();
    // Deflate family, decided from two bytes: one byte is held.
    auto any = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmDeflateAny);
    auto first = any->decompressedDataFromStreamWithInputData(toData({p.zlib[0]}), false);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->length(), 0u);
    EXPECT_FALSE(any->isSetUp());
    auto rest = any->decompressedDataFromStreamWithInputData(toData(Bytes(p.zlib.begin() + 1, p.zlib.end())), true);
    ASSERT_TRUE(rest);
    EXPECT_EQ(any->algorithm(), QXDecompressionAlgorithmZlib);
    EXPECT_EQ(toBytes(rest), p.plain);

    // Gzip keeps 8 bytes back: a chunk of 8 decodes nothing, yet nothing is lost.
    auto gz = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmGzip);
    auto head = gz->decompressedDataFromStreamWithInputData(toData(Bytes(p.gzip.begin(), p.gzip.begin() + 8)), false);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->length(), 0u);
    auto tail = gz->decompressedDataFromStreamWithInputData(toData(Bytes(p.gzip.begin() + 8, p.gzip.end())), true);
    EXPECT_EQ(toBytes(tail), p.plain);

    // Automatic detection holds bytes that match no prefix yet.
    auto automatic = QXDecompressor::initForStreamingAndReturnError();
    EXPECT_EQ(automatic->decompressedDataFromStreamWithInputData(toData({0xFD, 0x37, 0x7A}), false)->length(), 0u);
    EXPECT_EQ(automatic->algorithm(), QXDecompressionAlgorithmAutomatic);
    auto xzOut = automatic->decompressedDataFromStreamWithInputData(toData(Bytes(p.xz.begin() + 3, p.xz.end())), true);
    EXPECT_EQ(automatic->algorithm(), QXDecompressionAlgorithmXZ);
    EXPECT_EQ(toBytes(xzOut), p.plain);

    // Unrecognised data never decodes, however much of it comes, and a file of
    // it goes through the handle driver as nothing.
    TempDir dir;
    auto plainURL = dir.write("plain", randomBytes(3000000, 4));
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(plainURL);
    EXPECT_EQ(QXDecompressor::decompressFileHandle(handle, QXDecompressionAlgorithmAutomatic, 0, 0, nullptr, nullptr,
                                                   nullptr),
              0);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(plainURL), 0);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"plain"});
}

TEST(DecompressorStreaming, HeaderlessXZAndPBZXGetTheirMagicBack) {
    const auto& p = payloads();
    auto xz = QXDecompressor::decompressedDataFromData(toData(Bytes(p.xz.begin() + 6, p.xz.end())),
                                                       QXDecompressionAlgorithmXZ);
    EXPECT_EQ(toBytes(xz), p.plain);
    auto pbzx = QXDecompressor::decompressedDataFromData(toData(Bytes(p.pbzx.begin() + 4, p.pbzx.end())),
                                                         QXDecompressionAlgorithmPBZX);
    EXPECT_EQ(toBytes(pbzx), p.plain);
}

TEST(DecompressorStreaming, PassThroughCopiesAndNullInputFails) {
    const Bytes input = {1, 2, 3, 0x1F, 0x8B};
    for (QXDecompressionAlgorithm algorithm : {0, 8, 1000, -7}) {
        auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm);
        ASSERT_TRUE(d);
        auto in = toData(input);
        auto out = d->decompressedDataFromStreamWithInputData(in, true);
        ASSERT_TRUE(out);
        EXPECT_NE(out.get(), in.get());
        EXPECT_EQ(toBytes(out), input);
    }
    Ref<Error> error;
    EXPECT_FALSE(QXDecompressor::init()->decompressedDataFromStreamWithInputData(nullptr, true, nullptr, &error));
    expectError(error, "NSPOSIXErrorDomain", 22);
}

TEST(DecompressorStreaming, ZlibStopsAtItsEndAndIgnoresTrailingBytes) {
    const auto& p = payloads();
    Bytes input = p.zlib;
    input.insert(input.end(), {'j', 'u', 'n', 'k'});
    auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmZlib);
    auto out = d->decompressedDataFromStreamWithInputData(toData(input), false);
    EXPECT_EQ(toBytes(out), p.plain);
    EXPECT_TRUE(d->isFinished());
    auto later = d->decompressedDataFromStreamWithInputData(toData({1, 2, 3}), true);
    ASSERT_TRUE(later);
    EXPECT_EQ(later->length(), 0u);
}

TEST(DecompressorStreaming, TruncationIsSilentForDeflateAndBzip2ButReportedForXZAndPBZX) {
    const auto& p = payloads();
    for (const auto& [input, algorithm] : std::vector<std::pair<Bytes, QXDecompressionAlgorithm>>{
             {p.zlib, 3}, {p.raw, 2}, {p.gzip, 4}, {p.bzip2, 5}}) {
        SCOPED_TRACE(algorithm);
        Ref<Error> error;
        auto out = QXDecompressor::decompressedDataFromData(toData(Bytes(input.begin(), input.begin() + input.size() * 2 / 3)),
                                                            algorithm, &error);
        ASSERT_TRUE(out) << error->localizedDescription();
        EXPECT_LT(out->length(), p.plain.size());
        EXPECT_TRUE(std::equal(out->bytes(), out->bytes() + out->length(), p.plain.begin()));
    }
    Ref<Error> error;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(Bytes(p.xz.begin(), p.xz.end() - 10)), 6, &error));
    expectError(error, "lzma_code", LZMA_BUF_ERROR);
    // The last chunk of the container is cut short inside its xz stream.
    error = nullptr;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(Bytes(p.pbzx.begin(), p.pbzx.end() - 100)), 7, &error));
    expectError(error, "lzma_code", LZMA_BUF_ERROR);
    // Cut inside a chunk header: the chunks before it are all there is.
    const std::size_t firstChunkEnd = 12 + 16 + xzBytes(Bytes(p.plain.begin(), p.plain.begin() + 100000)).size();
    auto head = QXDecompressor::decompressedDataFromData(toData(Bytes(p.pbzx.begin(), p.pbzx.begin() + firstChunkEnd + 5)),
                                                         7, &error);
    ASSERT_TRUE(head);
    EXPECT_EQ(toBytes(head), Bytes(p.plain.begin(), p.plain.begin() + 100000));
}

TEST(DecompressorStreaming, CorruptDataGivesTheDecodersErrorAndLogLine) {
    const auto& p = payloads();
    qx::ScopedLogCapture log;
    Ref<Error> error;
    Bytes zlib = p.zlib;
    zlib[1] ^= 1;  // header check fails
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(zlib), 3, &error));
    expectError(error, "inflate", Z_DATA_ERROR);
    EXPECT_EQ(error->localizedDescription(), std::string("inflate: ") + zError(Z_DATA_ERROR));
    EXPECT_TRUE(log.contains("zlib error: -3"));

    Bytes bz = p.bzip2;
    for (std::size_t i = 100; i < 120; ++i) bz[i] ^= 0x55;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(bz), -1, &error));
    expectError(error, "BZ2_bzDecompress", BZ_DATA_ERROR);
    EXPECT_EQ(error->localizedDescription(), "BZ2_bzDecompress: error -4");
    EXPECT_TRUE(log.contains("error decompressing: -4"));

    Bytes xz = p.xz;
    xz[xz.size() / 2] ^= 0x40;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(xz), -1, &error));
    expectError(error, "lzma_code", LZMA_DATA_ERROR);

    // A compressed PBZX chunk whose bytes are not xz at all.
    Bytes pbzx = {'p', 'b', 'z', 'x'};
    appendBigEndian64(pbzx, 0);
    appendBigEndian64(pbzx, 100);
    appendBigEndian64(pbzx, 10);
    for (int i = 0; i < 10; ++i) pbzx.push_back(0xAA);
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(pbzx), -1, &error));
    expectError(error, "NSCocoaErrorDomain", 259);
}

TEST(DecompressorStreaming, WrongAlgorithmForcedFailsInThatDecoder) {
    const auto& p = payloads();
    Ref<Error> error;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(p.gzip), QXDecompressionAlgorithmBZip2, &error));
    expectError(error, "BZ2_bzDecompress", BZ_DATA_ERROR_MAGIC);
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(p.bzip2), QXDecompressionAlgorithmZlib, &error));
    expectError(error, "inflate", Z_DATA_ERROR);
    error = nullptr;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(p.zlib), QXDecompressionAlgorithmXZ, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "lzma_code");
}

TEST(DecompressorStreaming, CancelStopsPBZXOutput) {
    const auto& p = payloads();
    auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX);
    const std::size_t half = p.pbzx.size() / 2;
    ASSERT_TRUE(d->decompressedDataFromStreamWithInputData(toData(Bytes(p.pbzx.begin(), p.pbzx.begin() + half)), false));
    EXPECT_FALSE(d->operationError());
    d->cancel();
    auto error = d->operationError();
    expectError(error, "NSCocoaErrorDomain", 3072);
    Ref<Error> callError;
    EXPECT_FALSE(d->decompressedDataFromStreamWithInputData(toData(Bytes(p.pbzx.begin() + half, p.pbzx.end())), true,
                                                            nullptr, &callError));
    expectError(callError, "NSCocoaErrorDomain", 3072);
}

// Damaged payloads of every format must end in output or an error, never a
// crash, a hang or a read out of bounds (the sanitizer build watches).
TEST(DecompressorStreaming, DamagedInputEndsCleanly) {
    const Bytes plain = makePayload(6000, 3);
    const std::vector<std::pair<Bytes, QXDecompressionAlgorithm>> cases = {
        {deflateBytes(plain, 31), 4}, {deflateBytes(plain, 15), 3}, {deflateBytes(plain, -15), 2},
        {bzip2Bytes(plain), 5},       {xzBytes(plain), 6},          {pbzxBytes({plain, plain}, {1}), 7}};
    std::mt19937 rng(42);
    for (const auto& [input, algorithm] : cases) {
        for (std::size_t cut = 0; cut < input.size(); cut += 1 + input.size() / 97) {
            for (QXDecompressionAlgorithm a : {algorithm, QXDecompressionAlgorithm(-1)}) {
                Ref<Error> error;
                auto out = QXDecompressor::decompressedDataFromData(toData(Bytes(input.begin(), input.begin() + cut)), a,
                                                                    &error);
                EXPECT_TRUE(out || error);
            }
        }
        for (int round = 0; round < 60; ++round) {
            Bytes damaged = input;
            for (int i = 0; i < 1 + round % 4; ++i) damaged[rng() % damaged.size()] = static_cast<std::uint8_t>(rng());
            Ref<Error> error;
            auto out = QXDecompressor::decompressedDataFromData(toData(damaged), algorithm, &error);
            EXPECT_TRUE(out || error);
            auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm);
            auto pieces = decodeInPieces(d, damaged, 1 + rng() % 300, &error);
            EXPECT_TRUE(pieces || error);
        }
    }
}

TEST(DecompressorStreaming, ImplodeAndUnshrinkDecodeThroughTheStreamingCall) {
    const Bytes plain = makePayload(50000, 11);
    for (bool large : {false, true}) {
        for (bool literal : {false, true}) {
            const Bytes imploded = legacyzip::implode(plain, large, literal);
            auto d = QXDecompressor::initForExplodeStreamingWithUncompressedSize(plain.size(), large, literal);
            ASSERT_TRUE(d);
            EXPECT_EQ(d->algorithm(), QXDecompressionAlgorithmNone);
            Ref<Error> error;
            auto out = decodeInPieces(d, imploded, 777, &error);
            ASSERT_TRUE(out);
            EXPECT_EQ(toBytes(out), plain);
        }
    }
    const Bytes shrunk = legacyzip::shrink(plain);
    auto d = QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(plain.size());
    Ref<Error> error;
    auto out = decodeInPieces(d, shrunk, 1000, &error);
    ASSERT_TRUE(out);
    EXPECT_EQ(toBytes(out), plain);

    // A widening beyond 13 bits is corrupt: code 256, subcode 1, five times over.
    std::vector<bool> bits;
    auto put = [&](unsigned code, unsigned width) {
        for (unsigned i = 0; i < width; ++i) bits.push_back((code >> i) & 1u);
    };
    put('a', 9);
    for (unsigned width = 9; width <= 13; ++width) {
        put(256, width);
        put(1, width);
    }
    Bytes widen((bits.size() + 7) / 8);
    for (std::size_t i = 0; i < bits.size(); ++i)
        if (bits[i]) widen[i / 8] |= static_cast<std::uint8_t>(1u << (i % 8));
    auto bad = QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(100);
    qx::ScopedLogCapture log;
    EXPECT_FALSE(bad->decompressedDataFromStreamWithInputData(toData(widen), true, nullptr, &error));
    expectError(error, "NSCocoaErrorDomain", 259);
    EXPECT_TRUE(log.contains("Error decompressing: 4"));
}

// ---------------------------------------------------------------------------
// Drivers

TEST(DecompressorDrivers, HandleDriverDeliversExactlyTheRequestedWindow) {
    TempDir dir;
    const Bytes plain = randomBytes(100, 5);
    auto url = dir.write("z", deflateBytes(plain, 15));
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    Bytes seen;
    std::int64_t progress = 0;
    const std::int64_t n = QXDecompressor::decompressFileHandle(
        handle, QXDecompressionAlgorithmZlib, 10, 5, [&](const Ref<Data>& d) { seen = toBytes(d); }, nullptr,
        [&](std::int64_t c) { progress += c; });
    EXPECT_EQ(n, 5);
    EXPECT_EQ(seen, Bytes(plain.begin() + 10, plain.begin() + 15));
    EXPECT_EQ(progress, 15);  // cut at the end, not at the start

    Ref<Error> error;
    handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    EXPECT_EQ(QXDecompressor::decompressFileHandle(handle, 3, 200, 0, nullptr, nullptr, nullptr, &error), -1);
    expectError(error, "NSCocoaErrorDomain", 256);

    handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    bool delivered = false;
    EXPECT_EQ(QXDecompressor::decompressFileHandle(handle, 3, 0, 0, [&](const Ref<Data>&) { delivered = true; },
                                                   [] { return true; }, nullptr, &error),
              -1);
    expectError(error, "NSCocoaErrorDomain", 3072);
    EXPECT_FALSE(delivered);
}

TEST(DecompressorDrivers, WindowAcrossReadBoundaries) {
    TempDir dir;
    const Bytes plain = randomBytes(2500000, 9);
    auto url = dir.write("plain", plain);
    for (const auto& [offset, length] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {1048570, 20}, {0, 1048577}, {2400000, 0}, {0, 0}}) {
        auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
        auto out = QXDecompressor::decompressedDataFromFileHandle(handle, offset, length, QXDecompressionAlgorithmNone);
        ASSERT_TRUE(out);
        const std::uint64_t end = length ? offset + length : plain.size();
        EXPECT_EQ(toBytes(out), Bytes(plain.begin() + offset, plain.begin() + end));
    }
}

// Regular files are read ahead on a second thread; pipes only when the
// decoder asks for more. Either way every byte arrives once and in order, and
// a failing read ends in the read error.
TEST(DecompressorDrivers, PipesAndFilesDeliverEveryByteInOrder) {
    const auto& p = payloads();
    const Bytes big = randomBytes(3300000, 12);  // several reads' worth
    TempDir dir;
    for (const auto& [input, algorithm, expected] :
         std::vector<std::tuple<const Bytes*, QXDecompressionAlgorithm, const Bytes*>>{
             {&big, QXDecompressionAlgorithmNone, &big}, {&p.xz, QXDecompressionAlgorithmXZ, &p.plain}}) {
        SCOPED_TRACE(algorithm);
        auto fromFile = QXDecompressor::decompressedDataFromFileHandle(
            qx::FileHandle::fileHandleForReadingFromURL(dir.write("in", *input)), 0, 0, algorithm);
        EXPECT_EQ(toBytes(fromFile), *expected);

        streamtest::Pipe pipe;
        std::thread writer([&] {
            for (std::size_t at = 0; at < input->size(); at += 100000)
                pipe.write(std::string(input->begin() + static_cast<std::ptrdiff_t>(at),
                                       input->begin() + static_cast<std::ptrdiff_t>(
                                                            std::min(input->size(), at + 100000))));
            pipe.closeWriter();
        });
        auto fromPipe = QXDecompressor::decompressedDataFromFileHandle(
            qx::FileHandle::initWithFileDescriptor(pipe.reader(), false), 0, 0, algorithm);
        writer.join();
        EXPECT_EQ(toBytes(fromPipe), *expected);
    }

    Ref<Error> error;
    auto directory = qx::FileHandle::fileHandleForReadingAtPath(dir.root().string());
    ASSERT_TRUE(directory);
    EXPECT_EQ(QXDecompressor::decompressFileHandle(directory, QXDecompressionAlgorithmXZ, 0, 0, nullptr, nullptr,
                                                   nullptr, &error),
              -1);
    expectError(error, "NSCocoaErrorDomain", 256);
}

TEST(DecompressorDrivers, GzipFilesGoThroughTheVerifyingReader) {
    TempDir dir;
    const auto& p = payloads();
    auto url = dir.write("a.gz", p.gzip);
    auto whole = QXDecompressor::decompressedDataFromFileAtURL(url);
    EXPECT_EQ(toBytes(whole), p.plain);
    auto window = QXDecompressor::decompressedDataFromFileAtURL(url, 1000, 50);
    EXPECT_EQ(toBytes(window), Bytes(p.plain.begin() + 1000, p.plain.begin() + 1050));

    Ref<Error> error;
    Bytes badCRC = p.gzip;
    badCRC[badCRC.size() - 6] ^= 0xFF;
    EXPECT_FALSE(QXDecompressor::decompressedDataFromFileAtURL(dir.write("crc.gz", badCRC), &error));
    expectError(error, "gzread", Z_DATA_ERROR);
    EXPECT_FALSE(QXDecompressor::decompressedDataFromFileAtURL(
        dir.write("cut.gz", Bytes(p.gzip.begin(), p.gzip.begin() + p.gzip.size() / 2)), &error));
    expectError(error, "gzread", Z_BUF_ERROR);

    // Cancelling the gzip reader is not an error: it returns what it read.
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    error = nullptr;
    EXPECT_EQ(QXDecompressor::decompressGZFileHandle(handle, 0, 0, nullptr, [] { return true; }, nullptr, &error), 0);
    EXPECT_FALSE(error);
    EXPECT_EQ(QXDecompressor::decompressGZFileHandle(handle, -1, 0, nullptr, nullptr, nullptr, &error), -1);
    expectError(error, "NSPOSIXErrorDomain", 22);
}

TEST(DecompressorDrivers, FilesOfEveryFormatToMemoryAndToFiles) {
    TempDir dir;
    const auto& p = payloads();
    for (const auto& [name, bytes] : std::vector<std::pair<std::string, Bytes>>{
             {"a.gz", p.gzip}, {"a.zz", p.zlib}, {"a.bz2", p.bzip2}, {"a.xz", p.xz}, {"a.pbzx", p.pbzx}}) {
        SCOPED_TRACE(name);
        auto url = dir.write(name, bytes);
        EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromFileAtURL(url)), p.plain);
        std::int64_t progress = 0;
        const std::int64_t n = QXDecompressor::decompressFileAtURLToURL(url, dir.url(name + ".out"), nullptr,
                                                                        [&](std::int64_t c) { progress += c; });
        EXPECT_EQ(n, static_cast<std::int64_t>(p.plain.size()));
        EXPECT_EQ(progress, n);
        EXPECT_EQ(dir.read(name + ".out"), p.plain);
    }
    // Several handles get the same bytes.
    auto url = dir.url("a.xz");
    ::close(::open(dir.path("h1").c_str(), O_CREAT | O_WRONLY, 0644));
    ::close(::open(dir.path("h2").c_str(), O_CREAT | O_WRONLY, 0644));
    std::vector<Ref<qx::FileHandle>> handles = {qx::FileHandle::fileHandleForWritingToURL(dir.url("h1")),
                                               qx::FileHandle::fileHandleForWritingToURL(dir.url("h2"))};
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToFileHandleArray(url, handles, -1, nullptr, nullptr),
              static_cast<std::int64_t>(p.plain.size()));
    for (auto& h : handles) h->closeFile();
    EXPECT_EQ(dir.read("h1"), p.plain);
    EXPECT_EQ(dir.read("h2"), p.plain);
}

TEST(DecompressorDrivers, FailedDecompressionLeavesNoFileBehind) {
    TempDir dir;
    Bytes bad = payloads().xz;
    bad[bad.size() / 2] ^= 0x40;
    auto url = dir.write("bad.xz", bad);
    Ref<Error> error;
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(url, dir.url("out"), &error), -1);
    expectError(error, "lzma_code", LZMA_DATA_ERROR);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"bad.xz"});
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(dir.url("missing.xz"), dir.url("out"), &error), -1);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"bad.xz"});
    // In place: the source stays as it was.
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(url, &error), -1);
    EXPECT_EQ(dir.read("bad.xz"), bad);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"bad.xz"});
}

TEST(DecompressorDrivers, InPlaceReplacesOnlyWhenSomethingCameOut) {
    TempDir dir;
    const auto& p = payloads();
    auto url = dir.write("a.bz2", p.bzip2);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(url), static_cast<std::int64_t>(p.plain.size()));
    EXPECT_EQ(dir.read("a.bz2"), p.plain);
    const Bytes empty = deflateBytes({}, 31);
    auto emptyURL = dir.write("e.gz", empty);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(emptyURL), 0);
    EXPECT_EQ(dir.read("e.gz"), empty);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"a.bz2", "e.gz"}));
}

TEST(DecompressorDrivers, SizeQueriesReadTheHeaders) {
    TempDir dir;
    const auto& p = payloads();
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfGZFileAtURL(dir.write("a.gz", p.gzip)), p.plain.size());
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfGZFileAtURL(dir.write("a.xz", p.xz)), 0u);
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfPBZXFileAtURL(dir.write("a.pbzx", p.pbzx)), p.plain.size());
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfPBZXFileAtURL(dir.url("a.xz")), 0u);
    // A header cut short counts only the complete ones.
    Bytes cut(p.pbzx.begin(), p.pbzx.begin() + 12 + 16 + 3);
    cut.resize(cut.size() + 0);
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfPBZXFileAtURL(dir.write("cut.pbzx", cut)), 100000u);
    EXPECT_EQ(QXDecompressor::uncompressedSizeOfGZFileAtURL(dir.write("tiny.gz", {0x1F, 0x8B})), 0u);
}

TEST(DecompressorDrivers, DetectCommandNamesEachFile) {
    TempDir dir;
    const auto& p = payloads();
    std::vector<std::pair<std::string, std::string>> files = {
        {"a.gz", "gzip"}, {"a.zz", "zlib"}, {"a.bz2", "bzip2"}, {"a.xz", "xz"}, {"a.pbzx", "pbzx"}, {"a.txt", "none"}};
    const std::vector<Bytes> contents = {p.gzip, p.zlib, p.bzip2, p.xz, p.pbzx, p.plain};
    std::string command = QX_QX_BINARY " detect";
    std::string expected;
    for (std::size_t i = 0; i < files.size(); ++i) {
        dir.write(files[i].first, contents[i]);
        command += " '" + dir.path(files[i].first).string() + "'";
        expected += dir.path(files[i].first).string() + ": " + files[i].second + "\n";
    }
    const auto out = dir.path("stdout").string(), err = dir.path("stderr").string();
    int status = std::system((command + " >'" + out + "' 2>'" + err + "'").c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    auto read = [](const std::string& path) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    };
    EXPECT_EQ(read(out), expected);

    status = std::system((std::string(QX_QX_BINARY " detect '") + dir.path("nope").string() + "' '" +
                          dir.path("a.xz").string() + "' >'" + out + "' 2>'" + err + "'")
                             .c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read(out), dir.path("a.xz").string() + ": xz\n");
    EXPECT_EQ(read(err).rfind("qx: " + dir.path("nope").string() + ": ", 0), 0u) << read(err);
}

// The real shrink entries through the library: exact bytes, except the streams
// that extend a code freed by the partial clear just before, which are corrupt
// by this decoder's rule and must end in the library's corrupt-file error.
TEST(Decompressor, RealShrinkEntriesDecodeOrFailAsCorrupt) {
    const auto streams = legacyzip::fixtureStreams(1);
    ASSERT_GE(streams.size(), 25u) << "shrink fixtures are missing";
    std::size_t corrupt = 0;
    for (const auto& s : streams) {
        SCOPED_TRACE(s.label);
        Ref<Error> error;
        auto decoder = QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(s.uncompressedSize, &error);
        ASSERT_TRUE(decoder);
        const auto out = decoder->decompressedDataFromStreamWithInputData(toData(s.compressed), true, nullptr, &error);
        if (s.orphans > 0) {
            EXPECT_FALSE(out);
            expectError(error, "NSCocoaErrorDomain", 259);
            ++corrupt;
        } else {
            ASSERT_TRUE(out) << (error ? error->description() : "");
            EXPECT_EQ(legacyzip::sha256Hex(out->bytes(), out->length()), s.expectedSha256);
        }
    }
    EXPECT_GE(corrupt, 5u);
}

// ----- PBZX chunks decoded in parallel -----

namespace {

// Far more chunks than operations may be in flight, of different sizes,
// every third one stored.
struct ManyChunks {
    Bytes plain;
    Bytes container;
    std::size_t count = 40;
    ManyChunks() {
        std::vector<Bytes> pieces;
        std::vector<std::size_t> stored;
        for (std::size_t i = 0; i < count; ++i) {
            pieces.push_back(makePayload(3000 + i * 997, static_cast<unsigned>(i + 10)));
            if (i % 3 == 1) stored.push_back(i);
            plain.insert(plain.end(), pieces.back().begin(), pieces.back().end());
        }
        container = pbzxBytes(pieces, stored);
    }
};

const ManyChunks& manyChunks() {
    static const ManyChunks m;
    return m;
}

// Tiny chunk buffers, so that chunk decoders run into full buffers and wait.
class SmallChunkBuffers {
public:
    explicit SmallChunkBuffers(std::uint64_t bytes) { QXSetChunkBufferSizeForTesting(bytes); }
    ~SmallChunkBuffers() { QXSetChunkBufferSizeForTesting(0); }
};

// The chunk decoders now in the shared queue, held weakly.
std::vector<qx::WeakRef<QXDecompressionOperation>> chunkOperationsInQueue() {
    std::vector<qx::WeakRef<QXDecompressionOperation>> out;
    for (const auto& op : QXDecompressor::operationQueue()->operations())
        if (auto chunk = qx::dyn_cast<QXDecompressionOperation>(op)) out.push_back(chunk);
    return out;
}

// True when every one of them went away before a generous deadline: one that
// stays is held by a decoding thread that never woke.
bool allReleased(const std::vector<qx::WeakRef<QXDecompressionOperation>>& ops) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (const auto& weak : ops)
        while (!weak.expired()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
    return true;
}

} // namespace

TEST(DecompressorPBZX, ManyChunksMixedStoredAndXZComeOutExactlyInOrder) {
    const auto& m = manyChunks();
    ASSERT_GT(m.count, static_cast<std::size_t>(QXDecompressor::maxOperationCount()));
    for (std::size_t step : {m.container.size(), std::size_t(65536), std::size_t(4099), std::size_t(333)}) {
        SCOPED_TRACE(step);
        Ref<Error> error;
        auto out = decodeInPieces(QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX),
                                  m.container, step, &error);
        ASSERT_TRUE(out) << error->localizedDescription();
        EXPECT_EQ(toBytes(out), m.plain);
    }
    // The buffer driver gives the very same input again while asked to run
    // again; it must not be decoded twice.
    EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromData(toData(m.container), -1)), m.plain);
}

TEST(DecompressorPBZX, ChunkDecodersWaitingOnFullBuffersStillDeliverEverything) {
    const auto& m = manyChunks();
    SmallChunkBuffers small(512);
    for (std::size_t step : {m.container.size(), std::size_t(4099)}) {
        SCOPED_TRACE(step);
        Ref<Error> error;
        auto out = decodeInPieces(QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX),
                                  m.container, step, &error);
        ASSERT_TRUE(out);
        EXPECT_EQ(toBytes(out), m.plain);
    }
}

TEST(DecompressorPBZX, EveryRunAgainCallBringsOutputSoCallersNeverSpin) {
    const auto& m = manyChunks();
    auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX);
    bool again = false;
    auto out = d->decompressedDataFromStreamWithInputData(toData(m.container), true, &again);
    ASSERT_TRUE(out);
    Bytes all = toBytes(out);
    std::size_t emptyCalls = 0;
    while (again) {
        auto more = d->decompressedDataFromStreamWithInputData(Data::create(), true, &again);
        ASSERT_TRUE(more);
        // Only the call that finds the last chunk ended may come back empty.
        if (more->length() == 0 && again) ++emptyCalls;
        all.insert(all.end(), more->bytes(), more->bytes() + more->length());
    }
    EXPECT_EQ(emptyCalls, 0u);
    EXPECT_EQ(all, m.plain);
}

TEST(DecompressorPBZX, LyingChunkHeadersFailOrDecodeWhatIsThereButNeverTrustTheSizes) {
    const Bytes first = makePayload(20000, 40), second = makePayload(30000, 41);
    const Bytes xzFirst = xzBytes(first), xzSecond = xzBytes(second);
    auto container = [&](std::uint64_t declaredPlain, std::uint64_t declaredPacked) {
        Bytes out = {'p', 'b', 'z', 'x'};
        appendBigEndian64(out, 0x01000000);
        appendBigEndian64(out, declaredPlain);
        appendBigEndian64(out, declaredPacked);
        out.insert(out.end(), xzFirst.begin(), xzFirst.end());
        appendBigEndian64(out, second.size());
        appendBigEndian64(out, xzSecond.size());
        out.insert(out.end(), xzSecond.begin(), xzSecond.end());
        return out;
    };
    Ref<Error> error;
    // The uncompressed size is only a claim: the data decides the output.
    auto out = QXDecompressor::decompressedDataFromData(toData(container(5, xzFirst.size())), 7, &error);
    ASSERT_TRUE(out);
    Bytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(toBytes(out), both);

    // A compressed size off by a little either way cuts or overruns the xz
    // stream and misreads the next header; a huge one runs into the end of
    // the input. Each fails with an error, allocating nothing of that size.
    for (std::uint64_t packed : {xzFirst.size() - 1, xzFirst.size() + 1, xzFirst.size() + 7,
                                 std::uint64_t(1) << 62, ~std::uint64_t(0)}) {
        SCOPED_TRACE(packed);
        error = nullptr;
        EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(container(first.size(), packed)), 7, &error));
        EXPECT_TRUE(error);
    }
}

TEST(DecompressorPBZX, CancelOrDestroyMidStreamWakesAndReleasesEveryChunkDecoder) {
    const auto& m = manyChunks();
    SmallChunkBuffers small(256);
    for (bool cancelFirst : {true, false}) {
        SCOPED_TRACE(cancelFirst);
        auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX);
        // Half the container in one call: the decoders behind the oldest fill
        // their buffers and wait for a consumer that is about to go.
        ASSERT_TRUE(d->decompressedDataFromStreamWithInputData(toData(Bytes(m.container.begin(),
                                                                            m.container.begin() + m.container.size() / 2)),
                                                               false));
        auto ops = chunkOperationsInQueue();
        EXPECT_FALSE(ops.empty());
        if (cancelFirst) {
            d->cancel();
            expectError(d->operationError(), "NSCocoaErrorDomain", 3072);
            Ref<Error> error;
            EXPECT_FALSE(d->decompressedDataFromStreamWithInputData(toData(Bytes(m.container.begin() + m.container.size() / 2,
                                                                                 m.container.end())),
                                                                    true, nullptr, &error));
            expectError(error, "NSCocoaErrorDomain", 3072);
        }
        d.reset();
        EXPECT_TRUE(allReleased(ops));
    }
}

// A file only its owner may read must not become readable by everyone when
// it is replaced by its decompressed content, in place or as a destination.
TEST(DecompressorDrivers, ReplacingAFileKeepsItsMode) {
    TempDir dir;
    const auto& p = payloads();
    auto modeOf = [](const Ref<qx::URL>& url) {
        struct stat info {};
        return ::stat(url->path().c_str(), &info) == 0 ? (info.st_mode & 07777) : 0u;
    };
    auto secret = dir.write("secret.xz", p.xz);
    ASSERT_EQ(::chmod(secret->path().c_str(), 0600), 0);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(secret), static_cast<std::int64_t>(p.plain.size()));
    EXPECT_EQ(dir.read("secret.xz"), p.plain);
    EXPECT_EQ(modeOf(secret), 0600u);

    auto destination = dir.write("out", Bytes{1, 2, 3});
    ASSERT_EQ(::chmod(destination->path().c_str(), 0640), 0);
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(dir.write("a.gz", p.gzip), destination),
              static_cast<std::int64_t>(p.plain.size()));
    EXPECT_EQ(dir.read("out"), p.plain);
    EXPECT_EQ(modeOf(destination), 0640u);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"a.gz", "out", "secret.xz"}));
}
