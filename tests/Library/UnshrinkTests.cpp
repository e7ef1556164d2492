// UnshrinkTests.cpp - the unshrink decoder on real entries, round trips and crafted streams.
#include <gtest/gtest.h>

#include "LegacyZipEncoders.h"
#include "LegacyZipFixtures.h"

#include <QXFoundation/QXUnshrink.h>

#include <algorithm>
#include <functional>
#include <random>

namespace {

using Bytes = std::vector<std::uint8_t>;
using legacyzip::PieceSize;
using legacyzip::fixed;
using legacyzip::randomPieces;
using legacyzip::whole;

struct UnshrinkRun {
    int result = -1;
    Bytes out;
};

// Feeds input in pieces and offers output room in pieces, calling again
// while the decoder asks for it and either input or output moved.
UnshrinkRun unshrink(const Bytes& in, std::uint64_t size, const PieceSize& inPiece, const PieceSize& room) {
    UnshrinkRun run;
    QXUnshrinkStream* stream = QXUnshrinkInit(size);
    EXPECT_NE(stream, nullptr);
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
        if (run.result != QXUNSHRINK_AGAIN) break;
        if (at == in.size() && written == 0 && n == 0) break;
    }
    EXPECT_EQ(stream->total_in, at);
    EXPECT_EQ(stream->total_out, run.out.size());
    QXUnshrinkCleanup(stream);
    return run;
}

// A stream of 9-bit codes and control codes, widening when told.
Bytes codes(std::initializer_list<std::pair<unsigned, unsigned>> codeAndWidth) {
    legacyzip::BitWriter bits;
    for (auto [code, width] : codeAndWidth) bits.put(code, width);
    return bits.take();
}

TEST(Unshrink, RealEntriesDecodeExactlyUnlessTheyUseAFreedPreviousCode) {
    const auto streams = legacyzip::fixtureStreams(1);
    ASSERT_GE(streams.size(), 25u) << "shrink fixtures are missing";
    unsigned seed = 1;
    std::size_t orphaned = 0;
    for (const auto& s : streams) {
        SCOPED_TRACE(s.label);
        const std::pair<PieceSize, PieceSize> feeds[] = {{whole(), whole()},
                                                         {fixed(1), whole()},
                                                         {randomPieces(seed, 900), randomPieces(seed + 1, 5000)},
                                                         {randomPieces(seed + 2, 64), fixed(1)}};
        seed += 3;
        for (std::size_t f = 0; f < std::size(feeds); ++f) {
            SCOPED_TRACE(f);
            if (f == 3 && s.uncompressedSize > 200000) continue;  // one byte of room per call: keep it short
            const auto run = unshrink(s.compressed, s.uncompressedSize, feeds[f].first, feeds[f].second);
            if (s.orphans > 0) {
                // The freed previous code has no entry to extend: corrupt by this decoder's rule.
                ASSERT_EQ(run.result, QXUNSHRINK_DATA_ERROR);
                ASSERT_LT(run.out.size(), s.uncompressedSize);
            } else {
                ASSERT_EQ(run.result, QXUNSHRINK_OK);
                ASSERT_EQ(run.out.size(), s.uncompressedSize);
                ASSERT_EQ(legacyzip::sha256Hex(run.out), s.expectedSha256);
            }
        }
        orphaned += s.orphans > 0;
    }
    EXPECT_GE(orphaned, 5u);
    EXPECT_GE(streams.size() - orphaned, 15u);
}

TEST(Unshrink, FullTableRoundTrips) {
    // Enough varied data to widen to 13 bits and run out of codes.
    std::mt19937 rng(5);
    Bytes data;
    while (data.size() < 400000) {
        if (rng() % 4 == 0 && data.size() > 100) {
            const std::size_t from = rng() % (data.size() - 50);
            data.insert(data.end(), data.begin() + static_cast<std::ptrdiff_t>(from),
                        data.begin() + static_cast<std::ptrdiff_t>(from + 1 + rng() % 49));
        } else {
            data.push_back(static_cast<std::uint8_t>('a' + rng() % 20));
        }
    }
    const Bytes packed = legacyzip::shrink(data);
    for (const auto& [in, room] : {std::pair{whole(), whole()}, {randomPieces(3, 100), randomPieces(4, 3000)}}) {
        const auto run = unshrink(packed, data.size(), in, room);
        ASSERT_EQ(run.result, QXUNSHRINK_OK);
        ASSERT_TRUE(run.out == data);
    }
}

