// QXBZip2Codec.h - bzip2 streams through libbz2. Bytes after the stream's
// end are ignored (libbz2 refuses every call after it).
#pragma once

#include "Internal/QXCodec.h"

#include <bzlib.h>

#include <memory>

class QXBZip2Codec final : public QXCodec {
public:
    /// Nothing with the error when libbz2 can't be set up.
    static std::unique_ptr<QXCodec> create(qx::Ref<qx::Error>* error);
    ~QXBZip2Codec() override;

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    QXBZip2Codec() = default;
    bool feed(const std::uint8_t* bytes, std::uint64_t length, qx::Data& out, qx::Ref<qx::Error>* error);

    bz_stream stream_{};
    bool initialised_ = false;  // BZ2_bzDecompressEnd is owed
};
