// QXXMLPlistTree.cpp - building and printing libxml2 trees of property lists.
#include "Internal/QXXMLPlistTree.h"

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXXMLLibrary.h"
#include "Internal/QXXMLPlistPrinter.h"
#include "Internal/QXXMLPlistValueText.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/String.h>

#include <libxml/xmlsave.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace QXBinaryPlistInternal;
using namespace QXXMLPlistInternal;

void QXXMLNodeDeleter::operator()(_xmlNode* node) const {
    if (node) xmlFreeNode(node);
}

void QXXMLDocumentDeleter::operator()(_xmlDoc* document) const {
    if (document) xmlFreeDoc(document);
}

namespace {

constexpr const char* kPlistPublicID = "-//Apple//DTD PLIST 1.0//EN";
constexpr const char* kPlistSystemID = "http://www.apple.com/DTDs/PropertyList-1.0.dtd";

class XMLWriter {
public:
    explicit XMLWriter(xmlDocPtr doc) : doc_(doc) {}

    // The element for value, or null with *error set.
    xmlNodePtr element(const qx::Object* value, unsigned depth, qx::Ref<qx::Error>* error);

private:
    xmlNodePtr leaf(const char* name, const std::string& text) {
        xmlNodePtr node = xmlNewDocNode(doc_, nullptr, xc(name), nullptr);
        if (!node) throw std::bad_alloc();
        if (!text.empty()) {
            if (text.size() > static_cast<std::size_t>(INT_MAX)) {
                xmlFreeNode(node);
                throw std::length_error("text too long for the XML printer");
            }
            xmlNodePtr t = xmlNewDocTextLen(doc_, xc(text.data()), static_cast<int>(text.size()));
            if (!t) {
                xmlFreeNode(node);
                throw std::bad_alloc();
            }
            xmlAddChild(node, t);
        }
        return node;
    }
    xmlNodePtr container(const char* name) {
        xmlNodePtr node = xmlNewDocNode(doc_, nullptr, xc(name), nullptr);
        if (!node) throw std::bad_alloc();
        return node;
    }
    xmlNodePtr dictionary(const qx::Dictionary& dict, unsigned depth, qx::Ref<qx::Error>* error);
    xmlNodePtr uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error);

    xmlDocPtr doc_;
};

// Frees a half-built subtree when a child fails (or memory runs out).
struct NodeGuard {
    xmlNodePtr node;
    ~NodeGuard() {
        if (node) xmlFreeNode(node);
    }
    xmlNodePtr release() { return std::exchange(node, nullptr); }
};

bool checkDepth(unsigned depth, qx::Ref<qx::Error>* error) {
    if (depth < QXXMLPlistMaxNestingDepth) return true;
    return refuseWrite(error, "property list nests deeper than %u levels", QXXMLPlistMaxNestingDepth);
}

xmlNodePtr XMLWriter::element(const qx::Object* value, unsigned depth, qx::Ref<qx::Error>* error) {
    if (auto u = dynamic_cast<const QXUIDPropertyList*>(value)) return uid(*u, depth, error);
    if (auto n = dynamic_cast<const qx::Number*>(value)) {
        if (n->isBoolean()) return leaf(n->boolValue() ? "true" : "false", {});
        if (n->isReal()) {
            // The reader takes digits alone for an integer; a real keeps its point.
            return leaf("real", realText(*n));
        }
        char buf[32];
        std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(n->int64Value()));
        return leaf("integer", buf);
    }
    if (auto d = dynamic_cast<const qx::Date*>(value))
        return leaf("date", localDateText(d->timeIntervalSinceReferenceDate()));
    if (auto d = dynamic_cast<const qx::Data*>(value)) return leaf("data", encodeBase64(d->bytes(), d->length()));
    if (auto s = dynamic_cast<const qx::String*>(value)) return leaf("string", s->utf8());
    if (auto a = dynamic_cast<const qx::Array*>(value)) {
        if (!checkDepth(depth, error)) return nullptr;
        NodeGuard node{container("array")};
        for (const auto& item : *a) {
            xmlNodePtr child = element(item.get(), depth + 1, error);
            if (!child) return nullptr;
            xmlAddChild(node.node, child);
        }
        return node.release();
    }
    if (auto d = dynamic_cast<const qx::Dictionary*>(value)) return dictionary(*d, depth, error);
    refuseWrite(error, "error: unknown plist type!");
    return nullptr;
}