TEST(Unshrink, TruncatedInputAsksForMoreAndGivesOnlyCorrectBytes) {
    const auto streams = legacyzip::fixtureStreams(1);
    const auto it = std::find_if(streams.begin(), streams.end(), [](const auto& s) { return s.name == "TEST2.XML"; });
    ASSERT_NE(it, streams.end());
    const auto full = unshrink(it->compressed, it->uncompressedSize, whole(), whole()).out;
    ASSERT_EQ(full.size(), it->uncompressedSize);
    for (std::size_t cut = 0; cut < it->compressed.size(); ++cut) {
        const Bytes head(it->compressed.begin(), it->compressed.begin() + static_cast<std::ptrdiff_t>(cut));
        const auto run = unshrink(head, it->uncompressedSize, whole(), whole());
        ASSERT_EQ(run.result, QXUNSHRINK_AGAIN) << "cut at " << cut;
        ASSERT_LT(run.out.size(), full.size());
        ASSERT_TRUE(std::equal(run.out.begin(), run.out.end(), full.begin())) << "cut at " << cut;
    }
}

TEST(Unshrink, CraftedCodeSequences) {
    struct Case {
        const char* what;
        Bytes stream;
        std::uint64_t size;
        int result;
        std::string expected;
    };
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
            EXPECT_EQ(std::string(run.out.begin(), run.out.end()), c.expected);
        }
    }
}

TEST(Unshrink, AStringLongerThanTheRoomIsHandedOutOverSeveralCalls) {
    // 65, 257, 258, 259 decode to A, AA, AAA, AAAA.
    const Bytes stream = codes({{65, 9}, {257, 9}, {258, 9}, {259, 9}});
    QXUnshrinkStream* s = QXUnshrinkInit(10);
    s->next_in = stream.data();
    s->avail_in = stream.size();
    std::string out;
    int result = QXUNSHRINK_AGAIN;
    std::uint8_t byte;
    for (int calls = 0; calls < 20 && result == QXUNSHRINK_AGAIN; ++calls) {
        s->next_out = &byte;
        s->avail_out = 1;
        result = QXUnshrink(s);
        if (s->avail_out == 0) out += static_cast<char>(byte);
    }
    EXPECT_EQ(result, QXUNSHRINK_OK);
    EXPECT_EQ(out, "AAAAAAAAAA");
    // No room at all: nothing happens, and it says so.
    s->avail_out = 0;
    EXPECT_EQ(QXUnshrink(s), QXUNSHRINK_OK);
    QXUnshrinkCleanup(s);
}

TEST(Unshrink, InvalidArgumentsAndRandomInputFailCleanly) {
    EXPECT_EQ(QXUnshrink(nullptr), QXUNSHRINK_INVALID_ARGUMENT);
    QXUnshrinkStream* s = QXUnshrinkInit(10);
    s->avail_in = 3;
    EXPECT_EQ(QXUnshrink(s), QXUNSHRINK_INVALID_ARGUMENT);
    s->avail_in = 0;
    s->avail_out = 3;
    EXPECT_EQ(QXUnshrink(s), QXUNSHRINK_INVALID_ARGUMENT);
    EXPECT_EQ(QXUnshrinkCleanup(s), 0);
    EXPECT_EQ(QXUnshrinkCleanup(nullptr), 0);

    const auto streams = legacyzip::fixtureStreams(1);
    std::mt19937 rng(17);
    for (int round = 0; round < 300; ++round) {
        const auto& real = streams[rng() % streams.size()];
        if (real.compressed.size() > 20000) continue;
        Bytes damaged = real.compressed;
        for (int i = 0; i < 4; ++i) damaged[rng() % damaged.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
        const auto run = unshrink(damaged, real.uncompressedSize, randomPieces(rng(), 200), randomPieces(rng(), 2000));
        EXPECT_LE(run.out.size(), real.uncompressedSize);
        EXPECT_TRUE(run.result == QXUNSHRINK_OK || run.result == QXUNSHRINK_AGAIN || run.result == QXUNSHRINK_DATA_ERROR)
            << run.result;
    }
}

} // namespace
