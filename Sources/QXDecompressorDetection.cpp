// QXDecompressorDetection.cpp - telling the formats apart by their first
// bytes, and the size queries that read a file's framing.
#include <QXFoundation/QXDecompressor.h>

#include "Internal/QXCompressionMagic.h"

#include <qx/Exception.h>
#include <qx/Log.h>
#include <qx/String.h>

#include <algorithm>
#include <cstring>
#include <limits>

using qx::Data;
using qx::Ref;

namespace {

bool dataMatches(const QXMagicTable& table, const Ref<Data>& data) {
    return data && QXMagicMatches(table, data->bytes(), data->length());
}

// The first length bytes of the file (fewer when it is shorter), or nothing
// when it can't be opened or read.
Ref<Data> fileHead(const Ref<qx::URL>& url, std::size_t length) {
    auto handle = url ? qx::FileHandle::fileHandleForReadingFromURL(url) : nullptr;
    if (!handle) return nullptr;
    try {
        auto head = handle->readDataOfLength(length);
        handle->closeFile();
        return head;
    } catch (const qx::Exception&) {
        return nullptr;
    }
}

bool fileMatches(const QXMagicTable& table, const Ref<qx::URL>& url) {
    std::size_t longest = 0;
    for (std::size_t i = 0; i < table.count; ++i) longest = std::max(longest, table.prefixes[i].length);
    return dataMatches(table, fileHead(url, longest));
}

std::uint64_t readBigEndian64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
    return v;
}

} // namespace

Ref<qx::Array> QXDecompressor::supportedFilenameExtensions() {
    auto list = qx::Array::create();
    for (const char* extension : {"gz", "gzip", "bz", "bz2", "xz"}) list->addObject(qx::str(extension));
    return list;
}

std::uint64_t QXDecompressor::maxMagicLength() { return kQXMaxMagicLength; }

bool QXDecompressor::doesMagic(const Ref<qx::Array>& magics, const Ref<Data>& data) {
    if (!magics || !data) return false;
    for (const auto& object : *magics) {
        auto prefix = qx::dyn_cast<Data>(object);
        if (!prefix || prefix->length() > data->length()) continue;
        if (std::memcmp(prefix->bytes(), data->bytes(), prefix->length()) == 0) return true;
    }
    return false;
}

bool QXDecompressor::doesMagicMatch(const Ref<qx::Array>& magics, const Ref<qx::URL>& url) {
    if (!magics || !url) return false;
    std::size_t longest = 0;
    for (const auto& object : *magics)
        if (auto prefix = qx::dyn_cast<Data>(object)) longest = std::max(longest, prefix->length());
    auto head = fileHead(url, longest);
    return head && doesMagic(magics, head);
}

bool QXDecompressor::isFileGZCompressedAtURL(const Ref<qx::URL>& url) { return fileMatches(kQXGzipMagic, url); }
bool QXDecompressor::isFileZlibCompressedAtURL(const Ref<qx::URL>& url) { return fileMatches(kQXZlibMagic, url); }
bool QXDecompressor::isFileBZ2CompressedAtURL(const Ref<qx::URL>& url) { return fileMatches(kQXBZip2Magic, url); }
bool QXDecompressor::isFileXZCompressedAtURL(const Ref<qx::URL>& url) { return fileMatches(kQXXZMagic, url); }
bool QXDecompressor::isFilePBZXCompressedAtURL(const Ref<qx::URL>& url) { return fileMatches(kQXPBZXMagic, url); }
bool QXDecompressor::isDataGZCompressed(const Ref<Data>& data) { return dataMatches(kQXGzipMagic, data); }
bool QXDecompressor::isDataZlibCompressed(const Ref<Data>& data) { return dataMatches(kQXZlibMagic, data); }
bool QXDecompressor::isDataBZ2Compressed(const Ref<Data>& data) { return dataMatches(kQXBZip2Magic, data); }
bool QXDecompressor::isDataXZCompressed(const Ref<Data>& data) { return dataMatches(kQXXZMagic, data); }
bool QXDecompressor::isDataPBZXCompressed(const Ref<Data>& data) { return dataMatches(kQXPBZXMagic, data); }

