// QXLZFSEDecoder.cpp - block framing and the entropy-coded blocks of LZFSE.
//
// An entropy-coded block carries four tANS streams: literal bytes (four
// interleaved states), then literal lengths L, match lengths M and distances D
// (one state each, with extra bits after every symbol). Both payloads are
// read backwards from their last byte. Every table comes from the block
// header, so each is checked before use: frequencies must fill the state
// count exactly, initial states must be in range, and every copy is checked
// against the literals decoded, the output so far and the block's size.
#include "Internal/QXLZFSEDecoder.h"

#include "Internal/QXLZVNDecoder.h"

#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <memory>

namespace {

constexpr std::uint32_t tag(char last) {
    return 0x00787662u | std::uint32_t(static_cast<unsigned char>(last)) << 24; // "bvx?", little-endian
}
constexpr std::uint32_t kEndTag = tag('$');
constexpr std::uint32_t kStoredTag = tag('-');
constexpr std::uint32_t kLZVNTag = tag('n');
constexpr std::uint32_t kV1Tag = tag('1');
constexpr std::uint32_t kV2Tag = tag('2');

constexpr int kLSymbols = 20, kMSymbols = 20, kDSymbols = 64, kLiteralSymbols = 256;
constexpr int kFrequencyCount = kLSymbols + kMSymbols + kDSymbols + kLiteralSymbols;
constexpr unsigned kLStates = 64, kMStates = 64, kDStates = 256, kLiteralStates = 1024;

// The plain header: eleven 32-bit fields and states, then the frequency
// tables as 16-bit values, padded to a multiple of four bytes.
constexpr std::size_t kV1HeaderSize = 772;
constexpr std::size_t kV1FrequencyOffset = 50;
// The packed header: tag, raw size, three 64-bit words, then the variable-
// length frequency codes up to the header size the third word gives.
constexpr std::size_t kV2FixedSize = 32;

// Extra bits and base value of each L, M and D symbol: a value is
// base + the next extraBits bits, so each base follows the previous range.
constexpr std::array<std::uint8_t, kLSymbols> kLExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                             0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
constexpr std::array<std::uint8_t, kMSymbols> kMExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                             0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
constexpr std::array<std::uint8_t, kDSymbols> kDExtraBits = {
    0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 6, 6, 6, 6, 7, 7, 7, 7,
    8, 8, 8, 8, 9, 9, 9, 9, 10, 10, 10, 10, 11, 11, 11, 11, 12, 12, 12, 12, 13, 13, 13, 13, 14, 14, 14, 14, 15, 15, 15, 15};

template <std::size_t N>
constexpr std::array<std::uint32_t, N> basesFor(const std::array<std::uint8_t, N>& extraBits) {
    std::array<std::uint32_t, N> bases{};
    for (std::size_t i = 1; i < N; ++i) bases[i] = bases[i - 1] + (1u << extraBits[i - 1]);
    return bases;
}
constexpr auto kLBases = basesFor(kLExtraBits);
constexpr auto kMBases = basesFor(kMExtraBits);
constexpr auto kDBases = basesFor(kDExtraBits);

std::uint32_t load32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}
std::uint16_t load16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint64_t load64(const std::uint8_t* p) { return load32(p) | std::uint64_t(load32(p + 4)) << 32; }

struct BlockHeader {
    std::uint32_t rawBytes = 0;
    std::uint32_t literalCount = 0;
    std::uint32_t matchCount = 0;
    std::uint32_t literalPayloadBytes = 0;
    std::uint32_t lmdPayloadBytes = 0;
    int literalBits = 0; // -7..0: unused high bits of the last payload byte, negated
    int lmdBits = 0;
    std::array<std::uint32_t, 4> literalStates{};
    std::uint32_t lState = 0, mState = 0, dState = 0;
    std::array<std::uint16_t, kFrequencyCount> frequencies{}; // L, M, D, then literal
    std::size_t headerSize = 0;
};

