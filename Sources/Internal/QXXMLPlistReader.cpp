// QXXMLPlistReader.cpp - parsing an XML property list and converting its elements.
#include "Internal/QXXMLPlistReader.h"

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXXMLLibrary.h"
#include "Internal/QXXMLPlistPrinter.h"
#include "Internal/QXXMLPlistTree.h"
#include "Internal/QXXMLPlistValueText.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/String.h>

#include <libxml/entities.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace QXBinaryPlistInternal;

namespace QXXMLPlistInternal {

namespace {

constexpr const char* kXMLParserErrorDomain = "NSXMLParserErrorDomain";
constexpr std::int64_t kWrongVersionErrorCode = 3841;
constexpr std::int64_t kNoTextErrorCode = 256;
// Entity references may add this much text, plus four times the document's size.
constexpr std::size_t kEntityAllowance = 1u << 20;
constexpr unsigned kMaxEntityNesting = 16;

class XMLReader {
public:
    XMLReader(const xmlDoc& doc, std::size_t entityBudget) : doc_(doc), entityBudget_(entityBudget) {}

    qx::Ref<qx::Object> convert(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error);

    // The concatenated text inside node; false when entity expansion ran over its budget.
    bool text(const xmlNode& node, std::string& out, qx::Ref<qx::Error>* error) {
        // Most elements hold one text node: no copy through a buffer.
        if (node.children && !node.children->next &&
            (node.children->type == XML_TEXT_NODE || node.children->type == XML_CDATA_SECTION_NODE)) {
            if (node.children->content) out.assign(cc(node.children->content));
            return true;
        }
        if (!gather(node.children, out, 0)) {
            if (!entityFailureLogged_) QXLog("entity references in the property list expand too far");
            entityFailureLogged_ = true;
            setError(error);
            return false;
        }
        return true;
    }

private:
    bool gather(const xmlNode* child, std::string& out, unsigned entityDepth) {
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
                xmlEntityPtr entity = xmlGetDocEntity(&doc_, child->name);
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

    qx::Ref<qx::Object> array(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error);
    qx::Ref<qx::Object> dictionary(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error);

    const xmlDoc& doc_;
    std::size_t entityBudget_;
    bool entityFailureLogged_ = false;
    std::string scratch_;
};

const xmlNode* nextElement(const xmlNode* n) {
    while (n && n->type != XML_ELEMENT_NODE) n = n->next;
    return n;
}

qx::Ref<qx::Object> XMLReader::convert(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error) {
    const char* name = node.name ? cc(node.name) : "";
    switch (name[0]) {
    case 's':
        if (nameIs(&node, "string")) {
            scratch_.clear();
            if (!text(node, scratch_, error)) return nullptr;
            return qx::str(scratch_);
        }
        break;
    case 'i':
        if (nameIs(&node, "integer")) goto number;
        break;
    case 'r':
        if (nameIs(&node, "real")) goto number;
        break;
    case 't':
        if (nameIs(&node, "true")) return qx::Number::withBool(true);
        break;
    case 'f':
        if (nameIs(&node, "false")) return qx::Number::withBool(false);
        break;
    case 'd':
        if (nameIs(&node, "dict")) return dictionary(node, depth, error);
        if (nameIs(&node, "data")) {
            scratch_.clear();
            if (!text(node, scratch_, error)) return nullptr;
            std::vector<std::uint8_t> bytes;
            if (!decodeBase64(scratch_, bytes)) return nullptr;
            return std::make_shared<qx::Data>(std::move(bytes));
        }
        if (nameIs(&node, "date")) {
            scratch_.clear();
            if (!text(node, scratch_, error)) return nullptr;
            return dateFromLocalText(scratch_);
        }
        break;
    case 'a':
        if (nameIs(&node, "array")) return array(node, depth, error);
        break;
    default: break;
    }
    QXLog("Error: unknown tag <%s>", name);
    setError(error);
    return nullptr;

number:
    if (!node.children) {
        if (error) *error = QXGenerateError(qx::NSCocoaErrorDomain, kNoTextErrorCode);
        return nullptr;
    }
    scratch_.clear();
    if (!text(node, scratch_, error)) return nullptr;
    return numberFromText(scratch_);
}

bool enterContainer(unsigned depth, qx::Ref<qx::Error>* error) {
    if (depth < QXXMLPlistMaxNestingDepth) return true;
    QXLog("property list nests deeper than %u levels", QXXMLPlistMaxNestingDepth);
    setError(error);
    return false;
}

qx::Ref<qx::Object> XMLReader::array(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error) {
    if (!enterContainer(depth, error)) return nullptr;
    auto result = qx::Array::create();
    for (const xmlNode* child = nextElement(node.children); child; child = nextElement(child->next)) {
        auto value = convert(*child, depth + 1, error);
        if (!value) return nullptr;
        result->addObject(std::move(value));
    }
    return result;
}

qx::Ref<qx::Object> XMLReader::dictionary(const xmlNode& node, unsigned depth, qx::Ref<qx::Error>* error) {
    if (!enterContainer(depth, error)) return nullptr;
    auto result = qx::Dictionary::create();
    for (const xmlNode* key = nextElement(node.children); key; key = nextElement(key->next)) {
        if (!nameIs(key, "key")) {
            setError(error);
            return nullptr;
        }
        std::string keyText;
        if (!text(*key, keyText, error)) return nullptr;
        const xmlNode* valueNode = nextElement(key->next);
        if (!valueNode) {
            setError(error);
            return nullptr;
        }
        auto value = convert(*valueNode, depth + 1, error);
        if (!value) return nullptr;
        result->setObject(std::move(value), qx::str(keyText));
        key = valueNode;
    }
    if (result->count() == 1) {
        if (auto v = result->objectForKey(kUIDKey)) {
            auto n = qx::dyn_cast<qx::Number>(v);
            return QXUIDPropertyList::initWithInt64Value(static_cast<std::int64_t>(n ? n->uint64Value() : 0));
        }
    }
    return result;
}


struct ParserContextDeleter {
    void operator()(xmlParserCtxt* c) const { xmlFreeParserCtxt(c); }
};

qx::Ref<qx::Error> parserError(const xmlError* e) {
    const int code = e && e->code ? e->code : XML_ERR_DOCUMENT_EMPTY;
    std::string message = e && e->message ? e->message : "Document is empty";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    const int line = e ? e->line : 0;
    const int column = e ? e->int2 : 0;
    QXLog("XML parser error %d at line %d, column %d: %s", code, line, column, message);
    return QXGenerateError(kXMLParserErrorDomain, code, nullptr, nullptr, nullptr,
                           "The XML property list is not well-formed: %s (line %d, column %d).", message, line,
                           column);
}

} // namespace

// Entities may add a fixed allowance plus four times the document's own size.
std::size_t entityBudgetFor(std::size_t documentSize) {
    return kEntityAllowance + std::min(documentSize, (SIZE_MAX - kEntityAllowance) / 4) * 4;
}

qx::Ref<qx::Object> readXMLPropertyList(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error) {
    initialiseLibrary();
    if (!data) {
        setError(error);
        return nullptr;
    }
    if (data->length() > static_cast<std::size_t>(INT_MAX)) {
        QXLog("XML property list of %lu bytes is too large to parse", static_cast<unsigned long>(data->length()));
        setError(error);
        return nullptr;
    }
    return failingOnExhaustion(error, [&]() -> qx::Ref<qx::Object> {
        std::unique_ptr<xmlParserCtxt, ParserContextDeleter> context(xmlNewParserCtxt());
        if (!context) throw std::bad_alloc();
        // No network, no DTD loading, no entity substitution, no messages on
        // standard error; white space between elements is dropped.
        const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                            XML_PARSE_NOCDATA | XML_PARSE_COMPACT;
        QXXMLDocument doc(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data->bytes()),
                                            static_cast<int>(data->length()), nullptr, nullptr, options));
        if (!doc) {
            const xmlError* e = xmlCtxtGetLastError(context.get());
            auto failure = parserError(e);
            if (error) *error = failure;
            return nullptr;
        }
        tzset();  // dates are read in the local zone as it is now
        return convertDocument(*doc, entityBudgetFor(data->length()), error);
    });
}

