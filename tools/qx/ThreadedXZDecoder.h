// ThreadedXZDecoder.h - xz payloads for `qx decompress`, with one thread per
// processor where the file was written in several blocks.
//
// The library's streaming decoder keeps to one thread; liblzma's threaded
// decoder hands independent blocks (what `xz -T` and the threaded encoders
// write) to worker threads and decodes a single-block file as fast as the
// one-thread decoder. Everything else is as the library decodes xz:
// concatenated streams, the magic put in front of input that lacks it, a
// truncated stream failing at the end, and failures as "lzma_code" errors
// with liblzma's code.
//
// Not thread-safe: one caller feeds it, in order.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <lzma.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace qxtool {

class ThreadedXZDecoder {
public:
    /// Writes one piece of output; false stops the decoder (the writer keeps its reason).
    using Sink = std::function<bool(const std::uint8_t* bytes, std::size_t length)>;

    ThreadedXZDecoder();
    ~ThreadedXZDecoder();
    ThreadedXZDecoder(const ThreadedXZDecoder&) = delete;
    ThreadedXZDecoder& operator=(const ThreadedXZDecoder&) = delete;

    /// Feeds the next bytes, the last call with isFinal. False with the
    /// decoder's error, or with none when sink stopped.
    bool feed(const qx::Data& chunk, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error);

private:
    bool run(const std::uint8_t* bytes, std::size_t length, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error);

    lzma_stream stream_ = LZMA_STREAM_INIT;
    bool initialised_ = false;  // lzma_end is owed
    bool started_ = false;      // the first bytes have gone to liblzma
    bool ended_ = false;
    qx::Data head_;             // the first bytes, until there are enough to look for the magic
    std::unique_ptr<std::uint8_t[]> out_;
};

} // namespace qxtool
