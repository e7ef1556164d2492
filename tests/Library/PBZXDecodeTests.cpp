// PBZXDecodeTests.cpp - splitting PBZX containers into chunks.
#include "DecompressorPayloads.h"
#include "LegacyZipFixtures.h"
#include "TestSupport.h"

#include <QXFoundation/QXPBZXDecode.h>

namespace {

using qxtest::Bytes;

struct Chunk {
    Bytes data;
    bool compressed = false;
    std::uint64_t uncompressedSize = 0;
    bool operator==(const Chunk&) const = default;
};

Bytes container(const std::vector<Chunk>& chunks, bool magic) {
    Bytes out;
    if (magic) out = {'p', 'b', 'z', 'x'};
    decompressorpayloads::appendBigEndian64(out, 0x1000000);
    for (const auto& c : chunks) {
        decompressorpayloads::appendBigEndian64(out, c.uncompressedSize);
        decompressorpayloads::appendBigEndian64(out, c.data.size());
        out.insert(out.end(), c.data.begin(), c.data.end());
    }
    return out;
}

QXPBZXDecodeStream* init(legacyzip::FailingAllocator* hooks) {
    return hooks ? QXPBZXDecodeInitWithAllocator(legacyzip::FailingAllocator::alloc, legacyzip::FailingAllocator::release, hooks)
                 : QXPBZXDecodeInit();
}

// Feeds the container split at the given offsets and collects the chunks by
// the started/ended flags alone, as the decompressor reads them: flags count
// only with bytes (a chunk without data bytes is nothing to decode).
std::vector<Chunk> split(const Bytes& in, const std::vector<std::size_t>& cuts, std::size_t room, int* result = nullptr,
                         legacyzip::FailingAllocator* hooks = nullptr) {
    std::vector<Chunk> chunks;
    QXPBZXDecodeStream* s = init(hooks);
    if (!s) return *result = legacyzip::kInitFailed, chunks;
    Bytes out(room);
    bool inChunk = false;
    std::size_t from = 0;
    auto cutsAndEnd = cuts;
    cutsAndEnd.push_back(in.size());
    int last = QXPBZX_OK;
    for (std::size_t to : cutsAndEnd) {
        s->next_in = in.data() + from;
        s->avail_in = to - from;
        from = to;
        do {
            s->next_out = out.data();
            s->avail_out = out.size();
            last = QXPBZXDecode(s);
            EXPECT_TRUE(s->avail_in == 0 || last == QXPBZX_MEM_ERROR);
            const std::size_t n = out.size() - s->avail_out;
            if (n == 0) continue;
            if (s->chunk_started) {
                EXPECT_FALSE(inChunk);
                chunks.push_back({{}, s->chunk_compressed, s->chunk_uncompressed_size});
                inChunk = true;
            }
            EXPECT_TRUE(inChunk);
            if (chunks.empty()) break;
            EXPECT_EQ(chunks.back().compressed, s->chunk_compressed);
            chunks.back().data.insert(chunks.back().data.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(n));
            if (s->chunk_ended) inChunk = false;
        } while (last == QXPBZX_AGAIN);
        if (last == QXPBZX_MEM_ERROR) break;
    }
    if (result) *result = last;
    else EXPECT_EQ(last, QXPBZX_OK);
    EXPECT_TRUE(last != QXPBZX_OK || !inChunk);
    QXPBZXDecodeCleanup(s);
    return chunks;
}

// Stored and compressed chunks of several sizes, an empty one among them.
std::vector<Chunk> sampleChunks() {
    std::vector<Chunk> chunks;
    for (std::size_t size : {40u, 1u, 0u, 300u, 17u}) {
        const bool compressed = size % 2 == 0;
        chunks.push_back({qxtest::randomBytes(size, static_cast<unsigned>(size)), compressed, compressed ? size * 3 + 1 : size});
    }
    return chunks;
}

std::vector<Chunk> withoutEmpty(std::vector<Chunk> chunks) {
    std::erase_if(chunks, [](const Chunk& c) { return c.data.empty(); });
    return chunks;
}

TEST(PBZXDecode, RealContainerSplitAtEveryByte) {
    const Bytes in = qxtest::readBytes(std::filesystem::path(QX_TESTDATA_DIR) / "pbzx/pkgbuild-payload.pbzx");
    ASSERT_EQ(in.size(), 12124u);
    for (std::size_t cut = 0; cut <= in.size(); ++cut) {
        const auto chunks = split(in, {cut}, cut % 2 ? 4096 : 1 << 20);
        ASSERT_EQ(chunks.size(), 1u) << "cut at " << cut;
        ASSERT_TRUE(chunks[0].compressed);
        ASSERT_EQ(chunks[0].uncompressedSize, 22528u);
        ASSERT_EQ(legacyzip::sha256Hex(chunks[0].data), "3a2ece56306c40aa6b054abf8c4dd3fee49a8d6e75464b398af9d89baf840961")
            << "cut at " << cut;
    }
}

TEST(PBZXDecode, ContainersWithAndWithoutMagicSplitAnywhere) {
    const auto want = sampleChunks();
    for (bool magic : {true, false}) {
        SCOPED_TRACE(magic ? "magic" : "no magic");
        const Bytes in = container(want, magic);
        for (std::size_t room : {1u, 7u, 1000u})
            for (std::size_t a = 0; a <= in.size(); a += 3)
                for (std::size_t b = a; b <= in.size(); b += 37) ASSERT_EQ(split(in, {a, b}, room), withoutEmpty(want));
    }
}

TEST(PBZXDecode, EveryTruncationWaitsForInputUnlessAtAChunkBoundary) {
    const Bytes in = container({{{'x', 'y'}, false, 2}, {{'z'}, true, 9}}, true);
    const std::size_t boundaries[] = {12, 30, in.size()};  // after the header and after each chunk
    Bytes withByteMore = in;  // so that the whole container is a cut too
    withByteMore.push_back(0);
    legacyzip::forEveryOffset(withByteMore, [&](const Bytes& head, const Bytes&, std::size_t cut) {
        int result = -1;
        const auto chunks = split(head, {}, 64, &result);
        const bool boundary = std::find(std::begin(boundaries), std::end(boundaries), cut) != std::end(boundaries);
        EXPECT_EQ(result, boundary ? QXPBZX_OK : QXPBZX_NEED_INPUT);
        EXPECT_EQ(chunks.size(), cut <= 28 ? 0u : cut <= 46 ? 1u : 2u);
    });
    // A chunk announcing more than ever comes keeps waiting for it.
    Bytes endless = container({{qxtest::randomBytes(100), true, ~0ull}}, true);
    std::fill_n(endless.begin() + 20, 8, 0xFF);
    int result = -1;
    EXPECT_EQ(split(endless, {}, 64, &result).at(0).data.size(), 100u);
    EXPECT_EQ(result, QXPBZX_NEED_INPUT);
}

TEST(PBZXDecode, EveryRefusedAllocationIsReportedAndNothingLeaks) {
    const Bytes in = container(sampleChunks(), true);
    std::vector<std::size_t> cuts;
    for (std::size_t at = 1; at < in.size(); at += 5) cuts.push_back(at);
    legacyzip::failEachAllocation(
        [&](legacyzip::FailingAllocator& hooks) {
            int result = -1;
            const auto chunks = split(in, cuts, 3, &result, &hooks);
            EXPECT_TRUE(result != QXPBZX_OK || chunks == withoutEmpty(sampleChunks()));
            return result;
        },
        QXPBZX_MEM_ERROR, QXPBZX_OK);
}

} // namespace
