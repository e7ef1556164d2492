// QXPropertyListSerializationText.cpp - the old-style text writer, display texts and their parsers.
#include <QXFoundation/QXPropertyListSerialization.h>

#include <QXFoundation/QXStringAdditions.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXFoundationPrivate.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <charconv>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

using namespace QXBinaryPlistInternal;

namespace {

// --- Old-style writer -------------------------------------------------------------

// Puts four spaces after every line break in s[from, s.size() - keepLast):
// each level indents its own lines, so nested levels end up indented more.
void indent(std::string& s, std::size_t from, std::size_t keepLast) {
    if (s.size() < from + keepLast) return;
    const std::size_t end = s.size() - keepLast;
    std::size_t breaks = 0;
    for (std::size_t i = from; i < end; ++i) breaks += s[i] == '\n';
    if (!breaks) return;
    std::string out;
    out.reserve(s.size() + 4 * breaks);
    out.append(s, 0, from);
    for (std::size_t i = from; i < end; ++i) {
        out.push_back(s[i]);
        if (s[i] == '\n') out.append(4, ' ');
    }
    out.append(s, end, std::string::npos);
    s.swap(out);
}

std::string escaped(const std::string& text) {
    return QXStringAdditions::stringByEscapingSpecialCharacters(qx::String(text))->utf8();
}

bool writeOldStyle(const qx::Object* item, std::string& out, unsigned depth, qx::Ref<qx::Error>* error) {
    const auto* dict = dynamic_cast<const qx::Dictionary*>(item);
    const auto* array = dict ? nullptr : dynamic_cast<const qx::Array*>(item);
    if (!dict && !array) {
        if (const auto* s = dynamic_cast<const qx::String*>(item)) out = escaped(s->utf8());
        else out = escaped(item ? item->description() : "(null)");
        return true;
    }
    if (depth >= QXBinaryPlistMaxNestingDepth) {
        QXLog("property list nests deeper than %u levels", QXBinaryPlistMaxNestingDepth);
        setError(error);
        return false;
    }
    std::string child;
    if (dict) {
        out = "\n{\n";
        for (const auto& [key, value] : *dict) {
            if (!writeOldStyle(value.get(), child, depth + 1, error)) return false;
            const auto* k = dynamic_cast<const qx::String*>(key.get());
            out += escaped(k ? k->utf8() : key ? key->description() : "(null)");
            out += " = ";
            out += child;
            out += ";\n";
        }
        indent(out, 1, 2);
        out += '}';
    } else {
        out = "\n(\n";
        for (const auto& value : *array) {
            if (!writeOldStyle(value.get(), child, depth + 1, error)) return false;
            out += child;
            out += ",\n";
        }
        if (!array->empty()) out.erase(out.size() - 2, 1);
        indent(out, 1, 2);
        out += ')';
    }
    return true;
}

// --- Text helpers ---------------------------------------------------------------------

std::string upper(const std::string& s) {
    std::string out;
    icu::UnicodeString::fromUTF8(s).toUpper(icu::Locale::getRoot()).toUTF8String(out);
    return out;
}

void removeAll(std::string& s, const std::string& what) {
    if (what.empty()) return;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at)) s.erase(at, what.size());
}

void replaceAll(std::string& s, const std::string& what, const std::string& with) {
    if (what.empty()) return;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + with.size()))
        s.replace(at, what.size(), with);
}

bool isUTF8(std::string_view s) {
    int32_t i = 0;
    const auto n = static_cast<int32_t>(std::min<std::size_t>(s.size(), INT32_MAX));
    if (static_cast<std::size_t>(n) != s.size()) return false;
    while (i < n) {
        UChar32 c;
        U8_NEXT(reinterpret_cast<const uint8_t*>(s.data()), i, n, c);
        if (c < 0) return false;
    }
    return true;
}

std::string latin1ToUTF8(std::string_view s) {
    std::string out;
    out.reserve(s.size() * 2);
    for (unsigned char c : s) {
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

bool isSpaceChar(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The signed integer at the start (after white space), saturating; 0 when none.
std::int64_t scanInteger(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && isSpaceChar(s[i])) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    std::uint64_t v = 0;
    bool overflow = false;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        const unsigned d = static_cast<unsigned>(s[i] - '0');
        if (v > (std::numeric_limits<std::uint64_t>::max() - d) / 10) overflow = true;
        else v = v * 10 + d;
    }
    constexpr std::uint64_t kMaxMagnitude = std::uint64_t{1} << 63;
    if (negative) return overflow || v >= kMaxMagnitude ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(v);
    return overflow || v >= kMaxMagnitude ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(v);
}

// The real at the start (after white space), or nothing.
bool scanDouble(std::string_view s, double& out) {
    std::size_t i = 0;
    while (i < s.size() && isSpaceChar(s[i])) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    // Only decimal notation: from_chars would also take "inf" and "nan".
    if (i >= s.size() || !((s[i] >= '0' && s[i] <= '9') || s[i] == '.')) return false;
    double v = 0;
    auto r = std::from_chars(s.data() + i, s.data() + s.size(), v, std::chars_format::general);
    if (r.ec == std::errc::result_out_of_range) {
        v = std::strtod(std::string(s.substr(i, static_cast<std::size_t>(r.ptr - (s.data() + i)))).c_str(), nullptr);
    } else if (r.ec != std::errc()) {
        return false;
    }
    out = negative ? -v : v;
    return true;
}

// --- Shared formatters --------------------------------------------------------------------

std::string currentLocaleName() { return icu::Locale::getDefault().getName(); }
std::string currentZoneSetting() {
    const char* tz = std::getenv("TZ");
    return tz ? std::string("=") + tz : std::string();
}

} // namespace

