// QXSystemVersion.h - the running operating system's version.
//
// Any thread: the version is read once, under a lock, and then kept.
#pragma once

#include <qx/String.h>

#include <cstdint>

/// Fills each given out-parameter with the major, minor and patch number.
void QXGetSystemVersion(std::int64_t* major, std::int64_t* minor, std::int64_t* patch);

/// The version as text: the system's own human-readable string, or, where the
/// version comes from the system's version file, "major.minor" with
/// ".patch" only when the patch is not 0. Never nothing.
qx::Ref<qx::String> QXGetSystemVersionString();

/// True when the running system is at least major.minor.patch.
bool QXSystemVersionIsAtLeast(std::int64_t major, std::int64_t minor, std::int64_t patch);
