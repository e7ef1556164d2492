// PlistCommand.h - `qx plist`: print and convert property lists (the editing
// verbs are PlistEditCommand's).
//
//   qx plist print INPUT
//   qx plist convert --format binary|xml|text INPUT -o OUTPUT
//
// Binary output widens its references as far as the file needs, and nothing is
// written that does not read back.
// "-" is standard input or standard output. Any format the library reads is
// accepted as input; the output format is whatever the library can write.
#pragma once

#include "Command.h"

namespace qxtool {

void addPlistCommand(CLI::App& app, Action& selected);

} // namespace qxtool
