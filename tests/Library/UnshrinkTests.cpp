// UnshrinkTests.cpp - the unshrink decoder on real entries, round trips and crafted streams.
#include "LegacyZipEncoders.h"
#include "LegacyZipFixtures.h"
#include "TestSupport.h"

#include <QXFoundation/QXUnshrink.h>

namespace {

using qxtest::Bytes;
using namespace legacyzip;

struct UnshrinkRun { int result = -1; Bytes out; };

// Feeds input in pieces and offers output room in pieces, calling again
// while the decoder asks for it and either input or output moved.
UnshrinkRun unshrink(const Bytes& in, std::uint64_t size, const PieceSize& inPiece, const PieceSize& room,
                     FailingAllocator* hooks = nullptr) {
    UnshrinkRun run;
    QXUnshrinkStream* stream = hooks ? QXUnshrinkInitWithAllocator(size, FailingAllocator::alloc, FailingAllocator::release, hooks)
                                     : QXUnshrinkInit(size);
    if (!stream) return {kInitFailed, {}};
    std::size_t at = 0;
    Bytes buffer;
    for (;;) {
        const std::size_t n = std::min(inPiece(), in.size() - at);
        stream->next_in = in.data() + at;
        stream->avail_in = n;
        at += n;
        buffer.assign(std::min<std::size_t>(room(), 1 << 20), 0xEE);
        stream->next_out = buffer.data();
        stream->avail_out = buffer.size();
        run.result = QXUnshrink(stream);
        const std::size_t written = buffer.size() - static_cast<std::size_t>(stream->avail_out);
        EXPECT_EQ(stream->next_out, buffer.data() + written);
        run.out.insert(run.out.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(written));
        if (run.result != QXUNSHRINK_AGAIN || (at == in.size() && written == 0 && n == 0)) break;
    }
    EXPECT_TRUE(stream->total_in == at || (hooks && hooks->refused()));  // a refusal may leave input untaken
    EXPECT_EQ(stream->total_out, run.out.size());
    EXPECT_LE(run.out.size(), size);
    QXUnshrinkCleanup(stream);
    return run;
}

// A stream of codes, each with its width.
Bytes codes(std::initializer_list<std::pair<unsigned, unsigned>> codeAndWidth) {
    BitWriter bits;
    for (auto [code, width] : codeAndWidth) bits.put(code, width);
    return bits.take();
}

TEST(Unshrink, RealEntriesDecodeExactlyUnlessTheyUseAFreedPreviousCode) {
    const auto streams = fixtureStreams(1);
    ASSERT_GE(streams.size(), 25u) << "shrink fixtures are missing";
    unsigned seed = 1;
    for (const auto& s : streams) {
        SCOPED_TRACE(s.label);
        seed += 3;
        const bool small = s.uncompressedSize < 200000;  // one byte of room per call: keep it short
        for (const auto& [in, room] : {std::pair{whole(), whole()}, {fixed(1), whole()},
                                       {randomPieces(seed, 900), randomPieces(seed + 1, 5000)},
                                       {randomPieces(seed + 2, 64), small ? fixed(1) : whole()}}) {
            const auto run = unshrink(s.compressed, s.uncompressedSize, in, room);
            // A freed previous code has no entry to extend: corrupt by this decoder's rule.
            ASSERT_EQ(run.result, s.orphans > 0 ? QXUNSHRINK_DATA_ERROR : QXUNSHRINK_OK);
            ASSERT_TRUE(s.orphans > 0 || sha256Hex(run.out) == s.expectedSha256);
        }
    }
}

TEST(Unshrink, FullTableRoundTrips) {
    // Enough varied data to widen to 13 bits and run out of codes.
    const Bytes data = qxtest::makePayload(400000, 5);
    const Bytes packed = shrink(data);
    for (const auto& [in, room] : {std::pair{whole(), whole()}, {randomPieces(3, 100), randomPieces(4, 3000)}}) {
        const auto run = unshrink(packed, data.size(), in, room);
        ASSERT_EQ(run.result, QXUNSHRINK_OK);
        ASSERT_TRUE(run.out == data);
    }
}

TEST(Unshrink, TruncatedOrCorruptedAtEveryOffset) {
    const auto streams = fixtureStreams(1);
    const auto it = std::find_if(streams.begin(), streams.end(), [](const auto& s) { return s.name == "TEST2.XML"; });
    ASSERT_NE(it, streams.end());
    const auto full = unshrink(it->compressed, it->uncompressedSize, whole(), whole()).out;
    ASSERT_EQ(full.size(), it->uncompressedSize);
    forEveryOffset(it->compressed, [&](const Bytes& head, const Bytes& damaged, std::size_t at) {
        auto run = unshrink(head, it->uncompressedSize, whole(), whole());
        ASSERT_EQ(run.result, QXUNSHRINK_AGAIN);
        ASSERT_LT(run.out.size(), full.size());
        ASSERT_TRUE(std::equal(run.out.begin(), run.out.end(), full.begin()));
        // Damaged: any result but a crash, a failure it does not name or more than the size.
        run = unshrink(damaged, it->uncompressedSize, fixed(at % 5 + 1), fixed(at % 7 + 1));
        EXPECT_TRUE(run.result == QXUNSHRINK_OK || run.result == QXUNSHRINK_AGAIN || run.result == QXUNSHRINK_DATA_ERROR)
            << run.result;
    });
}

TEST(Unshrink, CraftedCodeSequences) {
    struct Case { const char* what; Bytes stream; std::uint64_t size; int result; std::string expected; };
    const Case cases[] = {
        {"a single byte", codes({{65, 9}}), 1, QXUNSHRINK_OK, "A"},
        {"a code defined by its own step", codes({{65, 9}, {257, 9}}), 3, QXUNSHRINK_OK, "AAA"},
        {"widened codes", codes({{65, 9}, {256, 9}, {1, 9}, {66, 10}, {257, 10}}), 4, QXUNSHRINK_OK, "ABAB"},
        {"unknown subcodes are ignored", codes({{65, 9}, {256, 9}, {7, 9}, {66, 9}}), 2, QXUNSHRINK_OK, "AB"},
        // 257..259 have no children, so the clear frees them all; the next
        // entry (D + A) takes 257 again.
        {"a partial clear frees leaves",
         codes({{65, 9}, {66, 9}, {67, 9}, {68, 9}, {256, 9}, {2, 9}, {65, 9}, {257, 9}}), 7, QXUNSHRINK_OK, "ABCDADA"},
        {"widening past 13 bits",
         codes({{256, 9}, {1, 9}, {256, 10}, {1, 10}, {256, 11}, {1, 11}, {256, 12}, {1, 12}, {256, 13}, {1, 13}}), 5,
         QXUNSHRINK_DATA_ERROR, ""},
        {"an unknown first code", codes({{300, 9}}), 5, QXUNSHRINK_DATA_ERROR, ""},
        {"an unknown code that is not the next", codes({{65, 9}, {258, 9}}), 5, QXUNSHRINK_DATA_ERROR, "A"},
        // 257 (AB) and 258 (BA) are leaves when the clear comes; 257 was the
        // previous code, so the next code has nothing to extend.
        {"a previous code freed by a clear", codes({{65, 9}, {66, 9}, {257, 9}, {256, 9}, {2, 9}, {65, 9}}), 9,
         QXUNSHRINK_DATA_ERROR, "ABAB"},
        {"an empty entry", Bytes{}, 0, QXUNSHRINK_OK, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& [in, room] : {std::pair{whole(), whole()}, {fixed(1), fixed(1)}}) {
            const auto run = unshrink(c.stream, c.size, in, room);
            EXPECT_EQ(run.result, c.result);
            EXPECT_EQ(qxtest::toString(run.out), c.expected);
        }
    }
}

TEST(Unshrink, EveryRefusedAllocationIsReportedAndNothingLeaks) {
    const Bytes data = qxtest::makePayload(100000, 9);
    const Bytes packed = shrink(data);
    failEachAllocation(
        [&](FailingAllocator& hooks) { return unshrink(packed, data.size(), fixed(5000), fixed(3), &hooks).result; },
        QXUNSHRINK_MEM_ERROR, QXUNSHRINK_OK);
}

} // namespace
