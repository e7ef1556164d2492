// QXPBZXFanOut.h - PBZX chunks decoded in parallel: the fan-out of chunks to
// QXDecompressionOperations, the drain that takes their output back in
// container order, and the two process-wide resources the chunk decoders
// share (the xz decoder pool and the decode turns).
//
// Process-wide state and its bounds:
//  * QXXZDecoderPool keeps ended xz decoders only while some PBZX decode is
//    running, at most QXDecompressor::maxOperationCount() of them, each
//    holding at most 24 MiB (presets up to 7). When the last PBZX decode of
//    the process ends it frees them all, so an idle process holds none.
//  * QXDecodeTurns hands out as many turns at liblzma as there are
//    processors, to the chunk waiting that was made first, across every
//    decompressor of the process. The policy is process-wide on purpose:
//    the processors are shared by all decompressors, and oldest-first keeps
//    each drain's oldest chunk (the one it waits for) from being held up by
//    any younger chunk, its own or another decompressor's. A chunk's order
//    is given by QXDecompressionOperation when it is made.
#pragma once

#include <QXFoundation/QXRingBuffer.h>

#include <qx/Data.h>
#include <qx/Error.h>

#include <lzma.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

class QXDecompressionOperation;
class QXStoragePool;

// xz decoders that have ended, kept for the next ones: liblzma keeps a
// stream's dictionary when the stream is set up again for one of the same
// size, so a PBZX file's chunk decoders stop mapping and clearing megabytes
// of fresh dictionary per chunk.
class QXXZDecoderPool {
public:
    static QXXZDecoderPool& shared();

    /// A kept decoder, or a new one (LZMA_STREAM_INIT).
    lzma_stream* take();
    /// Keeps the decoder for the next one (see the bounds above) or ends it.
    void giveBack(lzma_stream* stream);
    /// A PBZX decode starts and ends; the pool keeps decoders only in between.
    void pbzxDecodeBegan();
    void pbzxDecodeEnded();

    /// The deleter of a pooled decoder.
    struct GiveBack {
        void operator()(lzma_stream* stream) const { QXXZDecoderPool::shared().giveBack(stream); }
    };

private:
    QXXZDecoderPool() = default;
    static void end(lzma_stream* stream);

    std::mutex mutex_;
    std::vector<lzma_stream*> spare_;  // guarded by mutex_
    std::uint64_t running_ = 0;         // PBZX decodes under way; guarded
};

// Turns for the chunk decoders to run liblzma, as many as there are
// processors. More chunks than that are decoded at once (the drain needs the
// later ones under way while it waits for the oldest), but letting them all
// run would have them take the processors from each other every few
// milliseconds, each time with the caches full of another decoder's
// dictionary. A turn goes to the oldest chunk waiting. A decoder that has to
// wait for room gives its turn up first: the room comes from a drain that may
// be waiting for the very chunk that needs the turn.
class QXDecodeTurns {
public:
    static QXDecodeTurns& shared();
    void take(std::uint64_t order);
    /// Whether a chunk older than order waits for a turn.
    bool olderWaits(std::uint64_t order);
    void giveBack();

private:
    QXDecodeTurns();
    const unsigned processors_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::uint64_t> waiting_;
    unsigned running_ = 0;
};

// One chunk decoder's hold on a turn, kept from one piece of input to the
// next while more is queued; given up whenever it is to wait, and by the
// destructor. Used from one thread at a time.
class QXDecodeTurn {
public:
    explicit QXDecodeTurn(std::uint64_t order) : order_(order) {}
    ~QXDecodeTurn() { release(); }
    QXDecodeTurn(const QXDecodeTurn&) = delete;
    QXDecodeTurn& operator=(const QXDecodeTurn&) = delete;

    void take();
    void release();
    /// Hands the turn to an older chunk that waits for one, and waits for the next.
    void yieldToOlder();

private:
    const std::uint64_t order_;
    bool held_ = false;
};

// Where a chunk decoder's xz output goes: straight into the ring buffer the
// drain reads, decoding only while it holds its turn.
struct QXChunkOutput {
    qx::Ref<QXRingBuffer> ring;
    QXDecodeTurn* turn;
};

// The chunk decoders of one PBZX stream, oldest first. Used from the owner's
// thread only; the decoding runs on the operations' own queues.
class QXPBZXFanOut {
public:
    QXPBZXFanOut();
    /// Cancels the chunk decoders still at work and waits until none is
    /// left running on this stream's memory.
    ~QXPBZXFanOut();
    QXPBZXFanOut(const QXPBZXFanOut&) = delete;
    QXPBZXFanOut& operator=(const QXPBZXFanOut&) = delete;

    /// Makes the decoder of a new chunk (compressed or stored) and queues it;
    /// it receives the pieces that follow. The error of one that can't be made.
    qx::Ref<qx::Error> startChunk(bool compressed);
    /// Hands the current chunk decoder the next piece of its chunk (copied),
    /// closing its input when last. Nothing without a current chunk.
    void provide(const std::uint8_t* bytes, std::size_t length, bool last);
    /// Closes the current chunk's input where it stands, so that a chunk cut
    /// short is reported rather than waited for.
    void endCurrentChunk();
    /// Appends the oldest chunks' output to out (see the .cpp for when it
    /// waits); the first failure of a chunk decoder, else nothing.
    qx::Ref<qx::Error> drain(qx::Data& out, bool waitForOutput, bool roomForAnother);
    void cancelWithError(const qx::Ref<qx::Error>& error);
    /// The first chunk decoder's error; else NSCocoaErrorDomain 3072 when one
    /// was cancelled without an error; else nothing.
    qx::Ref<qx::Error> operationError() const;
    /// Whether any chunk decoder is still listed.
    bool hasOperations() const { return !operations_.empty(); }

private:
    std::vector<std::shared_ptr<QXDecompressionOperation>> operations_;
    std::shared_ptr<QXDecompressionOperation> current_;
    std::vector<qx::Ref<QXRingBuffer>> spareBuffers_;  // of chunk decoders that are done, for the next ones
    std::shared_ptr<QXStoragePool> pieces_;             // storage of input pieces the decoders are done with
};
