// QXUDIFChunkEncoder.h - turning a run of sectors into stored chunks.
//
// A piece of at most one chunk's worth of sectors becomes zero-fill chunks
// for its runs of zero sectors and, for the rest, one chunk each in the
// image's method: raw, or one complete zlib, bzip2 or xz stream made by the
// library's compressor. A stream that would be larger than its sectors is
// stored raw instead, so no chunk ever grows. The piece also carries the
// CRC-32s its image needs: of its decoded sectors (for the block table) and
// of its stored bytes (for the data fork), which the writer chains together
// in disk order.
//
// encode() is const and keeps no state: pieces are encoded on several threads.
#pragma once

#include "Internal/QXUDIFBlockTable.h"

#include <qx/Error.h>

#include <cstdint>
#include <vector>

namespace QXUDIF {

// Writers use 1 MiB chunks: large enough to compress well, small enough that
// readers decode a random read cheaply.
inline constexpr std::uint64_t kWriterChunkSectors = 2048;

struct EncodedPiece {
    std::vector<Chunk> chunks;         // sectors relative to the piece, offsets relative to stored
    std::vector<std::uint8_t> stored;  // the chunks' bytes, end to end
    std::uint32_t sectorsCRC = 0;      // CRC-32 of the decoded sectors
    std::uint32_t storedCRC = 0;       // CRC-32 of stored
};

class ChunkEncoder {
public:
    /// method: kChunkRaw, kChunkZlib, kChunkBZip2 or kChunkXZ; level as the
    /// compressor takes it for that method.
    ChunkEncoder(std::uint32_t method, int level) : method_(method), level_(level) {}

    /// Nothing, or the compressor's refusal of the level.
    qx::Ref<qx::Error> check() const;
    /// Encodes count sectors (count * 512 bytes at sectors) into out;
    /// nothing, or the compressor's error.
    qx::Ref<qx::Error> encode(const std::uint8_t* sectors, std::uint64_t count, EncodedPiece& out) const;

    /// The runs of a piece: zero runs of at least kMinZeroRun sectors (or
    /// the whole piece) as zero fill, the rest as data, in order.
    static std::vector<Chunk> runs(const std::uint8_t* sectors, std::uint64_t count);
    static constexpr std::uint64_t kMinZeroRun = 64;

private:
    qx::Ref<qx::Error> compress(const std::uint8_t* bytes, std::size_t length, EncodedPiece& out) const;

    std::uint32_t method_;
    int level_;
};

} // namespace QXUDIF
