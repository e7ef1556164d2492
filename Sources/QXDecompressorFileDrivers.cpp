// QXDecompressorFileDrivers.cpp - the synchronous drivers that write: to
// handles, to a new file and over the source itself. Every file they replace
// goes through QXSafeFileWriter, so a failure leaves no partial file and a
// replaced file keeps its mode.
#include <QXFoundation/QXDecompressor.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXDriverErrors.h"
#include "Internal/QXSafeFileWriter.h"

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

Ref<Error> posixError(std::int64_t code, const Ref<qx::URL>& url = nullptr) {
    return QXGenerateError(qx::NSPOSIXErrorDomain, code, url);
}

// Decompresses url into a temporary that replaces target when keep(count)
// says so; the temporary is removed otherwise. Errors of the file itself
// name target.
template <class Keep>
std::int64_t decompressReplacing(const Ref<qx::URL>& url, const Ref<qx::URL>& target,
                                 QXDecompressionAlgorithm algorithm, const QXDecompressor::CancelBlock& cancelBlock,
                                 const QXDecompressor::ProgressBlock& progressBlock, Keep keep, Ref<Error>* error) {
    QXSafeFileWriter writer;
    if (const int code = writer.open(target->path())) {
        QXSetError(error, posixError(code, target));
        return -1;
    }
    // The writer owns the descriptor; the handle only writes through it.
    auto handle = qx::FileHandle::initWithFileDescriptor(writer.fd(), false);
    std::int64_t count = QXDecompressor::decompressFileAtURLToFileHandle(url, handle, algorithm, cancelBlock,
                                                                         progressBlock, error);
    const bool kept = count >= 0 && keep(count);
    if (const int code = writer.finish(kept)) {
        QXSetError(error, posixError(code, target));
        return -1;
    }
    return count;
}

} // namespace

std::int64_t QXDecompressor::decompressFileAtURLToFileHandleArray(const Ref<qx::URL>& url,
                                                                  const std::vector<Ref<qx::FileHandle>>& handles,
                                                                  QXDecompressionAlgorithm algorithm,
                                                                  const CancelBlock& cancelBlock,
                                                                  const ProgressBlock& progressBlock,
                                                                  Ref<Error>* error) {
    auto source = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!source) return -1;
    // A failed write stops the driver through its cancel check and is
    // reported as the write fault it was, not as a cancel.
    Ref<Error> writeError;
    auto write = [&](const Ref<Data>& piece) {
        if (writeError) return;
        try {
            writeData(piece, handles);
        } catch (const qx::Exception& e) {
            writeError = QXExceptionError(e, 512);
        }
    };
    auto cancel = [&] { return writeError || (cancelBlock && cancelBlock()); };
    Ref<Error> driverError;
    std::int64_t count = decompressFileHandle(source, algorithm, 0, 0, write, cancel, progressBlock, &driverError);
    try {
        source->closeFile();
    } catch (const qx::Exception&) {
    }
    if (writeError) {
        QXSetError(error, writeError);
        return -1;
    }
    if (count < 0) QXSetError(error, driverError);
    return count;
}

std::int64_t QXDecompressor::decompressFileAtURLToFileHandle(const Ref<qx::URL>& url,
                                                             const Ref<qx::FileHandle>& handle,
                                                             QXDecompressionAlgorithm algorithm,
                                                             const CancelBlock& cancelBlock,
                                                             const ProgressBlock& progressBlock, Ref<Error>* error) {
    return decompressFileAtURLToFileHandleArray(url, {handle}, algorithm, cancelBlock, progressBlock, error);
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      QXDecompressionAlgorithm algorithm,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock, Ref<Error>* error) {
    if (!url || !destination || !destination->isFileURL()) {
        QXSetError(error, posixError(22));
        return -1;
    }
    return decompressReplacing(
        url, destination, algorithm, cancelBlock, progressBlock, [](std::int64_t) { return true; }, error);
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock, Ref<Error>* error) {
    return decompressFileAtURLToURL(url, destination, QXDecompressionAlgorithmAutomatic, cancelBlock, progressBlock,
                                    error);
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      Ref<Error>* error) {
    return decompressFileAtURLToURL(url, destination, nullptr, nullptr, error);
}

std::int64_t QXDecompressor::decompressFileAtURL(const Ref<qx::URL>& url, const CancelBlock& cancelBlock,
                                                 const ProgressBlock& progressBlock, Ref<Error>* error) {
    if (!url || !url->isFileURL()) {
        QXSetError(error, posixError(22));
        return -1;
    }
    // Nothing decompressed replaces nothing: an empty or unrecognised file stays.
    return decompressReplacing(
        url, url, QXDecompressionAlgorithmAutomatic, cancelBlock, progressBlock,
        [](std::int64_t count) { return count > 0; }, error);
}

std::int64_t QXDecompressor::decompressFileAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    return decompressFileAtURL(url, nullptr, nullptr, error);
}
