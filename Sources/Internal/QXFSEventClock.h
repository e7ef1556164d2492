// QXFSEventClock.h - event identifiers taken from change times.
//
// An event identifier is a change time (ctime) in nanoseconds since the epoch:
// live events and history answers then share one scale, and an identifier
// kept by an application stays meaningful after it restarts, because no user
// can set a change time back.
//
// Change times are coarse. A file system stamps them from a clock that moves
// in granules (the kernel's timer tick; whole seconds on FUSE), so several
// changes within one granule may carry the same time to the nanosecond, and
// a change made later in the granule may still get a time that a scan has
// already seen. Two rules follow:
//   * live identifiers are made strictly increasing within the process
//     (nextIdentifier), so a batch of changes in one granule still has
//     distinct, ordered identifiers;
//   * history answers never name a time at or above the start of the granule
//     in progress when the scan began (see QXChangeTimeScan).
#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace QXFSEventClock {

/// The identifier for a change stamped changeTime: changeTime itself, or one
/// more than the last identifier handed out in this process when that is
/// higher. Thread-safe.
std::uint64_t nextIdentifier(std::uint64_t changeTime);

/// The time the file system holding path stamps on changes made now, rounded
/// down to its granule: every change made from now on carries a change time
/// at or above it. A path that cannot be examined counts as a tick-grained
/// file system.
std::uint64_t granuleStart(const std::string& path);
/// The granule length of the file system holding path, in nanoseconds.
std::uint64_t granuleLength(const std::string& path);

/// The current wall-clock time in nanoseconds, for events with no file to date them.
std::uint64_t now();

inline std::uint64_t changeTime(const struct stat& st) {
    return static_cast<std::uint64_t>(st.st_ctim.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(st.st_ctim.tv_nsec);
}

} // namespace QXFSEventClock
