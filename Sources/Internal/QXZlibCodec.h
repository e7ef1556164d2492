// QXZlibCodec.h - zlib, gzip and raw deflate streams through inflate.
//
// Gzip input keeps its last 8 bytes back on every call, so the trailer never
// reaches inflate: the streaming path does not verify gzip trailers (the file
// drivers do, through zlib's gzip file reader), and it stops computing the
// CRC-32 it could never compare. A truncated stream is not an error here: the
// output so far is returned. Bytes after the stream's end are ignored.
#pragma once

#include "Internal/QXCodec.h"

#include <QXFoundation/QXDecompressor.h>

#include <zlib.h>

#include <memory>

class QXZlibCodec final : public QXCodec {
public:
    /// For algorithm zlib, gzip or raw deflate (the deflate family already
    /// resolved); nothing with the error when inflate can't be set up.
    static std::unique_ptr<QXCodec> create(QXDecompressionAlgorithm algorithm, qx::Ref<qx::Error>* error);
    ~QXZlibCodec() override;

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    explicit QXZlibCodec(bool gzip) : gzip_(gzip) {}
    bool feed(const std::uint8_t* bytes, std::uint64_t length, qx::Data& out, qx::Ref<qx::Error>* error);
    void countHeldAfterEnd();

    const bool gzip_;
    z_stream stream_{};
    bool initialised_ = false;  // inflateEnd is owed
    gz_header gzipHeader_{};     // gzip only: filled in by inflate; done once the header is read
    bool checkOff_ = false;
};
