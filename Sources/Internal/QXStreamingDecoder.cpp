// QXStreamingDecoder.cpp - deferred set-up and the codec of the detected format.
#include "Internal/QXStreamingDecoder.h"

#include <QXFoundation/QXError.h>

#include "Internal/QXBZip2Codec.h"
#include "Internal/QXCompressionMagic.h"
#include "Internal/QXPBZXCodec.h"
#include "Internal/QXXZCodec.h"
#include "Internal/QXZlibCodec.h"

#include <algorithm>

using qx::Data;
using qx::Error;
using qx::Ref;

std::unique_ptr<QXStreamingDecoder> QXStreamingDecoder::create(QXDecompressionAlgorithm algorithm,
                                                               const std::optional<QXChunkOutput>& chunkOutput,
                                                               Ref<Error>* error) {
    std::unique_ptr<QXStreamingDecoder> decoder(new QXStreamingDecoder(algorithm, chunkOutput));
    if (!decoder->setUp(Data::create(), false, error)) return nullptr;
    return decoder;
}

QXStreamingDecoder::QXStreamingDecoder(std::unique_ptr<QXCodec> codec)
    : pending_(Data::create()), codec_(std::move(codec)) {}

bool QXStreamingDecoder::setUpWithData(const Ref<Data>& data, Ref<Error>* error) { return setUp(data, false, error); }

bool QXStreamingDecoder::setUp(const Ref<Data>& data, bool whileDecoding, Ref<Error>* error) {
    if (codec_) return true;
    const std::size_t length = data ? data->length() : 0;
    std::unique_ptr<QXCodec> codec;
    switch (algorithm_) {
    case QXDecompressionAlgorithmAutomatic: {
        const QXDecompressionAlgorithm found =
            data ? QXDetectAlgorithm(kQXDataDetectionOrder, data->bytes(), length) : QXDecompressionAlgorithmNone;
        if (found == QXDecompressionAlgorithmNone) return true;
        algorithm_ = found;
        return setUp(data, whileDecoding, error);
    }
    case QXDecompressionAlgorithmDeflateAny:
    case QXDecompressionAlgorithmRawDeflate:
    case QXDecompressionAlgorithmZlib:
    case QXDecompressionAlgorithmGzip:
        if (length < 2) return true;
        algorithm_ = QXDecompressor::resolvedAlgorithmForData(data, algorithm_);
        codec = QXZlibCodec::create(algorithm_, error);
        break;
    case QXDecompressionAlgorithmBZip2: codec = QXBZip2Codec::create(error); break;
    case QXDecompressionAlgorithmXZ: codec = QXXZCodec::create(chunkOutput_, whileDecoding, error); break;
    case QXDecompressionAlgorithmPBZX: codec = QXPBZXCodec::create(error); break;
    default: codec = std::make_unique<QXStoredCodec>(); break;
    }
    if (!codec) return false;
    if (cancelled_) codec->cancelWithError(cancelError_);
    codec_ = std::move(codec);
    return true;
}

Ref<Data> QXStreamingDecoder::decode(const Ref<Data>& input, bool isFinal, bool* shouldRunAgain, Ref<Error>* error) {
    if (shouldRunAgain) *shouldRunAgain = false;
    if (!input) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, 22);
        return nullptr;
    }
    Ref<Data> in = input;
    if (!codec_) {
        if (pending_->length() > 0) {
            pending_->append(*input);
            in = std::move(pending_);
            pending_ = Data::create();
        }
        if (!setUp(in, true, error)) return nullptr;
        if (!codec_) {
            // Detection looks at the first maxMagicLength bytes only; once that
            // many failed to match, more input can never change the answer, so
            // unrecognised data is not buffered without bound.
            const std::size_t held = algorithm_ == QXDecompressionAlgorithmAutomatic
                                         ? std::min<std::size_t>(in->length(), kQXMaxMagicLength)
                                         : in->length();
            pending_->append(in->bytes(), held);
            return Data::create();
        }
    }
    bool again = false;
    Ref<Data> out = codec_->decode(in, isFinal, &again, error);
    if (shouldRunAgain) *shouldRunAgain = again;
    return out;
}

void QXStreamingDecoder::cancelWithError(const Ref<Error>& error) {
    cancelled_ = true;
    cancelError_ = error;
    if (codec_) codec_->cancelWithError(error);
}

Ref<Error> QXStreamingDecoder::operationError() const { return codec_ ? codec_->operationError() : nullptr; }