bool parseV1Header(const std::uint8_t* in, std::size_t available, BlockHeader& h) {
    if (available < kV1HeaderSize) return false;
    h.rawBytes = load32(in + 4);
    h.literalCount = load32(in + 12);
    h.matchCount = load32(in + 16);
    h.literalPayloadBytes = load32(in + 20);
    h.lmdPayloadBytes = load32(in + 24);
    const auto literalBits = static_cast<std::int32_t>(load32(in + 28));
    const auto lmdBits = static_cast<std::int32_t>(load32(in + 40));
    if (literalBits < -7 || literalBits > 0 || lmdBits < -7 || lmdBits > 0) return false;
    h.literalBits = literalBits;
    h.lmdBits = lmdBits;
    for (int i = 0; i < 4; ++i) h.literalStates[i] = load16(in + 32 + 2 * i);
    h.lState = load16(in + 44);
    h.mState = load16(in + 46);
    h.dState = load16(in + 48);
    for (int i = 0; i < kFrequencyCount; ++i) h.frequencies[i] = load16(in + kV1FrequencyOffset + 2 * i);
    h.headerSize = kV1HeaderSize;
    return true;
}

// Frequencies are a prefix code read from the low bits up:
//   xx00 -> 0, xx10 -> 1, x001 -> 2, x101 -> 3, vv011 -> 4 + vv,
//   vvvv0111 -> 8 + vvvv, then 1111 and ten bits -> 24 + those bits.
// The codes must end in the header's last byte.
bool readPackedFrequencies(const std::uint8_t* in, const std::uint8_t* end, std::uint16_t* frequencies) {
    std::uint32_t bits = 0;
    int count = 0;
    for (int i = 0; i < kFrequencyCount; ++i) {
        while (in < end && count <= 24) {
            bits |= std::uint32_t(*in++) << count;
            count += 8;
        }
        int length;
        std::uint32_t value;
        if ((bits & 1) == 0) {
            length = 2;
            value = (bits >> 1) & 1;
        } else if ((bits & 3) == 1) {
            length = 3;
            value = 2 + ((bits >> 2) & 1);
        } else if ((bits & 7) == 3) {
            length = 5;
            value = 4 + ((bits >> 3) & 3);
        } else if ((bits & 15) == 7) {
            length = 8;
            value = 8 + ((bits >> 4) & 15);
        } else {
            length = 14;
            value = 24 + ((bits >> 4) & 0x3FF);
        }
        if (length > count) return false;
        frequencies[i] = static_cast<std::uint16_t>(value);
        bits >>= length;
        count -= length;
    }
    return count < 8 && in == end;
}

bool parseV2Header(const std::uint8_t* in, std::size_t available, BlockHeader& h) {
    if (available < kV2FixedSize) return false;
    h.rawBytes = load32(in + 4);
    const std::uint64_t w0 = load64(in + 8), w1 = load64(in + 16), w2 = load64(in + 24);
    auto field = [](std::uint64_t word, int shift, int width) {
        return static_cast<std::uint32_t>((word >> shift) & ((std::uint64_t(1) << width) - 1));
    };
    h.literalCount = field(w0, 0, 20);
    h.literalPayloadBytes = field(w0, 20, 20);
    h.matchCount = field(w0, 40, 20);
    h.literalBits = static_cast<int>(field(w0, 60, 3)) - 7;
    for (int i = 0; i < 4; ++i) h.literalStates[i] = field(w1, 10 * i, 10);
    h.lmdPayloadBytes = field(w1, 40, 20);
    h.lmdBits = static_cast<int>(field(w1, 60, 3)) - 7;
    h.headerSize = field(w2, 0, 32);
    h.lState = field(w2, 32, 10);
    h.mState = field(w2, 42, 10);
    h.dState = field(w2, 52, 10);
    if (h.headerSize < kV2FixedSize || h.headerSize > available) return false;
    return readPackedFrequencies(in + kV2FixedSize, in + h.headerSize, h.frequencies.data());
}

