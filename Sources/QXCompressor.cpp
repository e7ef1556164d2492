// QXCompressor.cpp - the streaming compressor: the three library streams,
// the chunk routines and the final routines. The class operations live in
// QXCompressorDrivers.cpp.
#include <QXFoundation/QXCompressor.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXDriverErrors.h"
#include "Internal/QXFoundationPrivate.h"

#include <qx/Log.h>

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

#include <algorithm>
#include <string>

using qx::Data;
using qx::Error;
using qx::Ref;

const char* const QXCompressorZLIBErrorDomain = "QXCompressorZLIBErrorDomain";
const char* const QXCompressorBZ2ErrorDomain = "QXCompressorBZ2ErrorDomain";

namespace {

// zlib and libbz2 take at most this much input per call (their counts are 32-bit).
constexpr std::size_t kMaxPiece = 0xFFFFFFFFu;

struct ZStream {
    z_stream stream{};
    ~ZStream() { deflateEnd(&stream); }
};
struct BZStream {
    bz_stream stream{};
    ~BZStream() { BZ2_bzCompressEnd(&stream); }
};
struct LZMAStream {
    lzma_stream stream = LZMA_STREAM_INIT;
    ~LZMAStream() { lzma_end(&stream); }
};

Ref<Error> deflateError(int code, const z_stream& stream) {
    auto message = qx::str(stream.msg ? stream.msg : zError(code));
    QXLog("deflate: error %d: %@", code, message);
    return QXGenerateError(QXCompressorZLIBErrorDomain, code, nullptr, nullptr, nullptr,
                           QXFLocalizedString("deflate error %d: %@"), code, message);
}

Ref<Error> bzCompressError(int code) {
    QXLog("BZ2_bzCompress: error %d", code);
    return QXGenerateError(QXCompressorBZ2ErrorDomain, code, nullptr, nullptr, nullptr,
                           QXFLocalizedString("BZ2_bzCompress error %d"), code);
}

Ref<Error> invalidArgument() { return QXGenerateError(qx::NSPOSIXErrorDomain, 22); }

} // namespace

// Fields in the order the streams are tried: zlib, then bzip2, then lzma.
struct QXCompressor::Impl {
    QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmNone;
    std::unique_ptr<BZStream> bzip2;
    std::unique_ptr<ZStream> zlib;
    std::unique_ptr<LZMAStream> lzma;
    bool finished = false;
    // The output room every library call writes into, made on first use.
    std::unique_ptr<std::uint8_t[]> buffer;

    std::uint8_t* room() {
        if (!buffer) buffer.reset(new std::uint8_t[kBufferSize]);
        return buffer.get();
    }

    bool zlibCode(const Data& input, int flush, Data& out, Ref<Error>* error);
    bool bzip2Code(const Data& input, int action, Data& out, Ref<Error>* error);
    bool lzmaCode(const Data& input, lzma_action action, Data& out, Ref<Error>* error);
};

QXCompressor::QXCompressor() : impl_(std::make_unique<Impl>()) {}
QXCompressor::~QXCompressor() = default;

Ref<QXCompressor> QXCompressor::init() { return Ref<QXCompressor>(new QXCompressor()); }

int QXCompressor::defaultCompressionLevel(QXDecompressionAlgorithm algorithm) {
    const bool zlibDefault = algorithm == QXDecompressionAlgorithmRawDeflate ||
                             algorithm == QXDecompressionAlgorithmZlib || algorithm == QXDecompressionAlgorithmGzip;
    return zlibDefault ? Z_DEFAULT_COMPRESSION : 9;
}

Ref<QXCompressor> QXCompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    return initForStreamingWithAlgorithm(algorithm, defaultCompressionLevel(algorithm), error);
}

Ref<QXCompressor> QXCompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                              int compressionLevel, Ref<Error>* error) {
    // Automatic detection has nothing to write, PBZX and the ZIP formats are
    // read-only: only 0..6 name something this side can produce.
    if (algorithm < QXDecompressionAlgorithmNone || algorithm >= QXDecompressionAlgorithmPBZX) {
        QXSetError(error, invalidArgument());
        return nullptr;
    }
    auto compressor = init();
    compressor->impl_->algorithm = algorithm;
    bool made = true;
    switch (algorithm) {
    case QXDecompressionAlgorithmDeflateAny:
    case QXDecompressionAlgorithmRawDeflate:
    case QXDecompressionAlgorithmZlib:
    case QXDecompressionAlgorithmGzip:
        made = compressor->setUpZlibStreamWithCompressionLevel(compressionLevel, algorithm, error);
        break;
    case QXDecompressionAlgorithmBZip2: made = compressor->setUpBZ2StreamWithCompressionLevel(compressionLevel, error); break;
    case QXDecompressionAlgorithmXZ: made = compressor->setUpLZMAStreamWithCompressionLevel(compressionLevel, error); break;
    default: break;
    }
    return made ? compressor : nullptr;
}

