// QXExplode.cpp - decoder for ZIP entries stored with the Imploding method (6).
#include <QXFoundation/QXExplode.h>

#include "Internal/QXPendingBytes.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <stdexcept>

namespace {

constexpr unsigned kMaxCodeLength = 16;
constexpr std::size_t kTrimStep = 32768;

// A Shannon-Fano tree, flattened into a table indexed by the next maxLength
// bits of input (least significant bit first). Every slot says how many of
// those bits the walk from the root takes and where it ends: at a leaf (the
// symbol) or at a missing child (no symbol has that prefix).
class ShannonFanoTree {
public:
    static constexpr std::uint32_t kMissing = 0x80000000u;

    explicit ShannonFanoTree(const QXDecoderMemory* memory) : nodes_(Alloc<Node>(memory)), table_(Alloc<std::uint32_t>(memory)) {}

    static std::uint32_t bitsOf(std::uint32_t slot) { return (slot >> 16) & 0x1F; }
    static std::uint32_t symbolOf(std::uint32_t slot) { return slot & 0xFFFF; }

    bool present() const { return !table_.empty(); }
    std::uint32_t lookup(std::uint64_t bits) const { return table_[bits & mask_]; }

    // Builds the tree from one code length (1..16) per symbol; 0, or
    // QXEXPLODE_BAD_TREE when two codes collide. Throws std::bad_alloc when
    // memory runs out.
    int build(const QXDecoderVector<std::uint8_t>& lengths) {
        const std::size_t count = lengths.size();
        const Alloc<std::uint32_t> alloc(table_.get_allocator());
        // Symbols by length, each length in symbol order: the j-th code of a
        // length goes to the j-th symbol of that length.
        QXDecoderVector<std::uint32_t> order(alloc);
        order.reserve(count);
        for (unsigned length = 1; length <= kMaxCodeLength; ++length)
            for (std::size_t i = 0; i < count; ++i)
                if (lengths[i] == length) order.push_back(static_cast<std::uint32_t>(i));

        QXDecoderVector<std::uint16_t> codes(count, alloc);
        std::uint16_t code = 0, increment = 0;
        unsigned lastLength = 0;
        for (std::size_t i = count; i-- > 0;) {
            code = static_cast<std::uint16_t>(code + increment);
            const unsigned length = lengths[order[i]];
            if (length != lastLength) {
                lastLength = length;
                increment = static_cast<std::uint16_t>(1u << (kMaxCodeLength - length));
            }
            codes[order[i]] = reverse16(code);
        }

        // Explicit tree first: it is what tells colliding codes apart.
        nodes_.assign(1, Node{});
        unsigned maxLength = 0;
        for (std::size_t symbol = 0; symbol < count; ++symbol) {
            const unsigned length = lengths[symbol];
            maxLength = std::max(maxLength, length);
            std::int32_t node = 0;
            for (unsigned bit = 0; bit < length; ++bit) {
                if (nodes_[node].symbol >= 0) return QXEXPLODE_BAD_TREE;  // passes through a leaf
                const unsigned branch = (codes[symbol] >> bit) & 1u;
                if (nodes_[node].child[branch] < 0) {
                    nodes_[node].child[branch] = static_cast<std::int32_t>(nodes_.size());
                    nodes_.push_back(Node{});
                }
                node = nodes_[node].child[branch];
            }
            Node& leaf = nodes_[node];
            if (leaf.symbol >= 0 || leaf.child[0] >= 0 || leaf.child[1] >= 0) return QXEXPLODE_BAD_TREE;
            leaf.symbol = static_cast<std::int32_t>(symbol);
        }

        table_.assign(std::size_t{1} << maxLength, 0);
        mask_ = (std::uint64_t{1} << maxLength) - 1;
        fill(0, 0, 0);
        QXDecoderVector<Node>(nodes_.get_allocator()).swap(nodes_);
        return 0;
    }

private:
    template <typename T>
    using Alloc = QXDecoderAllocator<T>;

    struct Node {
        std::int32_t child[2] = {-1, -1};
        std::int32_t symbol = -1;  // -1 for an inner node
    };

    static std::uint16_t reverse16(std::uint16_t v) {
        std::uint16_t r = 0;
        for (int i = 0; i < 16; ++i) r = static_cast<std::uint16_t>((r << 1) | ((v >> i) & 1u));
        return r;
    }

