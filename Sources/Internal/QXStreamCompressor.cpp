// QXStreamCompressor.cpp - the choice between one stream and blocks.
#include "Internal/QXStreamCompressor.h"

std::unique_ptr<QXStreamCompressor> QXStreamCompressor::create(QXDecompressionAlgorithm algorithm,
                                                               std::optional<int> level, unsigned threads,
                                                               qx::Ref<qx::Error>* error) {
    std::unique_ptr<QXStreamCompressor> made(new QXStreamCompressor);
    const int chosen = level.value_or(QXCompressor::defaultCompressionLevel(algorithm));
    if (algorithm != QXDecompressionAlgorithmNone && QXParallelCompressor::resolvedThreadCount(threads) > 1) {
        made->parallel_ = QXParallelCompressor::create(algorithm, chosen, threads, error);
        if (!made->parallel_) return nullptr;
    } else {
        made->single_ = QXCompressor::initForStreamingWithAlgorithm(algorithm, chosen, error);
        if (!made->single_) return nullptr;
    }
    return made;
}

qx::Ref<qx::Data> QXStreamCompressor::compress(const qx::Ref<qx::Data>& input, qx::Ref<qx::Error>* error) {
    if (single_) return single_->compressedDataFromStreamWithInputData(input, error);
    return parallel_->compress(input->bytes(), input->length(), error);
}

qx::Ref<qx::Data> QXStreamCompressor::finish(qx::Ref<qx::Error>* error) {
    if (!single_) return parallel_->finish(error);
    singleFinished_ = true;
    return single_->finalDataFromStreamWithError(error);
}
