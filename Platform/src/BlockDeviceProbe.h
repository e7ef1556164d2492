// BlockDeviceProbe.h - describing block devices from the kernel's own tables.
//
// Three sources: /sys/class/block (numbers, sizes, loop and partition
// attributes), libblkid probing of the device's content (file system,
// partition table and entries), and the mount table. Nothing here changes
// the system.
#pragma once

#include <qx/BlockDevice.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::blockprobe {

struct MountEntry {
    std::uint64_t deviceNumber = 0;  // the mounted file system's device
    std::string mountPoint;
    std::string fsType;
    std::string source;
};

/// The entries of a mountinfo file in mount order; an unreadable file gives none.
std::vector<MountEntry> readMountTable(const std::string& path = "/proc/self/mountinfo");
/// mountinfo writes space, tab, newline and backslash as \ooo.
std::string unescapeMountField(std::string_view field);

/// The names under /sys/class/block in the providers' stable order (see
/// BlockDeviceProvider::devices): whole disks by (length, name), each
/// followed by its partitions by number.
std::vector<std::string> blockDeviceNames();

/// The description of the device called name, with the mount points found
/// in mounts; nothing when sysfs has no such device. Content is probed only
/// when the device has a medium.
std::optional<BlockDeviceDescription> describe(const std::string& name, const std::vector<MountEntry>& mounts);

/// Reads the partition entries of the table on the device at path; each entry
/// is (number, start, length) in bytes. Empty when there is no table.
struct TableEntry {
    int number = 0;
    std::uint64_t start = 0, length = 0;
};
std::vector<TableEntry> readPartitionEntries(const std::string& path);

/// Sets what only the kernel's tables say about the device called d.name:
/// its path under /sys/devices, and the whole disk's logical block size and
/// disk sequence number. Left as they are when sysfs has no such device.
void addKernelAttributes(BlockDeviceDescription& d);

/// A property of the device's entry in the device manager's database
/// (/run/udev/data, readable by everyone), e.g. "ID_PART_TABLE_UUID"; empty
/// when there is none.
std::string deviceDatabaseProperty(std::uint64_t deviceNumber, std::string_view key);

/// The whole disk a partition belongs to, by name ("loop3" for "loop3p1"); name itself for a whole disk.
std::string wholeDiskName(const std::string& name);

} // namespace qx::blockprobe
