// DecompressionStreamTests.cpp - reading decompressed bytes through the stream:
// every creation route with one format (and PBZX, which drains after its
// input), read sizes from one byte to megabytes, the overflow after the
// source's end, the limit, and corrupt sources.

#include "TestSupport.h"

#include <QXFoundation/QXDecompressionStream.h>

#include "DecompressorPayloads.h"

#include <qx/FileHandle.h>
#include <qx/InputStream.h>
#include <qx/URL.h>

using namespace decompressorpayloads;
using qx::Error;
using qx::StreamStatus;
using qxtest::TempDir;

namespace {

// Reads until the stream gives 0 or less; sizeOf(i) is the length of the i-th
// read. lastResult gets the final read's result.
Bytes readAll(const Ref<QXDecompressionStream>& stream, const std::function<std::size_t(std::size_t)>& sizeOf,
              std::int64_t* lastResult = nullptr) {
    Bytes out;
    std::vector<std::uint8_t> buffer;
    for (std::size_t i = 0;; ++i) {
        buffer.resize(sizeOf(i));
        const std::int64_t n = stream->read(buffer.data(), buffer.size());
        if (n <= 0) {
            if (lastResult) *lastResult = n;
            return out;
        }
        EXPECT_LE(static_cast<std::size_t>(n), buffer.size());
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    }
}

} // namespace

TEST(DecompressionStream, EveryRouteByteExactWithTinyAndHugeReads) {
    TempDir dir;
    const Payloads& p = payloads();
    const std::vector<std::pair<const char*, std::function<std::size_t(std::size_t)>>> readSizes = {
        // Then one huge read, which first empties what the tiny ones left over.
        {"1 to 7 bytes", [](std::size_t i) { return i < 5000 ? 1 + i % 7 : std::size_t{1} << 20; }},
        {"around the read-size switch", [](std::size_t i) { return 2048 + i % 3; }},
        {"4 MiB", [](std::size_t) { return std::size_t{4} << 20; }},
    };
    for (const Bytes* compressed : {&p.xz, &p.pbzx}) {
        const std::string path = dir.file("in", *compressed);
        // A data source shows its end with the last bytes, a file only on a
        // read that finds nothing more: both must reach the decoder's end.
        const std::vector<std::pair<const char*, std::function<Ref<QXDecompressionStream>()>>> routes = {
            {"data", [&] { return QXDecompressionStream::initWithData(toData(*compressed), -1); }},
            {"file", [&] { return QXDecompressionStream::initWithFileAtPath(path, -1); }},
            {"URL", [&] { return QXDecompressionStream::initWithURL(qx::URL::fileURLWithPath(path), -1); }},
            {"file handle",
             [&] { return QXDecompressionStream::initWithFileHandle(qx::FileHandle::fileHandleForReadingAtPath(path), true, -1); }},
            {"input stream",
             [&] { return QXDecompressionStream::initWithInputStream(qx::InputStream::inputStreamWithFileAtPath(path), -1); }},
        };
        for (const auto& [routeName, make] : routes) {
            for (const auto& [sizeName, sizeOf] : readSizes) {
                SCOPED_TRACE(std::string(routeName) + ", " + sizeName + ", " + std::to_string(compressed->size()));
                auto stream = make();
                ASSERT_TRUE(stream);
                stream->open();
                std::int64_t last = 0;
                const Bytes out = readAll(stream, sizeOf, &last);
                EXPECT_EQ(last, 0);
                EXPECT_TRUE(out == p.plain) << out.size();
                EXPECT_EQ(stream->streamStatus(), StreamStatus::AtEnd);
                EXPECT_FALSE(stream->hasBytesAvailable());
            }
        }
    }
}

