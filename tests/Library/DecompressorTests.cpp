// DecompressorTests.cpp - detection, the streaming decompressor (every format
// is tested here and only here), the synchronous drivers and the PBZX chunks
// decoded in parallel.

#include "TestSupport.h"

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXDecompressor.h>

#include "DecompressorPayloads.h"
#include "Internal/QXCodecError.h"
#include "Internal/QXDecompressorTesting.h"
#include "LegacyZipEncoders.h"

#include <qx/Log.h>
#include <qx/OperationQueue.h>

using qx::Error;
using namespace decompressorpayloads;
using qxtest::forEachPiece;
using qxtest::Pipe;
using qxtest::readBytes;
using qxtest::TempDir;

namespace {

// Feeds input in pieces of at most step bytes, the last one final, and drains
// while asked to run again; only the call that finds the end may come back
// empty then, or callers would spin. Every other early output is kept rather
// than copied: the storage of outputs let go is reused, and one still held
// must never change. Null on failure.
Ref<Data> decode(const Ref<QXDecompressor>& d, const Bytes& input, std::size_t step, Ref<Error>* error = nullptr) {
    std::vector<Ref<Data>> outputs;
    bool failed = false;
    forEachPiece(input, step, [&](const std::uint8_t* bytes, std::size_t n, bool isLast) {
        bool again = false;
        for (auto in = Data::withBytes(bytes, n); !failed; in = Data::create()) {
            const bool runningAgain = again;
            auto out = d->decompressedDataFromStreamWithInputData(in, isLast, &again, error);
            failed = !out;
            if (failed) break;
            EXPECT_TRUE(!runningAgain || out->length() > 0 || !again) << "an empty run-again call";
            const bool hold = outputs.size() < 64 && outputs.size() % 2 == 0;  // each holds its storage
            outputs.push_back(hold ? out : Data::withBytes(out->bytes(), out->length()));
            if (!again) break;
        }
    });
    if (failed) return nullptr;
    auto all = Data::create();
    for (const auto& piece : outputs) all->append(*piece);
    return all;
}

Ref<Data> decode(QXDecompressionAlgorithm algorithm, const Bytes& input, std::size_t step, Ref<Error>* error = nullptr) {
    return decode(QXDecompressor::initForStreamingWithAlgorithm(algorithm), input, step, error);
}

Ref<qx::URL> fileURL(const std::string& path) { return qx::URL::fileURLWithPath(path); }


} // namespace

// ---------------------------------------------------------------------------
// Detection

// Each format from data and from files, through the generic call and its own
// predicate (which no other format may pass); the caller's own magic list.
TEST(DecompressorDetection, EveryFormatPredicateAndCallerMagic) {
    const auto& p = payloads();
    TempDir dir;
    using DataTest = bool (*)(const Ref<Data>&);
    using FileTest = bool (*)(const Ref<qx::URL>&);
    const std::tuple<const Bytes*, QXDecompressionAlgorithm, DataTest, FileTest> cases[] = {
        {&p.gzip, QXDecompressionAlgorithmGzip, QXDecompressor::isDataGZCompressed, QXDecompressor::isFileGZCompressedAtURL},
        {&p.zlib, QXDecompressionAlgorithmZlib, QXDecompressor::isDataZlibCompressed, QXDecompressor::isFileZlibCompressedAtURL},
        {&p.bzip2, QXDecompressionAlgorithmBZip2, QXDecompressor::isDataBZ2Compressed, QXDecompressor::isFileBZ2CompressedAtURL},
        {&p.xz, QXDecompressionAlgorithmXZ, QXDecompressor::isDataXZCompressed, QXDecompressor::isFileXZCompressedAtURL},
        {&p.pbzx, QXDecompressionAlgorithmPBZX, QXDecompressor::isDataPBZXCompressed, QXDecompressor::isFilePBZXCompressedAtURL},
        {&p.raw, QXDecompressionAlgorithmNone, nullptr, nullptr}, {&p.plain, QXDecompressionAlgorithmNone, nullptr, nullptr}};
    for (const auto& [bytes, expected, dataTest, fileTest] : cases) {
        QXDecompressionAlgorithm fromData = 99, fromFile = 99;
        const auto url = fileURL(dir.file("f", *bytes));
        EXPECT_EQ(QXDecompressor::isDataCompressed(toData(*bytes), &fromData), expected != 0);
        EXPECT_EQ(QXDecompressor::isFileCompressedAtURL(url, &fromFile), expected != 0);
        EXPECT_TRUE(fromData == expected && fromFile == expected) << fromData << " " << fromFile;
        for (const auto& [other, otherAlgorithm, otherData, otherFile] : cases)
            EXPECT_TRUE(!otherData || (otherData(toData(*bytes)) == (bytes == other) && otherFile(url) == (bytes == other)));
    }
    QXDecompressionAlgorithm missing = 99;
    EXPECT_FALSE(QXDecompressor::isFileCompressedAtURL(fileURL(dir / "missing"), &missing));
    EXPECT_EQ(missing, QXDecompressionAlgorithmNone);
    // A zlib header is 0x78 and one of three levels; a prefix longer than the data never matches.
    for (std::uint8_t second : {0x9C, 0xDA, 0x01})
        EXPECT_TRUE(QXDecompressor::isDataZlibCompressed(toData(Bytes{0x78, second, 0x00})));
    EXPECT_FALSE(QXDecompressor::isDataZlibCompressed(toData(Bytes{0x78, 0x5E, 0x00})));
    EXPECT_FALSE(QXDecompressor::isDataGZCompressed(toData(Bytes{0x1F})));
    EXPECT_FALSE(QXDecompressor::isDataXZCompressed(toData(Bytes{0xFD, 0x37, 0x7A, 0x58, 0x5A})));
    EXPECT_FALSE(QXDecompressor::isDataCompressed(Data::create()));
    auto magics = std::make_shared<qx::Array>(qx::Array{qx::str("not data"), toData(Bytes{'B', 'Z', 'h'}), toData(p.plain)});
    EXPECT_TRUE(QXDecompressor::doesMagic(magics, toData(p.bzip2)) && QXDecompressor::doesMagicMatch(magics, fileURL(dir.file("b", p.bzip2))));
    EXPECT_FALSE(QXDecompressor::doesMagic(magics, toData(p.xz)) || QXDecompressor::doesMagicMatch(magics, fileURL(dir / "missing")));
    std::string extensions;
    const auto list = QXDecompressor::supportedFilenameExtensions();  // held: the loop must not outlive it
    for (const auto& e : *list) extensions += e->description() + " ";
    EXPECT_EQ(extensions, "gz gzip bz bz2 xz ");
}