qx::Ref<qx::Object> convertDocument(const xmlDoc& document, std::size_t entityBudget, qx::Ref<qx::Error>* error) {
    const xmlNode* root = xmlDocGetRootElement(&document);
    if (!root || !nameIs(root, "plist")) {
        QXLog("not a plist");
        setError(error);
        return nullptr;
    }
    xmlChar* version = xmlGetProp(root, xc("version"));
    const std::string versionText = version ? cc(version) : "";
    if (version) xmlFree(version);
    if (versionText != "1.0") {
        QXLog("we might not be able to handle this plist version: <%s>", versionText);
        setError(error, qx::NSCocoaErrorDomain, kWrongVersionErrorCode);
        return nullptr;
    }
    const xmlNode* value = nextElement(root->children);
    if (!value) {
        QXLog("no root element in plist");
        setError(error);
        return nullptr;
    }
    if (nextElement(value->next)) {
        QXLog("more than one root element in plist");
        setError(error);
        return nullptr;
    }
    XMLReader reader(document, entityBudget);
    return reader.convert(*value, 0, error);
}

qx::Ref<qx::Object> convertNode(const _xmlNode& node, qx::Ref<qx::Error>* error) {
    if (!node.doc) {
        // An element outside any document has no entities to expand.
        xmlDoc empty{};
        XMLReader reader(empty, entityBudgetFor(0));
        return reader.convert(node, 0, error);
    }
    XMLReader reader(*node.doc, entityBudgetFor(0));
    return reader.convert(node, 0, error);
}

} // namespace QXXMLPlistInternal
