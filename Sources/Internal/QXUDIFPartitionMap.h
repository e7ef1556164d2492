// QXUDIFPartitionMap.h - how a disk is cut into block tables for writing.
//
// A disk with a GPT or MBR partition table gets one table per partition,
// plus tables for what lies between them (the boot record, the GPT header and
// entries at both ends, free space), so that the tables tile the disk end to
// end. A disk without a table (a partition image) is one "whole disk" table.
// The partitions are found by libblkid; what it cannot make sense of (no
// table, overlapping entries) falls back to the whole disk rather than fail.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class QXDiskImage;

namespace QXUDIF {

struct PartitionMap {
    /// A partition as the probe reports it, in 512-byte sectors.
    struct Found {
        std::uint64_t start = 0;
        std::uint64_t size = 0;
        std::string name;
        std::string type;
    };
    /// One future block table.
    struct Entry {
        std::string name;  // "<partition name> (<type> : <index>)"
        std::int64_t id = 0;
        std::uint64_t firstSector = 0;
        std::uint64_t sectorCount = 0;
    };

    std::uint32_t variant = 2;  // 1 with a partition table, 2 without
    std::vector<Entry> entries; // in disk order, covering every sector once

    /// Lays out the tables for a disk of sectorCount sectors. tableType is
    /// libblkid's ("gpt", "dos", ...), empty for none; fileSystem names the
    /// whole-disk table's type when there is no partition table.
    static PartitionMap layout(const std::string& tableType, std::vector<Found> partitions, std::uint64_t sectorCount,
                               const std::string& fileSystem);
    /// Probes the decoded disk's first and last MiB with libblkid and lays
    /// out its tables; a disk that cannot be read or probed is one table.
    static PartitionMap probe(QXDiskImage& disk);
};

} // namespace QXUDIF
