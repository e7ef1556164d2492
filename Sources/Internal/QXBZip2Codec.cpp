// QXBZip2Codec.cpp - bzip2 streams through libbz2.
#include "Internal/QXBZip2Codec.h"

#include "Internal/QXCodecError.h"

#include <algorithm>

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXCodec> QXBZip2Codec::create(Ref<Error>* error) {
    std::unique_ptr<QXBZip2Codec> codec(new QXBZip2Codec());
    const int result = BZ2_bzDecompressInit(&codec->stream_, 0, 0);
    if (result != BZ_OK) {
        if (error) *error = QXCodecError(QXCodecStep::BZip2Init, result);
        return nullptr;
    }
    codec->initialised_ = true;
    return codec;
}

QXBZip2Codec::~QXBZip2Codec() {
    if (initialised_) BZ2_bzDecompressEnd(&stream_);
}

Ref<Data> QXBZip2Codec::decodeChunk(const Ref<Data>& input, bool, bool*, Ref<Error>* error) {
    if (input->length() == 0) return Data::create();
    auto out = reusableOutput();
    if (!feed(input->bytes(), input->length(), *out, error)) return nullptr;
    return out;
}

bool QXBZip2Codec::feed(const std::uint8_t* bytes, std::uint64_t length, Data& out, Ref<Error>* error) {
    bz_stream* bz = &stream_;
    while (length > 0 && !finished_) {
        const std::uint64_t piece = std::min(kQXCodecMaxPieceLength, length);
        bz->next_in = reinterpret_cast<char*>(const_cast<std::uint8_t*>(bytes));
        bz->avail_in = static_cast<unsigned>(piece);
        int result;
        for (;;) {
            const bool inPlace = decodesInPlace(bz->avail_in);
            bz->next_out = reinterpret_cast<char*>(openRoom(out, inPlace));
            bz->avail_out = static_cast<unsigned>(kQXCodecBufferSize);
            const unsigned inBefore = bz->avail_in;
            result = BZ2_bzDecompress(bz);
            closeRoom(out, inPlace, kQXCodecBufferSize - bz->avail_out);
            if (result == BZ_OK) {
                if (bz->avail_in == 0 && bz->avail_out != 0) break;
                if (bz->avail_in == inBefore && bz->avail_out == kQXCodecBufferSize) break;  // no progress possible
                continue;
            }
            if (result == BZ_STREAM_END) {
                finished_ = true;
                unconsumed_ = bz->avail_in + (length - piece);
            }
            break;
        }
        bz->next_in = nullptr;
        bz->avail_in = 0;
        if (result != BZ_OK && result != BZ_STREAM_END) {
            const Ref<Error> failure = QXCodecError(QXCodecStep::BZip2Decompress, result);
            if (error) *error = failure;
            return false;
        }
        bytes += piece;
        length -= piece;
    }
    return true;
}
