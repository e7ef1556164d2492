// QXXMLPlistTree.h - XML property lists as libxml2 trees.
//
// Private to Sources/ (the installed headers name no libxml2 type). The
// library writes and reads documents as text; these operations build the
// equivalent libxml2 tree, for code that works on trees and for checking
// that the direct printer writes exactly what libxml2 prints of the tree.
// (Reading builds values while parsing and holds no tree: QXXMLPlistReader.)
// Each call works on its own tree; a tree may not be shared across threads
// while one of them changes it.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <memory>

struct _xmlNode;
struct _xmlDoc;

// The XML document library's node and document, owned through these handles
// so that no caller frees them by hand.
struct QXXMLNodeDeleter {
    void operator()(_xmlNode* node) const;
};
struct QXXMLDocumentDeleter {
    void operator()(_xmlDoc* document) const;
};
/// An XML element with its subtree, not linked into any document.
using QXXMLElement = std::unique_ptr<_xmlNode, QXXMLNodeDeleter>;
/// A parsed XML document.
using QXXMLDocument = std::unique_ptr<_xmlDoc, QXXMLDocumentDeleter>;

class QXXMLPlistTree {
public:
    QXXMLPlistTree() = delete;

    /// The element for plist (recursive). A UID becomes the dictionary
    /// { "CF$UID": n }, where n is read from the UID's bytes as a binary
    /// integer object (the first byte taken as the size marker) when they are
    /// at most 8 bytes, and is the bytes as data otherwise; other writers'
    /// archives depend on exactly this reading, so it is not int64Value.
    static QXXMLElement elementWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error = nullptr);
    /// The whole document as a tree: xmlDataWithPropertyList prints exactly
    /// what dataWithDocument prints of this tree, without building it.
    static QXXMLDocument documentWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                  qx::Ref<qx::Error>* error = nullptr);
    /// libxml2's pretty printing of a document, in UTF-8.
    static qx::Ref<qx::Data> dataWithDocument(const _xmlDoc& document, qx::Ref<qx::Error>* error = nullptr);
};