// Reads a payload backwards: its first bits are the high bits of its last
// byte (below the -extraBits unused ones), then lower bits and earlier bytes.
class BackwardBits {
public:
    // False when the payload is too short to start or its unused bits are set.
    bool start(const std::uint8_t* begin, const std::uint8_t* end, int extraBits) {
        begin_ = begin;
        const std::size_t first = extraBits != 0 ? 8 : 7;
        if (static_cast<std::size_t>(end - begin) < first) return false;
        next_ = end - first;
        bits_ = 0;
        for (std::size_t i = first; i-- > 0;) bits_ = bits_ << 8 | next_[i];
        count_ = static_cast<unsigned>(8 * first) + static_cast<unsigned>(extraBits);
        return count_ == 64 || (bits_ >> count_) == 0;
    }

    // Tops up to at least 56 bits while bytes remain: enough for four
    // literals or one L, M, D triple.
    void refill() {
        if (count_ >= 56) return;
        const unsigned bytes = (63 - count_) >> 3;
        if (static_cast<std::size_t>(next_ - begin_) >= 8) {
            next_ -= bytes;
            const std::uint64_t incoming = load64(next_ + bytes - 8) >> (64 - 8 * bytes);
            bits_ = bits_ << (8 * bytes) | incoming;
            count_ += 8 * bytes;
            return;
        }
        while (count_ < 56 && next_ > begin_) {
            bits_ = bits_ << 8 | *--next_;
            count_ += 8;
        }
    }

    // The next n bits, high first; false on running out.
    bool pull(unsigned n, std::uint32_t& value) {
        if (n > count_) return false;
        count_ -= n;
        value = static_cast<std::uint32_t>(bits_ >> count_);
        bits_ &= (std::uint64_t(1) << count_) - 1;
        return true;
    }

private:
    const std::uint8_t* begin_ = nullptr;
    const std::uint8_t* next_ = nullptr; // bytes [begin_, next_) are still to load
    std::uint64_t bits_ = 0;              // count_ valid bits, count_ <= 63
    unsigned count_ = 0;
};

struct LiteralEntry {
    std::uint8_t bits;
    std::uint8_t symbol;
    std::uint16_t delta;
};

struct ValueEntry {
    std::uint8_t stateBits;
    std::uint8_t extraBits;
    std::uint16_t delta;
    std::uint32_t base;
};

// Spreads each symbol over freq consecutive states. A state's next state is
// delta + the next bits: the first states of a symbol take one bit more than
// the rest, so together they cover [0, states) once. Returns the sum of the
// frequencies, or 0 when they overflow the state count; the table is only
// complete, and any state only safe to use, when the sum is exactly states.
template <class Store>
unsigned spreadStates(unsigned states, const std::uint16_t* frequencies, int symbols, Store store) {
    const int stateZeros = std::countl_zero(states);
    unsigned total = 0;
    for (int symbol = 0; symbol < symbols; ++symbol) {
        const unsigned freq = frequencies[symbol];
        if (freq == 0) continue;
        if (freq > states - total) return 0;
        const int k = std::countl_zero(freq) - stateZeros;
        const unsigned wider = ((2 * states) >> k) - freq; // states taking k bits
        for (unsigned j = 0; j < freq; ++j) {
            if (j < wider)
                store(total + j, symbol, k, ((freq + j) << k) - states);
            else
                store(total + j, symbol, k - 1, (j - wider) << (k - 1));
        }
        total += freq;
    }
    return total;
}

bool usableTable(unsigned total, unsigned states, bool used) { return total == states || (!used && total == 0); }

template <std::size_t Symbols>
bool buildValueTable(ValueEntry* table, unsigned states, const std::uint16_t* frequencies,
                     const std::array<std::uint8_t, Symbols>& extraBits, const std::array<std::uint32_t, Symbols>& bases,
                     bool used) {
    const unsigned total =
        spreadStates(states, frequencies, static_cast<int>(Symbols), [&](unsigned at, int symbol, int k, unsigned delta) {
            table[at] = {static_cast<std::uint8_t>(k), extraBits[symbol], static_cast<std::uint16_t>(delta),
                         bases[symbol]};
        });
    return usableTable(total, states, used);
}

