// QXLZVNDecoder.h - the byte-oriented LZ blocks ("bvxn") of an LZFSE stream.
//
// Private to Sources/. Also home of the match copy both block decoders share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace QXLZVN {

/// Decodes one block's opcodes, up to and including the end-of-stream opcode,
/// into out[start, start + rawLength). Matches may reach back to out[0]:
/// earlier blocks of the same stream are history. False when the opcodes are
/// damaged or truncated, or do not produce exactly rawLength bytes; nothing is
/// read or written outside payload and out[0, start + rawLength) either way.
bool decodeBlock(const std::uint8_t* payload, std::size_t payloadLength, std::uint8_t* out, std::size_t start,
                 std::size_t rawLength);

/// Appends length bytes at out[at] copied from distance bytes back. The
/// caller has checked 1 <= distance <= at and the room; an overlapping copy
/// repeats the last distance bytes, as run-length matches rely on.
inline void copyMatch(std::uint8_t* out, std::size_t at, std::size_t distance, std::size_t length) {
    std::uint8_t* to = out + at;
    const std::uint8_t* from = to - distance;
    if (distance >= length) {
        std::memcpy(to, from, length);
        return;
    }
    for (std::size_t i = 0; i < length; ++i) to[i] = from[i];
}

} // namespace QXLZVN
