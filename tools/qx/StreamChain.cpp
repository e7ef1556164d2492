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

void StreamChain::keepHistory(const std::vector<std::uint8_t>& window, std::size_t end) {
    history_.assign(window.begin() + static_cast<std::ptrdiff_t>(end - std::min(end, kHistory)),
                    window.begin() + static_cast<std::ptrdiff_t>(end));
}

bool StreamChain::feed(const qx::Data& chunk, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error,
                       std::string* reason) {
    if (garbage_) return true;
    // The input fed so far that may still matter, then what is fed now.
    std::vector<std::uint8_t> window(history_);
    window.insert(window.end(), pending_.begin(), pending_.end());
    window.insert(window.end(), chunk.bytes(), chunk.bytes() + chunk.length());
    pending_.clear();
    std::size_t start = history_.size();
    for (;;) {
        const std::size_t left = window.size() - start;
        if (!decoder_) {
            // The first stream is decoded whatever its first bytes (its
            // decoder reports them); a later one must show its magic.
            if (started_) {
                if (left < magicLength(algorithm_) && !isFinal) {
                    pending_.assign(window.begin() + static_cast<std::ptrdiff_t>(start), window.end());
                    keepHistory(window, start);
                    return true;
                }
                if (left == 0) return true;
                if (!startsStream(window.data() + start, left)) {
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
        auto input = qx::Data::withBytes(window.data() + start, left);
        auto out = decoder_->decompressedDataFromStreamWithInputData(input, isFinal, &again, error);
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
            const std::size_t unused = std::min<std::uint64_t>(decoder_->unconsumedLength(), window.size());
            const std::size_t end = window.size() - unused;
            if (algorithm_ == QXDecompressionAlgorithmGzip) {
                // This member's trailer lies just before the bytes it left.
                const std::size_t trailerStart = end - std::min<std::size_t>(end, check_->tailLength());
                auto trailer = qx::Data::withBytes(window.data() + trailerStart, end - trailerStart);
                *reason = check_->verify(*trailer);
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
            const std::size_t tailStart = window.size() - std::min(window.size(), check_->tailLength());
            auto tail = qx::Data::withBytes(window.data() + tailStart, window.size() - tailStart);
            *reason = check_->verify(*tail);
            return reason->empty();
        }
        keepHistory(window, window.size());
        return true;
    }
}

} // namespace qxtool
