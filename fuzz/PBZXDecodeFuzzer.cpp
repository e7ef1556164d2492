// PBZXDecodeFuzzer.cpp - libFuzzer target for the PBZX container splitter.
//
// Input: one byte that seeds the input piece and output room sizes, then the
// container. It is split whole with ample room and again in small pieces
// with little room; the chunks, told apart by the flags alone, must come out
// the same, and no call may hand out bytes of two chunks.
#include <QXFoundation/QXPBZXDecode.h>

#include <algorithm>
#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

using Chunks = std::vector<std::vector<std::uint8_t>>;

int split(const std::uint8_t* data, std::size_t size, unsigned seed, Chunks& chunks) {
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    fuzz::require(s != nullptr);
    std::vector<std::uint8_t> room(seed == 0 ? 1 << 16 : 1 + seed % 200);
    std::size_t at = 0;
    int result = QXPBZX_NEED_INPUT;
    std::uint64_t handed = 0;
    do {
        std::size_t piece = size - at;
        if (seed != 0) {
            seed = seed * 1103515245u + 12345u;
            piece = std::min<std::size_t>(piece, (seed >> 16) % 40);
        }
        s->next_in = data + at;
        s->avail_in = piece;
        at += piece;
        do {
            s->next_out = room.data();
            s->avail_out = room.size();
            result = QXPBZXDecode(s);
            fuzz::require(result == QXPBZX_OK || result == QXPBZX_AGAIN || result == QXPBZX_NEED_INPUT);
            fuzz::require(s->avail_in == 0);
            const std::size_t n = room.size() - static_cast<std::size_t>(s->avail_out);
            handed += n;
            fuzz::require(s->total_out == handed && s->total_out <= s->total_in);
            if (n > 0) {
                if (s->chunk_started || chunks.empty()) chunks.emplace_back();
                chunks.back().insert(chunks.back().end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(n));
                fuzz::require(chunks.back().size() <= s->chunk_compressed_size);
                fuzz::require(s->chunk_ended == (chunks.back().size() == s->chunk_compressed_size));
            }
        } while (result == QXPBZX_AGAIN);
    } while (at < size);
    QXPBZXDecodeCleanup(s);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    Chunks whole, pieces;
    const int a = split(data + 1, size - 1, 0, whole);
    const int b = split(data + 1, size - 1, data[0] + 1u, pieces);
    fuzz::require(a == b);
    fuzz::require(whole == pieces);
    return 0;
}
