// ToolArguments.h - the tool's command lines: a verb, its flags and one operand.
//
// Flags are single words with one dash ("-plist"), as the callers write them,
// and may come before or after the operand. Flags that only matter on other
// systems (-nokernel, -noverify, -nobrowse, -noidme, -noautoopen, -readonly:
// every attachment here is read-only) are accepted and change nothing.
#pragma once

#include <string>
#include <vector>

namespace hdiutil {

enum class Verb { Help, Attach, Detach, Info, ImageInfo };

struct ToolArguments {
    Verb verb = Verb::Help;
    std::string verbName;  // as typed: the word of the failure lines
    std::string operand;   // IMAGE for attach and imageinfo, DEVICE for detach
    bool plist = false;
    bool puppetStrings = false;
    bool noMount = false;
    bool force = false;
};

/// Parses the words after the program's name. False with the reason of a
/// line the tool cannot run (unknown verb or flag, operand missing or extra).
bool parseArguments(const std::vector<std::string>& words, ToolArguments& arguments, std::string& reason);

/// The help text, ending with a line end.
std::string usageText();

} // namespace hdiutil
