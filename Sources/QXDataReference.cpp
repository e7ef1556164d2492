// QXDataReference.cpp - opening, sizes, reads, the undoable primitives,
// wrapped-data edits and archiving. The file edit walk, the search and the
// write-out live in units of their own.
#include <QXFoundation/QXDataReference.h>

#include "Internal/QXDataReferenceIO.h"

#include <qx/Log.h>
#include <qx/NotificationCenter.h>
#include <qx/String.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

const char* const QXDataReferenceWillChangeNotification = "QXDataReferenceWillChangeNotification";
const char* const QXDataReferenceDidChangeNotification = "QXDataReferenceDidChangeNotification";
const char* const QXDataReferenceDidWriteOutNotification = "QXDataReferenceDidWriteOutNotification";

namespace {

struct ReferenceFactory : QXDataReference {};

// Registered when the library loads, so that unarchiving finds the class.
[[maybe_unused]] const bool registered = [] {
    qx::registerCodingClass("QXDataReference", {"QXDataReference", "NSObject"},
                            [](qx::Coder& coder) -> qx::Ref<qx::Object> { return QXDataReference::initWithCoder(coder); });
    return true;
}();

} // namespace

// What a merge can change in one chunk, for undoing it.
struct QXDataReference::ChunkState {
    Chunk chunk;
    std::uint64_t address;
    std::uint64_t fileAddress;
    qx::Ref<qx::Data> data;  // a copy; nothing for a file chunk
    Chunk next;
    Chunk previous;
    bool addressOnly = false;  // a follower: only its address moves
};

QXDataReference::Ref QXDataReference::dataReferenceWithData(const qx::Ref<qx::Data>& data) {
    Ref reference = std::make_shared<ReferenceFactory>();
    reference->data_ = std::make_shared<qx::Data>(data ? data->vector() : std::vector<std::uint8_t>{});
    return reference;
}

QXDataReference::Ref QXDataReference::dataReferenceWithURL(const qx::Ref<qx::URL>& url, bool isResourceFork) {
    Ref reference = std::make_shared<ReferenceFactory>();
    reference->setURL(url, isResourceFork);
    return reference;
}

QXDataReference::~QXDataReference() {
    if (fileHandle_) fileHandle_->closeFileAndReturnError();
}

QXDataReference::Ref QXDataReference::self() {
    return std::static_pointer_cast<QXDataReference>(shared_from_this());
}

void QXDataReference::setURL(const qx::Ref<qx::URL>& url, bool isResourceFork) {
    if (fileHandle_) fileHandle_->closeFileAndReturnError();
    fileHandle_ = url ? QXRemoteFileHandle::initForReadingFromURL(url) : nullptr;
    const Chunk chunk = QXFileChunk::chunkWithFileAddress(0, 0);
    setFirstChunk(chunk);
    setLastChunk(firstChunk_);
    url_ = url;
    data_.reset();
    isResourceFork_ = isResourceFork;
    fileMatchesContents_ = true;
    cachedSize_ = 0;
    if (!fileHandle_) return;
    if (isResourceFork) {
        std::uint64_t length = 0;
        if (fileHandle_->systemFileHandle() && qxdataref::forkLength(fileHandle_->systemFileHandle()->fileDescriptor(), &length) == 0 &&
            length > 0)
            cachedSize_ = length;
    } else if (fileHandle_->seekToEndOfFileAndReturnError()) {
        cachedSize_ = fileHandle_->offsetInFile();
    }
}

std::uint64_t QXDataReference::fileLength() {
    if (!fileHandle_) return 0;
    if (isResourceFork_) {
        std::uint64_t length = 0;
        if (!fileHandle_->systemFileHandle() || qxdataref::forkLength(fileHandle_->systemFileHandle()->fileDescriptor(), &length) != 0)
            return 0;
        return length;
    }
    return fileHandle_->seekToEndOfFileAndReturnError() ? fileHandle_->offsetInFile() : 0;
}

