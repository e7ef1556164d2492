// QXDecompressionOperation.cpp - one chunk decoded on a private serial queue into a ring buffer.
#include <QXFoundation/QXDecompressionOperation.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXDecompressorTesting.h"
#include "Internal/QXPBZXFanOut.h"
#include "Internal/QXStreamingDecoder.h"

#include <algorithm>
#include <atomic>
#include <thread>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

// Ring buffer size for operations made without one; 0 for the default.
std::atomic<std::uint64_t> bufferSizeOverride{0};

// Orders the chunks of every decompressor for their decode turns (see
// Internal/QXPBZXFanOut.h for why the order is process-wide).
std::atomic<std::uint64_t> chunksMade{0};

// qx::Observable can only be made by a subclass.
class Notifier final : public qx::Observable {
public:
    Notifier() {
        setKeysAffectingKey("isExecuting", {"started", "isFinished"});
        setKeysAffectingKey("isFinished", {"started", "done", "error"});
    }
};

Ref<Error> cancelledError() { return QXGenerateError(qx::NSCocoaErrorDomain, 3072); }

const char* keyName(int key) {
    static const char* const names[] = {"started", "done", "error"};
    return names[key];
}

} // namespace

std::uint64_t QXDecompressionOperation::bufferSizePerOperation() {
    const std::uint64_t processors = std::max(1u, std::thread::hardware_concurrency());
    return 524288000ULL / processors / 2;
}

void QXSetChunkBufferSizeForTesting(std::uint64_t bytes) { bufferSizeOverride = bytes; }

QXDecompressionOperation::QXDecompressionOperation() = default;

Ref<QXDecompressionOperation> QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                          Ref<Error>* error) {
    return initWithAlgorithm(algorithm, nullptr, error);
}

Ref<QXDecompressionOperation> QXDecompressionOperation::initWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                          const Ref<QXRingBuffer>& outputBuffer,
                                                                          Ref<Error>* error) {
    Ref<QXRingBuffer> ring = outputBuffer;
    if (ring) {
        ring->reopen();
    } else {
        const std::uint64_t override = bufferSizeOverride;
        // A buffer of no bytes would leave the first write waiting for good.
        ring = QXRingBuffer::initWithCapacity(
            override ? override : std::max<std::uint64_t>(1, bufferSizePerOperation()), error);
        if (!ring) return nullptr;
    }
    Ref<QXDecompressionOperation> operation(new QXDecompressionOperation());
    operation->turn_ = std::make_unique<QXDecodeTurn>(chunksMade.fetch_add(1));
    operation->decoder_ = QXStreamingDecoder::create(algorithm, QXChunkOutput{ring, operation->turn_.get()}, error);
    if (!operation->decoder_) return nullptr;
    operation->queue_ = qx::SerialQueue::create("com.tovarik.QXFoundation.QXDecompressionOperation");
    operation->outputBuffer_ = std::move(ring);
    operation->observable_ = std::make_shared<Notifier>();
    operation->compressed_ = algorithm == QXDecompressionAlgorithmAutomatic;
    return operation;
}

QXDecompressionOperation::~QXDecompressionOperation() {
    // Queued pieces see the operation gone and skip; the queue's destructor
    // waits for them (or, when the last reference went away inside one of
    // them, lets them finish on their own).
    queue_.reset();
}

void QXDecompressionOperation::announce(Key key, bool before) {
    const char* name = keyName(static_cast<int>(key));
    if (before)
        observable_->willChangeValueForKey(name);
    else
        observable_->didChangeValueForKey(name);
}

void QXDecompressionOperation::main() {
    announce(Key::Started, true);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        started_ = true;
    }
    announce(Key::Started, false);
    finishIfEnded();
}

void QXDecompressionOperation::finishIfEnded() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (finishCalled_ || !started_ || !(done_ || error_)) return;
        finishCalled_ = true;
    }
    finish();
}

void QXDecompressionOperation::storeError(const Ref<Error>& error) {
    bool first;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        first = !error_;
    }
    if (!first) return;
    announce(Key::Error, true);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!error_) error_ = error ? error : cancelledError();
    }
    announce(Key::Error, false);
}

void QXDecompressionOperation::fail(const Ref<Error>& error) {
    storeError(error);
    outputBuffer_->close();
    finishIfEnded();
}

