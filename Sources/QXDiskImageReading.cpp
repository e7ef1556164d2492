// QXDiskImageReading.cpp - decoded bytes: single ranges through the chunk
// cache, whole passes with many chunks decoding at once.
#include <QXFoundation/QXDiskImage.h>

#include "Internal/QXDiskImageState.h"
#include "Internal/QXUDIFChunkDecoders.h"

#include <QXFoundation/QXDecompressor.h>

#include <qx/Operation.h>
#include <qx/OperationQueue.h>

#include <algorithm>
#include <cstring>
#include <sstream>

using namespace QXUDIF;

namespace {

// A whole pass keeps at most this much decoded data waiting for its turn.
constexpr std::uint64_t kMaxBytesInFlight = 256ull << 20;

std::string sectorText(const QXDiskImageMappedChunk& chunk) {
    std::ostringstream text;
    text << " at sector " << chunk.firstSector;
    return text.str();
}

} // namespace

qx::Ref<qx::Error> QXDiskImage::State::decodeChunk(const QXDiskImageMappedChunk& chunk, std::vector<std::uint8_t>& out) {
    qx::Ref<qx::Error> error;
    if (chunk.type == kChunkRaw) {
        out.assign(chunk.sectorCount * kSectorSize, 0);
        if (!source->read(chunk.fileOffset, out.data(), chunk.length, &error)) return error;
        return nullptr;
    }
    const ChunkDecoder* decoder = chunkDecoderForType(chunk.type);
    if (!decoder) return QXDiskImageError(kQXDiskImageErrorUnsupportedChunk, "unsupported chunk type");
    if (!decoder->decode)
        return QXDiskImageError(kQXDiskImageErrorUnsupportedChunk,
                                std::string("unsupported chunk compression (") + decoder->name + ")");
    std::vector<std::uint8_t> stored(chunk.length);
    if (!source->read(chunk.fileOffset, stored.data(), stored.size(), &error)) return error;
    out.resize(chunk.sectorCount * kSectorSize);
    const std::ptrdiff_t written = decoder->decode(stored.data(), stored.size(), out.data(), out.size());
    if (written < 0 || static_cast<std::uint64_t>(written) != out.size())
        return QXDiskImageError(kQXDiskImageErrorCorrupt,
                                std::string("damaged ") + decoder->name + " chunk" + sectorText(chunk));
    return nullptr;
}

QXDiskImageChunkCache::Bytes QXDiskImage::State::cachedChunk(std::size_t index, qx::Ref<qx::Error>* error) {
    if (auto held = cache.find(index)) return held;
    auto bytes = std::make_shared<std::vector<std::uint8_t>>();
    if (auto failure = decodeChunk(chunks[index], *bytes)) {
        if (error) *error = failure;
        return nullptr;
    }
    cache.insert(index, bytes);
    return bytes;
}

bool QXDiskImage::State::visitChunks(const std::vector<std::size_t>& indices,
                                     const std::function<bool(std::size_t, const std::uint8_t*)>& visit,
                                     qx::Ref<qx::Error>* error) {
    auto queue = QXDecompressor::operationQueue();
    const std::size_t maxBatch = static_cast<std::size_t>(std::max<std::int64_t>(2, QXDecompressor::maxOperationCount()));
    std::size_t next = 0;
    while (next < indices.size()) {
        // A batch: the next chunks up to the batch size or the bytes allowed in flight.
        std::size_t end = next;
        std::uint64_t bytes = 0;
        std::size_t decoding = 0;
        while (end < indices.size() && decoding < maxBatch) {
            const auto& chunk = chunks[indices[end]];
            if (!isZeroChunk(chunk.type)) {
                const std::uint64_t size = chunk.sectorCount * kSectorSize;
                if (decoding > 0 && bytes + size > kMaxBytesInFlight) break;
                bytes += size;
                ++decoding;
            }
            ++end;
        }
        std::vector<std::vector<std::uint8_t>> decoded(end - next);
        std::vector<qx::Ref<qx::Error>> failures(end - next);
        std::vector<qx::Ref<qx::Operation>> operations;
        for (std::size_t i = next; i < end; ++i) {
            const auto& chunk = chunks[indices[i]];
            if (isZeroChunk(chunk.type)) continue;
            auto* out = &decoded[i - next];
            auto* failure = &failures[i - next];
            auto work = [this, &chunk, out, failure] { *failure = decodeChunk(chunk, *out); };
            if (decoding == 1) work();
            else operations.push_back(qx::BlockOperation::create(work));
        }
        if (!operations.empty()) queue->addOperations(operations, true);
        for (std::size_t i = next; i < end; ++i) {
            if (failures[i - next]) {
                if (error) *error = failures[i - next];
                return false;
            }
            const auto& chunk = chunks[indices[i]];
            if (!visit(indices[i], isZeroChunk(chunk.type) ? nullptr : decoded[i - next].data())) {
                if (error) *error = QXDiskImageError(kQXDiskImageErrorCancelled, "stopped");
                return false;
            }
        }
        next = end;
    }
    return true;
}

