// QXUnshrinkCodec.h - shrunk ZIP entries (method 1) through QXUnshrink.
#pragma once

#include "Internal/QXCodec.h"

#include <QXFoundation/QXUnshrink.h>

#include <cstdint>
#include <memory>

class QXUnshrinkCodec final : public QXCodec {
public:
    /// For an entry of the given uncompressed size; nothing with the error
    /// when the decoder can't be made.
    static std::unique_ptr<QXCodec> create(std::uint64_t uncompressedSize, qx::Ref<qx::Error>* error);
    ~QXUnshrinkCodec() override;

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    explicit QXUnshrinkCodec(QXUnshrinkStream* stream) : stream_(stream) {}
    QXUnshrinkStream* const stream_;
};
