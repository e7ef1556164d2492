// QXCompressor.h - zlib, raw deflate, gzip, bzip2 and xz output, the
// counterpart of QXDecompressor for the formats the library writes.
//
// One streaming object per output stream: set up for one algorithm, fed
// input chunks (each call returns the compressed bytes that chunk yields,
// possibly none), then finished once, which returns the rest of the stream.
// The class operations compress buffers, file ranges and files on top of it.
//
// Algorithms are QXDecompressionAlgorithm values: 0 (none: output equals
// input), 1 and 3 zlib, 2 raw deflate, 4 gzip, 5 bzip2, 6 xz (CRC-64 check).
// Anything else, PBZX and automatic detection included, is refused with
// NSPOSIXErrorDomain 22.
//
// Thread safety: one streaming object is not safe for concurrent calls; the
// class operations are thread-safe.
#pragma once

#include <QXFoundation/QXDecompressor.h>

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/Object.h>
#include <qx/URL.h>

#include <cstdint>
#include <functional>
#include <memory>

/// The error domains of the zlib and libbz2 failures (liblzma's are named
/// after the failing call: "lzma_easy_encoder", "lzma_code").
extern const char* const QXCompressorZLIBErrorDomain;  // "QXCompressorZLIBErrorDomain"
extern const char* const QXCompressorBZ2ErrorDomain;   // "QXCompressorBZ2ErrorDomain"

class QXCompressor : public qx::Object {
public:
    /// Returns true when the work is to stop.
    using CancelBlock = std::function<bool()>;
    /// Gets the count of input bytes just consumed.
    using ProgressBlock = std::function<void(std::int64_t)>;

    /// The output room of one library call, and the size of one read of the
    /// handle driver.
    static constexpr std::size_t kBufferSize = 102400;

    // ----- The streaming object -----

