// DetachCommand.h - `hdiutil detach`: every file system of an image unmounted, its loop device gone.
#pragma once

#include "ToolArguments.h"

namespace hdiutil {

/// Runs detach; the exit status (16 when a file system is busy).
int runDetach(const ToolArguments& arguments);

} // namespace hdiutil
