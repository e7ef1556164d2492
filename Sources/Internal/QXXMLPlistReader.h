// QXXMLPlistReader.h - reading XML property lists.
//
// Private to Sources/. The parser runs without network access, without DTD
// loading and without entity substitution; the few documents that use
// entities of their own have them expanded here, within a budget, so that a
// nest of entities cannot blow up (the classic exponential entity attack).
// Values are built while the document is parsed (QXXMLPlistBuilder): no
// whole document tree is ever held. Each call works on the calling thread
// with state of its own.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstddef>

namespace QXXMLPlistInternal {

/// What entity references may add to a document of documentSize bytes: a
/// fixed allowance plus four times the document's own size.
std::size_t entityBudgetFor(std::size_t documentSize);

/// Parses data and returns the value of its plist element; parser failures
/// carry the parser's error (NSXMLParserErrorDomain), the rest 3840, 3841 or 256.
qx::Ref<qx::Object> readXMLPropertyList(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error);


} // namespace QXXMLPlistInternal
