// DiskImageFixtures.h - the real disk images under tests/fixtures/dmg and a
// builder of small UDIF images whose every field a test can control.
//
// The builder exists for what the real samples cannot show: chunk kinds no
// sample has (xz), chunks stored out of order with a table data offset, and
// tables whose fields lie. It writes what a careful writer would (checksums
// included), then lets a test change the table bytes before they are stored.
#pragma once

#include "TestSupport.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace diskimage {

using qxtest::Bytes;

std::string fixturePath(const std::string& name);
Bytes fixture(const std::string& name);
/// The decoded disk of every nodeudif-compression-* sample.
inline constexpr const char* kSmallDiskSha256 = "0786ad1fdcba31a3f03ee80eb1d6e8c7ee2f4647a2b4b6f1855c9fe0719784de";

void putBE32(Bytes& bytes, std::size_t at, std::uint32_t value);
void putBE64(Bytes& bytes, std::size_t at, std::uint64_t value);
std::uint32_t crc32Of(const Bytes& bytes);

/// One chunk of a built table: its kind and the sectors it decodes to
/// (zeros for zero-fill and ignore chunks, which store nothing).
struct ChunkSpec {
    std::uint32_t type;
    Bytes decoded;  // a multiple of 512 bytes
};

struct TableSpec {
    std::string name = "disk image (Apple_HFS : 1)";
    std::int64_t id = 1;
    std::vector<ChunkSpec> chunks;
};

struct BuildOptions {
    bool storeReversed = false;    // chunks stored last to first in the data fork
    std::uint64_t dataOffset = 0;  // every table's data offset (that many filler bytes lead the fork)
    std::uint32_t variant = 1;
    /// Changes a table's bytes (by table index) after checksums are set.
    std::function<void(std::size_t table, Bytes& mish)> editTable;
};

struct BuiltImage {
    Bytes file;
    Bytes disk;                    // what the image must decode to
    std::size_t trailerOffset = 0;
};

/// A flattened UDIF image with the tables laid end to end from sector 0.
BuiltImage buildImage(const std::vector<TableSpec>& tables, const BuildOptions& options = {});

/// The byte offsets of block-table fields and of chunk entry k's fields.
namespace mish {
inline constexpr std::size_t kFirstSector = 8, kSectorCount = 16, kDataOffset = 24, kChecksumType = 64,
                             kEntryCount = 200, kFirstEntry = 0xCC, kEntrySize = 40;
inline std::size_t entry(std::size_t k, std::size_t field) { return kFirstEntry + k * kEntrySize + field; }
inline constexpr std::size_t kType = 0, kChunkSector = 8, kChunkSectors = 16, kChunkOffset = 24, kChunkLength = 32;
} // namespace mish

} // namespace diskimage