xmlNodePtr XMLWriter::dictionary(const qx::Dictionary& dict, unsigned depth, qx::Ref<qx::Error>* error) {
    if (!checkDepth(depth, error)) return nullptr;
    std::vector<const qx::Dictionary::Entry*> entries;
    entries.reserve(dict.count());
    for (const auto& entry : dict) {
        if (!dynamic_cast<const qx::String*>(entry.first.get())) {
            refuseWrite(error, "can't have a non-string key!");
            return nullptr;
        }
        entries.push_back(&entry);
    }
    sortByKey(entries);
    NodeGuard node{container("dict")};
    for (const auto* entry : entries) {
        xmlAddChild(node.node, leaf("key", static_cast<const qx::String&>(*entry->first).utf8()));
        xmlNodePtr child = element(entry->second.get(), depth + 1, error);
        if (!child) return nullptr;
        xmlAddChild(node.node, child);
    }
    return node.release();
}

xmlNodePtr XMLWriter::uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error) {
    return dictionary(*uidDictionary(uid), depth, error);
}

} // namespace

QXXMLDocument QXXMLPlistTree::documentWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error) {
    initialiseLibrary();
    try {
        QXXMLDocument doc(xmlNewDoc(xc("1.0")));
        if (!doc) throw std::bad_alloc();
        doc->dict = xmlDictCreate();  // element names are shared, not copied per element
        doc->encoding = xmlStrdup(xc("UTF-8"));
        tzset();
        XMLWriter writer(doc.get());
        xmlNodePtr value = writer.element(plist.get(), 0, error);
        if (!value) return nullptr;
        xmlNodePtr root = xmlNewDocNode(doc.get(), nullptr, xc("plist"), nullptr);
        if (!root) {
            xmlFreeNode(value);
            throw std::bad_alloc();
        }
        xmlDocSetRootElement(doc.get(), root);
        xmlNewProp(root, xc("version"), xc("1.0"));
        xmlAddChild(root, value);
        xmlCreateIntSubset(doc.get(), xc("plist"), xc(kPlistPublicID), xc(kPlistSystemID));
        return doc;
    } catch (const std::bad_alloc&) {
        QXLog("property list too large for memory");
        setError(error);
        return nullptr;
    }
}

qx::Ref<qx::Data> QXXMLPlistTree::dataWithDocument(const _xmlDoc& document, qx::Ref<qx::Error>* error) {
    std::unique_ptr<xmlBuffer, decltype(&xmlBufferFree)> buffer(xmlBufferCreate(), xmlBufferFree);
    xmlSaveCtxtPtr save = buffer ? xmlSaveToBuffer(buffer.get(), "UTF-8", XML_SAVE_FORMAT) : nullptr;
    const long written = save ? xmlSaveDoc(save, const_cast<xmlDoc*>(&document)) : -1;
    if (save) xmlSaveClose(save);
    if (written < 0) {
        QXLog("could not print the XML document");
        setError(error);
        return nullptr;
    }
    return qx::Data::withBytes(xmlBufferContent(buffer.get()), static_cast<std::size_t>(xmlBufferLength(buffer.get())));
}

QXXMLElement QXXMLPlistTree::elementWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error) {
    initialiseLibrary();
    try {
        tzset();
        XMLWriter writer(nullptr);
        return QXXMLElement(writer.element(plist.get(), 0, error));
    } catch (const std::bad_alloc&) {
        QXLog("property list too large for memory");
        setError(error);
        return nullptr;
    }
}
