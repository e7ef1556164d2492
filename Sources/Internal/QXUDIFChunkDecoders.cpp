// QXUDIFChunkDecoders.cpp - the decoder table and the one-shot wrappers
// around zlib, libbz2 and liblzma.
#include "Internal/QXUDIFChunkDecoders.h"

#include "Internal/QXADCDecoder.h"
#include "Internal/QXLZFSEDecoder.h"
#include "Internal/QXUDIFBlockTable.h"

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

#include <climits>
#include <iterator>

namespace QXUDIF {

namespace {

const ChunkDecoder kDecoders[] = {
    {kChunkADC, "ADC", QXADCDecode},
    {kChunkZlib, "zlib", inflateChunk},
    {kChunkBZip2, "bzip2", bunzipChunk},
    {kChunkLZFSE, "LZFSE", QXLZFSEDecode},
    {kChunkXZ, "xz", unxzChunk},
};

// A chunk is at most 64 MiB decoded, so every count fits the libraries' 32-bit ones.
bool fitsUInt(std::size_t length) { return length <= UINT_MAX; }

// xz chunks are small; a dictionary this large is damage, not a real stream.
constexpr std::uint64_t kXZMemoryLimit = 256ull << 20;

} // namespace

const ChunkDecoder* chunkDecoderForType(std::uint32_t type) {
    for (const auto& decoder : kDecoders)
        if (decoder.type == type) return &decoder;
    return nullptr;
}

std::ptrdiff_t inflateChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                            std::size_t outputCapacity) {
    if (!fitsUInt(inputLength) || !fitsUInt(outputCapacity)) return -1;
    uLongf written = outputCapacity;
    uLong consumed = inputLength;
    // Z_BUF_ERROR covers both a stream cut short and one that needs more room.
    if (uncompress2(output, &written, input, &consumed) != Z_OK) return -1;
    return static_cast<std::ptrdiff_t>(written);
}

std::ptrdiff_t bunzipChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                           std::size_t outputCapacity) {
    if (!fitsUInt(inputLength) || !fitsUInt(outputCapacity)) return -1;
    unsigned int written = static_cast<unsigned int>(outputCapacity);
    const int result = BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(output), &written,
                                                  const_cast<char*>(reinterpret_cast<const char*>(input)),
                                                  static_cast<unsigned int>(inputLength), 0, 0);
    if (result != BZ_OK) return -1;
    return static_cast<std::ptrdiff_t>(written);
}

std::ptrdiff_t unxzChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                         std::size_t outputCapacity) {
    std::uint64_t memoryLimit = kXZMemoryLimit;
    std::size_t inPosition = 0;
    std::size_t outPosition = 0;
    const lzma_ret result = lzma_stream_buffer_decode(&memoryLimit, 0, nullptr, input, &inPosition, inputLength,
                                                      output, &outPosition, outputCapacity);
    if (result != LZMA_OK) return -1;
    return static_cast<std::ptrdiff_t>(outPosition);
}

} // namespace QXUDIF