std::uint64_t QXDataReference::size() {
    std::uint64_t size = 0;
    if (data_) {
        size = data_->length();
    } else if (url_ && firstChunk_) {
        if (cachedSize_ == 0) {
            const Chunk last = lastChunk();
            if (last) cachedSize_ = last->address() + lengthOfChunk(last);
        }
        size = cachedSize_;
    }
    // A fork cannot be larger; reported so on purpose.
    if (isResourceFork_ && size > qxdataref::kMaxForkPosition) size = qxdataref::kMaxForkPosition;
    return size;
}

std::uint64_t QXDataReference::lengthOfChunk(const Chunk& chunk) {
    if (!chunk) return 0;
    if (const Chunk& next = chunk->nextChunk()) return next->address() - chunk->address();
    if (chunk->isMemoryChunk()) return chunk->data()->length();
    const std::uint64_t length = fileLength();
    return length > chunk->fileAddress() ? length - chunk->fileAddress() : 0;
}

// ---- Reading ----

int QXDataReference::readFile(std::uint64_t fileAddress, std::uint64_t length, std::uint8_t* out) {
    if (!fileHandle_ || !fileHandle_->systemFileHandle()) return EBADF;
    const int fd = fileHandle_->systemFileHandle()->fileDescriptor();
    long long got;
    if (isResourceFork_) {
        if (fileAddress > qxdataref::kMaxForkPosition) return EINVAL;
        got = qxdataref::readFork(fd, fileAddress, out, length);
    } else {
        got = qxdataref::readAt(fd, out, length, fileAddress);
    }
    if (got < 0) return errno;
    // The file is shorter than the list says: it changed behind our back.
    if (static_cast<std::uint64_t>(got) < length) return EIO;
    return 0;
}

int QXDataReference::readContents(QXDataRange range, std::vector<std::uint8_t>& out) {
    out.resize(range.length);
    std::uint64_t position = range.location, remaining = range.length, filled = 0;
    for (Chunk chunk = firstChunk_; chunk && remaining > 0; chunk = chunk->nextChunk()) {
        const std::uint64_t a = chunk->address(), l = lengthOfChunk(chunk);
        if (position < a || position >= a + l) continue;
        const std::uint64_t count = std::min(a + l - position, remaining);
        if (chunk->isMemoryChunk()) {
            const auto& bytes = chunk->data()->vector();
            const std::uint64_t offset = std::min<std::uint64_t>(position - a, bytes.size());
            const std::uint64_t available = std::min<std::uint64_t>(count, bytes.size() - offset);
            std::memcpy(out.data() + filled, bytes.data() + offset, available);
            filled += available;
        } else if (const int rc = readFile(chunk->fileAddress() + (position - a), count, out.data() + filled)) {
            out.resize(filled);
            return rc;
        } else {
            filled += count;
        }
        position += count;
        remaining -= count;
    }
    out.resize(filled);
    return 0;
}

qx::Ref<qx::Data> QXDataReference::subdataFromFileHandleWithRange(QXDataRange range) {
    auto result = qx::Data::create();
    auto& out = result->vector();
    std::uint64_t position = range.location, remaining = range.length;
    for (Chunk chunk = firstChunk_; chunk && remaining > 0; chunk = chunk->nextChunk()) {
        const std::uint64_t a = chunk->address(), l = lengthOfChunk(chunk);
        if (position < a || position >= a + l) continue;
        std::uint64_t count = std::min(a + l - position, remaining);
        if (chunk->isMemoryChunk()) {
            const auto& bytes = chunk->data()->vector();
            const std::uint64_t offset = std::min<std::uint64_t>(position - a, bytes.size());
            count = std::min<std::uint64_t>(count, bytes.size() - offset);
            out.insert(out.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                       bytes.begin() + static_cast<std::ptrdiff_t>(offset + count));
        } else {
            const std::size_t before = out.size();
            out.resize(before + count);
            if (const int rc = readFile(chunk->fileAddress() + (position - a), count, out.data() + before)) {
                out.resize(before);
                if (isResourceFork_) QXLog("Error reading resource fork: %@ (%d)", std::string(std::strerror(rc)), rc);
            }
        }
        if (count == 0) break;
        position += count;
        remaining -= count;
    }
    return result;
}

