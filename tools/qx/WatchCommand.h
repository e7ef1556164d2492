// WatchCommand.h - `qx watch`: file-system events under folders.
//
//   qx watch DIR... [--latency SECONDS] [--json]
//   qx watch --latest DIR...
//   qx watch --changed-since ID DIR...
//
// The first form prints each change as it comes, one line per event:
// "ID FLAGS PATH" (FLAGS as names joined by "|"), or with --json one JSON
// object per line {"id":ID,"flags":[NAMES],"path":PATH}; it runs until
// interrupted (SIGINT or SIGTERM) and then exits 0. --latest prints the latest
// event identifier under the folders. --changed-since prints the latest
// identifier too, and exits 0 when something changed after ID, 1 when not;
// identifiers may be kept across runs. Errors are one line on standard error
// and exit 2.
#pragma once

#include "Command.h"

namespace qxtool {

void addWatchCommand(CLI::App& app, Action& selected);

} // namespace qxtool
