// QXPBZXCodec.cpp - the PBZX container read and its chunks fanned out.
#include "Internal/QXPBZXCodec.h"

#include <QXFoundation/QXError.h>

#include "Internal/QXCodecError.h"
#include "Internal/QXCompressionMagic.h"

#include <algorithm>
#include <cstring>
#include <vector>

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXCodec> QXPBZXCodec::create(Ref<Error>* error) {
    std::unique_ptr<QXPBZXCodec> codec(new QXPBZXCodec());
    codec->stream_ = QXPBZXDecodeInit();
    if (!codec->stream_) {
        if (error) *error = QXCodecError(QXCodecStep::PBZXInit);
        return nullptr;
    }
    return codec;
}

QXPBZXCodec::~QXPBZXCodec() {
    if (stream_) QXPBZXDecodeCleanup(stream_);
}

void QXPBZXCodec::cancelWithError(const Ref<Error>& error) {
    cancelled_ = true;
    cancelError_ = error;
    fanOut_.cancelWithError(error);
}

Ref<Error> QXPBZXCodec::operationError() const { return fanOut_.operationError(); }

Ref<Error> QXPBZXCodec::fail(const Ref<Error>& failure) {
    cancelWithError(failure);
    return failure;
}

Ref<Data> QXPBZXCodec::decodeChunk(const Ref<Data>& input, bool isFinal, bool* runAgain, Ref<Error>* error) {
    auto setError = [error](const Ref<Error>& value) {
        if (error) *error = value;
    };
    if (cancelled_) {
        setError(cancelError_ ? cancelError_ : QXGenerateError(qx::NSCocoaErrorDomain, 3072));
        return nullptr;
    }
    // After the final call only output is collected: the buffer driver gives
    // the whole input again while asked to run again.
    Ref<Data> in = joinHeld(input);
    if (inputEnded_) in = Data::create();
    if (!started()) {
        const std::uint8_t* magic = kQXPBZXMagic.prefixes[0].bytes.data();
        const std::size_t magicLength = kQXPBZXMagic.prefixes[0].length;
        if (in->length() < magicLength) {
            held().append(*in);
            return Data::create();
        }
        if (std::memcmp(in->bytes(), magic, magicLength) != 0) {
            auto withMagic = Data::withBytes(magic, magicLength);
            withMagic->append(*in);
            in = withMagic;
        }
    }
    QXPBZXDecodeStream* s = stream_;
    s->next_in = in->bytes();
    s->avail_in = in->length();
    std::uint8_t* staging = scratch();
    auto out = reusableOutput();
    int result;
    do {
        s->next_out = staging;
        s->avail_out = kQXCodecBufferSize;
        const std::uint64_t before = s->total_out;
        result = QXPBZXDecode(s);
        if (result != QXPBZX_OK && result != QXPBZX_AGAIN && result != QXPBZX_NEED_INPUT) {
            setError(fail(QXCodecError(QXCodecStep::PBZXDecode, result)));
            return nullptr;
        }
        const std::uint64_t staged = s->total_out - before;
        if (staged > 0 && s->chunk_started) {
            // Waiting here takes an older chunk's whole output, and what the
            // ones after it have ready: room for about two chunks is set aside
            // at once (only what is written is ever backed), rather than the
            // output being copied over and over as it grows. The header's
            // size is only a hint: an implausibly large one is ignored and
            // the output grows as it must.
            if (s->chunk_uncompressed_size <= kQXCodecMaxKeptOutput / 2) {
                std::vector<std::uint8_t>& room = out->vector();
                const std::size_t hint = static_cast<std::size_t>(s->chunk_uncompressed_size);
                const std::size_t wanted = std::min(kQXCodecMaxKeptOutput, room.size() + 2 * hint);
                if (room.capacity() < wanted) room.reserve(wanted);
            }
            // Back-pressure falls on new chunks only: the newest chunk gets
            // all its input while the oldest is awaited, so that it has work
            // for a processor the chunks in between may have left idle.
            if (auto failure = fanOut_.drain(*out, false, true)) {
                setError(fail(failure));
                return nullptr;
            }
            if (auto failure = fanOut_.startChunk(s->chunk_compressed)) {
                setError(fail(failure));
                return nullptr;
            }
        }
        if (staged > 0) fanOut_.provide(staging, static_cast<std::size_t>(staged), s->chunk_ended);
        // The container ends here: a chunk cut short is closed with what it
        // has, so that its decoder reports the truncation (xz does) instead of
        // waiting for bytes that never come.
        if (isFinal && result == QXPBZX_NEED_INPUT) fanOut_.endCurrentChunk();
        Ref<Error> failure = fanOut_.operationError();
        if (!failure) failure = fanOut_.drain(*out, isFinal && result != QXPBZX_AGAIN, false);
        if (failure) {
            setError(fail(failure));
            return nullptr;
        }
    } while (result == QXPBZX_AGAIN);
    if (isFinal) inputEnded_ = true;
    // Run again while any chunk decoder is listed, even one that has ended:
    // it may have failed after the drain looked, and only the drain reports
    // its error (its output so far can already have been taken).
    *runAgain = isFinal && fanOut_.hasOperations();
    return out;
}
