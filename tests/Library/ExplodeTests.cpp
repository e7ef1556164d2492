// ExplodeTests.cpp - the implode decoder on real entries, round trips and crafted
// streams; the invalid arguments of all three legacy C decoders.
#include "LegacyZipEncoders.h"
#include "LegacyZipFixtures.h"
#include "TestSupport.h"

#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXPBZXDecode.h>
#include <QXFoundation/QXUnshrink.h>

namespace {

using qxtest::Bytes;
using namespace legacyzip;

struct ExplodeRun {
    int result = -1;
    Bytes out;
    std::size_t taken = 0;  // input handed to the decoder
};

// Feeds input in pieces of the sizes given until the decoder stops asking for more or the input is gone.
ExplodeRun explode(const Bytes& in, std::uint64_t size, unsigned flags, const PieceSize& piece,
                   FailingAllocator* hooks = nullptr) {
    ExplodeRun run;
    QXExplodeStream* stream = hooks ? QXExplodeInitWithAllocator(size, flags & 2, flags & 4, FailingAllocator::alloc,
                                                                 FailingAllocator::release, hooks)
                                    : QXExplodeInit(size, flags & 2, flags & 4);
    if (!stream) return {kInitFailed, {}, 0};
    const auto refused = [&] { return hooks && hooks->refused(); };  // then the input may stay untaken
    do {
        const std::size_t n = std::min(piece(), in.size() - run.taken);
        stream->next_in = in.data() + run.taken;
        stream->avail_in = n;
        run.taken += n;
        const std::uint8_t* out = nullptr;
        std::uint64_t count = 0;
        run.result = QXExplode(stream, &out, &count);
        if (count > 0) run.out.insert(run.out.end(), out, out + count);
        EXPECT_TRUE(stream->avail_in == 0 || refused());
    } while (run.result == QXEXPLODE_NEED_INPUT && run.taken < in.size());
    EXPECT_TRUE(stream->total_in == run.taken || refused());
    EXPECT_EQ(stream->total_out, run.out.size());
    EXPECT_LE(run.out.size(), size);
    QXExplodeCleanup(stream);
    return run;
}

TEST(Explode, EveryRealEntryDecodesExactlyHoweverItsInputIsSplit) {
    const auto streams = fixtureStreams(6);
    ASSERT_GE(streams.size(), 170u) << "implode fixtures are missing";
    unsigned seed = 1;
    for (const auto& s : streams) {
        SCOPED_TRACE(s.label);
        for (const auto& piece : {whole(), fixed(1), randomPieces(seed++, 700)}) {
            const auto run = explode(s.compressed, s.uncompressedSize, s.flags, piece);
            ASSERT_EQ(run.result, QXEXPLODE_OK);
            ASSERT_EQ(sha256Hex(run.out), s.expectedSha256);
        }
    }
}

TEST(Explode, EveryOptionCombinationRoundTrips) {
    // Real streams only use flags 0 and 6; 2 and 4 differ in minimum match
    // length and low distance bits, which a mix-up of the two flags breaks.
    Bytes data = qxtest::makePayload(200000, 7);
    data.resize(203000, 'x');  // matches long enough for the extra length byte
    for (unsigned flags : {0u, 2u, 4u, 6u}) {
        SCOPED_TRACE(flags);
        const Bytes packed = implode(data, flags & 2, flags & 4);
        for (const auto& piece : {whole(), randomPieces(flags, 50)}) {
            const auto run = explode(packed, data.size(), flags, piece);
            ASSERT_EQ(run.result, QXEXPLODE_OK);
            ASSERT_TRUE(run.out == data);
        }
        for (unsigned wrong : {0u, 2u, 4u, 6u})
            EXPECT_TRUE(wrong == flags || explode(packed, data.size(), wrong, whole()).out != data) << wrong;
    }
}

TEST(Explode, TruncatedOrCorruptedAtEveryOffset) {
    const auto streams = fixtureStreams(6);
    const auto it = std::find_if(streams.begin(), streams.end(), [](const auto& s) { return s.uncompressedSize == 256; });
    ASSERT_NE(it, streams.end());
    const Bytes full = explode(it->compressed, it->uncompressedSize, it->flags, whole()).out;
    forEveryOffset(it->compressed, [&](const Bytes& head, const Bytes& damaged, std::size_t at) {
        // Cut: asks for more, and what it gave is the start of the output.
        auto run = explode(head, it->uncompressedSize, it->flags, whole());
        ASSERT_EQ(run.result, QXEXPLODE_NEED_INPUT);
        ASSERT_LT(run.out.size(), full.size());
        ASSERT_TRUE(std::equal(run.out.begin(), run.out.end(), full.begin()));
        // Damaged: any result but a crash or more than the size (which explode() checks).
        EXPECT_NE(explode(damaged, it->uncompressedSize, it->flags, fixed(at % 5 + 1)).result, QXEXPLODE_INVALID_ARGUMENT);
    });
}

// A two-tree, 4 KiB stream (minimum match 2, 6 low distance bits) written by
// hand: {byte} is a literal, {distance, length} a match.
Bytes crafted(std::initializer_list<std::vector<unsigned>> symbols) {
    BitWriter bits;
    bits.putBytes(flatSixBitTree());
    bits.putBytes(flatSixBitTree());
    for (const auto& s : symbols) {
        bits.putBit(s.size() == 1);
        if (s.size() == 1) {
            bits.put(s[0], 8);
            continue;
        }
        bits.put((s[0] - 1) & 63, 6);
        putFlatSymbol(bits, (s[0] - 1) >> 6, 6);
        putFlatSymbol(bits, s[1] - 2, 6);
    }
    return bits.take();
}

TEST(Explode, CraftedStreams) {
    struct Case { const char* what; Bytes stream; std::uint64_t size; int result; Bytes expected; };
    const Case cases[] = {
        {"distance 1 repeats the last byte", crafted({{'A'}, {1, 10}}), 11, QXEXPLODE_OK, Bytes(11, 'A')},
        {"overlap repeats a longer pattern", crafted({{'a'}, {'b'}, {'c'}, {3, 7}}), 10, QXEXPLODE_OK,
         qxtest::toBytes("abcabcabca")},
        {"a match before any output is zeros", crafted({{5, 4}, {'z'}}), 5, QXEXPLODE_OK, Bytes{0, 0, 0, 0, 'z'}},
        {"a match reaching before the start continues into the output", crafted({{'A'}, {'B'}, {3, 5}}), 7,
         QXEXPLODE_OK, Bytes{'A', 'B', 0, 'A', 'B', 0, 'A'}},
        {"the size ends the output inside a match", crafted({{'x'}, {1, 40}}), 7, QXEXPLODE_OK, Bytes(7, 'x')},
        {"an empty entry still reads its trees", crafted({}), 0, QXEXPLODE_OK, {}},
        {"two one-bit codes collide", {0x00, 0x20, 0x00, 0x20}, 10, QXEXPLODE_BAD_TREE, {}},
        // A distance tree with the single code "00", then a match whose distance code starts with 1.
        {"a code with no leaf", {3, 0xF5, 0xF5, 0xF5, 0xF5, 0x00, 0x01, 0x80, 0x01, 0x00, 0x00}, 10,
         QXEXPLODE_DATA_ERROR, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& piece : {whole(), fixed(1)}) {
            const auto run = explode(c.stream, c.size, 0, piece);
            EXPECT_EQ(run.result, c.result);
            EXPECT_EQ(run.out, c.expected);
            EXPECT_TRUE(c.result != QXEXPLODE_OK || run.taken == c.stream.size()) << "ended before its last byte";
        }
    }
}

// All three legacy decoders: no stream, or input announced without its bytes.
TEST(LegacyDecoders, InvalidArgumentsAreRefused) {
    EXPECT_EQ(QXExplode(nullptr, nullptr, nullptr), QXEXPLODE_INVALID_ARGUMENT);
    EXPECT_EQ(QXUnshrink(nullptr), QXUNSHRINK_INVALID_ARGUMENT);
    EXPECT_EQ(QXPBZXDecode(nullptr), QXPBZX_INVALID_ARGUMENT);
    QXExplodeStream* e = QXExplodeInit(1, true, true);
    e->avail_in = 5;
    EXPECT_EQ(QXExplode(e, nullptr, nullptr), QXEXPLODE_INVALID_ARGUMENT);
    QXUnshrinkStream* u = QXUnshrinkInit(10);
    u->avail_in = 3;
    EXPECT_EQ(QXUnshrink(u), QXUNSHRINK_INVALID_ARGUMENT);
    u->avail_in = 0;
    u->avail_out = 3;  // and output room without its buffer
    EXPECT_EQ(QXUnshrink(u), QXUNSHRINK_INVALID_ARGUMENT);
    QXPBZXDecodeStream* p = QXPBZXDecodeInit();
    p->avail_in = 1;
    EXPECT_EQ(QXPBZXDecode(p), QXPBZX_INVALID_ARGUMENT);
    EXPECT_EQ(QXExplodeCleanup(e) + QXUnshrinkCleanup(u) + QXPBZXDecodeCleanup(p), 0);
    EXPECT_EQ(QXExplodeCleanup(nullptr) + QXUnshrinkCleanup(nullptr) + QXPBZXDecodeCleanup(nullptr), 0);
}

TEST(Explode, EveryRefusedAllocationIsReportedAndNothingLeaks) {
    const Bytes data = qxtest::makePayload(150000, 3);
    for (unsigned flags : {0u, 6u}) {
        const Bytes packed = implode(data, flags & 2, flags & 4);
        failEachAllocation([&](FailingAllocator& hooks) { return explode(packed, data.size(), flags, fixed(9000), &hooks).result; },
                           QXEXPLODE_DATA_ERROR, QXEXPLODE_OK);
    }
}

} // namespace