// Every decoder step's failures become their errors, with the step's log line.
TEST(DecompressorErrors, DecoderResultsMapToDomainsCodesAndLogLines) {
    const char* cocoa = qx::NSCocoaErrorDomain;
    const std::tuple<QXCodecStep, int, const char*, std::int64_t, const char*> rows[] = {
        {QXCodecStep::InflateInit, Z_MEM_ERROR, "inflateInit2", Z_MEM_ERROR, "inflateInit2: error -4"},
        {QXCodecStep::BZip2Init, BZ_MEM_ERROR, "BZ2_bzDecompressInit", BZ_MEM_ERROR, "BZ2_bzDecompressInit: error -3"},
        {QXCodecStep::XZInit, LZMA_MEM_ERROR, "lzma_stream_decoder", LZMA_MEM_ERROR, "lzma_stream_decoder: error 5"},
        {QXCodecStep::PBZXInit, 0, cocoa, 256, "QXPBZXDecodeInit failed"},
        {QXCodecStep::PBZXDecode, 1, cocoa, 256, "Error decoding PBZX file: 1"}, {QXCodecStep::PBZXDecode, 4, qx::NSPOSIXErrorDomain, 22, nullptr},
        {QXCodecStep::PBZXDecode, 5, cocoa, 259, nullptr}, {QXCodecStep::PBZXDecode, 9, "QXPBZXDecode", 9, nullptr},
        {QXCodecStep::ExplodeInit, 0, cocoa, 256, nullptr}, {QXCodecStep::UnshrinkInit, 0, cocoa, 256, nullptr},
        {QXCodecStep::Explode, 1, cocoa, 256, "error decompressing: 1"}, {QXCodecStep::Explode, 3, qx::NSPOSIXErrorDomain, 22, nullptr},
        {QXCodecStep::Explode, 4, cocoa, 259, nullptr}, {QXCodecStep::Explode, 7, "QXExplode", 7, nullptr},
        {QXCodecStep::Unshrink, 1, cocoa, 256, "Error decompressing: 1"}, {QXCodecStep::Unshrink, 3, qx::NSPOSIXErrorDomain, 22, nullptr},
        {QXCodecStep::Unshrink, 4, cocoa, 259, nullptr}, {QXCodecStep::Unshrink, 9, "QXUnshrink", 9, nullptr}};
    for (const auto& [step, result, domain, code, logLine] : rows) {
        qx::ScopedLogCapture log;
        EXPECT_QX_ERROR(QXCodecError(step, result), domain, code) << static_cast<int>(step) << " " << result;
        EXPECT_TRUE(!logLine || log.contains(logLine)) << logLine;
    }
}

