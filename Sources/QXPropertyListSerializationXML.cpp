// QXPropertyListSerializationXML.cpp - the XML form of property lists, on libxml2.
//
// Writing builds a libxml2 tree and prints it; reading parses with libxml2
// and walks the tree. The parser runs without network access, without DTD
// loading and without entity substitution; the few documents that use
// entities of their own have them expanded here, within a budget, so that a
// nest of entities cannot blow up (the classic exponential entity attack).
#include <QXFoundation/QXPropertyListSerialization.h>

#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/Set.h>
#include <qx/String.h>

#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

using namespace QXBinaryPlistInternal;

void QXXMLNodeDeleter::operator()(_xmlNode* node) const {
    if (node) xmlFreeNode(node);
}

void QXXMLDocumentDeleter::operator()(_xmlDoc* document) const {
    if (document) xmlFreeDoc(document);
}

namespace {

constexpr const char* kPlistPublicID = "-//Apple//DTD PLIST 1.0//EN";
constexpr const char* kPlistSystemID = "http://www.apple.com/DTDs/PropertyList-1.0.dtd";
constexpr const char* kUIDKey = "CF$UID";
constexpr const char* kXMLParserErrorDomain = "NSXMLParserErrorDomain";
constexpr std::int64_t kWrongVersionErrorCode = 3841;
constexpr std::int64_t kNoTextErrorCode = 256;
// Entity references may add this much text, plus four times the document's size.
constexpr std::size_t kEntityAllowance = 1u << 20;
constexpr unsigned kMaxEntityNesting = 16;

void initialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

const xmlChar* xc(const char* s) { return reinterpret_cast<const xmlChar*>(s); }
const char* cc(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

bool nameIs(const xmlNode* node, const char* name) { return node->name && std::strcmp(cc(node->name), name) == 0; }

// --- Base64 ---------------------------------------------------------------------

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encodeBase64(const std::uint8_t* p, std::size_t n) {
    std::string out;
    out.resize((n + 2) / 3 * 4);
    char* o = out.data();
    std::size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8) | p[i + 2];
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = kBase64Alphabet[(v >> 6) & 63];
        *o++ = kBase64Alphabet[v & 63];
    }
    if (n - i == 1) {
        const std::uint32_t v = std::uint32_t{p[i]} << 16;
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = '=';
        *o++ = '=';
    } else if (n - i == 2) {
        const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8);
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = kBase64Alphabet[(v >> 6) & 63];
        *o++ = '=';
    }
    return out;
}

struct Base64Table {
    signed char value[256];
    constexpr Base64Table() : value() {
        for (int i = 0; i < 256; ++i) value[i] = -1;
        for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<signed char>(i);
    }
};
constexpr Base64Table kBase64Values;

// Characters outside the alphabet are skipped; "=" may only end the text
// (at most two of them), and a lone last sextet is no byte.
bool decodeBase64(std::string_view text, std::vector<std::uint8_t>& out) {
    out.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t acc = 0;
    int sextets = 0;
    int padding = 0;
    for (unsigned char c : text) {
        const int v = kBase64Values.value[c];
        if (v < 0) {
            if (c == '=') ++padding;
            continue;
        }
        if (padding) return false;
        acc = (acc << 6) | static_cast<std::uint32_t>(v);
        if (++sextets == 4) {
            out.push_back(static_cast<std::uint8_t>(acc >> 16));
            out.push_back(static_cast<std::uint8_t>(acc >> 8));
            out.push_back(static_cast<std::uint8_t>(acc));
            acc = 0;
            sextets = 0;
        }
    }
    if (padding > 2) return false;
    switch (sextets) {
    case 0: return true;
    case 1: return false;
    case 2: out.push_back(static_cast<std::uint8_t>(acc >> 4)); return true;
    default:
        out.push_back(static_cast<std::uint8_t>(acc >> 10));
        out.push_back(static_cast<std::uint8_t>(acc >> 2));
        return true;
    }
}

// --- Dates ----------------------------------------------------------------------

// Seconds since 1970 that localtime can take; beyond, dates are pinned to the
// nearest (billions of years are no calendar date anyone writes).
constexpr double kLargestCalendarSeconds = 67767976233316800.0 / 1000.0;

