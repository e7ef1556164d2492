// QXZlibCodec.cpp - zlib, gzip and raw deflate streams through inflate.
#include "Internal/QXZlibCodec.h"

#include "Internal/QXCodecError.h"
#include "Internal/QXDecompressorTesting.h"

#include <algorithm>
#include <atomic>
#include <cstring>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

std::atomic<bool> zlibOnly{false};

std::uint32_t littleEndian32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

std::uint32_t bigEndian32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | std::uint32_t(p[3]);
}

} // namespace

void QXSetZlibInflateForTesting(bool on) { zlibOnly = on; }

std::unique_ptr<QXCodec> QXZlibCodec::create(QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    const bool gzip = algorithm == QXDecompressionAlgorithmGzip;
    std::unique_ptr<QXZlibCodec> codec(new QXZlibCodec(gzip));
    // Zlib or gzip header, detected by zlib, with a 32 KiB window; or none.
    const bool raw = algorithm == QXDecompressionAlgorithmRawDeflate;
    const int result = inflateInit2(&codec->stream_, raw ? -15 : 47);
    if (result != Z_OK) {
        if (error) *error = QXCodecError(QXCodecStep::InflateInit, result);
        return nullptr;
    }
    codec->initialised_ = true;
    if (zlibOnly) {
        codec->phase_ = Phase::Zlib;
    } else if (raw) {
        codec->startBody();
    }
    // Which header zlib read (gzip or zlib) decides the trailer.
    if (!raw) inflateGetHeader(&codec->stream_, &codec->gzipHeader_);
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
    const Ref<Data> in = joinHeld(input);
    // The bytes to feed are a prefix of in; cutting the trailer's 8 off by
    // length rather than by copy keeps a large first chunk from being copied.
    std::size_t length = in->length();
    if (gzip_) {
        const std::size_t keep = std::min<std::size_t>(8, length);
        if (!started() && length - keep == 1) {
            // Too little to start on: hold it all, in order, ahead of the trailer bytes.
            held().append(*in);
            return Data::create();
        }
        held().append(in->bytes() + length - keep, keep);
        length -= keep;
    }
    if (length == 0) return Data::create();
    if (!started() && length < 2) {
        held().append(in->bytes(), length);
        return Data::create();
    }
    auto out = reusableOutput();
    if (!feed(in->bytes(), length, *out, error)) return nullptr;
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
    if (finished_) unconsumed_ += length;
    while (length > 0 && !finished_) {
        const std::uint64_t piece = std::min(kQXCodecMaxPieceLength, length);
        const std::uint8_t* next = bytes;
        auto left = static_cast<std::uint32_t>(piece);
        int result = Z_OK;
        // A phase hands the rest of the piece on to the next one.
        while (left > 0 && result == Z_OK) {
            if (failed_) {
                result = Z_DATA_ERROR;
                break;
            }
            switch (phase_) {
            case Phase::Header:
            case Phase::Zlib: result = feedZlib(next, left, out); break;
            case Phase::Body: result = feedBody(next, left, out); break;
            case Phase::Trailer: result = feedTrailer(next, left); break;
            }
        }
        if (result == Z_STREAM_END) {
            finished_ = true;
            unconsumed_ = (readAheadLength_ - readAheadUsed_) + left + (length - piece);
        }
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

int QXZlibCodec::feedZlib(const std::uint8_t*& bytes, std::uint32_t& length, Data& out) {
    z_stream* z = &stream_;
    z->next_in = const_cast<Bytef*>(bytes);
    z->avail_in = length;
    int result;
    for (;;) {
        if (phase_ == Phase::Header) {
            if (zlibWindowBits_ == 0 && z->avail_in > 0) zlibWindowBits_ = (z->next_in[0] >> 4) + 8;
            // Z_BLOCK stops right before the first block, so no output comes.
            Bytef none[1];
            z->next_out = none;
            z->avail_out = sizeof none;
            result = inflate(z, Z_BLOCK);
        } else {
            const bool inPlace = decodesInPlace(z->avail_in);
            z->next_out = openRoom(out, inPlace);
            z->avail_out = static_cast<uInt>(kQXCodecBufferSize);
            result = inflate(z, Z_SYNC_FLUSH);
            closeRoom(out, inPlace, kQXCodecBufferSize - z->avail_out);
        }
        if (gzip_ && gzipHeader_.done != 0 && !checkOff_) {
            // Gzip trailers never reach inflate, so the running CRC-32
            // could never be compared: stop computing it once the
            // header, and with it any header CRC, is checked.
            inflateValidate(z, 0);
            checkOff_ = true;
        }
        if (result == Z_OK && phase_ == Phase::Header) {
            if ((z->data_type & 128) != 0) startBody();
            break;
        }
        // A full output room may mean more output is pending without input.
        if (result == Z_OK && !(z->avail_in == 0 && z->avail_out != 0)) continue;
        break;
    }
    bytes = z->next_in;
    length = z->avail_in;
    z->next_in = nullptr;
    z->avail_in = 0;
    return result;
}

void QXZlibCodec::startBody() {
    auto check = QXIsalInflater::Check::None;
    // zlib leaves the check on unless this is the gzip algorithm (see above).
    trailerChecked_ = !gzip_;
    if (gzipHeader_.done == 1) {
        trailerWanted_ = 8;
        if (trailerChecked_) check = QXIsalInflater::Check::CRC32;
    } else if (gzipHeader_.done == -1) {
        trailerWanted_ = 4;
        if (trailerChecked_) check = QXIsalInflater::Check::Adler32;
        // A smaller window than 32 KiB: zlib refuses a distance past it
        // only when the bytes it points at left zlib's output room in an
        // earlier call, which ISA-L cannot follow, so zlib goes on.
        if (zlibWindowBits_ != 15) {
            phase_ = Phase::Zlib;
            return;
        }
    }
    body_ = std::make_unique<QXIsalInflater>(check);
    phase_ = Phase::Body;
}

int QXZlibCodec::feedBody(const std::uint8_t*& bytes, std::uint32_t& length, Data& out) {
    for (;;) {
        const bool inPlace = decodesInPlace(length);
        std::uint8_t* to = openRoom(out, inPlace);
        auto room = static_cast<std::uint32_t>(kQXCodecBufferSize);
        const bool ok = body_->decode(bytes, length, to, room);
        const std::size_t produced = kQXCodecBufferSize - room;
        closeRoom(out, inPlace, produced);
        bodyLength_ += produced;
        if (!ok) {
            failed_ = true;
            return Z_DATA_ERROR;
        }
        if (body_->ended()) {
            phase_ = Phase::Trailer;
            readAheadLength_ = body_->takeBytesAfterEnd(readAhead_);
            return feedTrailer(bytes, length);
        }
        if (length == 0 && room != 0) return Z_OK;
    }
}

int QXZlibCodec::feedTrailer(const std::uint8_t*& bytes, std::uint32_t& length) {
    // What ISA-L read ahead comes first; zlib would not have taken it yet.
    while (trailerLength_ < trailerWanted_ && readAheadUsed_ < readAheadLength_) {
        const int result = takeTrailerByte(readAhead_[readAheadUsed_++]);
        if (result != Z_OK) return result;
    }
    while (trailerLength_ < trailerWanted_ && length > 0) {
        --length;
        const int result = takeTrailerByte(*bytes++);
        if (result != Z_OK) return result;
    }
    return trailerLength_ < trailerWanted_ ? Z_OK : Z_STREAM_END;
}

// As zlib: the check value is compared once its 4 bytes are in, the gzip
// length once its own 4 are.
int QXZlibCodec::takeTrailerByte(std::uint8_t byte) {
    trailer_[trailerLength_++] = byte;
    if (!trailerChecked_) return Z_OK;
    bool matches = true;
    if (trailerLength_ == 4)
        matches = (trailerWanted_ == 8 ? littleEndian32(trailer_) : bigEndian32(trailer_)) == body_->check();
    else if (trailerLength_ == 8)
        matches = littleEndian32(trailer_ + 4) == static_cast<std::uint32_t>(bodyLength_);
    if (matches) return Z_OK;
    failed_ = true;
    return Z_DATA_ERROR;
}
