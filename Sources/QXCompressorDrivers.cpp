// QXCompressorDrivers.cpp - the class operations of QXCompressor: buffers,
// file ranges and files, all resting on the generic handle driver. Every file
// they replace goes through QXSafeFileWriter, so a failure leaves no partial
// file and a replaced file keeps its mode.
#include <QXFoundation/QXCompressor.h>

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXStringAdditions.h>

#include "Internal/QXDriverErrors.h"
#include "Internal/QXSafeFileWriter.h"
#include "Internal/QXStreamCompressor.h"

#include <qx/Exception.h>
#include <qx/UniqueFd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string>

#include <fcntl.h>
#include <unistd.h>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

Ref<Error> posixError(std::int64_t code, const Ref<qx::URL>& url = nullptr) {
    return QXGenerateError(qx::NSPOSIXErrorDomain, code, url);
}

void closeQuietly(const Ref<qx::FileHandle>& handle) {
    try {
        handle->closeFile();
    } catch (const qx::Exception&) {
    }
}

std::string temporaryFolder() {
    const char* folder = std::getenv("TMPDIR");
    return folder && *folder ? folder : "/tmp";
}

// A file path removed when the object goes.
class RemovedFile {
public:
    explicit RemovedFile(std::string path) : path_(std::move(path)) {}
    ~RemovedFile() { ::unlink(path_.c_str()); }
    RemovedFile(const RemovedFile&) = delete;
    RemovedFile& operator=(const RemovedFile&) = delete;

private:
    std::string path_;
};

// Compresses url into a sibling of target named by a fresh unique ID, which
// replaces target only once the handle driver succeeded. Errors of the file
// itself name target.
std::int64_t compressReplacing(const Ref<qx::URL>& url, const Ref<qx::URL>& target,
                               QXDecompressionAlgorithm algorithm, unsigned threads,
                               const QXCompressor::CancelBlock& cancelBlock,
                               const QXCompressor::ProgressBlock& progressBlock, Ref<Error>* error) {
    QXSafeFileWriter writer;
    if (const int code = writer.open(target->path(), QXStringAdditions::uniqueID()->utf8())) {
        QXSetError(error, posixError(code, target));
        return -1;
    }
    // The writer owns the descriptor; the handle only writes through it.
    auto handle = qx::FileHandle::initWithFileDescriptor(writer.fd(), false);
    const std::int64_t count = QXCompressor::compressFileAtURLToFileHandle(url, handle, algorithm, threads,
                                                                           cancelBlock, progressBlock, error);
    if (const int code = writer.finish(count >= 0)) {
        QXSetError(error, posixError(code, target));
        return -1;
    }
    return count;
}

} // namespace

std::int64_t QXCompressor::compressFileHandle(const Ref<qx::FileHandle>& source, std::uint64_t offset,
                                              std::uint64_t length, const Ref<qx::FileHandle>& destination,
                                              QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock,
                                              const ProgressBlock& progressBlock, Ref<Error>* error) {
    return compressFileHandle(source, offset, length, destination, algorithm, 1, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileHandle(const Ref<qx::FileHandle>& source, std::uint64_t offset,
                                              std::uint64_t length, const Ref<qx::FileHandle>& destination,
                                              QXDecompressionAlgorithm algorithm, unsigned threads,
                                              const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                              Ref<Error>* error) {
    if (!source || !destination) {
        QXSetError(error, posixError(22));
        return -1;
    }
    auto compressor = QXStreamCompressor::create(algorithm, std::nullopt, threads, error);
    if (!compressor) return -1;

    auto write = [&](const Ref<Data>& out) {
        if (out->length() == 0) return true;
        try {
            destination->writeData(*out);
            return true;
        } catch (const qx::Exception& e) {
            QXSetError(error, QXExceptionError(e, 512));
            return false;
        }
    };

    const std::uint64_t limit = std::min<std::uint64_t>(length, std::numeric_limits<std::int64_t>::max());
    std::uint64_t consumed = 0;
    try {
        source->seekToFileOffset(offset);
        do {
            if (cancelBlock && cancelBlock()) break;
            std::uint64_t want = kBufferSize;
            if (limit != 0) want = std::min(want, limit - consumed);
            auto chunk = source->readDataOfLength(want);
            if (!chunk || chunk->length() == 0) break;
            auto out = compressor->compress(chunk, error);
            if (!out || !write(out)) return -1;
            consumed += chunk->length();
            if (progressBlock) progressBlock(static_cast<std::int64_t>(chunk->length()));
        } while (consumed <= limit - 1);  // unsigned: a limit of 0 never stops the loop
    } catch (const qx::Exception& e) {
        QXSetError(error, QXExceptionError(e, 256));
        return -1;
    }
    // Also after a cancel: what was read ends as a complete stream.
    do {
        auto last = compressor->finish(error);
        if (!last || !write(last)) return -1;
    } while (!compressor->isFinished());
    return static_cast<std::int64_t>(consumed);
}

Ref<Data> QXCompressor::compressedDataFromFileHandle(const Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                                     std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                     Ref<Error>* error) {
    const std::string path = temporaryFolder() + "/QXCompressor" + QXStringAdditions::uniqueID()->utf8();
    qx::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0600));
    if (!fd) {
        QXSetError(error, posixError(errno, qx::URL::fileURLWithPath(path)));
        return nullptr;
    }
    RemovedFile removed(path);
    auto temporary = qx::FileHandle::initWithFileDescriptor(fd.get(), false);
    if (compressFileHandle(handle, offset, length, temporary, algorithm, nullptr, nullptr, error) < 0) return nullptr;
    try {
        temporary->seekToFileOffset(0);
        return temporary->readDataToEndOfFile();
    } catch (const qx::Exception& e) {
        QXSetError(error, QXExceptionError(e, 256));
        return nullptr;
    }
}