// Decodes one value and moves state on; the table is complete, so the next
// state stays below the state count.
bool decodeValue(const ValueEntry* table, std::uint32_t& state, BackwardBits& in, std::uint32_t& value) {
    const ValueEntry& e = table[state];
    std::uint32_t bits;
    if (!in.pull(e.stateBits + e.extraBits, bits)) return false;
    state = e.delta + (bits >> e.extraBits);
    value = e.base + (bits & ((1u << e.extraBits) - 1));
    return true;
}

struct Tables {
    std::array<LiteralEntry, kLiteralStates> literal;
    std::array<ValueEntry, kLStates> l;
    std::array<ValueEntry, kMStates> m;
    std::array<ValueEntry, kDStates> d;
};

// Decoded literals, kept across blocks. Left uninitialised: a damaged count
// of up to a million literals costs only the pages actually decoded into.
class LiteralBuffer {
public:
    std::uint8_t* reserve(std::size_t size) {
        if (size > capacity_) {
            bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
            capacity_ = size;
        }
        return bytes_.get();
    }
    const std::uint8_t* data() const { return bytes_.get(); }

private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::size_t capacity_ = 0;
};

class CompressedBlock {
public:
    CompressedBlock(const BlockHeader& header, LiteralBuffer& literals)
        : h_(header), literals_(literals) {}

    // Decodes the block whose payload starts at payload into out[at, at +
    // rawBytes), the caller having checked the payload length and the room.
    bool decode(const std::uint8_t* payload, std::uint8_t* out, std::size_t at) {
        return buildTables() && decodeLiterals(payload) &&
               decodeMatches(payload + h_.literalPayloadBytes, out, at);
    }

private:
    bool buildTables() {
        const std::uint16_t* f = h_.frequencies.data();
        const bool hasMatches = h_.matchCount > 0;
        const unsigned literalTotal =
            spreadStates(kLiteralStates, f + kLSymbols + kMSymbols + kDSymbols, kLiteralSymbols,
                         [&](unsigned at, int symbol, int k, unsigned delta) {
                             tables_.literal[at] = {static_cast<std::uint8_t>(k), static_cast<std::uint8_t>(symbol),
                                                    static_cast<std::uint16_t>(delta)};
                         });
        return usableTable(literalTotal, kLiteralStates, h_.literalCount > 0) &&
               buildValueTable(tables_.l.data(), kLStates, f, kLExtraBits, kLBases, hasMatches) &&
               buildValueTable(tables_.m.data(), kMStates, f + kLSymbols, kMExtraBits, kMBases, hasMatches) &&
               buildValueTable(tables_.d.data(), kDStates, f + kLSymbols + kMSymbols, kDExtraBits, kDBases,
                               hasMatches) &&
               h_.lState < kLStates && h_.mState < kMStates && h_.dState < kDStates &&
               h_.literalStates[0] < kLiteralStates && h_.literalStates[1] < kLiteralStates &&
               h_.literalStates[2] < kLiteralStates && h_.literalStates[3] < kLiteralStates;
    }

    // Literals come in fours, one per state, so the count is rounded up.
    bool decodeLiterals(const std::uint8_t* payload) {
        if (h_.literalCount == 0) return true;
        BackwardBits in;
        if (!in.start(payload, payload + h_.literalPayloadBytes, h_.literalBits)) return false;
        const std::size_t rounded = (std::size_t(h_.literalCount) + 3) & ~std::size_t(3);
        std::uint8_t* const literals = literals_.reserve(rounded);
        std::array<std::uint32_t, 4> states = h_.literalStates;
        for (std::size_t i = 0; i < rounded; i += 4) {
            in.refill();
            for (int j = 0; j < 4; ++j) {
                const LiteralEntry& e = tables_.literal[states[j]];
                std::uint32_t bits;
                if (!in.pull(e.bits, bits)) return false;
                states[j] = e.delta + bits;
                literals[i + j] = e.symbol;
            }
        }
        return true;
    }

