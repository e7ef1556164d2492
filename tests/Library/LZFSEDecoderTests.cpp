// LZFSEDecoderTests.cpp - whole-stream LZFSE decoding: real disk-image chunks,
// hand-built stored and LZVN blocks, and damaged streams.
#include "LegacyZipFixtures.h"
#include "TestSupport.h"

#include "Internal/QXLZFSEDecoder.h"

#include <string>
#include <vector>

namespace {

using qxtest::Bytes;

const std::filesystem::path kFixtures = std::filesystem::path(QX_TESTDATA_DIR) / "lzfse";
constexpr std::size_t kChunkBytes = 27648; // 54 sectors

Bytes fixture(const std::string& name) { return qxtest::readBytes(kFixtures / name); }

struct Decoded { std::ptrdiff_t result; Bytes output; };

// Input and output sit in buffers of exactly their size, so a sanitizer build
// reports any access past either end.
Decoded decode(const Bytes& stream, std::size_t capacity) {
    const Bytes input(stream);
    Bytes output(capacity);
    const std::ptrdiff_t result = QXLZFSEDecode(input.data(), input.size(), output.data(), output.size());
    if (result >= 0) output.resize(static_cast<std::size_t>(result));
    return {result, output};
}

void appendLE32(Bytes& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

Bytes tagged(char kind) { return {'b', 'v', 'x', static_cast<std::uint8_t>(kind)}; }

Bytes stored(const std::string& raw) {
    Bytes block = tagged('-');
    appendLE32(block, static_cast<std::uint32_t>(raw.size()));
    block.insert(block.end(), raw.begin(), raw.end());
    return block;
}

// An LZVN block of the given opcodes, closed by the end-of-stream opcode and
// its padding unless told otherwise.
Bytes lzvn(std::size_t rawLength, Bytes opcodes, bool closed = true) {
    if (closed) opcodes.insert(opcodes.end(), {0x06, 0, 0, 0, 0, 0, 0, 0});
    Bytes block = tagged('n');
    appendLE32(block, static_cast<std::uint32_t>(rawLength));
    appendLE32(block, static_cast<std::uint32_t>(opcodes.size()));
    block.insert(block.end(), opcodes.begin(), opcodes.end());
    return block;
}

Bytes stream(std::initializer_list<Bytes> blocks, bool ended = true) {
    Bytes out;
    for (const Bytes& b : blocks) out.insert(out.end(), b.begin(), b.end());
    if (ended) {
        const Bytes end = tagged('$');
        out.insert(out.end(), end.begin(), end.end());
    }
    return out;
}

Bytes patched(Bytes bytes, std::size_t offset, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    return bytes;
}

std::uint32_t readLE(const Bytes& bytes, std::size_t offset, int width) {
    std::uint32_t value = 0;
    for (int i = width; i-- > 0;) value = value << 8 | bytes.at(offset + i);
    return value;
}

// The disk's sectors as the zlib image of the same disk decodes them; the
// plain-header files are the packed-header chunks with the header unpacked
// (tests/fixtures/lzfse/make-fixtures.py).
struct RealChunk { const char* file; std::size_t length; const char* sha256; };
const RealChunk kRealChunks[] = {
    {"good-chunk-0.lzfse", 512, "0d06bace5c5354dcc52188f13f0f8de317165c8e8be5a2e7aa559dc6fe16b3ae"},
    {"good-chunk-1.lzfse", kChunkBytes, "8e14e8cd33f58490e1d474fa8c6b4c9673d402c7897c2985734d92516d7475c6"},
    {"good-chunk-2.lzfse", kChunkBytes, "6b75f9ac20dbe591765df9c522905d6edafde7eb68f2598bd585dac64da34685"},
    {"good-v1-chunk-1.lzfse", kChunkBytes, "8e14e8cd33f58490e1d474fa8c6b4c9673d402c7897c2985734d92516d7475c6"},
    {"good-v1-chunk-2.lzfse", kChunkBytes, "6b75f9ac20dbe591765df9c522905d6edafde7eb68f2598bd585dac64da34685"},
};

TEST(LZFSEDecoder, RealChunksDecodeToTheDiskSectors) {
    for (const RealChunk& c : kRealChunks) {
        SCOPED_TRACE(c.file);
        const Bytes in = fixture(c.file);
        ASSERT_FALSE(in.empty());
        const Decoded exact = decode(in, c.length);
        ASSERT_EQ(exact.result, static_cast<std::ptrdiff_t>(c.length));
        EXPECT_EQ(legacyzip::sha256Hex(exact.output), c.sha256);
        EXPECT_EQ(decode(in, c.length + 4096).output, exact.output);
        EXPECT_EQ(decode(in, c.length - 1).result, -1);
    }
}

struct GoodCase { std::string name; Bytes stream; std::string expected; };

// Each distance field at its widest reaches back to the first byte of a stored
// block of exactly that many bytes (one byte less of history must fail: see
// damagedStreams).
const std::tuple<const char*, std::size_t, Bytes> kWidestDistances[] = {
    {"small (11 bits)", 1535, {0x05, 0xFF}},
    {"medium (14 bits)", 16383, {0xA0, 0xFC, 0xFF}},
    {"large (16 bits)", 65535, {0x07, 0xFF, 0xFF}}};

TEST(LZFSEDecoder, HandBuiltBlocks) {
    const std::string twenty = "0123456789abcdefghij";
    Bytes longLiterals = {0xE0, 4};
    longLiterals.insert(longLiterals.end(), twenty.begin(), twenty.end());
    std::vector<GoodCase> cases = {
        {"end block only", stream({}), ""},
        {"stored", stream({stored("hello")}), "hello"},
        {"stored, empty and stored", stream({stored("ab"), stored(""), stored("cd")}), "abcd"},
        {"bytes after the end block", [] { Bytes s = stream({stored("x")}); s.push_back(0xFF); return s; }(), "x"},
        {"short literals", stream({lzvn(3, {0xE3, 'a', 'b', 'c'})}), "abc"},
        {"long literals", stream({lzvn(20, longLiterals)}), twenty},
        {"small distance", stream({lzvn(5, {0x80, 0x02, 'a', 'b'})}), "ababa"},
        {"large distance", stream({lzvn(5, {0x4F, 0x01, 0x00, 'x'})}), "xxxxx"},
        {"medium distance", stream({lzvn(11, {0xE2, 'a', 'b', 0xA9, 0x0D, 0x00, 'c'})}), "abcabcabcab"},
        {"previous distance, short and long match",
         stream({lzvn(30, {0xE1, 'z', 0x00, 0x01, 0x46, 'y', 0xF2, 0xF0, 0x04})}),
         "zzzzyyyyyy" + std::string(20, 'y')},
        {"padding opcodes", stream({lzvn(2, {0x0E, 0xE1, 'p', 0x16, 0xE1, 'q'})}), "pq"},
        {"match reaches into the previous block", stream({stored("abcd"), lzvn(4, {0x08, 0x04})}), "abcdabcd"},
    };
    for (const auto& [name, distance, opcodes] : kWidestDistances) {
        const std::string history = qxtest::toString(qxtest::makePayload(distance));
        cases.push_back({std::string("widest ") + name, stream({stored(history), lzvn(3, opcodes)}),
                         history + history.substr(0, 3)});
    }
    for (const GoodCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Decoded d = decode(c.stream, c.expected.size());
        ASSERT_EQ(d.result, static_cast<std::ptrdiff_t>(c.expected.size()));
        EXPECT_EQ(qxtest::toString(d.output), c.expected);
    }
}

struct BadCase { std::string name; Bytes stream; std::size_t capacity; };

// Plain-header field offsets: the 32-bit counts, then bit counts, states and
// the frequency tables (L, M, D, literal) as 16-bit values.
constexpr std::size_t kV1RawBytes = 4, kV1LiteralCount = 12, kV1LiteralPayload = 20, kV1LiteralBits = 28, kV1LiteralState = 32,
                      kV1LmdBits = 40, kV1LState = 44, kV1DState = 48, kV1LFreq = 50, kV1LiteralFreq = 258;

std::vector<BadCase> damagedStreams() {
    std::vector<BadCase> cases = {
        {"empty input", {}, 16},
        {"no end block", stream({stored("abc")}, false), 16},
        {"end tag cut short", {'b', 'v', 'x'}, 16},
        {"unknown block tag", stream({tagged('3')}), 16},
        {"stored size beyond the input", patched(stream({stored("abc")}), 4, 8, 4), 16},
        {"stored block one byte over the capacity", stream({stored("abcd")}), 3},
        {"LZVN payload size beyond the input", patched(stream({lzvn(1, {0xE1, 'a'})}), 8, 100, 4), 16},
        {"LZVN block without its header", stream({{'b', 'v', 'x', 'n', 1, 0, 0, 0}}, false), 16},
        {"LZVN distance before the output start", stream({lzvn(4, {0xE1, 'a', 0x00, 0x02})}), 16},
        {"LZVN distance zero", stream({lzvn(4, {0xE1, 'a', 0x00, 0x00})}), 16},
        {"LZVN large distance zero", stream({lzvn(4, {0xE1, 'a', 0x07, 0x00, 0x00})}), 16},
        {"LZVN match before any distance", stream({lzvn(4, {0xE1, 'a', 0xF3})}), 16},
        {"LZVN literals beyond the payload", stream({lzvn(5, {0xE5, 'a', 'b'}, false)}), 16},
        {"LZVN operand beyond the payload", stream({lzvn(5, {0xE1, 'a', 0x07, 0x01}, false)}), 16},
        {"LZVN fewer bytes than the block size", stream({lzvn(4, {0xE3, 'a', 'b', 'c'})}), 16},
        {"LZVN literals beyond the block size", stream({lzvn(2, {0xE3, 'a', 'b', 'c'})}), 16},
        {"LZVN match beyond the block size", stream({lzvn(3, {0xE1, 'a', 0x00, 0x01})}), 16},
        {"LZVN without end opcode", stream({lzvn(1, {0xE1, 'a'}, false)}), 16},
        {"LZVN block over the capacity", stream({lzvn(3, {0xE3, 'a', 'b', 'c'})}), 2},
    };
    for (const auto& [name, distance, opcodes] : kWidestDistances) {
        const std::string history = qxtest::toString(qxtest::makePayload(distance)).substr(1);
        cases.push_back({std::string("LZVN widest ") + name + ", one byte short of history",
                         stream({stored(history), lzvn(3, opcodes)}), distance + 2});
    }
    for (std::uint8_t undefined : {0x1E, 0x3E, 0x70, 0x7F, 0xD0, 0xDF})
        cases.push_back({"LZVN undefined opcode " + std::to_string(undefined), stream({lzvn(1, {undefined, 'a'})}), 16});

    const Bytes v1 = fixture("good-v1-chunk-1.lzfse");
    // Room for one byte more than the block, so only the block's own checks can refuse it.
    const auto v1Field = [&](const char* name, std::size_t offset, std::uint32_t value, int width) {
        cases.push_back({std::string("plain header: ") + name, patched(v1, offset, value, width), kChunkBytes + 1});
    };
    const std::uint32_t rawBytes = readLE(v1, kV1RawBytes, 4);
    v1Field("raw size one short", kV1RawBytes, rawBytes - 1, 4);
    v1Field("raw size one over", kV1RawBytes, rawBytes + 1, 4);
    v1Field("literal count four short", kV1LiteralCount, readLE(v1, kV1LiteralCount, 4) - 4, 4);
    v1Field("literal payload beyond the input", kV1LiteralPayload, 0xFFFFF, 4);
    for (std::size_t offset : {kV1LiteralBits, kV1LmdBits}) {
        v1Field("bit count positive", offset, 1, 4);
        v1Field("bit count below -7", offset, static_cast<std::uint32_t>(-8), 4);
    }
    // The fixture leaves two bits of its last match-payload byte unused; they must be clear.
    const std::size_t lastMatchByte = v1.size() - 5;
    v1Field("unused payload bits set", lastMatchByte, v1.at(lastMatchByte) | 0x80, 1);
    v1Field("literal state out of range", kV1LiteralState + 6, 1024, 2);
    v1Field("L state out of range", kV1LState, 64, 2);
    v1Field("D state out of range", kV1DState, 256, 2);
    v1Field("L frequencies over the state count", kV1LFreq, readLE(v1, kV1LFreq, 2) + 1, 2);
    std::size_t literal = kV1LiteralFreq;
    while (readLE(v1, literal, 2) == 0) literal += 2;
    v1Field("literal frequencies short of the state count", literal, readLE(v1, literal, 2) - 1, 2);
    cases.push_back({"plain header cut short", Bytes(v1.begin(), v1.begin() + 771), kChunkBytes});

    const Bytes v2 = fixture("good-chunk-1.lzfse");
    const std::uint32_t headerSize = readLE(v2, 24, 4);
    cases.push_back({"packed header: raw size one short", patched(v2, 4, readLE(v2, 4, 4) - 1, 4), kChunkBytes});
    cases.push_back({"packed header: size below its fixed part", patched(v2, 24, 31, 4), kChunkBytes});
    // More bytes than the codes' read-ahead, so they are left over, not misread.
    Bytes padded = patched(v2, 24, headerSize + 8, 4);
    padded.insert(padded.begin() + headerSize, 8, 0);
    cases.push_back({"packed header: bytes after the frequency codes", padded, kChunkBytes});
    cases.push_back({"packed header: size beyond the input", patched(v2, 24, 0xFFFFFF, 4), kChunkBytes});
    // The match-payload size is bits 40-59 of the second word: all ones.
    cases.push_back({"packed header: match payload beyond the input", patched(v2, 21, 0xFFFFF, 3), kChunkBytes});
    cases.push_back({"packed header: L state out of range", patched(v2, 28, readLE(v2, 28, 2) | 0x3C0, 2), kChunkBytes});
    return cases;
}

TEST(LZFSEDecoder, DamagedStreamsFail) {
    for (const BadCase& c : damagedStreams()) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(decode(c.stream, c.capacity).result, -1);
    }
}

TEST(LZFSEDecoder, TruncationAtEveryByteFails) {
    std::vector<Bytes> streams = {stream({stored("abc"), lzvn(6, {0xE1, 'z', 0x08, 0x04, 0xF1})})};
    for (const RealChunk& c : kRealChunks) streams.push_back(fixture(c.file));
    for (const Bytes& whole : streams) {
        ASSERT_FALSE(whole.empty());
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const Decoded d = decode(Bytes(whole.begin(), whole.begin() + length), kChunkBytes);
            ASSERT_EQ(d.result, -1) << "cut at " << length << " of " << whole.size();
        }
    }
}

// A single flipped bit must either be caught or still produce the block's
// exact size; a sanitizer build checks that nothing is overrun. Every bit of
// the headers' fixed part, then one bit in each later byte.
TEST(LZFSEDecoder, FlippedBitsNeverChangeTheLength) {
    for (const char* file : {"good-chunk-0.lzfse", "good-chunk-1.lzfse", "good-v1-chunk-2.lzfse"}) {
        SCOPED_TRACE(file);
        const Bytes whole = fixture(file);
        const std::ptrdiff_t size = decode(whole, kChunkBytes).result;
        ASSERT_GT(size, 0);
        for (std::size_t bit = 0; bit < 8 * whole.size(); bit += bit < 8 * 52 ? 1 : 9) {
            Bytes damaged = whole;
            damaged[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            const std::ptrdiff_t result = decode(damaged, kChunkBytes).result;
            ASSERT_TRUE(result == -1 || result == size) << "bit " << bit << " gave " << result;
        }
    }
}

} // namespace
