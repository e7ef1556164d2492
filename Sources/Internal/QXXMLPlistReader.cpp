// QXXMLPlistReader.cpp - parsing an XML property list into values as it goes.
#include "Internal/QXXMLPlistReader.h"

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXXMLLibrary.h"
#include "Internal/QXXMLPlistBuilder.h"
#include "Internal/QXXMLPlistTree.h"

#include <qx/Log.h>

#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <string>

using namespace QXBinaryPlistInternal;

namespace QXXMLPlistInternal {

namespace {

constexpr const char* kXMLParserErrorDomain = "NSXMLParserErrorDomain";
// Entity references may add this much text, plus four times the document's size.
constexpr std::size_t kEntityAllowance = 1u << 20;

struct ParserContextDeleter {
    void operator()(xmlParserCtxt* c) const { xmlFreeParserCtxt(c); }
};

// The parse that feeds a builder. libxml2's own handlers still make every
// node; these hooks only tell the builder when an element opens and closes.
// libxml2 also parses an entity's text the first time it is referenced, in
// a context of its own that shares these handlers: that parse builds the
// entity's nodes, as it always does, and the builder never hears of it.
struct StreamingParse {
    xmlParserCtxt* context;
    QXXMLPlistBuilder* builder;
    bool broken = false;  // memory ran out (or libxml2 made no node): the parse was stopped

    static StreamingParse* of(void* ctx) {
        auto* context = static_cast<xmlParserCtxt*>(ctx);
        auto* parse = context ? static_cast<StreamingParse*>(context->_private) : nullptr;
        return parse && parse->context == context && !parse->broken ? parse : nullptr;
    }

    // No exception may cross libxml2's frames: a failure stops the parser.
    template <class Body> void guarded(Body body) {
        try {
            body();
        } catch (const std::exception&) {
            broken = true;
            xmlStopParser(context);
        }
    }

    static void startElement(void* ctx, const xmlChar* localname, const xmlChar* prefix, const xmlChar* URI,
                             int namespaceCount, const xmlChar** namespaces, int attributeCount, int defaulted,
                             const xmlChar** attributes) {
        StreamingParse* parse = of(ctx);
        xmlNode* parent = parse ? parse->context->node : nullptr;
        xmlSAX2StartElementNs(ctx, localname, prefix, URI, namespaceCount, namespaces, attributeCount, defaulted,
                              attributes);
        if (!parse) return;
        xmlNode* node = parse->context->node;
        if (!node || node == parent) {
            parse->broken = true;  // libxml2 ran out of memory and stopped
            return;
        }
        parse->guarded([&] { parse->builder->elementOpened(*node); });
    }

    static void endElement(void* ctx, const xmlChar* localname, const xmlChar* prefix, const xmlChar* URI) {
        StreamingParse* parse = of(ctx);
        xmlNode* node = parse ? parse->context->node : nullptr;
        xmlSAX2EndElementNs(ctx, localname, prefix, URI);
        if (parse && node) parse->guarded([&] { parse->builder->elementClosed(*node); });
    }
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
        if (!context || !context->sax) throw std::bad_alloc();
        tzset();  // dates are read in the local zone as it is now
        QXXMLPlistBuilder builder(entityBudgetFor(data->length()));
        StreamingParse parse{context.get(), &builder};
        context->_private = &parse;
        context->sax->startElementNs = StreamingParse::startElement;
        context->sax->endElementNs = StreamingParse::endElement;
        // No network, no DTD loading, no entity substitution, no messages on
        // standard error; white space between elements is dropped.
        const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                            XML_PARSE_NOCDATA | XML_PARSE_COMPACT;
        // What is left of the document: its type declaration and the emptied plist element.
        QXXMLDocument doc(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data->bytes()),
                                            static_cast<int>(data->length()), nullptr, nullptr, options));
        if (parse.broken) throw std::bad_alloc();
        // A parse that stopped early without calling the document malformed
        // (a text node over libxml2's size limit) fails with the parser's
        // error too: its values would be cut short.
        if (!doc || !builder.complete()) {
            auto failure = parserError(xmlCtxtGetLastError(context.get()));
            if (error) *error = failure;
            return nullptr;
        }
        return builder.finish(error);
    });
}

} // namespace QXXMLPlistInternal
