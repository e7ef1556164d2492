// QXDecompressor.cpp - the streaming object and the shared resources.
//
// The streaming state lives in QXStreamingDecoder (format detection and
// deferred set-up) and in one codec per format (Internal/QX*Codec); the
// class operations live in QXDecompressorDetection.cpp, QXDecompressorDrivers.cpp,
// QXDecompressorFileDrivers.cpp and QXDecompressorAsync.cpp.
#include <QXFoundation/QXDecompressor.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXExplodeCodec.h"
#include "Internal/QXStreamingDecoder.h"
#include "Internal/QXUnshrinkCodec.h"

#include <algorithm>
#include <thread>

using qx::Data;
using qx::Error;
using qx::Ref;

struct QXDecompressor::Impl {
    explicit Impl(std::unique_ptr<QXStreamingDecoder> decoder) : decoder(std::move(decoder)) {}
    std::unique_ptr<QXStreamingDecoder> decoder;
};

QXDecompressor::QXDecompressor() : impl_(std::make_unique<Impl>(std::make_unique<QXStreamingDecoder>())) {}

// Destroying the decoder cancels PBZX chunk decoders still at work and waits
// until none of them is left running on its memory.
QXDecompressor::~QXDecompressor() = default;

Ref<QXDecompressor> QXDecompressor::init() { return Ref<QXDecompressor>(new QXDecompressor()); }

Ref<QXDecompressor> QXDecompressor::initForStreamingAndReturnError(Ref<Error>* error) {
    return initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic, error);
}

Ref<QXDecompressor> QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                  Ref<Error>* error) {
    auto decoder = QXStreamingDecoder::create(algorithm, std::nullopt, error);
    if (!decoder) return nullptr;
    auto decompressor = init();
    decompressor->impl_->decoder = std::move(decoder);
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::initForExplodeStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                                bool useLargeDictionary,
                                                                                bool useLiteralTree,
                                                                                Ref<Error>* error) {
    auto codec = QXExplodeCodec::create(uncompressedSize, useLargeDictionary, useLiteralTree, error);
    if (!codec) return nullptr;
    auto decompressor = init();
    decompressor->impl_->decoder = std::make_unique<QXStreamingDecoder>(std::move(codec));
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                                 Ref<Error>* error) {
    auto codec = QXUnshrinkCodec::create(uncompressedSize, error);
    if (!codec) return nullptr;
    auto decompressor = init();
    decompressor->impl_->decoder = std::make_unique<QXStreamingDecoder>(std::move(codec));
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::streamingDecompressorWithError(Ref<Error>* error) {
    return initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic, error);
}

Ref<QXDecompressor> QXDecompressor::streamingDecompressorWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                       Ref<Error>* error) {
    return initForStreamingWithAlgorithm(algorithm, error);
}

bool QXDecompressor::setUpWithData(const Ref<Data>& data, Ref<Error>* error) {
    return impl_->decoder->setUpWithData(data, error);
}

Ref<Data> QXDecompressor::decompressedDataFromStreamWithInputData(const Ref<Data>& input, bool isFinal,
                                                                  bool* shouldRunAgain, Ref<Error>* error) {
    return impl_->decoder->decode(input, isFinal, shouldRunAgain, error);
}

void QXDecompressor::cancel() { cancelWithError(QXGenerateError(qx::NSCocoaErrorDomain, 3072)); }

void QXDecompressor::cancelWithError(const Ref<Error>& error) { impl_->decoder->cancelWithError(error); }

Ref<Error> QXDecompressor::operationError() const { return impl_->decoder->operationError(); }

QXDecompressionAlgorithm QXDecompressor::algorithm() const { return impl_->decoder->algorithm(); }

bool QXDecompressor::isSetUp() const { return impl_->decoder->isSetUp(); }

bool QXDecompressor::isFinished() const { return impl_->decoder->isFinished(); }

std::uint64_t QXDecompressor::unconsumedLength() const { return impl_->decoder->unconsumedLength(); }

// ---------------------------------------------------------------------------
// Shared resources

std::int64_t QXDecompressor::maxOperationCount() {
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    return 2 * static_cast<std::int64_t>(processors);
}

Ref<qx::OperationQueue> QXDecompressor::operationQueue() {
    // Never destroyed: its workers may still be finishing operations while
    // the process exits, and they ask for the queue.
    static const Ref<qx::OperationQueue>* const queue = [] {
        auto created = qx::OperationQueue::create("com.tovarik.QXFoundation.QXDecompressor");
        created->setMaxConcurrentOperationCount(static_cast<int>(maxOperationCount()));
        return new Ref<qx::OperationQueue>(std::move(created));
    }();
    return *queue;
}
