// QXDecompressorAsync.cpp - the handler-based drivers: a worker on the shared
// operation queue starts a chunked read of the source, and each chunk goes
// through one streaming decompressor on the thread that delivers it.
#include <QXFoundation/QXDecompressor.h>

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include <qx/SerialQueue.h>

#include <cstring>
#include <memory>
#include <optional>
#include <utility>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

// How far the remote handle may read ahead of the handler, per operation the
// shared queue may run: enough to keep every PBZX chunk decoder fed.
constexpr std::uint64_t kReadAheadPerOperation = 2097152;

Ref<Error> cancelledError() { return QXGenerateError(qx::NSCocoaErrorDomain, 3072); }

// A server that answers with an error status sends a page about it, which
// must not be taken for the payload: automatic detection would find no format
// in it and pass it through as the output. Nothing when the status is fine
// (0 for local sources).
Ref<Error> httpStatusError(const QXRemoteFileHandle& handle) {
    const std::int64_t status = handle.statusCode();
    if (status < 400) return nullptr;
    return QXGenerateError(qx::NSURLErrorDomain, -1011, handle.URL(), nullptr, nullptr,
                           "the server answered with HTTP status %ld", static_cast<long>(status));
}

// One running checksum fed on a serial queue of its own, so hashing a chunk
// overlaps decoding the next one.
class ChecksumLane {
public:
    ChecksumLane(QXChecksumAlgorithm algorithm, const char* label)
        : checksum_(QXChecksum::initWithAlgorithm(algorithm)), queue_(qx::SerialQueue::create(label)) {}

    void add(const Ref<Data>& data) {
        if (!data || data->length() == 0) return;
        queue_->async([checksum = checksum_, data] { checksum->updateWithInputData(data); });
    }
    /// Waits for the updates still queued, then finishes the checksum.
    Ref<Data> finish() {
        queue_->drain();
        return checksum_->checksumData();
    }

private:
    Ref<QXChecksum> checksum_;
    Ref<qx::SerialQueue> queue_;
};

// The state of one run. The remote handle calls onChunk one call at a time and
// in order, so nothing here needs a lock; the worker hands the state over
// before the first chunk can arrive.
class AsyncRun {
public:
    AsyncRun(QXDecompressor::Handler handler, Ref<QXDecompressor> decompressor, QXChecksumAlgorithm compressedAlgorithm,
             QXChecksumAlgorithm decompressedAlgorithm)
        : handler_(std::move(handler)), decompressor_(std::move(decompressor)) {
        if (compressedAlgorithm != QXChecksumAlgorithmNone)
            compressed_.emplace(compressedAlgorithm, "com.tovarik.QXFoundation.QXDecompressor.compressedChecksum");
        if (decompressedAlgorithm != QXChecksumAlgorithmNone)
            decompressed_.emplace(decompressedAlgorithm, "com.tovarik.QXFoundation.QXDecompressor.decompressedChecksum");
    }

    /// One chunk from the remote handle; returns whether reading is to go on.
    bool onChunk(const QXRemoteFileHandle* handle, const Ref<Data>& chunk, bool isFinal, const Ref<Error>& error) {
        if (finished_) return false;
        if (error) return fail(error);
        if (handle)
            if (auto statusError = httpStatusError(*handle)) return fail(statusError);

        const Ref<Data> input = chunk ? chunk : Data::create();

        bool runAgain = false;
        Ref<Error> failure;
        Ref<Data> output = decompressor_->decompressedDataFromStreamWithInputData(input, isFinal, &runAgain, &failure);
        if (!output) return fail(failure);
        compressedTotal_ += input->length();
        if (compressed_) compressed_->add(input);

        for (bool firstPass = true;; firstPass = false) {
            decompressedTotal_ += output->length();
            if (decompressed_) decompressed_->add(output);
            // Only the very last call of a run says finished, so a format that
            // drains after its last input doesn't report the end twice.
            const bool last = isFinal && !runAgain;
            // A drain pass that brought nothing has nothing to tell.
            if (last || firstPass || output->length() > 0) {
                Ref<Data> compressedChecksum, decompressedChecksum;
                if (last) {
                    finished_ = true;
                    if (compressed_) compressedChecksum = compressed_->finish();
                    if (decompressed_) decompressedChecksum = decompressed_->finish();
                }
                const bool goOn = handler_(output, compressedTotal_, decompressedTotal_, last, compressedChecksum,
                                           decompressedChecksum, nullptr);
                if (last) {
                    if (!goOn) decompressor_->cancel();
                    return goOn;
                }
                // The read may stop delivering at once (a local read sends
                // nothing after a stop), so the finished call is made here.
                if (!goOn) return fail(cancelledError());
            }
            if (!runAgain) return true;
            output = decompressor_->decompressedDataFromStreamWithInputData(Data::create(), true, &runAgain, &failure);
            if (!output) return fail(failure);
        }
    }

    /// The finished call of a run that ends without reading anything.
    static void failBeforeReading(const QXDecompressor::Handler& handler, const Ref<Error>& error) {
        handler(nullptr, 0, 0, true, nullptr, nullptr, error);
    }

private:
    bool fail(const Ref<Error>& error) {
        finished_ = true;
        handler_(nullptr, compressedTotal_, decompressedTotal_, true, nullptr, nullptr, error);
        decompressor_->cancel();
        return false;
    }

