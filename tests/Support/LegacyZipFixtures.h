// LegacyZipFixtures.h - the real shrink and implode streams under tests/fixtures/zip.
//
// Archive entries are cut out of their archives at the offsets the per-entry
// manifests give; raw streams come with their expected output. Each stream
// knows what its decoded bytes must hash to.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <filesystem>
#include <string>
#include <vector>

namespace legacyzip {

struct FixtureStream {
    std::string label;                       // archive or raw file, and entry name
    std::filesystem::path archive;           // empty for raw streams
    std::string name;                        // the entry's stored name
    int method = 0;                          // 1 shrink, 6 implode
    unsigned flags = 0;                      // general-purpose flags
    std::uint64_t uncompressedSize = 0;
    std::uint32_t crc32 = 0;
    std::vector<std::uint8_t> compressed;
    std::string expectedSha256;              // lower-case hex
    std::uint64_t orphans = 0;               // shrink only: see the fixtures' README
};

const std::filesystem::path& fixtureRoot();
/// Every stream of the given method, archive entries first; empty on a broken fixture tree.
std::vector<FixtureStream> fixtureStreams(int method);
std::vector<std::uint8_t> readBytes(const std::filesystem::path& path);
std::string sha256Hex(const std::uint8_t* bytes, std::size_t length);
inline std::string sha256Hex(const std::vector<std::uint8_t>& bytes) { return sha256Hex(bytes.data(), bytes.size()); }

/// How many input bytes the next call of a decoder gets: the whole rest, a
/// fixed count, or random counts from 1 to largest (reproducible by seed).
using PieceSize = std::function<std::size_t()>;
inline PieceSize whole() { return [] { return SIZE_MAX; }; }
inline PieceSize fixed(std::size_t n) { return [n] { return n; }; }
inline PieceSize randomPieces(unsigned seed, std::size_t largest) {
    auto rng = std::make_shared<std::mt19937>(seed);
    return [rng, largest] { return std::uniform_int_distribution<std::size_t>(1, largest)(*rng); };
}

} // namespace legacyzip