// ---------------------------------------------------------------------------
// The streaming object

// A byte or a few at a time on a small payload, larger pieces on the large one.
TEST(DecompressorStreaming, EveryFormatWholeAndInPiecesDownToSingleBytes) {
    const auto& p = payloads();
    const Bytes small = makePayload(5000, 7);
    const Bytes gzip = deflateBytes(small, 31), zlib = deflateBytes(small, 15), raw = deflateBytes(small, -15),
                bzip2 = bzip2Bytes(small), xz = xzBytes(small), pbzx = pbzxBytes({small});
    const struct { const Bytes &large, &small; QXDecompressionAlgorithm algorithm; } cases[] = {
                 {p.gzip, gzip, QXDecompressionAlgorithmAutomatic}, {p.gzip, gzip, QXDecompressionAlgorithmGzip},
                 {p.gzip, gzip, QXDecompressionAlgorithmDeflateAny}, {p.zlib, zlib, QXDecompressionAlgorithmAutomatic},
                 {p.zlib, zlib, QXDecompressionAlgorithmZlib},       {p.zlib, zlib, QXDecompressionAlgorithmDeflateAny},
                 {p.raw, raw, QXDecompressionAlgorithmRawDeflate},   {p.raw, raw, QXDecompressionAlgorithmDeflateAny},
                 {p.bzip2, bzip2, QXDecompressionAlgorithmAutomatic}, {p.bzip2, bzip2, QXDecompressionAlgorithmBZip2},
                 {p.xz, xz, QXDecompressionAlgorithmAutomatic},      {p.xz, xz, QXDecompressionAlgorithmXZ},
                 {p.pbzx, pbzx, QXDecompressionAlgorithmAutomatic},  {p.pbzx, pbzx, QXDecompressionAlgorithmPBZX}};
    for (const auto& c : cases) {
        SCOPED_TRACE("algorithm " + std::to_string(c.algorithm) + ", " + std::to_string(c.large.size()) + " bytes");
        Ref<Error> error;
        auto whole = QXDecompressor::decompressedDataFromData(toData(c.large), c.algorithm, &error);
        ASSERT_TRUE(whole) << error->localizedDescription();
        EXPECT_TRUE(toBytes(whole) == p.plain);
        for (std::size_t step : {1u, 7u, 4093u, 65536u}) {
            SCOPED_TRACE(step);
            auto out = decode(c.algorithm, step < 10 ? c.small : c.large, step, &error);
            ASSERT_TRUE(out) << error->localizedDescription();
            EXPECT_TRUE(toBytes(out) == (step < 10 ? small : p.plain));
        }
    }
}

// Gzip holds back the last 8 bytes of everything it is given, so trailers never
// reach inflate: pieces around that size lose nothing, and a wrong CRC-32 goes
// unnoticed here. The header's own CRC-16 is checked.
TEST(DecompressorStreaming, GzipHeldTrailerAndHeaderChecksum) {
    const auto& p = payloads();
    const Bytes small = makePayload(5000, 7);
    for (std::size_t step : {8u, 9u, 10u, 16u, 17u})
        EXPECT_TRUE(toBytes(decode(QXDecompressionAlgorithmGzip, deflateBytes(small, 31), step)) == small) << step;
    Bytes badCRC = p.gzip;
    badCRC[badCRC.size() - 6] ^= 0xFF;
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromData(toData(badCRC), QXDecompressionAlgorithmGzip)) == p.plain);

    Bytes good = {0x1F, 0x8B, 8, 0x0A /* FHCRC | FNAME */, 0, 0, 0, 0, 0, 3, 'a', '.', 't', 'x', 't', 0};
    const std::size_t headerLength = good.size();
    const uLong crc = crc32(0, good.data(), static_cast<uInt>(good.size()));
    good.insert(good.end(), {static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)});
    good.insert(good.end(), p.raw.begin(), p.raw.end());
    good.insert(good.end(), p.gzip.end() - 8, p.gzip.end());
    Bytes bad = good;
    bad[headerLength] ^= 0x01;
    for (std::size_t step : {5u, 65536u}) {
        Ref<Error> error;
        EXPECT_TRUE(toBytes(decode(QXDecompressionAlgorithmAutomatic, good, step)) == p.plain) << step;
        EXPECT_FALSE(decode(QXDecompressionAlgorithmAutomatic, bad, step, &error));
        EXPECT_QX_ERROR(error, "inflate", Z_DATA_ERROR);
    }
}

