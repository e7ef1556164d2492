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

// The chunk list in short: "f<address>/<file address>:<length>" for a file
// chunk, "m<address>:<length>" for a memory chunk.
inline std::string chunksOf(QXDataReference& reference) {
    std::string out;
    for (auto chunk = reference.firstChunk(); chunk; chunk = chunk->nextChunk()) {
        out += (out.empty() ? "" : " ") + std::string(chunk->isMemoryChunk() ? "m" : "f") + std::to_string(chunk->address());
        if (!chunk->isMemoryChunk()) out += "/" + std::to_string(chunk->fileAddress());
        out += ":" + std::to_string(reference.lengthOfChunk(chunk));
    }
    return out;
}

inline Bytes contentsOf(QXDataReference& reference) {
    return toBytes(reference.subdataWithRange(QXDataRange{0, reference.size()}));
}

// What every edit must keep: links both ways, the tail where the reference
// says, addresses rising from 0, no two memory chunks side by side, and the
// lengths adding up to the size.
inline ::testing::AssertionResult listInvariantsHold(QXDataReference& reference) {
    std::uint64_t total = 0;
    QXFileChunk::Ref previous;
    const auto fail = [](auto... what) { return ((::testing::AssertionFailure() << ... << what)); };
    for (auto chunk = reference.firstChunk(); chunk; chunk = chunk->nextChunk()) {
        if (chunk->previousChunk() != previous) return fail("back link broken at ", chunk->address());
        if (chunk->address() != total) return fail("chunk at ", chunk->address(), " should be at ", total);
        if (previous && previous->isMemoryChunk() && chunk->isMemoryChunk()) return fail("adjacent memory chunks at ", total);
        const std::uint64_t length = reference.lengthOfChunk(chunk);
        if (chunk->isMemoryChunk() && length != chunk->data()->length()) return fail("memory chunk at ", total, " spans ", length);
        total += length;
        previous = chunk;
    }
    if (previous != reference.lastChunk()) return fail("the last chunk is not the list's tail");
    if (total != reference.size()) return fail("lengths add up to ", total, ", size is ", reference.size());
    return ::testing::AssertionSuccess();
}

// One edit, applied the same way to a byte array.
struct Edit {
    std::uint64_t location = 0, length = 0;
    Bytes bytes;
    void applyTo(Bytes& model) const {
        const auto begin = model.begin() + static_cast<std::ptrdiff_t>(location);
        model.insert(model.erase(begin, begin + static_cast<std::ptrdiff_t>(length)), bytes.begin(), bytes.end());
    }
    void applyTo(QXDataReference& reference) const { reference.replaceBytesInRange(QXDataRange{location, length}, toData(bytes)); }
};

template <typename... Targets> void applyAll(const std::vector<Edit>& edits, Targets&... targets) {
    for (const Edit& edit : edits) (edit.applyTo(targets), ...);
}

// An insertion, deletion or replacement at a random place of a size-byte
// sequence, often of a few bytes only: a tail moved by one is a write-out's edge.
inline Edit randomEdit(std::mt19937_64& random, std::uint64_t size, std::uint64_t maxInsert = 3000) {
    const auto pick = [&random](std::uint64_t bound) { return bound == 0 ? 0 : random() % (bound + 1); };
    Edit edit;
    const unsigned kind = size == 0 ? 0 : static_cast<unsigned>(random() % 3);
    edit.location = pick(size);
    if (kind != 0) edit.length = pick(std::min<std::uint64_t>(size - edit.location, 1 + random() % 5000));
    if (kind != 1) edit.bytes = randomBytes(1 + random() % (random() % 2 ? 3 : maxInsert), static_cast<unsigned>(random()));
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
    Bytes value(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (size > 0) ::getxattr(path.c_str(), kForkAttribute, value.data(), value.size());
    return value;
}

inline QXDataReference::Ref openReference(const std::string& path, bool fork = false) {
    return QXDataReference::dataReferenceWithURL(qx::URL::fileURLWithPath(path), fork);
}

} // namespace qxtest
