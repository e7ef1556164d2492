// QXDecompressionStream.cpp - reads of decompressed bytes over any QXInputStream route.
#include <QXFoundation/QXDecompressionStream.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

constexpr std::uint64_t kMaxRead = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
constexpr std::uint64_t kSmallReadSize = 1024;
// Above this many wanted bytes, half of them are read from the source at a time.
constexpr std::uint64_t kSmallReadLimit = 2049;
constexpr std::uint64_t kMaxReadSize = 10485760;

std::vector<std::string> joined(std::vector<std::string> base, std::initializer_list<const char*> more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

} // namespace

// ---- creation ----------------------------------------------------------------

QXDecompressionStream::QXDecompressionStream(Ref<qx::InputStream> underlyingStream, std::uint64_t maxDataLength)
    : QXInputStream(std::move(underlyingStream), maxDataLength) {}

Ref<QXDecompressionStream> QXDecompressionStream::make(const Ref<qx::InputStream>& underlying,
                                                       std::uint64_t maxDataLength,
                                                       QXDecompressionAlgorithm algorithm) {
    if (!underlying) return nullptr;
    Ref<QXDecompressionStream> stream(new QXDecompressionStream(underlying, maxDataLength));
    stream->adoptUnderlyingStream();
    stream->setUpForAlgorithm(algorithm);
    return stream;
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithData(const Ref<Data>& data, QXDecompressionAlgorithm algorithm) {
    return make(underlyingStreamWithData(data), kUnlimitedLength, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm) {
    return initWithURL(url, nullptr, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithURL(const Ref<qx::URL>& url, const Ref<qx::Dictionary>& headers,
                                                              QXDecompressionAlgorithm algorithm) {
    return make(underlyingStreamWithURL(url, headers), kUnlimitedLength, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithFileAtPath(const std::string& path,
                                                                     QXDecompressionAlgorithm algorithm) {
    return make(underlyingStreamWithFileAtPath(path), kUnlimitedLength, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithFileHandle(const Ref<qx::FileHandle>& fileHandle,
                                                                     bool closeFileWhenStreamClosed,
                                                                     QXDecompressionAlgorithm algorithm) {
    return make(underlyingStreamWithFileHandle(fileHandle, closeFileWhenStreamClosed), kUnlimitedLength, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithInputStream(const Ref<qx::InputStream>& stream,
                                                                      QXDecompressionAlgorithm algorithm) {
    return make(stream, kUnlimitedLength, algorithm);
}

Ref<QXDecompressionStream> QXDecompressionStream::initWithInputStreamMaxDataLength(const Ref<qx::InputStream>& stream,
                                                                                   std::uint64_t maxDataLength,
                                                                                   QXDecompressionAlgorithm algorithm) {
    return make(stream, maxDataLength, algorithm);
}

void QXDecompressionStream::setUpForAlgorithm(QXDecompressionAlgorithm algorithm) {
    Ref<Error> error;
    decompressor_ = QXDecompressor::initForStreamingWithAlgorithm(algorithm, &error);
    std::lock_guard<std::mutex> lock(stateLock_);
    if (!decompressor_) decompressionStreamError_ = error;
    overflowBuffer_ = Data::create();
    overflowStart_ = 0;
    needsRunAgain_ = false;
    finalInputGiven_ = false;
}

// ---- state ---------------------------------------------------------------------

std::vector<std::string> QXDecompressionStream::keyPathsForValuesAffectingStreamStatus() {
    return joined(QXInputStream::keyPathsForValuesAffectingStreamStatus(),
                  {"decompressionStreamError", "overflowBuffer.length", "needsRunAgain"});
}

std::vector<std::string> QXDecompressionStream::keyPathsForValuesAffectingStreamError() {
    return joined(QXInputStream::keyPathsForValuesAffectingStreamError(), {"decompressionStreamError"});
}

std::vector<std::string> QXDecompressionStream::keyPathsForValuesAffectingHasBytesAvailable() {
    return joined(QXInputStream::keyPathsForValuesAffectingHasBytesAvailable(), {"overflowBuffer.length", "needsRunAgain"});
}

bool QXDecompressionStream::isHoldingOutputLocked(bool sourceEnded) const {
    // A source that has ended before the decoder was told still owes a read:
    // the one that tells it, which may bring the last output (PBZX chunks
    // still decoding, or a format that finishes late).
    return (overflowBuffer_ && overflowBuffer_->length() > overflowStart_) || needsRunAgain_ ||
           (sourceEnded && !finalInputGiven_);
}

bool QXDecompressionStream::hasSourceEnded() const {
    const auto& source = underlyingStream();
    return source && source->streamStatus() == qx::StreamStatus::AtEnd;
}

Ref<Error> QXDecompressionStream::decompressionStreamError() const {
    std::lock_guard<std::mutex> lock(stateLock_);
    return decompressionStreamError_;
}

void QXDecompressionStream::setDecompressionStreamError(const Ref<Error>& error) {
    std::lock_guard<std::mutex> lock(stateLock_);
    decompressionStreamError_ = error;
}

std::uint64_t QXDecompressionStream::overflowLength() const {
    std::lock_guard<std::mutex> lock(stateLock_);
    return overflowBuffer_ ? overflowBuffer_->length() - overflowStart_ : 0;
}

bool QXDecompressionStream::needsRunAgain() const {
    std::lock_guard<std::mutex> lock(stateLock_);
    return needsRunAgain_;
}

void QXDecompressionStream::setNeedsRunAgain(bool needsRunAgain) {
    std::lock_guard<std::mutex> lock(stateLock_);
    needsRunAgain_ = needsRunAgain;
}

bool QXDecompressionStream::isLimitUsedUp() const {
    return QXInputStream_isLimitedLength() && QXInputStream_bytesLeft() == 0;
}

qx::StreamStatus QXDecompressionStream::streamStatus() const {
    const qx::StreamStatus base = QXInputStream::streamStatus();
    const bool sourceEnded = hasSourceEnded();
    std::lock_guard<std::mutex> lock(stateLock_);
    if (decompressionStreamError_) return qx::StreamStatus::Error;
    // The source's end is not the stream's while decoded bytes still wait;
    // the limit's end is. A stream that was never opened, or was closed,
    // stays what it is.
    // A read under way may hold output it has yet to store.
    if (base == qx::StreamStatus::AtEnd && (isHoldingOutputLocked(sourceEnded) || reading_) && !isLimitUsedUp())
        return qx::StreamStatus::Open;
    return base;
}

Ref<Error> QXDecompressionStream::streamError() const {
    if (auto error = decompressionStreamError()) return error;
    return QXInputStream::streamError();
}

bool QXDecompressionStream::hasBytesAvailable() const {
    // A failed decoder has nothing more to give, whatever the source holds.
    if (streamStatus() != qx::StreamStatus::Open) return false;
    if (QXInputStream::hasBytesAvailable()) return true;
    const bool sourceEnded = hasSourceEnded();
    std::lock_guard<std::mutex> lock(stateLock_);
    return isHoldingOutputLocked(sourceEnded);
}

bool QXDecompressionStream::getBuffer(const std::uint8_t**, std::uint64_t*) { return false; }

void QXDecompressionStream::stream(qx::Stream& stream, qx::StreamEventMask event) {
    if (&stream != underlyingStream().get()) return;
    if (event & qx::StreamEventEndEncountered) {
        std::lock_guard<std::mutex> lock(stateLock_);
        // Bytes are still to be read (or being decoded): say so instead. The
        // read that takes the last of them raises the end, and so does the
        // delivery of this event if that read has already happened.
        if (isHoldingOutputLocked(true) || reading_)
            event = (event & ~qx::StreamEventEndEncountered) | qx::StreamEventHasBytesAvailable;
    }
    handleEvent(event);
}

// ---- reading -------------------------------------------------------------------

std::int64_t QXDecompressionStream::primitiveRead(std::uint8_t* buffer, std::uint64_t maxLength) {
    const std::int64_t n = readDecoded(buffer, maxLength);
    // A read gives at most one decoder run's output. What is left (overflow,
    // or chunks a draining decoder has yet to hand over) brings no event from
    // the source, which may have ended long ago: announce it, or a reader that
    // reads only when told would wait for ever.
    bool more = false;
    if (n > 0) {
        const bool sourceEnded = hasSourceEnded();
        std::lock_guard<std::mutex> lock(stateLock_);
        more = isHoldingOutputLocked(sourceEnded);
    }
    if (more) handleEvent(qx::StreamEventHasBytesAvailable);
    return n;
}

std::int64_t QXDecompressionStream::readDecoded(std::uint8_t* buffer, std::uint64_t maxLength) {
    if (!buffer) return -1;
    const std::uint64_t wanted = std::min(maxLength, kMaxRead);
    std::uint64_t given = 0;
    {
        std::lock_guard<std::mutex> lock(stateLock_);
        const std::uint64_t waiting = overflowBuffer_ ? overflowBuffer_->length() - overflowStart_ : 0;
        given = std::min(waiting, wanted);
        if (given > 0) std::memcpy(buffer, overflowBuffer_->bytes() + overflowStart_, static_cast<std::size_t>(given));
        overflowStart_ += static_cast<std::size_t>(given);
        if (overflowStart_ == overflowBuffer_->length()) {
            overflowBuffer_->setLength(0);
            overflowStart_ = 0;
        }
        if (given == wanted) return static_cast<std::int64_t>(given);
        reading_ = true;
    }
    struct ReadingDone {
        QXDecompressionStream* stream;
        ~ReadingDone() {
            std::lock_guard<std::mutex> lock(stream->stateLock_);
            stream->reading_ = false;
        }
    } readingDone{this};

    const std::uint64_t still = wanted - given;
    std::uint64_t readSize = still > kSmallReadLimit ? still / 2 : kSmallReadSize;
    readSize = std::min(readSize, kMaxReadSize);
    std::unique_ptr<std::uint8_t[]> scratch;

    Ref<Data> output;
    for (;;) {
        const qx::StreamStatus status = streamStatus();
        if (status == qx::StreamStatus::Error || !decompressor_) return -1;
        bool finalGiven, runAgain;
        {
            std::lock_guard<std::mutex> lock(stateLock_);
            finalGiven = finalInputGiven_;
            runAgain = needsRunAgain_;
        }
        Ref<Data> input;
        bool isFinal = false;
        if (finalGiven || status == qx::StreamStatus::AtEnd) {
            // The source is done; only a decoder still draining has more.
            if (finalGiven && !runAgain) break;
            input = Data::create();
            isFinal = true;
        } else {
            if (!scratch) scratch.reset(new std::uint8_t[readSize]);
            const std::int64_t count = QXInputStream::primitiveRead(scratch.get(), readSize);
            if (count < 0) return count;
            isFinal = underlyingStream()->streamStatus() == qx::StreamStatus::AtEnd;
            if (count == 0 && !isFinal) break;
            // A source whose end shows only on a read of nothing still has
            // to tell the decoder, or a format that finishes late loses its tail.
            input = count > 0 ? Data::withBytes(scratch.get(), static_cast<std::size_t>(count)) : Data::create();
        }
        Ref<Error> error;
        bool again = false;
        Ref<Data> out = decompressor_->decompressedDataFromStreamWithInputData(input, isFinal, &again, &error);
        if (!out) {
            setDecompressionStreamError(error);
            return -1;
        }
        {
            std::lock_guard<std::mutex> lock(stateLock_);
            needsRunAgain_ = again;
            if (isFinal) finalInputGiven_ = true;
        }
        if (out->length() > 0) {
            output = std::move(out);
            break;
        }
        if (isFinal && !again) break;
    }
    scratch.reset();

    const std::uint64_t produced = output ? output->length() : 0;
    if (produced > still) {
        std::memcpy(buffer + given, output->bytes(), static_cast<std::size_t>(still));
        std::lock_guard<std::mutex> lock(stateLock_);
        overflowBuffer_->append(output->bytes() + still, static_cast<std::size_t>(produced - still));
        return static_cast<std::int64_t>(wanted);
    }
    if (produced > 0) std::memcpy(buffer + given, output->bytes(), static_cast<std::size_t>(produced));
    return static_cast<std::int64_t>(given + produced);
}
