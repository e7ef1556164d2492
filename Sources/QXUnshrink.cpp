// QXUnshrink.cpp - decoder for ZIP entries stored with the Shrinking method (1).
#include <QXFoundation/QXUnshrink.h>

#include "Internal/QXPendingBytes.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace {

constexpr std::uint32_t kControlCode = 256;
constexpr std::uint32_t kFirstFreeCode = 257;
constexpr std::size_t kTableStep = 512;
constexpr std::size_t kMaxCodes = 8192;  // all that 13-bit codes can name
constexpr unsigned kMaxWidth = 13;

struct Entry {
    std::uint16_t parent = kControlCode;  // kControlCode for the single bytes
    std::uint16_t length = 0;             // bytes in the entry's string
    std::uint8_t byte = 0;                // the string's last byte
    std::uint8_t first = 0;               // the string's first byte
    bool present = false;
    bool mark = false;                    // used by the partial clear only
};

struct UnshrinkState {
    explicit UnshrinkState(const QXDecoderMemory& hooks)
        : memory(hooks), pending(&memory), table(QXDecoderAllocator<Entry>(&memory)),
          stash(QXDecoderAllocator<std::uint8_t>(&memory)) {}
    UnshrinkState(const UnshrinkState&) = delete;
    UnshrinkState& operator=(const UnshrinkState&) = delete;

    QXDecoderMemory memory;              // first: everything below allocates from it
    QXPendingBytes pending;              // input not yet committed as decoded
    std::uint64_t uncompressedSize = 0;
    QXDecoderVector<Entry> table;        // capacity = table.size(), a multiple of 512
    std::size_t nextFree = kFirstFreeCode;
    unsigned bitPosition = 0;            // 0..7, inside the first pending byte
    std::uint16_t previous = 0;
    bool firstCode = true;
    unsigned width = 9;
    std::uint64_t produced = 0;          // bytes decoded: handed out plus stashed
    QXDecoderVector<std::uint8_t> stash; // decoded bytes that found no output room yet
    std::size_t stashHead = 0;           // stash[stashHead..] are still to hand out
    std::uint8_t scratch[kMaxCodes + 1];  // one string, rebuilt back to front
};

bool isPresent(const UnshrinkState& state, std::uint32_t code) {
    return code < state.table.size() && state.table[code].present;
}

void partialClear(UnshrinkState& state) {
    auto& table = state.table;
    for (std::size_t code = kFirstFreeCode; code < table.size(); ++code)
        if (table[code].present) table[table[code].parent].mark = true;
    for (std::size_t code = 0; code < kFirstFreeCode; ++code) table[code].mark = false;
    for (std::size_t code = kFirstFreeCode; code < table.size(); ++code) {
        Entry& entry = table[code];
        if (!entry.present) continue;
        if (entry.mark) {
            entry.mark = false;
        } else {
            entry.present = false;
            state.nextFree = std::min(state.nextFree, code);
        }
    }
}

// Adds the entry previous + first at the next free code. Once the 13-bit
// code space is full nothing is added: no code could ever name such an entry.
void addEntry(UnshrinkState& state, std::uint8_t first) {
    if (state.nextFree >= kMaxCodes) return;
    if (state.nextFree == state.table.size()) state.table.resize(state.table.size() + kTableStep);
    const Entry& parent = state.table[state.previous];
    Entry& entry = state.table[state.nextFree];
    entry.parent = state.previous;
    entry.length = static_cast<std::uint16_t>(parent.length + 1);
    entry.byte = first;
    entry.first = parent.first;
    entry.present = true;
    entry.mark = false;
    std::size_t next = state.nextFree + 1;
    while (next < state.table.size() && state.table[next].present) ++next;
    state.nextFree = next;
}

// Hands out stashed bytes; true when the stash is empty afterwards.
bool flushStash(QXUnshrinkStream& stream, UnshrinkState& state) {
    const std::size_t waiting = state.stash.size() - state.stashHead;
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(waiting, stream.avail_out));
    if (n > 0) {
        std::memcpy(stream.next_out, state.stash.data() + state.stashHead, n);
        stream.next_out += n;
        stream.avail_out -= n;
        stream.total_out += n;
        state.stashHead += n;
    }
    if (state.stashHead < state.stash.size()) return false;
    state.stash.clear();
    state.stashHead = 0;
    return true;
}

class CodeReader {
public:
    CodeReader(const std::uint8_t* in, std::size_t size, unsigned bit) : in_(in), size_(size), bit_(bit) {}

    // Reads a code of width bits; false (nothing moved) when too few are left.
    bool read(unsigned width, std::uint32_t& code) {
        if ((std::uint64_t{size_} - byte_) * 8 - bit_ < width) return false;
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3 && byte_ + i < size_; ++i) bits |= std::uint32_t{in_[byte_ + i]} << (8 * i);
        code = (bits >> bit_) & ((1u << width) - 1);
        bit_ += width;
        byte_ += bit_ >> 3;
        bit_ &= 7;
        return true;
    }

    std::size_t byte() const { return byte_; }
    unsigned bit() const { return bit_; }
    void reset(std::size_t byte, unsigned bit) {
        byte_ = byte;
        bit_ = bit;
    }

private:
    const std::uint8_t* in_;
    std::size_t size_;
    std::size_t byte_ = 0;
    unsigned bit_;
};

