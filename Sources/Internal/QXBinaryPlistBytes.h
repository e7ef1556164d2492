// QXBinaryPlistBytes.h - the byte-level encodings of the binary "bplist00" format.
//
// Private to Sources/: big-endian integers of the widths the format uses,
// integer and real objects, count headers, and the bounded reads of the
// reader. Inline because the reader and writer call them once per object.
// Stateless, so safe from any thread.
#pragma once

#include "Internal/QXBinaryPlistInternal.h"

#include <qx/Error.h>
#include <qx/Log.h>
#include <qx/Number.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace QXBinaryPlistInternal {

inline constexpr std::string_view kBinaryPlistMagic = "bplist00";

// --- Byte output -------------------------------------------------------------

inline void putBigEndian(std::uint8_t* p, std::uint64_t value, std::uint8_t width) {
    for (std::uint8_t i = 0; i < width; ++i) {
        const unsigned shift = 8u * static_cast<unsigned>(width - 1 - i);
        p[i] = shift < 64 ? static_cast<std::uint8_t>(value >> shift) : 0;
    }
}

inline void appendBigEndian(std::vector<std::uint8_t>& out, std::uint64_t value, std::uint8_t width) {
    if (width <= 8) {
        for (unsigned shift = 8u * width; shift != 0;) {
            shift -= 8;
            out.push_back(static_cast<std::uint8_t>(value >> shift));
        }
        return;
    }
    const std::size_t at = out.size();
    out.resize(at + width);
    putBigEndian(out.data() + at, value, width);
}

inline void appendInteger(std::vector<std::uint8_t>& out, std::uint64_t value) {
    if (value < 0x100) {
        out.push_back(0x10);
        out.push_back(static_cast<std::uint8_t>(value));
    } else if (value < 0x10000) {
        out.push_back(0x11);
        appendBigEndian(out, value, 2);
    } else if (value <= 0xFFFFFFFFull) {
        out.push_back(0x12);
        appendBigEndian(out, value, 4);
    } else {
        out.push_back(0x13);
        appendBigEndian(out, value, 8);
    }
}

inline void appendCountHeader(std::vector<std::uint8_t>& out, std::uint64_t count, std::uint8_t marker) {
    if (count < 0x0F) {
        out.push_back(static_cast<std::uint8_t>(marker + count));
    } else {
        out.push_back(static_cast<std::uint8_t>(marker + 0x0F));
        appendInteger(out, count);
    }
}

inline void appendDouble(std::vector<std::uint8_t>& out, double value) {
    appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

// --- Byte input --------------------------------------------------------------

inline bool isStandardWidth(std::uint8_t width) { return width == 1 || width == 2 || width == 4 || width == 8; }

// The integer-width rule of the format: 2^nibble, kept in 8 bits, so nibbles
// 8 to 15 give a width of 0 (nothing is read).
inline std::uint8_t widthOfNibble(std::uint8_t marker) { return static_cast<std::uint8_t>(1u << (marker & 0x0F)); }

inline std::uint64_t readSized(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position,
                        std::uint64_t size) {
    if (size == 0 || position > length || size > length - position) return 0;
    const std::uint64_t v = readBigEndian(bytes + position, size);
    position += size;
    return v;
}

inline std::uint64_t readInteger(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position) {
    if (position >= length) return 0;
    const std::uint8_t marker = bytes[position++];
    return readSized(bytes, length, position, widthOfNibble(marker));
}

struct Payload {
    const std::uint8_t* bytes;
    std::uint64_t count;  // in units: bytes, or UTF-16 code units for 0x6n
};

// The payload of a 0x4n, 0x5n or 0x6n object whose marker precedes position.
// The format's own bounds test compares the unit count with the bytes left,
// also for UTF-16; the second test catches the 2 x count bytes that test lets
// past the end.
inline bool readPayload(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position, std::uint8_t marker,
                 Payload& payload, qx::Ref<qx::Error>* error) {
    std::uint64_t count = marker & 0x0F;
    if (count == 0x0F) count = readInteger(bytes, length, position);
    if (position > length || count > length - position) {
        setError(error);
        return false;
    }
    std::uint64_t byteCount = count;
    if ((marker & 0xF0) == 0x60) {
        if (count > (length - position) / 2) {
            setError(error);
            return false;
        }
        byteCount = 2 * count;
    }
    payload = {bytes + position, count};
    position += byteCount;
    return true;
}

inline bool isASCII(const std::uint8_t* p, std::uint64_t n) {
    std::uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w & 0x8080808080808080ull) return false;
    }
    for (; i < n; ++i)
        if (p[i] & 0x80) return false;
    return true;
}

inline qx::Ref<qx::Number> readReal(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t& position,
                             std::uint64_t size, qx::Ref<qx::Error>* error) {
    if (size != 4 && size != 8) {
        QXLog("invalid size %lu for float", static_cast<unsigned long>(size));
        setError(error);
        return nullptr;
    }
    if (position > length || size > length - position) {
        setError(error);
        return nullptr;
    }
    const std::uint64_t bits = readBigEndian(bytes + position, size);
    position += size;
    if (size == 4) return qx::Number::withFloat(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    return qx::Number::withDouble(std::bit_cast<double>(bits));
}

} // namespace QXBinaryPlistInternal
