// QXUDIFPartitionMap.cpp - finding partitions with libblkid and tiling the
// disk with block tables.
#include "Internal/QXUDIFPartitionMap.h"

#include "Internal/QXUDIFTrailer.h"

#include <QXFoundation/QXDiskImage.h>

#include <qx/UniqueFd.h>

#include <blkid/blkid.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include <sys/mman.h>
#include <unistd.h>

namespace QXUDIF {

namespace {

// Partition tables and file-system signatures sit in the first MiB or at the
// very end (the backup GPT); the probe sees only those.
constexpr std::uint64_t kProbedEdge = 1 << 20;

struct ProbeDeleter {
    void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter>;

std::string entryName(const std::string& name, const std::string& type, std::size_t index) {
    return name + " (" + type + " : " + std::to_string(index) + ")";
}

// A sparse in-memory file as large as the disk, holding only its edges, so
// that libblkid sees offsets and sizes as on the real disk.
qx::UniqueFd edgesFile(QXDiskImage& disk) {
    qx::UniqueFd fd(::memfd_create("qx-disk-probe", MFD_CLOEXEC));
    if (fd.get() < 0 || ::ftruncate(fd.get(), static_cast<off_t>(disk.size())) != 0) return {};
    std::vector<std::uint8_t> buffer(kProbedEdge);
    const std::uint64_t tailStart = disk.size() > kProbedEdge ? disk.size() - kProbedEdge : 0;
    for (const std::uint64_t start : {std::uint64_t{0}, tailStart}) {
        const std::int64_t read = disk.readBytes(start, buffer.data(), buffer.size());
        if (read < 0 || ::pwrite(fd.get(), buffer.data(), static_cast<std::size_t>(read), static_cast<off_t>(start)) != read)
            return {};
    }
    return fd;
}

std::string typeOf(blkid_partition partition, const std::string& tableType) {
    if (const char* text = blkid_partition_get_type_string(partition)) return text;
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%02X", static_cast<unsigned>(blkid_partition_get_type(partition)));
    return tableType == "dos" ? std::string("MBR ") + hex : hex;
}

} // namespace

PartitionMap PartitionMap::layout(const std::string& tableType, std::vector<Found> partitions,
                                  std::uint64_t sectorCount, const std::string& fileSystem) {
    PartitionMap map;
    std::sort(partitions.begin(), partitions.end(), [](const Found& a, const Found& b) { return a.start < b.start; });
    // The boot record takes sector 0, so partitions start after it, lie on the
    // disk and do not overlap; anything else is a table this layout cannot tile.
    bool usable = !tableType.empty() && sectorCount > 1;
    std::uint64_t end = 1;
    for (const auto& p : partitions) {
        if (p.size == 0 || p.start < end || !rangeWithin(p.start, p.size, sectorCount)) usable = false;
        end = p.start + p.size;
    }
    if (!usable) {
        map.entries.push_back({entryName("whole disk", fileSystem.empty() ? "unknown" : fileSystem, 0), 0, 0, sectorCount});
        return map;
    }
    map.variant = 1;
    const bool gpt = tableType == "gpt";
    auto add = [&map](const std::string& name, const std::string& type, std::uint64_t first, std::uint64_t count) {
        const std::size_t index = map.entries.size();
        map.entries.push_back({entryName(name, type, index), static_cast<std::int64_t>(index) - 1, first, count});
    };
    add(gpt ? "Protective Master Boot Record" : "Master Boot Record", "MBR", 0, 1);
    std::uint64_t cursor = 1;
    auto gap = [&](std::uint64_t until) {
        if (until <= cursor) return;
        if (gpt && cursor == 1) add("GPT Header and Partition Data", "Primary GPT Table", cursor, until - cursor);
        else if (gpt && until == sectorCount) add("GPT Partition Data and Header", "Backup GPT Table", cursor, until - cursor);
        else add("free space", "Apple_Free", cursor, until - cursor);
        cursor = until;
    };
    std::size_t number = 1;
    for (const auto& p : partitions) {
        gap(p.start);
        add(p.name.empty() ? "partition " + std::to_string(number) : p.name, p.type, p.start, p.size);
        cursor = p.start + p.size;
        ++number;
    }
    gap(sectorCount);
    return map;
}

PartitionMap PartitionMap::probe(QXDiskImage& disk) {
    const std::uint64_t sectors = (disk.size() + kSectorSize - 1) / kSectorSize;
    qx::UniqueFd fd = edgesFile(disk);
    Probe probe(blkid_new_probe());
    if (fd.get() < 0 || !probe || blkid_probe_set_device(probe.get(), fd.get(), 0, 0) != 0)
        return layout({}, {}, sectors, {});

    std::string tableType;
    std::vector<Found> found;
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE);
    std::string fileSystem;
    if (blkid_do_safeprobe(probe.get()) == 0) {
        const char* value = nullptr;
        if (blkid_probe_lookup_value(probe.get(), "TYPE", &value, nullptr) == 0 && value) fileSystem = value;
    }
    if (blkid_partlist list = blkid_probe_get_partitions(probe.get())) {
        if (blkid_parttable table = blkid_partlist_get_table(list)) {
            if (const char* type = blkid_parttable_get_type(table)) tableType = type;
        }
        const int count = blkid_partlist_numof_partitions(list);
        for (int i = 0; i < count; ++i) {
            blkid_partition partition = blkid_partlist_get_partition(list, i);
            // Logical partitions lie inside their extended one, which is
            // stored whole as one table.
            if (!partition || blkid_partition_is_logical(partition)) continue;
            Found p;
            p.start = static_cast<std::uint64_t>(blkid_partition_get_start(partition));
            p.size = static_cast<std::uint64_t>(blkid_partition_get_size(partition));
            if (const char* name = blkid_partition_get_name(partition)) p.name = name;
            p.type = typeOf(partition, tableType);
            found.push_back(std::move(p));
        }
    }
    return layout(tableType, std::move(found), sectors, fileSystem);
}

} // namespace QXUDIF
