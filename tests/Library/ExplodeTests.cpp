// ExplodeTests.cpp - the implode decoder on real entries, round trips and crafted streams.
#include <gtest/gtest.h>

#include "LegacyZipEncoders.h"
#include "LegacyZipFixtures.h"

#include <QXFoundation/QXExplode.h>

#include <algorithm>
#include <functional>
#include <random>

namespace {

using Bytes = std::vector<std::uint8_t>;
using legacyzip::PieceSize;
using legacyzip::fixed;
using legacyzip::randomPieces;
using legacyzip::whole;

struct ExplodeRun {
    int result = -1;
    Bytes out;
};

// Feeds input in pieces of the sizes given, until the decoder stops asking
// for more or the input is gone.
ExplodeRun explode(const Bytes& in, std::uint64_t size, unsigned flags, const PieceSize& piece) {
    ExplodeRun run;
    QXExplodeStream* stream = QXExplodeInit(size, flags & 2, flags & 4);
    EXPECT_NE(stream, nullptr);
    std::size_t at = 0;
    do {
        const std::size_t n = std::min(piece(), in.size() - at);
        stream->next_in = in.data() + at;
        stream->avail_in = n;
        at += n;
        const std::uint8_t* out = nullptr;
        std::uint64_t count = 0;
        run.result = QXExplode(stream, &out, &count);
        if (count > 0) run.out.insert(run.out.end(), out, out + count);
        EXPECT_EQ(stream->avail_in, 0u);
    } while (run.result == QXEXPLODE_NEED_INPUT && at < in.size());
    EXPECT_EQ(stream->total_in, at);
    EXPECT_EQ(stream->total_out, run.out.size());
    QXExplodeCleanup(stream);
    return run;
}

Bytes sampleData(std::size_t size, unsigned seed) {
    // Text-like runs with repeats near and far, and stretches of noise.
    std::mt19937 rng(seed);
    Bytes data;
    const std::string words[] = {"lorem ", "ipsum ", "dolor ", "sit ", "amet, ", "\n", "0123456789"};
    while (data.size() < size) {
        const unsigned kind = rng() % 10;
        if (kind < 6) {
            const auto& w = words[rng() % 7];
            data.insert(data.end(), w.begin(), w.end());
        } else if (kind < 8 && data.size() > 10) {
            const std::size_t back = 1 + rng() % std::min<std::size_t>(data.size(), 9000);
            const std::size_t len = 1 + rng() % 400;
            for (std::size_t i = 0; i < len; ++i) data.push_back(data[data.size() - back]);
        } else {
            for (int i = 0; i < 50; ++i) data.push_back(static_cast<std::uint8_t>(rng()));
        }
    }
    data.resize(size);
    return data;
}

TEST(Explode, EveryRealEntryDecodesExactlyHoweverItsInputIsSplit) {
    const auto streams = legacyzip::fixtureStreams(6);
    ASSERT_GE(streams.size(), 170u) << "implode fixtures are missing";
    unsigned seed = 1;
    for (const auto& s : streams) {
        SCOPED_TRACE(s.label);
        for (const auto& [how, piece] : {std::pair{"whole", whole()}, {"byte by byte", fixed(1)},
                                         {"random pieces", randomPieces(seed++, 700)}}) {
            SCOPED_TRACE(how);
            const auto run = explode(s.compressed, s.uncompressedSize, s.flags, piece);
            ASSERT_EQ(run.result, QXEXPLODE_OK);
            ASSERT_EQ(run.out.size(), s.uncompressedSize);
            ASSERT_EQ(legacyzip::sha256Hex(run.out), s.expectedSha256);
        }
    }
}

TEST(Explode, EveryOptionCombinationRoundTrips) {
    // Real streams only use flags 0 and 6; 2 and 4 differ in minimum match
    // length and low distance bits, which a mix-up of the two flags breaks.
    const Bytes data = sampleData(300000, 7);
    for (unsigned flags : {0u, 2u, 4u, 6u}) {
        SCOPED_TRACE(flags);
        const Bytes packed = legacyzip::implode(data, flags & 2, flags & 4);
        ASSERT_LT(packed.size(), data.size());
        for (const auto& piece : {whole(), randomPieces(flags, 50)}) {
            const auto run = explode(packed, data.size(), flags, piece);
            ASSERT_EQ(run.result, QXEXPLODE_OK);
            ASSERT_TRUE(run.out == data);
        }
        for (unsigned wrong : {0u, 2u, 4u, 6u}) {
            if (wrong == flags) continue;
            const auto run = explode(packed, data.size(), wrong, whole());
            EXPECT_FALSE(run.out == data) << "decoded with flags " << wrong;
        }
    }
}

TEST(Explode, TruncatedInputAsksForMoreAndGivesOnlyCorrectBytes) {
    const auto streams = legacyzip::fixtureStreams(6);
    const auto it = std::find_if(streams.begin(), streams.end(), [](const auto& s) { return s.uncompressedSize == 256; });
    ASSERT_NE(it, streams.end());
    const auto full = explode(it->compressed, it->uncompressedSize, it->flags, whole()).out;
    for (std::size_t cut = 0; cut < it->compressed.size(); ++cut) {
        const Bytes head(it->compressed.begin(), it->compressed.begin() + static_cast<std::ptrdiff_t>(cut));
        const auto run = explode(head, it->uncompressedSize, it->flags, whole());
        ASSERT_EQ(run.result, QXEXPLODE_NEED_INPUT) << "cut at " << cut;
        ASSERT_LT(run.out.size(), full.size());
        ASSERT_TRUE(std::equal(run.out.begin(), run.out.end(), full.begin())) << "cut at " << cut;
    }
}

// A two-tree, 4 KiB stream (minimum match 2, 6 low distance bits) written by hand.
struct CraftedStream {
    legacyzip::BitWriter bits;
    CraftedStream() {
        bits.putBytes(legacyzip::flatSixBitTree());
        bits.putBytes(legacyzip::flatSixBitTree());
    }
    void literal(std::uint8_t b) {
        bits.putBit(1);
        bits.put(b, 8);
    }
    void match(unsigned distance, unsigned length) {
        bits.putBit(0);
        bits.put((distance - 1) & 63, 6);
        legacyzip::putFlatSymbol(bits, (distance - 1) >> 6, 6);
        legacyzip::putFlatSymbol(bits, length - 2, 6);
    }
};

TEST(Explode, MatchesRepeatTheirPatternAndSeeZerosBeforeTheFirstByte) {
    struct Case {
        const char* what;
        std::function<void(CraftedStream&)> write;
        Bytes expected;
    };
    const Case cases[] = {
        {"distance 1 repeats the last byte", [](CraftedStream& s) { s.literal('A'); s.match(1, 10); }, Bytes(11, 'A')},
        {"overlap repeats a longer pattern", [](CraftedStream& s) { s.literal('a'); s.literal('b'); s.literal('c'); s.match(3, 7); },
         Bytes{'a', 'b', 'c', 'a', 'b', 'c', 'a', 'b', 'c', 'a'}},
        {"a match before any output is zeros", [](CraftedStream& s) { s.match(5, 4); s.literal('z'); }, Bytes{0, 0, 0, 0, 'z'}},
        {"a match reaching before the start continues into the output",
         [](CraftedStream& s) { s.literal('A'); s.literal('B'); s.match(3, 5); }, Bytes{'A', 'B', 0, 'A', 'B', 0, 'A'}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CraftedStream s;
        c.write(s);
        const Bytes packed = s.bits.take();
        for (const auto& piece : {whole(), fixed(1)}) {
            const auto run = explode(packed, c.expected.size(), 0, piece);
            EXPECT_EQ(run.result, QXEXPLODE_OK);
            EXPECT_EQ(run.out, c.expected);
        }
    }
}

TEST(Explode, SizeEndsTheOutputEvenInsideAMatch) {
    CraftedStream s;
    s.literal('x');
    s.match(1, 40);
    const auto run = explode(s.bits.take(), 7, 0, whole());
    EXPECT_EQ(run.result, QXEXPLODE_OK);
    EXPECT_EQ(run.out, Bytes(7, 'x'));
}

TEST(Explode, TreesAreReadAcrossCallsBeforeAnEmptyEntryEnds) {
    const Bytes trees = CraftedStream().bits.take();
    QXExplodeStream* stream = QXExplodeInit(0, false, false);
    ASSERT_NE(stream, nullptr);
    std::uint64_t count = 99;
    for (std::size_t i = 0; i + 1 < trees.size(); ++i) {
        stream->next_in = &trees[i];
        stream->avail_in = 1;
        EXPECT_EQ(QXExplode(stream, nullptr, &count), QXEXPLODE_NEED_INPUT) << "after byte " << i;
        EXPECT_EQ(count, 0u);
    }
    stream->next_in = &trees.back();
    stream->avail_in = 1;
    EXPECT_EQ(QXExplode(stream, nullptr, &count), QXEXPLODE_OK);
    EXPECT_EQ(stream->total_out, 0u);
    EXPECT_EQ(QXExplode(stream, nullptr, &count), QXEXPLODE_OK);
    QXExplodeCleanup(stream);
}

TEST(Explode, BadTreesAndMissingCodesFailCleanly) {
    // Three symbols of one bit: two get the same code.
    {
        const Bytes bad = {0x00, 0x20, 0x00, 0x20};
        EXPECT_EQ(explode(bad, 10, 0, whole()).result, QXEXPLODE_BAD_TREE);
        EXPECT_EQ(explode(bad, 10, 0, fixed(1)).result, QXEXPLODE_BAD_TREE);
    }
    // A distance tree with one two-bit code "00": a match whose distance
    // code starts with a 1 has no leaf.
    {
        legacyzip::BitWriter bits;
        bits.putBytes(legacyzip::flatSixBitTree());
        bits.putBytes({0x00, 0x01});
        bits.putBit(0);
        bits.put(0, 6);
        bits.putBit(1);
        bits.putBit(1);
        bits.put(0, 16);
        const auto run = explode(bits.take(), 10, 0, whole());
        EXPECT_EQ(run.result, QXEXPLODE_DATA_ERROR);
        EXPECT_TRUE(run.out.empty());
    }
    // Invalid arguments.
    EXPECT_EQ(QXExplode(nullptr, nullptr, nullptr), QXEXPLODE_INVALID_ARGUMENT);
    QXExplodeStream* stream = QXExplodeInit(1, true, true);
    stream->avail_in = 5;
    EXPECT_EQ(QXExplode(stream, nullptr, nullptr), QXEXPLODE_INVALID_ARGUMENT);
    EXPECT_EQ(QXExplodeCleanup(stream), 0);
    EXPECT_EQ(QXExplodeCleanup(nullptr), 0);
}

TEST(Explode, DamagedRealStreamsNeverOverrunTheirSize) {
    const auto streams = legacyzip::fixtureStreams(6);
    ASSERT_FALSE(streams.empty());
    std::mt19937 rng(99);
    for (int round = 0; round < 300; ++round) {
        const auto& s = streams[rng() % streams.size()];
        if (s.compressed.size() > 20000) continue;
        Bytes damaged = s.compressed;
        for (int i = 0; i < 4; ++i) damaged[rng() % damaged.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
        const auto run = explode(damaged, s.uncompressedSize, s.flags, randomPieces(rng(), 300));
        EXPECT_LE(run.out.size(), s.uncompressedSize);
        EXPECT_TRUE(run.result == QXEXPLODE_OK || run.result == QXEXPLODE_DATA_ERROR ||
                    run.result == QXEXPLODE_NEED_INPUT || run.result == QXEXPLODE_BAD_TREE)
            << run.result;
    }
}

} // namespace
