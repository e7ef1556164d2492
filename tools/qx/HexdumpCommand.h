// HexdumpCommand.h - `qx hexdump`: show a file's bytes as hexadecimal and text.
//
//   qx hexdump FILE [--offset N] [--length N]
//
// Prints lines of 16 bytes: the offset in the file (8 or more hexadecimal
// digits), the bytes as upper-case hexadecimal, and the bytes as text (Mac OS
// Roman; bytes that do not show as a character print as "."). --offset starts
// there (past the end is an error, at the end prints nothing); --length stops
// after that many bytes or at the end of the file. "-" reads standard input.
#pragma once

#include "Command.h"

namespace qxtool {

void addHexdumpCommand(CLI::App& app, Action& selected);

} // namespace qxtool
