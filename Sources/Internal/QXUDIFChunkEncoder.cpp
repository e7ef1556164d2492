// QXUDIFChunkEncoder.cpp - zero runs, one compressed stream per data run, and
// the CRC-32s of both sides.
#include "Internal/QXUDIFChunkEncoder.h"

#include <QXFoundation/QXCompressor.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace QXUDIF {

namespace {

QXDecompressionAlgorithm algorithmOf(std::uint32_t method) {
    switch (method) {
    case kChunkZlib: return QXDecompressionAlgorithmZlib;
    case kChunkBZip2: return QXDecompressionAlgorithmBZip2;
    case kChunkXZ: return QXDecompressionAlgorithmXZ;
    default: return QXDecompressionAlgorithmNone;
    }
}

bool isZeroSector(const std::uint8_t* sector) {
    // Word-wide: scanning is on the path of every sector written.
    std::uint64_t word[kSectorSize / 8];
    std::memcpy(word, sector, kSectorSize);
    std::uint64_t any = 0;
    for (std::uint64_t w : word) any |= w;
    return any == 0;
}

} // namespace

std::vector<Chunk> ChunkEncoder::runs(const std::uint8_t* sectors, std::uint64_t count) {
    std::vector<Chunk> out;
    auto push = [&out](std::uint32_t type, std::uint64_t first, std::uint64_t length) {
        if (length == 0) return;
        if (!out.empty() && out.back().type == type) out.back().sectorCount += length;
        else out.push_back({type, first, length, 0, 0});
    };
    std::uint64_t dataStart = 0;  // where the current data run began
    std::uint64_t s = 0;
    while (s < count) {
        if (!isZeroSector(sectors + s * kSectorSize)) {
            ++s;
            continue;
        }
        std::uint64_t end = s + 1;
        while (end < count && isZeroSector(sectors + end * kSectorSize)) ++end;
        // Short zero runs stay inside the data around them: a chunk boundary
        // costs a fresh stream, more than a few zero sectors compress to.
        if (end - s >= kMinZeroRun || (s == 0 && end == count)) {
            push(kChunkRaw, dataStart, s - dataStart);
            push(kChunkZeroFill, s, end - s);
            dataStart = end;
        }
        s = end;
    }
    push(kChunkRaw, dataStart, count - dataStart);
    return out;
}

qx::Ref<qx::Error> ChunkEncoder::check() const {
    if (method_ == kChunkRaw) return nullptr;
    qx::Ref<qx::Error> error;
    if (!QXCompressor::initForStreamingWithAlgorithm(algorithmOf(method_), level_, &error)) return error;
    return nullptr;
}

qx::Ref<qx::Error> ChunkEncoder::compress(const std::uint8_t* bytes, std::size_t length, EncodedPiece& out) const {
    qx::Ref<qx::Error> error;
    auto compressor = QXCompressor::initForStreamingWithAlgorithm(algorithmOf(method_), level_, &error);
    if (!compressor) return error;
    auto body = compressor->compressedDataFromStreamWithInputData(qx::Data::withBytes(bytes, length), &error);
    if (!body) return error;
    auto tail = compressor->finalDataFromStreamWithError(&error);
    if (!tail) return error;
    if (body->length() + tail->length() >= length) {
        out.chunks.back().type = kChunkRaw;
        out.stored.insert(out.stored.end(), bytes, bytes + length);
    } else {
        out.stored.insert(out.stored.end(), body->bytes(), body->bytes() + body->length());
        out.stored.insert(out.stored.end(), tail->bytes(), tail->bytes() + tail->length());
    }
    return nullptr;
}

qx::Ref<qx::Error> ChunkEncoder::encode(const std::uint8_t* sectors, std::uint64_t count, EncodedPiece& out) const {
    out = EncodedPiece();
    out.sectorsCRC = static_cast<std::uint32_t>(crc32_z(0, sectors, count * kSectorSize));
    for (Chunk chunk : runs(sectors, count)) {
        chunk.offset = out.stored.size();
        if (chunk.type == kChunkZeroFill) {
            out.chunks.push_back(chunk);
            continue;
        }
        const std::uint8_t* bytes = sectors + chunk.firstSector * kSectorSize;
        const std::size_t length = chunk.sectorCount * kSectorSize;
        chunk.type = method_;
        out.chunks.push_back(chunk);
        if (method_ == kChunkRaw) {
            out.stored.insert(out.stored.end(), bytes, bytes + length);
        } else if (auto error = compress(bytes, length, out)) {
            return error;
        }
        out.chunks.back().length = out.stored.size() - chunk.offset;
    }
    out.storedCRC = static_cast<std::uint32_t>(crc32_z(0, out.stored.data(), out.stored.size()));
    return nullptr;
}

} // namespace QXUDIF