// Unknown algorithms copy their input; unrecognised data under automatic
// detection gives nothing, however much of it comes.
TEST(DecompressorStreaming, PassThroughUnrecognisedDataAndNullInput) {
    const Bytes input = {1, 2, 3, 0x1F, 0x8B};
    for (QXDecompressionAlgorithm algorithm : {0, 8, 1000, -7}) {
        auto in = toData(input);
        auto out = QXDecompressor::initForStreamingWithAlgorithm(algorithm)->decompressedDataFromStreamWithInputData(in, true);
        ASSERT_TRUE(out);
        EXPECT_NE(out.get(), in.get());
        EXPECT_EQ(toBytes(out), input);
    }
    auto unrecognised = decode(QXDecompressionAlgorithmAutomatic, randomBytes(3000000, 4), 1048576);
    ASSERT_TRUE(unrecognised);
    EXPECT_EQ(unrecognised->length(), 0u);
    Ref<Error> error;
    EXPECT_FALSE(QXDecompressor::init()->decompressedDataFromStreamWithInputData(nullptr, true, nullptr, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, EINVAL);
}

// Xz and PBZX without their magic get it back.
TEST(DecompressorStreaming, MissingMagic) {
    const auto& p = payloads();
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromData(toData(slice(p.xz, 6, p.xz.size())),
                                                                 QXDecompressionAlgorithmXZ)) == p.plain);
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromData(toData(slice(p.pbzx, 4, p.pbzx.size())),
                                                                 QXDecompressionAlgorithmPBZX)) == p.plain);
}

// Deflate and bzip2 cut short end quietly with what they had, and so does
// PBZX cut inside a chunk header (with the chunks before it: 100000 bytes);
// the rest fail with their decoder's error, some with their own log line.
TEST(DecompressorStreaming, TruncatedDamagedOrMisnamedInput) {
    const auto& p = payloads();
    const std::size_t firstChunkEnd = 12 + 16 + xzBytes(slice(p.plain, 0, 100000)).size();
    auto cut = [](const Bytes& b, std::size_t length) { return slice(b, 0, length); };
    Bytes zlibHeader = p.zlib, bzip2Block = p.bzip2, xzMiddle = p.xz;
    zlibHeader[1] ^= 1;
    for (std::size_t i = 100; i < 120; ++i) bzip2Block[i] ^= 0x55;
    xzMiddle[xzMiddle.size() / 2] ^= 0x40;
    Bytes notXZChunk = {'p', 'b', 'z', 'x'};  // a compressed chunk whose bytes are not xz at all
    for (std::uint64_t v : {0, 100, 10}) appendBigEndian64(notXZChunk, v);
    notXZChunk.insert(notXZChunk.end(), 10, 0xAA);
    // domain null: a quiet prefix, of code bytes when not 0.
    const struct { Bytes input; QXDecompressionAlgorithm algorithm; const char* domain; std::int64_t code;
                   const char *logLine = nullptr, *description = nullptr; } cases[] = {
        {cut(p.zlib, p.zlib.size() * 2 / 3), QXDecompressionAlgorithmZlib, nullptr, 0},
        {cut(p.raw, p.raw.size() * 2 / 3), QXDecompressionAlgorithmRawDeflate, nullptr, 0},
        {cut(p.gzip, p.gzip.size() * 2 / 3), QXDecompressionAlgorithmGzip, nullptr, 0},
        {cut(p.bzip2, p.bzip2.size() * 2 / 3), QXDecompressionAlgorithmBZip2, nullptr, 0},
        {cut(p.pbzx, firstChunkEnd + 5), QXDecompressionAlgorithmPBZX, nullptr, 100000},
        {cut(p.xz, p.xz.size() - 10), QXDecompressionAlgorithmXZ, "lzma_code", LZMA_BUF_ERROR},
        {cut(p.pbzx, p.pbzx.size() - 100), QXDecompressionAlgorithmPBZX, "lzma_code", LZMA_BUF_ERROR},
        {zlibHeader, QXDecompressionAlgorithmZlib, "inflate", Z_DATA_ERROR, "zlib error: -3", "inflate: data error"},
        {bzip2Block, QXDecompressionAlgorithmAutomatic, "BZ2_bzDecompress", BZ_DATA_ERROR, "error decompressing: -4",
         "BZ2_bzDecompress: error -4"},
        {xzMiddle, QXDecompressionAlgorithmAutomatic, "lzma_code", LZMA_DATA_ERROR},
        {notXZChunk, QXDecompressionAlgorithmAutomatic, qx::NSCocoaErrorDomain, 259},
        {p.gzip, QXDecompressionAlgorithmBZip2, "BZ2_bzDecompress", BZ_DATA_ERROR_MAGIC},
        {p.bzip2, QXDecompressionAlgorithmZlib, "inflate", Z_DATA_ERROR},
        {p.zlib, QXDecompressionAlgorithmXZ, "lzma_code", LZMA_DATA_ERROR},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        for (std::size_t step : {c.input.size(), std::size_t(999)}) {
            SCOPED_TRACE("case " + std::to_string(i) + ", step " + std::to_string(step));
            qx::ScopedLogCapture log;
            Ref<Error> error;
            auto out = decode(c.algorithm, c.input, step, &error);
            if (!c.domain) {
                ASSERT_TRUE(out) << error->localizedDescription();
                EXPECT_LT(out->length(), p.plain.size());
                if (c.code) { EXPECT_EQ(out->length(), static_cast<std::size_t>(c.code)); }
                EXPECT_TRUE(std::equal(out->bytes(), out->bytes() + out->length(), p.plain.begin()));
                continue;
            }
            EXPECT_FALSE(out);
            EXPECT_QX_ERROR(error, c.domain, c.code);
            EXPECT_TRUE(!c.logLine || log.contains(c.logLine));
            EXPECT_EQ(error && c.description ? error->localizedDescription() : "", c.description ? c.description : "");
        }
    }
}