    void fillSlots(std::size_t prefix, unsigned depth, std::uint32_t slot) {
        for (std::size_t i = prefix; i < table_.size(); i += std::size_t{1} << depth) table_[i] = slot;
    }

    void fill(std::int32_t node, unsigned depth, std::size_t prefix) {
        for (unsigned branch = 0; branch < 2; ++branch) {
            const std::size_t next = prefix | (std::size_t{branch} << depth);
            const std::int32_t child = nodes_[node].child[branch];
            if (child < 0) {
                fillSlots(next, depth + 1, kMissing | ((depth + 1) << 16));
            } else if (nodes_[child].symbol >= 0) {
                fillSlots(next, depth + 1, ((depth + 1) << 16) | static_cast<std::uint32_t>(nodes_[child].symbol));
            } else {
                fill(child, depth + 1, next);
            }
        }
    }

    QXDecoderVector<Node> nodes_;           // only while building
    QXDecoderVector<std::uint32_t> table_;  // 2^maxLength slots
    std::uint64_t mask_ = 0;
};

struct ExplodeState {
    explicit ExplodeState(const QXDecoderMemory& hooks)
        : memory(hooks), pending(&memory), history(QXDecoderAllocator<std::uint8_t>(&memory)),
          trees{ShannonFanoTree(&memory), ShannonFanoTree(&memory), ShannonFanoTree(&memory)} {}
    ExplodeState(const ExplodeState&) = delete;
    ExplodeState& operator=(const ExplodeState&) = delete;

