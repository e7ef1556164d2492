// QXUDIFChunkDecoders.h - which decoder turns each kind of compressed chunk
// back into sectors.
//
// Every decoder has one shape: a whole chunk in, at most outputCapacity bytes
// out, the count written or -1 for a damaged, truncated or oversized stream.
// A kind listed without a decoder is known to the format but not readable by
// this build; its chunks fail as unsupported rather than as damaged.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QXUDIF {

using ChunkDecodeFunction = std::ptrdiff_t (*)(const std::uint8_t* input, std::size_t inputLength,
                                               std::uint8_t* output, std::size_t outputCapacity);

struct ChunkDecoder {
    std::uint32_t type;
    const char* name;            // the compression's name, for messages
    ChunkDecodeFunction decode;  // null: no decoder in this build
};

/// The entry for a compressed chunk kind, or null when the kind is not compressed.
const ChunkDecoder* chunkDecoderForType(std::uint32_t type);

/// One zlib stream, one bzip2 stream and one xz stream, each of which must
/// end within the input.
std::ptrdiff_t inflateChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                            std::size_t outputCapacity);
std::ptrdiff_t bunzipChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                           std::size_t outputCapacity);
std::ptrdiff_t unxzChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                         std::size_t outputCapacity);

} // namespace QXUDIF
