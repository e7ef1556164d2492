// QXStreamingDecoder.h - the state machine behind a streaming QXDecompressor
// and a PBZX chunk decoder: it holds input until the format can be decided,
// makes the format's codec and feeds it every chunk after.
//
// Not safe for concurrent calls; one thread at a time.
#pragma once

#include <QXFoundation/QXDecompressor.h>

#include "Internal/QXCodec.h"
#include "Internal/QXPBZXFanOut.h"

#include <qx/Data.h>
#include <qx/Error.h>

#include <memory>
#include <optional>

class QXStreamingDecoder {
public:
    /// Set up for algorithm with no data (which, for the formats that need to
    /// see bytes first, defers set-up to the first chunk); nothing with the
    /// set-up's error. With chunkOutput, xz output goes into the chunk's ring
    /// buffer and decode returns empty data for it.
    static std::unique_ptr<QXStreamingDecoder> create(QXDecompressionAlgorithm algorithm,
                                                      const std::optional<QXChunkOutput>& chunkOutput,
                                                      qx::Ref<qx::Error>* error);
    /// Algorithm 0, set up with the given codec (implode, unshrink); or not
    /// set up at all with none.
    explicit QXStreamingDecoder(std::unique_ptr<QXCodec> codec = nullptr);

    /// See QXDecompressor::setUpWithData.
    bool setUpWithData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error);
    /// See QXDecompressor::decompressedDataFromStreamWithInputData.
    qx::Ref<qx::Data> decode(const qx::Ref<qx::Data>& input, bool isFinal, bool* shouldRunAgain,
                             qx::Ref<qx::Error>* error);

    void cancelWithError(const qx::Ref<qx::Error>& error);
    qx::Ref<qx::Error> operationError() const;

    QXDecompressionAlgorithm algorithm() const { return algorithm_; }
    bool isSetUp() const { return codec_ != nullptr; }
    bool isFinished() const { return codec_ && codec_->isFinished(); }
    std::uint64_t unconsumedLength() const { return codec_ ? codec_->unconsumedLength() : 0; }

private:
    QXStreamingDecoder(QXDecompressionAlgorithm algorithm, const std::optional<QXChunkOutput>& chunkOutput)
        : algorithm_(algorithm), chunkOutput_(chunkOutput), pending_(qx::Data::create()) {}
    bool setUp(const qx::Ref<qx::Data>& data, bool whileDecoding, qx::Ref<qx::Error>* error);

    QXDecompressionAlgorithm algorithm_ = QXDecompressionAlgorithmNone;
    std::optional<QXChunkOutput> chunkOutput_;
    qx::Ref<qx::Data> pending_;        // input held until set-up
    std::unique_ptr<QXCodec> codec_;   // made by set-up
    qx::Ref<qx::Error> cancelError_;   // handed to a codec made after a cancel
    bool cancelled_ = false;
};
