// BlockDeviceProbe.cpp - describing block devices from the kernel's own tables.
#include "BlockDeviceProbe.h"

#include <qx/UniqueFd.h>

#include <blkid/blkid.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <sys/sysmacros.h>

namespace qx::blockprobe {

namespace {

namespace fs = std::filesystem;

const fs::path kSysBlock = "/sys/class/block";

struct ProbeDeleter {
    void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter>;

// One line of a sysfs attribute, without its newline; empty when unreadable.
std::string attribute(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::uint64_t numberAttribute(const fs::path& path) {
    const std::string text = attribute(path);
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && end != text.c_str() ? value : 0;
}

std::uint64_t parseDeviceNumber(const std::string& text) {
    unsigned major = 0, minor = 0;
    char colon = 0;
    std::istringstream in(text);
    if (!(in >> major >> colon >> minor) || colon != ':') return 0;
    return makedev(major, minor);
}

bool isPartition(const std::string& name) { return fs::exists(kSysBlock / name / "partition"); }

// The partitions of a whole disk by number, from the subfolders that have a "partition" attribute.
std::vector<std::pair<std::uint64_t, std::string>> partitionsOf(const std::string& disk) {
    std::vector<std::pair<std::uint64_t, std::string>> parts;
    std::error_code ec;
    for (fs::directory_iterator it(kSysBlock / disk, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path partition = it->path() / "partition";
        if (fs::exists(partition)) parts.emplace_back(numberAttribute(partition), it->path().filename().string());
    }
    std::sort(parts.begin(), parts.end());
    return parts;
}

std::string lookup(const Probe& probe, const char* key) {
    const char* value = nullptr;
    std::size_t length = 0;
    if (blkid_probe_lookup_value(probe.get(), key, &value, &length) != 0 || !value) return {};
    // Lengths count the terminating NUL.
    return std::string(value, length > 0 && value[length - 1] == '\0' ? length - 1 : length);
}

// File system, table and entry values of the content; left empty when the device cannot be read.
void probeContent(BlockDeviceDescription& d) {
    UniqueFd fd(::open(d.device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    Probe probe(blkid_new_probe());
    if (!fd || !probe || blkid_probe_set_device(probe.get(), fd.get(), 0, 0) != 0) return;
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE |
                                                       BLKID_SUBLKS_USAGE | BLKID_SUBLKS_VERSION);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
    if (blkid_do_safeprobe(probe.get()) != 0) return;
    d.idType = lookup(probe, "TYPE");
    d.idUsage = lookup(probe, "USAGE");
    d.idLabel = lookup(probe, "LABEL");
    d.idUUID = lookup(probe, "UUID");
    d.idVersion = lookup(probe, "VERSION");
    if (const std::string tableType = lookup(probe, "PTTYPE"); !tableType.empty() && !d.partition) {
        BlockPartitionTablePart table;
        table.type = tableType;
        table.uuid = lookup(probe, "PTUUID");
        d.partitionTable = std::move(table);
    }
    if (d.partition) {
        d.partition->type = lookup(probe, "PART_ENTRY_TYPE");
        d.partition->uuid = lookup(probe, "PART_ENTRY_UUID");
        d.partition->name = lookup(probe, "PART_ENTRY_NAME");
    }
}

} // namespace

std::string unescapeMountField(std::string_view field) {
    const auto octal = [&](std::size_t k) { return field[k] >= '0' && field[k] <= '7'; };
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

std::vector<MountEntry> readMountTable(const std::string& path) {
    std::vector<MountEntry> entries;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        // id parent major:minor root mount-point options [optional...] - type source super-options
        std::istringstream fields(line);
        std::string id, parent, number, root, mountPoint, options, word;
        if (!(fields >> id >> parent >> number >> root >> mountPoint >> options)) continue;
        while (fields >> word && word != "-") {
        }
        MountEntry entry;
        if (word != "-" || !(fields >> entry.fsType >> entry.source)) continue;
        entry.deviceNumber = parseDeviceNumber(number);
        entry.mountPoint = unescapeMountField(mountPoint);
        entry.source = unescapeMountField(entry.source);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<std::string> blockDeviceNames() {
    std::vector<std::string> disks;
    std::error_code ec;
    for (fs::directory_iterator it(kSysBlock, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (!isPartition(name)) disks.push_back(std::move(name));
    }
    std::sort(disks.begin(), disks.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    std::vector<std::string> names;
    for (const auto& disk : disks) {
        names.push_back(disk);
        for (auto& part : partitionsOf(disk)) names.push_back(std::move(part.second));
    }
    return names;
}

std::string wholeDiskName(const std::string& name) {
    if (!isPartition(name)) return name;
    std::error_code ec;
    const fs::path real = fs::canonical(kSysBlock / name, ec);
    return ec ? name : real.parent_path().filename().string();
}

void addKernelAttributes(BlockDeviceDescription& d) {
    if (d.name.empty() || d.name.find('/') != std::string::npos || d.name == "." || d.name == "..") return;
    std::error_code ec;
    const fs::path real = fs::canonical(kSysBlock / d.name, ec);
    if (ec) return;
    d.sysfsPath = real.string();
    // A partition's folder lies inside its disk's.
    const fs::path diskDir = fs::exists(real / "partition") ? real.parent_path() : real;
    d.logicalBlockSize = static_cast<std::uint32_t>(numberAttribute(diskDir / "queue" / "logical_block_size"));
    d.diskSeq = numberAttribute(diskDir / "diskseq");
}

std::string deviceDatabaseProperty(std::uint64_t deviceNumber, std::string_view key) {
    std::ifstream in("/run/udev/data/b" + std::to_string(major(deviceNumber)) + ":" + std::to_string(minor(deviceNumber)));
    for (std::string line; std::getline(in, line);) {
        // E:KEY=VALUE
        if (line.size() > key.size() + 3 && line.compare(0, 2, "E:") == 0 && line.compare(2, key.size(), key) == 0 &&
            line[2 + key.size()] == '=')
            return line.substr(3 + key.size());
    }
    return {};
}

std::optional<BlockDeviceDescription> describe(const std::string& name, const std::vector<MountEntry>& mounts) {
    // A name is one path component; anything else could reach outside sysfs.
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return std::nullopt;
    const fs::path dir = kSysBlock / name;
    const std::string dev = attribute(dir / "dev");
    if (dev.empty()) return std::nullopt;

    BlockDeviceDescription d;
    d.name = name;
    d.device = "/dev/" + name;
    d.deviceNumber = parseDeviceNumber(dev);
    d.size = numberAttribute(dir / "size") * 512;  // sysfs counts 512-byte sectors whatever the device's own
    d.readOnly = numberAttribute(dir / "ro") != 0;
    addKernelAttributes(d);

    const std::string disk = wholeDiskName(name);
    const fs::path diskDir = kSysBlock / disk;
    const bool removable = numberAttribute(diskDir / "removable") != 0;

    if (disk != name) {
        BlockPartitionPart partition;
        partition.number = static_cast<std::uint32_t>(numberAttribute(dir / "partition"));
        partition.offset = numberAttribute(dir / "start") * 512;
        partition.size = d.size;
        partition.table = disk;
        d.partition = std::move(partition);
    }
    if (fs::exists(diskDir / "loop" / "backing_file") || disk.rfind("loop", 0) == 0) {
        if (disk == name) {
            BlockLoopPart loop;
            loop.backingFile = attribute(diskDir / "loop" / "backing_file");
            loop.autoclear = numberAttribute(diskDir / "loop" / "autoclear") != 0;
            d.loop = std::move(loop);
        }
    } else if (fs::exists(diskDir / "device")) {
        BlockDrivePart drive;
        drive.vendor = attribute(diskDir / "device" / "vendor");
        drive.model = attribute(diskDir / "device" / "model");
        drive.revision = attribute(diskDir / "device" / "rev");
        drive.serial = attribute(diskDir / "device" / "serial");
        drive.removable = drive.mediaRemovable = drive.ejectable = removable;
        for (auto* text : {&drive.vendor, &drive.model, &drive.revision})
            while (!text->empty() && text->back() == ' ') text->pop_back();
        d.drive = std::move(drive);
    }
    // Loop devices count as the machine's own when root set them up, as the
    // storage daemon counts them; the kernel does not record who did, so root it is.
    d.hintSystem = !removable;

    if (d.hasMedium()) probeContent(d);
    if (d.partitionTable)
        for (auto& part : partitionsOf(name)) d.partitionTable->partitions.push_back(std::move(part.second));
    if (d.idUsage == "filesystem") {
        BlockFilesystemPart filesystem;
        for (const auto& mount : mounts)
            if (mount.deviceNumber == d.deviceNumber) filesystem.mountPoints.push_back(mount.mountPoint);
        d.filesystem = std::move(filesystem);
    }
    return d;
}

std::vector<TableEntry> readPartitionEntries(const std::string& path) {
    std::vector<TableEntry> entries;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    Probe probe(blkid_new_probe());
    if (!fd || !probe || blkid_probe_set_device(probe.get(), fd.get(), 0, 0) != 0) return entries;
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    const int count = list ? blkid_partlist_numof_partitions(list) : 0;
    for (int i = 0; i < count; ++i) {
        blkid_partition partition = blkid_partlist_get_partition(list, i);
        if (!partition) continue;
        const blkid_loff_t start = blkid_partition_get_start(partition), size = blkid_partition_get_size(partition);
        const int number = blkid_partition_get_partno(partition);
        // libblkid counts 512-byte sectors. An extended partition holds no
        // volume of its own; its logical ones are announced.
        if (start < 0 || size <= 0 || number <= 0 || start > LLONG_MAX / 512 || size > LLONG_MAX / 512) continue;
        if (blkid_partition_is_extended(partition)) continue;
        entries.push_back({number, static_cast<std::uint64_t>(start) * 512, static_cast<std::uint64_t>(size) * 512});
    }
    return entries;
}

} // namespace qx::blockprobe
