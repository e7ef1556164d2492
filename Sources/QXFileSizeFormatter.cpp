// QXFileSizeFormatter.cpp - byte counts as size texts and size texts as byte counts.
#include <QXFoundation/QXFileSizeFormatter.h>
#include <QXFoundation/QXStringAdditions.h>

#include "Internal/QXCharacterSets.h"
#include "Internal/QXFoundationPrivate.h"

#include <qx/Format.h>

#include <unicode/dcfmtsym.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <charconv>
#include <cmath>
#include <string>

const char* const QXFileSizeFormatterAlwaysDisplayBytes = "QXFileSizeFormatterAlwaysDisplayBytes";
const char* const QXFileSizeFormatterDisplayBytesInHex = "QXFileSizeFormatterDisplayBytesInHex";

namespace {

struct Unit {
    const char* shortForms[2];
    const char* longPrefix;
    double factor;
};

// The first row that matches wins.
const Unit kUnits[] = {
    {{"kb", "ko"}, "kilo", 1e3},   {{"kib", "kio"}, "kibi", 0x1p10},
    {{"mb", "mo"}, "mega", 1e6},   {{"mib", "mio"}, "mebi", 0x1p20},
    {{"gb", "go"}, "giga", 1e9},   {{"gib", "gio"}, "gibi", 0x1p30},
    {{"tb", "to"}, "tera", 1e12},  {{"tib", "tio"}, "tebi", 0x1p40},
    {{"pb", "po"}, "peta", 1e15},  {{"pib", "pio"}, "pebi", 0x1p50},
    {{"eb", "eo"}, "exa", 1e18},   {{"eib", "eio"}, "exbi", 0x1p60},
    {{"zb", "zo"}, "zetta", 1e21}, {{"zib", "zio"}, "zebi", 0x1p70},
    {{"yb", "yo"}, "yotta", 1e24}, {{"yib", "yio"}, "yobi", 0x1p80},
};

double unitFactor(const std::string& unit) {
    for (const auto& u : kUnits)
        if (unit == u.shortForms[0] || unit == u.shortForms[1] || unit.starts_with(u.longPrefix)) return u.factor;
    return 1;
}

std::string currentDecimalSeparator() {
    UErrorCode status = U_ZERO_ERROR;
    icu::DecimalFormatSymbols symbols(icu::Locale::getDefault(), status);
    std::string separator;
    if (U_SUCCESS(status)) symbols.getSymbol(icu::DecimalFormatSymbols::kDecimalSeparatorSymbol).toUTF8String(separator);
    return separator.empty() ? "." : separator;
}

void skipWhitespaceAndNewlines(std::string_view text, std::size_t* i) {
    while (*i < text.size()) {
        std::size_t next = *i;
        if (!QXCharacterSets::isWhitespaceOrNewline(QXCharacterSets::nextCodePoint(text, &next))) return;
        *i = next;
    }
}

// A decimal real at text[*i] (after white space): sign, digits, a fraction
// after "." or the locale's separator, an exponent. False when no digit.
bool scanDouble(std::string_view text, std::size_t* i, double* value) {
    skipWhitespaceAndNewlines(text, i);
    std::string normalized;
    std::size_t p = *i;
    const auto digits = [&] {
        const std::size_t start = p;
        while (p < text.size() && text[p] >= '0' && text[p] <= '9') normalized += text[p++];
        return p - start;
    };
    if (p < text.size() && (text[p] == '+' || text[p] == '-')) {
        if (text[p] == '-') normalized += '-';
        ++p;
    }
    std::size_t count = digits();
    const std::string separator = currentDecimalSeparator();
    for (const std::string_view sep : {std::string_view("."), std::string_view(separator)}) {
        if (text.substr(p).starts_with(sep)) {
            const std::size_t before = p;
            const std::size_t lengthBefore = normalized.size();
            p += sep.size();
            normalized += '.';
            const std::size_t fraction = digits();
            if (fraction == 0 && count == 0) {  // a lone separator is not a number
                p = before;
                normalized.resize(lengthBefore);
            }
            count += fraction;
            break;
        }
    }
    if (count == 0) return false;
    if (p < text.size() && (text[p] == 'e' || text[p] == 'E')) {
        std::size_t q = p + 1;
        std::string exponent = "e";
        if (q < text.size() && (text[q] == '+' || text[q] == '-')) exponent += text[q++];
        const std::size_t start = q;
        while (q < text.size() && text[q] >= '0' && text[q] <= '9') exponent += text[q++];
        if (q > start) {
            normalized += exponent;
            p = q;
        }
    }
    const auto result = std::from_chars(normalized.data(), normalized.data() + normalized.size(), *value);
    if (result.ec == std::errc::result_out_of_range) *value = normalized[0] == '-' ? -HUGE_VAL : HUGE_VAL;
    else if (result.ec != std::errc()) return false;
    *i = p;
    return true;
}

qx::Ref<qx::String> describeFailure(const char* key, const qx::Ref<qx::String>& string) {
    return qx::str(qx::format(QXFLocalizedString(key)->utf8().c_str(), string ? string : qx::str("")));
}

} // namespace

qx::Ref<QXFileSizeFormatter> QXFileSizeFormatter::create() {
    return qx::Ref<QXFileSizeFormatter>(new QXFileSizeFormatter);
}

qx::Ref<qx::String> QXFileSizeFormatter::stringForObjectValue(const qx::Ref<qx::Object>& object) const {
    const auto number = qx::dyn_cast<qx::Number>(object);
    if (!number) return nullptr;
    return QXStringAdditions::formattedStringWithFileSize(number->uint64Value());
}

bool QXFileSizeFormatter::getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                                         qx::Ref<qx::String>* errorDescription) const {
    double value = 0;
    std::size_t i = 0;
    if (!string || !scanDouble(string->utf8(), &i, &value)) {
        if (errorDescription) *errorDescription = describeFailure("“%@” is not a file size.", string);
        return false;
    }
    const std::string_view text = string->utf8();
    skipWhitespaceAndNewlines(text, &i);
    std::size_t end = i;
    while (end < text.size()) {
        std::size_t next = end;
        if (QXCharacterSets::isWhitespaceOrNewline(QXCharacterSets::nextCodePoint(text, &next))) break;
        end = next;
    }
    std::string unit;
    icu::UnicodeString::fromUTF8(text.substr(i, end - i)).toLower(icu::Locale::getRoot()).toUTF8String(unit);

    const double size = std::round(value * unitFactor(unit));
    // 2^63 itself is out of range; everything below it converts exactly.
    if (!(size >= -0x1p63 && size < 0x1p63)) {
        if (errorDescription) *errorDescription = describeFailure("The file size “%@” is too large.", string);
        return false;
    }
    if (object) *object = qx::Number::withInt64(static_cast<std::int64_t>(size));
    return true;
}
