// QXUDIFBlockTable.h - one "mish" block table: the chunks of one partition.
//
// A table maps its run of sectors to chunks, each stored by one method.
// parse() accepts only the chunk kinds that have a meaning for reading and
// checks every count against the table's own bytes and sizes; where a chunk
// lies in the file is checked by the image, which knows the data fork.
#pragma once

#include "Internal/QXUDIFTrailer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace QXUDIF {

enum ChunkType : std::uint32_t {
    kChunkZeroFill = 0x00000000,
    kChunkRaw = 0x00000001,
    kChunkIgnore = 0x00000002,
    kChunkComment = 0x7FFFFFFE,
    kChunkADC = 0x80000004,
    kChunkZlib = 0x80000005,
    kChunkBZip2 = 0x80000006,
    kChunkLZFSE = 0x80000007,
    kChunkXZ = 0x80000008,
    kChunkTerminator = 0xFFFFFFFF,
};

// A chunk is decoded whole into memory: 64 MiB is 32 times what writers use.
inline constexpr std::uint64_t kMaxChunkSectors = 131072;

/// Whether sectors of this kind read as zeros without touching the file.
inline bool isZeroChunk(std::uint32_t type) { return type == kChunkZeroFill || type == kChunkIgnore; }
/// Whether the chunk is one compressed stream.
inline bool isCompressedChunk(std::uint32_t type) { return type >= kChunkADC && type <= kChunkXZ; }

struct Chunk {
    std::uint32_t type = 0;
    std::uint64_t firstSector = 0;  // relative to the table
    std::uint64_t sectorCount = 0;
    std::uint64_t offset = 0;       // relative to the data fork plus the table's data offset
    std::uint64_t length = 0;
};

struct BlockTable {
    static constexpr std::size_t HeaderSize = 0xCC;
    static constexpr std::size_t EntrySize = 40;

    std::uint64_t firstSector = 0;
    std::uint64_t sectorCount = 0;
    std::uint64_t dataOffset = 0;
    std::uint32_t buffersNeeded = 0;
    Checksum checksum;
    std::vector<Chunk> chunks;  // sector-bearing chunks only, in the table's order

    /// Nothing and the reason when the bytes are no block table, a count
    /// lies, or a chunk kind is unknown (*unsupportedType then says which).
    static std::optional<BlockTable> parse(const std::uint8_t* bytes, std::size_t length, std::string* reason,
                                           std::optional<std::uint32_t>* unsupportedType = nullptr);
    /// The table's bytes: header, the chunks in order, and a terminator
    /// placed after the last one (which readers of some tools expect).
    std::vector<std::uint8_t> serialize() const;
};

} // namespace QXUDIF
