// QXUDIFTrailer.cpp - reading and checking the "koly" trailer.
#include "Internal/QXUDIFTrailer.h"

#include <cstring>

namespace QXUDIF {

Checksum Checksum::parse(const std::uint8_t* p) {
    Checksum sum;
    sum.type = be32(p);
    sum.bits = be32(p + 4);
    std::memcpy(sum.bytes.data(), p + 8, sum.bytes.size());
    return sum;
}

Checksum Checksum::crc32(std::uint32_t value) {
    Checksum sum;
    sum.type = kChecksumCRC32;
    sum.bits = 32;
    putBE32(sum.bytes.data(), value);
    return sum;
}

void Checksum::write(std::uint8_t* p) const {
    putBE32(p, type);
    putBE32(p + 4, bits);
    std::memcpy(p + 8, bytes.data(), bytes.size());
}

bool Trailer::hasMagic(const std::uint8_t* bytes) { return std::memcmp(bytes, "koly", 4) == 0; }

std::optional<Trailer> Trailer::parse(const std::uint8_t* p, std::uint64_t fileSize, std::string* reason) {
    auto fail = [reason](const char* text) {
        *reason = text;
        return std::nullopt;
    };
    if (fileSize < Size || !hasMagic(p)) return fail("no image trailer");
    Trailer t;
    t.version = be32(p + 4);
    t.headerSize = be32(p + 8);
    t.flags = be32(p + 12);
    t.dataForkOffset = be64(p + 24);
    t.dataForkLength = be64(p + 32);
    t.rsrcForkOffset = be64(p + 40);
    t.rsrcForkLength = be64(p + 48);
    t.segmentNumber = be32(p + 56);
    t.segmentCount = be32(p + 60);
    std::memcpy(t.segmentID.data(), p + 64, t.segmentID.size());
    t.dataForkChecksum = Checksum::parse(p + 80);
    t.xmlOffset = be64(p + 216);
    t.xmlLength = be64(p + 224);
    t.masterChecksum = Checksum::parse(p + 352);
    t.imageVariant = be32(p + 488);
    t.sectorCount = be64(p + 492);

    // Everything but the trailer itself lies before the trailer.
    const std::uint64_t body = fileSize - Size;
    if (t.version != 4) return fail("unknown image trailer version");
    if (t.headerSize != Size) return fail("bad image trailer size");
    if (!rangeWithin(t.dataForkOffset, t.dataForkLength, body)) return fail("data fork lies outside the file");
    if (!rangeWithin(t.rsrcForkOffset, t.rsrcForkLength, body)) return fail("resource fork lies outside the file");
    if (!rangeWithin(t.xmlOffset, t.xmlLength, body)) return fail("property list lies outside the file");
    if (t.xmlLength > kMaxXMLLength) return fail("property list too large");
    if (t.rsrcForkLength > kMaxResourceForkLength) return fail("resource fork too large");
    if (t.xmlLength == 0 && t.rsrcForkLength == 0) return fail("image has no block tables");
    if (t.sectorCount > kMaxSectorCount) return fail("sector count too large");
    return t;
}

std::array<std::uint8_t, Trailer::Size> Trailer::serialize() const {
    std::array<std::uint8_t, Size> out{};
    std::uint8_t* p = out.data();
    std::memcpy(p, "koly", 4);
    putBE32(p + 4, version);
    putBE32(p + 8, headerSize);
    putBE32(p + 12, flags);
    putBE64(p + 24, dataForkOffset);
    putBE64(p + 32, dataForkLength);
    putBE64(p + 40, rsrcForkOffset);
    putBE64(p + 48, rsrcForkLength);
    putBE32(p + 56, segmentNumber);
    putBE32(p + 60, segmentCount);
    std::memcpy(p + 64, segmentID.data(), segmentID.size());
    dataForkChecksum.write(p + 80);
    putBE64(p + 216, xmlOffset);
    putBE64(p + 224, xmlLength);
    masterChecksum.write(p + 352);
    putBE32(p + 488, imageVariant);
    putBE64(p + 492, sectorCount);
    return out;
}

} // namespace QXUDIF
