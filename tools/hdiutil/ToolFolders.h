// ToolFolders.h - where the tool keeps decoded images and its records.
//
// Both are per user: root's under /var/cache and /run, everyone else's under
// the XDG folders of their home and session. Each has an environment
// variable that replaces it, for tests and for packagers.
#pragma once

#include <string>

namespace hdiutil {

/// Decoded images: $QXFOUNDATION_IMAGE_CACHE, else /var/cache/qxfoundation/images
/// for root, else $XDG_CACHE_HOME (or ~/.cache) + /qxfoundation/images.
std::string cacheFolder();
/// Records of what cache files stand for: $QXFOUNDATION_HDIUTIL_RUNTIME, else
/// /run/qxfoundation/hdiutil for root, else $XDG_RUNTIME_DIR (or the cache
/// folder's parent) + /qxfoundation/hdiutil.
std::string runtimeFolder();
/// Creates folder and its parents (the last one private to the user); 0 or an errno value.
int makeFolder(const std::string& folder);

} // namespace hdiutil
