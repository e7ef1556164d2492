// QXLZVNDecoder.cpp - opcode interpreter for LZVN blocks.
//
// Every opcode is one byte, possibly followed by one or two operand bytes and
// then its literals. The top bits pick the family:
//   LLMMMDDD DDDDDDDD             small distance (11 bits), L literals, M+3 match
//   LLMMM110                      previous distance (L > 0)
//   LLMMM111 DDDDDDDD DDDDDDDD    large distance (16 bits)
//   101LLMMM DDDDDDMM DDDDDDDD    medium distance (14 bits), 5-bit match length
//   1110LLLL / 11100000 LLLLLLLL  literals only (L, or 16 + byte)
//   1111MMMM / 11110000 MMMMMMMM  match only at the previous distance
// With L = 0, 00000110 ends the block, 00001110 and 00010110 are padding, and
// the other xxxxx110 codes, 0111xxxx and 1101xxxx are undefined.
#include "Internal/QXLZVNDecoder.h"

namespace QXLZVN {

namespace {

// One decoded opcode: how many bytes it occupies before its literals, and
// what it asks for. distance 0 keeps the previous one.
struct Opcode {
    enum Kind { Copy, Padding, End, Invalid } kind = Invalid;
    std::size_t length = 1;
    std::size_t literals = 0;
    std::size_t match = 0;
    std::size_t distance = 0;
};

// Reads the opcode at in (at least one byte available); Invalid also when its
// operand bytes run past end.
Opcode readOpcode(const std::uint8_t* in, const std::uint8_t* end) {
    Opcode op;
    const unsigned code = in[0];
    const std::size_t available = static_cast<std::size_t>(end - in);
    auto operands = [&](std::size_t count) {
        op.length = 1 + count;
        return available > count;
    };
    if (code >= 0xF0) {
        if (code == 0xF0) {
            if (!operands(1)) return op;
            op.match = 16 + std::size_t(in[1]);
        } else {
            op.match = code & 0x0F;
        }
    } else if (code >= 0xE0) {
        if (code == 0xE0) {
            if (!operands(1)) return op;
            op.literals = 16 + std::size_t(in[1]);
        } else {
            op.literals = code & 0x0F;
        }
    } else if (code >= 0xD0 || (code >= 0x70 && code < 0x80)) {
        return op;
    } else if (code >= 0xA0 && code < 0xC0) {
        if (!operands(2)) return op;
        op.literals = (code >> 3) & 3;
        op.match = ((code & 7u) << 2 | (in[1] & 3u)) + 3;
        op.distance = (std::size_t(in[1]) | std::size_t(in[2]) << 8) >> 2;
        if (op.distance == 0) return op;
    } else {
        op.literals = code >> 6;
        op.match = ((code >> 3) & 7) + 3;
        switch (code & 7) {
        case 6:
            if (op.literals == 0) {
                if (code == 0x06) op.kind = Opcode::End;
                else if (code == 0x0E || code == 0x16) op.kind = Opcode::Padding;
                return op;
            }
            break;
        case 7:
            if (!operands(2)) return op;
            op.distance = std::size_t(in[1]) | std::size_t(in[2]) << 8;
            if (op.distance == 0) return op;
            break;
        default:
            if (!operands(1)) return op;
            op.distance = std::size_t(code & 7) << 8 | in[1];
            if (op.distance == 0) return op;
            break;
        }
    }
    op.kind = Opcode::Copy;
    return op;
}

} // namespace

bool decodeBlock(const std::uint8_t* payload, std::size_t payloadLength, std::uint8_t* out, std::size_t start,
                 std::size_t rawLength) {
    const std::uint8_t* in = payload;
    const std::uint8_t* const inEnd = payload + payloadLength;
    std::size_t at = start;
    const std::size_t end = start + rawLength;
    std::size_t distance = 0; // 0 until the first opcode that carries one
    while (in < inEnd) {
        const Opcode op = readOpcode(in, inEnd);
        switch (op.kind) {
        case Opcode::Invalid: return false;
        case Opcode::End: return at == end;
        case Opcode::Padding: in += op.length; continue;
        case Opcode::Copy: break;
        }
        in += op.length;
        if (op.literals > static_cast<std::size_t>(inEnd - in) || op.literals > end - at) return false;
        if (op.literals > 0) std::memcpy(out + at, in, op.literals);
        in += op.literals;
        at += op.literals;
        if (op.distance != 0) distance = op.distance;
        if (op.match == 0) continue;
        if (distance == 0 || distance > at || op.match > end - at) return false;
        copyMatch(out, at, distance, op.match);
        at += op.match;
    }
    return false; // no end-of-stream opcode
}

} // namespace QXLZVN
