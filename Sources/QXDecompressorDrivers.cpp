// QXDecompressorDrivers.cpp - the synchronous drivers that read: a buffer, a
// file or a handle through one streaming decompressor, and gzip files through
// zlib's gzip file reader.
#include <QXFoundation/QXDecompressor.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXCodec.h"
#include "Internal/QXDriverErrors.h"
#include "Internal/QXHandleReader.h"

#include <qx/Log.h>
#include <qx/UniqueFd.h>

#include <unistd.h>
#include <zlib.h>

#include <limits>
#include <memory>
#include <vector>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

struct GzFileCloser {
    void operator()(gzFile_s* file) const {
        const int result = gzclose(file);
        if (result != Z_OK) QXLog("Error %d closing file", result);
    }
};

Ref<Error> cocoaError(std::int64_t code) { return QXGenerateError(qx::NSCocoaErrorDomain, code); }
Ref<Error> posixError(std::int64_t code) { return QXGenerateError(qx::NSPOSIXErrorDomain, code); }

} // namespace

Ref<Data> QXDecompressor::decompressedDataFromData(const Ref<Data>& data, QXDecompressionAlgorithm algorithm,
                                                   Ref<Error>* error) {
    auto decompressor = initForStreamingWithAlgorithm(algorithm, error);
    if (!decompressor) return nullptr;
    auto result = Data::create();
    bool again = false;
    do {
        auto out = decompressor->decompressedDataFromStreamWithInputData(data, true, &again, error);
        if (!out) return nullptr;
        if (result->length() == 0) {
            result = out;  // usually the only piece: no copy
        } else {
            result->append(*out);
        }
    } while (again);
    return result;
}

