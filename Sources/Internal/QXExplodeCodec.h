// QXExplodeCodec.h - imploded ZIP entries (method 6) through QXExplode.
#pragma once

#include "Internal/QXCodec.h"

#include <QXFoundation/QXExplode.h>

#include <cstdint>
#include <memory>

class QXExplodeCodec final : public QXCodec {
public:
    /// For an entry of the given uncompressed size, with an 8 KiB dictionary
    /// when largeDictionary (else 4 KiB); nothing with the error when the
    /// decoder can't be made.
    static std::unique_ptr<QXCodec> create(std::uint64_t uncompressedSize, bool largeDictionary, bool literalTree,
                                           qx::Ref<qx::Error>* error);
    ~QXExplodeCodec() override;

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    explicit QXExplodeCodec(QXExplodeStream* stream) : stream_(stream) {}
    QXExplodeStream* const stream_;
};
