// QXPBZXDecode.cpp - splits a PBZX container into its chunks.
#include <QXFoundation/QXPBZXDecode.h>

#include "Internal/QXPendingBytes.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace {

constexpr std::uint8_t kMagic[4] = {0x70, 0x62, 0x7A, 0x78};
constexpr std::size_t kChunkHeaderLength = 16;

struct PBZXState {
    explicit PBZXState(const QXDecoderMemory& hooks) : memory(hooks), pending(&memory) {}
    PBZXState(const PBZXState&) = delete;
    PBZXState& operator=(const PBZXState&) = delete;

    QXDecoderMemory memory;       // first: the pending input allocates from it
    QXPendingBytes pending;       // input taken but not yet handed out
    std::uint64_t flags = 0;      // from the header; kept, not interpreted
    std::uint64_t lastCopy = 0;   // chunk bytes handed out by the previous call
    std::uint64_t chunkRemaining = 0;
    bool headerRead = false;
};

std::uint64_t readBigEndian64(const std::uint8_t* p) {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = (value << 8) | p[i];
    return value;
}

} // namespace

extern "C" QXPBZXDecodeStream* QXPBZXDecodeInit(void) { return QXPBZXDecodeInitWithAllocator(nullptr, nullptr, nullptr); }

extern "C" QXPBZXDecodeStream* QXPBZXDecodeInitWithAllocator(QXAllocFunction zalloc, QXFreeFunction zfree, void* opaque) {
    const QXDecoderMemory memory{zalloc, zfree, opaque};
    auto* stream = memory.create<QXPBZXDecodeStream>();
    if (!stream) return nullptr;
    stream->state = memory.create<PBZXState>(memory);
    if (!stream->state) {
        memory.destroy(stream);
        return nullptr;
    }
    stream->zalloc = zalloc;
    stream->zfree = zfree;
    stream->opaque = opaque;
    return stream;
}

extern "C" int QXPBZXDecode(QXPBZXDecodeStream* stream) {
    if (!stream || !stream->state) return QXPBZX_INVALID_ARGUMENT;
    if ((!stream->next_in && stream->avail_in > 0) || (!stream->next_out && stream->avail_out > 0))
        return QXPBZX_INVALID_ARGUMENT;
    auto& state = *static_cast<PBZXState*>(stream->state);
    auto& pending = state.pending;

    if (stream->avail_in > 0) {
        if (stream->avail_in > SIZE_MAX) return QXPBZX_MEM_ERROR;
        try {
            pending.append(stream->next_in, static_cast<std::size_t>(stream->avail_in));
        } catch (const std::bad_alloc&) {
            return QXPBZX_MEM_ERROR;
        } catch (const std::length_error&) {
            return QXPBZX_MEM_ERROR;
        }
        stream->next_in += stream->avail_in;
        stream->total_in += stream->avail_in;
        stream->avail_in = 0;
    }

    if (!state.headerRead) {
        if (pending.size() < sizeof kMagic) return QXPBZX_NEED_INPUT;
        const std::size_t magicLength = std::memcmp(pending.data(), kMagic, sizeof kMagic) == 0 ? sizeof kMagic : 0;
        if (pending.size() < magicLength + 8) return QXPBZX_NEED_INPUT;
        state.flags = readBigEndian64(pending.data() + magicLength);
        state.headerRead = true;
        pending.consume(magicLength + 8);
    }

    std::size_t dataStart = 0;
    if (state.chunkRemaining != 0) {
        if (state.lastCopy != 0) stream->chunk_started = false;
    } else {
        if (pending.size() < kChunkHeaderLength) return pending.empty() ? QXPBZX_OK : QXPBZX_NEED_INPUT;
        stream->chunk_uncompressed_size = readBigEndian64(pending.data());
        stream->chunk_compressed_size = readBigEndian64(pending.data() + 8);
        state.chunkRemaining = stream->chunk_compressed_size;
        stream->chunk_started = true;
        dataStart = kChunkHeaderLength;
    }

    const std::uint64_t available = pending.size() - dataStart;
    const std::uint64_t count = std::min({state.chunkRemaining, available, stream->avail_out});
    if (count > 0) {
        std::memcpy(stream->next_out, pending.data() + dataStart, static_cast<std::size_t>(count));
        stream->next_out += count;
        stream->avail_out -= count;
        stream->total_out += count;
    }
    state.lastCopy = count;

    stream->chunk_compressed = stream->chunk_compressed_size != stream->chunk_uncompressed_size;
    state.chunkRemaining -= count;
    pending.consume(dataStart + static_cast<std::size_t>(count));
    stream->chunk_ended = state.chunkRemaining == 0;

    if (!pending.empty()) return QXPBZX_AGAIN;
    return state.chunkRemaining != 0 ? QXPBZX_NEED_INPUT : QXPBZX_OK;
}

extern "C" int QXPBZXDecodeCleanup(QXPBZXDecodeStream* stream) {
    if (!stream) return 0;
    auto* state = static_cast<PBZXState*>(stream->state);
    const QXDecoderMemory memory = state ? state->memory : QXDecoderMemory{stream->zalloc, stream->zfree, stream->opaque};
    memory.destroy(state);
    memory.destroy(stream);
    return 0;
}
