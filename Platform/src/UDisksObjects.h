// UDisksObjects.h - the storage daemon's objects, and the descriptions made from them.
//
// The daemon publishes one object per block device and per drive, each with
// interfaces of properties (Block, Filesystem, Partition, PartitionTable,
// Loop; Drive on a drive's object). Objects holds the part of its object
// manager's answer that describing devices needs; describeObjects maps it to
// the descriptions every provider gives, so that recorded answers go through
// the same mapping as live ones.
#pragma once

#include <qx/BlockDevice.h>

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace qx::udisks {

inline constexpr const char* kService = "org.freedesktop.UDisks2";
inline constexpr const char* kRootPath = "/org/freedesktop/UDisks2";
inline constexpr const char* kBlockPathPrefix = "/org/freedesktop/UDisks2/block_devices/";
inline constexpr const char* kDrivePathPrefix = "/org/freedesktop/UDisks2/drives/";
inline constexpr const char* kInterfacePrefix = "org.freedesktop.UDisks2.";

/// A property's value: every unsigned and signed integer as a 64-bit
/// number; strings, object paths and byte strings (without their ending
/// NUL) as strings; arrays of those as lists. Other kinds are left out.
using Value = std::variant<std::monostate, bool, std::uint64_t, std::string, std::vector<std::string>>;
using Properties = std::map<std::string, Value>;
/// By the interface's name without the daemon's prefix: "Block", "Drive".
using Interfaces = std::map<std::string, Properties>;
/// By object path.
using Objects = std::map<std::string, Interfaces>;

/// Reads an object manager's answer (a{oa{sa{sv}}}) into objects, keeping
/// the interfaces the descriptions use; a negative errno for a malformed one.
int readManagedObjects(sd_bus_message* reply, Objects& objects);

/// The description of every block object, in the providers' stable order
/// (whole disks by name, shorter names first, each followed by its partitions
/// by number), with or without a medium. Left for the caller, who can read
/// the kernel's tables: logicalBlockSize, diskSeq, sysfsPath and, where the
/// daemon does not publish it, the partition table's UUID.
std::vector<BlockDeviceDescription> describeObjects(const Objects& objects);

/// The object path of the block device called name ("loop3"): the daemon
/// keeps letters and digits and writes every other byte as _xx (hex).
std::string blockObjectPath(const std::string& name);
/// The device name of a block object's path; empty for another path.
std::string blockNameOfPath(const std::string& path);

} // namespace qx::udisks
