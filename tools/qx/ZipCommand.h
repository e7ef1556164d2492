// ZipCommand.h - `qx zip`: list and extract ZIP archives, legacy methods included.
//
//   qx zip list ARCHIVE
//   qx zip extract ARCHIVE [-d DIR] [NAME...]
//
// list prints one line per entry: uncompressed size, compressed size, method,
// CRC-32 and name. extract writes the entries (or only the NAMEs given) under
// DIR (default: the current directory): stored, deflated, shrunk and imploded
// entries are decoded and their CRC-32 checked. Each file is written through a
// temporary file beside it and renamed into place only when complete and
// correct. Names that are absolute or climb out with ".." are refused, and no
// existing symbolic link is followed, so nothing is written outside DIR. A
// failed entry is reported on its own line and the others still extracted;
// the exit status is then 1.
#pragma once

#include "Command.h"

namespace qxtool {

void addZipCommand(CLI::App& app, Action& selected);

} // namespace qxtool