    QXDecompressor::Handler handler_;
    Ref<QXDecompressor> decompressor_;
    std::optional<ChecksumLane> compressed_;
    std::optional<ChecksumLane> decompressed_;
    std::uint64_t compressedTotal_ = 0;
    std::uint64_t decompressedTotal_ = 0;
    bool finished_ = false;
};

// Reports a failure found before the run could start, from the shared queue,
// so the caller's handler never runs inside the call that started the run.
void failLater(QXDecompressor::Handler handler, Ref<Error> error) {
    QXDecompressor::operationQueue()->addOperationWithBlock(
        [handler = std::move(handler), error = std::move(error)] { AsyncRun::failBeforeReading(handler, error); });
}

void runWorker(const Ref<QXRemoteFileHandle>& handle, std::uint64_t offset, std::uint64_t length,
               QXDecompressionAlgorithm algorithm, QXChecksumAlgorithm compressedAlgorithm,
               QXChecksumAlgorithm decompressedAlgorithm, const QXDecompressor::Handler& handler) {
    if (algorithm == QXDecompressionAlgorithmAutomatic) {
        Ref<Error> error;
        // The magic is looked for where the range starts, not wherever the
        // handle happens to stand. The range read below seeks back to it, so
        // the decoder still gets every byte (a pipe keeps its last 64 KiB for
        // just this).
        if (!handle->seekToFileOffset(offset, &error)) return AsyncRun::failBeforeReading(handler, error);
        Ref<Data> magic = handle->readDataOfLength(QXDecompressor::maxMagicLength(), &error);
        if (!magic) return AsyncRun::failBeforeReading(handler, error);
        if (auto statusError = httpStatusError(*handle)) return AsyncRun::failBeforeReading(handler, statusError);
        QXDecompressionAlgorithm found = QXDecompressionAlgorithmNone;
        if (QXDecompressor::isDataCompressed(magic, &found)) algorithm = found;
    }

    Ref<Error> error;
    auto decompressor = QXDecompressor::initForStreamingWithAlgorithm(algorithm, &error);
    if (!decompressor) return AsyncRun::failBeforeReading(handler, error);
    auto run = std::make_shared<AsyncRun>(handler, std::move(decompressor), compressedAlgorithm, decompressedAlgorithm);
    const std::uint64_t maxBufferSize =
        static_cast<std::uint64_t>(QXDecompressor::maxOperationCount()) * kReadAheadPerOperation;
    handle->readDataAtOffset(offset, length, maxBufferSize,
                             [run](const Ref<QXRemoteFileHandle>& source, const Ref<Data>& chunk, bool done,
                                   const Ref<Error>& failure) { return run->onChunk(source.get(), chunk, done, failure); });
}

} // namespace

void QXDecompressor::decompressRemoteFileHandle(const Ref<QXRemoteFileHandle>& handle, std::uint64_t offset,
                                                std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                QXChecksumAlgorithm compressedChecksumAlgorithm,
                                                QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler) {
    if (!handler) return;
    if (!handle) return failLater(std::move(handler), QXGenerateError(qx::NSPOSIXErrorDomain, EINVAL));
    operationQueue()->addOperationWithBlock([=, handler = std::move(handler)] {
        runWorker(handle, offset, length, algorithm, compressedChecksumAlgorithm, decompressedChecksumAlgorithm,
                  handler);
    });
}

void QXDecompressor::decompressFileHandle(const Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                          std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                          QXChecksumAlgorithm compressedChecksumAlgorithm,
                                          QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler) {
    if (!handler) return;
    Ref<Error> error;
    // The caller keeps its handle: the wrapper must not close it.
    auto remote = QXRemoteFileHandle::initWithSystemFileHandle(handle, false, &error);
    if (!remote) return failLater(std::move(handler), error);
    decompressRemoteFileHandle(remote, offset, length, algorithm, compressedChecksumAlgorithm,
                               decompressedChecksumAlgorithm, std::move(handler));
}

void QXDecompressor::decompressFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset, std::uint64_t length,
                                         QXDecompressionAlgorithm algorithm,
                                         QXChecksumAlgorithm compressedChecksumAlgorithm,
                                         QXChecksumAlgorithm decompressedChecksumAlgorithm, Handler handler) {
    if (!handler) return;
    Ref<Error> error;
    auto remote = QXRemoteFileHandle::initForReadingFromURL(url, &error);
    if (!remote) return failLater(std::move(handler), error);
    // The caller answers true to stop here (see the header). The handle closes
    // itself when the read lets go of it; it is closed early only after a run
    // that read to the end, when no reading thread can still be using it.
    auto inverted = [remote, handler = std::move(handler)](
                        const Ref<Data>& output, std::uint64_t compressedTotal, std::uint64_t decompressedTotal,
                        bool finished, const Ref<Data>& compressedChecksum, const Ref<Data>& decompressedChecksum,
                        const Ref<Error>& failure) {
        const bool stop = handler(output, compressedTotal, decompressedTotal, finished, compressedChecksum,
                                  decompressedChecksum, failure);
        if (finished && !failure) (void)remote->closeFileAndReturnError(nullptr);
        return !failure && !stop;
    };
    decompressRemoteFileHandle(remote, offset, length, algorithm, compressedChecksumAlgorithm,
                               decompressedChecksumAlgorithm, std::move(inverted));
}