    QXDecoderMemory memory;           // first: everything below allocates from it
    QXPendingBytes pending;           // input taken but not yet decoded
    QXDecoderVector<std::uint8_t> history;
    std::size_t historyLength = 0;    // bytes of history in use; <= history.size()
    std::size_t handedOut = 0;        // leading history bytes already given to the caller
    unsigned bitPosition = 0;         // 0..7, inside the first pending byte
    ShannonFanoTree trees[3];         // literal, length, distance
    std::uint64_t uncompressedSize = 0;
    unsigned minimumMatch = 2;
    std::size_t dictionarySize = 4096;
    unsigned lowDistanceBits = 6;
    bool literalTree = false;
    bool treesDone = false;
};

enum { kLiteralTree = 0, kLengthTree = 1, kDistanceTree = 2 };

// Reads one tree description at the front of the pending input.
int readTree(ExplodeState& state, ShannonFanoTree& tree) {
    const std::uint8_t* in = state.pending.data();
    const std::size_t size = state.pending.size();
    if (size < 1 || size < std::size_t{in[0]} + 2) return QXEXPLODE_NEED_INPUT;
    const std::size_t runs = std::size_t{in[0]} + 1;
    QXDecoderVector<std::uint8_t> lengths(QXDecoderAllocator<std::uint8_t>(&state.memory));
    lengths.reserve(runs * 16);
    for (std::size_t i = 1; i <= runs; ++i) lengths.insert(lengths.end(), (in[i] >> 4) + 1u, static_cast<std::uint8_t>((in[i] & 0x0F) + 1));
    const int result = tree.build(lengths);
    if (result == 0) state.pending.consume(runs + 1);
    return result;
}

// Up to 64 bits of input from byte offset `at` on, least significant first;
// bytes past the end read as zeros.
std::uint64_t load64(const std::uint8_t* in, std::size_t size, std::size_t at) {
    std::uint64_t value = 0;
    if (size - at >= 8) {
        std::memcpy(&value, in + at, 8);
        if constexpr (std::endian::native == std::endian::big) value = __builtin_bswap64(value);
        return value;
    }
    for (std::size_t i = 0; at + i < size; ++i) value |= std::uint64_t{in[at + i]} << (8 * i);
    return value;
}

// Makes room for n more history bytes.
void reserveHistory(ExplodeState& state, std::size_t n) {
    if (state.historyLength + n > state.history.size())
        state.history.resize(std::max(state.history.size() * 2, state.historyLength + n + 65536));
}

void copyMatch(ExplodeState& state, std::size_t distance, std::size_t length) {
    reserveHistory(state, length);
    std::uint8_t* h = state.history.data();
    std::size_t end = state.historyLength;
    const std::size_t reachable = std::min(end, state.dictionarySize);
    if (distance <= reachable) {
        const std::size_t from = end - distance;
        if (distance >= length) {
            std::memcpy(h + end, h + from, length);
        } else {
            for (std::size_t i = 0; i < length; ++i) h[end + i] = h[from + i];  // overlap repeats the pattern
        }
    } else {
        // Before the first output byte the stream counts as zeros. Only a
        // distance tree of more than 64 symbols reaches past a full dictionary;
        // its copy then starts where the dictionary-bounded history starts.
        const std::size_t zeros = std::min(distance - reachable, length);
        std::memset(h + end, 0, zeros);
        const std::size_t start = end - std::min(end, std::max(state.dictionarySize, end - state.handedOut));
        for (std::size_t i = 0; i < length - zeros; ++i) h[end + zeros + i] = h[start + i];
    }
    state.historyLength = end + length;
}

int decodeSymbols(ExplodeState& state, std::uint64_t producedBefore) {
    const std::uint8_t* in = state.pending.data();
    const std::size_t size = state.pending.size();
    std::size_t bytePosition = 0;
    unsigned bitPosition = state.bitPosition;
    const ShannonFanoTree& literals = state.trees[kLiteralTree];
    const ShannonFanoTree& lengths = state.trees[kLengthTree];
    const ShannonFanoTree& distances = state.trees[kDistanceTree];
    const unsigned lowBits = state.lowDistanceBits;
    int result = QXEXPLODE_NEED_INPUT;

    for (;;) {
        const std::uint64_t produced = producedBefore + (state.historyLength - state.handedOut);
        if (produced >= state.uncompressedSize) {
            result = QXEXPLODE_OK;
            break;
        }
        const std::uint64_t available = (std::uint64_t{size} - bytePosition) * 8 - bitPosition;
        // One symbol takes at most 1 + 7 + 16 + 16 + 8 bits, all inside these 57.
        std::uint64_t bits = load64(in, size, bytePosition) >> bitPosition;
        unsigned used = 0;
        auto take = [&](unsigned n) {
            const std::uint32_t v = static_cast<std::uint32_t>(bits & ((std::uint64_t{1} << n) - 1));
            bits >>= n;
            used += n;
            return v;
        };
        int symbolResult = 0;
        auto decode = [&](const ShannonFanoTree& tree) -> std::uint32_t {
            const std::uint32_t slot = tree.lookup(bits);
            const unsigned n = ShannonFanoTree::bitsOf(slot);
            if (used + n > available) {
                symbolResult = QXEXPLODE_NEED_INPUT;
            } else if (slot & ShannonFanoTree::kMissing) {
                symbolResult = QXEXPLODE_DATA_ERROR;
            } else {
                take(n);
            }
            return ShannonFanoTree::symbolOf(slot);
        };
        // Every read waits for its input, the fixed-width ones too: a symbol
        // cut by the end of the input is decoded again whole next time, so
        // the output never depends on where the input was split.
        if (available < 1) break;
        const std::uint64_t remaining = state.uncompressedSize - produced;
        if (take(1)) {
            std::uint32_t literal;
            if (state.literalTree) {
                literal = decode(literals);
            } else {
                literal = take(8);
                if (used > available) symbolResult = QXEXPLODE_NEED_INPUT;
            }
            if (symbolResult != 0) {
                result = symbolResult;
                break;
            }
            reserveHistory(state, 1);
            state.history[state.historyLength++] = static_cast<std::uint8_t>(literal);
        } else {
            const std::uint32_t low = take(lowBits);
            const std::uint32_t high = used <= available ? decode(distances) : (symbolResult = QXEXPLODE_NEED_INPUT, 0u);
            std::uint32_t length = symbolResult == 0 ? decode(lengths) : 0;
            if (symbolResult == 0 && length == 63) {
                length += take(8);
                if (used > available) symbolResult = QXEXPLODE_NEED_INPUT;
            }
            if (symbolResult != 0) {
                result = symbolResult;
                break;
            }
            const std::size_t distance = ((std::size_t{high} << lowBits) | low) + 1;
            std::size_t n = std::size_t{length} + state.minimumMatch;
            // Never more than the entry's size, whatever the last match says.
            if (n > remaining) n = static_cast<std::size_t>(remaining);
            copyMatch(state, distance, n);
        }
        bitPosition += used;
        bytePosition += bitPosition >> 3;
        bitPosition &= 7;
    }
    state.pending.consume(bytePosition);
    state.bitPosition = bitPosition;
    return result;
}

} // namespace

