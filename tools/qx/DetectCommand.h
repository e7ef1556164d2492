// DetectCommand.h - `qx detect`: which compression format files are in.
//
//   qx detect FILE...
//
// Prints one line per file, "FILE: NAME", where NAME is gzip, zlib, bzip2, xz,
// pbzx or none, decided from the file's leading bytes alone (nothing is
// decompressed, so a damaged payload is still named by its header). A file
// that can't be read is reported on standard error and the rest still
// examined; the exit status is then 1.
#pragma once

#include "Command.h"

namespace qxtool {

void addDetectCommand(CLI::App& app, Action& selected);

} // namespace qxtool
