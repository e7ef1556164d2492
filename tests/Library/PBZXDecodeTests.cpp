// PBZXDecodeTests.cpp - splitting PBZX containers into chunks.
#include <gtest/gtest.h>

#include "LegacyZipFixtures.h"

#include <QXFoundation/QXPBZXDecode.h>

#include <filesystem>
#include <random>
#include <string>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Chunk {
    Bytes data;
    bool compressed = false;
    std::uint64_t uncompressedSize = 0;
};

void putBigEndian64(Bytes& out, std::uint64_t v) {
    for (int i = 7; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

Bytes container(const std::vector<Chunk>& chunks, bool magic, std::uint64_t flags = 0x1000000) {
    Bytes out;
    if (magic)
        for (char c : {'p', 'b', 'z', 'x'}) out.push_back(static_cast<std::uint8_t>(c));
    putBigEndian64(out, flags);
    for (const auto& c : chunks) {
        putBigEndian64(out, c.compressed ? c.uncompressedSize : c.data.size());
        putBigEndian64(out, c.data.size());
        for (auto b : c.data) out.push_back(b);
    }
    return out;
}

// Feeds the container split at the given offsets and collects the chunks by
// the started/ended flags alone, checking every result on the way.
std::vector<Chunk> split(const Bytes& in, const std::vector<std::size_t>& cuts, std::size_t room) {
    std::vector<Chunk> chunks;
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    EXPECT_NE(s, nullptr);
    Bytes out(room);
    bool inChunk = false;
    std::size_t from = 0;
    auto cutsAndEnd = cuts;
    cutsAndEnd.push_back(in.size());
    int result = QXPBZX_OK;
    for (std::size_t to : cutsAndEnd) {
        s->next_in = in.data() + from;
        s->avail_in = to - from;
        from = to;
        do {
            s->next_out = out.data();
            s->avail_out = out.size();
            result = QXPBZXDecode(s);
            EXPECT_EQ(s->avail_in, 0u);
            const std::size_t n = out.size() - s->avail_out;
            // As the decompressor reads them: flags count only with bytes (a
            // chunk without data bytes is nothing to decode).
            if (n > 0) {
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
            }
        } while (result == QXPBZX_AGAIN);
    }
    EXPECT_EQ(result, QXPBZX_OK);
    EXPECT_FALSE(inChunk);
    EXPECT_EQ(s->total_in, in.size());
    QXPBZXDecodeCleanup(s);
    return chunks;
}

std::vector<Chunk> sampleChunks() {
    std::mt19937 rng(3);
    std::vector<Chunk> chunks;
    for (std::size_t size : {40u, 1u, 0u, 300u, 17u}) {
        Chunk c;
        for (std::size_t i = 0; i < size; ++i) c.data.push_back(static_cast<std::uint8_t>(rng()));
        c.compressed = size % 2 == 0;
        c.uncompressedSize = c.compressed ? size * 3 + 1 : size;
        chunks.push_back(c);
    }
    return chunks;
}

void expectSameChunks(const std::vector<Chunk>& got, std::vector<Chunk> want) {
    std::erase_if(want, [](const Chunk& c) { return c.data.empty(); });
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].data, want[i].data) << "chunk " << i;
        EXPECT_EQ(got[i].compressed, want[i].compressed) << "chunk " << i;
        EXPECT_EQ(got[i].uncompressedSize, want[i].uncompressedSize) << "chunk " << i;
    }
}

TEST(PBZXDecode, RealContainerSplitAtEveryByte) {
    const auto path = std::filesystem::path(QX_TESTDATA_DIR) / "pbzx/pkgbuild-payload.pbzx";
    const Bytes in = legacyzip::readBytes(path);
    ASSERT_EQ(in.size(), 12124u);
    const std::string chunkSha256 = "3a2ece56306c40aa6b054abf8c4dd3fee49a8d6e75464b398af9d89baf840961";
    for (std::size_t cut = 0; cut <= in.size(); ++cut) {
        const auto chunks = split(in, {cut}, cut % 2 ? 4096 : 1 << 20);
        ASSERT_EQ(chunks.size(), 1u) << "cut at " << cut;
        ASSERT_TRUE(chunks[0].compressed);
        ASSERT_EQ(chunks[0].uncompressedSize, 22528u);
        ASSERT_EQ(legacyzip::sha256Hex(chunks[0].data), chunkSha256) << "cut at " << cut;
    }
}

