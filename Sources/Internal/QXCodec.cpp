// QXCodec.cpp - what every format's decoder shares, and the pass-through codec.
#include "Internal/QXCodec.h"

#include "Internal/QXStoragePool.h"

using qx::Data;
using qx::Error;
using qx::Ref;

QXCodec::QXCodec() : held_(Data::create()) {}

QXCodec::~QXCodec() = default;

Ref<Data> QXCodec::decode(const Ref<Data>& input, bool isFinal, bool* runAgain, Ref<Error>* error) {
    if (finished_) {
        unconsumed_ += input->length();
        return Data::create();
    }
    Ref<Data> out = decodeChunk(input, isFinal, runAgain, error);
    started_ = true;
    return out;
}

void QXCodec::cancelWithError(const Ref<Error>&) {}

Ref<Error> QXCodec::operationError() const { return nullptr; }

Ref<Data> QXCodec::joinHeld(const Ref<Data>& input) {
    if (held_->length() == 0) return input;
    held_->append(*input);
    Ref<Data> joined = std::move(held_);
    held_ = Data::create();
    return joined;
}

// A fresh buffer of megabytes per call costs more in page faults than
// decoding fills it, so storage that an earlier output gave back is used
// again; an output still held is never touched. Two are kept: a caller may
// still hold one output while asking for the next.
Ref<Data> QXCodec::reusableOutput() {
    if (!output_) output_ = QXStoragePool::create(2, 0, kQXCodecMaxKeptOutput);
    return output_->take();
}

std::uint8_t* QXCodec::scratch() {
    if (!scratch_) scratch_.reset(new std::uint8_t[kQXCodecBufferSize]);
    return scratch_.get();
}

std::uint8_t* QXCodec::openRoom(Data& out, bool inPlace) {
    if (!inPlace) return scratch();
    const std::size_t at = out.length();
    out.setLength(at + kQXCodecBufferSize);
    return out.mutableBytes() + at;
}

void QXCodec::closeRoom(Data& out, bool inPlace, std::size_t produced) {
    if (inPlace)
        out.setLength(out.length() - kQXCodecBufferSize + produced);
    else
        out.append(scratch(), produced);
}

Ref<Data> QXStoredCodec::decodeChunk(const Ref<Data>& input, bool, bool*, Ref<Error>*) {
    return Data::withBytes(input->bytes(), input->length());
}
