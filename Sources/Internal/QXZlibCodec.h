// QXZlibCodec.h - zlib, gzip and raw deflate streams through inflate.
//
// Gzip input keeps its last 8 bytes back on every call, so the trailer never
// reaches inflate: the streaming path does not verify gzip trailers (the file
// drivers do, through zlib's gzip file reader), and it stops computing the
// CRC-32 it could never compare. A truncated stream is not an error here: the
// output so far is returned. Bytes after the stream's end are ignored.
//
// zlib reads the header (through Z_BLOCK, which stops right before the first
// block); ISA-L then decodes the deflate data, faster, and the trailer is
// read here as zlib reads it: the results, the finished flag, the bytes left
// over and every failure (always Z_DATA_ERROR past the header) are zlib's.
// zlib decodes the whole stream where that would not hold: a zlib header
// that asks for a smaller window than 32 KiB (zlib's "distance too far
// back" then depends on how much output one call holds), and every stream
// while QXSetZlibInflateForTesting is on. One difference is left: at the end
// of a call's input ISA-L may keep the last few bytes of output (a symbol
// whose bits it has, unverified) for the next call; the output of the whole
// stream, and where it ends, are the same.
#pragma once

#include "Internal/QXCodec.h"
#include "Internal/QXIsalInflater.h"

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
    // Who reads the bytes fed next.
    enum class Phase {
        Header,   // zlib, up to the first block
        Body,     // ISA-L, up to the end of the last block
        Trailer,  // this codec: the zlib or gzip trailer
        Zlib,     // zlib, all of the stream
    };

    explicit QXZlibCodec(bool gzip) : gzip_(gzip) {}
    bool feed(const std::uint8_t* bytes, std::uint64_t length, qx::Data& out, qx::Ref<qx::Error>* error);
    // Each takes one piece (at most 4,294,967,295 bytes), advances it past
    // what it used and returns zlib's result for it.
    int feedZlib(const std::uint8_t*& bytes, std::uint32_t& length, qx::Data& out);
    int feedBody(const std::uint8_t*& bytes, std::uint32_t& length, qx::Data& out);
    int feedTrailer(const std::uint8_t*& bytes, std::uint32_t& length);
    int takeTrailerByte(std::uint8_t byte);
    void startBody();
    void countHeldAfterEnd();

    const bool gzip_;
    z_stream stream_{};
    bool initialised_ = false;  // inflateEnd is owed
    gz_header gzipHeader_{};     // filled in by inflate; 1 once a gzip header is read, -1 for a zlib one
    bool checkOff_ = false;
    int zlibWindowBits_ = 0;  // what a zlib header's first byte asks for; 0 before it is seen
    Phase phase_ = Phase::Header;
    std::unique_ptr<QXIsalInflater> body_;  // from the first block on
    std::uint64_t bodyLength_ = 0;          // output of the body, for the gzip length check
    std::uint8_t readAhead_[8] = {};  // bytes after the body that ISA-L had taken in
    std::size_t readAheadLength_ = 0, readAheadUsed_ = 0;
    std::uint8_t trailer_[8] = {};
    std::size_t trailerLength_ = 0;  // trailer bytes read so far
    std::size_t trailerWanted_ = 0;  // 0 (raw deflate), 4 (zlib) or 8 (gzip)
    bool trailerChecked_ = false;    // compare the check value and length, as zlib does unless told not to
    bool failed_ = false;            // the data was found damaged past the header: zlib's state is then BAD
};
