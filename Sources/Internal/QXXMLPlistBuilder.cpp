// QXXMLPlistBuilder.cpp - turning elements into property-list values as they close.
#include "Internal/QXXMLPlistBuilder.h"

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXXMLLibrary.h"
#include "Internal/QXXMLPlistPrinter.h"
#include "Internal/QXXMLPlistValueText.h"

#include <qx/Data.h>
#include <qx/Format.h>
#include <qx/Log.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <libxml/entities.h>

#include <cstring>
#include <functional>
#include <utility>

using namespace QXBinaryPlistInternal;
using namespace QXXMLPlistInternal;

namespace {

constexpr std::int64_t kWrongVersionErrorCode = 3841;
constexpr std::int64_t kNoTextErrorCode = 256;
constexpr unsigned kMaxEntityNesting = 16;

bool isContainer(const xmlNode& node) { return nameIs(&node, "array") || nameIs(&node, "dict"); }

bool isLeafValue(const xmlNode& node) {
    static constexpr const char* kLeaves[] = {"string", "integer", "real", "true", "false", "data", "date"};
    for (const char* name : kLeaves)
        if (nameIs(&node, name)) return true;
    return false;
}

const char* nameOf(const xmlNode& node) { return node.name ? cc(node.name) : ""; }

} // namespace

void QXXMLPlistBuilder::openRoot(xmlNode& node) {
    frames_.push_back(Frame{Role::Plist, &node, nullptr, nullptr, {}, false, 0});
    doc_ = node.doc;
    rootSeen_ = true;
    if (!nameIs(&node, "plist")) {
        failLogging(kPropertyListErrorCode, "not a plist");
        rootFailed_ = true;
        return;
    }
    xmlChar* version = xmlGetProp(&node, xc("version"));
    const std::string versionText = version ? cc(version) : "";
    if (version) xmlFree(version);
    if (versionText != "1.0") {
        failLogging(kWrongVersionErrorCode,
                    qx::format("we might not be able to handle this plist version: <%s>", versionText));
        rootFailed_ = true;
    }
}

void QXXMLPlistBuilder::elementOpened(xmlNode& node) {
    if (leafDepth_ > 0) {
        ++leafDepth_;  // part of the leaf's text
        return;
    }
    if (frames_.empty()) return openRoot(node);
    const bool container = isContainer(node);
    checkChild(frames_.back(), node, container);
    if (!container) {
        leafDepth_ = 1;
        return;
    }
    Frame frame{nameIs(&node, "array") ? Role::Array : Role::Dictionary, &node, nullptr, nullptr, {}, false, 0};
    if (!failed_) {
        if (frame.role == Role::Array) frame.array = qx::Array::create();
        else frame.dictionary = qx::Dictionary::create();
    }
    frames_.push_back(std::move(frame));
}

// The checks made when a child element opens, in the order a walk of the
// finished document makes them.
void QXXMLPlistBuilder::checkChild(Frame& parent, const xmlNode& node, bool container) {
    if (parent.role == Role::Plist && ++parent.elements == 2 && !rootFailed_) {
        // Counted before the first value is looked at: outranks its failures.
        failed_ = false;
        failLogging(kPropertyListErrorCode, "more than one root element in plist");
        return;
    }
    if (failed_) return;
    if (parent.role == Role::Dictionary && !parent.awaitingValue) {
        if (!nameIs(&node, "key")) fail(kPropertyListErrorCode);
        return;
    }
    if (container) {
        const std::size_t depth = frames_.size() - 1;  // the root value is at depth 0
        if (depth >= QXXMLPlistMaxNestingDepth)
            failLogging(kPropertyListErrorCode,
                        qx::format("property list nests deeper than %u levels", QXXMLPlistMaxNestingDepth));
        return;
    }
    if (!isLeafValue(node)) failLogging(kPropertyListErrorCode, qx::format("Error: unknown tag <%s>", nameOf(node)));
}

void QXXMLPlistBuilder::elementClosed(xmlNode& node) {
    if (leafDepth_ > 1) {
        --leafDepth_;
        return;
    }
    if (leafDepth_ == 1) {
        leafDepth_ = 0;
        Frame& parent = frames_.back();
        if (!failed_) {
            if (parent.role == Role::Dictionary && !parent.awaitingValue) {
                parent.key.clear();
                if (text(node, parent.key)) parent.awaitingValue = true;
            } else if (auto value = leafValue(node)) {
                attach(parent, std::move(value));
            }
        }
    } else if (!frames_.empty() && frames_.back().node == &node) {
        Frame frame = std::move(frames_.back());
        frames_.pop_back();
        auto value = failed_ ? nullptr : closeContainer(frame);
        if (value && !frames_.empty()) attach(frames_.back(), std::move(value));
    }
    release(node);
}

void QXXMLPlistBuilder::attach(Frame& parent, qx::Ref<qx::Object> value) {
    switch (parent.role) {
    case Role::Plist: result_ = std::move(value); break;
    case Role::Array: parent.array->addObject(std::move(value)); break;
    case Role::Dictionary:
        parent.dictionary->setObject(std::move(value), keyString(parent.key));
        parent.awaitingValue = false;
        break;
    }
}