std::string localDateText(double sinceReferenceDate) {
    double seconds = std::floor(sinceReferenceDate + qx::Date::kTimeIntervalSince1970);
    if (std::isnan(seconds)) seconds = qx::Date::kTimeIntervalSince1970;
    seconds = std::clamp(seconds, -kLargestCalendarSeconds, kLargestCalendarSeconds);
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    if (!localtime_r(&t, &tm)) gmtime_r(&t, &tm);
    long long year = static_cast<long long>(tm.tm_year) + 1900;
    if (year <= 0) year = 1 - year;  // the calendar counts years before year 1 in the era before
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lu-%02lu-%02luT%02lu:%02lu:%02luZ", static_cast<unsigned long>(year),
                  static_cast<unsigned long>(tm.tm_mon + 1), static_cast<unsigned long>(tm.tm_mday),
                  static_cast<unsigned long>(tm.tm_hour), static_cast<unsigned long>(tm.tm_min),
                  static_cast<unsigned long>(tm.tm_sec));
    return buf;
}

// The integer value of the leading decimal digits of text[at, at + n).
int fieldValue(std::string_view text, std::size_t at, std::size_t n) {
    int v = 0;
    for (std::size_t k = at; k < at + n && text[k] >= '0' && text[k] <= '9'; ++k) v = v * 10 + (text[k] - '0');
    return v;
}

// Each field is read by position only when the separator before it is where
// it belongs; the trailing "Z" is not looked at.
qx::Ref<qx::Date> dateFromLocalText(std::string_view text) {
    int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0;
    bool yearSet = false;
    if (text.size() >= 4) {
        year = fieldValue(text, 0, 4);
        yearSet = true;
        if (text.size() >= 7 && text[4] == '-') {
            month = fieldValue(text, 5, 2);
            if (text.size() >= 10 && text[7] == '-') {
                day = fieldValue(text, 8, 2);
                if (text.size() >= 13 && text[10] == 'T') {
                    hour = fieldValue(text, 11, 2);
                    if (text.size() >= 16 && text[13] == ':') {
                        minute = fieldValue(text, 14, 2);
                        if (text.size() >= 19 && text[16] == ':') second = fieldValue(text, 17, 2);
                    }
                }
            }
        }
    }
    // No year at all: the calendar's first year.
    if (!yearSet) year = 1;
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    return qx::Date::withTimeIntervalSince1970(static_cast<double>(t));
}

// --- Numbers ----------------------------------------------------------------------

bool isXMLSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
    return s;
}

