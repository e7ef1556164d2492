// QXDecompressor.h - format detection and decompression of gzip, zlib, raw
// deflate, bzip2, xz and PBZX payloads and of imploded and shrunk ZIP entries.
//
// Everything rests on one streaming object: a QXDecompressor set up for one
// algorithm and then fed input chunks, each call returning the output that
// chunk produced. The class operations (detection, the buffer, file and handle
// drivers) are built on that one call.
//
// Streaming contract (decompressedDataFromStreamWithInputData):
//  * Input may be split anywhere. Set-up is deferred while the input is too
//    short to decide the format (fewer than 2 bytes for the deflate family, no
//    known prefix for automatic detection); the bytes are held and processed
//    with the next chunk, and the call returns an empty buffer.
//  * Gzip input keeps its last 8 bytes back on every call, so the trailer
//    (CRC-32 and length) never reaches inflate. This is deliberate: the
//    streaming path does not verify gzip trailers; the file drivers do, through
//    zlib's gzip file reader.
//  * A truncated zlib, gzip or raw deflate stream is not an error here: the
//    output produced so far is returned. xz is fed with LZMA_FINISH on the final
//    chunk, so a truncated xz stream is reported.
//  * xz input that lacks its 6-byte magic gets it put in front, so a caller that
//    already consumed the header can feed the rest; PBZX input likewise gets
//    "pbzx" put in front.
//  * After a call with isFinal true, call again with empty input while
//    shouldRunAgain is true to collect output still on its way.
//  * PBZX chunks are decoded in parallel, each by a QXDecompressionOperation
//    on operationQueue(); output still comes out in container order. A call
//    returns once fewer than maxOperationCount() chunks are in flight, so
//    memory stays bounded by that many chunk buffers. Calls after the final
//    one only collect output (each brings some, or ends it); any input they
//    carry is ignored. Destroying the object cancels its chunk decoders.
//  * Once a zlib or bzip2 stream has reported its end, further calls return an
//    empty buffer (trailing bytes are ignored).
//
// Algorithm values outside -1..7 are accepted and pass input through.
//
// Thread safety: a single streaming object is not safe for concurrent calls;
// the class operations are thread-safe.
#pragma once

#include <QXFoundation/QXChecksum.h>

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/Object.h>
#include <qx/OperationQueue.h>
#include <qx/URL.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QXRemoteFileHandle;  // QXRemoteFileHandle.h, for the asynchronous drivers

using QXDecompressionAlgorithm = std::int64_t;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmAutomatic = -1;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmNone = 0;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmDeflateAny = 1;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmRawDeflate = 2;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmZlib = 3;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmGzip = 4;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmBZip2 = 5;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmXZ = 6;
inline constexpr QXDecompressionAlgorithm QXDecompressionAlgorithmPBZX = 7;

class QXDecompressor : public qx::Object {
public:
    /// Returns true when the work is to stop.
    using CancelBlock = std::function<bool()>;
    /// Gets the count of bytes just produced.
    using ProgressBlock = std::function<void(std::int64_t)>;
    /// Gets one piece of output.
    using DataBlock = std::function<void(const qx::Ref<qx::Data>&)>;

    // ----- The streaming object -----

