// ADCFuzzer.cpp - libFuzzer target for the ADC chunk decoder.
//
// Input: two bytes of output capacity (big-endian, times 16), then the stream.
// Besides not crashing: the count never exceeds the capacity, the same stream
// decodes to the same bytes with exactly that much room, and one byte less
// room is refused.
#include "FuzzSupport.h"

#include "Internal/QXADCDecoder.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t capacity = ((std::size_t{data[0]} << 8) | data[1]) * 16;
    const std::uint8_t* stream = data + 2;
    const std::size_t length = size - 2;
    std::vector<std::uint8_t> first(capacity);
    const std::ptrdiff_t n = QXADCDecode(stream, length, first.data(), capacity);
    if (n < 0) return 0;
    fuzz::require(static_cast<std::size_t>(n) <= capacity);
    std::vector<std::uint8_t> exact(static_cast<std::size_t>(n));
    fuzz::require(QXADCDecode(stream, length, exact.data(), exact.size()) == n);
    fuzz::require(n == 0 || std::memcmp(exact.data(), first.data(), exact.size()) == 0);
    if (n > 0) fuzz::require(QXADCDecode(stream, length, exact.data(), exact.size() - 1) == -1);
    return 0;
}
