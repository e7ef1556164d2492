// QXDateTextAlphabet.cpp - the characters of a date format, from its pattern and symbols.
//
// Each pattern field contributes everything it could ever show, not only what
// it shows for some date: the sets only have to contain the truth, and a
// larger set merely rules out less.
#include "Internal/QXDateTextAlphabet.h"

#include <unicode/calendar.h>
#include <unicode/decimfmt.h>
#include <unicode/dtfmtsym.h>
#include <unicode/strenum.h>
#include <unicode/timezone.h>
#include <unicode/tzfmt.h>
#include <unicode/tznames.h>

#include <cstring>
#include <memory>

namespace {

void addAll(icu::UnicodeSet& set, const icu::UnicodeString* strings, int32_t count) {
    for (int32_t i = 0; strings && i < count; ++i) set.addAll(strings[i]);
}

bool isPatternLetter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }

} // namespace

QXDateTextAlphabet::QXDateTextAlphabet(const icu::Locale& locale, icu::DateFormat::EStyle style) {
    std::unique_ptr<icu::DateFormat> made(icu::DateFormat::createDateTimeInstance(style, style, locale));
    auto* format = dynamic_cast<icu::SimpleDateFormat*>(made.get());
    if (!format || !format->getCalendar() || std::strcmp(format->getCalendar()->getType(), "gregorian") != 0) return;
    format->adoptTimeZone(icu::TimeZone::detectHostTimeZone());
    if (!dynamic_cast<const icu::DecimalFormat*>(format->getNumberFormat())) return;
    bounded_ = true;
    icu::UnicodeString pattern;
    format->toPattern(pattern);
    bool quoted = false;
    for (int32_t i = 0; i < pattern.length() && bounded_;) {
        const char16_t c = pattern[i];
        if (c == u'\'') {
            if (i + 1 < pattern.length() && pattern[i + 1] == u'\'') {
                characters_.add(u'\'');
                i += 2;
            } else {
                quoted = !quoted;
                ++i;
            }
        } else if (quoted || !isPatternLetter(c)) {
            characters_.add(pattern.char32At(i));
            // An unquoted colon is the locale's time separator.
            if (!quoted && c == u':') {
                icu::UnicodeString separator;
                characters_.addAll(format->getDateFormatSymbols()->getTimeSeparatorString(separator));
            }
            i = pattern.moveIndex32(i, 1);
        } else {
            int32_t count = 1;
            while (i + count < pattern.length() && pattern[i + count] == c) ++count;
            addField(*format, locale, c, count);
            i += count;
        }
    }
    if (!bounded_) characters_.clear();
    characters_.freeze();
}

void QXDateTextAlphabet::addField(const icu::SimpleDateFormat& format, const icu::Locale& locale, char16_t letter,
                                  int32_t count) {
    const icu::DateFormatSymbols& symbols = *format.getDateFormatSymbols();
    using Symbols = icu::DateFormatSymbols;
    const Symbols::DtContextType contexts[] = {Symbols::FORMAT, Symbols::STANDALONE};
    const Symbols::DtWidthType widths[] = {Symbols::ABBREVIATED, Symbols::WIDE, Symbols::NARROW, Symbols::SHORT};
    int32_t n = 0;
    switch (letter) {
    case u'G':
        addAll(characters_, symbols.getEras(n), n);
        addAll(characters_, symbols.getEraNames(n), n);
        addAll(characters_, symbols.getNarrowEras(n), n);
        break;
    case u'M':
    case u'L':
        for (auto context : contexts)
            for (auto width : widths)
                if (width != Symbols::SHORT) addAll(characters_, symbols.getMonths(n, context, width), n);
        addDigits(format);
        break;
    case u'E':
    case u'e':
    case u'c':
        for (auto context : contexts)
            for (auto width : widths) addAll(characters_, symbols.getWeekdays(n, context, width), n);
        addDigits(format);
        break;
    case u'Q':
    case u'q':
        for (auto context : contexts)
            for (auto width : widths)
                if (width != Symbols::SHORT) addAll(characters_, symbols.getQuarters(n, context, width), n);
        addDigits(format);
        break;
    case u'a':
    case u'b':
    case u'B':
        addAll(characters_, symbols.getAmPmStrings(n), n);
        addSampled(locale, letter, count);
        break;
    case u'y': case u'Y': case u'u': case u'r': case u'd': case u'D': case u'F': case u'g': case u'h': case u'H':
    case u'k': case u'K': case u'm': case u's': case u'S': case u'A': case u'w': case u'W':
        addDigits(format);
        break;
    case u'z':
        addZoneNames(format, locale);
        addOffsetFormats(locale);
        break;
    case u'Z':
    case u'O':
    case u'x':
    case u'X':
        addOffsetFormats(locale);
        break;
    default: bounded_ = false;  // generic and location zone names, cyclic years, ...
    }
}