    /// Algorithm 0 (pass-through), nothing set up.
    static qx::Ref<QXDecompressor> init();
    /// initForStreamingWithAlgorithm with automatic detection.
    static qx::Ref<QXDecompressor> initForStreamingAndReturnError(qx::Ref<qx::Error>* error = nullptr);
    /// Stores the algorithm and sets up with no data (which, for the formats
    /// that need to see bytes first, defers set-up to the first chunk).
    /// Nothing with the set-up's error on failure.
    static qx::Ref<QXDecompressor> initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                 qx::Ref<qx::Error>* error = nullptr);
    /// An implode decoder for an entry of the given uncompressed size, with an
    /// 8 KiB dictionary when largeDictionary (else 4 KiB). Nothing and
    /// NSCocoaErrorDomain 256 when the decoder can't be made.
    static qx::Ref<QXDecompressor> initForExplodeStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                               bool useLargeDictionary,
                                                                               bool useLiteralTree,
                                                                               qx::Ref<qx::Error>* error = nullptr);
    /// An unshrink decoder for an entry of the given uncompressed size.
    static qx::Ref<QXDecompressor> initForUnshrinkStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                                qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<QXDecompressor> streamingDecompressorWithError(qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<QXDecompressor> streamingDecompressorWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                      qx::Ref<qx::Error>* error = nullptr);

    ~QXDecompressor() override;
    QXDecompressor(const QXDecompressor&) = delete;
    QXDecompressor& operator=(const QXDecompressor&) = delete;

    /// Creates the decoder for the algorithm, resolving -1 and 1 from the data's
    /// first bytes. True (and still not set up) when the data is too short to
    /// decide; true at once when already set up.
    bool setUpWithData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error = nullptr);

    /// Feeds one chunk; returns the output it produced (possibly empty), or
    /// nothing on failure (null input: NSPOSIXErrorDomain 22). shouldRunAgain
    /// (optional) is set as described in the file comment.
    qx::Ref<qx::Data> decompressedDataFromStreamWithInputData(const qx::Ref<qx::Data>& input, bool isFinal,
                                                              bool* shouldRunAgain = nullptr,
                                                              qx::Ref<qx::Error>* error = nullptr);

    /// cancelWithError with NSCocoaErrorDomain 3072.
    void cancel();
    /// Stops the PBZX chunk decoders, handing them the error; later PBZX calls
    /// then fail with operationError.
    void cancelWithError(const qx::Ref<qx::Error>& error);
    /// The first PBZX chunk decoder's error; else NSCocoaErrorDomain 3072 when
    /// one was cancelled without an error; else nothing.
    qx::Ref<qx::Error> operationError() const;

    /// The algorithm in use (set-up replaces -1 and 1 by what it detected).
    QXDecompressionAlgorithm algorithm() const;
    bool isSetUp() const;
    /// True once the decoder reported the end of its stream.
    bool isFinished() const;
    /// Once the stream has ended: how many of the last input bytes given the
    /// stream did not use, counted back from the end of the last call's input
    /// (so that a caller can find where a following stream starts). For gzip
    /// the count may exceed that input's length by up to the 8 bytes held back
    /// from the call before; input given after the end counts whole. zlib,
    /// gzip, raw deflate and bzip2 count; other formats report 0 (their
    /// trailing bytes are ignored or refused by the decoder). 0 before the end.
    std::uint64_t unconsumedLength() const;

    std::string className() const override { return "QXDecompressor"; }

    // ----- Detection -----

    /// "gz", "gzip", "bz", "bz2", "xz", as Strings, in this order.
    static qx::Ref<qx::Array> supportedFilenameExtensions();
    /// The longest prefix in the magic table (6, xz's).
    static std::uint64_t maxMagicLength();
    /// Tries gzip, bzip2, xz, PBZX, zlib in this order; stores the first hit's
    /// algorithm (0 when none) through algorithm, if given.
    static bool isFileCompressedAtURL(const qx::Ref<qx::URL>& url, QXDecompressionAlgorithm* algorithm = nullptr);
    /// Tries gzip, zlib, bzip2, xz, PBZX in this order (zlib comes earlier than
    /// for files on purpose); stores the first hit's algorithm, else 0.
    static bool isDataCompressed(const qx::Ref<qx::Data>& data, QXDecompressionAlgorithm* algorithm = nullptr);
    /// The algorithm set-up takes for a stream that starts with data: -1 as
    /// isDataCompressed finds it (0 when nothing matches, where the drivers
    /// pass the bytes through); 1 as zlib or gzip by their prefixes, else raw
    /// deflate; any other algorithm as it is.
    static QXDecompressionAlgorithm resolvedAlgorithmForData(const qx::Ref<qx::Data>& data,
                                                             QXDecompressionAlgorithm algorithm);
    static bool isFileGZCompressedAtURL(const qx::Ref<qx::URL>& url);
    static bool isFileZlibCompressedAtURL(const qx::Ref<qx::URL>& url);
    static bool isFileBZ2CompressedAtURL(const qx::Ref<qx::URL>& url);
    static bool isFileXZCompressedAtURL(const qx::Ref<qx::URL>& url);
    static bool isFilePBZXCompressedAtURL(const qx::Ref<qx::URL>& url);
    static bool isDataGZCompressed(const qx::Ref<qx::Data>& data);
    static bool isDataZlibCompressed(const qx::Ref<qx::Data>& data);
    static bool isDataBZ2Compressed(const qx::Ref<qx::Data>& data);
    static bool isDataXZCompressed(const qx::Ref<qx::Data>& data);
    static bool isDataPBZXCompressed(const qx::Ref<qx::Data>& data);
    /// True when the file's first bytes start with one of the prefixes (Data
    /// objects); false when it can't be read.
    static bool doesMagicMatch(const qx::Ref<qx::Array>& magics, const qx::Ref<qx::URL>& url);
    /// True when some prefix (a Data) is no longer than data and equals its
    /// first bytes.
    static bool doesMagic(const qx::Ref<qx::Array>& magics, const qx::Ref<qx::Data>& data);
    /// The gzip trailer's length field (modulo 2^32); 0 when not gzip or unreadable.
    static std::uint64_t uncompressedSizeOfGZFileAtURL(const qx::Ref<qx::URL>& url);
    /// The sum of the PBZX chunk headers' uncompressed sizes; 0 when not PBZX or unreadable.
    static std::uint64_t uncompressedSizeOfPBZXFileAtURL(const qx::Ref<qx::URL>& url);

    // ----- Synchronous drivers -----
    // Counts are -1 on failure, buffers nothing; the error is written only then.

    /// The whole buffer in one call (is-final); while the decoder asks to run
    /// again it is given the same buffer again, which every routine tolerates.
    static qx::Ref<qx::Data> decompressedDataFromData(const qx::Ref<qx::Data>& data, QXDecompressionAlgorithm algorithm,
                                                      qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<qx::Data> decompressedDataFromData(const qx::Ref<qx::Data>& data,
                                                      qx::Ref<qx::Error>* error = nullptr);

    /// Bytes offset .. offset+length of the file's decompressed content (length
    /// 0: to the end). Algorithm -1 is resolved from the file (no hit: pass-through).
    static qx::Ref<qx::Data> decompressedDataFromFileAtURL(const qx::Ref<qx::URL>& url, std::uint64_t offset,
                                                           std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                           qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<qx::Data> decompressedDataFromFileAtURL(const qx::Ref<qx::URL>& url, std::uint64_t offset,
                                                           std::uint64_t length, qx::Ref<qx::Error>* error = nullptr);
    static qx::Ref<qx::Data> decompressedDataFromFileAtURL(const qx::Ref<qx::URL>& url,
                                                           qx::Ref<qx::Error>* error = nullptr);
    /// As above from the handle's current position.
    static qx::Ref<qx::Data> decompressedDataFromFileHandle(const qx::Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                                            std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                            qx::Ref<qx::Error>* error = nullptr);

    /// Replaces the file by its decompressed content (algorithm -1), through a
    /// sibling file. A result of 0 or -1 leaves the source alone.
    static std::int64_t decompressFileAtURL(const qx::Ref<qx::URL>& url, const CancelBlock& cancelBlock,
                                            const ProgressBlock& progressBlock, qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t decompressFileAtURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr);

    /// Decompresses into a new file at destination. The output goes to a
    /// temporary sibling that replaces the destination only on success, so a
    /// failure never leaves a partial file behind. (Named by the keyword after
    /// the URL, since the forms would clash as overloads.)
    static std::int64_t decompressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                                 QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock,
                                                 const ProgressBlock& progressBlock,
                                                 qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t decompressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                                 const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                 qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t decompressFileAtURLToURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::URL>& destination,
                                                 qx::Ref<qx::Error>* error = nullptr);

    /// Decompresses the file and writes each piece to every handle, in order.
    static std::int64_t decompressFileAtURLToFileHandleArray(
        const qx::Ref<qx::URL>& url, const std::vector<qx::Ref<qx::FileHandle>>& handles,
        QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
        qx::Ref<qx::Error>* error = nullptr);
    static std::int64_t decompressFileAtURLToFileHandle(const qx::Ref<qx::URL>& url,
                                                        const qx::Ref<qx::FileHandle>& handle,
                                                        QXDecompressionAlgorithm algorithm,
                                                        const CancelBlock& cancelBlock,
                                                        const ProgressBlock& progressBlock,
                                                        qx::Ref<qx::Error>* error = nullptr);

    /// The generic handle driver: reads the handle from its current position
    /// 1 MiB at a time; offset and length select decompressed bytes (length 0:
    /// to the end). Returns the count delivered, or -1: cancelled gives
    /// NSCocoaErrorDomain 3072, output shorter than offset 256. Algorithm 4
    /// goes to decompressGZFileHandle.
    static std::int64_t decompressFileHandle(const qx::Ref<qx::FileHandle>& handle, QXDecompressionAlgorithm algorithm,
                                             std::uint64_t offset, std::uint64_t length, const DataBlock& dataBlock,
                                             const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                             qx::Ref<qx::Error>* error = nullptr);
    /// Gzip through zlib's gzip file reader, which verifies the trailer. The
    /// offset counts decompressed bytes. Cancelling stops without an error and
    /// returns the count so far.
    static std::int64_t decompressGZFileHandle(const qx::Ref<qx::FileHandle>& handle, std::int64_t offset,
                                               std::uint64_t length, const DataBlock& dataBlock,
                                               const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                               qx::Ref<qx::Error>* error = nullptr);
    /// Writes data to each handle in list order (file-handle faults propagate
    /// as qx::Exception).
    static void writeData(const qx::Ref<qx::Data>& data, const std::vector<qx::Ref<qx::FileHandle>>& handles);

    // ----- Asynchronous drivers -----
    //
    // Each returns at once and decompresses a COMPRESSED byte range of its
    // source (offset, and length or QXRemoteFileHandle::ToEndOfFile) on a
    // worker of operationQueue(). The handler is then called, one call at a
    // time and in order, on the thread that delivers the source's chunks (a
    // worker of the shared queue for failures found before reading starts).
    //
    // Handler arguments: the output this chunk produced (nothing on the
    // finished call of a failure or stop; treat it as read-only, a checksum
    // may still be reading it), the compressed and decompressed byte totals so
    // far, finished, the compressed and decompressed checksums (only on the
    // finished call of a successful run, and only for a non-zero checksum
    // algorithm), and the error that ended the run.
    //
    // Every run ends with exactly one call whose finished flag is set; no call
    // follows it. It carries either the last output and the checksums, or the
    // error: the source's, the decoder's, NSCocoaErrorDomain 3072 after the
    // handler asked to stop (that call comes at once, from the call that asked),
    // or an open or detection failure (then with totals 0). A format that
    // drains its output after the last input (PBZX) gets its extra calls with
    // finished false; the flag is set on the very last one only.
    //
    // Algorithm -1 reads maxMagicLength bytes at offset to pick the format
    // (the streaming object's own detection takes over when they match
    // nothing); the range is then read from offset again, so the decoder sees
    // every byte of it. A pipe goes back as QXRemoteFileHandle allows (within
    // the last 64 KiB read), which covers the magic.
    //
    // A null handler makes the call do nothing.

    /// (output, compressedTotal, decompressedTotal, finished, compressedChecksum,
    /// decompressedChecksum, error) -> true to go on, false to stop.
    using Handler = std::function<bool(const qx::Ref<qx::Data>& output, std::uint64_t compressedTotal,
                                       std::uint64_t decompressedTotal, bool finished,
                                       const qx::Ref<qx::Data>& compressedChecksum,
                                       const qx::Ref<qx::Data>& decompressedChecksum, const qx::Ref<qx::Error>& error)>;

    /// Opens url (file, http or https) and runs the remote form over it.
    ///
    /// !!! THE HANDLER'S ANSWER IS INVERTED IN THIS FORM: return FALSE TO GO ON
    /// and TRUE TO STOP. !!! Existing callers depend on this asymmetry with the
    /// two forms below, so it stays. The source is closed after the last call
    /// of a run that read to its end; after an error or a stop it is closed as
    /// soon as the read in flight lets go of it (closing it under a reading
    /// thread could hand that thread a descriptor reused by someone else).
    /// A URL that can't be opened gives one finished call with the error.
    static void decompressFileAtURL(const qx::Ref<qx::URL>& url, std::uint64_t offset, std::uint64_t length,
                                    QXDecompressionAlgorithm algorithm,
                                    QXChecksumAlgorithm compressedChecksumAlgorithm,
                                    QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler);
    /// Reads an open handle, which is left open (and positioned wherever the
    /// read left it). The handler returns true to go on.
    static void decompressFileHandle(const qx::Ref<qx::FileHandle>& handle, std::uint64_t offset, std::uint64_t length,
                                     QXDecompressionAlgorithm algorithm,
                                     QXChecksumAlgorithm compressedChecksumAlgorithm,
                                     QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler);
    /// The form the other two rest on; the handler returns true to go on. The
    /// remote handle buffers at most maxOperationCount() x 2 MiB ahead of the
    /// handler.
    static void decompressRemoteFileHandle(const qx::Ref<QXRemoteFileHandle>& handle, std::uint64_t offset,
                                           std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                           QXChecksumAlgorithm compressedChecksumAlgorithm,
                                           QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler);

    // ----- Shared resources -----

    /// Twice the number of processors: how many PBZX chunks and asynchronous
    /// workers may run at once.
    static std::int64_t maxOperationCount();
    /// The one process-wide queue for that work, made on first use, allowing
    /// maxOperationCount operations at a time.
    static qx::Ref<qx::OperationQueue> operationQueue();

protected:
    QXDecompressor();

private:
    struct Impl;  // the streaming state, private to the library
    std::unique_ptr<Impl> impl_;
};
