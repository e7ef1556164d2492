// DataReferenceTestSupport.h - looking into a data reference's chunk list,
// checking its invariants, and a plain byte array to compare it with.
#pragma once

#include "TestSupport.h"

#include <QXFoundation/QXDataReference.h>

#include <cerrno>
#include <cstdlib>
#include <random>

#include <sys/xattr.h>

namespace qxtest {

inline constexpr const char* kForkAttribute = "user.com.apple.ResourceFork";

// One chunk as the tests see it: its kind, address, file address and length.
struct ChunkView {
    bool memory = false;
    std::uint64_t address = 0, fileAddress = 0, length = 0;
    friend bool operator==(const ChunkView&, const ChunkView&) = default;
    friend std::ostream& operator<<(std::ostream& os, const ChunkView& c) {
        return os << (c.memory ? "memory" : "file") << "(at " << c.address << ", file " << c.fileAddress << ", length " << c.length
                  << ")";
    }
};
inline ChunkView fileChunk(std::uint64_t address, std::uint64_t fileAddress, std::uint64_t length) {
    return {false, address, fileAddress, length};
}
inline ChunkView memoryChunk(std::uint64_t address, std::uint64_t length) { return {true, address, 0, length}; }

inline std::vector<ChunkView> chunksOf(QXDataReference& reference) {
    std::vector<ChunkView> views;
    for (auto chunk = reference.firstChunk(); chunk; chunk = chunk->nextChunk())
        views.push_back({chunk->isMemoryChunk(), chunk->address(), chunk->fileAddress(), reference.lengthOfChunk(chunk)});
    return views;
}

inline Bytes contentsOf(QXDataReference& reference) {
    return toBytes(reference.subdataWithRange(QXDataRange{0, reference.size()}));
}

// What every edit must keep: links both ways, the tail where the reference
// says, addresses rising from 0, no two memory chunks side by side, and the
// lengths adding up to the size.
inline ::testing::AssertionResult listInvariantsHold(QXDataReference& reference) {
    std::uint64_t total = 0, expectedAddress = 0;
    QXFileChunk::Ref previous;
    for (auto chunk = reference.firstChunk(); chunk; chunk = chunk->nextChunk()) {
        if (chunk->previousChunk() != previous) return ::testing::AssertionFailure() << "back link broken at " << chunk->address();
        if (chunk->address() != expectedAddress)
            return ::testing::AssertionFailure() << "chunk at " << chunk->address() << " should be at " << expectedAddress;
        if (previous && previous->isMemoryChunk() && chunk->isMemoryChunk())
            return ::testing::AssertionFailure() << "adjacent memory chunks at " << chunk->address();
        const std::uint64_t length = reference.lengthOfChunk(chunk);
        if (chunk->isMemoryChunk() && length != chunk->data()->length())
            return ::testing::AssertionFailure() << "memory chunk at " << chunk->address() << " spans " << length << " bytes but holds "
                                                 << chunk->data()->length();
        total += length;
        expectedAddress += length;
        previous = chunk;
    }
    if (previous != reference.lastChunk()) return ::testing::AssertionFailure() << "the last chunk is not the list's tail";
    if (total != reference.size()) return ::testing::AssertionFailure() << "lengths add up to " << total << ", size is " << reference.size();
    return ::testing::AssertionSuccess();
}

// One edit, applied the same way to a byte array.
struct Edit {
    std::uint64_t location = 0, length = 0;
    Bytes bytes;
    void applyTo(Bytes& model) const {
        const auto begin = model.begin() + static_cast<std::ptrdiff_t>(location);
        const auto at = model.erase(begin, begin + static_cast<std::ptrdiff_t>(length));
        model.insert(at, bytes.begin(), bytes.end());
    }
    void applyTo(QXDataReference& reference) const { reference.replaceBytesInRange(QXDataRange{location, length}, toData(bytes)); }
};

// An insertion, deletion or replacement at a random place of a size-byte sequence.
inline Edit randomEdit(std::mt19937_64& random, std::uint64_t size) {
    const auto pick = [&random](std::uint64_t bound) { return bound == 0 ? 0 : random() % (bound + 1); };
    Edit edit;
    const unsigned kind = size == 0 ? 0 : static_cast<unsigned>(random() % 3);
    edit.location = pick(size);
    if (kind != 0) edit.length = pick(std::min<std::uint64_t>(size - edit.location, 1 + random() % 5000));
    if (kind != 1) edit.bytes = randomBytes(1 + random() % 3000, static_cast<unsigned>(random()));
    return edit;
}

// A file whose resource fork holds bytes; false when the file system refuses
// user attributes (CI must have them: there the refusal is a failure).
inline bool setFork(const std::string& path, const Bytes& bytes) {
    if (::setxattr(path.c_str(), kForkAttribute, bytes.data(), bytes.size(), 0) == 0) return true;
    const bool refused = errno == ENOTSUP || errno == EPERM;
    const char* ci = std::getenv("CI");
    EXPECT_TRUE(refused && !(ci && std::string(ci) == "true")) << "setxattr: " << std::strerror(errno);
    return false;
}

inline Bytes forkOf(const std::string& path) {
    const ssize_t size = ::getxattr(path.c_str(), kForkAttribute, nullptr, 0);
    if (size <= 0) return {};
    Bytes value(static_cast<std::size_t>(size));
    ::getxattr(path.c_str(), kForkAttribute, value.data(), value.size());
    return value;
}

inline QXDataReference::Ref openReference(const std::string& path, bool fork = false) {
    return QXDataReference::dataReferenceWithURL(qx::URL::fileURLWithPath(path), fork);
}

} // namespace qxtest
