// PlistOutput.h - what the tool prints on standard output.
//
// With -plist, standard output is one XML property list and nothing else,
// beginning with "<?xml": callers start parsing at the first byte. Without
// it, the same facts are printed as aligned text for people.
#pragma once

#include <qx/Array.h>
#include <qx/Object.h>

#include <string>

namespace hdiutil {

/// Writes plist to standard output; false, with the reason, when it cannot be written.
bool printPropertyList(const qx::Ref<qx::Object>& plist, std::string& reason);
/// Writes text to standard output; false, with the reason, when it cannot be written.
bool printText(const std::string& text, std::string& reason);

/// Entities as lines of device, content hint and mount point.
std::string entitiesText(const qx::Ref<qx::Array>& entities);
/// A dictionary's keys and values as indented "key: value" lines.
std::string dictionaryText(const qx::Ref<qx::Object>& plist, int depth = 0);

} // namespace hdiutil
