// ImageInfoCommand.h - `hdiutil imageinfo`: an image's format, sizes, checksum and partitions.
#pragma once

#include "ToolArguments.h"

namespace hdiutil {

/// Runs imageinfo; the exit status.
int runImageInfo(const ToolArguments& arguments);

} // namespace hdiutil
