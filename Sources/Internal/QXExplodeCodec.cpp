// QXExplodeCodec.cpp - imploded ZIP entries through QXExplode.
#include "Internal/QXExplodeCodec.h"

#include "Internal/QXCodecError.h"

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXCodec> QXExplodeCodec::create(std::uint64_t uncompressedSize, bool largeDictionary,
                                                bool literalTree, Ref<Error>* error) {
    QXExplodeStream* stream = QXExplodeInit(uncompressedSize, largeDictionary, literalTree);
    if (!stream) {
        if (error) *error = QXCodecError(QXCodecStep::ExplodeInit);
        return nullptr;
    }
    return std::unique_ptr<QXCodec>(new QXExplodeCodec(stream));
}

QXExplodeCodec::~QXExplodeCodec() { QXExplodeCleanup(stream_); }

Ref<Data> QXExplodeCodec::decodeChunk(const Ref<Data>& input, bool, bool*, Ref<Error>* error) {
    QXExplodeStream* s = stream_;
    s->next_in = input->bytes();
    s->avail_in = input->length();
    auto out = Data::create();
    int result;
    for (;;) {
        const std::uint8_t* bytes = nullptr;
        std::uint64_t count = 0;
        result = QXExplode(s, &bytes, &count);
        const bool usable = result == QXEXPLODE_OK || result == QXEXPLODE_NEED_INPUT;
        if (usable && count > 0) out->append(bytes, count);
        if (result == QXEXPLODE_NEED_INPUT && s->avail_in > 0 && count > 0) continue;
        break;
    }
    s->next_in = nullptr;
    s->avail_in = 0;
    if (result == QXEXPLODE_OK || result == QXEXPLODE_NEED_INPUT) return out;
    const Ref<Error> failure = QXCodecError(QXCodecStep::Explode, result);
    if (error) *error = failure;
    return nullptr;
}
