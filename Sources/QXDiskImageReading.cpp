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
#include <deque>
#include <memory>
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

qx::Ref<qx::Error> QXDiskImage::State::decodeChunk(const QXDiskImageMappedChunk& chunk, std::vector<std::uint8_t>& out,
                                                  std::vector<std::uint8_t>& stored) {
    qx::Ref<qx::Error> error;
    // Buffers come back from the previous chunk: resizing to the same size
    // costs nothing, and everything past what is decoded is written below.
    out.resize(chunk.sectorCount * kSectorSize);
    if (chunk.type == kChunkRaw) {
        const std::uint64_t length = std::min<std::uint64_t>(chunk.length, out.size());
        if (!source->read(chunk.fileOffset, out.data(), length, &error)) return error;
        std::memset(out.data() + length, 0, out.size() - length);
        return nullptr;
    }
    const ChunkDecoder* decoder = chunkDecoderForType(chunk.type);
    if (!decoder) return QXDiskImageError(kQXDiskImageErrorUnsupportedChunk, "unsupported chunk type");
    if (!decoder->decode)
        return QXDiskImageError(kQXDiskImageErrorUnsupportedChunk,
                                std::string("unsupported chunk compression (") + decoder->name + ")");
    stored.resize(chunk.length);
    if (!source->read(chunk.fileOffset, stored.data(), stored.size(), &error)) return error;
    const std::ptrdiff_t written = decoder->decode(stored.data(), stored.size(), out.data(), out.size());
    if (written < 0 || static_cast<std::uint64_t>(written) != out.size())
        return QXDiskImageError(kQXDiskImageErrorCorrupt,
                                std::string("damaged ") + decoder->name + " chunk" + sectorText(chunk));
    return nullptr;
}

QXDiskImageChunkCache::Bytes QXDiskImage::State::cachedChunk(std::size_t index, qx::Ref<qx::Error>* error) {
    if (auto held = cache.find(index)) return held;
    auto bytes = std::make_shared<std::vector<std::uint8_t>>();
    std::vector<std::uint8_t> stored;
    if (auto failure = decodeChunk(chunks[index], *bytes, stored)) {
        if (error) *error = failure;
        return nullptr;
    }
    cache.insert(index, bytes);
    return bytes;
}

namespace {

// One chunk of a pass on its way: decoded on the queue, visited in order.
struct PendingChunk {
    std::size_t index = 0;
    qx::Ref<qx::Operation> operation;  // null for a zero chunk
    std::vector<std::uint8_t> out, stored;
    qx::Ref<qx::Error> failure;
};

} // namespace

bool QXDiskImage::State::visitChunks(const std::vector<std::size_t>& indices,
                                     const std::function<bool(std::size_t, const std::uint8_t*)>& visit,
                                     qx::Ref<qx::Error>* error) {
    auto queue = QXDecompressor::operationQueue();
    // Two chunks per worker keeps every worker busy while the oldest is
    // visited; the byte bound holds for chunks far larger than 1 MiB.
    const std::size_t maxDecoding =
        2 * static_cast<std::size_t>(std::max<std::int64_t>(1, QXDecompressor::maxOperationCount()));
    std::deque<std::unique_ptr<PendingChunk>> pending;  // in visiting order
    std::vector<std::unique_ptr<PendingChunk>> spare;   // buffers to reuse
    std::size_t decoding = 0;
    std::uint64_t bytesInFlight = 0;
    // Every operation refers to its chunk: none may outlive this call.
    struct Drain {
        std::deque<std::unique_ptr<PendingChunk>>& pending;
        ~Drain() {
            for (auto& p : pending)
                if (p->operation) p->operation->waitUntilFinished();
        }
    } drain{pending};

    std::size_t next = 0;
    while (next < indices.size() || !pending.empty()) {
        while (next < indices.size()) {
            const auto& chunk = chunks[indices[next]];
            const std::uint64_t size = isZeroChunk(chunk.type) ? 0 : chunk.sectorCount * kSectorSize;
            if (size > 0 && decoding > 0 && (decoding >= maxDecoding || bytesInFlight + size > kMaxBytesInFlight)) break;
            std::unique_ptr<PendingChunk> item;
            if (!spare.empty()) {
                item = std::move(spare.back());
                spare.pop_back();
            } else {
                item = std::make_unique<PendingChunk>();
            }
            item->index = indices[next];
            if (size > 0) {
                PendingChunk* p = item.get();
                item->operation = qx::BlockOperation::create(
                    [this, p] { p->failure = decodeChunk(chunks[p->index], p->out, p->stored); });
                queue->addOperation(item->operation);
                ++decoding;
                bytesInFlight += size;
            }
            pending.push_back(std::move(item));
            ++next;
        }
        std::unique_ptr<PendingChunk> oldest = std::move(pending.front());
        pending.pop_front();
        const auto& chunk = chunks[oldest->index];
        if (oldest->operation) {
            oldest->operation->waitUntilFinished();
            oldest->operation = nullptr;
            --decoding;
            bytesInFlight -= chunk.sectorCount * kSectorSize;
            if (oldest->failure) {
                if (error) *error = oldest->failure;
                return false;
            }
        }
        if (!visit(oldest->index, isZeroChunk(chunk.type) ? nullptr : oldest->out.data())) {
            if (error) *error = QXDiskImageError(kQXDiskImageErrorCancelled, "stopped");
            return false;
        }
        spare.push_back(std::move(oldest));
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