int decode(QXUnshrinkStream& stream, UnshrinkState& state, CodeReader& reader, std::size_t& committedByte,
           unsigned& committedBit) {
    auto commit = [&] {
        committedByte = reader.byte();
        committedBit = reader.bit();
    };
    for (;;) {
        if (state.produced >= state.uncompressedSize) return QXUNSHRINK_OK;
        if (stream.avail_out == 0) return QXUNSHRINK_AGAIN;
        std::uint32_t code;
        if (!reader.read(state.width, code)) return QXUNSHRINK_AGAIN;

        if (code == kControlCode) {
            std::uint32_t subcode;
            // A control code takes effect with its subcode or not at all, so
            // that a split between the two never applies it twice.
            if (!reader.read(state.width, subcode)) return QXUNSHRINK_AGAIN;
            if (subcode == 1) {
                if (state.width >= kMaxWidth) return QXUNSHRINK_DATA_ERROR;
                ++state.width;
            } else if (subcode == 2) {
                partialClear(state);
            }
            commit();
            continue;
        }

        std::uint8_t first;
        if (isPresent(state, code)) {
            first = state.table[code].first;
        } else {
            if (state.firstCode || !isPresent(state, state.previous)) return QXUNSHRINK_DATA_ERROR;
            first = state.table[state.previous].first;  // the code this very step defines
        }
        if (state.firstCode) {
            state.firstCode = false;
        } else {
            if (!isPresent(state, state.previous)) return QXUNSHRINK_DATA_ERROR;
            addEntry(state, first);
            if (!isPresent(state, code)) return QXUNSHRINK_DATA_ERROR;
        }

        // Rebuild the string back to front from the parent links.
        const std::size_t length = state.table[code].length;
        if (length == 0 || length > kMaxCodes) return QXUNSHRINK_MEM_ERROR;
        std::uint32_t link = code;
        for (std::size_t i = length; i-- > 0;) {
            if (!isPresent(state, link)) return QXUNSHRINK_MEM_ERROR;
            state.scratch[i] = state.table[link].byte;
            link = state.table[link].parent;
        }
        if (link != kControlCode) return QXUNSHRINK_MEM_ERROR;

        // Never more than the entry's size, whatever the last code says.
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(length, state.uncompressedSize - state.produced));
        const std::size_t direct = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, stream.avail_out));
        std::memcpy(stream.next_out, state.scratch, direct);
        stream.next_out += direct;
        stream.avail_out -= direct;
        stream.total_out += direct;
        state.stash.assign(state.scratch + direct, state.scratch + wanted);
        state.stashHead = 0;
        state.produced += wanted;
        state.previous = static_cast<std::uint16_t>(code);
        commit();
        if (!state.stash.empty()) return QXUNSHRINK_AGAIN;
    }
}

} // namespace

extern "C" QXUnshrinkStream* QXUnshrinkInit(uint64_t uncompressedSize) {
    return QXUnshrinkInitWithAllocator(uncompressedSize, nullptr, nullptr, nullptr);
}

extern "C" QXUnshrinkStream* QXUnshrinkInitWithAllocator(uint64_t uncompressedSize, QXAllocFunction zalloc,
                                                         QXFreeFunction zfree, void* opaque) {
    const QXDecoderMemory memory{zalloc, zfree, opaque};
    auto* stream = memory.create<QXUnshrinkStream>();
    if (!stream) return nullptr;
    auto* state = memory.create<UnshrinkState>(memory);
    if (!state) {
        memory.destroy(stream);
        return nullptr;
    }
    try {
        state->table.resize(kTableStep);
    } catch (const std::bad_alloc&) {
        memory.destroy(state);
        memory.destroy(stream);
        return nullptr;
    }
    stream->zalloc = zalloc;
    stream->zfree = zfree;
    stream->opaque = opaque;
    for (std::uint32_t b = 0; b < 256; ++b) {
        Entry& entry = state->table[b];
        entry.length = 1;
        entry.byte = entry.first = static_cast<std::uint8_t>(b);
        entry.present = true;
    }
    state->uncompressedSize = uncompressedSize;
    stream->state = state;
    return stream;
}

extern "C" int QXUnshrink(QXUnshrinkStream* stream) {
    if (!stream || !stream->state) return QXUNSHRINK_INVALID_ARGUMENT;
    if ((!stream->next_in && stream->avail_in > 0) || (!stream->next_out && stream->avail_out > 0))
        return QXUNSHRINK_INVALID_ARGUMENT;
    auto& state = *static_cast<UnshrinkState*>(stream->state);
    try {
        if (stream->avail_in > 0) {
            if (stream->avail_in > SIZE_MAX) return QXUNSHRINK_MEM_ERROR;
            state.pending.append(stream->next_in, static_cast<std::size_t>(stream->avail_in));
            stream->next_in += stream->avail_in;
            stream->total_in += stream->avail_in;
            stream->avail_in = 0;
        }
        if (!flushStash(*stream, state)) return QXUNSHRINK_AGAIN;

        CodeReader reader(state.pending.data(), state.pending.size(), state.bitPosition);
        std::size_t committedByte = 0;
        unsigned committedBit = state.bitPosition;
        const int result = decode(*stream, state, reader, committedByte, committedBit);
        state.pending.consume(committedByte);
        state.bitPosition = committedBit;
        if (result == QXUNSHRINK_OK && !state.stash.empty()) return QXUNSHRINK_AGAIN;
        return result;
    } catch (const std::bad_alloc&) {
        return QXUNSHRINK_MEM_ERROR;
    } catch (const std::length_error&) {
        return QXUNSHRINK_MEM_ERROR;
    }
}

extern "C" int QXUnshrinkCleanup(QXUnshrinkStream* stream) {
    if (!stream) return 0;
    auto* state = static_cast<UnshrinkState*>(stream->state);
    const QXDecoderMemory memory = state ? state->memory : QXDecoderMemory{stream->zalloc, stream->zfree, stream->opaque};
    memory.destroy(state);
    memory.destroy(stream);
    return 0;
}
