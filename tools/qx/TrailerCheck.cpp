// TrailerCheck.cpp - does a decompressed payload end where its format says it does?
#include "TrailerCheck.h"

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>

namespace qxtool {

namespace {

constexpr std::size_t kGzipTrailer = 8;   // CRC-32, then the length, both little-endian
constexpr std::size_t kZlibTrailer = 4;   // Adler-32, big-endian
// The end-of-stream marker (48 bits) and the stream CRC (32 bits) need not
// start on a byte: up to 7 zero bits pad the end, hence 11 bytes.
constexpr std::size_t kBZip2Trailer = 11;
constexpr std::uint64_t kBZip2EndMarker = 0x177245385090ull;

std::uint32_t littleEndian32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 | static_cast<std::uint32_t>(p[2]) << 16 |
           static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint32_t bigEndian32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 | static_cast<std::uint32_t>(p[2]) << 8 |
           static_cast<std::uint32_t>(p[3]);
}

// Bits [first, first + count) of bytes, most significant bit first; count <= 64.
std::uint64_t bitsAt(const std::uint8_t* bytes, std::size_t first, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = first; i < first + count; ++i) value = value << 1 | ((bytes[i / 8] >> (7 - i % 8)) & 1u);
    return value;
}

bool bzip2EndsProperly(const std::uint8_t* tail) {
    for (std::size_t padding = 0; padding < 8; ++padding) {
        const std::size_t markerStart = kBZip2Trailer * 8 - 80 - padding;
        if (bitsAt(tail, markerStart, 48) == kBZip2EndMarker && bitsAt(tail, kBZip2Trailer * 8 - padding, padding) == 0) return true;
    }
    return false;
}

} // namespace

TrailerCheck::TrailerCheck(QXDecompressionAlgorithm algorithm) : algorithm_(algorithm) {
    switch (algorithm) {
    case QXDecompressionAlgorithmGzip:
        tailLength_ = kGzipTrailer;
        sum_ = 0;
        break;
    case QXDecompressionAlgorithmZlib:
        tailLength_ = kZlibTrailer;
        sum_ = 1;
        break;
    case QXDecompressionAlgorithmBZip2:
        tailLength_ = kBZip2Trailer;
        sum_ = 0;
        break;
    default:
        sum_ = 0;
        break;
    }
}

// ISA-L's checksums: the same values as zlib's, several times faster on
// the output of a fast inflate, which they would otherwise slow down.
void TrailerCheck::addOutput(const std::uint8_t* bytes, std::size_t length) {
    outputLength_ += length;
    if (algorithm_ == QXDecompressionAlgorithmGzip)
        sum_ = ::crc32_gzip_refl(sum_, bytes, length);
    else if (algorithm_ == QXDecompressionAlgorithmZlib)
        sum_ = ::isal_adler32(sum_, bytes, length);
}

std::string TrailerCheck::verify(const qx::Data& tail) const {
    if (!active()) return {};
    if (tail.length() < tailLength_) return "the compressed data ends before its trailer: it is truncated";
    const std::uint8_t* p = tail.bytes() + (tail.length() - tailLength_);
    switch (algorithm_) {
    case QXDecompressionAlgorithmGzip:
        if (littleEndian32(p) != sum_ || littleEndian32(p + 4) != static_cast<std::uint32_t>(outputLength_))
            return "the gzip trailer's CRC-32 or length does not match the data: it is corrupt or truncated";
        return {};
    case QXDecompressionAlgorithmZlib:
        if (bigEndian32(p) != sum_) return "the zlib trailer's Adler-32 does not match the data: it is corrupt or truncated";
        return {};
    default:
        if (!bzip2EndsProperly(p)) return "the bzip2 data does not end with its end-of-stream marker: it is truncated";
        return {};
    }
}

} // namespace qxtool
