// ADCDecoderTests.cpp - the ADC chunk decoder at its boundaries.
#include "TestSupport.h"

#include "Internal/QXADCDecoder.h"

using qxtest::Bytes;

namespace {

// -1 stands for a refused stream.
std::ptrdiff_t decode(const Bytes& input, std::size_t capacity, Bytes* out = nullptr) {
    Bytes buffer(capacity + 16, 0xCC);
    const std::ptrdiff_t n = QXADCDecode(input.data(), input.size(), buffer.data(), capacity);
    for (std::size_t i = capacity; i < buffer.size(); ++i)
        if (buffer[i] != 0xCC) ADD_FAILURE() << "wrote past the capacity at " << i;
    if (out && n >= 0) out->assign(buffer.begin(), buffer.begin() + n);
    return n;
}

Bytes repeat(std::initializer_list<std::uint8_t> unit, std::size_t times) {
    Bytes out;
    for (std::size_t i = 0; i < times; ++i) out.insert(out.end(), unit);
    return out;
}

TEST(ADCDecoder, EdgeCases) {
    struct Row { const char* label; Bytes input; std::size_t capacity; std::optional<Bytes> output; };  // output nothing: refused
    Bytes literal128 = {0xFF};
    const Bytes payload = qxtest::randomBytes(128, 9);
    literal128.insert(literal128.end(), payload.begin(), payload.end());
    // 2-byte match: length ((b >> 2) & 15) + 3, distance ((b & 3) << 8 | next) + 1.
    // 3-byte match: length (b & 63) + 4, distance (next two bytes) + 1.
    const Row rows[] = {
        {"empty stream", {}, 10, Bytes{}},
        {"one literal", {0x80, 'a'}, 1, Bytes{'a'}},
        {"longest literal run", literal128, 128, payload},
        {"literal run cut short", {0x82, 'a', 'b'}, 10, std::nullopt},
        {"literal one byte over capacity", {0x81, 'a', 'b'}, 1, std::nullopt},
        {"short match repeats the last byte", {0x80, 'x', 0x00, 0x00}, 4, Bytes(4, 'x')},
        {"short match at its longest", {0x80, 'x', 0x3C, 0x00}, 19, Bytes(19, 'x')},
        {"short match overlapping two back", {0x81, 'a', 'b', 0x04, 0x01}, 6, repeat({'a', 'b'}, 3)},
        {"short match reaching before the start", {0x80, 'a', 0x00, 0x01}, 10, std::nullopt},
        {"short match code cut short", {0x80, 'a', 0x00}, 10, std::nullopt},
        {"long match at its shortest, exactly filling the capacity", {0x80, 'z', 0x40, 0x00, 0x00}, 5, Bytes(5, 'z')},
        {"long match at its longest", {0x80, 'z', 0x7F, 0x00, 0x00}, 68, Bytes(68, 'z')},
        {"long match with a far distance", {0x81, 'a', 'b', 0x40, 0x00, 0x01}, 6, repeat({'a', 'b'}, 3)},
        {"long match reaching before the start", {0x81, 'a', 'b', 0x40, 0x00, 0x02}, 10, std::nullopt},
        {"long match code cut short", {0x80, 'a', 0x40, 0x00}, 10, std::nullopt},
        {"match one byte over capacity", {0x80, 'q', 0x40, 0x00, 0x00}, 4, std::nullopt},
        {"match before any output", {0x00, 0x00}, 10, std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        Bytes out;
        const std::ptrdiff_t n = decode(row.input, row.capacity, &out);
        if (!row.output) {
            EXPECT_EQ(n, -1);
            continue;
        }
        EXPECT_EQ(n, static_cast<std::ptrdiff_t>(row.output->size()));
        EXPECT_EQ(out, *row.output);
    }
}

TEST(ADCDecoder, FarthestDistanceReachesTheFirstByte) {
    // 65536 bytes of literals, then a long match at the largest distance.
    Bytes input;
    Bytes expected = qxtest::randomBytes(65536, 5);
    for (std::size_t at = 0; at < expected.size(); at += 128) {
        input.push_back(0xFF);
        input.insert(input.end(), expected.begin() + static_cast<std::ptrdiff_t>(at),
                     expected.begin() + static_cast<std::ptrdiff_t>(at + 128));
    }
    input.insert(input.end(), {0x40, 0xFF, 0xFF});
    expected.insert(expected.end(), expected.begin(), expected.begin() + 4);
    Bytes out;
    ASSERT_EQ(decode(input, expected.size(), &out), static_cast<std::ptrdiff_t>(expected.size()));
    EXPECT_EQ(out, expected);
}

} // namespace
