// TrailerCheck.h - does a decompressed payload end where its format says it does?
//
// The library's streaming decoders return what they produced when the input
// runs out, without telling a truncated stream from a complete one, and they
// never look at the gzip trailer. A command-line user expects a damaged file
// to fail, so `qx decompress` compares the last bytes of the compressed range
// with what came out:
//
//  * gzip: the trailer's CRC-32 and length (modulo 2^32) against the output;
//  * zlib: the trailing Adler-32 against the output;
//  * bzip2: the range must end with the end-of-stream marker and its CRC,
//    padded to a byte with zero bits (a block's damage is caught by the
//    decoder's own block CRC; what it lets pass is a stream cut short).
//
// The check reads the range's last bytes, so a payload followed by unrelated
// bytes within the range fails it: select the payload with --offset and
// --length. Raw deflate has no trailer and xz and PBZX are checked by their
// decoders, so those pass unchecked here. Gzip members and bzip2 streams one
// after another are decoded by StreamChain, which checks each member with
// its own TrailerCheck.
#pragma once

#include <QXFoundation/QXDecompressor.h>

#include <qx/Data.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace qxtool {

class TrailerCheck {
public:
    /// algorithm: the payload's format as decided from its first bytes.
    explicit TrailerCheck(QXDecompressionAlgorithm algorithm);

    /// False for formats this class leaves alone.
    bool active() const { return tailLength_ > 0; }
    /// How many last bytes of the compressed range verify() wants.
    std::size_t tailLength() const { return tailLength_; }

    /// Takes the output in order, as it is written.
    void addOutput(const std::uint8_t* bytes, std::size_t length);

    /// Empty when tail (the compressed range's last bytes, as many as the
    /// range has up to tailLength) closes the output seen; else why not.
    std::string verify(const qx::Data& tail) const;

private:
    QXDecompressionAlgorithm algorithm_;
    std::size_t tailLength_ = 0;
    std::uint32_t sum_;          // CRC-32 for gzip, Adler-32 for zlib
    std::uint64_t outputLength_ = 0;
};

} // namespace qxtool