Ref<Data> QXDecompressor::decompressedDataFromData(const Ref<Data>& data, Ref<Error>* error) {
    return decompressedDataFromData(data, QXDecompressionAlgorithmAutomatic, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset,
                                                        std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                        Ref<Error>* error) {
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!handle) return nullptr;
    if (algorithm == QXDecompressionAlgorithmAutomatic) isFileCompressedAtURL(url, &algorithm);
    auto result = decompressedDataFromFileHandle(handle, offset, length, algorithm, error);
    try {
        handle->closeFile();
    } catch (const qx::Exception&) {
    }
    return result;
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset,
                                                        std::uint64_t length, Ref<Error>* error) {
    return decompressedDataFromFileAtURL(url, offset, length, QXDecompressionAlgorithmAutomatic, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    return decompressedDataFromFileAtURL(url, 0, 0, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileHandle(const Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                                         std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                         Ref<Error>* error) {
    auto result = Data::create();
    const std::int64_t count = decompressFileHandle(
        handle, algorithm, offset, length, [&](const Ref<Data>& piece) { result->append(*piece); }, nullptr, nullptr,
        error);
    if (count < 0) return nullptr;
    return result;
}

std::int64_t QXDecompressor::decompressFileHandle(const Ref<qx::FileHandle>& handle,
                                                  QXDecompressionAlgorithm algorithm, std::uint64_t offset,
                                                  std::uint64_t length, const DataBlock& dataBlock,
                                                  const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                  Ref<Error>* error) {
    if (!handle) {
        QXSetError(error, posixError(22));
        return -1;
    }
    if (algorithm == QXDecompressionAlgorithmGzip)
        return decompressGZFileHandle(handle, static_cast<std::int64_t>(offset), length, dataBlock, cancelBlock,
                                      progressBlock, error);
    auto decompressor = initForStreamingWithAlgorithm(algorithm, error);
    if (!decompressor) return -1;

    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t end = length == 0 ? kMax : (offset > kMax - length ? kMax : offset + length);
    std::uint64_t total = 0;
    bool cancelled = false;

    auto deliver = [&](const Ref<Data>& out) {
        std::uint64_t produced = out->length();
        std::uint64_t newTotal = total + produced;
        if (newTotal > offset) {
            if (length != 0 && newTotal > end) {
                const std::uint64_t cut = newTotal - end;
                out->setLength(out->length() - cut);
                produced -= cut;
                newTotal -= cut;
            }
            if (dataBlock) {
                Ref<Data> piece = out;
                if (total < offset) piece = out->subdata(offset - total, out->length() - (offset - total));
                dataBlock(piece);
            }
            if (progressBlock) progressBlock(static_cast<std::int64_t>(produced));
        }
        total = newTotal;
    };
    auto askCancel = [&] { return cancelBlock && cancelBlock(); };

    try {
        // Input buffers are reused: the decompressor copies what it keeps,
        // and a fresh megabyte per read costs page faults.
        QXHandleReader reader(*handle);
        for (;;) {
            if (askCancel()) {
                cancelled = true;
                break;
            }
            auto chunk = reader.next();
            const bool isFinal = chunk->length() == 0;
            bool again = false;
            auto out = decompressor->decompressedDataFromStreamWithInputData(chunk, isFinal, &again, error);
            reader.recycle(std::move(chunk));
            if (!out) return -1;
            deliver(out);
            while (again) {
                if (askCancel()) {
                    cancelled = true;
                    break;
                }
                out = decompressor->decompressedDataFromStreamWithInputData(Data::create(), isFinal, &again, error);
                if (!out) return -1;
                deliver(out);
            }
            if (cancelled || isFinal) break;
            if (length != 0 && total >= end) break;
        }
    } catch (const qx::Exception& e) {
        QXSetError(error, QXExceptionError(e, 256));
        return -1;
    }
    if (cancelled) {
        decompressor->cancel();
        QXSetError(error, cocoaError(3072));
        return -1;
    }
    if (total < offset) {
        QXSetError(error, cocoaError(256));
        return -1;
    }
    return static_cast<std::int64_t>(total - offset);
}

std::int64_t QXDecompressor::decompressGZFileHandle(const Ref<qx::FileHandle>& handle, std::int64_t offset,
                                                    std::uint64_t length, const DataBlock& dataBlock,
                                                    const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                    Ref<Error>* error) {
    // zlib's gzip reader stays here, not the faster inflate of the streaming
    // codec: its seeking, its trailer check and gzerror's codes are this
    // driver's results. It closes what it is given: a copy, so the caller's
    // handle stays open.
    qx::UniqueFd fd(handle ? ::dup(handle->fileDescriptor()) : -1);
    gzFile file = fd ? gzdopen(fd.get(), "rb") : nullptr;
    if (!file) {
        QXLog("Error opening file!");
        QXSetError(error, cocoaError(256));
        return -1;
    }
    fd.release();  // gzclose closes it now
    std::unique_ptr<gzFile_s, GzFileCloser> owner(file);
    if (offset < 0) {
        QXSetError(error, posixError(22));
        return -1;
    }
    if (offset > 0) gzseek(file, static_cast<z_off_t>(offset), SEEK_SET);

    std::vector<std::uint8_t> buffer(kQXCodecBufferSize);
    std::uint64_t total = 0;
    while (total <= length - 1) {  // unsigned: length 0 never stops the loop
        if (gzeof(file)) break;
        if (cancelBlock && cancelBlock()) break;
        std::uint64_t want = kQXCodecBufferSize;
        if (length != 0 && length - total < want) want = length - total;
        const int count = gzread(file, buffer.data(), static_cast<unsigned>(want));
        if (count < 0) {
            QXLog("Error! Aborting read\n");
            break;
        }
        if (count == 0) break;  // nothing more without an end flag: a damaged stream, reported below
        if (dataBlock) dataBlock(Data::withBytes(buffer.data(), static_cast<std::size_t>(count)));
        if (progressBlock) progressBlock(count);
        total += static_cast<std::uint64_t>(count);
    }
    int code = Z_OK;
    const char* message = gzerror(file, &code);
    if (code < 0 || code > 1) {
        auto text = qx::str(message ? message : "");
        QXLog("Error %d unpacking file: %@", code, text);
        QXSetError(error, QXGenerateError("gzread", code, nullptr, nullptr, nullptr, QXFLocalizedString("gzread: %@"),
                                          text));
        return -1;
    }
    return static_cast<std::int64_t>(total);
}

void QXDecompressor::writeData(const Ref<Data>& data, const std::vector<Ref<qx::FileHandle>>& handles) {
    if (!data) return;
    for (const auto& handle : handles)
        if (handle) handle->writeData(*data);
}