TEST(DecompressionStream, OverflowKeepsTheStreamOpenAfterItsSourceEnded) {
    const Bytes plain = makePayload(4000, 4);
    const Bytes gzip = deflateBytes(plain, 31, 9);
    // One read of the source takes it all, leaving most output to wait.
    ASSERT_LT(gzip.size(), 1024u);
    auto stream = QXDecompressionStream::initWithData(toData(gzip), QXDecompressionAlgorithmAutomatic);
    stream->open();
    std::uint8_t first[10];
    ASSERT_EQ(stream->read(first, sizeof first), 10);
    EXPECT_TRUE(std::equal(first, first + 10, plain.begin()));
    EXPECT_EQ(stream->underlyingStream()->streamStatus(), StreamStatus::AtEnd);
    EXPECT_EQ(stream->overflowLength(), plain.size() - 10);
    EXPECT_EQ(stream->streamStatus(), StreamStatus::Open);
    EXPECT_TRUE(stream->hasBytesAvailable());

    std::vector<std::uint8_t> rest(plain.size());
    ASSERT_EQ(stream->read(rest.data(), 100), 100);
    EXPECT_TRUE(std::equal(rest.begin(), rest.begin() + 100, plain.begin() + 10));
    // Asking for more than is left gives what is left, then the end.
    ASSERT_EQ(stream->read(rest.data(), rest.size()), static_cast<std::int64_t>(plain.size() - 110));
    EXPECT_TRUE(std::equal(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(plain.size() - 110),
                           plain.begin() + 110));
    EXPECT_EQ(stream->overflowLength(), 0u);
    EXPECT_EQ(stream->streamStatus(), StreamStatus::AtEnd);
    EXPECT_EQ(stream->read(rest.data(), rest.size()), 0);
}

TEST(DecompressionStream, LimitCountsDecompressedBytes) {
    const Payloads& p = payloads();
    auto stream = QXDecompressionStream::initWithInputStreamMaxDataLength(
        qx::InputStream::inputStreamWithData(toData(p.xz)), 100000);
    stream->open();
    const Bytes out = readAll(stream, [](std::size_t i) { return 777 * (i + 1); });
    ASSERT_EQ(out.size(), 100000u);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), p.plain.begin()));
    EXPECT_EQ(stream->streamStatus(), StreamStatus::AtEnd);
}

TEST(DecompressionStream, CorruptSourceGivesErrorStatusAndTheDecodersError) {
    const Payloads& p = payloads();
    Bytes damaged = p.xz;
    damaged[damaged.size() / 2] ^= 0x40;
    const std::pair<Bytes, std::int64_t> cases[] = {{damaged, LZMA_DATA_ERROR},
                                                    {Bytes(p.xz.begin(), p.xz.begin() + p.xz.size() / 2), LZMA_BUF_ERROR}};
    TempDir dir;
    for (const auto& [bytes, code] : cases) {
        for (const bool fromFile : {false, true}) {
            SCOPED_TRACE(std::to_string(code) + (fromFile ? ", file" : ", data"));
            // A file shows its end only on a read of nothing; the decoder must
            // still hear of it, or a cut xz stream would just end early.
            auto stream = fromFile ? QXDecompressionStream::initWithFileAtPath(dir.file("bad", bytes), -1)
                                   : QXDecompressionStream::initWithData(toData(bytes), QXDecompressionAlgorithmAutomatic);
            stream->open();
            std::int64_t last = 0;
            const Bytes out = readAll(stream, [](std::size_t) { return 4096; }, &last);
            EXPECT_EQ(last, -1);
            EXPECT_TRUE(std::equal(out.begin(), out.end(), p.plain.begin()));
            EXPECT_EQ(stream->streamStatus(), StreamStatus::Error);
            EXPECT_QX_ERROR(stream->streamError(), "lzma_code", code);
            EXPECT_EQ(stream->streamError(), stream->decompressionStreamError());
            EXPECT_FALSE(stream->hasBytesAvailable());
            std::uint8_t byte;
            EXPECT_EQ(stream->read(&byte, 1), -1);
        }
    }
}

TEST(DecompressionStream, PBZXChunksStillDecodingAfterTheLastInputAreNotLost) {
    // Many chunks, some large: the container's last bytes arrive while
    // earlier chunks are still being decoded on the shared queue.
    std::vector<Bytes> pieces;
    Bytes plain;
    for (unsigned i = 0; i < 12; ++i) {
        pieces.push_back(makePayload(i % 3 == 0 ? 400000 : 3000 + i, 10 + i));
        plain.insert(plain.end(), pieces.back().begin(), pieces.back().end());
    }
    const Bytes pbzx = pbzxBytes(pieces, {4});
    for (int round = 0; round < 12; ++round) {
        auto stream = QXDecompressionStream::initWithData(toData(pbzx), QXDecompressionAlgorithmPBZX);
        stream->open();
        // The first read takes the whole container; later ones only drain,
        // here or on events alone, which the source stopped sending long ago.
        const Bytes out = round % 3 ? toBytes(stream->readDataSynchronouslyToEndOfStream())
                                    : readAll(stream, [&](std::size_t i) { return i == 0 ? 4 * pbzx.size() : 65536; });
        ASSERT_EQ(out.size(), plain.size()) << "round " << round;
        EXPECT_TRUE(out == plain);
        EXPECT_FALSE(stream->needsRunAgain());
    }
}
