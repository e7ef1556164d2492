// QXPBZXCodec.h - PBZX containers: the container is read here, each chunk is
// decoded on threads of its own (QXPBZXFanOut), and the output comes back in
// container order.
//
// Input that lacks the "pbzx" magic gets it put in front. A call returns once
// fewer than QXDecompressor::maxOperationCount() chunks are in flight. After
// the final call, calls only collect output (each brings some, or ends it);
// their input is ignored. A cancel, or a chunk's failure, stops every chunk
// decoder and makes later calls fail with that error.
#pragma once

#include "Internal/QXCodec.h"
#include "Internal/QXPBZXFanOut.h"

#include <QXFoundation/QXPBZXDecode.h>

#include <memory>

class QXPBZXCodec final : public QXCodec {
public:
    /// Nothing with the error when the container reader can't be made.
    static std::unique_ptr<QXCodec> create(qx::Ref<qx::Error>* error);
    ~QXPBZXCodec() override;

    void cancelWithError(const qx::Ref<qx::Error>& error) override;
    qx::Ref<qx::Error> operationError() const override;

protected:
    qx::Ref<qx::Data> decodeChunk(const qx::Ref<qx::Data>& input, bool isFinal, bool* runAgain,
                                  qx::Ref<qx::Error>* error) override;

private:
    QXPBZXCodec() = default;
    /// Cancels the chunk decoders with failure, which it returns.
    qx::Ref<qx::Error> fail(const qx::Ref<qx::Error>& failure);

    QXPBZXDecodeStream* stream_ = nullptr;
    QXPBZXFanOut fanOut_;
    bool inputEnded_ = false;  // a final call was made: later input is only drained
    bool cancelled_ = false;
    qx::Ref<qx::Error> cancelError_;  // what calls fail with after a cancel
};
