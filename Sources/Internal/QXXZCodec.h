// QXXZCodec.h - xz streams through liblzma.
//
// Input that lacks the 6-byte magic gets it put in front, so a caller that
// already consumed the header can feed the rest. The final chunk is fed with
// LZMA_FINISH, so a truncated stream is reported. Concatenated streams are
// decoded as one.
//
// A PBZX chunk decoder passes a QXChunkOutput: the output then goes straight
// into its ring buffer (waiting for room, only while holding its decode turn)
// and decode returns empty data.
#pragma once

#include "Internal/QXCodec.h"
#include "Internal/QXPBZXFanOut.h"

#include <lzma.h>

#include <memory>
#include <optional>

class QXXZCodec final : public QXCodec {
public:
    /// Nothing with the error when liblzma can't be set up. With chunk output
    /// and takeTurnFirst, the decoder waits for its turn before it takes a
    /// pooled stream: a chunk decoder ended before it then gives its stream
    /// back, dictionary already paged in.
    static std::unique_ptr<QXCodec> create(const std::optional<QXChunkOutput>& chunkOutput, bool takeTurnFirst,
                                           qx::Ref<qx::Error>* error);

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    explicit QXXZCodec(const std::optional<QXChunkOutput>& chunkOutput) : chunkOutput_(chunkOutput) {}
    enum class Step { More, Stop, Failed };  // go on calling liblzma, stop for now, or fail
    Step step(lzma_ret result, bool isFinal, qx::Ref<qx::Error>* error);
    bool decodeIntoRing(bool isFinal, qx::Ref<qx::Error>* error);

    std::unique_ptr<lzma_stream, QXXZDecoderPool::GiveBack> stream_;
    const std::optional<QXChunkOutput> chunkOutput_;
};