    /// Algorithm 0, no stream: chunks come back unchanged.
    static qx::Ref<QXCompressor> init();
    /// At the algorithm's default level: zlib's default (-1) for 2, 3 and 4,
    /// 9 for the others (algorithm 1 deflates at 9, bzip2 takes 900 KB
    /// blocks, xz preset 9).
    static qx::Ref<QXCompressor> initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                               qx::Ref<qx::Error>* error = nullptr);
    /// level is zlib's level (-1, 0..9), bzip2's block size in 100 KB (1..9)
    /// or xz's preset (0..9); a level the library refuses fails the set-up
    /// with its error.
    static qx::Ref<QXCompressor> initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm, int compressionLevel,
                                                               qx::Ref<qx::Error>* error = nullptr);
    /// The level initForStreamingWithAlgorithm takes when none is given.
    static int defaultCompressionLevel(QXDecompressionAlgorithm algorithm);
    static qx::Ref<QXCompressor> streamingCompressorWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                  qx::Ref<qx::Error>* error = nullptr);

    ~QXCompressor() override;
    QXCompressor(const QXCompressor&) = delete;
    QXCompressor& operator=(const QXCompressor&) = delete;

    /// Create the stream (replacing one made before); false with the
    /// library's error when it refuses. Algorithm picks the deflate header:
    /// 1 and 3 zlib, 2 none, 4 gzip.
    bool setUpZlibStreamWithCompressionLevel(int compressionLevel, QXDecompressionAlgorithm algorithm,
                                             qx::Ref<qx::Error>* error = nullptr);
    bool setUpBZ2StreamWithCompressionLevel(int compressionLevel, qx::Ref<qx::Error>* error = nullptr);
    bool setUpLZMAStreamWithCompressionLevel(int compressionLevel, qx::Ref<qx::Error>* error = nullptr);

    /// The compressed bytes this input yields, possibly none (the libraries
    /// keep input back until they have a block); with no stream a copy of the
    /// input. Nothing on failure: null input, or input after the stream was
    /// finished, gives NSPOSIXErrorDomain 22.
    qx::Ref<qx::Data> compressedDataFromStreamWithInputData(const qx::Ref<qx::Data>& input,
                                                            qx::Ref<qx::Error>* error = nullptr);
    /// Ends the stream and returns its remaining bytes (empty with no stream,
    /// and on every call after the first).
    qx::Ref<qx::Data> finalDataFromStreamWithError(qx::Ref<qx::Error>* error = nullptr);

    QXDecompressionAlgorithm algorithm() const;
    /// True once the final data was taken.
    bool isFinished() const;

    std::string className() const override { return "QXCompressor"; }

    // ----- Class operations -----
    // Buffers are nothing and counts -1 on failure; the error is written only
    // then. Counts are input bytes consumed. Offset and length select source
    // bytes (length 0: to the end). Read faults give NSCocoaErrorDomain 256,
    // write faults 512.
    //
    // The file and handle drivers also come with a thread count, threads:
    // 1 (what the forms without it use) writes the single stream above;
    // 0 means one thread per processor; with more than one, input is cut into
    // blocks compressed side by side (deflate blocks primed with the 32 KiB
    // before them inside one gzip member or zlib stream, one bzip2 stream per
    // block, liblzma's multi-threaded xz), which the standard single-threaded
    // decoders read as well. Those bytes do not depend on the count, as long
    // as it is more than one. Algorithm 0 always runs on one thread.

    static qx::Ref<qx::Data> compressedDataFromFileAtURL(const qx::Ref<qx::URL>& url,
                                                         QXDecompressionAlgorithm algorithm,
                                                         qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<qx::Data> compressedDataFromFileAtURL(const qx::Ref<qx::URL>& url, std::uint64_t offset,
                                                         std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                         qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<qx::Data> compressedDataFromFileHandle(const qx::Ref<qx::FileHandle>& handle,
                                                          QXDecompressionAlgorithm algorithm,
                                                          qx::Ref<qx::Error>* error = nullptr);
    /// Compresses through a temporary file "QXCompressor<unique id>" in the
    /// temporary-files folder ($TMPDIR, else /tmp), read back and removed.
    static qx::Ref<qx::Data> compressedDataFromFileHandle(const qx::Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                                          std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                          qx::Ref<qx::Error>* error = nullptr);

    /// Replaces the file by its compressed form, through a temporary beside
    /// it, named by a fresh uniqueID, that takes the file's place only once
    /// the handle driver succeeded (a cancel counts as success: what was read
    /// makes a complete stream).
    static std::int64_t compressFileAtURL(const qx::Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                          qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURL(const qx::Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                          const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                          qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURL(const qx::Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                          unsigned threads, const CancelBlock& cancelBlock,
                                          const ProgressBlock& progressBlock, qx::Ref<qx::Error>* error = nullptr);

    // The forms with a destination are named by the keyword after the URL or
    // handle (as QXDecompressor's), since they would read as one overload set.

    /// Creates or replaces destination, through a temporary beside it named
    /// by a fresh uniqueID, so a failure leaves no partial file and
    /// destination as it was.
    static std::int64_t compressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                               QXDecompressionAlgorithm algorithm,
                                               qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                               QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock,
                                               const ProgressBlock& progressBlock,
                                               qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                               QXDecompressionAlgorithm algorithm, unsigned threads,
                                               const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                               qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURLToFileHandle(const qx::Ref<qx::URL>& url,
                                                      const qx::Ref<qx::FileHandle>& destination,
                                                      QXDecompressionAlgorithm algorithm,
                                                      qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURLToFileHandle(const qx::Ref<qx::URL>& url,
                                                      const qx::Ref<qx::FileHandle>& destination,
                                                      QXDecompressionAlgorithm algorithm,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock,
                                                      qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileAtURLToFileHandle(const qx::Ref<qx::URL>& url,
                                                      const qx::Ref<qx::FileHandle>& destination,
                                                      QXDecompressionAlgorithm algorithm, unsigned threads,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock,
                                                      qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileHandleToFileHandle(const qx::Ref<qx::FileHandle>& source,
                                                       const qx::Ref<qx::FileHandle>& destination,
                                                       QXDecompressionAlgorithm algorithm,
                                                       qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileHandleToFileHandle(const qx::Ref<qx::FileHandle>& source,
                                                       const qx::Ref<qx::FileHandle>& destination,
                                                       QXDecompressionAlgorithm algorithm,
                                                       const CancelBlock& cancelBlock,
                                                       const ProgressBlock& progressBlock,
                                                       qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileHandleToFileHandle(const qx::Ref<qx::FileHandle>& source,
                                                       const qx::Ref<qx::FileHandle>& destination,
                                                       QXDecompressionAlgorithm algorithm, unsigned threads,
                                                       const CancelBlock& cancelBlock,
                                                       const ProgressBlock& progressBlock,
                                                       qx::Ref<qx::Error>* error = nullptr);

    /// The generic handle driver: seeks source to offset, then reads up to
    /// kBufferSize bytes at a time (never past length, 0 meaning no limit),
    /// writing each chunk's output to destination and reporting its input
    /// length to progressBlock. The cancel callback is asked before each
    /// read; a cancel is not an error: the stream is still finished, so
    /// destination holds a complete compressed stream of what was read.
    /// Returns the input bytes consumed.
    static std::int64_t compressFileHandle(const qx::Ref<qx::FileHandle>& source, std::uint64_t offset,
                                           std::uint64_t length, const qx::Ref<qx::FileHandle>& destination,
                                           QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock,
                                           const ProgressBlock& progressBlock, qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t compressFileHandle(const qx::Ref<qx::FileHandle>& source, std::uint64_t offset,
                                           std::uint64_t length, const qx::Ref<qx::FileHandle>& destination,
                                           QXDecompressionAlgorithm algorithm, unsigned threads,
                                           const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                           qx::Ref<qx::Error>* error = nullptr);

protected:
    QXCompressor();

private:
    struct Impl;  // the library streams
    std::unique_ptr<Impl> impl_;
};
