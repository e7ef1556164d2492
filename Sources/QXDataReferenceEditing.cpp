// QXDataReferenceEditing.cpp - the file edit walk: how one replacement
// splits file chunks, feeds memory chunks and relinks the list. Every change
// goes through the undoable primitives. The walk's two oddities (the bytes
// offered again to the following chunk, and the shift by n when an insertion
// is appended to a preceding memory chunk) are kept; see QXDataReference.h.
#include <QXFoundation/QXDataReference.h>

#include <algorithm>

namespace {

// Handed back by a file chunk that has no next chunk: the walk ends there.
constexpr std::uint64_t kEndOfWalk = ~0ull;

QXFileChunk::Ref held(QXFileChunk* chunk) {
    return std::static_pointer_cast<QXFileChunk>(chunk->shared_from_this());
}

} // namespace

void QXDataReference::replaceFileHandleBytes(QXDataRange range, const void* bytes, std::uint64_t length) {
    cachedSize_ += length - range.length;
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    const auto data = (p && length > 0) ? qx::Data::withBytes(p, length) : qx::Data::create();
    const std::uint64_t n = data->length();

    unsigned offers = 0;
    bool touched = false;
    // Raw links while passing chunks by (a list runs to many thousand of
    // them); the chunk being edited is held, as the edit may unlink it.
    for (QXFileChunk* chunk = firstChunk_.get(); chunk;) {
        const QXFileChunk* next = chunk->nextChunk().get();
        const std::uint64_t a = chunk->address();
        // Within the chunk, or, for the last one, also just past its end (an append).
        const bool concerned = a <= range.location && (next ? range.location < next->address() : range.location <= a + lengthOfChunk(held(chunk)));
        if (!concerned) {
            if (range.length == 0 && n == 0) break;
            // Addresses only rise along the list: once the location lies
            // before a chunk, no chunk from there on is concerned, and the
            // rest of the walk would pass them by without a change.
            if (next && range.location < next->address() && touched) break;
            chunk = chunk->nextChunk().get();
            continue;
        }
        const Chunk current = held(chunk);
        touched = true;
        if (n > 0) ++offers;
        range = current->isMemoryChunk() ? replaceFileHandleBytesInDataChunk(current, range, data)
                                         : replaceFileHandleBytesInFileHandleChunk(current, range, data);
        if (range.location == kEndOfWalk || (range.length == 0 && n == 0)) break;
        chunk = current->nextChunk().get();
    }
    // The walk gave the bytes more than once, left part of the range in place
    // or found no chunk at all: the size it predicted is not the list's.
    if (offers > 1 || range.length != 0 || !touched) clearCachedSize();
}

QXDataRange QXDataReference::replaceFileHandleBytesInDataChunk(const Chunk& chunk, QXDataRange range, const qx::Ref<qx::Data>& bytes) {
    const std::uint64_t a = chunk->address();
    const std::uint64_t end = a + chunk->data()->length();
    const std::uint64_t inside = std::min(range.length, end > range.location ? end - range.location : 0);
    replaceRangeInDataChunk(QXDataRange{range.location - a, inside}, chunk, bytes);
    const Chunk next = chunk->nextChunk();
    if (next) setAddressForChunk(a + chunk->data()->length(), next);

    if (chunk->data()->length() == 0) {
        const Chunk previous = chunk->previousChunk();
        if (previous && next) {
            setNextChunkForChunk(next, previous);
        } else if (!previous && next) {
            setFirstChunk(next);
        } else if (previous && !next) {
            setLastChunk(previous);
        }
    }
    return QXDataRange{range.location, range.length - inside};
}

QXDataRange QXDataReference::replaceFileHandleBytesInFileHandleChunk(const Chunk& chunk, QXDataRange range,
                                                                     const qx::Ref<qx::Data>& bytes) {
    const std::uint64_t P = range.location, L = range.length, n = bytes->length();
    const std::uint64_t a = chunk->address(), l = lengthOfChunk(chunk), e = a + l;
    const std::uint64_t K = std::min(e - P, L);
    const Chunk previous = chunk->previousChunk();
    const Chunk next = chunk->nextChunk();

    if (n > 0 && P == a && previous && previous->isMemoryChunk()) {
        appendDataToDataChunk(bytes, previous);
        setFileAddressForChunk(chunk->fileAddress() + K, chunk);
        // Moved by n even when K bytes went as well: kept as it has always been.
        setAddressForChunk(chunk->address() + n, chunk);
        if (K > 0) clearCachedSize();
        return next ? QXDataRange{next->address(), L - K} : QXDataRange{kEndOfWalk, L - K};
    }

    if (n == 0 && P == a) {
        setFileAddressForChunk(chunk->fileAddress() + K, chunk);
        if (next) setAddressForChunk(next->address() - K, next);
        if (K == l) {
            // Nothing of the chunk is left: it leaves the list.
            if (previous && next) {
                setNextChunkForChunk(next, previous);
            } else if (previous) {
                setLastChunk(previous);
            } else if (next) {
                setFirstChunk(next);
            }
        }
        return next ? QXDataRange{next->address(), L - K} : QXDataRange{kEndOfWalk, L - K};
    }

    // Split at P. The new memory chunk is put in place first, so that a
    // merge with a following memory chunk finds its predecessor.
    Chunk memory;
    if (n > 0) {
        memory = QXFileChunk::chunkWithData(bytes, P);
    } else if (!next) {
        memory = QXFileChunk::chunkWithData(qx::Data::create(), P);
    }
    if (P == a) {
        if (previous) {
            setNextChunkForChunk(memory ? memory : next, previous);
        } else {
            setFirstChunk(memory ? memory : next);
        }
    } else if (memory) {
        setNextChunkForChunk(memory, chunk);
    }

    if (P + K < e) {
        const Chunk tail = QXFileChunk::chunkWithFileAddress(chunk->fileAddress() + (P - a) + K, P + n);
        setNextChunkForChunk(tail, memory ? memory : chunk);
        if (next) {
            setNextChunkForChunk(next, tail);
            setAddressForChunk(e + n - L, next);
        } else {
            setLastChunk(tail);
        }
    } else if (!next) {
        setLastChunk(memory ? memory : chunk);
    } else if (memory) {
        // The address first: when the two merge, the survivor takes the new
        // chunk's address and its followers move with it.
        setAddressForChunk(P + n, next);
        setNextChunkForChunk(next, memory);
    } else {
        setAddressForChunk(P + n, next);
    }
    return next ? QXDataRange{next->address(), L - K} : QXDataRange{kEndOfWalk, L - K};
}
