// QXIsalInflater.h - one raw deflate stream decoded by ISA-L's inflate.
//
// Only the deflate data: the zlib and gzip wrappers around it are read by
// QXZlibCodec, the header through zlib and the trailer itself, so that every
// header fault is reported as zlib reports it. ISA-L reports damage in the
// deflate data where zlib does (a bad block type, a bad symbol, a distance
// before the start), and zlib calls every such fault Z_DATA_ERROR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct inflate_state;

class QXIsalInflater {
public:
    /// Which check ISA-L keeps of the output as it writes it (none, the gzip
    /// CRC-32 or the zlib Adler-32), read with check() once ended() is true.
    enum class Check { None, CRC32, Adler32 };

    explicit QXIsalInflater(Check check);
    ~QXIsalInflater();
    QXIsalInflater(const QXIsalInflater&) = delete;
    QXIsalInflater& operator=(const QXIsalInflater&) = delete;

    /// Decodes from in (inLength bytes) into out (room bytes) as far as both
    /// allow, advancing all four. False when the data is damaged; the state
    /// is then of no further use.
    bool decode(const std::uint8_t*& in, std::uint32_t& inLength, std::uint8_t*& out, std::uint32_t& room);

    /// True once the last block has been decoded and all its output written.
    bool ended() const;
    /// Once ended: the whole bytes after the stream that ISA-L had already
    /// taken in (at most 8), which come right before where in stopped.
    /// Writes them to to and returns their count; a second call gives none.
    std::size_t takeBytesAfterEnd(std::uint8_t* to);
    /// The check chosen at construction over all the output; valid once ended.
    std::uint32_t check() const;

private:
    std::unique_ptr<inflate_state> state_;
};
