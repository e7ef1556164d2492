// QXDecompressionOperation.h - decompresses one piece of a larger payload (a
// PBZX chunk) on threads of its own while its owner goes on reading.
//
// The owner makes one operation per chunk, adds it to
// QXDecompressor::operationQueue(), hands it the chunk's bytes as they arrive
// (provideInputData, which returns at once) and takes the output with
// consumeOutputDataWithMaxLength, which never waits. In between, the input
// pieces are decoded strictly in the order given, one at a time, on a private
// serial queue, and the output goes into a ring buffer of
// bufferSizePerOperation() bytes. The decoding thread waits while that
// buffer is full, so an operation never runs more than one buffer ahead of
// its consumer: the owner bounds memory by bounding how many operations it
// keeps in flight.
//
// The operation on the shared queue only holds a place there: the work is
// driven by provideInputData, not by start(). Life cycle, as the queue sees it:
//  * isFinished is false before start, even when an error is already set;
//    after start it is true once the operation is done (all input processed
//    and all output consumed) or has an error. The operation calls finish()
//    itself at that moment, so its queue place is released.
//  * isExecuting is started and not finished.
//  * observable() announces changes of "started", "done" and "error", and
//    with them of the keys that depend on them: "isExecuting" (on "started"
//    and "isFinished") and "isFinished" (on "started", "done" and "error").
//
// Cancelling: cancelWithError stores the error (the first one is kept), marks
// the operation cancelled and closes the ring buffer, so a decoding thread
// asleep on a full buffer wakes and stops even when nobody consumes any more.
// The plain qx::Operation::cancel() has no such hook; it takes effect at the
// next input piece. Queued input pieces hold the operation weakly: an
// operation released early skips the rest of its input.
//
// Thread safety: provideInputData and the consume calls come from the one
// owner thread; the queries, cancelWithError and waitForOutputData may come
// from any thread.
#pragma once

#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXRingBuffer.h>

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/Observable.h>
#include <qx/Operation.h>
#include <qx/SerialQueue.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

class QXDecodeTurn;
class QXStreamingDecoder;

class QXDecompressionOperation final : public qx::Operation {
public:
    /// Half of 500 MiB shared out over the processors, so that
    /// QXDecompressor::maxOperationCount() operations (two per processor)
    /// hold at most 500 MiB of decoded, unconsumed output together.
    static std::uint64_t bufferSizePerOperation();

    /// A streaming decompressor for the algorithm, the private queue and the
    /// ring buffer; nothing with the error of whichever could not be made.
    static qx::Ref<QXDecompressionOperation> initWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                               qx::Ref<qx::Error>* error = nullptr);

    /// As initWithAlgorithm, writing into outputBuffer (reopened) instead of
    /// a new buffer; null outputBuffer makes one. For an owner that runs many
    /// operations one after another: reusing the buffer of one that is done
    /// spares the system handing out and clearing fresh pages for every one.
    static qx::Ref<QXDecompressionOperation> initWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                               const qx::Ref<QXRingBuffer>& outputBuffer,
                                                               qx::Ref<qx::Error>* error = nullptr);

    ~QXDecompressionOperation() override;

    /// Queues the piece for decoding and returns at once. isFinal marks the
    /// last piece; pieces given after it are ignored. A null piece counts as
    /// empty.
    void provideInputData(const qx::Ref<qx::Data>& data, bool isFinal);

    /// Decodes one piece on the calling thread, writing the output into the
    /// ring buffer and waiting while it is full. provideInputData runs it on
    /// the private queue; call it directly only where nothing else feeds the
    /// operation.
    void processData(const qx::Ref<qx::Data>& data, bool isFinal);

    /// Takes up to maxLength bytes of output without waiting (possibly none).
    /// Once the last piece has been processed and the output is all taken,
    /// the operation is done.
    qx::Ref<qx::Data> consumeOutputDataWithMaxLength(std::uint64_t maxLength);
    /// As above, appending the bytes to output instead of making a new
    /// buffer (one copy fewer for a consumer that gathers output anyway).
    /// Returns the count appended.
    std::uint64_t consumeOutputDataWithMaxLength(std::uint64_t maxLength, qx::Data& output);
    /// Bytes of output waiting to be consumed.
    std::uint64_t availableOutputDataSize() const;
    /// Sleeps until output is waiting or none can come any more (the last
    /// piece was processed, or the operation failed or was cancelled).
    /// Returns the bytes waiting. For a consumer that has nothing else to do.
    std::uint64_t waitForOutputData();

    /// Stores the error (NSCocoaErrorDomain 3072 for none; an earlier error is
    /// kept), cancels the operation and wakes its decoding thread.
    void cancelWithError(const qx::Ref<qx::Error>& error);
    /// Waits until every piece provided so far has been decoded or, after a
    /// cancel, skipped; a decoder cancelled mid-piece stops within one run of
    /// output. An owner that goes away calls this after cancelling, so that no
    /// decoding thread is left holding the operation's memory. Not from the
    /// operation's own queue.
    void waitUntilInputIsProcessed();

    /// The first error met, or nothing.
    qx::Ref<qx::Error> error() const;
    /// True once the last piece has been processed and all output consumed.
    bool isDone() const;
    /// The ring buffer the output goes through. Once the operation is done,
    /// nothing touches it any more and its owner may reuse it.
    const qx::Ref<QXRingBuffer>& outputBuffer() const { return outputBuffer_; }
    /// True once start() has run.
    bool isStarted() const;
    /// Done or failed, whether or not the queue has started the operation yet.
    /// An owner that waits for its operations uses this rather than
    /// isFinished: the decoding never depends on the queue place, and a
    /// queue busy with other work must not hold the owner up.
    bool hasEnded() const;

    bool isAsynchronous() const override { return true; }

    /// Change announcements; see the file comment for the keys.
    const qx::Ref<qx::Observable>& observable() const { return observable_; }

    std::string className() const override { return "QXDecompressionOperation"; }

protected:
    QXDecompressionOperation();
    /// Marks the operation started; finishes it at once when it is already
    /// done or failed.
    void main() override;

private:
    enum class Key { Started, Done, Error };
    void announce(Key key, bool before);
    /// Sets the error when none is set yet, announcing it.
    void storeError(const qx::Ref<qx::Error>& error);
    /// storeError, then closes the output and finishes if started.
    void fail(const qx::Ref<qx::Error>& error);
    /// Sets done once the last piece has been processed and nothing is held.
    void noteConsumed();
    /// Calls finish() when the operation has started and ended, once.
    void finishIfEnded();
    /// processData's work, leaving the decoder's turn to its caller.
    void decodePiece(const qx::Ref<qx::Data>& data, bool isFinal);

    mutable std::mutex mutex_;  // guards the flags and the error
    qx::Ref<qx::Error> error_;
    // The chunk's turn at liblzma among all chunk decoders, oldest first;
    // declared before the decoder, which holds on to it.
    std::unique_ptr<QXDecodeTurn> turn_;
    std::unique_ptr<QXStreamingDecoder> decoder_;  // used on the private queue only
    qx::Ref<qx::SerialQueue> queue_;
    bool started_ = false;
    bool done_ = false;
    bool noMoreInputData_ = false;  // the last piece has been processed
    bool finalQueued_ = false;      // the last piece has been provided (owner's thread)
    bool compressed_ = false;       // automatic detection: input must turn out to be a known format
    bool finishCalled_ = false;
    std::atomic<std::uint64_t> queuedPieces_{0};  // provided and not yet decoded
    qx::Ref<QXRingBuffer> outputBuffer_;
    qx::Ref<qx::Observable> observable_;
};