// Damaged payloads of every format must end in output or an error, never a
// crash, a hang or a read out of bounds (the sanitizer build watches).
TEST(DecompressorStreaming, DamagedInputEndsCleanly) {
    const Bytes plain = makePayload(6000, 3);
    const std::pair<Bytes, QXDecompressionAlgorithm> cases[] = {
        {deflateBytes(plain, 31), 4}, {deflateBytes(plain, 15), 3}, {deflateBytes(plain, -15), 2},
        {bzip2Bytes(plain), 5},       {xzBytes(plain), 6},          {pbzxBytes({plain, plain}, {1}), 7}};
    std::mt19937 rng(42);
    for (const auto& [input, algorithm] : cases) {
        for (int round = 0; round < 60; ++round) {
            Bytes damaged = input;
            for (int i = 0; i < 1 + round % 4; ++i) damaged[rng() % damaged.size()] = static_cast<std::uint8_t>(rng());
            Ref<Error> error;
            EXPECT_TRUE(QXDecompressor::decompressedDataFromData(toData(damaged), algorithm, &error) || error);
            error = nullptr;
            EXPECT_TRUE(decode(algorithm, damaged, 1 + rng() % 300, &error) || error);
        }
    }
}

TEST(DecompressorStreaming, ImplodeAndUnshrinkThroughTheStreamingCall) {
    const Bytes plain = makePayload(50000, 11);
    for (bool large : {false, true}) {
        for (bool literal : {false, true}) {
            auto d = QXDecompressor::initForExplodeStreamingWithUncompressedSize(plain.size(), large, literal);
            ASSERT_TRUE(d);
            EXPECT_TRUE(toBytes(decode(d, legacyzip::implode(plain, large, literal), 777)) == plain);
        }
    }
    auto d = QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(plain.size());
    EXPECT_TRUE(toBytes(decode(d, legacyzip::shrink(plain), 1000)) == plain);

    // A widening beyond 13 bits is corrupt: code 256, subcode 1, five times over.
    legacyzip::BitWriter bits;
    bits.put('a', 9);
    for (unsigned width = 9; width <= 13; ++width) bits.put(256 | 1u << width, 2 * width);
    const Bytes widen = bits.take();
    qx::ScopedLogCapture log;
    Ref<Error> error;
    EXPECT_FALSE(decode(QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(100), widen, widen.size(), &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 259);
    EXPECT_TRUE(log.contains("Error decompressing: 4"));
}

// ---------------------------------------------------------------------------
// Synchronous drivers

// Regular files are read ahead on a second thread, pipes only when the decoder
// asks for more: either way every byte arrives once and in order. Windows cut
// across the 1 MiB reads, of bytes that go through as they are.
TEST(DecompressorDrivers, HandleDriverPipesWindowsProgressCancelAndFailures) {
    TempDir dir;
    const Bytes big = randomBytes(2500000, 9);
    const std::string bigPath = dir.file("big", big);
    Pipe pipe;
    std::thread writer([&] {
        forEachPiece(big, 100000, [&](const std::uint8_t* b, std::size_t n, bool) {
            pipe.write(std::string(reinterpret_cast<const char*>(b), n));
        });
        pipe.closeWriter();
    });
    auto fromPipe = QXDecompressor::decompressedDataFromFileHandle(
        qx::FileHandle::initWithFileDescriptor(pipe.reader(), false), 0, 0, QXDecompressionAlgorithmNone);
    writer.join();
    EXPECT_TRUE(toBytes(fromPipe) == big);
    for (const auto& [offset, length] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {1048570, 20}, {1048576, 10}, {0, 1048577}, {2400000, 0}, {0, 0}}) {
        const Bytes expected = slice(big, offset, length ? offset + length : big.size());
        Bytes out;
        std::int64_t progress = 0;
        EXPECT_EQ(QXDecompressor::decompressFileHandle(
                      qx::FileHandle::fileHandleForReadingAtPath(bigPath), QXDecompressionAlgorithmNone, offset, length,
                      [&](const Ref<Data>& d) { out.insert(out.end(), d->bytes(), d->bytes() + d->length()); },
                      nullptr, [&](std::int64_t c) { progress += c; }),
                  static_cast<std::int64_t>(expected.size()));
        EXPECT_TRUE(out == expected) << offset;
        // The 1 MiB read that ends where the window starts counts for nothing.
        EXPECT_TRUE(offset != 1048576 || progress == 10) << progress;
    }
    const Bytes plain = randomBytes(100, 5);
    const std::string path = dir.file("z", deflateBytes(plain, 15));
    auto open = [&] { return qx::FileHandle::fileHandleForReadingAtPath(path); };
    Bytes seen;
    std::int64_t progress = 0;
    EXPECT_EQ(QXDecompressor::decompressFileHandle(
                  open(), QXDecompressionAlgorithmZlib, 10, 5, [&](const Ref<Data>& d) { seen = toBytes(d); }, nullptr,
                  [&](std::int64_t c) { progress += c; }),
              5);
    EXPECT_EQ(seen, slice(plain, 10, 15));
    EXPECT_EQ(progress, 15);  // cut at the end, not at the start

    Ref<Error> error;
    EXPECT_EQ(QXDecompressor::decompressFileHandle(open(), 3, 200, 0, nullptr, nullptr, nullptr, &error), -1);
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 256);
    bool delivered = false;
    EXPECT_EQ(QXDecompressor::decompressFileHandle(open(), 3, 0, 0, [&](const Ref<Data>&) { delivered = true; },
                                                   [] { return true; }, nullptr, &error),
              -1);
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 3072);
    EXPECT_FALSE(delivered);
    // A handle that opens but cannot be read.
    EXPECT_EQ(QXDecompressor::decompressFileHandle(qx::FileHandle::fileHandleForReadingAtPath(dir.path().string()),
                                                   QXDecompressionAlgorithmXZ, 0, 0, nullptr, nullptr, nullptr, &error),
              -1);
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 256);
}

