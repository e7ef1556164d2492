// BytesCommand.h - `qx bytes find|edit`: searching and editing a file's bytes
// (or its resource fork) through a data reference, without loading it whole.
//
//   qx bytes find FILE PATTERN [--hex] [--ignore-case] [--backwards]
//                 [--offset N] [--length N] [--all] [--fork]
//   qx bytes edit FILE [--insert OFFSET:HEX] [--delete OFFSET:LENGTH]
//                 [--replace OFFSET:HEX]... [--fork]
//
// find prints the offset of the first match (the last with --backwards; every
// match with --all, in scan order), one decimal number a line; no match is
// status 1 without a message. PATTERN is text, or hexadecimal bytes with
// --hex; --ignore-case folds Mac OS Roman letters.
//
// edit applies the edits in the order given, each offset counting in the file
// as the edits before it left it; --replace overwrites as many bytes as HEX
// holds. Every edit is checked against the sizes before anything is written,
// and each is written back in place and the file reopened before the next,
// so that every edit meets an unedited file: the edits are exactly the ones
// asked for. Numbers are decimal, or hexadecimal after "0x".
#pragma once

#include "Command.h"

namespace qxtool {

void addBytesCommand(CLI::App& app, Action& selected);

} // namespace qxtool
