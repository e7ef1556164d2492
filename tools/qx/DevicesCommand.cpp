// DevicesCommand.cpp - `qx devices`: the machine's disks and volumes.
#include "DevicesCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"

#include <QXFoundation/QXDeviceManager.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Number.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qxtool {

namespace {

struct DevicesOptions {
    std::string device, at, mountOptions;
    bool plist = false, force = false;
};

// One description key: its name and its value as a property-list object (nothing when empty).
struct Key {
    const char* name;
    std::function<qx::Ref<qx::Object>(const QXDevice&)> value;
};

qx::Ref<qx::Object> text(const qx::Ref<qx::String>& s) { return s; }
qx::Ref<qx::Object> flag(bool b) { return qx::Number::withBool(b); }
qx::Ref<qx::Object> number(std::uint64_t n) { return qx::Number::withUInt64(n); }
qx::Ref<qx::Object> uuid(const qx::Ref<qx::UUID>& u) { return u ? qx::String::create(u->UUIDString()) : nullptr; }

const std::vector<Key>& keys() {
    static const std::vector<Key> table = {
        {"volumeKind", [](const QXDevice& d) { return text(d.volumeKind()); }},
        {"volumeMountable", [](const QXDevice& d) { return flag(d.volumeMountable()); }},
        {"volumeName", [](const QXDevice& d) { return text(d.volumeName()); }},
        {"isNetworkVolume", [](const QXDevice& d) { return flag(d.isNetworkVolume()); }},
        {"mountPointURL", [](const QXDevice& d) -> qx::Ref<qx::Object> {
             return d.mountPointURL() ? qx::String::create(d.mountPointURL()->absoluteString()) : nullptr;
         }},
        {"volumeUUID", [](const QXDevice& d) { return uuid(d.volumeUUID()); }},
        {"blockSize", [](const QXDevice& d) { return number(d.blockSize()); }},
        {"bsdMajorNumber", [](const QXDevice& d) { return number(d.bsdMajorNumber()); }},
        {"bsdMinorNumber", [](const QXDevice& d) { return number(d.bsdMinorNumber()); }},
        {"bsdName", [](const QXDevice& d) { return text(d.bsdName()); }},
        {"bsdUnitNumber", [](const QXDevice& d) { return number(d.bsdUnitNumber()); }},
        {"mediaContent", [](const QXDevice& d) { return text(d.mediaContent()); }},
        {"isEjectable", [](const QXDevice& d) { return flag(d.isEjectable()); }},
        {"iconDescription", [](const QXDevice& d) -> qx::Ref<qx::Object> { return d.iconDescription(); }},
        {"mediaKind", [](const QXDevice& d) { return text(d.mediaKind()); }},
        {"mediaIsLeaf", [](const QXDevice& d) { return flag(d.mediaIsLeaf()); }},
        {"mediaName", [](const QXDevice& d) { return text(d.mediaName()); }},
        {"mediaPath", [](const QXDevice& d) { return text(d.mediaPath()); }},
        {"isRemovable", [](const QXDevice& d) { return flag(d.isRemovable()); }},
        {"mediaSize", [](const QXDevice& d) { return number(d.mediaSize()); }},
        {"mediaType", [](const QXDevice& d) { return text(d.mediaType()); }},
        {"mediaUUID", [](const QXDevice& d) { return uuid(d.mediaUUID()); }},
        {"isWholeDisk", [](const QXDevice& d) { return flag(d.isWholeDisk()); }},
        {"isWritable", [](const QXDevice& d) { return flag(d.isWritable()); }},
        {"guid", [](const QXDevice& d) -> qx::Ref<qx::Object> { return d.guid(); }},
        {"isInternal", [](const QXDevice& d) { return flag(d.isInternal()); }},
        {"model", [](const QXDevice& d) { return text(d.model()); }},
        {"devicePath", [](const QXDevice& d) { return text(d.devicePath()); }},
        {"protocol", [](const QXDevice& d) { return text(d.protocol()); }},
        {"revision", [](const QXDevice& d) { return text(d.revision()); }},
        {"deviceID", [](const QXDevice& d) { return number(d.deviceID()); }},
        {"vendor", [](const QXDevice& d) { return text(d.vendor()); }},
        {"busName", [](const QXDevice& d) { return text(d.busName()); }},
        {"busPath", [](const QXDevice& d) { return text(d.busPath()); }},
    };
    return table;
}

qx::Ref<qx::Dictionary> dictionaryOf(const QXDevice& device) {
    auto dictionary = qx::Dictionary::create();
    for (const auto& key : keys())
        if (auto value = key.value(device)) dictionary->setObject(value, key.name);
    return dictionary;
}

int print(const std::string& text) {
    qx::Ref<qx::Error> error;
    auto output = OutputFile::open("-", &error);
    if (output && output->write(text.data(), text.size(), &error) && output->commit(&error)) return kExitSuccess;
    return reportFailure(outputDisplayName("-"), reasonFromError(error));
}

int printPlist(const qx::Ref<qx::Object>& plist) {
    qx::Ref<qx::Error> error;
    auto data = QXPropertyListSerialization::dataWithPropertyList(plist, QXPropertyListXMLFormat_v1_0, &error);
    if (!data) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return print(std::string(reinterpret_cast<const char*>(data->bytes()), data->length()));
}

std::string cell(const qx::Ref<qx::Object>& value) {
    if (!value) return "-";
    std::string s = value->description();
    return s.empty() ? "-" : s;
}

int runList(const DevicesOptions& options) {
    auto devices = QXDeviceManager::sharedInstance()->allDiskDevices();
    if (options.plist) {
        auto list = qx::Array::create();
        for (const auto& item : *devices)
            if (auto device = qx::dyn_cast<QXDevice>(item)) list->addObject(dictionaryOf(*device));
        return printPlist(list);
    }
    std::vector<std::vector<std::string>> rows = {{"DEVICE", "SIZE", "TYPE", "LABEL", "UUID", "MOUNT POINT"}};
    for (const auto& item : *devices) {
        auto device = qx::dyn_cast<QXDevice>(item);
        if (!device) continue;
        const auto mediaType = device->volumeKind() ? device->volumeKind() : device->mediaContent();
        const auto uuidText = device->volumeUUID() ? uuid(device->volumeUUID()) : uuid(device->mediaUUID());
        rows.push_back({cell(device->mediaPath()), std::to_string(device->mediaSize()), cell(mediaType),
                        cell(device->volumeName()), cell(uuidText),
                        device->mountPointURL() ? device->mountPointURL()->path() : "-"});
    }
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        out += line + "\n";
    }
    return print(out);
}

