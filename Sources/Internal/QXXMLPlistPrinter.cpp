// QXXMLPlistPrinter.cpp - the XML document of a value, printed straight into a buffer.
#include "Internal/QXXMLPlistPrinter.h"

#include "Internal/QXXMLPlistValueText.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <cstdio>
#include <string_view>
#include <typeinfo>

namespace QXXMLPlistInternal {

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

bool checkDepth(unsigned depth, qx::Ref<qx::Error>* error) {
    if (depth < QXXMLPlistMaxNestingDepth) return true;
    return refuseWrite(error, "property list nests deeper than %u levels", QXXMLPlistMaxNestingDepth);
}

std::string realText(const qx::Number& number) {
    std::string text = number.description();
    if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
    return text;
}

namespace {

// --- Document printer ------------------------------------------------------------------

// What the printer does with each byte of text: copy it, write an entity for
// it, or look closer (a control character or the start of a multi-byte
// sequence, which decide whether the text reads back as it is).
enum ByteClass : std::uint8_t { kCopy, kEscape, kCheck };

struct ByteClasses {
    ByteClass of[256];
    constexpr ByteClasses() : of() {
        for (int c = 0; c < 256; ++c) of[c] = (c < 0x20 || c >= 0x80) ? kCheck : kCopy;
        of[static_cast<unsigned char>('\t')] = kCopy;
        of[static_cast<unsigned char>('\n')] = kCopy;
        of[static_cast<unsigned char>('\r')] = kEscape;
        of[static_cast<unsigned char>('&')] = kEscape;
        of[static_cast<unsigned char>('<')] = kEscape;
        of[static_cast<unsigned char>('>')] = kEscape;
    }
};
constexpr ByteClasses kByteClasses;

// Texts longer than this are left to a read-back to judge: the parser refuses
// one text node of ten million bytes or more, and this stays well clear of it.
constexpr std::size_t kPlainTextLimit = 1u << 20;
// Documents larger than this are likewise left to a read-back.
constexpr std::size_t kPlainDocumentLimit = std::size_t{1} << 28;

// The length of the UTF-8 sequence at p (at most n bytes) when it encodes a
// character XML allows, else 0: no overlong forms, surrogates, U+FFFE,
// U+FFFF or code points above U+10FFFF.
std::size_t xmlCharacterLength(const unsigned char* p, std::size_t n) {
    const unsigned char c = p[0];
    std::size_t length;
    std::uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
        cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        cp = c & 0x07u;
    } else {
        return 0;
    }
    if (n < length) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        if ((p[k] & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (p[k] & 0x3Fu);
    }
    const std::uint32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    if (cp < smallest || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF) return 0;
    return length;
}

// Prints the document exactly as libxml2 prints the tree that XMLWriter
// builds (pretty, two-space indents, compact empty elements, text escaped as
// libxml2 escapes it: & < > and CR), straight into the bytes of the result. A
// tree of a million values costs libxml2 millions of allocations and most of
// its time in the allocator; printing directly is several times faster and
// uses a fraction of the memory. The tests compare the two outputs on every
// fixture.
class XMLPrinter {
public:
    explicit XMLPrinter(std::vector<std::uint8_t>& out) : out_(out) {}

    bool print(const qx::Object* value, unsigned depth, qx::Ref<qx::Error>* error);

    // Moves what is gathered to the result; call once printing is done.
    void flush() {
        const auto* b = reinterpret_cast<const std::uint8_t*>(block_);
        out_.insert(out_.end(), b, b + used_);
        used_ = 0;
    }

    // False once a text was printed that the reader might not take as it is.
    bool plain() const { return plain_; }

private:
    // Leaves are short: they are gathered in a small buffer and moved to the
    // result a block at a time, which spares the vector's bookkeeping per piece.
    void put(const char* p, std::size_t n) {
        if (n > sizeof block_ - used_) {
            flush();
            if (n > sizeof block_) {
                const auto* b = reinterpret_cast<const std::uint8_t*>(p);
                out_.insert(out_.end(), b, b + n);
                return;
            }
        }
        std::memcpy(block_ + used_, p, n);
        used_ += n;
    }
    void put(std::string_view s) { put(s.data(), s.size()); }
    void put(char c) { put(&c, 1); }

    void indent(unsigned level) {
        static constexpr char kSpaces[] = "                                                                ";
        for (std::size_t n = 2 * static_cast<std::size_t>(level); n > 0;) {
            const std::size_t k = std::min(n, sizeof kSpaces - 1);
            put(kSpaces, k);
            n -= k;
        }
    }