// --- Old-style form -----------------------------------------------------------------------

qx::Ref<qx::String> QXPropertyListSerialization::oldStylePlistStringWithItem(const qx::Ref<qx::Object>& item,
                                                                            qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&]() -> qx::Ref<qx::String> {
        std::string out;
        if (!writeOldStyle(item.get(), out, 0, error)) return nullptr;
        return std::make_shared<qx::String>(std::move(out));
    });
}

qx::Ref<qx::Data> QXPropertyListSerialization::oldStylePlistDataWithItem(const qx::Ref<qx::Object>& item,
                                                                        qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&]() -> qx::Ref<qx::Data> {
        std::string out;
        if (!writeOldStyle(item.get(), out, 0, error)) return nullptr;
        const bool container = qx::dyn_cast<qx::Dictionary>(item) || qx::dyn_cast<qx::Array>(item);
        const std::size_t skip = container && !out.empty() ? 1 : 0;
        return qx::Data::withBytes(out.data() + skip, out.size() - skip);
    });
}

// --- Display texts ----------------------------------------------------------------------------

qx::Ref<qx::String> QXPropertyListSerialization::stringRepresentationOfPropertyList(const qx::Ref<qx::Object>& plist,
                                                                                   qx::Ref<qx::Error>* error) {
    if (auto s = qx::dyn_cast<qx::String>(plist)) return s;
    if (auto n = qx::dyn_cast<qx::Number>(plist)) {
        if (n->isBoolean()) return QXFLocalizedString(n->boolValue() ? "Yes" : "No");
        return numberFormatter()->stringForObjectValue(n);
    }
    if (auto d = qx::dyn_cast<qx::Date>(plist)) return dateFormatter()->stringForObjectValue(d);
    if (auto d = qx::dyn_cast<qx::Data>(plist)) {
        const std::string_view bytes = d->view();
        return isUTF8(bytes) ? qx::str(bytes) : qx::str(latin1ToUTF8(bytes));
    }
    auto xml = xmlDataWithPropertyList(plist, error);
    if (!xml) return nullptr;
    return qx::str(xml->view());
}

qx::Ref<qx::String> QXPropertyListSerialization::stringRepresentationOfItems(const qx::Ref<qx::Array>& items,
                                                                            qx::Ref<qx::Error>* error) {
    if (items && items->count() == 1) return stringRepresentationOfPropertyList((*items)[0], error);
    return stringRepresentationOfPropertyList(items, error);
}

qx::Ref<qx::Object> QXPropertyListSerialization::itemWithStringRepresentation(const qx::String& text,
                                                                             qx::Ref<qx::Error>*) {
    auto formatter = numberFormatter();
    const std::string separators = qx::format("%@%@%@", formatter->decimalSeparator(),
                                              formatter->currencyDecimalSeparator(), formatter->groupingSeparator());
    const icu::UnicodeString allowed = icu::UnicodeString::fromUTF8(separators);
    const icu::UnicodeString typed = icu::UnicodeString::fromUTF8(text.utf8());
    bool numeric = !typed.isEmpty();
    for (int32_t i = 0; numeric && i < typed.length(); i = typed.moveIndex32(i, 1)) {
        const UChar32 c = typed.char32At(i);
        numeric = u_isdigit(c) || allowed.indexOf(c) >= 0;
    }
    if (numeric) return numberWithStringValue(text);
    if (auto plist = propertyListWithData(qx::Data::withString(text.utf8()), nullptr, nullptr)) return plist;
    return qx::str(text.utf8());
}

// --- Parsers ------------------------------------------------------------------------------------

qx::Ref<qx::String> QXPropertyListSerialization::stringWithStringValue(const qx::String& text, qx::Ref<qx::Error>*) {
    return qx::str(text.utf8());
}

