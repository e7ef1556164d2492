// StreamChain.h - gzip members and bzip2 streams that follow one another,
// decoded as one payload, as the standard decompressors do.
//
// The library's streaming decoder stops at the end of the first stream. A
// chain takes the compressed range in order, hands it to one decoder per
// stream and, where a stream ends (the decoder tells how many of the bytes
// given it did not use), starts the next one on those bytes. Bytes after a
// stream that do not start another (zero padding, unrelated data) end the
// payload: they are ignored and trailingGarbage() says so.
//
// Each gzip member's trailer (CRC-32 and length) is checked against that
// member's output; a range that ends inside a stream is checked as
// TrailerCheck does, so a truncated or damaged payload fails. bzip2 streams
// that end are verified by the decoder itself.
//
// Not thread-safe: one caller feeds it, in order.
#pragma once

#include "TrailerCheck.h"

#include <QXFoundation/QXDecompressor.h>

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qxtool {

class StreamChain {
public:
    /// Writes one piece of output; false stops the chain (the writer keeps its reason).
    using Sink = std::function<bool(const qx::Ref<qx::Data>& output)>;

    /// For gzip or bzip2 (see handles()).
    explicit StreamChain(QXDecompressionAlgorithm algorithm);
    /// Whether algorithm comes as streams one after another.
    static bool handles(QXDecompressionAlgorithm algorithm);

    /// Feeds the next bytes of the range, the last call with isFinal. True
    /// when all went well; else false with either a decoder's error or a
    /// trailer's reason (or neither, when sink stopped).
    bool feed(const qx::Ref<qx::Data>& chunk, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error, std::string* reason);

    /// True when bytes after a stream's end started no other stream.
    bool trailingGarbage() const { return garbage_; }

private:
    bool startsStream(const std::uint8_t* bytes, std::size_t length) const;
    // Bytes [from, to) of history_ followed by input.
    std::vector<std::uint8_t> bytesOf(const qx::Data& input, std::size_t from, std::size_t to) const;
    void keepHistory(const qx::Data& input, std::size_t end);

    QXDecompressionAlgorithm algorithm_;
    qx::Ref<QXDecompressor> decoder_;       // the stream being decoded; null between streams
    std::optional<TrailerCheck> check_;     // of that stream's output
    std::vector<std::uint8_t> history_;     // the input just before what is fed next (at most kHistory bytes)
    std::vector<std::uint8_t> pending_;     // bytes after a stream, too few yet to tell whether another starts
    bool started_ = false;  // the first stream has been begun
    bool garbage_ = false;
};

} // namespace qxtool
