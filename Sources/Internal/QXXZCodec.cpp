// QXXZCodec.cpp - xz streams through liblzma, into returned data or a chunk's ring buffer.
#include "Internal/QXXZCodec.h"

#include <QXFoundation/QXError.h>

#include "Internal/QXCodecError.h"
#include "Internal/QXCompressionMagic.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {
// liblzma's output room per call: small enough to stay in the first-level caches.
constexpr std::size_t kXZRoomSize = 65536;
} // namespace

std::unique_ptr<QXCodec> QXXZCodec::create(const std::optional<QXChunkOutput>& chunkOutput, bool takeTurnFirst,
                                           Ref<Error>* error) {
    std::unique_ptr<QXXZCodec> codec(new QXXZCodec(chunkOutput));
    if (chunkOutput && takeTurnFirst) chunkOutput->turn->take();
    codec->stream_.reset(QXXZDecoderPool::shared().take());
    const lzma_ret result = lzma_stream_decoder(codec->stream_.get(), UINT64_MAX, LZMA_CONCATENATED);
    if (result != LZMA_OK) {
        if (error) *error = QXCodecError(QXCodecStep::XZInit, result);
        return nullptr;
    }
    return codec;
}

Ref<Data> QXXZCodec::decodeChunk(const Ref<Data>& input, bool isFinal, bool*, Ref<Error>* error) {
    Ref<Data> in = joinHeld(input);
    if (!started()) {
        const std::uint8_t* magic = kQXXZMagic.prefixes[0].bytes.data();
        const std::size_t magicLength = kQXXZMagic.prefixes[0].length;
        if (in->length() < magicLength) {
            held().append(*in);
            return Data::create();
        }
        // Only the first five bytes are looked at, as the header check does.
        if (std::memcmp(in->bytes(), magic, 5) != 0) {
            auto withMagic = Data::withBytes(magic, magicLength);
            withMagic->append(*in);
            in = withMagic;
        }
    }
    lzma_stream* lz = stream_.get();
    lz->next_in = in->bytes();
    lz->avail_in = in->length();
    if (chunkOutput_) return decodeIntoRing(isFinal, error) ? Data::create() : nullptr;
    const lzma_action action = isFinal ? LZMA_FINISH : LZMA_RUN;
    auto out = reusableOutput();
    // liblzma copies out of its dictionary anyway, so its output goes to the
    // one room that stays in cache and is appended from there, rather than
    // into freshly cleared storage at the end of out.
    std::uint8_t* room = scratch();
    for (;;) {
        lz->next_out = room;
        lz->avail_out = kXZRoomSize;
        const lzma_ret result = lzma_code(lz, action);
        out->append(room, kXZRoomSize - lz->avail_out);
        const Step next = step(result, isFinal, error);
        if (next == Step::More) continue;
        if (next == Step::Stop) break;
        lz->next_in = nullptr;
        lz->avail_in = 0;
        return nullptr;
    }
    lz->next_in = nullptr;
    lz->avail_in = 0;
    return out;
}

// What to do after one liblzma call whose output has been taken care of.
QXXZCodec::Step QXXZCodec::step(lzma_ret result, bool isFinal, Ref<Error>* error) {
    const lzma_stream* lz = stream_.get();
    if (result == LZMA_OK) {
        // When finishing, liblzma answers a call that can make no progress
        // with LZMA_BUF_ERROR: that is how a truncated stream shows.
        return !isFinal && lz->avail_in == 0 && lz->avail_out != 0 ? Step::Stop : Step::More;
    }
    if (result == LZMA_STREAM_END) {
        finished_ = true;
        return Step::Stop;
    }
    const Ref<Error> failure = QXCodecError(QXCodecStep::XZCode, result);
    if (error) *error = failure;
    return Step::Failed;
}

// liblzma copies out of its dictionary anyway, so it copies straight into the
// ring buffer the drain reads, a run of at most kQXCodecBufferSize at a time
// so that output reaches the drain as it is made.
bool QXXZCodec::decodeIntoRing(bool isFinal, Ref<Error>* error) {
    lzma_stream* lz = stream_.get();
    QXRingBuffer& ring = *chunkOutput_->ring;
    QXDecodeTurn& turn = *chunkOutput_->turn;
    const lzma_action action = isFinal ? LZMA_FINISH : LZMA_RUN;
    bool ok = true;
    turn.take();
    for (;;) {
        std::uint64_t room = 0;
        std::uint8_t* at = ring.reserveWrite(&room, false);
        if (at && ring.isClosed()) {
            // A cancel closes the buffer: no use decoding the rest of the piece.
            at = nullptr;
            room = 0;
        } else if (!at) {
            turn.release();
            at = ring.reserveWrite(&room, true);
            if (at) turn.take();
        }
        if (!at) {
            // Closed: before the end only a cancel or a failure does that; the
            // operation keeps the cancel's own error.
            if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, 3072);
            ok = false;
            break;
        }
        room = std::min<std::uint64_t>(room, kQXCodecBufferSize);
        lz->next_out = at;
        lz->avail_out = static_cast<std::size_t>(room);
        const lzma_ret result = lzma_code(lz, action);
        ring.commitWrite(room - lz->avail_out);
        turn.yieldToOlder();
        const Step next = step(result, isFinal, error);
        if (next == Step::More) continue;
        ok = next == Step::Stop;
        break;
    }
    lz->next_in = nullptr;
    lz->avail_in = 0;
    lz->next_out = nullptr;
    lz->avail_out = 0;
    if (!ok || finished_) {
        // Nothing more to decode: the stream goes back for the next chunk now,
        // not when the drain lets go of this decoder.
        if (finished_) stream_.reset();
        turn.release();
    }
    return ok;
}
