// LZFSEFuzzer.cpp - libFuzzer target for the LZFSE stream decoder.
//
// Input: the stream itself. It is decoded into ample room; a stream that
// decodes must decode again to the same bytes into room of exactly its size,
// and must fail with one byte less.
#include "Internal/QXLZFSEDecoder.h"

#include "FuzzSupport.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> input(data, data + size); // exact size, so over-reads are caught
    std::vector<std::uint8_t> ample(1 << 17);
    const std::ptrdiff_t n = QXLZFSEDecode(input.data(), input.size(), ample.data(), ample.size());
    fuzz::require(n >= -1 && n <= static_cast<std::ptrdiff_t>(ample.size()));
    if (n < 0) return 0;
    const auto length = static_cast<std::size_t>(n);
    std::vector<std::uint8_t> exact(length);
    fuzz::require(QXLZFSEDecode(input.data(), input.size(), exact.data(), exact.size()) == n);
    fuzz::require(std::equal(exact.begin(), exact.end(), ample.begin()));
    if (length > 0) {
        std::vector<std::uint8_t> short_(length - 1);
        fuzz::require(QXLZFSEDecode(input.data(), input.size(), short_.data(), short_.size()) == -1);
    }
    return 0;
}
