// DevicesCommand.h - `qx devices`: the machine's disks and volumes.
//
//   qx devices list [--plist]                  a table: device, size, type, label, UUID, mount point
//   qx devices info DEVICE [--plist]           every description key of one device
//   qx devices mount DEVICE [--at DIR] [-o OPTIONS]   prints the mount point
//   qx devices unmount DEVICE [--force]
//   qx devices eject DEVICE                    (a loop device is detached)
//
// DEVICE is a node's name, "loop0" or "/dev/loop0". Failures are one line on
// standard error and exit 1.
#pragma once

#include "Command.h"

namespace qxtool {

void addDevicesCommand(CLI::App& app, Action& selected);

} // namespace qxtool
