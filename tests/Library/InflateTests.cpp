// InflateTests.cpp - the fast inflate path against zlib alone, call for call:
// the same outputs, errors, log lines, finished flag and bytes left over.

#include "TestSupport.h"

#include <QXFoundation/QXDecompressor.h>

#include "DecompressorPayloads.h"
#include "Internal/QXDecompressorTesting.h"

#include <qx/Log.h>

#include <random>

using namespace decompressorpayloads;

namespace {

// What one decoder showed of a run: each call's output or error, then its state.
std::vector<std::string> trace(const Bytes& input, QXDecompressionAlgorithm algorithm, unsigned seed, bool zlibOnly) {
    // The codec is made by the first call that brings enough input.
    QXSetZlibInflateForTesting(zlibOnly);
    auto decoder = QXDecompressor::initForStreamingWithAlgorithm(algorithm);
    std::vector<std::string> seen;
    qx::ScopedLogCapture log;
    std::mt19937 random(seed);
    // ISA-L may keep the last few bytes of a call's output for the next one
    // (see QXZlibCodec.h): the output is compared whole, each call's failure one by one.
    Bytes output;
    for (std::size_t at = 0; at < input.size();) {
        // Mostly small pieces, so headers, blocks and trailers are cut everywhere.
        const std::size_t step = random() % 3 == 0 ? 1 + random() % 40 : 1 + random() % 6000;
        const std::size_t n = std::min(step, input.size() - at);
        qx::Ref<qx::Error> error;
        auto out = decoder->decompressedDataFromStreamWithInputData(Data::withBytes(input.data() + at, n),
                                                                    at + n == input.size(), nullptr, &error);
        if (out) output.insert(output.end(), out->bytes(), out->bytes() + out->length());
        seen.push_back(out ? "ok" : "error " + error->domain() + " " + std::to_string(error->code()) + " " + error->localizedDescription());
        at += n;
    }
    seen.push_back("out " + std::to_string(output.size()) + " " + std::to_string(crc32(0, output.data(), static_cast<uInt>(output.size()))));
    QXSetZlibInflateForTesting(false);
    for (const auto& line : log.lines()) seen.push_back("log " + line);
    seen.push_back("finished " + std::to_string(decoder->isFinished()) + " left " + std::to_string(decoder->unconsumedLength()));
    return seen;
}

Bytes gzipWithHeaderFields(const Bytes& plain) {
    Bytef extra[300] = {'x', 'y', 40, 1};
    char name[] = "name.txt", comment[] = "a comment";
    gz_header header{};
    header.extra = extra;
    header.extra_len = sizeof extra;
    header.name = reinterpret_cast<Bytef*>(name);
    header.comment = reinterpret_cast<Bytef*>(comment);
    header.hcrc = 1;
    return deflateBytes(plain, 31, 6, [&](z_stream& z) { deflateSetHeader(&z, &header); });
}

Bytes zlibWithDictionary(const Bytes& plain) {
    return deflateBytes(plain, 15, 6, [&](z_stream& z) { deflateSetDictionary(&z, plain.data(), 1000); });
}

Bytes with(Bytes b, std::size_t at, std::uint8_t mask) {
    b[at % b.size()] ^= mask;
    return b;
}

} // namespace

TEST(Inflate, BothPathsAgreeCallForCall) {
    const Bytes plain = makePayload(90000, 7) + randomBytes(9000, 8);
    const Bytes gzip = deflateBytes(plain, 31), zlib = deflateBytes(plain, 15), raw = deflateBytes(plain, -15, 1);
    const Bytes trailing = toBytes(std::string("trailing bytes, not a stream"));
    const std::vector<Bytes> inputs = {
        gzip, zlib, raw, deflateBytes(plain, 15, 0), deflateBytes(plain, 9, 9), deflateBytes({}, 31),
        gzipWithHeaderFields(plain), zlibWithDictionary(plain),
        slice(gzip, 0, gzip.size() / 2), slice(zlib, 0, zlib.size() - 3), slice(raw, 0, 5),
        gzip + trailing, zlib + trailing, raw + trailing, gzip + gzip,
        with(gzip, 3, 0xE0), with(gzip, 2, 1), with(zlib, 0, 0x10), with(zlib, zlib.size() - 2, 1),
        with(gzip + trailing, gzip.size() - 6, 4), with(gzip + trailing, gzip.size() - 2, 1),
        with(raw, 0, 6), with(raw, 400, 0x5A), with(gzip, gzip.size() / 3, 0x81), with(zlib, 2000, 0x10),
    };
    const QXDecompressionAlgorithm algorithms[] = {QXDecompressionAlgorithmDeflateAny, QXDecompressionAlgorithmRawDeflate,
                                                   QXDecompressionAlgorithmZlib, QXDecompressionAlgorithmGzip};
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        for (const auto algorithm : algorithms) {
            for (unsigned seed = 1; seed <= 3; ++seed) {
                SCOPED_TRACE("input " + std::to_string(i) + ", algorithm " + std::to_string(algorithm) + ", seed " + std::to_string(seed));
                const auto fast = trace(inputs[i], algorithm, seed, false);
                EXPECT_EQ(fast, trace(inputs[i], algorithm, seed, true));
            }
        }
    }
}