QXDevice::Ref findDevice(const std::string& name) { return QXDeviceManager::sharedInstance()->deviceWithBSDName(name); }

int noSuchDevice(const std::string& name) { return reportFailure(name, "no such block device"); }

int runInfo(const DevicesOptions& options) {
    auto device = findDevice(options.device);
    if (!device) return noSuchDevice(options.device);
    if (options.plist) return printPlist(dictionaryOf(*device));
    std::string out;
    for (const auto& key : keys()) out += std::string(key.name) + ": " + cell(key.value(*device)) + "\n";
    return print(out);
}

int runMount(const DevicesOptions& options) {
    auto device = findDevice(options.device);
    if (!device) return noSuchDevice(options.device);
    auto arguments = qx::Array::create();
    if (!options.mountOptions.empty()) arguments->addObject(qx::String::create(options.mountOptions));
    qx::Ref<qx::Error> error;
    const auto at = options.at.empty() ? nullptr : qx::URL::fileURLWithPath(options.at, true);
    if (!device->mountToURL(at, false, arguments, &error)) return reportFailure(options.device, reasonFromError(error));
    // The answer has come; the mount table says where.
    device->reloadDiskInfo();
    return print((device->mountPointURL() ? device->mountPointURL()->path() : options.at) + "\n");
}

int runUnmount(const DevicesOptions& options) {
    auto device = findDevice(options.device);
    if (!device) return noSuchDevice(options.device);
    qx::Ref<qx::Error> error;
    if (!device->unmountWholeDisk(false, options.force, &error)) return reportFailure(options.device, reasonFromError(error));
    return kExitSuccess;
}

int runEject(const DevicesOptions& options) {
    auto device = findDevice(options.device);
    if (!device) return noSuchDevice(options.device);
    qx::Ref<qx::Error> error;
    if (!device->ejectAndReturnError(&error)) return reportFailure(options.device, reasonFromError(error));
    return kExitSuccess;
}

} // namespace

void addDevicesCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<DevicesOptions>();
    auto* devices = app.add_subcommand("devices", "List, describe, mount, unmount and eject disks and volumes");
    devices->require_subcommand(1);

    auto* list = devices->add_subcommand("list", "A table of the block devices with a medium");
    list->add_flag("--plist", options->plist, "Print every device's description keys as an XML property list");
    list->callback([&selected, options] { selected = [options] { return runList(*options); }; });

    auto* info = devices->add_subcommand("info", "Every description key of one device");
    info->add_option("DEVICE", options->device, "A device node's name, loop0 or /dev/loop0")->required();
    info->add_flag("--plist", options->plist, "Print the keys as an XML property list");
    info->callback([&selected, options] { selected = [options] { return runInfo(*options); }; });

    auto* mount = devices->add_subcommand("mount", "Mount a volume and print where");
    mount->add_option("DEVICE", options->device, "A device node's name")->required();
    mount->add_option("--at", options->at, "The folder to mount at, as root (default: a new one where the system mounts volumes)");
    mount->add_option("-o", options->mountOptions, "Mount options, comma-separated (ro, noexec, ...)");
    mount->callback([&selected, options] { selected = [options] { return runMount(*options); }; });

    auto* unmount = devices->add_subcommand("unmount", "Unmount a volume");
    unmount->add_option("DEVICE", options->device, "A device node's name")->required();
    unmount->add_flag("--force", options->force, "Detach the mount even while it is in use");
    unmount->callback([&selected, options] { selected = [options] { return runUnmount(*options); }; });

    auto* eject = devices->add_subcommand("eject", "Take a medium away (detach a loop device)");
    eject->add_option("DEVICE", options->device, "A device node's name")->required();
    eject->callback([&selected, options] { selected = [options] { return runEject(*options); }; });
}

} // namespace qxtool