Ref<Data> QXCompressor::compressedDataFromFileHandle(const Ref<qx::FileHandle>& handle,
                                                     QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    return compressedDataFromFileHandle(handle, 0, 0, algorithm, error);
}

Ref<Data> QXCompressor::compressedDataFromFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset,
                                                    std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                    Ref<Error>* error) {
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!handle) return nullptr;
    auto result = compressedDataFromFileHandle(handle, offset, length, algorithm, error);
    closeQuietly(handle);
    return result;
}

Ref<Data> QXCompressor::compressedDataFromFileAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                                    Ref<Error>* error) {
    return compressedDataFromFileAtURL(url, 0, 0, algorithm, error);
}

std::int64_t QXCompressor::compressFileHandleToFileHandle(const Ref<qx::FileHandle>& source,
                                                          const Ref<qx::FileHandle>& destination,
                                                          QXDecompressionAlgorithm algorithm, unsigned threads,
                                                          const CancelBlock& cancelBlock,
                                                          const ProgressBlock& progressBlock, Ref<Error>* error) {
    return compressFileHandle(source, 0, 0, destination, algorithm, threads, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileHandleToFileHandle(const Ref<qx::FileHandle>& source,
                                                          const Ref<qx::FileHandle>& destination,
                                                          QXDecompressionAlgorithm algorithm,
                                                          const CancelBlock& cancelBlock,
                                                          const ProgressBlock& progressBlock, Ref<Error>* error) {
    return compressFileHandleToFileHandle(source, destination, algorithm, 1, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileHandleToFileHandle(const Ref<qx::FileHandle>& source,
                                                          const Ref<qx::FileHandle>& destination,
                                                          QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    return compressFileHandleToFileHandle(source, destination, algorithm, nullptr, nullptr, error);
}

std::int64_t QXCompressor::compressFileAtURLToFileHandle(const Ref<qx::URL>& url,
                                                         const Ref<qx::FileHandle>& destination,
                                                         QXDecompressionAlgorithm algorithm, unsigned threads,
                                                         const CancelBlock& cancelBlock,
                                                         const ProgressBlock& progressBlock, Ref<Error>* error) {
    auto source = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!source) return -1;
    const std::int64_t count =
        compressFileHandle(source, 0, 0, destination, algorithm, threads, cancelBlock, progressBlock, error);
    closeQuietly(source);
    return count;
}

std::int64_t QXCompressor::compressFileAtURLToFileHandle(const Ref<qx::URL>& url,
                                                         const Ref<qx::FileHandle>& destination,
                                                         QXDecompressionAlgorithm algorithm,
                                                         const CancelBlock& cancelBlock,
                                                         const ProgressBlock& progressBlock, Ref<Error>* error) {
    return compressFileAtURLToFileHandle(url, destination, algorithm, 1, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileAtURLToFileHandle(const Ref<qx::URL>& url,
                                                         const Ref<qx::FileHandle>& destination,
                                                         QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    return compressFileAtURLToFileHandle(url, destination, algorithm, nullptr, nullptr, error);
}

std::int64_t QXCompressor::compressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                  QXDecompressionAlgorithm algorithm, unsigned threads,
                                                  const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                  Ref<Error>* error) {
    if (!url || !destination || !destination->isFileURL()) {
        QXSetError(error, posixError(22));
        return -1;
    }
    return compressReplacing(url, destination, algorithm, threads, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                  QXDecompressionAlgorithm algorithm, const CancelBlock& cancelBlock,
                                                  const ProgressBlock& progressBlock, Ref<Error>* error) {
    return compressFileAtURLToURL(url, destination, algorithm, 1, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                  QXDecompressionAlgorithm algorithm, Ref<Error>* error) {
    return compressFileAtURLToURL(url, destination, algorithm, nullptr, nullptr, error);
}

std::int64_t QXCompressor::compressFileAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                             unsigned threads, const CancelBlock& cancelBlock,
                                             const ProgressBlock& progressBlock, Ref<Error>* error) {
    if (!url || !url->isFileURL()) {
        QXSetError(error, posixError(22));
        return -1;
    }
    return compressReplacing(url, url, algorithm, threads, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                             const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                             Ref<Error>* error) {
    return compressFileAtURL(url, algorithm, 1, cancelBlock, progressBlock, error);
}

std::int64_t QXCompressor::compressFileAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm algorithm,
                                             Ref<Error>* error) {
    return compressFileAtURL(url, algorithm, nullptr, nullptr, error);
}
