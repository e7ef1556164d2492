// QXPendingBytes.h - the input buffer the resumable decoders keep between calls.
//
// A byte queue with append at the back and removal from the front. Removal
// only moves a read offset; the bytes still wanted are moved down when an
// append would otherwise grow the storage, so that feeding a decoder many
// small pieces costs linear, not quadratic, time. Its storage comes from the
// decoder's memory hooks.
#pragma once

#include "Internal/QXDecoderMemory.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

class QXPendingBytes {
public:
    explicit QXPendingBytes(const QXDecoderMemory* memory) : bytes_(QXDecoderAllocator<std::uint8_t>(memory)) {}

    const std::uint8_t* data() const { return bytes_.data() + head_; }
    std::size_t size() const { return bytes_.size() - head_; }
    bool empty() const { return size() == 0; }

    /// Appends length bytes; throws std::bad_alloc when memory runs out.
    void append(const std::uint8_t* bytes, std::size_t length) {
        if (length == 0) return;
        if (head_ > 0 && bytes_.size() + length > bytes_.capacity()) compact();
        bytes_.insert(bytes_.end(), bytes, bytes + length);
    }

    /// Drops count bytes from the front (at most size()).
    void consume(std::size_t count) {
        head_ += count < size() ? count : size();
        if (head_ == bytes_.size()) {
            bytes_.clear();
            head_ = 0;
        }
    }

    void clear() {
        bytes_.clear();
        head_ = 0;
    }

private:
    void compact() {
        const std::size_t n = size();
        if (n > 0) std::memmove(bytes_.data(), bytes_.data() + head_, n);
        bytes_.resize(n);
        head_ = 0;
    }

    QXDecoderVector<std::uint8_t> bytes_;
    std::size_t head_ = 0;  // 0 <= head_ <= bytes_.size()
};