// Gzip files go through zlib's own reader, which checks the trailer.
TEST(DecompressorDrivers, GzipFilesGoThroughTheVerifyingReader) {
    TempDir dir;
    const auto& p = payloads();
    auto url = fileURL(dir.file("a.gz", p.gzip));
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromFileAtURL(url)) == p.plain);
    EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromFileAtURL(url, 1000, 50)), slice(p.plain, 1000, 1050));
    Bytes badCRC = p.gzip;
    badCRC[badCRC.size() - 6] ^= 0xFF;
    const std::pair<Bytes, int> damaged[] = {{badCRC, Z_DATA_ERROR}, {slice(p.gzip, 0, p.gzip.size() / 2), Z_BUF_ERROR}};
    for (const auto& [bytes, code] : damaged) {
        Ref<Error> error;
        EXPECT_FALSE(QXDecompressor::decompressedDataFromFileAtURL(fileURL(dir.file("bad.gz", bytes)), &error));
        EXPECT_QX_ERROR(error, "gzread", code);
    }
    // Cancelling the gzip reader is not an error: it returns what it read.
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    Ref<Error> error;
    EXPECT_EQ(QXDecompressor::decompressGZFileHandle(handle, 0, 0, nullptr, [] { return true; }, nullptr, &error), 0);
    EXPECT_FALSE(error);
    EXPECT_EQ(QXDecompressor::decompressGZFileHandle(handle, -1, 0, nullptr, nullptr, nullptr, &error), -1);
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, EINVAL);
}

TEST(DecompressorDrivers, FilesToMemoryToAFileAndToSeveralHandles) {
    TempDir dir;
    const auto& p = payloads();
    const std::pair<const char*, const Bytes*> files[] = {{"a.xz", &p.xz}, {"a.pbzx", &p.pbzx}};
    for (const auto& [name, bytes] : files) {
        SCOPED_TRACE(name);
        auto url = fileURL(dir.file(name, *bytes));
        EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromFileAtURL(url)) == p.plain);
        EXPECT_EQ(toBytes(QXDecompressor::decompressedDataFromFileAtURL(url, 150000, 30)), slice(p.plain, 150000, 150030));
        std::int64_t progress = 0;
        EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(url, fileURL(dir / "out"), nullptr,
                                                           [&](std::int64_t c) { progress += c; }),
                  static_cast<std::int64_t>(p.plain.size()));
        EXPECT_EQ(progress, static_cast<std::int64_t>(p.plain.size()));
        EXPECT_TRUE(readBytes(dir / "out") == p.plain);
        std::vector<Ref<qx::FileHandle>> handles;
        for (const char* h : {"h1", "h2"})
            handles.push_back(qx::FileHandle::fileHandleForWritingToURL(fileURL(dir.file(h, ""))));
        EXPECT_EQ(QXDecompressor::decompressFileAtURLToFileHandleArray(url, handles, -1, nullptr, nullptr),
                  static_cast<std::int64_t>(p.plain.size()));
        for (auto& h : handles) h->closeFile();
        EXPECT_TRUE(readBytes(dir / "h1") == p.plain && readBytes(dir / "h2") == p.plain);
    }
}

