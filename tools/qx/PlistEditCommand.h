// PlistEditCommand.h - `qx plist get|set|insert|remove|find`.
//
//   qx plist get FILE KEYPATH [--raw]
//   qx plist set FILE KEYPATH VALUE [--type string|integer|real|bool|date|data]
//   qx plist insert FILE KEYPATH [VALUE] --type T     (array and dict: empty containers)
//   qx plist remove FILE KEYPATH
//   qx plist find FILE TEXT [--keys] [--values] [--ignore-case] [--backwards] [--type T]... [--all]
//
// Key paths are written as plutil writes them (see PlistKeyPath.h). Edits keep
// FILE's format unless --format says otherwise and replace FILE (or write
// --output) only when the edit succeeded and its result reads back. Values are
// typed as in the XML format: integers and reals in C notation, bools as
// true/false/yes/no/1/0, dates as YYYY-MM-DDTHH:MM:SSZ, data as base64.
// find prints key paths, one a line; no match is status 1 without a message.
#pragma once

#include "Command.h"

#include <QXFoundation/QXPropertyListSerialization.h>

namespace qxtool {

/// Adds the verbs to the `plist` subcommand.
void addPlistEditCommands(CLI::App& plist, Action& selected);

/// value in format, binary with references widened as far as the file needs,
/// and only when the bytes read back: no command writes a file it cannot read.
qx::Ref<qx::Data> serializeForWriting(const qx::Ref<qx::Object>& value, QXPropertyListFormat format,
                                      qx::Ref<qx::Error>* error = nullptr);

} // namespace qxtool
