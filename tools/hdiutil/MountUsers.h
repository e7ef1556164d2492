// MountUsers.h - whether anything still uses a mounted file system.
//
// A detach must leave everything attached when any of the image's file
// systems is busy, so it asks first, for all of them, before it unmounts any.
// A file system is in use when a process (other than this one) has its
// working or root folder on it, has a file on it open or mapped, or runs a
// program from it; these are what make an unmount fail with EBUSY. Processes
// this user may not inspect are not seen: their use shows only when the
// unmount itself fails.
//
// A FUSE server is such a user of the device it reads, though not of its own
// mount: after the unmount a detach waits for it to go, so that the image's
// device is free (and no server is left) when the detach reports success.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace hdiutil {

/// True when some process uses a file on one of the file systems mounted at mountPoints.
bool isAnyInUse(const std::vector<std::string>& mountPoints);
/// The processes (other than this one) with the block device at path open:
/// for a FUSE mount, its server.
std::vector<pid_t> deviceHolders(const std::string& path);
/// Waits until each of processes has exited (a zombie counts as exited), or
/// until timeout; whether they all did.
bool waitForExit(const std::vector<pid_t>& processes, std::chrono::milliseconds timeout);

} // namespace hdiutil
