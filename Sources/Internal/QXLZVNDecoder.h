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
    const std::uint8_t* const from = to - distance;
    // [from, to) always holds whole periods of the pattern, so it can be
    // copied on in one go, doubling each time.
    while (length > 0) {
        const std::size_t span = static_cast<std::size_t>(to - from);
        const std::size_t n = span < length ? span : length;
        std::memcpy(to, from, n);
        to += n;
        length -= n;
    }
}

} // namespace QXLZVN
