// UDisksObjects.cpp - the storage daemon's objects, and the descriptions made from them.
#include "UDisksObjects.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace qx::udisks {

namespace {

// The interfaces describing a device; the others (jobs, the manager,
// encryption, swap, drive health) are skipped unread.
constexpr const char* kUsedInterfaces[] = {"Block", "Filesystem", "Partition", "PartitionTable", "Loop", "Drive"};

bool isUsedInterface(const char* shortName) {
    return std::any_of(std::begin(kUsedInterfaces), std::end(kUsedInterfaces),
                       [&](const char* used) { return std::strcmp(used, shortName) == 0; });
}

// A byte string as the daemon sends paths: NUL-terminated inside the array.
int readByteString(sd_bus_message* m, std::string& out) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    const int r = sd_bus_message_read_array(m, 'y', &bytes, &size);
    if (r < 0) return r;
    const char* text = static_cast<const char*>(bytes);
    out.assign(text, size ? strnlen(text, size) : 0);
    return r;
}

// One variant's value; kinds a description has no use for are skipped.
int readValue(sd_bus_message* m, Value& value) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) return r;
    r = sd_bus_message_enter_container(m, 'v', contents);
    if (r < 0) return r;
    const std::string signature = contents ? contents : "";
    if (signature == "b") {
        int flag = 0;
        r = sd_bus_message_read_basic(m, 'b', &flag);
        value = flag != 0;
    } else if (signature.size() == 1 && std::strchr("ynqiuxt", signature[0])) {
        union {
            std::uint8_t y;
            std::int16_t n;
            std::uint16_t q;
            std::int32_t i;
            std::uint32_t u;
            std::int64_t x;
            std::uint64_t t;
        } number{};
        r = sd_bus_message_read_basic(m, signature[0], &number);
        switch (signature[0]) {
        case 'y': value = std::uint64_t{number.y}; break;
        case 'n': value = static_cast<std::uint64_t>(number.n); break;
        case 'q': value = std::uint64_t{number.q}; break;
        case 'i': value = static_cast<std::uint64_t>(number.i); break;
        case 'u': value = std::uint64_t{number.u}; break;
        case 'x': value = static_cast<std::uint64_t>(number.x); break;
        default: value = number.t; break;
        }
    } else if (signature == "s" || signature == "o") {
        const char* text = nullptr;
        r = sd_bus_message_read_basic(m, signature[0], &text);
        value = std::string(text ? text : "");
    } else if (signature == "ay") {
        std::string text;
        r = readByteString(m, text);
        value = std::move(text);
    } else if (signature == "as" || signature == "ao" || signature == "aay") {
        std::vector<std::string> list;
        r = sd_bus_message_enter_container(m, 'a', signature.c_str() + 1);
        while (r > 0) {
            std::string item;
            if (signature == "aay") {
                r = readByteString(m, item);
            } else {
                const char* text = nullptr;
                r = sd_bus_message_read_basic(m, signature[1], &text);
                if (r > 0) item = text ? text : "";
            }
            if (r > 0) list.push_back(std::move(item));
        }
        if (r >= 0) r = sd_bus_message_exit_container(m);
        value = std::move(list);
    } else {
        r = sd_bus_message_skip(m, contents);
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readProperties(sd_bus_message* m, Properties& properties) {
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) return r;
        if ((r = readValue(m, properties[name ? name : ""])) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

int readInterfaces(sd_bus_message* m, Interfaces& interfaces) {
    int r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}");
    if (r < 0) return r;
    const std::size_t prefix = std::strlen(kInterfacePrefix);
    while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) return r;
        if (name && std::strncmp(name, kInterfacePrefix, prefix) == 0 && isUsedInterface(name + prefix))
            r = readProperties(m, interfaces[name + prefix]);
        else
            r = sd_bus_message_skip(m, "a{sv}");
        if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

const Value* find(const Interfaces& object, const char* interface, const char* property) {
    auto found = object.find(interface);
    if (found == object.end()) return nullptr;
    auto value = found->second.find(property);
    return value == found->second.end() ? nullptr : &value->second;
}

std::string text(const Properties& p, const char* name) {
    auto found = p.find(name);
    const auto* s = found == p.end() ? nullptr : std::get_if<std::string>(&found->second);
    return s ? *s : std::string();
}

std::uint64_t number(const Properties& p, const char* name) {
    auto found = p.find(name);
    const auto* n = found == p.end() ? nullptr : std::get_if<std::uint64_t>(&found->second);
    return n ? *n : 0;
}

bool flag(const Properties& p, const char* name) {
    auto found = p.find(name);
    const auto* b = found == p.end() ? nullptr : std::get_if<bool>(&found->second);
    return b && *b;
}

std::vector<std::string> list(const Properties& p, const char* name) {
    auto found = p.find(name);
    const auto* l = found == p.end() ? nullptr : std::get_if<std::vector<std::string>>(&found->second);
    return l ? *l : std::vector<std::string>();
}

std::string baseName(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

// The device name behind a block object's path, from its Device property
// when the object is known (the path's escaping is the daemon's business).
std::string deviceNameOf(const Objects& objects, const std::string& path) {
    auto object = objects.find(path);
    if (object != objects.end())
        if (const auto* device = find(object->second, "Block", "Device"))
            if (const auto* s = std::get_if<std::string>(device)) return baseName(*s);
    return blockNameOfPath(path);
}

BlockDrivePart describeDrive(const Properties& p) {
    BlockDrivePart drive;
    drive.vendor = text(p, "Vendor");
    drive.model = text(p, "Model");
    drive.revision = text(p, "Revision");
    drive.serial = text(p, "Serial");
    drive.id = text(p, "Id");
    drive.connectionBus = text(p, "ConnectionBus");
    drive.ejectable = flag(p, "Ejectable");
    drive.removable = flag(p, "Removable");
    drive.mediaRemovable = flag(p, "MediaRemovable");
    return drive;
}

} // namespace

int readManagedObjects(sd_bus_message* reply, Objects& objects) {
    int r = sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}")) > 0) {
        const char* path = nullptr;
        if ((r = sd_bus_message_read_basic(reply, 'o', &path)) < 0) return r;
        Interfaces interfaces;
        if ((r = readInterfaces(reply, interfaces)) < 0) return r;
        if (!interfaces.empty()) objects[path ? path : ""] = std::move(interfaces);
        if ((r = sd_bus_message_exit_container(reply)) < 0) return r;
    }
    return r < 0 ? r : sd_bus_message_exit_container(reply);
}