qx::Ref<qx::Data> QXDataReference::subdataWithRange(QXDataRange range) {
    if (data_) {
        const std::uint64_t length = data_->length();
        const std::uint64_t location = std::min(range.location, length);
        return data_->subdata(location, std::min(range.length, length - location));
    }
    if (url_) return subdataFromFileHandleWithRange(range);
    return qx::Data::create();
}

void QXDataReference::getBytes(void* buffer, QXDataRange range) {
    const auto bytes = subdataWithRange(range);
    if (bytes->length() > 0) std::memcpy(buffer, bytes->bytes(), bytes->length());
}

void QXDataReference::getBytes(void* buffer, std::uint64_t length) {
    getBytes(buffer, QXDataRange{0, length});
}

void QXDataReference::getBytes(void* buffer) {
    getBytes(buffer, QXDataRange{0, size()});
}

// ---- The undoable primitives ----

void QXDataReference::willChange() {
    qx::NotificationCenter::defaultCenter()->post(QXDataReferenceWillChangeNotification, self());
}

void QXDataReference::didChange() {
    qx::NotificationCenter::defaultCenter()->post(QXDataReferenceDidChangeNotification, self());
}

template <class F> void QXDataReference::registerInverse(F inverse) {
    if (!undoManager_) return;
    undoManager_->registerUndoWithTarget<QXDataReference>(self(), std::move(inverse));
    undoManager_->registerUndoWithTarget<QXDataReference>(self(), [](QXDataReference& reference) { reference.clearCachedSize(); });
}

void QXDataReference::setFirstChunk(const Chunk& chunk) {
    const Chunk old = firstChunk_;
    willChange();
    firstChunk_ = chunk;
    if (chunk) setPreviousChunkForChunk(nullptr, chunk);
    didChange();
    registerInverse([old](QXDataReference& reference) { reference.setFirstChunk(old); });
}

void QXDataReference::setLastChunk(const Chunk& chunk) {
    const Chunk old = lastChunk();
    willChange();
    lastChunk_ = chunk;
    if (chunk) setNextChunkForChunk(nullptr, chunk);
    didChange();
    registerInverse([old](QXDataReference& reference) { reference.setLastChunk(old); });
}

void QXDataReference::setAddressForChunk(std::uint64_t address, const Chunk& chunk) {
    if (!chunk) return;
    const std::uint64_t old = chunk->address();
    willChange();
    chunk->setAddress(address, true);
    didChange();
    registerInverse([old, chunk](QXDataReference& reference) { reference.setAddressForChunk(old, chunk); });
}

void QXDataReference::setFileAddressForChunk(std::uint64_t fileAddress, const Chunk& chunk) {
    if (!chunk) return;
    const std::uint64_t old = chunk->fileAddress();
    const qx::Ref<qx::Data> oldData = chunk->data();
    willChange();
    chunk->setFileAddress(fileAddress);
    didChange();
    registerInverse([old, oldData, chunk](QXDataReference& reference) {
        if (oldData) {
            reference.restoreChunks({ChunkState{chunk, chunk->address(), 0, oldData, chunk->nextChunk(), chunk->previousChunk(), false}},
                                    reference.firstChunk());
        } else {
            reference.setFileAddressForChunk(old, chunk);
        }
    });
}

