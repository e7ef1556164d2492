// QXZlibCodec.cpp - zlib, gzip and raw deflate streams through inflate.
#include "Internal/QXZlibCodec.h"

#include "Internal/QXCodecError.h"

#include <algorithm>
#include <cstring>

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXCodec> QXZlibCodec::create(QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    const bool gzip = algorithm == QXDecompressionAlgorithmGzip;
    std::unique_ptr<QXZlibCodec> codec(new QXZlibCodec(gzip));
    // Zlib or gzip header, detected by zlib, with a 32 KiB window; or none.
    const int windowBits = algorithm == QXDecompressionAlgorithmRawDeflate ? -15 : 47;
    const int result = inflateInit2(&codec->stream_, windowBits);
    if (result != Z_OK) {
        if (error) *error = QXCodecError(QXCodecStep::InflateInit, result);
        return nullptr;
    }
    codec->initialised_ = true;
    if (gzip) inflateGetHeader(&codec->stream_, &codec->gzipHeader_);
    return codec;
}

QXZlibCodec::~QXZlibCodec() {
    if (initialised_) inflateEnd(&stream_);
}

Ref<Data> QXZlibCodec::decodeChunk(const Ref<Data>& input, bool, bool*, Ref<Error>* error) {
    if (gzip_ && started() && held().length() <= 8 && input->length() >= 8) {
        // The steady state of a gzip stream: all that is held is the previous
        // call's last 8 bytes. They go to inflate ahead of this input, and this
        // input's last 8 are held instead, without joining the two first.
        std::uint8_t kept[8];
        const std::size_t keptLength = held().length();
        std::memcpy(kept, held().bytes(), keptLength);
        held().setLength(0);
        held().append(input->bytes() + input->length() - 8, 8);
        auto out = reusableOutput();
        if (!feed(kept, keptLength, *out, error) || !feed(input->bytes(), input->length() - 8, *out, error))
            return nullptr;
        countHeldAfterEnd();
        return out;
    }
    Ref<Data> in = joinHeld(input);
    if (gzip_) {
        const std::size_t keep = std::min<std::size_t>(8, in->length());
        if (!started() && in->length() - keep == 1) {
            // Too little to start on: hold it all, in order, ahead of the trailer bytes.
            held().append(*in);
            return Data::create();
        }
        held().append(in->bytes() + in->length() - keep, keep);
        in = in->subdata(0, in->length() - keep);
    }
    if (in->length() == 0) return Data::create();
    if (!started() && in->length() < 2) {
        held().append(*in);
        return Data::create();
    }
    auto out = reusableOutput();
    if (!feed(in->bytes(), in->length(), *out, error)) return nullptr;
    countHeldAfterEnd();
    return out;
}

void QXZlibCodec::countHeldAfterEnd() {
    // Bytes held back for the next call come after everything fed: once the
    // stream has ended, they were not used either.
    if (!finished_) return;
    unconsumed_ += held().length();
    held().setLength(0);
}

bool QXZlibCodec::feed(const std::uint8_t* bytes, std::uint64_t length, Data& out, Ref<Error>* error) {
    z_stream* z = &stream_;
    if (finished_) unconsumed_ += length;
    while (length > 0 && !finished_) {
        const std::uint64_t piece = std::min(kQXCodecMaxPieceLength, length);
        z->next_in = const_cast<Bytef*>(bytes);
        z->avail_in = static_cast<uInt>(piece);
        int result;
        for (;;) {
            const std::size_t at = out.length();
            out.setLength(at + kQXCodecBufferSize);
            z->next_out = out.mutableBytes() + at;
            z->avail_out = static_cast<uInt>(kQXCodecBufferSize);
            result = inflate(z, Z_SYNC_FLUSH);
            out.setLength(at + kQXCodecBufferSize - z->avail_out);
            if (gzipHeader_.done != 0 && !checkOff_) {
                // Gzip trailers never reach inflate, so the running CRC-32
                // could never be compared: stop computing it once the
                // header, and with it any header CRC, is checked.
                inflateValidate(z, 0);
                checkOff_ = true;
            }
            if (result == Z_OK) {
                // A full output room may mean more output is pending without input.
                if (z->avail_in == 0 && z->avail_out != 0) break;
                continue;
            }
            if (result == Z_STREAM_END) {
                finished_ = true;
                unconsumed_ = z->avail_in + (length - piece);
            }
            break;
        }
        z->next_in = nullptr;
        z->avail_in = 0;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            const Ref<Error> failure = QXCodecError(QXCodecStep::Inflate, result);
            if (error) *error = failure;
            return false;
        }
        if (result == Z_BUF_ERROR) break;
        bytes += piece;
        length -= piece;
    }
    return true;
}