std::int64_t QXDiskImage::readBytes(std::uint64_t offset, void* buffer, std::uint64_t length, qx::Ref<qx::Error>* error) {
    auto& s = *state_;
    if (offset >= s.size) return 0;
    length = std::min(length, s.size - offset);
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::uint64_t position = offset;
    const std::uint64_t end = offset + length;
    while (position < end) {
        const std::uint64_t sector = position / kSectorSize;
        // The last chunk starting at or before the sector.
        auto after = std::upper_bound(s.chunks.begin(), s.chunks.end(), sector,
                                      [](std::uint64_t value, const QXDiskImageMappedChunk& c) { return value < c.firstSector; });
        const QXDiskImageMappedChunk* chunk = nullptr;
        if (after != s.chunks.begin() && sector < std::prev(after)->firstSector + std::prev(after)->sectorCount)
            chunk = &*std::prev(after);
        if (!chunk) {
            // Sectors no table maps read as zeros, up to the next chunk.
            const std::uint64_t gapEnd = after == s.chunks.end() ? end : std::min(end, after->firstSector * kSectorSize);
            std::memset(out + (position - offset), 0, gapEnd - position);
            position = gapEnd;
            continue;
        }
        const std::uint64_t chunkStart = chunk->firstSector * kSectorSize;
        const std::uint64_t pieceEnd = std::min(end, (chunk->firstSector + chunk->sectorCount) * kSectorSize);
        const std::uint64_t within = position - chunkStart;
        const std::uint64_t piece = pieceEnd - position;
        std::uint8_t* target = out + (position - offset);
        if (isZeroChunk(chunk->type)) {
            std::memset(target, 0, piece);
        } else if (chunk->type == kChunkRaw) {
            // Raw chunks are read in place: the cache would only copy them again.
            const std::uint64_t stored = within < chunk->length ? std::min(piece, chunk->length - within) : 0;
            if (stored > 0 && !s.source->read(chunk->fileOffset + within, target, stored, error)) return -1;
            std::memset(target + stored, 0, piece - stored);
        } else {
            auto bytes = s.cachedChunk(static_cast<std::size_t>(chunk - s.chunks.data()), error);
            if (!bytes) return -1;
            std::memcpy(target, bytes->data() + within, piece);
        }
        position = pieceEnd;
    }
    return static_cast<std::int64_t>(length);
}

qx::Ref<qx::Data> QXDiskImage::readDataInRange(std::uint64_t offset, std::uint64_t length, qx::Ref<qx::Error>* error) {
    const std::uint64_t available = offset >= state_->size ? 0 : std::min(length, state_->size - offset);
    auto data = qx::Data::create();
    data->setLength(available);
    const std::int64_t read = readBytes(offset, data->mutableBytes(), available, error);
    if (read < 0) return nullptr;
    data->setLength(static_cast<std::size_t>(read));
    return data;
}

bool QXDiskImage::enumerateContents(const ContentHandler& handler, qx::Ref<qx::Error>* error) {
    auto& s = *state_;
    std::vector<std::size_t> all(s.chunks.size());
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = i;
    std::uint64_t position = 0;
    auto deliver = [&](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
        if (offset > position && !handler(position, nullptr, offset - position)) return false;
        position = offset + length;
        return handler(offset, bytes, length);
    };
    const bool finished = s.visitChunks(
        all,
        [&](std::size_t index, const std::uint8_t* bytes) {
            const auto& chunk = s.chunks[index];
            const std::uint64_t start = chunk.firstSector * kSectorSize;
            const std::uint64_t length = std::min(chunk.sectorCount * kSectorSize, s.size - start);
            return deliver(start, bytes, length);
        },
        error);
    if (!finished) return false;
    if (position < s.size && !handler(position, nullptr, s.size - position)) {
        if (error) *error = QXDiskImageError(kQXDiskImageErrorCancelled, "stopped");
        return false;
    }
    return true;
}