void QXDataReference::setNextChunkForChunk(const Chunk& next, const Chunk& chunk) {
    if (!chunk) return;
    const Chunk old = chunk->nextChunk();
    if (next && next != old && chunk->isMemoryChunk() && next->isMemoryChunk()) {
        // A merge rewrites the survivor's bytes, may unlink memory chunks
        // before it and moves every follower; what it touches is kept so that
        // one step restores it (followers by their addresses only).
        std::vector<ChunkState> states;
        if (undoManager_) {
            auto keep = [&states](const Chunk& c, bool whole) {
                for (const auto& state : states)
                    if (state.chunk == c) return;
                states.push_back({c, c->address(), c->fileAddress(),
                                  whole && c->data() ? std::make_shared<qx::Data>(c->data()->vector()) : nullptr, c->nextChunk(),
                                  c->previousChunk(), !whole});
            };
            Chunk c = chunk;
            for (; c && c->isMemoryChunk(); c = c->previousChunk()) keep(c, true);
            if (c) keep(c, true);
            keep(next, true);
            if (old) keep(old, true);
            for (c = next->nextChunk(); c; c = c->nextChunk()) keep(c, false);
        }
        const Chunk first = firstChunk_;
        willChange();
        chunk->setNextChunk(next);
        didChange();
        if (undoManager_)
            registerInverse([states = std::move(states), first](QXDataReference& reference) { reference.restoreChunks(states, first); });
        // The merged-away chunks that had no previous chunk stay in front of the survivor.
        if (firstChunk_ && firstChunk_->isMemoryChunk() && firstChunk_->nextChunk() == next && firstChunk_ != next)
            setFirstChunk(next);
        return;
    }
    // Linking also moves back links (the new next's, the old next's); the
    // inverse puts those back too, or undo would leave them pointing astray.
    const Chunk nextPrevious = next ? next->previousChunk() : nullptr;
    const Chunk oldPrevious = old ? old->previousChunk() : nullptr;
    willChange();
    chunk->setNextChunk(next);
    didChange();
    registerInverse([old, chunk, next, nextPrevious, oldPrevious](QXDataReference& reference) {
        reference.setNextChunkForChunk(old, chunk);
        if (next && next->previousChunk() != nextPrevious) reference.setPreviousChunkForChunk(nextPrevious, next);
        if (old && old->previousChunk() != oldPrevious) reference.setPreviousChunkForChunk(oldPrevious, old);
    });
}

void QXDataReference::restoreChunks(const std::vector<ChunkState>& states, const Chunk& first) {
    std::vector<ChunkState> current;
    current.reserve(states.size());
    for (const auto& state : states) {
        const Chunk& c = state.chunk;
        current.push_back({c, c->address(), c->fileAddress(),
                           !state.addressOnly && c->data() ? std::make_shared<qx::Data>(c->data()->vector()) : nullptr, c->nextChunk(),
                           c->previousChunk(), state.addressOnly});
    }
    const Chunk currentFirst = firstChunk_;
    willChange();
    // Relinked while every chunk is a file chunk, so that no link merges;
    // the bytes come back afterwards.
    for (const auto& state : states)
        if (!state.addressOnly) state.chunk->setFileAddress(state.fileAddress);
    for (const auto& state : states)
        if (!state.addressOnly) state.chunk->setNextChunk(state.next);
    for (const auto& state : states) {
        if (!state.addressOnly) {
            state.chunk->setPreviousChunk(state.previous);
            if (state.data) state.chunk->setData(state.data);
        }
        state.chunk->setAddress(state.address, false);
    }
    firstChunk_ = first;
    didChange();
    registerInverse([current, currentFirst](QXDataReference& reference) { reference.restoreChunks(current, currentFirst); });
}

void QXDataReference::setPreviousChunkForChunk(const Chunk& previous, const Chunk& chunk) {
    if (!chunk) return;
    const Chunk old = chunk->previousChunk();
    willChange();
    chunk->setPreviousChunk(previous);
    didChange();
    registerInverse([old, chunk](QXDataReference& reference) { reference.setPreviousChunkForChunk(old, chunk); });
}

void QXDataReference::appendDataToDataChunk(const qx::Ref<qx::Data>& data, const Chunk& chunk) {
    if (!chunk || !chunk->isMemoryChunk() || !data) return;
    const std::uint64_t oldLength = chunk->data()->length();
    willChange();
    chunk->data()->append(*data);
    didChange();
    const QXDataRange appended{oldLength, data->length()};
    registerInverse([appended, chunk](QXDataReference& reference) {
        reference.replaceRangeInDataChunk(appended, chunk, qx::Data::create());
    });
}

