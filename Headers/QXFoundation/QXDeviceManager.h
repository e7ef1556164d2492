// QXDeviceManager.h - finding the disks and volumes of the machine.
//
// Every search opens one session with the block-device service for the
// devices it makes (they keep it; the manager does not) and hands out
// QXDevice snapshots. Searches that find nothing answer nothing or an empty
// array; they never make errors.
//
// Order: every search walks the block devices with a medium in one stable
// order: whole disks by name (shorter names first, so loop2 comes before
// loop10), each followed by its partitions by number. The device registry
// has two planes that a search may walk, the device tree and the service
// plane; on Linux both are this one list, so the volume-UUID search (service
// plane) and the others (device tree) see the same devices in the same order.
#pragma once

#include <QXFoundation/QXDevice.h>

class QXDeviceManager : public qx::Object {
public:
    using Ref = qx::Ref<QXDeviceManager>;

    /// The one manager, made on first use.
    static Ref sharedInstance();

    /// Every block device with a medium, in the order above.
    qx::Ref<qx::Array> allDiskDevices() const;
    /// The device of a node's name, "loop0" or "/dev/loop0"; nothing when the
    /// machine has no such block device.
    QXDevice::Ref deviceWithBSDName(const std::string& name) const;
    /// The device mounted at url (a file URL of a mount point); else nothing.
    QXDevice::Ref deviceWithMountPointURL(const qx::Ref<qx::URL>& url) const;
    /// The device holding the volume the file at url lies on (by its device
    /// number); nothing when that volume is not on a block device.
    QXDevice::Ref deviceContainingURL(const qx::Ref<qx::URL>& url) const;
    /// The first device whose volumeUUID equals uuid; nothing for no uuid,
    /// without asking the service.
    QXDevice::Ref deviceWithVolumeUUID(const qx::Ref<qx::UUID>& uuid) const;
    /// Every device whose volumeName equals name.
    qx::Ref<qx::Array> devicesWithVolumeName(const std::string& name) const;
    /// The first device whose mediaUUID equals uuid.
    QXDevice::Ref deviceWithMediaUUID(const qx::Ref<qx::UUID>& uuid) const;

    std::string className() const override { return "QXDeviceManager"; }

    /// For tests: searches through this provider instead of the machine's.
    explicit QXDeviceManager(qx::Ref<qx::BlockDeviceProvider> provider = nullptr) : _provider(std::move(provider)) {}

private:
    qx::Ref<qx::BlockDeviceService> newSession() const { return qx::BlockDeviceService::create(_provider); }
    /// The devices of a new session for which keep() holds, in order; at most one when first.
    std::vector<QXDevice::Ref> search(const std::function<bool(const qx::BlockDeviceDescription&)>& keep, bool first) const;

    const qx::Ref<qx::BlockDeviceProvider> _provider;
};
