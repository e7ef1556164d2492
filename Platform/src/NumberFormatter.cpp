// NumberFormatter.cpp - locale separators from ICU's symbols.
#include <qx/NumberFormatter.h>

#include <unicode/dcfmtsym.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <charconv>
#include <string_view>

namespace qx {

namespace {

Ref<String> symbol(const icu::DecimalFormatSymbols& symbols, icu::DecimalFormatSymbols::ENumberFormatSymbol which,
                   const char* fallback) {
    std::string utf8;
    symbols.getSymbol(which).toUTF8String(utf8);
    return str(utf8.empty() ? fallback : utf8);
}

void replaceAll(std::string& s, std::string_view what, std::string_view with) {
    if (what.empty()) return;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + with.size()))
        s.replace(at, what.size(), with);
}

} // namespace

Ref<NumberFormatter> NumberFormatter::create(const std::string& localeName) {
    const icu::Locale locale = localeName.empty() ? icu::Locale::getDefault() : icu::Locale(localeName.c_str());
    UErrorCode status = U_ZERO_ERROR;
    icu::DecimalFormatSymbols symbols(locale, status);
    if (U_FAILURE(status)) {
        return std::make_shared<NumberFormatter>(locale.getName(), str("."), str("."), str(","));
    }
    using S = icu::DecimalFormatSymbols;
    return std::make_shared<NumberFormatter>(locale.getName(), symbol(symbols, S::kDecimalSeparatorSymbol, "."),
                                             symbol(symbols, S::kMonetarySeparatorSymbol, "."),
                                             symbol(symbols, S::kGroupingSeparatorSymbol, ","));
}

Ref<String> NumberFormatter::stringForObjectValue(const Ref<Object>& object) const {
    auto number = dyn_cast<Number>(object);
    if (!number) return nullptr;
    std::string text = number->description();
    if (number->isReal()) replaceAll(text, ".", decimal_->utf8());
    return str(text);
}

bool NumberFormatter::getObjectValue(Ref<Object>* object, const Ref<String>& string,
                                     Ref<String>* errorDescription) const {
    std::string text = string ? string->utf8() : std::string();
    replaceAll(text, grouping_->utf8(), "");
    // A locale whose grouping is a no-break space is often typed with a plain one.
    if (grouping_->utf8() == "\u00a0" || grouping_->utf8() == "\u202f") replaceAll(text, " ", "");
    const bool real = text.find(decimal_->utf8()) != std::string::npos ||
                      text.find_first_of("eE") != std::string::npos;
    replaceAll(text, decimal_->utf8(), ".");
    std::string_view digits = text;
    if (digits.starts_with('+')) digits.remove_prefix(1);
    const char* first = digits.data();
    const char* last = first + digits.size();
    Ref<Number> result;
    if (!real) {
        std::int64_t i = 0;
        auto r = std::from_chars(first, last, i);
        if (r.ec == std::errc() && r.ptr == last) result = Number::withInt64(i);
    }
    if (!result && !digits.empty()) {
        double d = 0;
        auto r = std::from_chars(first, last, d);
        if (r.ec == std::errc() && r.ptr == last) result = Number::withDouble(d);
    }
    if (!result) {
        if (errorDescription) *errorDescription = str("Invalid number");
        return false;
    }
    if (object) *object = result;
    return true;
}

} // namespace qx