void QXDateTextAlphabet::addDigits(const icu::SimpleDateFormat& format) {
    const auto* decimal = dynamic_cast<const icu::DecimalFormat*>(format.getNumberFormat());
    if (!decimal || !decimal->getDecimalFormatSymbols()) {
        bounded_ = false;
        return;
    }
    const icu::DecimalFormatSymbols& symbols = *decimal->getDecimalFormatSymbols();
    for (int32_t digit = 0; digit <= 9; ++digit) characters_.addAll(symbols.getConstDigitSymbol(digit));
    characters_.addAll(symbols.getConstSymbol(icu::DecimalFormatSymbols::kMinusSignSymbol));
    characters_.addAll(symbols.getConstSymbol(icu::DecimalFormatSymbols::kPlusSignSymbol));
    characters_.add(u'0', u'9');
    characters_.add(u'-');
}

// Specific zone names (the letter z): the zone's own names and those of
// every metazone it has ever belonged to, in all lengths; without a name,
// the localized offset format.
void QXDateTextAlphabet::addZoneNames(const icu::SimpleDateFormat& format, const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString id, canonical;
    format.getTimeZone().getID(id);
    icu::TimeZone::getCanonicalID(id, canonical, status);
    std::unique_ptr<icu::TimeZoneNames> names(icu::TimeZoneNames::createInstance(locale, status));
    std::unique_ptr<icu::StringEnumeration> metazones(
        U_SUCCESS(status) ? names->getAvailableMetaZoneIDs(canonical, status) : nullptr);
    if (U_FAILURE(status) || !metazones) {
        bounded_ = false;
        return;
    }
    const UTimeZoneNameType types[] = {UTZNM_LONG_GENERIC,  UTZNM_LONG_STANDARD,  UTZNM_LONG_DAYLIGHT,
                                       UTZNM_SHORT_GENERIC, UTZNM_SHORT_STANDARD, UTZNM_SHORT_DAYLIGHT};
    icu::UnicodeString name;
    for (auto type : types) characters_.addAll(names->getTimeZoneDisplayName(canonical, type, name));
    while (const icu::UnicodeString* metazone = metazones->snext(status))
        for (auto type : types) characters_.addAll(names->getMetaZoneDisplayName(*metazone, type, name));
    if (U_FAILURE(status)) bounded_ = false;
}

// Localized offsets ("GMT+01:00", the zero format) and ISO 8601 offsets.
void QXDateTextAlphabet::addOffsetFormats(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::TimeZoneFormat> zones(icu::TimeZoneFormat::createInstance(locale, status));
    if (U_FAILURE(status) || !zones) {
        bounded_ = false;
        return;
    }
    icu::UnicodeString text;
    characters_.addAll(zones->getGMTPattern(text));
    characters_.addAll(zones->getGMTZeroFormat(text));
    characters_.addAll(zones->getGMTOffsetDigits(text));
    for (int32_t type = UTZFMT_PAT_POSITIVE_HM; type < UTZFMT_PAT_COUNT; ++type)
        characters_.addAll(zones->getGMTOffsetPattern(static_cast<UTimeZoneFormatGMTOffsetPatternType>(type), text));
    characters_.add(u'0', u'9');
    characters_.addAll(icu::UnicodeString(u"+-:Z"));
}

// Day periods by the field alone, at every half hour of a day: the rules
// that choose them change on the hour, noon and midnight exactly on it.
void QXDateTextAlphabet::addSampled(const icu::Locale& locale, char16_t letter, int32_t count) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat sample(icu::UnicodeString(count, letter, count), locale, status);
    if (U_FAILURE(status)) {
        bounded_ = false;
        return;
    }
    sample.adoptTimeZone(icu::TimeZone::createTimeZone(u"UTC"));
    constexpr double kHalfHour = 30 * 60 * 1000.0, kDay2001 = 978307200000.0;
    for (int half = 0; half < 48; ++half) {
        icu::UnicodeString shown;
        characters_.addAll(sample.format(kDay2001 + half * kHalfHour, shown));
    }
}