    void escaped(std::string_view text) {
        if (text.size() > kPlainTextLimit) plain_ = false;
        const auto* p = reinterpret_cast<const unsigned char*>(text.data());
        const std::size_t n = text.size();
        std::size_t start = 0;
        for (std::size_t i = 0; i < n;) {
            const ByteClass kind = kByteClasses.of[p[i]];
            if (kind == kCopy) {
                ++i;
                continue;
            }
            if (kind == kCheck) {
                const std::size_t length = p[i] < 0x80 ? 0 : xmlCharacterLength(p + i, n - i);
                if (length == 0) {
                    plain_ = false;
                    ++i;
                } else {
                    i += length;
                }
                continue;
            }
            const char* entity;
            switch (p[i]) {
            case '&': entity = "&amp;"; break;
            case '<': entity = "&lt;"; break;
            case '>': entity = "&gt;"; break;
            default: entity = "&#13;"; break;
            }
            put(text.data() + start, i - start);
            put(std::string_view(entity));
            start = ++i;
        }
        put(text.data() + start, n - start);
    }

    // One leaf element on its own line at the current level.
    void leaf(std::string_view name, std::string_view text, unsigned level) {
        indent(level);
        put('<');
        put(name);
        if (text.empty()) {
            put(std::string_view("/>\n"));
            return;
        }
        put('>');
        escaped(text);
        put(std::string_view("</"));
        put(name);
        put(std::string_view(">\n"));
    }

    bool dictionary(const qx::Dictionary& dict, unsigned depth, qx::Ref<qx::Error>* error);
    bool uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error);

    std::vector<std::uint8_t>& out_;
    bool plain_ = true;
    char number_[40];
    std::size_t used_ = 0;  // 0 <= used_ <= sizeof block_
    char block_[1 << 15];
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
            const std::string text = realText(*n);
            // Real texts are the number's own; whether each parses is checked, not assumed.
            if (plain_ && !numberFromText(text)) plain_ = false;
            leaf("real", text, level);
        } else {
            // What "%lld" prints.
            const auto r = std::to_chars(number_, number_ + sizeof number_, static_cast<long long>(n->int64Value()));
            leaf("integer", std::string_view(number_, static_cast<std::size_t>(r.ptr - number_)), level);
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
        put(std::string_view("<array>\n"));
        for (const auto& item : array)
            if (!print(item.get(), depth + 1, error)) return false;
        indent(level);
        put(std::string_view("</array>\n"));
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
    put(std::string_view("<dict>\n"));
    for (const auto* entry : entries) {
        leaf("key", static_cast<const qx::String&>(*entry->first).utf8(), level + 1);
        if (!print(entry->second.get(), depth + 1, error)) return false;
    }
    indent(level);
    put(std::string_view("</dict>\n"));
    return true;
}

bool XMLPrinter::uid(const QXUIDPropertyList& uid, unsigned depth, qx::Ref<qx::Error>* error) {
    return dictionary(*uidDictionary(uid), depth, error);
}

} // namespace

bool printPropertyList(const qx::Object* value, std::vector<std::uint8_t>& out, qx::Ref<qx::Error>* error,
                       bool* plain) {
    XMLPrinter printer(out);
    if (!printer.print(value, 0, error)) return false;
    printer.flush();
    if (plain) *plain = *plain && printer.plain();
    return true;
}

qx::Ref<qx::Data> xmlDocumentWithPropertyList(const qx::Ref<qx::Object>& plist, bool* readsBack,
                                              qx::Ref<qx::Error>* error) {
    return QXBinaryPlistInternal::failingOnExhaustion(error, [&]() -> qx::Ref<qx::Data> {
        tzset();  // dates are written in the local zone as it is now
        static constexpr std::string_view kHead =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n";
        static constexpr std::string_view kTail = "</plist>\n";
        auto data = qx::Data::create();
        auto& out = data->vector();
        out.reserve(1u << 16);
        out.insert(out.end(), kHead.begin(), kHead.end());
        bool plain = true;
        if (!printPropertyList(plist.get(), out, error, &plain)) return nullptr;
        out.insert(out.end(), kTail.begin(), kTail.end());
        if (readsBack) *readsBack = plain && out.size() <= kPlainDocumentLimit;
        return data;
    });
}


} // namespace QXXMLPlistInternal
