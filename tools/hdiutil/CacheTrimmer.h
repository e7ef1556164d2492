// CacheTrimmer.h - keeping the folder of decoded images within a budget.
//
// Every different image attached leaves its decoded disk in the cache, and a
// decoded disk is as large as the disk it stands for (less its holes), so
// the folder is trimmed after each decode: the least recently used decoded
// files go first until the space they take is within the budget. Spared are
// the file the attach at hand uses, files a loop device reads, and files used
// in the last minute (another attach may be between its decode and its loop
// device). The time of use is the modification time, which a decode sets by
// writing and a reuse by touching the file. The budget is soft: what is in
// use may exceed it.
//
// Temporaries of decodes that were cut off (a crash, a power loss; an
// interrupt removes its own) are removed once nothing has written to them for
// a quarter of an hour; younger ones may belong to a decode still running.
// Only names the cache gives (and their temporaries) are counted or removed.
#pragma once

#include <cstdint>
#include <string>

namespace hdiutil {

/// The budget when $QXFOUNDATION_IMAGE_CACHE_LIMIT gives none: 4 GiB.
constexpr std::uint64_t kDefaultCacheLimit = std::uint64_t(4) << 30;

/// Bytes of allocated space the cache may hold: $QXFOUNDATION_IMAGE_CACHE_LIMIT
/// (a decimal number of bytes), else kDefaultCacheLimit.
std::uint64_t cacheLimit();

/// Trims folder to limit bytes (st_blocks * 512 summed) as described above;
/// keep, the decoded file just made or reused, always stays. Failures to
/// remove a file are not errors: the trim is a courtesy to the disk.
void trimCache(const std::string& folder, const std::string& keep, std::uint64_t limit);

} // namespace hdiutil