Ref<QXCompressor> QXCompressor::streamingCompressorWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                 Ref<Error>* error) {
    return initForStreamingWithAlgorithm(algorithm, error);
}

bool QXCompressor::setUpZlibStreamWithCompressionLevel(int compressionLevel, QXDecompressionAlgorithm algorithm,
                                                       Ref<Error>* error) {
    const int windowBits = algorithm == QXDecompressionAlgorithmRawDeflate ? -15
                           : algorithm == QXDecompressionAlgorithmGzip     ? 31
                                                                           : 15;
    auto owner = std::make_unique<ZStream>();
    const int result = deflateInit2(&owner->stream, compressionLevel, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) {
        QXLog("deflateInit: error %d", result);
        QXSetError(error, QXGenerateError(QXCompressorZLIBErrorDomain, result, nullptr, nullptr, nullptr,
                                          QXFLocalizedString("deflateInit error %d: %s"), result,
                                          std::string(zError(result))));
        return false;
    }
    impl_->zlib = std::move(owner);
    return true;
}

bool QXCompressor::setUpBZ2StreamWithCompressionLevel(int compressionLevel, Ref<Error>* error) {
    auto owner = std::make_unique<BZStream>();
    const int result = BZ2_bzCompressInit(&owner->stream, compressionLevel, 0, 0);
    if (result != BZ_OK) {
        QXLog("BZ2_bzCompressInit: error %d", result);
        // The text names the end call; callers match it word for word.
        QXSetError(error, QXGenerateError(QXCompressorBZ2ErrorDomain, result, nullptr, nullptr, nullptr,
                                          QXFLocalizedString("BZ2_bzCompressEnd error %d"), result));
        return false;
    }
    impl_->bzip2 = std::move(owner);
    return true;
}

bool QXCompressor::setUpLZMAStreamWithCompressionLevel(int compressionLevel, Ref<Error>* error) {
    auto owner = std::make_unique<LZMAStream>();
    const lzma_ret result =
        lzma_easy_encoder(&owner->stream, static_cast<std::uint32_t>(compressionLevel), LZMA_CHECK_CRC64);
    if (result != LZMA_OK) {
        QXLog("lzma_easy_encoder: error %d", static_cast<int>(result));
        QXSetError(error, QXGenerateError("lzma_easy_encoder", result));
        return false;
    }
    impl_->lzma = std::move(owner);
    return true;
}

bool QXCompressor::Impl::zlibCode(const Data& input, int flush, Data& out, Ref<Error>* error) {
    z_stream& z = zlib->stream;
    const std::uint8_t* next = input.bytes();
    std::size_t left = input.length();
    for (;;) {
        const std::size_t piece = std::min(left, kMaxPiece);
        z.next_in = const_cast<Bytef*>(next);
        z.avail_in = static_cast<uInt>(piece);
        // Last piece: Z_FINISH runs until the stream's end; else until the
        // piece is used up and the output room no longer fills.
        const int pieceFlush = piece == left ? flush : Z_NO_FLUSH;
        for (;;) {
            z.next_out = room();
            z.avail_out = static_cast<uInt>(kBufferSize);
            const int result = deflate(&z, pieceFlush);
            // Z_BUF_ERROR only says a call without input had nothing to do;
            // with Z_FINISH and fresh room it would mean a stuck stream.
            const bool stuck = result == Z_BUF_ERROR && pieceFlush == Z_FINISH;
            if (result == Z_STREAM_ERROR || stuck) {
                QXSetError(error, deflateError(result, z));
                return false;
            }
            out.append(buffer.get(), kBufferSize - z.avail_out);
            if (result == Z_STREAM_END) break;
            if (pieceFlush != Z_FINISH && z.avail_in == 0 && z.avail_out != 0) break;
        }
        next += piece;
        left -= piece;
        if (left == 0) break;
    }
    z.next_in = nullptr;
    return true;
}

