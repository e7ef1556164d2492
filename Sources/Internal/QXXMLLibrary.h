// QXXMLLibrary.h - small helpers around the XML document library (libxml2).
//
// Private to Sources/. initialiseLibrary runs the library's own set-up once,
// whichever thread gets there first.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <mutex>

namespace QXXMLPlistInternal {

inline void initialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

inline const xmlChar* xc(const char* s) { return reinterpret_cast<const xmlChar*>(s); }
inline const char* cc(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

inline bool nameIs(const xmlNode* node, const char* name) {
    return node->name && std::strcmp(cc(node->name), name) == 0;
}


} // namespace QXXMLPlistInternal