void QXDataReference::replaceRangeInDataChunk(QXDataRange range, const Chunk& chunk, const qx::Ref<qx::Data>& data) {
    if (!chunk || !chunk->isMemoryChunk()) return;
    auto& bytes = chunk->data()->vector();
    const std::uint64_t location = std::min<std::uint64_t>(range.location, bytes.size());
    const std::uint64_t length = std::min<std::uint64_t>(range.length, bytes.size() - location);
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(location);
    auto old = std::make_shared<qx::Data>(std::vector<std::uint8_t>(begin, begin + static_cast<std::ptrdiff_t>(length)));
    const std::uint64_t newLength = data ? data->length() : 0;
    willChange();
    const auto at = bytes.erase(begin, begin + static_cast<std::ptrdiff_t>(length));
    if (data) bytes.insert(at, data->vector().begin(), data->vector().end());
    didChange();
    const QXDataRange inserted{location, newLength};
    registerInverse([inserted, chunk, old](QXDataReference& reference) { reference.replaceRangeInDataChunk(inserted, chunk, old); });
}

// ---- Editing ----

void QXDataReference::replaceBytesInRange(QXDataRange range, const qx::Ref<qx::Data>& data) {
    replaceBytesInRange(range, data ? data->bytes() : nullptr, data ? data->length() : 0);
}

void QXDataReference::replaceBytesInRange(QXDataRange range, const void* bytes, std::uint64_t length) {
    if (data_) {
        replaceDataBytes(range, bytes, length);
    } else if (url_) {
        replaceFileHandleBytes(range, bytes, length);
    }
}

void QXDataReference::replaceDataBytes(QXDataRange range, const void* bytes, std::uint64_t length) {
    const auto old = subdataWithRange(range);
    const std::uint64_t size = data_->length();
    std::uint64_t location = range.location;
    if (location > size) location = size;
    // The location, not the length, is what gets clipped; callers have always seen it so.
    if (location + range.length > size) location = size - location;
    const std::uint64_t count = std::min(range.length, size - location);
    willChange();
    auto& vector = data_->vector();
    const auto begin = vector.begin() + static_cast<std::ptrdiff_t>(location);
    const auto at = vector.erase(begin, begin + static_cast<std::ptrdiff_t>(count));
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    if (p && length > 0) vector.insert(at, p, p + length);
    didChange();
    if (undoManager_) {
        const QXDataRange inverse{location, length};
        undoManager_->registerUndoWithTarget<QXDataReference>(self(), [inverse, old](QXDataReference& reference) {
            reference.replaceBytesInRange(inverse, old);
        });
    }
}

void QXDataReference::discardChanges() {
    const Chunk chunk = QXFileChunk::chunkWithFileAddress(0, 0);
    setFirstChunk(chunk);
    setLastChunk(firstChunk_);
    clearCachedSize();
}

// ---- Archiving ----

void QXDataReference::encodeWithCoder(qx::Coder& coder) const {
    (void)registered;
    const qx::Ref<qx::Object> url = url_ ? qx::Ref<qx::Object>(qx::str(url_->absoluteString())) : nullptr;
    if (coder.allowsKeyedCoding()) {
        coder.encodeObject(url, "URL");
        coder.encodeObject(data_, "Data");
        coder.encodeBool(isResourceFork_, "IsResourceFork");
    } else {
        coder.encodeObject(url);
        coder.encodeObject(data_);
        coder.encodeUInt64(isResourceFork_ ? 1 : 0);
    }
}

QXDataReference::Ref QXDataReference::initWithCoder(qx::Coder& coder) {
    qx::Ref<qx::Object> url, data;
    bool fork;
    if (coder.allowsKeyedCoding()) {
        url = coder.decodeObject("URL");
        data = coder.decodeObject("Data");
        fork = coder.decodeBool("IsResourceFork");
    } else {
        url = coder.decodeObject();
        data = coder.decodeObject();
        fork = coder.decodeUInt64() != 0;
    }
    if (auto bytes = qx::dyn_cast<qx::Data>(data)) return dataReferenceWithData(bytes);
    auto text = qx::dyn_cast<qx::String>(url);
    auto parsed = text ? qx::URL::URLWithString(text->utf8()) : nullptr;
    return parsed ? dataReferenceWithURL(parsed, fork) : nullptr;
}