qx::Ref<qx::Number> QXPropertyListSerialization::numberWithStringValue(const qx::String& text, qx::Ref<qx::Error>*) {
    const std::string upperText = upper(text.utf8());
    if (upperText == "YES" || upperText == upper(QXFLocalizedString("Yes")->utf8())) return qx::Number::withInt64(1);
    // "No" is compared with the upper-cased text, which it never equals; kept
    // as the display parser always behaved.
    if (upperText == "No" || upperText == upper(QXFLocalizedString("No")->utf8())) return qx::Number::withInt64(0);

    auto formatter = numberFormatter();
    std::string digits = text.utf8();
    removeAll(digits, formatter->groupingSeparator()->utf8());
    const std::string& decimal = formatter->decimalSeparator()->utf8();
    const std::string& currencyDecimal = formatter->currencyDecimalSeparator()->utf8();
    const bool real = (!decimal.empty() && digits.find(decimal) != std::string::npos) ||
                      (!currencyDecimal.empty() && digits.find(currencyDecimal) != std::string::npos);
    if (real) {
        // The locale's separators are read as the decimal point.
        replaceAll(digits, decimal, ".");
        replaceAll(digits, currencyDecimal, ".");
        double v = 0;
        if (scanDouble(digits, v)) return qx::Number::withDouble(v);
        return qx::Number::withInt64(0);
    }
    return qx::Number::withInt64(scanInteger(digits));
}

qx::Ref<qx::Number> QXPropertyListSerialization::booleanWithStringValue(const qx::String& text, qx::Ref<qx::Error>*) {
    const std::string upperText = upper(text.utf8());
    if (upperText == "YES" || upperText == upper(QXFLocalizedString("YES")->utf8())) return qx::Number::withBool(true);
    if (upperText == "NO" || upperText == upper(QXFLocalizedString("NO")->utf8())) return qx::Number::withBool(false);
    const std::string& raw = text.utf8();
    if (raw.empty() || raw == "0" || raw.starts_with("0 ")) return qx::Number::withBool(false);
    return qx::Number::withBool(true);
}

qx::Ref<qx::Date> QXPropertyListSerialization::dateWithStringValue(const qx::String& text, qx::Ref<qx::Error>*) {
    using Style = qx::DateFormatter::Style;
    // The display style first (what the user sees is what they edit), then
    // shorter forms a user is likely to type.
    for (auto [dateStyle, timeStyle] : {std::pair{Style::Medium, Style::Medium}, std::pair{Style::Short, Style::Short},
                                        std::pair{Style::Medium, Style::None}, std::pair{Style::Short, Style::None}}) {
        if (auto date = qx::DateFormatter::create(dateStyle, timeStyle)->dateFromString(text)) return date;
    }
    return qx::Date::now();
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithStringValue(const qx::String& text, qx::Ref<qx::Error>*) {
    std::string_view s = text.utf8();
    if (s.starts_with('<')) s.remove_prefix(1);
    else if (s.starts_with("0x")) s.remove_prefix(2);
    if (s.ends_with('>')) s.remove_suffix(1);
    // White space goes; every other character that is not a hexadecimal digit becomes "0".
    std::string digits;
    digits.reserve(s.size());
    const auto n = static_cast<int32_t>(std::min<std::size_t>(s.size(), INT32_MAX));
    for (int32_t i = 0; i < n;) {
        UChar32 c;
        U8_NEXT(reinterpret_cast<const uint8_t*>(s.data()), i, n, c);
        if (c >= 0 && (u_isUWhiteSpace(c) || c == 0x85 || c == 0x2028 || c == 0x2029)) continue;
        const bool hex = c >= 0 && c < 0x80 && std::isxdigit(c);
        digits.push_back(hex ? static_cast<char>(c) : '0');
    }
    // (Removing "0x" now finds nothing: every x has become 0 above.)
    auto value = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    auto data = qx::Data::create();
    data->reserve(digits.size() / 2 + 1);
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = value(digits[i]);
        const int low = i + 1 < digits.size() ? value(digits[i + 1]) : 0;
        data->appendByte(static_cast<std::uint8_t>(high * 16 + low));
    }
    return data;
}

// --- Shared formatters ------------------------------------------------------------------------------

qx::StringEncoding QXPropertyListSerialization::defaultDataEncoding() { return qx::NSUTF8StringEncoding; }

qx::Ref<qx::DateFormatter> QXPropertyListSerialization::dateFormatter() {
    static std::mutex mutex;
    static qx::Ref<qx::DateFormatter> shared;
    static std::string zone;
    const std::string locale = currentLocaleName();
    const std::string zoneNow = currentZoneSetting();
    std::lock_guard<std::mutex> lock(mutex);
    if (!shared || shared->localeName() != locale || zone != zoneNow) {
        shared = qx::DateFormatter::create(qx::DateFormatter::Style::Medium, qx::DateFormatter::Style::Medium);
        zone = zoneNow;
    }
    return shared;
}

qx::Ref<qx::NumberFormatter> QXPropertyListSerialization::numberFormatter() {
    static std::mutex mutex;
    static qx::Ref<qx::NumberFormatter> shared;
    const std::string locale = currentLocaleName();
    std::lock_guard<std::mutex> lock(mutex);
    if (!shared || shared->localeName() != locale) shared = qx::NumberFormatter::create();
    return shared;
}