TEST(PBZXDecode, ContainersWithAndWithoutMagicSplitAnywhere) {
    const auto want = sampleChunks();
    for (bool magic : {true, false}) {
        SCOPED_TRACE(magic ? "magic" : "no magic");
        const Bytes in = container(want, magic);
        for (std::size_t room : {1u, 7u, 1000u}) {
            for (std::size_t a = 0; a <= in.size(); a += 3) {
                for (std::size_t b = a; b <= in.size(); b += 37) expectSameChunks(split(in, {a, b}, room), want);
            }
        }
    }
}

TEST(PBZXDecode, FlagsMarkTheFirstAndLastCallOfAChunk) {
    const Bytes in = container({{{'a', 'b', 'c', 'd', 'e'}, false, 5}}, true);
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    s->next_in = in.data();
    s->avail_in = in.size();
    std::string out;
    for (int call = 0; call < 5; ++call) {
        std::uint8_t byte = 0;
        s->next_out = &byte;
        s->avail_out = 1;
        const int result = QXPBZXDecode(s);
        EXPECT_EQ(result, call < 4 ? QXPBZX_AGAIN : QXPBZX_OK) << call;
        EXPECT_EQ(s->chunk_started, call == 0) << call;
        EXPECT_EQ(s->chunk_ended, call == 4) << call;
        EXPECT_FALSE(s->chunk_compressed);
        out += static_cast<char>(byte);
    }
    EXPECT_EQ(out, "abcde");
    EXPECT_EQ(s->total_out, 5u);
    // Nothing more to come: a clean end, also when empty input arrives.
    s->avail_in = 0;
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_OK);
    QXPBZXDecodeCleanup(s);
}

TEST(PBZXDecode, IncompleteHeadersWaitForInput) {
    const Bytes in = container({{{'x', 'y'}, false, 2}}, true);
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    std::uint8_t out[8];
    s->next_out = out;
    s->avail_out = sizeof out;
    s->next_in = in.data();
    s->avail_in = 10;  // inside the header
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_NEED_INPUT);
    s->avail_in = 12;  // the rest of the header and half a chunk header
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_NEED_INPUT);
    EXPECT_EQ(s->total_out, 0u);
    s->avail_in = in.size() - 22 - 1;  // all but the chunk's last byte
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_NEED_INPUT);
    EXPECT_TRUE(s->chunk_started);
    EXPECT_FALSE(s->chunk_ended);
    s->avail_in = 1;
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_OK);
    EXPECT_FALSE(s->chunk_started);
    EXPECT_TRUE(s->chunk_ended);
    EXPECT_EQ(std::string(out, out + 2), "xy");
    EXPECT_EQ(s->total_in, in.size());
    QXPBZXDecodeCleanup(s);
}

TEST(PBZXDecode, ASizeBeyondTheDataKeepsWaitingAndBadArgumentsAreRefused) {
    Bytes in = {'p', 'b', 'z', 'x'};
    putBigEndian64(in, 0);
    putBigEndian64(in, ~0ull);
    putBigEndian64(in, ~0ull);
    in.insert(in.end(), 100, 0x55);
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    Bytes out(64);
    s->next_in = in.data();
    s->avail_in = in.size();
    s->next_out = out.data();
    s->avail_out = out.size();
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_AGAIN);
    s->next_out = out.data();
    s->avail_out = out.size();
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_NEED_INPUT);
    EXPECT_EQ(s->total_out, 100u);
    EXPECT_FALSE(s->chunk_ended);

    s->avail_in = 1;
    s->next_in = nullptr;
    EXPECT_EQ(QXPBZXDecode(s), QXPBZX_INVALID_ARGUMENT);
    EXPECT_EQ(QXPBZXDecode(nullptr), QXPBZX_INVALID_ARGUMENT);
    EXPECT_EQ(QXPBZXDecodeCleanup(s), 0);
    EXPECT_EQ(QXPBZXDecodeCleanup(nullptr), 0);
}

} // namespace
