// FuseMounts.h - file systems the kernel cannot mount, served by an installed FUSE helper.
//
// When the kernel refuses a file system and a helper program for it is
// installed (fsapfsmount for APFS, fuseiso for ISO 9660, fusefat for FAT),
// the helper mounts it read-only in a folder under the service's default
// place. The kernel's mount table does not tie such a mount to the device it
// reads, so each attach records its helper mounts in the run-time folder,
// under the whole disk's name and its attachment sequence number (a loop
// device number used again later is a different attachment), and the
// descriptions of the image's devices are completed from that record.
#pragma once

#include <qx/BlockDevice.h>

#include <string>
#include <vector>

namespace hdiutil {

/// Mounts d's file system with its helper; the mount point, or empty when
/// there is no helper for it or the helper failed. Recorded for d's disk.
std::string mountWithHelper(const qx::BlockDeviceDescription& d, const qx::BlockDeviceDescription& disk);
/// Adds the recorded helper mounts still in the mount table to the file
/// systems of devices (the whole disk first, as imageDevices gives them).
void addHelperMounts(std::vector<qx::BlockDeviceDescription>& devices);
/// The helper mounts among mountPoints of devices: they are unmounted by
/// point, not through the device.
bool isHelperMount(const std::vector<qx::BlockDeviceDescription>& devices, const std::string& mountPoint);
/// Unmounts a helper mount and removes its folder; 0 or an errno value (EBUSY
/// when in use). The helper's server goes when it sees the unmount; it holds
/// the device open until then, and both providers' loop detach waits for the
/// device's last close, so a detach returns only once the server has gone.
int unmountHelper(const std::string& mountPoint, bool force);
/// Forgets the helper mounts of the disk (after its detach).
void forgetHelperMounts(const qx::BlockDeviceDescription& disk);

} // namespace hdiutil
