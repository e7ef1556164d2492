// SystemEntities.cpp - the devices of one attached image, as the tool lists them.
#include "SystemEntities.h"

#include "FuseMounts.h"

#include <qx/BlockDeviceProvider.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <algorithm>
#include <cctype>

namespace hdiutil {

namespace {

struct Name {
    const char* key;
    const char* name;
};

constexpr Name kSchemes[] = {
    {"gpt", "GUID_partition_scheme"}, {"dos", "FDisk_partition_scheme"}, {"mac", "Apple_partition_scheme"}};

// GPT type identifiers by the names partition maps give them.
constexpr Name kGPTTypes[] = {
    {"48465300-0000-11AA-AA11-00306543ECAC", "Apple_HFS"},
    {"7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple_APFS"},
    {"55465300-0000-11AA-AA11-00306543ECAC", "Apple_UFS"},
    {"426F6F74-0000-11AA-AA11-00306543ECAC", "Apple_Boot"},
    {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI"},
    {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft Basic Data"},
};

constexpr Name kMBRTypes[] = {
    {"0x1", "DOS_FAT_12"},  {"0x4", "DOS_FAT_16"},   {"0x6", "DOS_FAT_16"}, {"0xe", "DOS_FAT_16"},
    {"0xb", "DOS_FAT_32"},  {"0xc", "DOS_FAT_32"},   {"0x7", "Windows_NTFS"}, {"0xaf", "Apple_HFS"},
    {"0xef", "EFI"},        {"0x83", "Linux"},
};

// A file system without a partition map: the name and type identifier a
// partition holding it would have.
struct FileSystemType {
    const char* idType;
    const char* hint;
    const char* guid;
};

constexpr const char* kLinuxData = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";
constexpr const char* kBasicData = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";

constexpr FileSystemType kFileSystems[] = {
    {"hfsplus", "Apple_HFS", "48465300-0000-11AA-AA11-00306543ECAC"},
    {"hfs", "Apple_HFS", "48465300-0000-11AA-AA11-00306543ECAC"},
    {"apfs", "Apple_APFS", "7C3457EF-0000-11AA-AA11-00306543ECAC"},
    {"vfat", "DOS_FAT_32", kBasicData},
    {"exfat", "Windows_NTFS", kBasicData},
    {"ntfs", "Windows_NTFS", kBasicData},
    {"ext2", "Linux", kLinuxData},
    {"ext3", "Linux", kLinuxData},
    {"ext4", "Linux", kLinuxData},
    {"xfs", "Linux", kLinuxData},
    {"btrfs", "Linux", kLinuxData},
    {"squashfs", "Linux", kLinuxData},
    {"erofs", "Linux", kLinuxData},
};

template <std::size_t N> const char* lookup(const Name (&table)[N], const std::string& key) {
    for (const auto& entry : table)
        if (key == entry.key) return entry.name;
    return nullptr;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// "0x0c" and "0xc" are one MBR type.
std::string mbrType(const std::string& type) {
    std::string digits = type.rfind("0x", 0) == 0 ? type.substr(2) : type;
    while (digits.size() > 1 && digits.front() == '0') digits.erase(0, 1);
    std::transform(digits.begin(), digits.end(), digits.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return "0x" + digits;
}

// The image's own word for what lies at offset bytes (its block table's type), if any.
std::string udifHint(const std::vector<QXDiskImagePartition>& partitions, std::uint64_t offset, bool wholeDisk) {
    for (const auto& p : partitions) {
        // Identifiers and raw type numbers say no more than the kernel's view.
        if (p.type.empty() || p.type == "Apple_Free" || p.number < 0 || p.type.size() == 36 || p.type.rfind("MBR ", 0) == 0 ||
            p.type.rfind("0x", 0) == 0)
            continue;
        if (wholeDisk ? partitions.size() == 1 : p.firstSector * 512 == offset) return p.type;
    }
    return {};
}

qx::Ref<qx::Dictionary> entity(const qx::BlockDeviceDescription& d, const std::vector<QXDiskImagePartition>& udif) {
    std::string hint, unmapped;
    if (d.partitionTable) {
        const char* scheme = lookup(kSchemes, d.partitionTable->type);
        hint = unmapped = scheme ? scheme : d.partitionTable->type;
    } else if (d.partition) {
        const bool gpt = d.partition->type.size() == 36;
        unmapped = gpt ? upper(d.partition->type) : mbrType(d.partition->type);
        const char* known = gpt ? lookup(kGPTTypes, unmapped) : lookup(kMBRTypes, unmapped);
        // A name the image gave the partition beats a bare identifier.
        hint = known ? known : udifHint(udif, d.partition->offset, false);
        if (hint.empty()) hint = unmapped;
    } else {
        const FileSystemType* known = nullptr;
        for (const auto& type : kFileSystems)
            if (d.idType == type.idType) known = &type;
        unmapped = known ? known->guid : d.idType;
        hint = udifHint(udif, 0, true);
        if (hint.empty() || hint == d.idType) hint = known ? known->hint : d.idType;
    }
    const bool mountable = d.filesystem.has_value();
    auto e = qx::Dictionary::create();
    if (!hint.empty()) e->setObject(qx::String::create(hint), "content-hint");
    e->setObject(qx::String::create(d.device), "dev-entry");
    if (mountable && !d.filesystem->mountPoints.empty())
        e->setObject(qx::String::create(d.filesystem->mountPoints.front()), "mount-point");
    e->setObject(qx::Number::withBool(mountable), "potentially-mountable");
    if (!unmapped.empty()) e->setObject(qx::String::create(unmapped), "unmapped-content-hint");
    if (mountable) e->setObject(qx::String::create(volumeKind(d.idType)), "volume-kind");
    return e;
}

} // namespace

std::string volumeKind(const std::string& idType) {
    if (idType == "hfsplus" || idType == "hfs") return "hfs";
    if (idType == "vfat") return "msdos";
    if (idType == "iso9660") return "cd9660";
    return idType;
}

std::vector<qx::BlockDeviceDescription> imageDevices(const std::string& diskName) {
    const auto provider = qx::BlockDeviceProvider::systemProvider();
    std::vector<qx::BlockDeviceDescription> devices;
    auto disk = provider->device(diskName);
    if (!disk) return devices;
    devices.push_back(*disk);
    if (disk->partitionTable)
        for (const auto& name : disk->partitionTable->partitions)
            if (auto part = provider->device(name)) devices.push_back(std::move(*part));
    addHelperMounts(devices);
    return devices;
}

qx::Ref<qx::Array> systemEntities(const std::vector<qx::BlockDeviceDescription>& devices,
                                  const std::vector<QXDiskImagePartition>& udifPartitions) {
    auto list = qx::Array::create();
    for (const auto& d : devices) list->addObject(entity(d, udifPartitions));
    return list;
}

} // namespace hdiutil
