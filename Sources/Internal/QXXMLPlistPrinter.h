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

#include <cstdint>
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
/// out; false with *error set when a value cannot be written. When plain is
/// given, it is cleared unless every text printed is one the reader takes as
/// it is (see xmlDocumentWithPropertyList).
bool printPropertyList(const qx::Object* value, std::vector<std::uint8_t>& out, qx::Ref<qx::Error>* error,
                       bool* plain = nullptr);

/// The whole XML document of plist, as xmlDataWithPropertyList returns it.
/// When readsBack is given it says whether the document certainly reads
/// back: every text in it is well-formed UTF-8 of characters XML allows, no
/// text comes near the parser's limit on one text node, every real's text
/// parses, and the document is of a size the parser takes. Such a document
/// is read back by XMLPropertyListWithData without fail (the printer writes
/// nothing else that could fail), so a caller that wants "no file it cannot
/// read" need not parse it again; false means only reading it back tells.
qx::Ref<qx::Data> xmlDocumentWithPropertyList(const qx::Ref<qx::Object>& plist, bool* readsBack,
                                              qx::Ref<qx::Error>* error);


} // namespace QXXMLPlistInternal