// In place, the file is replaced only when something came out, keeping its
// mode (a file others may not read must not become readable by everyone, nor
// take a new file's mode); a failure leaves no file behind.
TEST(DecompressorDrivers, InPlaceAndFailedDecompression) {
    TempDir dir;
    const auto& p = payloads();
    const std::string bz2 = dir.file("a.bz2", p.bzip2);
    ASSERT_EQ(::chmod(bz2.c_str(), 0640), 0);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(fileURL(bz2)), static_cast<std::int64_t>(p.plain.size()));
    EXPECT_TRUE(readBytes(bz2) == p.plain);
    EXPECT_EQ(qxtest::fileMode(bz2), 0640u);
    const Bytes empty = deflateBytes({}, 31);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(fileURL(dir.file("e.gz", empty))), 0);
    EXPECT_EQ(readBytes(dir / "e.gz"), empty);
    Bytes bad = p.xz;
    bad[bad.size() / 2] ^= 0x40;
    auto url = fileURL(dir.file("bad.xz", bad));
    Ref<Error> error;
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(url, fileURL(dir / "out"), &error), -1);
    EXPECT_QX_ERROR(error, "lzma_code", LZMA_DATA_ERROR);
    EXPECT_EQ(QXDecompressor::decompressFileAtURLToURL(fileURL(dir / "missing.xz"), fileURL(dir / "out"), &error), -1);
    EXPECT_EQ(QXDecompressor::decompressFileAtURL(url, &error), -1);
    EXPECT_TRUE(readBytes(dir / "bad.xz") == bad);
    EXPECT_EQ(dir.names(), (std::vector<std::string>{"a.bz2", "bad.xz", "e.gz"}));
}

TEST(DecompressorDrivers, SizeQueriesReadTheHeaders) {
    TempDir dir;
    const auto& p = payloads();
    auto size = [&](auto query, const Bytes& bytes) { return query(fileURL(dir.file("f", bytes))); };
    const auto gz = QXDecompressor::uncompressedSizeOfGZFileAtURL, pbzx = QXDecompressor::uncompressedSizeOfPBZXFileAtURL;
    EXPECT_EQ(size(gz, p.gzip), p.plain.size());
    EXPECT_EQ(size(gz, p.xz), 0u);
    EXPECT_EQ(size(gz, {0x1F, 0x8B}), 0u);
    EXPECT_EQ(size(pbzx, p.pbzx), p.plain.size());
    EXPECT_EQ(size(pbzx, p.xz), 0u);
    // A header cut short counts only the complete ones.
    EXPECT_EQ(size(pbzx, slice(p.pbzx, 0, 12 + 16 + 3)), 100000u);
}

// ---------------------------------------------------------------------------
// PBZX chunks decoded in parallel

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

// True when every chunk decoder now in the shared queue goes away before a
// generous deadline: one that stays is held by a decoding thread that never woke.
std::function<bool()> chunkDecodersReleased() {
    std::vector<qx::WeakRef<QXDecompressionOperation>> ops;
    for (const auto& op : QXDecompressor::operationQueue()->operations())
        if (auto chunk = qx::dyn_cast<QXDecompressionOperation>(op)) ops.push_back(chunk);
    EXPECT_FALSE(ops.empty());
    return [ops] { return qxtest::allExpired(ops); };
}

} // namespace