bool QXCompressor::Impl::bzip2Code(const Data& input, int action, Data& out, Ref<Error>* error) {
    bz_stream& bz = bzip2->stream;
    const std::uint8_t* next = input.bytes();
    std::size_t left = input.length();
    // libbz2 refuses a BZ_RUN that can make no progress: an empty chunk is
    // not given to it at all.
    while (left > 0 || action == BZ_FINISH) {
        const std::size_t piece = std::min(left, kMaxPiece);
        bz.next_in = reinterpret_cast<char*>(const_cast<std::uint8_t*>(next));
        bz.avail_in = static_cast<unsigned>(piece);
        const int pieceAction = piece == left ? action : BZ_RUN;
        for (;;) {
            bz.next_out = reinterpret_cast<char*>(room());
            bz.avail_out = static_cast<unsigned>(kBufferSize);
            const int result = BZ2_bzCompress(&bz, pieceAction);
            const int expected = pieceAction == BZ_RUN ? BZ_RUN_OK : BZ_FINISH_OK;
            if (result != expected && result != BZ_STREAM_END) {
                QXSetError(error, bzCompressError(result));
                return false;
            }
            out.append(buffer.get(), kBufferSize - bz.avail_out);
            if (result == BZ_STREAM_END) break;
            if (pieceAction == BZ_RUN && bz.avail_in == 0) break;
        }
        next += piece;
        left -= piece;
        if (pieceAction == BZ_FINISH) break;
    }
    bz.next_in = nullptr;
    return true;
}

bool QXCompressor::Impl::lzmaCode(const Data& input, lzma_action action, Data& out, Ref<Error>* error) {
    // liblzma reports a second call in a row that can make no progress as
    // LZMA_BUF_ERROR: an empty chunk is not given to it.
    if (action == LZMA_RUN && input.length() == 0) return true;
    lzma_stream& s = lzma->stream;
    s.next_in = input.bytes();
    s.avail_in = input.length();
    for (;;) {
        s.next_out = room();
        s.avail_out = kBufferSize;
        const lzma_ret result = lzma_code(&s, action);
        if (result != LZMA_OK && result != LZMA_STREAM_END) {
            QXSetError(error, QXGenerateError("lzma_code", result));
            return false;
        }
        out.append(buffer.get(), kBufferSize - s.avail_out);
        if (result == LZMA_STREAM_END) break;
        if (action == LZMA_RUN && s.avail_in == 0 && s.avail_out != 0) break;
    }
    s.next_in = nullptr;
    return true;
}

Ref<Data> QXCompressor::compressedDataFromStreamWithInputData(const Ref<Data>& input, Ref<Error>* error) {
    if (!input) {
        QXSetError(error, invalidArgument());
        return nullptr;
    }
    Impl& s = *impl_;
    const bool hasStream = s.zlib || s.bzip2 || s.lzma;
    if (!hasStream) return Data::withBytes(input->bytes(), input->length());
    // A finished stream takes nothing more: its libraries would refuse or
    // silently drop the input.
    if (s.finished) {
        QXSetError(error, invalidArgument());
        return nullptr;
    }
    auto out = Data::create();
    bool ok;
    if (s.zlib) {
        ok = s.zlibCode(*input, Z_NO_FLUSH, *out, error);
    } else if (s.bzip2) {
        ok = s.bzip2Code(*input, BZ_RUN, *out, error);
    } else {
        ok = s.lzmaCode(*input, LZMA_RUN, *out, error);
    }
    return ok ? out : nullptr;
}

Ref<Data> QXCompressor::finalDataFromStreamWithError(Ref<Error>* error) {
    Impl& s = *impl_;
    auto out = Data::create();
    if (s.finished || !(s.zlib || s.bzip2 || s.lzma)) return out;
    const Data empty;
    bool ok;
    if (s.zlib) {
        ok = s.zlibCode(empty, Z_FINISH, *out, error);
    } else if (s.bzip2) {
        ok = s.bzip2Code(empty, BZ_FINISH, *out, error);
    } else {
        ok = s.lzmaCode(empty, LZMA_FINISH, *out, error);
    }
    if (!ok) return nullptr;
    s.finished = true;
    return out;
}

QXDecompressionAlgorithm QXCompressor::algorithm() const { return impl_->algorithm; }

bool QXCompressor::isFinished() const { return impl_->finished; }
