// InfoCommand.h - `hdiutil info`: the attached images and their devices.
#pragma once

#include "ToolArguments.h"

#include <qx/Dictionary.h>

namespace hdiutil {

/// Runs info; the exit status.
int runInfo(const ToolArguments& arguments);

/// The image behind a loop device's backing file: the recorded original for
/// a decoded cache file, else the backing file itself.
std::string imageBehind(const std::string& backingFile);

} // namespace hdiutil
