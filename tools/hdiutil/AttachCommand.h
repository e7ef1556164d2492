// AttachCommand.h - `hdiutil attach`: an image as a read-only loop device, its file systems mounted.
#pragma once

#include "ToolArguments.h"

namespace hdiutil {

/// Runs attach; the exit status.
int runAttach(const ToolArguments& arguments);

} // namespace hdiutil