// Decimal text in the fixed POSIX conventions; the text, not the element,
// decides between integer and real. Nothing when it is not a whole number.
qx::Ref<qx::Number> numberFromText(std::string_view raw) {
    std::string_view text = trimmed(raw);
    if (text.empty()) return nullptr;
    std::string_view unsignedText = text;
    const bool negative = text.front() == '-';
    if (text.front() == '+' || negative) unsignedText.remove_prefix(1);
    if (unsignedText.empty()) return nullptr;
    const bool digitsOnly = std::all_of(unsignedText.begin(), unsignedText.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (digitsOnly) {
        const char* first = negative ? text.data() : unsignedText.data();
        const char* last = text.data() + text.size();
        std::int64_t i = 0;
        if (auto r = std::from_chars(first, last, i); r.ec == std::errc() && r.ptr == last) return qx::Number::withInt64(i);
        std::uint64_t u = 0;
        if (!negative)
            if (auto r = std::from_chars(first, last, u); r.ec == std::errc() && r.ptr == last)
                return qx::Number::withUInt64(u);
        // Beyond 64 bits: the nearest real.
    }
    // from_chars takes no "+"; it reads "inf", "infinity" and "nan" in any case.
    const char* first = negative ? text.data() : unsignedText.data();
    const char* last = text.data() + text.size();
    double d = 0;
    auto r = std::from_chars(first, last, d);
    if (r.ptr != last) return nullptr;
    if (r.ec == std::errc::result_out_of_range) {
        // Too large or too small for a double: what strtod gives, infinity or zero.
        d = std::strtod(std::string(text).c_str(), nullptr);
    } else if (r.ec != std::errc()) {
        return nullptr;
    }
    return qx::Number::withDouble(d);
}

// --- Writer ------------------------------------------------------------------------

template <class... Args> bool refuseWrite(qx::Ref<qx::Error>* error, const char* fmt, const Args&... args) {
    QXLog(fmt, args...);
    setError(error);
    return false;
}

// Keys in the writer's order: case ignored, digit runs by value, the current
// locale's collation. Documents read back come in order already; checking
// first spares the collator most of the work.
void sortByKey(std::vector<const qx::Dictionary::Entry*>& entries) {
    const auto byKey = [](const qx::Dictionary::Entry* a, const qx::Dictionary::Entry* b) {
        return static_cast<const qx::String&>(*a->first).localizedStandardCompare(
                   static_cast<const qx::String&>(*b->first)) < 0;
    };
    if (!std::is_sorted(entries.begin(), entries.end(), byKey)) std::stable_sort(entries.begin(), entries.end(), byKey);
}

// The dictionary a UID is written as: { "CF$UID": n }, n read from the UID's
// bytes as a binary integer object (the first byte taken as the size marker,
// so 8-byte values such as initWithInt64Value makes read as 0), or the bytes
// themselves when they are longer than 8.
qx::Ref<qx::Dictionary> uidDictionary(const QXUIDPropertyList& uid) {
    auto dict = qx::Dictionary::create();
    const auto bytes = uid.data();
    if (bytes && bytes->length() <= 8) {
        std::uint64_t position = 0;
        dict->setObject(qx::Number::withUInt64(QXPropertyListSerialization::intFromData(*bytes, position)), kUIDKey);
    } else {
        dict->setObject(bytes ? bytes : qx::Data::create(), kUIDKey);
    }
    return dict;
}

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
            std::string text = n->description();
            if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
            return leaf("real", text);
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

// --- Document printer ------------------------------------------------------------------

// Prints the document exactly as libxml2 prints the tree that XMLWriter
// builds (pretty, two-space indents, compact empty elements, text escaped as
// libxml2 escapes it: & < > and CR), straight into one buffer. A tree of a
// million values costs libxml2 millions of allocations and most of its time
// in the allocator; printing directly is several times faster and uses a
// fraction of the memory. The tests compare the two outputs on every fixture.
class XMLPrinter {
public:
    explicit XMLPrinter(std::string& out) : out_(out) {}

    bool print(const qx::Object* value, unsigned depth, qx::Ref<qx::Error>* error);

private:
    void indent(unsigned level) { out_.append(2 * static_cast<std::size_t>(level), ' '); }

    void escaped(std::string_view text) {
        std::size_t start = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char* entity;
            switch (text[i]) {
            case '&': entity = "&amp;"; break;
            case '<': entity = "&lt;"; break;
            case '>': entity = "&gt;"; break;
            case '\r': entity = "&#13;"; break;
            default: continue;
            }
            out_.append(text.data() + start, i - start);
            out_.append(entity);
            start = i + 1;
        }
        out_.append(text.data() + start, text.size() - start);
    }

    // One leaf element on its own line at the current level.
    void leaf(std::string_view name, std::string_view text, unsigned level) {
        indent(level);
        out_ += '<';
        out_.append(name);
        if (text.empty()) {
            out_ += "/>\n";
            return;
        }
        out_ += '>';
        escaped(text);
        out_ += "</";
        out_.append(name);
        out_ += ">\n";
    }

    bool dictionary(const qx::Dictionary& dict, unsigned depth, qx::Ref<qx::Error>* error);
    bool uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error);

    std::string& out_;
    char number_[40];
};

bool XMLPrinter::print(const qx::Object* value, unsigned depth, qx::Ref<qx::Error>* error) {
    // Element lines sit one level inside the plist element.
    const unsigned level = depth + 1;
    const std::type_info& type = value ? typeid(*value) : typeid(void);
    if (type == typeid(qx::String)) {
        leaf("string", static_cast<const qx::String*>(value)->utf8(), level);
        return true;
    }
    if (type == typeid(qx::Dictionary)) return dictionary(*static_cast<const qx::Dictionary*>(value), depth, error);
    if (type == typeid(qx::Number)) {
        const auto* n = static_cast<const qx::Number*>(value);
        if (n->isBoolean()) {
            leaf(n->boolValue() ? "true" : "false", {}, level);
        } else if (n->isReal()) {
            std::string text = n->description();
            if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
            leaf("real", text, level);
        } else {
            const int k = std::snprintf(number_, sizeof number_, "%lld", static_cast<long long>(n->int64Value()));
            leaf("integer", std::string_view(number_, static_cast<std::size_t>(k)), level);
        }
        return true;
    }
    if (type == typeid(qx::Array)) {
        const auto& array = *static_cast<const qx::Array*>(value);
        if (!checkDepth(depth, error)) return false;
        if (array.empty()) {
            leaf("array", {}, level);
            return true;
        }
        indent(level);
        out_ += "<array>\n";
        for (const auto& item : array)
            if (!print(item.get(), depth + 1, error)) return false;
        indent(level);
        out_ += "</array>\n";
        return true;
    }
    if (type == typeid(qx::Date)) {
        leaf("date", localDateText(static_cast<const qx::Date*>(value)->timeIntervalSinceReferenceDate()), level);
        return true;
    }
    if (type == typeid(qx::Data)) {
        const auto* d = static_cast<const qx::Data*>(value);
        leaf("data", encodeBase64(d->bytes(), d->length()), level);
        return true;
    }
    if (auto u = dynamic_cast<const QXUIDPropertyList*>(value)) return uid(*u, depth, error);
    return refuseWrite(error, "error: unknown plist type!");
}

