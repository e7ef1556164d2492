// ExplodeFuzzer.cpp - libFuzzer target for the implode decoder.
//
// Input: one byte of options (bit 1 large dictionary, bit 2 literal tree,
// bits 3-7 seed the piece sizes), three bytes of uncompressed size (little-
// endian, low 20 bits: at most 1 MiB), then the stream. The stream is decoded whole
// and again in pieces; besides not crashing, both runs must end with the
// same result and, unless it is a failure, the same bytes, never more than
// the size.
#include <QXFoundation/QXExplode.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

int explode(const std::uint8_t* data, std::size_t size, std::uint64_t outSize, unsigned options, unsigned seed,
            std::vector<std::uint8_t>& out) {
    QXExplodeStream* stream = QXExplodeInit(outSize, options & 2, options & 4);
    fuzz::require(stream != nullptr);
    std::size_t at = 0;
    int result = QXEXPLODE_NEED_INPUT;
    do {
        std::size_t piece = size - at;
        if (seed != 0) {
            seed = seed * 1103515245u + 12345u;
            piece = std::min<std::size_t>(piece, 1 + (seed >> 16) % 64);
        }
        stream->next_in = data + at;
        stream->avail_in = piece;
        at += piece;
        const std::uint8_t* bytes = nullptr;
        std::uint64_t count = 0;
        result = QXExplode(stream, &bytes, &count);
        fuzz::require(stream->avail_in == 0);
        if (count > 0) out.insert(out.end(), bytes, bytes + count);
    } while (result == QXEXPLODE_NEED_INPUT && at < size);
    fuzz::require(stream->total_out == out.size() && out.size() <= outSize);
    fuzz::require(result >= 0 && result <= 4 && result != QXEXPLODE_INVALID_ARGUMENT);
    QXExplodeCleanup(stream);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    const unsigned options = data[0];
    const std::uint64_t outSize = data[1] | data[2] << 8 | (data[3] & 15) << 16;
    std::vector<std::uint8_t> whole, pieces;
    const int a = explode(data + 4, size - 4, outSize, options, 0, whole);
    const int b = explode(data + 4, size - 4, outSize, options, (options >> 3) + 1, pieces);
    fuzz::require(a == b);
    if (a == QXEXPLODE_OK || a == QXEXPLODE_NEED_INPUT) fuzz::require(whole == pieces);
    return 0;
}
