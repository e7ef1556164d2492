// SystemEntities.h - the devices of one attached image, as the tool lists them.
//
// An image's entities are its whole disk, then each partition by number. Each
// is a dictionary with the keys callers read: "dev-entry" (the node's path),
// "content-hint" (the partition scheme of a whole disk with a table, else
// what the partition holds: the image's own name for it when the image is a
// UDIF one, a known type's name, or the type's identifier),
// "unmapped-content-hint" (the type's identifier), "potentially-mountable"
// (whether it holds a file system), "volume-kind" (that file system) and, when
// mounted, "mount-point".
#pragma once

#include <qx/Array.h>
#include <qx/BlockDevice.h>

#include <QXFoundation/QXDiskImage.h>

#include <string>
#include <vector>

namespace hdiutil {

/// The whole disk, then its partitions: the descriptions an image's entities
/// are made of, with the mounts of FUSE helpers among their file systems' mount points.
std::vector<qx::BlockDeviceDescription> imageDevices(const std::string& diskName);

/// The entities of devices (whole disk first). udifPartitions are the
/// image's block tables, for names of what partitions hold; may be empty.
qx::Ref<qx::Array> systemEntities(const std::vector<qx::BlockDeviceDescription>& devices,
                                  const std::vector<QXDiskImagePartition>& udifPartitions);

/// What the kernel calls a file system, in the words the entities use ("hfs" for hfsplus).
std::string volumeKind(const std::string& idType);

} // namespace hdiutil
