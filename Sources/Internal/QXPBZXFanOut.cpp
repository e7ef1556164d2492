// QXPBZXFanOut.cpp - PBZX chunks decoded in parallel, their output drained in
// order, and the xz decoder pool and decode turns they share.
#include "Internal/QXPBZXFanOut.h"

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXError.h>

#include "Internal/QXCodec.h"
#include "Internal/QXStoragePool.h"

#include <algorithm>
#include <limits>
#include <thread>

using qx::Data;
using qx::Error;
using qx::Ref;

// ---------------------------------------------------------------------------
// The xz decoder pool

namespace {
// What one kept decoder may hold: the presets up to 7 fit.
constexpr std::uint64_t kMaxPooledXZMemory = 24 * 1048576;
} // namespace

QXXZDecoderPool& QXXZDecoderPool::shared() {
    static QXXZDecoderPool* const pool = new QXXZDecoderPool();
    return *pool;
}

void QXXZDecoderPool::end(lzma_stream* stream) {
    lzma_end(stream);
    delete stream;
}

lzma_stream* QXXZDecoderPool::take() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!spare_.empty()) {
            lzma_stream* stream = spare_.back();
            spare_.pop_back();
            return stream;
        }
    }
    return new lzma_stream(LZMA_STREAM_INIT);
}

void QXXZDecoderPool::giveBack(lzma_stream* stream) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (running_ > 0 && spare_.size() < static_cast<std::size_t>(QXDecompressor::maxOperationCount()) &&
            lzma_memusage(stream) <= kMaxPooledXZMemory) {
            spare_.push_back(stream);
            return;
        }
    }
    end(stream);
}

void QXXZDecoderPool::pbzxDecodeBegan() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
}

void QXXZDecoderPool::pbzxDecodeEnded() {
    std::vector<lzma_stream*> freed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (--running_ > 0) return;
        freed.swap(spare_);
    }
    for (lzma_stream* stream : freed) end(stream);
}

// ---------------------------------------------------------------------------
// Decode turns

QXDecodeTurns& QXDecodeTurns::shared() {
    static QXDecodeTurns* const turns = new QXDecodeTurns();
    return *turns;
}

QXDecodeTurns::QXDecodeTurns() : processors_(std::max(1u, std::thread::hardware_concurrency())) {}

void QXDecodeTurns::take(std::uint64_t order) {
    std::unique_lock<std::mutex> lock(mutex_);
    waiting_.insert(order);
    changed_.wait(lock, [&] { return running_ < processors_ && *waiting_.begin() == order; });
    waiting_.erase(waiting_.begin());
    ++running_;
    // The next oldest may find a turn free too.
    if (running_ < processors_ && !waiting_.empty()) changed_.notify_all();
}

bool QXDecodeTurns::olderWaits(std::uint64_t order) {
    std::lock_guard<std::mutex> lock(mutex_);
    return !waiting_.empty() && *waiting_.begin() < order;
}

void QXDecodeTurns::giveBack() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        --running_;
        if (waiting_.empty()) return;
    }
    changed_.notify_all();
}

void QXDecodeTurn::take() {
    if (held_) return;
    QXDecodeTurns::shared().take(order_);
    held_ = true;
}

void QXDecodeTurn::release() {
    if (!held_) return;
    QXDecodeTurns::shared().giveBack();
    held_ = false;
}

void QXDecodeTurn::yieldToOlder() {
    if (!held_ || !QXDecodeTurns::shared().olderWaits(order_)) return;
    release();
    take();
}

// ---------------------------------------------------------------------------
// The fan-out and the drain

QXPBZXFanOut::QXPBZXFanOut() { QXXZDecoderPool::shared().pbzxDecodeBegan(); }

QXPBZXFanOut::~QXPBZXFanOut() {
    // Chunk decoders still at work would otherwise go on filling buffers that
    // nobody reads; cancelling wakes any of them asleep on a full one.
    if (!operations_.empty()) {
        const auto error = QXGenerateError(qx::NSCocoaErrorDomain, 3072);
        for (auto& operation : operations_) operation->cancelWithError(error);
        // Their threads stop within one run of output; none is left holding
        // memory of a stream that is gone.
        for (auto& operation : operations_) operation->waitUntilInputIsProcessed();
    }
    QXXZDecoderPool::shared().pbzxDecodeEnded();
}

