// QXUDIFTrailer.h - the 512-byte trailer that ends every flattened UDIF image,
// and the checksum record it shares with the block tables.
//
// All integers in a UDIF image are big-endian. The trailer is recognised by
// its magic alone; parse() then checks every offset and length in it against
// the file, so that nothing the rest of the reader does with them can reach
// outside the file or ask for an absurd allocation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace QXUDIF {

inline std::uint16_t be16(const std::uint8_t* p) { return static_cast<std::uint16_t>((p[0] << 8) | p[1]); }
inline std::uint32_t be32(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}
inline std::uint64_t be64(const std::uint8_t* p) { return (std::uint64_t{be32(p)} << 32) | be32(p + 4); }

inline void putBE16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}
inline void putBE32(std::uint8_t* p, std::uint32_t v) {
    putBE16(p, static_cast<std::uint16_t>(v >> 16));
    putBE16(p + 2, static_cast<std::uint16_t>(v));
}
inline void putBE64(std::uint8_t* p, std::uint64_t v) {
    putBE32(p, static_cast<std::uint32_t>(v >> 32));
    putBE32(p + 4, static_cast<std::uint32_t>(v));
}

inline constexpr std::uint64_t kSectorSize = 512;
// 2^40 sectors is 512 TiB: far beyond any real image, small enough that
// byte counts derived from it never overflow.
inline constexpr std::uint64_t kMaxSectorCount = 1ull << 40;
// The property list is parsed in memory; real ones are a few hundred KiB.
inline constexpr std::uint64_t kMaxXMLLength = 256ull << 20;
inline constexpr std::uint64_t kMaxResourceForkLength = 256ull << 20;

inline constexpr std::uint32_t kChecksumNone = 0;
inline constexpr std::uint32_t kChecksumCRC32 = 2;

/// A checksum as images store it: kind, width in bits, and up to 128 bytes.
struct Checksum {
    std::uint32_t type = kChecksumNone;
    std::uint32_t bits = 0;
    std::array<std::uint8_t, 128> bytes{};

    static Checksum parse(const std::uint8_t* p);
    /// A CRC-32 record holding value.
    static Checksum crc32(std::uint32_t value);
    /// The 136 bytes parse() reads.
    void write(std::uint8_t* p) const;
    bool isCRC32() const { return type == kChecksumCRC32 && bits == 32; }
    std::uint32_t value32() const { return be32(bytes.data()); }
};

struct Trailer {
    static constexpr std::size_t Size = 512;

    std::uint32_t version = 0;
    std::uint32_t headerSize = 0;
    std::uint32_t flags = 0;
    std::uint64_t dataForkOffset = 0;
    std::uint64_t dataForkLength = 0;
    std::uint64_t rsrcForkOffset = 0;
    std::uint64_t rsrcForkLength = 0;
    std::uint32_t segmentNumber = 0;
    std::uint32_t segmentCount = 0;
    std::array<std::uint8_t, 16> segmentID{};
    Checksum dataForkChecksum;
    std::uint64_t xmlOffset = 0;
    std::uint64_t xmlLength = 0;
    Checksum masterChecksum;
    std::uint32_t imageVariant = 0;
    std::uint64_t sectorCount = 0;

    /// Whether the 512 bytes begin with the trailer's magic.
    static bool hasMagic(const std::uint8_t* bytes);
    /// Reads the trailer at the end of a file of fileSize bytes; nothing and
    /// the reason when a field lies about the file.
    static std::optional<Trailer> parse(const std::uint8_t* bytes, std::uint64_t fileSize, std::string* reason);
    /// The 512 bytes of this trailer, reserved fields zero.
    std::array<std::uint8_t, Size> serialize() const;

    /// Whether the trailer says the image is one segment of several; asked
    /// before parse, as a segment's forks need not lie within its own file.
    static bool isSegmented(const std::uint8_t* bytes) { return be32(bytes + 60) > 1 || be32(bytes + 56) > 1; }
};

/// Whether [offset, offset + length) lies within [0, limit), without overflow.
inline bool rangeWithin(std::uint64_t offset, std::uint64_t length, std::uint64_t limit) {
    return offset <= limit && length <= limit - offset;
}

} // namespace QXUDIF