qx::Ref<qx::String> QXXMLPlistBuilder::keyString(const std::string& text) {
    constexpr std::size_t kSharedKeyLength = 64;
    if (text.size() > kSharedKeyLength) return qx::str(text);
    auto& slot = keys_[std::hash<std::string>()(text) % keys_.size()];
    if (!slot || slot->utf8() != text) slot = qx::str(text);
    return slot;
}

qx::Ref<qx::Object> QXXMLPlistBuilder::closeContainer(Frame& frame) {
    switch (frame.role) {
    case Role::Plist:
        if (frame.elements == 0) failLogging(kPropertyListErrorCode, "no root element in plist");
        return nullptr;
    case Role::Array: return std::move(frame.array);
    case Role::Dictionary: break;
    }
    if (frame.awaitingValue) {
        fail(kPropertyListErrorCode);  // a key without a value
        return nullptr;
    }
    if (frame.dictionary->count() == 1) {
        if (auto v = frame.dictionary->objectForKey(kUIDKey)) {
            auto n = qx::dyn_cast<qx::Number>(v);
            return QXUIDPropertyList::initWithInt64Value(static_cast<std::int64_t>(n ? n->uint64Value() : 0));
        }
    }
    return std::move(frame.dictionary);
}

// The value of a leaf element; nothing (with failed_ set) when it has none.
qx::Ref<qx::Object> QXXMLPlistBuilder::leafValue(const xmlNode& node) {
    switch (nameOf(node)[0]) {
    case 't': return qx::Number::withBool(true);
    case 'f': return qx::Number::withBool(false);
    case 'i':
    case 'r':
        if (!node.children) {
            fail(kNoTextErrorCode);
            return nullptr;
        }
        break;
    default: break;
    }
    scratch_.clear();
    if (!text(node, scratch_)) return nullptr;
    qx::Ref<qx::Object> value;
    if (nameIs(&node, "string")) {
        value = std::make_shared<qx::String>(scratch_);
    } else if (nameIs(&node, "data")) {
        std::vector<std::uint8_t> bytes;
        if (decodeBase64(scratch_, bytes)) value = std::make_shared<qx::Data>(std::move(bytes));
    } else if (nameIs(&node, "date")) {
        value = dateFromLocalText(scratch_);
    } else {
        value = numberFromText(scratch_);
    }
    if (!value) fail(0);  // text that does not decode: nothing, and no error
    return value;
}

// The concatenated text inside node; false (failed) when entity expansion
// ran over its budget.
bool QXXMLPlistBuilder::text(const xmlNode& node, std::string& out) {
    // Most elements hold one text node: no copy through a buffer.
    const xmlNode* only = node.children;
    if (only && !only->next && (only->type == XML_TEXT_NODE || only->type == XML_CDATA_SECTION_NODE)) {
        if (only->content) out.assign(cc(only->content));
        return true;
    }
    if (gather(node.children, out, 0)) return true;
    failLogging(kPropertyListErrorCode, "entity references in the property list expand too far");
    return false;
}

bool QXXMLPlistBuilder::gather(const xmlNode* child, std::string& out, unsigned entityDepth) {
    for (; child; child = child->next) {
        switch (child->type) {
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
            if (child->content) {
                const std::size_t n = std::strlen(cc(child->content));
                if (entityDepth > 0) {
                    if (n > entityBudget_) return false;
                    entityBudget_ -= n;
                }
                out.append(cc(child->content), n);
            }
            break;
        case XML_ELEMENT_NODE:
            if (!gather(child->children, out, entityDepth)) return false;
            break;
        case XML_ENTITY_REF_NODE: {
            if (entityDepth >= kMaxEntityNesting) return false;
            xmlEntityPtr entity = doc_ ? xmlGetDocEntity(doc_, child->name) : nullptr;
            // Only the document's own text entities; nothing is fetched from outside.
            if (!entity || entity->etype != XML_INTERNAL_GENERAL_ENTITY) break;
            if (entity->children) {
                if (!gather(entity->children, out, entityDepth + 1)) return false;
            } else if (entity->content) {
                const std::size_t n = std::strlen(cc(entity->content));
                if (n > entityBudget_) return false;
                entityBudget_ -= n;
                out.append(cc(entity->content), n);
            }
            break;
        }
        default: break;
        }
    }
    return true;
}

// Empties a closed element and frees its parent's children between the
// first and this one, the last: the parser looks at neither's contents again.
void QXXMLPlistBuilder::release(xmlNode& node) {
    if (node.children) {
        xmlFreeNodeList(node.children);
        node.children = node.last = nullptr;
    }
    xmlNode* parent = node.parent;
    if (!parent || parent->type != XML_ELEMENT_NODE || !parent->children || parent->children == &node) return;
    for (xmlNode* n = parent->children->next; n && n != &node;) {
        xmlNode* next = n->next;
        xmlUnlinkNode(n);
        xmlFreeNode(n);
        n = next;
    }
}

qx::Ref<qx::Object> QXXMLPlistBuilder::finish(qx::Ref<qx::Error>* error) {
    if (!failed_ && (!complete() || !result_)) fail(kPropertyListErrorCode);
    if (!failed_) return std::move(result_);
    if (failure_.logs) qx::logLine(failure_.line);
    if (failure_.code != 0) setError(error, qx::NSCocoaErrorDomain, failure_.code);
    return nullptr;
}
