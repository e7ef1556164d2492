// LegacyZipEncoders.h - small, obviously right writers of imploded and shrunk
// streams of the sizes and shapes the real fixtures lack (every implode
// variant, long runs, a full 13-bit code table), for round trips.
#pragma once

#include "TestSupport.h"

#include <cstddef>
#include <unordered_map>

namespace legacyzip {

/// Writes bits least significant first, as both methods read them.
class BitWriter {
public:
    void put(std::uint32_t value, unsigned count) {
        for (unsigned i = 0; i < count; ++i) putBit((value >> i) & 1u);
    }
    void putBit(unsigned bit) {
        if (used_ == 0) bytes_.push_back(0);
        bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (bit << used_));
        used_ = (used_ + 1) & 7;
    }
    void putBytes(const std::vector<std::uint8_t>& bytes) {
        for (auto b : bytes) put(b, 8);
    }
    std::vector<std::uint8_t> take() { return std::move(bytes_); }

private:
    std::vector<std::uint8_t> bytes_;
    unsigned used_ = 0;
};

/// The description of a flat implode tree: 64 symbols of 6 bits.
inline std::vector<std::uint8_t> flatSixBitTree() { return {3, 0xF5, 0xF5, 0xF5, 0xF5}; }

/// Symbol s of a flat tree of the given width: its code's bits, in stream
/// order, are those of 2^width - 1 - s from the top down.
inline void putFlatSymbol(BitWriter& out, unsigned s, unsigned width) {
    const unsigned v = (1u << width) - 1 - s;
    for (unsigned b = width; b-- > 0;) out.putBit((v >> b) & 1u);
}

/// Implode with flat trees: every literal gets 8 bits, every length and
/// distance symbol 6.
inline std::vector<std::uint8_t> implode(const std::vector<std::uint8_t>& data, bool largeDictionary,
                                         bool literalTree) {
    BitWriter out;
    auto symbol = [&](unsigned s, unsigned width) { putFlatSymbol(out, s, width); };
    if (literalTree) {  // a flat tree of 256 symbols of 8 bits
        out.putBytes({15});
        out.putBytes(std::vector<std::uint8_t>(16, 0xF7));
    }
    out.putBytes(flatSixBitTree());
    out.putBytes(flatSixBitTree());

    const std::size_t dictionary = largeDictionary ? 8192 : 4096;
    const unsigned lowBits = largeDictionary ? 7 : 6;
    const std::size_t minimum = literalTree ? 3 : 2;
    const std::size_t longest = minimum + 63 + 255;
    std::unordered_map<std::uint32_t, std::size_t> lastSeen;  // 3-byte prefix -> position
    auto key = [&](std::size_t i) {
        return std::uint32_t{data[i]} | std::uint32_t{data[i + 1]} << 8 | std::uint32_t{data[i + 2]} << 16;
    };
    std::size_t i = 0;
    while (i < data.size()) {
        std::size_t length = 0, distance = 0;
        if (i + 3 <= data.size()) {
            auto found = lastSeen.find(key(i));
            if (found != lastSeen.end() && i - found->second <= dictionary) {
                const std::size_t from = found->second;
                while (i + length < data.size() && length < longest && data[from + length] == data[i + length]) ++length;
                distance = i - from;
            }
            lastSeen[key(i)] = i;
        }
        if (length >= minimum) {
            out.putBit(0);
            out.put(static_cast<std::uint32_t>((distance - 1) & ((1u << lowBits) - 1)), lowBits);
            symbol(static_cast<unsigned>((distance - 1) >> lowBits), 6);
            const std::size_t code = length - minimum;
            if (code >= 63) {
                symbol(63, 6);
                out.put(static_cast<std::uint32_t>(code - 63), 8);
            } else {
                symbol(static_cast<unsigned>(code), 6);
            }
            for (std::size_t k = 1; k < length && i + k + 3 <= data.size(); ++k) lastSeen[key(i + k)] = i + k;
            i += length;
        } else {
            out.putBit(1);
            if (literalTree) symbol(data[i], 8);
            else out.put(data[i], 8);
            ++i;
        }
    }
    return out.take();
}

/// Shrink: plain LZW that widens its codes as they grow and, once the 8,192
/// codes are taken, goes on with the table it has (no partial clears).
inline std::vector<std::uint8_t> shrink(const std::vector<std::uint8_t>& data) {
    BitWriter out;
    if (data.empty()) return out.take();
    unsigned width = 9;
    auto emit = [&](std::uint32_t code) {
        while (code >= (1u << width)) {
            out.put(256, width);
            out.put(1, width);
            ++width;
        }
        out.put(code, width);
    };
    std::unordered_map<std::uint32_t, std::uint32_t> table;  // prefix << 8 | byte -> code
    std::uint32_t next = 257;
    std::uint32_t w = data[0];
    for (std::size_t i = 1; i < data.size(); ++i) {
        const std::uint32_t k = w << 8 | data[i];
        auto found = table.find(k);
        if (found != table.end()) {
            w = found->second;
            continue;
        }
        emit(w);
        if (next < 8192) table.emplace(k, next++);
        w = data[i];
    }
    emit(w);
    return out.take();
}

} // namespace legacyzip
