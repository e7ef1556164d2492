// UnshrinkFuzzer.cpp - libFuzzer target for the unshrink decoder.
//
// Input: one byte that seeds the input piece and output room sizes, three
// bytes of uncompressed size (little-endian, low 20 bits: at most 1 MiB), then the stream.
// The stream is decoded whole with ample room and again in small pieces with
// little room; besides not crashing, both runs must end with the same result,
// and the same bytes.
#include <QXFoundation/QXUnshrink.h>

#include <algorithm>
#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

int unshrink(const std::uint8_t* data, std::size_t size, std::uint64_t outSize, unsigned seed,
             std::vector<std::uint8_t>& out) {
    QXUnshrinkStream* stream = QXUnshrinkInit(outSize);
    fuzz::require(stream != nullptr);
    std::vector<std::uint8_t> room(seed == 0 ? 1 << 16 : 1 + seed % 300);
    std::size_t at = 0;
    int result;
    for (;;) {
        std::size_t piece = size - at;
        if (seed != 0) {
            seed = seed * 1103515245u + 12345u;
            piece = std::min<std::size_t>(piece, 1 + (seed >> 16) % 48);
        }
        stream->next_in = data + at;
        stream->avail_in = piece;
        at += piece;
        stream->next_out = room.data();
        stream->avail_out = room.size();
        result = QXUnshrink(stream);
        fuzz::require(stream->avail_in == 0);
        const std::size_t written = room.size() - static_cast<std::size_t>(stream->avail_out);
        out.insert(out.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(written));
        if (result != QXUNSHRINK_AGAIN || (written == 0 && piece == 0)) break;
    }
    fuzz::require(stream->total_out == out.size() && out.size() <= outSize);
    fuzz::require(result == QXUNSHRINK_OK || result == QXUNSHRINK_AGAIN || result == QXUNSHRINK_MEM_ERROR ||
            result == QXUNSHRINK_DATA_ERROR);
    QXUnshrinkCleanup(stream);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    const std::uint64_t outSize = data[1] | data[2] << 8 | (data[3] & 15) << 16;
    std::vector<std::uint8_t> whole, pieces;
    const int a = unshrink(data + 4, size - 4, outSize, 0, whole);
    const int b = unshrink(data + 4, size - 4, outSize, data[0] + 1u, pieces);
    fuzz::require(a == b);
    // Everything decoded before a failure is handed out first, so even then
    // the two runs agree byte for byte.
    fuzz::require(whole == pieces);
    return 0;
}
