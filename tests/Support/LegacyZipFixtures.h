// LegacyZipFixtures.h - the real shrink and implode streams under tests/fixtures/zip.
//
// Archive entries are cut out of their archives at the offsets the per-entry
// manifests give; raw streams come with their expected output. Each stream
// knows what its decoded bytes must hash to. Also: input piece sizes and
// memory hooks that refuse one allocation, shared by the decoders' tests.
#pragma once

#include "TestSupport.h"

namespace legacyzip {

struct FixtureStream {
    std::string label;                       // archive or raw file, and entry name
    std::string name;                        // the entry's stored name
    int method = 0;                          // 1 shrink, 6 implode
    unsigned flags = 0;                      // general-purpose flags
    std::uint64_t uncompressedSize = 0;
    std::vector<std::uint8_t> compressed;
    std::string expectedSha256;              // lower-case hex
    std::uint64_t orphans = 0;               // shrink only: see the fixtures' README
};

const std::filesystem::path& fixtureRoot();
/// Every stream of the given method, archive entries first; empty on a broken fixture tree.
std::vector<FixtureStream> fixtureStreams(int method);
using qxtest::readBytes;
std::string sha256Hex(const std::uint8_t* bytes, std::size_t length);
inline std::string sha256Hex(const std::vector<std::uint8_t>& bytes) { return sha256Hex(bytes.data(), bytes.size()); }

/// How many input bytes the next call of a decoder gets: the whole rest, a
/// fixed count, or random counts from 1 to largest (reproducible by seed).
using PieceSize = std::function<std::size_t()>;
inline PieceSize whole() { return [] { return SIZE_MAX; }; }
inline PieceSize fixed(std::size_t n) { return [n] { return n; }; }
inline PieceSize randomPieces(unsigned seed, std::size_t largest) {
    auto rng = std::make_shared<std::mt19937>(seed);
    return [rng, largest] { return std::uniform_int_distribution<std::size_t>(1, largest)(*rng); };
}

/// Memory hooks for a decoder that refuse allocation number failAt (from 0)
/// and count the blocks still live.
struct FailingAllocator {
    std::size_t failAt = SIZE_MAX;
    std::size_t calls = 0;
    long live = 0;
    bool refused() const { return calls > failAt; }
    static void* alloc(void* self, std::size_t items, std::size_t size) {
        auto& a = *static_cast<FailingAllocator*>(self);
        if (a.calls++ == a.failAt) return nullptr;
        ++a.live;
        return std::malloc(items * size);
    }
    static void release(void* self, void* address) {
        --static_cast<FailingAllocator*>(self)->live;
        std::free(address);
    }
};

/// Calls check(head, damaged, at) for every offset of a stream: head is the
/// stream cut there, damaged the whole stream with one bit of that byte flipped.
using Check = std::function<void(const std::vector<std::uint8_t>&, const std::vector<std::uint8_t>&, std::size_t)>;
inline void forEveryOffset(const std::vector<std::uint8_t>& stream, const Check& check) {
    for (std::size_t at = 0; at < stream.size() && !::testing::Test::HasFatalFailure(); ++at) {
        SCOPED_TRACE("offset " + std::to_string(at));
        auto damaged = stream;
        damaged[at] ^= static_cast<std::uint8_t>(1u << (at % 8));
        check({stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(at)}, damaged, at);
    }
}

/// decode's result when its Init gave null.
constexpr int kInitFailed = -1;

/// Runs decode with allocation N refused for N = 0, 1, ... until a run needs
/// every allocation it asks for: each refused run must end in outOfMemory (or
/// a failed Init), the last in success, and no run may leave a block behind.
inline void failEachAllocation(const std::function<int(FailingAllocator&)>& decode, int outOfMemory, int success) {
    for (std::size_t n = 0;; ++n) {
        FailingAllocator hooks;
        hooks.failAt = n;
        const int result = decode(hooks);
        ASSERT_EQ(hooks.live, 0) << "a leak after refusing allocation " << n;
        if (!hooks.refused()) {
            EXPECT_EQ(result, success);
            EXPECT_GE(n, 3u) << "the stream, its state and its buffers come from the hooks";
            return;
        }
        ASSERT_TRUE(result == kInitFailed || result == outOfMemory) << result << " after refusing allocation " << n;
    }
}

} // namespace legacyzip