extern "C" QXExplodeStream* QXExplodeInit(uint64_t uncompressedSize, bool largeDictionary, bool literalTree) {
    return QXExplodeInitWithAllocator(uncompressedSize, largeDictionary, literalTree, nullptr, nullptr, nullptr);
}

extern "C" QXExplodeStream* QXExplodeInitWithAllocator(uint64_t uncompressedSize, bool largeDictionary,
                                                       bool literalTree, QXAllocFunction zalloc, QXFreeFunction zfree,
                                                       void* opaque) {
    const QXDecoderMemory memory{zalloc, zfree, opaque};
    auto* stream = memory.create<QXExplodeStream>();
    if (!stream) return nullptr;
    auto* state = memory.create<ExplodeState>(memory);
    if (!state) {
        memory.destroy(stream);
        return nullptr;
    }
    stream->zalloc = zalloc;
    stream->zfree = zfree;
    stream->opaque = opaque;
    state->uncompressedSize = uncompressedSize;
    state->literalTree = literalTree;
    state->minimumMatch = literalTree ? 3 : 2;
    state->dictionarySize = largeDictionary ? 8192 : 4096;
    state->lowDistanceBits = largeDictionary ? 7 : 6;
    stream->state = state;
    return stream;
}

extern "C" int QXExplode(QXExplodeStream* stream, const uint8_t** output, uint64_t* outputLength) {
    if (outputLength) *outputLength = 0;
    if (output) *output = nullptr;
    if (!stream || !stream->state || (!stream->next_in && stream->avail_in > 0)) return QXEXPLODE_INVALID_ARGUMENT;
    auto& state = *static_cast<ExplodeState*>(stream->state);
    try {
        if (stream->avail_in > 0) {
            if (stream->avail_in > SIZE_MAX) return QXEXPLODE_DATA_ERROR;
            state.pending.append(stream->next_in, static_cast<std::size_t>(stream->avail_in));
            stream->next_in += stream->avail_in;
            stream->total_in += stream->avail_in;
            stream->avail_in = 0;
        }

        // The previous call's bytes are handed out now: keep the dictionary,
        // dropping the rest in large steps so that tiny calls stay cheap.
        const std::size_t surplus =
            state.historyLength > state.dictionarySize ? std::min(state.handedOut, state.historyLength - state.dictionarySize) : 0;
        if (surplus >= kTrimStep) {
            const std::size_t drop = surplus;
            std::memmove(state.history.data(), state.history.data() + drop, state.historyLength - drop);
            state.historyLength -= drop;
            state.handedOut -= drop;
        }

        while (!state.treesDone) {
            for (int which = state.literalTree ? kLiteralTree : kLengthTree; which <= kDistanceTree; ++which) {
                if (state.trees[which].present()) continue;
                const int result = readTree(state, state.trees[which]);
                if (result != 0) return result;
            }
            state.treesDone = true;
        }
        if (stream->total_out >= state.uncompressedSize) return QXEXPLODE_OK;

        const int result = decodeSymbols(state, stream->total_out);
        if (result != QXEXPLODE_OK && result != QXEXPLODE_NEED_INPUT) return result;
        const std::size_t count = state.historyLength - state.handedOut;
        if (output) *output = state.history.data() + state.handedOut;
        if (outputLength) *outputLength = count;
        stream->total_out += count;
        state.handedOut = state.historyLength;
        return result;
    } catch (const std::bad_alloc&) {
        return QXEXPLODE_DATA_ERROR;
    } catch (const std::length_error&) {
        return QXEXPLODE_DATA_ERROR;
    }
}

extern "C" int QXExplodeCleanup(QXExplodeStream* stream) {
    if (!stream) return 0;
    auto* state = static_cast<ExplodeState*>(stream->state);
    const QXDecoderMemory memory = state ? state->memory : QXDecoderMemory{stream->zalloc, stream->zfree, stream->opaque};
    memory.destroy(state);
    memory.destroy(stream);
    return 0;
}
