// QXDecompressionStream.h - an input stream whose reads return the
// decompressed bytes of a compressed source.
//
// The source is any route QXInputStream offers (data, file, URL, file handle,
// another input stream); the bytes read from it go through one streaming
// QXDecompressor (see QXDecompressor.h for the algorithms, -1 detecting the
// format from the first bytes). The limit of the maxDataLength forms counts
// decompressed bytes, since it applies to what read() returns.
//
// Reading: a read first hands out what an earlier read decoded but could not
// return (the overflow buffer), then reads the source in steps of half the
// bytes still wanted (1 KiB for small reads, 10 MiB at most) until the
// decoder gives output or the source ends. Output beyond the request waits in
// the overflow buffer. So read sizes are free: one byte or gigabytes at a
// time give the same bytes.
//
// Status: Error (with the decoder's error as streamError) once decoding
// failed; Open while decoded bytes wait in the overflow buffer or the decoder
// still has output on its way after the source's end (PBZX chunks still
// decoding), even when the source itself has ended (not when the limit is
// used up); otherwise the base's answer. hasBytesAvailable is true in the
// same two waiting cases, and false whenever the status is not Open. The
// source's end event is passed on as bytes-available while output is still
// waiting; the end itself is then raised by the read that takes the last
// bytes. Every other event of the source is passed on unchanged.
//
// Threads: as for QXInputStream. The status queries may come from the
// background thread while a read runs; the stream's own fields are guarded
// for that. Reads must come from one thread at a time.
#pragma once

#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXInputStream.h>

#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/FileHandle.h>
#include <qx/URL.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

class QXDecompressionStream : public QXInputStream {
public:
    // Creation: each makes the underlying stream of its route (nothing when
    // that can't be made), then calls setUpForAlgorithm. A decompressor that
    // can't be set up leaves a stream that reports the error.

    static qx::Ref<QXDecompressionStream> initWithData(const qx::Ref<qx::Data>& data, QXDecompressionAlgorithm algorithm);
    static qx::Ref<QXDecompressionStream> initWithURL(const qx::Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm);
    /// A non-file URL is fetched with every header of headers (may be nothing).
    static qx::Ref<QXDecompressionStream> initWithURL(const qx::Ref<qx::URL>& url, const qx::Ref<qx::Dictionary>& headers,
                                                      QXDecompressionAlgorithm algorithm);
    static qx::Ref<QXDecompressionStream> initWithFileAtPath(const std::string& path, QXDecompressionAlgorithm algorithm);
    static qx::Ref<QXDecompressionStream> initWithFileHandle(const qx::Ref<qx::FileHandle>& fileHandle,
                                                             bool closeFileWhenStreamClosed,
                                                             QXDecompressionAlgorithm algorithm);
    static qx::Ref<QXDecompressionStream> initWithInputStream(const qx::Ref<qx::InputStream>& stream,
                                                              QXDecompressionAlgorithm algorithm);
    /// At most maxDataLength decompressed bytes (kUnlimitedLength: no limit).
    /// Named by its second keyword: as an overload of initWithInputStream the
    /// length and the algorithm, both integers, would be told apart by
    /// signedness alone.
    static qx::Ref<QXDecompressionStream> initWithInputStreamMaxDataLength(
        const qx::Ref<qx::InputStream>& stream, std::uint64_t maxDataLength,
        QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmAutomatic);

    /// Makes a new decompressor for algorithm (a failure becomes the
    /// decompression stream error) and an empty overflow buffer.
    void setUpForAlgorithm(QXDecompressionAlgorithm algorithm);

    /// Key paths the computed answers depend on: the base's, and the fields below.
    static std::vector<std::string> keyPathsForValuesAffectingStreamStatus();
    static std::vector<std::string> keyPathsForValuesAffectingStreamError();
    static std::vector<std::string> keyPathsForValuesAffectingHasBytesAvailable();

    /// Decompressed bytes into buffer (see the file comment); -1 on failure.
    std::int64_t primitiveRead(std::uint8_t* buffer, std::uint64_t maxLength) override;
    /// Decompressed bytes have no buffer of their own to lend.
    bool getBuffer(const std::uint8_t** buffer, std::uint64_t* length) override;
    bool hasBytesAvailable() const override;
    qx::StreamStatus streamStatus() const override;
    qx::Ref<qx::Error> streamError() const override;
    void stream(qx::Stream& stream, qx::StreamEventMask event) override;

    const qx::Ref<QXDecompressor>& decompressor() const { return decompressor_; }
    qx::Ref<qx::Error> decompressionStreamError() const;
    void setDecompressionStreamError(const qx::Ref<qx::Error>& error);
    /// Bytes decoded and not yet read.
    std::uint64_t overflowLength() const;
    bool needsRunAgain() const;
    void setNeedsRunAgain(bool needsRunAgain);

    std::string className() const override { return "QXDecompressionStream"; }

protected:
    QXDecompressionStream(qx::Ref<qx::InputStream> underlyingStream, std::uint64_t maxDataLength);

private:
    static qx::Ref<QXDecompressionStream> make(const qx::Ref<qx::InputStream>& underlying, std::uint64_t maxDataLength,
                                               QXDecompressionAlgorithm algorithm);
    /// Output still to come: overflow bytes, a decoder still draining, or
    /// one not yet told that the source (sourceEnded) has ended.
    bool isHoldingOutputLocked(bool sourceEnded) const;
    bool hasSourceEnded() const;
    /// One read's decompressed bytes, without announcing what is left.
    std::int64_t readDecoded(std::uint8_t* buffer, std::uint64_t maxLength);
    bool isLimitUsedUp() const;

    qx::Ref<QXDecompressor> decompressor_;  // used by the reading thread only

    mutable std::mutex stateLock_;  // guards the fields below
    qx::Ref<qx::Error> decompressionStreamError_;
    qx::Ref<qx::Data> overflowBuffer_;
    std::size_t overflowStart_ = 0;  // bytes of overflowBuffer_ already read
    bool needsRunAgain_ = false;
    bool finalInputGiven_ = false;  // the decoder has been told the source ended
    bool reading_ = false;          // a read is decoding
};
