// QXXMLPlistPrinter.h - writing a value as the text of an XML property list.
//
// Private to Sources/. The printer and the libxml2 tree builder
// (QXXMLPlistTree) write the same document and share the rules below: keys in
// the writer's order, UIDs as one-entry dictionaries, the nesting limit and
// the refusals with their log lines. Stateless apart from the output buffer
// of one call, so safe from any thread.
#pragma once

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"

#include <qx/Dictionary.h>
#include <qx/Log.h>

#include <string>
#include <vector>

namespace QXXMLPlistInternal {

inline constexpr const char* kUIDKey = "CF$UID";

/// Logs the reason, stores the property-list error, and returns false.
template <class... Args> bool refuseWrite(qx::Ref<qx::Error>* error, const char* fmt, const Args&... args) {
    QXLog(fmt, args...);
    QXBinaryPlistInternal::setError(error);
    return false;
}

/// Keys in the writer's order: case ignored, digit runs by value, the current
/// locale's collation.
void sortByKey(std::vector<const qx::Dictionary::Entry*>& entries);

/// The dictionary a UID is written as: { "CF$UID": n }, n read from the UID's
/// bytes as a binary integer object (the first byte taken as the size marker,
/// so 8-byte values such as initWithInt64Value makes read as 0), or the bytes
/// themselves when they are longer than 8.
qx::Ref<qx::Dictionary> uidDictionary(const QXUIDPropertyList& uid);

/// False, logged and with the error set, when a container at depth would
/// nest deeper than QXXMLPlistMaxNestingDepth.
bool checkDepth(unsigned depth, qx::Ref<qx::Error>* error);

/// The text of a real element: the number's description, with ".0" added
/// when that is digits alone (the reader takes digits alone for an integer).
std::string realText(const qx::Number& number);

/// Appends the elements of value (one level inside the plist element) to
/// out; false with *error set when a value cannot be written.
bool printPropertyList(const qx::Object* value, std::string& out, qx::Ref<qx::Error>* error);


} // namespace QXXMLPlistInternal
