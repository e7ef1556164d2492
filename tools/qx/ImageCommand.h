// ImageCommand.h - `qx image`: disk-image information, checks, licence and conversion.
#pragma once

#include "Command.h"

namespace qxtool {

void addImageCommand(CLI::App& app, Action& selected);

} // namespace qxtool
