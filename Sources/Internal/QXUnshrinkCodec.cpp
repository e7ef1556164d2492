// QXUnshrinkCodec.cpp - shrunk ZIP entries through QXUnshrink.
#include "Internal/QXUnshrinkCodec.h"

#include "Internal/QXCodecError.h"

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXCodec> QXUnshrinkCodec::create(std::uint64_t uncompressedSize, Ref<Error>* error) {
    QXUnshrinkStream* stream = QXUnshrinkInit(uncompressedSize);
    if (!stream) {
        if (error) *error = QXCodecError(QXCodecStep::UnshrinkInit);
        return nullptr;
    }
    return std::unique_ptr<QXCodec>(new QXUnshrinkCodec(stream));
}

QXUnshrinkCodec::~QXUnshrinkCodec() { QXUnshrinkCleanup(stream_); }

Ref<Data> QXUnshrinkCodec::decodeChunk(const Ref<Data>& input, bool, bool*, Ref<Error>* error) {
    QXUnshrinkStream* s = stream_;
    s->next_in = input->bytes();
    s->avail_in = input->length();
    auto out = Data::create();
    int result;
    for (;;) {
        std::uint8_t* room = scratch();
        s->next_out = room;
        s->avail_out = kQXCodecBufferSize;
        result = QXUnshrink(s);
        const std::size_t written = kQXCodecBufferSize - s->avail_out;
        if (result == QXUNSHRINK_OK || result == QXUNSHRINK_MEM_ERROR || result == QXUNSHRINK_AGAIN)
            out->append(room, written);
        if (result == QXUNSHRINK_AGAIN && (written > 0 || s->avail_in > 0)) continue;
        break;
    }
    s->next_in = nullptr;
    s->avail_in = 0;
    s->next_out = nullptr;
    s->avail_out = 0;
    if (result == QXUNSHRINK_OK || result == QXUNSHRINK_AGAIN) return out;
    const Ref<Error> failure = QXCodecError(QXCodecStep::Unshrink, result);
    if (error) *error = failure;
    return nullptr;
}
