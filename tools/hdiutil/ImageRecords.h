// ImageRecords.h - which image a decoded cache file stands for.
//
// A loop device knows only its backing file; for a decoded image that is a
// cache file with a made-up name. Attaching one leaves a record in the
// run-time folder, named after the cache file and holding the image's path
// or URL, so that listings can name the image the user attached. Records live
// in a run-time folder because they describe attachments, which end with the
// session; a missing record only makes the listing name the cache file.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace hdiutil {

/// Records that the cache file at cachePath holds imageName's disk; 0 or an errno value.
int rememberImage(const std::string& cachePath, const std::string& imageName);
/// The image the cache file at cachePath stands for, when recorded.
std::optional<std::string> recordedImage(const std::string& cachePath);
/// Removes the record of the cache file at cachePath (once the file is gone).
void forgetImage(const std::string& cachePath);
/// Removes the cache files recorded for imageName other than keep, with
/// their records, unless a loop device still reads them: an image that
/// changed leaves one decoded file, not one per version.
void dropStaleDecodings(const std::string& imageName, const std::string& keep);
/// The backing files of every loop device, as the kernel names them (real paths).
std::set<std::string> loopBackingFiles();

} // namespace hdiutil
