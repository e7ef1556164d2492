// QXStreamCompressor.h - one compressed stream, made by the thread count the
// caller asks for.
//
// One thread is QXCompressor's streaming object: exactly the bytes zlib,
// libbz2 or liblzma write at that level. More threads are
// QXParallelCompressor's blocks, which the standard decoders read as well.
// The whole-file drivers and `qx compress` both go through here, so a thread
// count means the same output everywhere.
//
// Not thread-safe itself: one caller feeds it.
#pragma once

#include <QXFoundation/QXCompressor.h>

#include "Internal/QXParallelCompressor.h"

#include <qx/Data.h>
#include <qx/Error.h>

#include <memory>
#include <optional>

class QXStreamCompressor {
public:
    /// threads 0 means one per processor. Without a level each algorithm
    /// takes QXCompressor's default. Algorithm 0 has nothing to share out and
    /// stays on one thread. Refusals are QXCompressor's.
    static std::unique_ptr<QXStreamCompressor> create(QXDecompressionAlgorithm algorithm, std::optional<int> level,
                                                      unsigned threads, qx::Ref<qx::Error>* error);

    /// The output this input yields, possibly none; nothing on failure.
    qx::Ref<qx::Data> compress(const qx::Ref<qx::Data>& input, qx::Ref<qx::Error>* error);
    /// Ends the stream: returns the next piece of the rest of it, nothing on
    /// failure; call again until isFinished().
    qx::Ref<qx::Data> finish(qx::Ref<qx::Error>* error);
    bool isFinished() const { return parallel_ ? parallel_->isFinished() : singleFinished_; }

    bool isParallel() const { return parallel_ != nullptr; }

private:
    QXStreamCompressor() = default;

    qx::Ref<QXCompressor> single_;                   // one thread
    bool singleFinished_ = false;
    std::unique_ptr<QXParallelCompressor> parallel_; // more
};