std::vector<BlockDeviceDescription> describeObjects(const Objects& objects) {
    std::vector<BlockDeviceDescription> descriptions;
    for (const auto& [path, object] : objects) {
        auto blockInterface = object.find("Block");
        if (blockInterface == object.end()) continue;
        const Properties& block = blockInterface->second;
        BlockDeviceDescription d;
        d.device = text(block, "Device");
        d.name = baseName(d.device);
        if (d.name.empty()) continue;
        d.deviceNumber = number(block, "DeviceNumber");
        d.size = number(block, "Size");
        d.readOnly = flag(block, "ReadOnly");
        d.hintSystem = flag(block, "HintSystem");
        d.idType = text(block, "IdType");
        d.idUsage = text(block, "IdUsage");
        d.idLabel = text(block, "IdLabel");
        d.idUUID = text(block, "IdUUID");
        d.idVersion = text(block, "IdVersion");

        if (auto fs = object.find("Filesystem"); fs != object.end()) d.filesystem = BlockFilesystemPart{list(fs->second, "MountPoints")};
        if (auto part = object.find("Partition"); part != object.end()) {
            const Properties& p = part->second;
            d.partition = BlockPartitionPart{static_cast<std::uint32_t>(number(p, "Number")),
                                             number(p, "Offset"),
                                             number(p, "Size"),
                                             text(p, "Type"),
                                             text(p, "UUID"),
                                             text(p, "Name"),
                                             deviceNameOf(objects, text(p, "Table"))};
        }
        if (auto table = object.find("PartitionTable"); table != object.end()) {
            BlockPartitionTablePart t;
            t.type = text(table->second, "Type");
            t.uuid = text(table->second, "UUID");  // published by newer daemons only
            // By partition number, as the kernel's own list is.
            std::vector<std::pair<std::uint64_t, std::string>> parts;
            for (const auto& partPath : list(table->second, "Partitions")) {
                auto partObject = objects.find(partPath);
                const Value* n = partObject == objects.end() ? nullptr : find(partObject->second, "Partition", "Number");
                parts.emplace_back(n && std::holds_alternative<std::uint64_t>(*n) ? std::get<std::uint64_t>(*n) : 0,
                                   deviceNameOf(objects, partPath));
            }
            std::sort(parts.begin(), parts.end());
            for (auto& part : parts) t.partitions.push_back(std::move(part.second));
            d.partitionTable = std::move(t);
        }
        if (auto loop = object.find("Loop"); loop != object.end()) {
            d.loop = BlockLoopPart{text(loop->second, "BackingFile"), flag(loop->second, "Autoclear"),
                                   static_cast<std::uint32_t>(number(loop->second, "SetupByUID"))};
        }
        if (const std::string drivePath = text(block, "Drive"); drivePath != "/" && !drivePath.empty()) {
            auto drive = objects.find(drivePath);
            if (drive != objects.end())
                if (auto properties = drive->second.find("Drive"); properties != drive->second.end())
                    d.drive = describeDrive(properties->second);
        }
        descriptions.push_back(std::move(d));
    }
    // Whole disks by (length, name), each followed by its partitions by number.
    const auto key = [](const BlockDeviceDescription& d) {
        const std::string& disk = d.partition && !d.partition->table.empty() ? d.partition->table : d.name;
        return std::make_tuple(disk.size(), disk, d.partition ? d.partition->number : 0u, d.name);
    };
    std::sort(descriptions.begin(), descriptions.end(),
              [&](const BlockDeviceDescription& a, const BlockDeviceDescription& b) { return key(a) < key(b); });
    return descriptions;
}

std::string blockObjectPath(const std::string& name) {
    static const char kHex[] = "0123456789abcdef";
    std::string path = kBlockPathPrefix;
    for (const unsigned char c : name) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
            path += static_cast<char>(c);
        } else {
            path += '_';
            path += kHex[c >> 4];
            path += kHex[c & 15];
        }
    }
    return path;
}

std::string blockNameOfPath(const std::string& path) {
    const std::size_t prefix = std::strlen(kBlockPathPrefix);
    if (path.compare(0, prefix, kBlockPathPrefix) != 0 || path.size() == prefix) return {};
    const auto hex = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; };
    std::string name;
    for (std::size_t i = prefix; i < path.size(); ++i) {
        if (path[i] == '/') return {};
        if (path[i] == '_' && i + 2 < path.size() && hex(path[i + 1]) >= 0 && hex(path[i + 2]) >= 0) {
            name += static_cast<char>(hex(path[i + 1]) * 16 + hex(path[i + 2]));
            i += 2;
        } else {
            name += path[i];
        }
    }
    return name;
}

} // namespace qx::udisks
