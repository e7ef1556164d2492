// ThreadedXZDecoder.cpp - xz payloads decoded by liblzma's threaded decoder.
#include "ThreadedXZDecoder.h"

#include <QXFoundation/QXError.h>

#include <algorithm>
#include <cstring>
#include <thread>

namespace qxtool {

namespace {

constexpr std::uint8_t kMagic[6] = {0xFD, '7', 'z', 'X', 'Z', 0x00};
// Output room per call: large, so that finished blocks leave the workers in
// few calls and reach the writer in few writes.
constexpr std::size_t kOutputRoom = 8 << 20;

qx::Ref<qx::Error> codeError(lzma_ret result) { return QXGenerateError("lzma_code", result); }

} // namespace

ThreadedXZDecoder::ThreadedXZDecoder() : out_(new std::uint8_t[kOutputRoom]) {}

ThreadedXZDecoder::~ThreadedXZDecoder() {
    if (initialised_) lzma_end(&stream_);
}

bool ThreadedXZDecoder::feed(const qx::Data& chunk, bool isFinal, const Sink& sink, qx::Ref<qx::Error>* error) {
    if (ended_) return true;
    if (!initialised_) {
        lzma_mt options{};
        options.flags = LZMA_CONCATENATED;
        options.threads = std::max(1u, std::thread::hardware_concurrency());
        // As the library: no limit that could refuse a file; a block too large
        // for a quarter of the memory is decoded in one thread instead.
        options.memlimit_stop = UINT64_MAX;
        options.memlimit_threading = std::max<std::uint64_t>(lzma_physmem() / 4, 64 << 20);
        const lzma_ret result = lzma_stream_decoder_mt(&stream_, &options);
        if (result != LZMA_OK) {
            if (error) *error = QXGenerateError("lzma_stream_decoder", result);
            return false;
        }
        initialised_ = true;
    }
    if (!started_) {
        // Too little yet to tell whether the magic is there; the library
        // decodes nothing of fewer bytes than the magic's, final or not.
        head_.append(chunk);
        if (head_.length() < sizeof kMagic) return true;
        started_ = true;
        const bool hasMagic = head_.length() >= 5 && std::memcmp(head_.bytes(), kMagic, 5) == 0;
        if (!hasMagic && !run(kMagic, sizeof kMagic, false, sink, error)) return false;
        const bool ok = run(head_.bytes(), head_.length(), isFinal, sink, error);
        head_ = qx::Data();
        return ok;
    }
    return run(chunk.bytes(), chunk.length(), isFinal, sink, error);
}

bool ThreadedXZDecoder::run(const std::uint8_t* bytes, std::size_t length, bool isFinal, const Sink& sink,
                            qx::Ref<qx::Error>* error) {
    stream_.next_in = bytes;
    stream_.avail_in = length;
    const lzma_action action = isFinal ? LZMA_FINISH : LZMA_RUN;
    for (;;) {
        stream_.next_out = out_.get();
        stream_.avail_out = kOutputRoom;
        const lzma_ret result = lzma_code(&stream_, action);
        const std::size_t produced = kOutputRoom - stream_.avail_out;
        if (produced > 0 && !sink(out_.get(), produced)) return false;
        if (result == LZMA_STREAM_END) {
            ended_ = true;
            return true;
        }
        if (result != LZMA_OK) {
            if (error) *error = codeError(result);
            return false;
        }
        // Before the end, whatever the workers still hold waits for more input.
        if (!isFinal && stream_.avail_in == 0 && stream_.avail_out != 0) return true;
    }
}

} // namespace qxtool
