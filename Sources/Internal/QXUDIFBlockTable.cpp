// QXUDIFBlockTable.cpp - reading and checking one "mish" block table.
#include "Internal/QXUDIFBlockTable.h"

#include <algorithm>
#include <cstring>

namespace QXUDIF {

namespace {

bool knownType(std::uint32_t type) {
    switch (type) {
    case kChunkZeroFill:
    case kChunkRaw:
    case kChunkIgnore:
    case kChunkComment:
    case kChunkADC:
    case kChunkZlib:
    case kChunkBZip2:
    case kChunkLZFSE:
    case kChunkXZ:
    case kChunkTerminator:
        return true;
    default:
        return false;
    }
}

// A compressed chunk larger than this cannot be a stream of its decoded
// size: no format here grows incompressible data by half.
std::uint64_t maxStoredLength(std::uint64_t sectors) { return sectors * kSectorSize * 3 / 2 + 4096; }

} // namespace

std::optional<BlockTable> BlockTable::parse(const std::uint8_t* p, std::size_t length, std::string* reason,
                                            std::optional<std::uint32_t>* unsupportedType) {
    auto fail = [reason](std::string text) {
        *reason = std::move(text);
        return std::nullopt;
    };
    if (length < HeaderSize || std::memcmp(p, "mish", 4) != 0) return fail("bad block table");
    if (be32(p + 4) != 1) return fail("unknown block table version");
    BlockTable table;
    table.firstSector = be64(p + 8);
    table.sectorCount = be64(p + 16);
    table.dataOffset = be64(p + 24);
    table.buffersNeeded = be32(p + 32);
    table.checksum = Checksum::parse(p + 64);
    const std::uint32_t count = be32(p + 200);
    if (count > (length - HeaderSize) / EntrySize) return fail("block table entry count exceeds its data");
    if (table.sectorCount > kMaxSectorCount || table.firstSector > kMaxSectorCount)
        return fail("block table sector range too large");

    table.chunks.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* e = p + HeaderSize + std::size_t{i} * EntrySize;
        Chunk chunk;
        chunk.type = be32(e);
        chunk.firstSector = be64(e + 8);
        chunk.sectorCount = be64(e + 16);
        chunk.offset = be64(e + 24);
        chunk.length = be64(e + 32);
        if (!knownType(chunk.type)) {
            if (unsupportedType) *unsupportedType = chunk.type;
            return fail("unsupported chunk type");
        }
        if (chunk.type == kChunkTerminator) break;
        if (chunk.type == kChunkComment || chunk.sectorCount == 0) continue;
        if (!rangeWithin(chunk.firstSector, chunk.sectorCount, table.sectorCount))
            return fail("chunk lies outside its block table");
        if (!isZeroChunk(chunk.type)) {
            if (chunk.sectorCount > kMaxChunkSectors) return fail("chunk too large");
            if (chunk.type == kChunkRaw && chunk.length != chunk.sectorCount * kSectorSize)
                return fail("raw chunk length does not match its sectors");
            if (chunk.length > maxStoredLength(chunk.sectorCount)) return fail("compressed chunk too large");
        }
        table.chunks.push_back(chunk);
    }
    return table;
}

std::vector<std::uint8_t> BlockTable::serialize() const {
    const std::size_t count = chunks.size() + 1;
    std::vector<std::uint8_t> out(HeaderSize + count * EntrySize, 0);
    std::uint8_t* p = out.data();
    std::memcpy(p, "mish", 4);
    putBE32(p + 4, 1);
    putBE64(p + 8, firstSector);
    putBE64(p + 16, sectorCount);
    putBE64(p + 24, dataOffset);
    putBE32(p + 32, buffersNeeded);
    checksum.write(p + 64);
    putBE32(p + 200, static_cast<std::uint32_t>(count));
    std::uint64_t end = 0;
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        std::uint8_t* e = p + HeaderSize + i * EntrySize;
        const Chunk& chunk = chunks[i];
        putBE32(e, chunk.type);
        putBE64(e + 8, chunk.firstSector);
        putBE64(e + 16, chunk.sectorCount);
        putBE64(e + 24, chunk.offset);
        putBE64(e + 32, chunk.length);
        end = std::max(end, chunk.offset + chunk.length);
    }
    std::uint8_t* terminator = p + HeaderSize + chunks.size() * EntrySize;
    putBE32(terminator, kChunkTerminator);
    putBE64(terminator + 8, sectorCount);
    putBE64(terminator + 24, end);
    return out;
}

} // namespace QXUDIF
