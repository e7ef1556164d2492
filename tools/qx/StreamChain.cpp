// StreamChain.cpp - gzip members and bzip2 streams that follow one another.
#include "StreamChain.h"

#include <algorithm>

namespace qxtool {

namespace {

// A gzip trailer, and the 8 bytes before it that a decoder may have held back
// from the call before: where a stream ends is found within this much of the
// input already fed plus the bytes being fed.
constexpr std::size_t kHistory = 16;

std::size_t magicLength(QXDecompressionAlgorithm algorithm) {
    return algorithm == QXDecompressionAlgorithmGzip ? 2 : 3;
}

} // namespace

StreamChain::StreamChain(QXDecompressionAlgorithm algorithm) : algorithm_(algorithm) {}

bool StreamChain::handles(QXDecompressionAlgorithm algorithm) {
    return algorithm == QXDecompressionAlgorithmGzip || algorithm == QXDecompressionAlgorithmBZip2;
}

bool StreamChain::startsStream(const std::uint8_t* bytes, std::size_t length) const {
    if (algorithm_ == QXDecompressionAlgorithmGzip) return length >= 2 && bytes[0] == 0x1F && bytes[1] == 0x8B;
    return length >= 3 && bytes[0] == 'B' && bytes[1] == 'Z' && bytes[2] == 'h';
}

std::vector<std::uint8_t> StreamChain::bytesOf(const qx::Data& input, std::size_t from, std::size_t to) const {
    // Positions count from the start of history_, which input follows.
    std::vector<std::uint8_t> bytes;
    bytes.reserve(to - from);
    const std::size_t kept = history_.size();
    for (std::size_t at = from; at < std::min(to, kept); ++at) bytes.push_back(history_[at]);
    if (to > kept) {
        const std::size_t first = std::max(from, kept) - kept;
        bytes.insert(bytes.end(), input.bytes() + first, input.bytes() + (to - kept));
    }
    return bytes;
}

void StreamChain::keepHistory(const qx::Data& input, std::size_t end) {
    history_ = bytesOf(input, end - std::min(end, kHistory), end);
}

bool StreamChain::feed(const qx::Ref<qx::Data>& chunk, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error,
                       std::string* reason) {
    if (garbage_) return true;
    // What is fed now follows history_ (input already fed that may still
    // matter) and pending_; the chunk itself goes to the decoder uncopied
    // unless a stream ends inside it or bytes are pending.
    qx::Ref<qx::Data> input = chunk;
    if (!pending_.empty()) {
        input = qx::Data::withBytes(pending_.data(), pending_.size());
        input->append(*chunk);
        pending_.clear();
    }
    const std::size_t size = history_.size() + input->length();
    std::size_t start = history_.size();
    for (;;) {
        const std::size_t left = size - start;
        if (!decoder_) {
            // The first stream is decoded whatever its first bytes (its
            // decoder reports them); a later one must show its magic.
            if (started_) {
                if (left < magicLength(algorithm_) && !isFinal) {
                    pending_ = bytesOf(*input, start, size);
                    keepHistory(*input, start);
                    return true;
                }
                if (left == 0) return true;
                const auto head = bytesOf(*input, start, start + std::min<std::size_t>(left, 3));
                if (!startsStream(head.data(), head.size())) {
                    garbage_ = true;
                    return true;
                }
            }
            decoder_ = QXDecompressor::initForStreamingWithAlgorithm(algorithm_, error);
            if (!decoder_) return false;
            check_.emplace(algorithm_);
            started_ = true;
        }
        bool again = false;
        qx::Ref<qx::Data> piece = input;
        if (start != history_.size()) {
            const auto bytes = bytesOf(*input, start, size);
            piece = qx::Data::withBytes(bytes.data(), bytes.size());
        }
        auto out = decoder_->decompressedDataFromStreamWithInputData(piece, isFinal, &again, error);
        for (;;) {
            if (!out) return false;
            if (out->length() > 0) {
                check_->addOutput(out->bytes(), out->length());
                if (!sink(out)) return false;
            }
            if (!again) break;
            out = decoder_->decompressedDataFromStreamWithInputData(qx::Data::create(), isFinal, &again, error);
        }
        if (decoder_->isFinished()) {
            const std::size_t unused = std::min<std::uint64_t>(decoder_->unconsumedLength(), size);
            const std::size_t end = size - unused;
            if (algorithm_ == QXDecompressionAlgorithmGzip) {
                // This member's trailer lies just before the bytes it left.
                const auto trailer = bytesOf(*input, end - std::min<std::size_t>(end, check_->tailLength()), end);
                *reason = check_->verify(*qx::Data::withBytes(trailer.data(), trailer.size()));
                if (!reason->empty()) return false;
            }
            decoder_.reset();
            check_.reset();
            start = end;
            continue;
        }
        if (isFinal) {
            // Inside a stream at the range's end: gzip's last trailer was held
            // back from the decoder; a bzip2 stream there was cut short.
            const auto tail = bytesOf(*input, size - std::min(size, check_->tailLength()), size);
            *reason = check_->verify(*qx::Data::withBytes(tail.data(), tail.size()));
            return reason->empty();
        }
        keepHistory(*input, size);
        return true;
    }
}

} // namespace qxtool
