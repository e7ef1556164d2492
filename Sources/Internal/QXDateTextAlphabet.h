// QXDateTextAlphabet.h - every character that a date shown in one style could hold.
//
// Private to Sources/. Searching a tree tests one text against every date in
// it, in four display styles each, and formatting is the expensive part. The
// characters a format can produce are few and known in advance (digits,
// month and weekday names, eras, day periods, zone names, the pattern's own
// literal text), so a text holding a character none of them has can be
// ruled out without formatting anything. The set is computed once per
// locale, style and time zone from the format's own pattern and symbols.
#pragma once

#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/locid.h>
#include <unicode/uniset.h>

class QXDateTextAlphabet {
public:
    /// The alphabet of the ICU date-time format of style (the same style for
    /// date and time) in locale, in the host's time zone as read now: the
    /// way qx::DateFormatter makes its formats.
    QXDateTextAlphabet(const icu::Locale& locale, icu::DateFormat::EStyle style);

    /// False when the format shows something whose texts are not enumerated
    /// here (another calendar, an algorithmic numbering, a generic or
    /// location zone name): then nothing can be ruled out.
    bool isBounded() const { return bounded_; }
    /// Every code point some date in this style could show (when bounded).
    const icu::UnicodeSet& characters() const { return characters_; }

private:
    void addField(const icu::SimpleDateFormat& format, const icu::Locale& locale, char16_t letter, int32_t count);
    void addDigits(const icu::SimpleDateFormat& format);
    void addZoneNames(const icu::SimpleDateFormat& format, const icu::Locale& locale);
    void addOffsetFormats(const icu::Locale& locale);
    void addSampled(const icu::Locale& locale, char16_t letter, int32_t count);

    bool bounded_ = false;
    icu::UnicodeSet characters_;
};