bool XMLPrinter::dictionary(const qx::Dictionary& dict, unsigned depth, qx::Ref<qx::Error>* error) {
    if (!checkDepth(depth, error)) return false;
    const unsigned level = depth + 1;
    if (dict.empty()) {
        leaf("dict", {}, level);
        return true;
    }
    std::vector<const qx::Dictionary::Entry*> entries;
    entries.reserve(dict.count());
    for (const auto& entry : dict) {
        const qx::Object* key = entry.first.get();
        if (!key || typeid(*key) != typeid(qx::String))
            return refuseWrite(error, "can't have a non-string key!");
        entries.push_back(&entry);
    }
    sortByKey(entries);
    indent(level);
    out_ += "<dict>\n";
    for (const auto* entry : entries) {
        leaf("key", static_cast<const qx::String&>(*entry->first).utf8(), level + 1);
        if (!print(entry->second.get(), depth + 1, error)) return false;
    }
    indent(level);
    out_ += "</dict>\n";
    return true;
}

bool XMLPrinter::uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error) {
    return dictionary(*uidDictionary(uid), depth, error);
}

// --- Reader -------------------------------------------------------------------------

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

// Entities may add a fixed allowance plus four times the document's own size.
std::size_t entityBudgetFor(std::size_t documentSize) {
    return kEntityAllowance + std::min(documentSize, (SIZE_MAX - kEntityAllowance) / 4) * 4;
}

qx::Ref<qx::Object> convertDocument(const xmlDoc& document, std::size_t entityBudget, qx::Ref<qx::Error>* error);

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

// --- Entry points ---------------------------------------------------------------------

qx::Ref<qx::Data> QXPropertyListSerialization::xmlDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                       qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&]() -> qx::Ref<qx::Data> {
        tzset();  // dates are written in the local zone as it is now
        std::string out =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n";
        XMLPrinter printer(out);
        if (!printer.print(plist.get(), 0, error)) return nullptr;
        out += "</plist>\n";
        auto data = qx::Data::create();
        data->vector().assign(out.begin(), out.end());
        return data;
    });
}

QXXMLDocument QXPropertyListSerialization::xmlDocumentWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                       qx::Ref<qx::Error>* error) {
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

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithXMLDocument(const _xmlDoc& document, qx::Ref<qx::Error>* error) {
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

QXXMLElement QXPropertyListSerialization::xmlElementWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                     qx::Ref<qx::Error>* error) {
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

qx::Ref<qx::Object> QXPropertyListSerialization::XMLPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                                         qx::Ref<qx::Error>* error) {
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

qx::Ref<qx::Object> QXPropertyListSerialization::propertyListWithXMLDocument(const _xmlDoc& document,
                                                                             qx::Ref<qx::Error>* error) {
    return convertDocument(document, entityBudgetFor(0), error);
}

namespace {

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

} // namespace

qx::Ref<qx::Object> QXPropertyListSerialization::propertyListFromXMLNode(const _xmlNode& node,
                                                                         qx::Ref<qx::Error>* error) {
    if (!node.doc) {
        // An element outside any document has no entities to expand.
        xmlDoc empty{};
        XMLReader reader(empty, entityBudgetFor(0));
        return reader.convert(node, 0, error);
    }
    XMLReader reader(*node.doc, entityBudgetFor(0));
    return reader.convert(node, 0, error);
}

qx::Ref<qx::String> QXPropertyListSerialization::base64StringWithData(const qx::Ref<qx::Data>& data,
                                                                      qx::Ref<qx::Error>*) {
    if (!data) return qx::str("");
    return qx::str(encodeBase64(data->bytes(), data->length()));
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithBase64String(const qx::String& string, qx::Ref<qx::Error>*) {
    std::vector<std::uint8_t> bytes;
    if (!decodeBase64(string.utf8(), bytes)) return nullptr;
    return std::make_shared<qx::Data>(std::move(bytes));
}
