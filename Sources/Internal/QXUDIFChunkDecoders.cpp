// QXUDIFChunkDecoders.cpp - the decoder table and the one-shot wrappers
// around zlib, libbz2 and liblzma.
#include "Internal/QXUDIFChunkDecoders.h"

#include "Internal/QXADCDecoder.h"
#include "Internal/QXIsalInflater.h"
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

// The data after a zlib header through ISA-L, then the Adler-32 after it,
// with zlib's outcome: the whole stream must end within the input and its
// output within the room, and bytes after the trailer are ignored.
std::ptrdiff_t isalInflateChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                                std::size_t outputCapacity) {
    QXIsalInflater body(QXIsalInflater::Check::Adler32);
    const std::uint8_t* in = input + 2;
    auto left = static_cast<std::uint32_t>(inputLength - 2);
    std::uint8_t* out = output;
    auto room = static_cast<std::uint32_t>(outputCapacity);
    // ISA-L reads the end-of-block code even when the output has filled the room.
    if (!body.decode(in, left, out, room) || !body.ended()) return -1;
    // ISA-L may have taken in the first trailer bytes already.
    std::uint8_t trailer[16];
    std::size_t have = body.takeBytesAfterEnd(trailer);
    while (have < 4 && left > 0) {
        trailer[have++] = *in++;
        --left;
    }
    if (have < 4) return -1;
    const std::uint32_t stored = std::uint32_t(trailer[0]) << 24 | std::uint32_t(trailer[1]) << 16 |
                                 std::uint32_t(trailer[2]) << 8 | trailer[3];
    if (stored != body.check()) return -1;
    return out - output;
}

} // namespace

const ChunkDecoder* chunkDecoderForType(std::uint32_t type) {
    for (const auto& decoder : kDecoders)
        if (decoder.type == type) return &decoder;
    return nullptr;
}

std::ptrdiff_t inflateChunk(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                            std::size_t outputCapacity) {
    if (!fitsUInt(inputLength) || !fitsUInt(outputCapacity)) return -1;
    if (inputLength >= 2) {
        const unsigned header = unsigned(input[0]) << 8 | input[1];
        // Deflate with a 32 KiB window and no preset dictionary, the header
        // every writer makes: ISA-L decodes the data, about twice as fast.
        // Anything else, valid or not, goes to zlib, which judges it.
        if ((input[0] & 0x0f) == Z_DEFLATED && (input[0] >> 4) == 7 && (input[1] & 0x20) == 0 && header % 31 == 0)
            return isalInflateChunk(input, inputLength, output, outputCapacity);
    }
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