bool QXDecompressor::isFileCompressedAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm* algorithm) {
    // The head is read once and tested in the file order.
    auto head = fileHead(url, kQXMaxMagicLength);
    const QXDecompressionAlgorithm found =
        head ? QXDetectAlgorithm(kQXFileDetectionOrder, head->bytes(), head->length()) : QXDecompressionAlgorithmNone;
    if (algorithm) *algorithm = found;
    return found != QXDecompressionAlgorithmNone;
}

bool QXDecompressor::isDataCompressed(const Ref<Data>& data, QXDecompressionAlgorithm* algorithm) {
    const QXDecompressionAlgorithm found =
        data ? QXDetectAlgorithm(kQXDataDetectionOrder, data->bytes(), data->length()) : QXDecompressionAlgorithmNone;
    if (algorithm) *algorithm = found;
    return found != QXDecompressionAlgorithmNone;
}

QXDecompressionAlgorithm QXDecompressor::resolvedAlgorithmForData(const Ref<Data>& data,
                                                                  QXDecompressionAlgorithm algorithm) {
    if (algorithm == QXDecompressionAlgorithmAutomatic) {
        QXDecompressionAlgorithm found = QXDecompressionAlgorithmNone;
        isDataCompressed(data, &found);
        return found;
    }
    if (algorithm != QXDecompressionAlgorithmDeflateAny) return algorithm;
    if (dataMatches(kQXZlibMagic, data)) return QXDecompressionAlgorithmZlib;
    if (dataMatches(kQXGzipMagic, data)) return QXDecompressionAlgorithmGzip;
    return QXDecompressionAlgorithmRawDeflate;
}

std::uint64_t QXDecompressor::uncompressedSizeOfGZFileAtURL(const Ref<qx::URL>& url) {
    if (!isFileGZCompressedAtURL(url)) return 0;
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    if (!handle) return 0;
    try {
        const std::uint64_t end = handle->seekToEndOfFile();
        if (end < 4) return 0;
        handle->seekToFileOffset(end - 4);
        auto tail = handle->readDataOfLength(4);
        if (tail->length() < 4) return 0;
        const std::uint8_t* p = tail->bytes();
        return std::uint64_t(p[0]) | std::uint64_t(p[1]) << 8 | std::uint64_t(p[2]) << 16 | std::uint64_t(p[3]) << 24;
    } catch (const qx::Exception& e) {
        QXLog("uncompressedSizeOfGZFileAtURL: exception ignored: %@", qx::str(e.description()));
        return 0;
    }
}

std::uint64_t QXDecompressor::uncompressedSizeOfPBZXFileAtURL(const Ref<qx::URL>& url) {
    auto handle = url ? qx::FileHandle::fileHandleForReadingFromURL(url) : nullptr;
    if (!handle || !isFilePBZXCompressedAtURL(url)) return 0;
    std::uint64_t sum = 0;
    try {
        // Chunk headers follow the magic and the 8-byte flags word.
        std::uint64_t position = 12;
        handle->seekToFileOffset(position);
        for (;;) {
            auto header = handle->readDataOfLength(16);
            if (header->length() < 16) break;
            sum += readBigEndian64(header->bytes());
            const std::uint64_t compressedSize = readBigEndian64(header->bytes() + 8);
            position += 16;
            if (compressedSize > std::numeric_limits<std::uint64_t>::max() - position) break;
            position += compressedSize;
            handle->seekToFileOffset(position);
        }
    } catch (const qx::Exception& e) {
        QXLog("uncompressedSizeOfPBZXFileAtURL: exception ignored: %@", qx::str(e.description()));
        return 0;
    }
    return sum;
}