    bool decodeMatches(const std::uint8_t* payload, std::uint8_t* out, std::size_t at) {
        const std::size_t end = at + h_.rawBytes;
        std::size_t literalAt = 0;
        if (h_.matchCount > 0) {
            BackwardBits in;
            if (!in.start(payload, payload + h_.lmdPayloadBytes, h_.lmdBits)) return false;
            std::uint32_t lState = h_.lState, mState = h_.mState, dState = h_.dState;
            std::size_t distance = 0; // 0 until the first match names one
            for (std::uint32_t i = 0; i < h_.matchCount; ++i) {
                in.refill();
                std::uint32_t literalLength, matchLength, newDistance;
                if (!decodeValue(tables_.l.data(), lState, in, literalLength) ||
                    !decodeValue(tables_.m.data(), mState, in, matchLength) ||
                    !decodeValue(tables_.d.data(), dState, in, newDistance))
                    return false;
                if (literalLength > h_.literalCount - literalAt || literalLength > end - at) return false;
                if (literalLength > 0) std::memcpy(out + at, literals_.data() + literalAt, literalLength);
                literalAt += literalLength;
                at += literalLength;
                if (newDistance != 0) distance = newDistance;
                if (matchLength == 0) continue;
                if (distance == 0 || distance > at || matchLength > end - at) return false;
                QXLZVN::copyMatch(out, at, distance, matchLength);
                at += matchLength;
            }
        }
        return at == end;
    }

    const BlockHeader& h_;
    LiteralBuffer& literals_;
    Tables tables_;
};

} // namespace

std::ptrdiff_t QXLZFSEDecode(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                             std::size_t outputCapacity) {
    if (input == nullptr || (output == nullptr && outputCapacity > 0)) return -1;
    std::size_t in = 0, out = 0;
    LiteralBuffer literals;
    while (inputLength - in >= 4) {
        const std::uint8_t* block = input + in;
        const std::size_t available = inputLength - in;
        const std::uint32_t blockTag = load32(block);
        if (blockTag == kEndTag) {
            if (out > static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max())) return -1;
            return static_cast<std::ptrdiff_t>(out);
        }
        if (available < 8) return -1;
        const std::size_t rawBytes = load32(block + 4);
        if (rawBytes > outputCapacity - out) return -1;
        if (blockTag == kStoredTag) {
            if (rawBytes > available - 8) return -1;
            if (rawBytes > 0) std::memcpy(output + out, block + 8, rawBytes);
            in += 8 + rawBytes;
        } else if (blockTag == kLZVNTag) {
            if (available < 12) return -1;
            const std::size_t payloadBytes = load32(block + 8);
            if (payloadBytes > available - 12) return -1;
            if (!QXLZVN::decodeBlock(block + 12, payloadBytes, output, out, rawBytes)) return -1;
            in += 12 + payloadBytes;
        } else if (blockTag == kV1Tag || blockTag == kV2Tag) {
            auto header = std::make_unique<BlockHeader>();
            if (!(blockTag == kV1Tag ? parseV1Header(block, available, *header)
                                     : parseV2Header(block, available, *header)))
                return -1;
            // Every literal is one output byte; a count beyond the block's
            // size would only make the literal buffer huge (a bvx1 count is 32 bits).
            if (header->literalCount > header->rawBytes) return -1;
            const std::size_t payloadBytes = std::size_t(header->literalPayloadBytes) + header->lmdPayloadBytes;
            if (payloadBytes > available - header->headerSize) return -1;
            auto decoder = std::make_unique<CompressedBlock>(*header, literals);
            if (!decoder->decode(block + header->headerSize, output, out)) return -1;
            in += header->headerSize + payloadBytes;
        } else {
            return -1;
        }
        out += rawBytes;
    }
    return -1; // no end-of-stream block
}
