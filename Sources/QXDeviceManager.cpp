// QXDeviceManager.cpp - finding the disks and volumes of the machine.
#include <QXFoundation/QXDeviceManager.h>

#include <algorithm>
#include <sys/stat.h>

namespace {

// Mount points are compared without a trailing slash ("/mnt/x/" is "/mnt/x").
std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool sameUUID(const std::string& text, const qx::UUID& uuid) {
    auto parsed = text.empty() ? nullptr : qx::UUID::withString(text);
    return parsed && parsed->isEqual(uuid);
}

qx::Ref<qx::Array> arrayOf(const std::vector<QXDevice::Ref>& devices) {
    auto array = qx::Array::create();
    for (const auto& device : devices) array->addObject(device);
    return array;
}

} // namespace

QXDeviceManager::Ref QXDeviceManager::sharedInstance() {
    static const Ref shared = std::make_shared<QXDeviceManager>();
    return shared;
}

std::vector<QXDevice::Ref> QXDeviceManager::search(const std::function<bool(const qx::BlockDeviceDescription&)>& keep,
                                                   bool first) const {
    auto session = newSession();
    std::vector<QXDevice::Ref> found;
    for (const auto& d : session->devices()) {
        if (!keep(d)) continue;
        // The device reads the description the session just remembered.
        found.push_back(QXDevice::deviceFromDADisk(qx::BlockDeviceDisk::withName(d.name), session));
        if (first) break;
    }
    session->forgetRememberedDescriptions();
    return found;
}

qx::Ref<qx::Array> QXDeviceManager::allDiskDevices() const {
    return arrayOf(search([](const qx::BlockDeviceDescription&) { return true; }, false));
}

QXDevice::Ref QXDeviceManager::deviceWithBSDName(const std::string& name) const {
    std::string node = name.rfind("/dev/", 0) == 0 ? name.substr(5) : name;
    if (node.empty() || node.find('/') != std::string::npos) return nullptr;
    auto session = newSession();
    if (!session->device(node)) return nullptr;
    return QXDevice::deviceFromDADisk(qx::BlockDeviceDisk::withName(node), session);
}

QXDevice::Ref QXDeviceManager::deviceWithMountPointURL(const qx::Ref<qx::URL>& url) const {
    if (!url || !url->isFileURL()) return nullptr;
    const std::string path = withoutTrailingSlash(url->path());
    auto found = search(
        [&](const qx::BlockDeviceDescription& d) {
            if (!d.filesystem) return false;
            const auto& points = d.filesystem->mountPoints;
            return std::find(points.begin(), points.end(), path) != points.end();
        },
        true);
    return found.empty() ? nullptr : found.front();
}

QXDevice::Ref QXDeviceManager::deviceContainingURL(const qx::Ref<qx::URL>& url) const {
    struct stat st {};
    if (!url || !url->isFileURL() || ::stat(url->path().c_str(), &st) != 0) return nullptr;
    auto found = search([&](const qx::BlockDeviceDescription& d) { return d.filesystem && d.deviceNumber == st.st_dev; }, true);
    return found.empty() ? nullptr : found.front();
}

QXDevice::Ref QXDeviceManager::deviceWithVolumeUUID(const qx::Ref<qx::UUID>& uuid) const {
    if (!uuid) return nullptr;
    auto found = search([&](const qx::BlockDeviceDescription& d) { return sameUUID(d.idUUID, *uuid); }, true);
    return found.empty() ? nullptr : found.front();
}

qx::Ref<qx::Array> QXDeviceManager::devicesWithVolumeName(const std::string& name) const {
    return arrayOf(search([&](const qx::BlockDeviceDescription& d) { return !d.idLabel.empty() && d.idLabel == name; }, false));
}

QXDevice::Ref QXDeviceManager::deviceWithMediaUUID(const qx::Ref<qx::UUID>& uuid) const {
    if (!uuid) return nullptr;
    auto found = search(
        [&](const qx::BlockDeviceDescription& d) {
            if (d.partition) return sameUUID(d.partition->uuid, *uuid);
            return d.partitionTable && sameUUID(d.partitionTable->uuid, *uuid);
        },
        true);
    return found.empty() ? nullptr : found.front();
}
