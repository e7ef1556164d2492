// BlockDevice.h - what the block-device service says about one block object.
//
// A description is shaped like the system bus's storage daemon's objects: a
// Block part every object has, and optional parts for a file system, a
// partition, a partition table, a loop device and the drive behind the
// device. Every provider fills the same fields the same way, so the library
// maps one shape to its own keys whichever provider answered. A field with
// no source on a machine stays empty, 0 or false.
#pragma once

#include <qx/Object.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qx {

struct BlockFilesystemPart {
    std::vector<std::string> mountPoints;  // in mount order; empty when not mounted
    bool operator==(const BlockFilesystemPart&) const = default;
};

struct BlockPartitionPart {
    std::uint32_t number = 0;
    std::uint64_t offset = 0;  // bytes from the start of the table's device
    std::uint64_t size = 0;    // bytes
    std::string type;          // a GUID for GPT, "0x83" style for MBR
    std::string uuid;          // the entry's own identifier (GPT), or "PTUUID-NN" (MBR)
    std::string name;          // the entry's label (GPT)
    std::string table;         // device name of the disk holding the table ("loop3")
    bool operator==(const BlockPartitionPart&) const = default;
};

struct BlockPartitionTablePart {
    std::string type;                     // "gpt", "dos", ...
    std::string uuid;                     // the table's identifier
    std::vector<std::string> partitions;  // device names, by partition number
    bool operator==(const BlockPartitionTablePart&) const = default;
};

struct BlockLoopPart {
    std::string backingFile;
    bool autoclear = false;
    std::uint32_t setupByUID = 0;
    bool operator==(const BlockLoopPart&) const = default;
};

struct BlockDrivePart {
    std::string vendor, model, revision, serial, id;
    std::string connectionBus;  // "usb", "sdio", ... empty for internal buses
    bool ejectable = false;
    bool removable = false;
    bool mediaRemovable = false;
    bool operator==(const BlockDrivePart&) const = default;
};

struct BlockDeviceDescription {
    // Block
    std::string name;                // the node's name: "loop3", "loop3p1", "sda"
    std::string device;              // the node's path: "/dev/loop3"
    std::uint64_t deviceNumber = 0;  // makedev(major, minor)
    std::uint64_t size = 0;          // bytes; 0 for no medium
    std::uint32_t logicalBlockSize = 0;
    std::uint64_t diskSeq = 0;       // rises with every medium change (0 when unknown)
    bool readOnly = false;
    bool hintSystem = true;          // a fixed internal device
    std::string idType, idUsage, idLabel, idUUID, idVersion;
    std::string sysfsPath;           // the device under /sys/devices

    std::optional<BlockFilesystemPart> filesystem;
    std::optional<BlockPartitionPart> partition;
    std::optional<BlockPartitionTablePart> partitionTable;
    std::optional<BlockLoopPart> loop;
    std::optional<BlockDrivePart> drive;

    bool hasMedium() const { return size > 0; }
    bool operator==(const BlockDeviceDescription&) const = default;
};

/// One block object known to the service, by its node's name: the handle the
/// library keeps for a device (what a search hands out and what a request names).
class BlockDeviceDisk final : public Object {
public:
    static Ref<BlockDeviceDisk> withName(std::string name) { return std::make_shared<BlockDeviceDisk>(std::move(name)); }
    explicit BlockDeviceDisk(std::string name) : name_(std::move(name)) {}

    const std::string& name() const { return name_; }

    std::string className() const override { return "BlockDeviceDisk"; }
    std::string description() const override { return name_; }
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return std::hash<std::string>()(name_); }

private:
    const std::string name_;
};

/// How a request ended. An empty errorName means success; result is then the
/// mount point of a mount or the device name of a new loop device. Refusals
/// carry the storage daemon's error name ("org.freedesktop.UDisks2.Error.DeviceBusy")
/// and the service's text, which may be empty.
struct BlockDeviceAnswer {
    std::string errorName;
    std::string message;
    std::string result;

    bool succeeded() const { return errorName.empty(); }
    static BlockDeviceAnswer success(std::string result = {}) { return {{}, {}, std::move(result)}; }
    static BlockDeviceAnswer failure(std::string errorName, std::string message) {
        return {std::move(errorName), std::move(message), {}};
    }
};

/// The error names a provider answers with (the daemon's own spelling).
namespace BlockDeviceErrorName {
inline constexpr const char* Failed = "org.freedesktop.UDisks2.Error.Failed";
inline constexpr const char* DeviceBusy = "org.freedesktop.UDisks2.Error.DeviceBusy";
inline constexpr const char* NotMounted = "org.freedesktop.UDisks2.Error.NotMounted";
inline constexpr const char* AlreadyMounted = "org.freedesktop.UDisks2.Error.AlreadyMounted";
inline constexpr const char* NotAuthorized = "org.freedesktop.UDisks2.Error.NotAuthorized";
inline constexpr const char* NotSupported = "org.freedesktop.UDisks2.Error.NotSupported";
inline constexpr const char* OptionNotPermitted = "org.freedesktop.UDisks2.Error.OptionNotPermitted";
inline constexpr const char* NoSuchDevice = "org.freedesktop.DBus.Error.UnknownObject";
} // namespace BlockDeviceErrorName

} // namespace qx