Ref<Error> QXPBZXFanOut::startChunk(bool compressed) {
    Ref<Error> error;
    Ref<QXRingBuffer> spare;
    if (!spareBuffers_.empty()) {
        spare = std::move(spareBuffers_.back());
        spareBuffers_.pop_back();
    }
    auto operation = QXDecompressionOperation::initWithAlgorithm(
        compressed ? QXDecompressionAlgorithmAutomatic : QXDecompressionAlgorithmNone, spare, &error);
    if (!operation) return error;
    current_ = operation;
    operations_.push_back(operation);
    QXDecompressor::operationQueue()->addOperation(operation);
    return nullptr;
}

void QXPBZXFanOut::provide(const std::uint8_t* bytes, std::size_t length, bool last) {
    if (!current_) return;
    // Pieces queue up behind the chunks being decoded, megabytes at a time;
    // their storage comes back once a decoder is done with it.
    if (!pieces_)
        pieces_ = QXStoragePool::create(8 * static_cast<std::size_t>(QXDecompressor::maxOperationCount()),
                                        kQXCodecBufferSize, kQXCodecBufferSize);
    auto piece = pieces_->take();
    // Only large pieces are worth keeping; a small input stays small.
    if (length >= kQXCodecBufferSize / 4) piece->vector().reserve(kQXCodecBufferSize);
    piece->append(bytes, length);
    current_->provideInputData(piece, last);
}

void QXPBZXFanOut::endCurrentChunk() {
    // An operation ignores pieces after its last one, so this is harmless
    // for a chunk that is complete.
    if (current_) current_->provideInputData(Data::create(), true);
}

// The drain takes output from the oldest operation only, so the output keeps
// the container's order. When it has to wait for that operation (a new chunk
// starts while the list is full, or the input has ended and the caller came
// back for output), it sleeps in the operation's ring buffer until bytes
// arrive or the operation can produce no more: a consumer that polled instead
// would take a core from the very decoders it waits for. An operation leaves
// the list once it has ended (done or failed), whether or not the shared
// queue has started it yet: the decoding runs on the operation's own queue,
// and waiting for a queue place could deadlock when the queue is full of
// workers that are themselves waiting here.
Ref<Error> QXPBZXFanOut::drain(Data& out, bool waitForOutput, bool roomForAnother) {
    const std::size_t limit = static_cast<std::size_t>(QXDecompressor::maxOperationCount());
    while (!operations_.empty()) {
        Ref<QXDecompressionOperation> first = operations_.front();
        if (auto failure = first->error()) return failure;
        first->consumeOutputDataWithMaxLength(std::numeric_limits<std::uint64_t>::max(), out);
        if (first->hasEnded()) {
            if (auto failure = first->error()) return failure;
            // Done: its buffer is touched by nobody now. Reusing it keeps the
            // pages the system has already cleared, instead of mapping and
            // clearing fresh ones for every chunk.
            if (spareBuffers_.size() < limit) spareBuffers_.push_back(first->outputBuffer());
            operations_.erase(operations_.begin());
            continue;
        }
        if ((roomForAnother && operations_.size() >= limit) || (waitForOutput && out.length() == 0)) {
            first->waitForOutputData();
            continue;
        }
        break;
    }
    return nullptr;
}

void QXPBZXFanOut::cancelWithError(const Ref<Error>& error) {
    for (auto& operation : operations_) operation->cancelWithError(error);
}

Ref<Error> QXPBZXFanOut::operationError() const {
    for (const auto& operation : operations_)
        if (operation->error()) return operation->error();
    for (const auto& operation : operations_)
        if (operation->isCancelled()) return QXGenerateError(qx::NSCocoaErrorDomain, 3072);
    return nullptr;
}