void QXDecompressionOperation::cancelWithError(const Ref<Error>& error) {
    // The error goes in before the cancel flag, so that the decoding thread,
    // once it sees the flag, finds this error rather than making its own;
    // and the flag goes in before the operation can finish, since a finished
    // operation takes no cancel.
    storeError(error);
    cancel();
    outputBuffer_->close();
    finishIfEnded();
}

void QXDecompressionOperation::waitUntilInputIsProcessed() { queue_->drain(); }

void QXDecompressionOperation::provideInputData(const Ref<Data>& data, bool isFinal) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (finalQueued_) return;
        if (isFinal) finalQueued_ = true;
    }
    qx::WeakRef<QXDecompressionOperation> weak = std::static_pointer_cast<QXDecompressionOperation>(shared_from_this());
    queuedPieces_.fetch_add(1);
    queue_->async([weak, data, isFinal] {
        auto self = weak.lock();
        if (!self) return;
        self->decodePiece(data, isFinal);
        // The decoder keeps its turn at liblzma only while its next piece is
        // already queued behind this one, so that a later chunk does not take
        // the processor between two pieces of an older one.
        if (self->queuedPieces_.fetch_sub(1) == 1) self->turn_->release();
    });
}

void QXDecompressionOperation::processData(const Ref<Data>& data, bool isFinal) {
    decodePiece(data, isFinal);
    turn_->release();
}

void QXDecompressionOperation::decodePiece(const Ref<Data>& data, bool isFinal) {
    if (isCancelled()) {
        fail(cancelledError());
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (error_ || noMoreInputData_) return;
    }
    Ref<Data> piece = data ? data : Data::create();
    const std::uint64_t slice = outputBuffer_->size();
    bool again = false;
    do {
        again = false;
        Ref<Error> error;
        auto out = decoder_->decode(piece, isFinal, &again, &error);
        if (!out) {
            fail(error ? error : QXGenerateError(qx::NSCocoaErrorDomain, 259));
            return;
        }
        // Written a buffer's worth at a time: a waiting write larger than the
        // buffer could fill it and sleep without waking a consumer that
        // sleeps until output arrives.
        for (std::uint64_t at = 0; at < out->length();) {
            const std::uint64_t want = std::min<std::uint64_t>(slice, out->length() - at);
            const std::uint64_t wrote = outputBuffer_->writeBytes(out->bytes() + at, want, true);
            at += wrote;
            if (wrote < want) {
                // Only a cancel or a failure closes the buffer before the end.
                fail(cancelledError());
                return;
            }
        }
        piece = Data::create();
    } while (again);
    if (!isFinal) return;
    if (compressed_ && !decoder_->isSetUp()) {
        // Data that was to be compressed never looked like any known format:
        // that is corrupt data, not an empty piece.
        fail(QXGenerateError(qx::NSCocoaErrorDomain, 259));
        return;
    }
    // Nothing more will be written: a consumer asleep for output must wake.
    // Closed under the lock that the consumer's done check takes, so that no
    // owner reuses the buffer (once done) before this thread has let go of it.
    std::lock_guard<std::mutex> lock(mutex_);
    noMoreInputData_ = true;
    outputBuffer_->close();
}

Ref<Data> QXDecompressionOperation::consumeOutputDataWithMaxLength(std::uint64_t maxLength) {
    // Sized by what is there: a buffer as large as the ring would be made and
    // cleared on every call otherwise.
    auto out = outputBuffer_->readDataOfLength(std::min(maxLength, outputBuffer_->bytesAvailable()), false);
    noteConsumed();
    return out;
}

std::uint64_t QXDecompressionOperation::consumeOutputDataWithMaxLength(std::uint64_t maxLength, Data& output) {
    const std::uint64_t got = outputBuffer_->appendBytesToData(output, maxLength);
    noteConsumed();
    return got;
}

void QXDecompressionOperation::noteConsumed() {
    bool nowDone = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        nowDone = noMoreInputData_ && !done_ && outputBuffer_->bytesAvailable() == 0;
    }
    if (!nowDone) return;
    announce(Key::Done, true);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    announce(Key::Done, false);
    finishIfEnded();
}

std::uint64_t QXDecompressionOperation::availableOutputDataSize() const { return outputBuffer_->bytesAvailable(); }

std::uint64_t QXDecompressionOperation::waitForOutputData() { return outputBuffer_->waitForBytesAvailable(); }

Ref<Error> QXDecompressionOperation::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

bool QXDecompressionOperation::isDone() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_;
}

bool QXDecompressionOperation::isStarted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return started_;
}

bool QXDecompressionOperation::hasEnded() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_ || error_;
}
