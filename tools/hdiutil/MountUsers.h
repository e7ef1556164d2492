// MountUsers.h - whether anything still uses a mounted file system.
//
// A detach must leave everything attached when any of the image's file
// systems is busy, so it asks first, for all of them, before it unmounts any.
// A file system is in use when a process (other than this one) has its
// working or root folder on it, has a file on it open or mapped, or runs a
// program from it; these are what make an unmount fail with EBUSY. Processes
// this user may not inspect are not seen: their use shows only when the
// unmount itself fails.
#pragma once

#include <string>
#include <vector>

namespace hdiutil {

/// True when some process uses a file on one of the file systems mounted at mountPoints.
bool isAnyInUse(const std::vector<std::string>& mountPoints);

} // namespace hdiutil
