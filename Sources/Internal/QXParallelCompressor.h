// QXParallelCompressor.h - gzip, zlib, raw deflate, bzip2 and xz output made
// by several threads, in a form the standard single-threaded decoders read.
//
// - The deflate family: the input is cut into blocks of kDeflateBlockSize
//   bytes, each deflated on its own but primed with the 32 KiB of input
//   before it, so matches still reach back across the cut. Every block but
//   the last ends with a sync flush (byte-aligned, not final); the last one
//   finishes the stream. The blocks form one deflate stream inside one gzip
//   member or zlib stream, whose CRC-32 or Adler-32 is combined from the
//   blocks' own. The cuts do not depend on the thread count, so the output
//   is the same bytes for any number of threads.
// - bzip2: one whole stream per level x 100,000 input bytes, the streams
//   concatenated (decoders read on to the next stream).
// - xz: liblzma's multi-threaded encoder, which writes independent blocks
//   that threaded decoders can split again.
//
// Output leaves in input order. At most a few blocks per thread are in flight,
// so memory stays bounded whatever the input's size.
//
// Not thread-safe itself: one caller feeds it; the work runs on its own threads.
#pragma once

#include <QXFoundation/QXDecompressor.h>

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstddef>
#include <cstdint>
#include <memory>

class QXParallelCompressor {
public:
    static constexpr std::size_t kDeflateBlockSize = 128 * 1024;

    /// threads 0 means one per processor. Levels and algorithms as
    /// QXCompressor::initForStreamingWithAlgorithm takes them, and refused
    /// with its errors; algorithm 0 is refused too (NSPOSIXErrorDomain 22).
    static std::unique_ptr<QXParallelCompressor> create(QXDecompressionAlgorithm algorithm, int level,
                                                        unsigned threads, qx::Ref<qx::Error>* error);
    /// The thread count threads stands for (0: the processors).
    static unsigned resolvedThreadCount(unsigned threads);

    ~QXParallelCompressor();
    QXParallelCompressor(const QXParallelCompressor&) = delete;
    QXParallelCompressor& operator=(const QXParallelCompressor&) = delete;

    /// Takes the next input; returns the output that is ready (possibly none).
    qx::Ref<qx::Data> compress(const std::uint8_t* bytes, std::size_t length, qx::Ref<qx::Error>* error);
    /// Ends the stream: returns the next piece of the rest of it; call again
    /// until isFinished(). xz hands its last blocks out a megabyte at a time, so
    /// the end of a large stream is never held whole.
    qx::Ref<qx::Data> finish(qx::Ref<qx::Error>* error);
    bool isFinished() const;

private:
    struct Impl;
    explicit QXParallelCompressor(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};