// With tiny chunk buffers the decoders behind the oldest fill them and wait.
TEST(DecompressorPBZX, ManyChunksMixedStoredAndXZComeOutExactlyInOrder) {
    const auto& m = manyChunks();
    ASSERT_GT(m.count, static_cast<std::size_t>(QXDecompressor::maxOperationCount()));
    const std::size_t whole = m.container.size();
    for (const auto& [bufferSize, step] : std::vector<std::pair<std::uint64_t, std::size_t>>{
             {0, whole}, {0, 65536}, {0, 4099}, {0, 333}, {512, whole}, {512, 4099}}) {
        SCOPED_TRACE("buffer " + std::to_string(bufferSize) + ", step " + std::to_string(step));
        SmallChunkBuffers buffers(bufferSize);
        Ref<Error> error;
        auto out = decode(QXDecompressionAlgorithmPBZX, m.container, step, &error);
        ASSERT_TRUE(out) << error->localizedDescription();
        EXPECT_TRUE(toBytes(out) == m.plain);
    }
    // The buffer driver gives the very same input again while asked to run
    // again; it must not be decoded twice.
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromData(toData(m.container), -1)) == m.plain);
}

TEST(DecompressorPBZX, LyingChunkHeadersFailOrDecodeWhatIsThereButNeverTrustTheSizes) {
    const Bytes first = makePayload(20000, 40), second = makePayload(30000, 41), xzFirst = xzBytes(first);
    auto container = [&](std::uint64_t declaredPlain, std::uint64_t declaredPacked) {
        Bytes out = pbzxBytes({first, second});  // then the first chunk's sizes replaced
        out.erase(out.begin() + 12, out.begin() + 28);
        Bytes sizes;
        for (std::uint64_t v : {declaredPlain, declaredPacked}) appendBigEndian64(sizes, v);
        out.insert(out.begin() + 12, sizes.begin(), sizes.end());
        return out;
    };
    // The uncompressed size is only a claim: the data decides the output. A
    // compressed size off by a little either way cuts or overruns the xz
    // stream and misreads the next header; a huge one runs into the end of
    // the input. Each fails with an error, allocating nothing of that size.
    EXPECT_TRUE(toBytes(QXDecompressor::decompressedDataFromData(toData(container(5, xzFirst.size())), 7)) == first + second);
    for (std::uint64_t packed : {xzFirst.size() - 1, xzFirst.size() + 1, std::uint64_t(1) << 62, ~std::uint64_t(0)}) {
        Ref<Error> error;
        EXPECT_FALSE(QXDecompressor::decompressedDataFromData(toData(container(first.size(), packed)), 7, &error));
        EXPECT_TRUE(error) << packed;
    }
}

TEST(DecompressorPBZX, CancelOrDestroyMidStreamWakesAndReleasesEveryChunkDecoder) {
    const auto& m = manyChunks();
    const std::size_t half = m.container.size() / 2;
    SmallChunkBuffers small(256);
    for (bool cancelFirst : {true, false}) {
        SCOPED_TRACE(cancelFirst);
        auto d = QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithmPBZX);
        // Half the container in one call: the decoders behind the oldest fill
        // their buffers and wait for a consumer that is about to go.
        ASSERT_TRUE(d->decompressedDataFromStreamWithInputData(toData(slice(m.container, 0, half)), false));
        EXPECT_FALSE(d->operationError());
        auto released = chunkDecodersReleased();
        if (cancelFirst) {
            d->cancel();
            EXPECT_QX_ERROR(d->operationError(), qx::NSCocoaErrorDomain, 3072);
            Ref<Error> error;
            EXPECT_FALSE(d->decompressedDataFromStreamWithInputData(toData(slice(m.container, half, m.container.size())),
                                                                    true, nullptr, &error));
            EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 3072);
        }
        d.reset();
        EXPECT_TRUE(released());
    }
}

// Streams stop at their end; what follows is counted and ignored.
TEST(DecompressorStreaming, UnconsumedLengthCountsTheBytesAfterTheStreamsEnd) {
    const auto& p = payloads();
    const Bytes tail = toBytes(std::string("\x1f\x8b next member, or garbage"));
    const std::pair<const Bytes*, QXDecompressionAlgorithm> streams[] = {
        {&p.gzip, QXDecompressionAlgorithmGzip}, {&p.zlib, QXDecompressionAlgorithmZlib},
        {&p.raw, QXDecompressionAlgorithmRawDeflate}, {&p.bzip2, QXDecompressionAlgorithmBZip2}};
    for (const auto& [stream, algorithm] : streams)
        for (std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, stream->size(), stream->size() + 3}) {
            SCOPED_TRACE("algorithm " + std::to_string(algorithm) + ", step " + std::to_string(step));
            auto d = QXDecompressor::initForStreamingWithAlgorithm(algorithm);
            auto out = decode(d, *stream + tail, step);
            EXPECT_EQ(toBytes(out), p.plain);
            EXPECT_TRUE(d->isFinished());
            EXPECT_EQ(d->unconsumedLength(), tail.size());
            // What follows the end is ignored, not decoded.
            EXPECT_EQ(d->decompressedDataFromStreamWithInputData(toData(Bytes{1, 2, 3}), true)->length(), 0u);
        }
}
