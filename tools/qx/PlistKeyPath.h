// PlistKeyPath.h - key paths into property-list trees, written as plutil writes them.
//
// Components are separated by "."; an array element is named by its decimal
// index; a literal "." inside a key is written "\.". Every path names an entry
// below the root: the empty path names the empty key.
#pragma once

#include <QXFoundation/QXPropertyList.h>

#include <string>
#include <vector>

namespace qxtool {

/// The components of path, with "\." turned back into ".".
std::vector<std::string> splitKeyPath(const std::string& path);
/// The path of node below its root.
std::string keyPathOf(const QXPropertyList::Ref& node);
/// The child of parent that component names (a key of a dictionary, a
/// decimal index into an array); nothing when there is none.
QXPropertyList::Ref childNamed(const QXPropertyList::Ref& parent, const std::string& component);
/// The node the components name below root; nothing when one is missing.
QXPropertyList::Ref resolveKeyPath(const QXPropertyList::Ref& root, const std::vector<std::string>& components);
/// A decimal index of at most 18 digits, or false.
bool parseIndex(const std::string& text, std::size_t* index);

} // namespace qxtool
