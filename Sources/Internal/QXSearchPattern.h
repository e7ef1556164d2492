// QXSearchPattern.h - one search text compiled for testing a great many values.
//
// Private to Sources/. Every answer equals QXStringSearch::contains of the
// value's text (its stringValue, or each of a date's four display texts),
// with the same options in the current locale; what is worked out once per
// search instead of once per value is how that answer can be had cheaply:
//   - a printable-ASCII text is compared byte by byte when the collation
//     tells ASCII apart as code units do (QXStringSearch's shortcut);
//   - a text that is not ASCII is ruled out without the Unicode machinery
//     when the pattern's bytes occur nowhere in it and each of its other
//     characters is "inert": context-free, with a collation element that
//     none of the pattern's characters has (an accent, or a primary weight
//     not among theirs), and no contraction whose characters are all
//     present. A range of text holding an inert character holds an element
//     no pattern character has, so any collation match of an ASCII pattern
//     lies inside a run of printable ASCII, where it is a byte match.
//     Otherwise ICU decides;
//   - numbers and dates are ruled out when the pattern holds a character
//     that no text of theirs could hold (by the same reasoning over the set
//     of characters they can show), and only then formatted.
// Not to be shared between threads (it caches per-thread ICU answers).
#pragma once

#include <qx/Data.h>
#include <qx/Date.h>
#include <qx/DateFormatter.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <unicode/uniset.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class QXSearchPattern {
public:
    QXSearchPattern(std::string_view pattern, std::uint64_t options);

    /// QXStringSearch::contains(text, pattern, options).
    bool matchesText(std::string_view text) const;
    /// matchesText of key's text. Strings are immutable and a tree's
    /// dictionaries share their key strings, so answers are kept by object
    /// (for as long as the pattern lives the keys it saw must live too).
    bool matchesKey(const qx::String& key) const;
    /// The same for the number's description.
    bool matchesNumber(const qx::Number& number) const;
    /// The data search of the options' shifted flags over data's bytes.
    bool matchesData(const qx::Data& data) const;
    /// True when one of the four display styles of date contains the pattern.
    bool matchesDate(const qx::Ref<qx::Date>& date) const;
    /// True when no number's description can match: matchesNumber is false
    /// for every number.
    bool rulesOutNumbers() const { return numberRuledOut_; }
    /// True when matchesDate has shown that no date with a finite time can
    /// match (known after the first date it was asked about).
    bool rulesOutFiniteDates() const { return datesKnown_ && datesRuledOut_; }

    /// Full, long, medium and short, for the current locale and time zone
    /// setting; made once per thread and again when either changes.
    static const std::array<qx::Ref<qx::DateFormatter>, 4>& dateFormatters();

    /// True when matchesText of any text made only of these characters is
    /// false, shown without searching (exposed for tests).
    bool rulesOut(const icu::UnicodeSet& alphabet) const;

private:
    enum class Mode {
        Never,        // empty pattern: nothing matches
        Bytes,        // literal without folding: code points compared as they are
        ASCII,        // printable-ASCII pattern, collation that keeps ASCII apart by code unit
        Unicode,      // anything else: every text goes to ICU
    };
    // How a character other than printable ASCII stands to the pattern:
    // inert (see above) unless all the characters of one of its
    // contractions are present.
    struct Inertness {
        bool inert = false;
        icu::UnicodeString decomposed;
        std::vector<icu::UnicodeString> contractions;
        // Per contraction, the bits (code point mod 64) of its characters:
        // one that is absent rules the contraction out without a search.
        std::vector<std::uint64_t> contractionBits;
    };
    /// Appends c's canonical decomposition to present, and their bits.
    void addDecomposed(UChar32 c, std::vector<UChar32>& present, std::uint64_t& bits) const;
    const Inertness& inertness(UChar32 c) const;
    bool bytesOccurIn(std::string_view text) const;
    /// True when all the characters of a contraction of one of text's
    /// characters are present in text.
    bool contractionPresent(std::string_view text) const;

    std::string pattern_;
    std::uint64_t options_;
    Mode mode_ = Mode::Unicode;
    bool ignoreCase_ = false;
    std::vector<std::uint32_t> primaries_;  // the pattern characters' leading primaries (ASCII mode)
    bool numberRuledOut_ = false;
    mutable std::unordered_map<UChar32, Inertness> inert_;
    // The last answers by code point, in front of inert_ (a text repeats few characters).
    mutable std::array<std::pair<UChar32, const Inertness*>, 64> recent_{};
    mutable std::array<std::pair<const qx::String*, bool>, 256> keys_{};
    mutable std::vector<UChar32> present_;  // contractionPresent's buffer, kept between calls
    mutable bool datesKnown_ = false;  // dateStyleRuledOut_ is worked out on the first date
    mutable std::array<bool, 4> dateStyleRuledOut_{};
    mutable bool datesRuledOut_ = false;  // all four of dateStyleRuledOut_
};
