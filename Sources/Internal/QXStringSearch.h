// QXStringSearch.h - substring tests with the platform's string-compare options.
//
// Private to Sources/. Options are the platform's bits: 1 case-insensitive,
// 2 literal, 4 backwards, 8 anchored, 64 numeric, 128 diacritic-insensitive,
// 256 width-insensitive. Without the literal bit, text is compared by the
// current locale's collation (canonically equivalent text matches); with it,
// by code points. Numeric ordering has no bearing on whether text contains
// other text, so that bit is accepted and has no effect.
#pragma once

#include <qx/Data.h>

#include <cstdint>
#include <string_view>

#include <unicode/unistr.h>

#include <vector>

namespace QXStringSearch {

/// True when text contains pattern (an empty pattern is never found). With
/// the anchored bit the match must start text, or with the backwards bit
/// too, end it.
bool contains(std::string_view text, std::string_view pattern, std::uint64_t options);

/// The same answer as contains, always worked out with the Unicode machinery
/// (contains compares ASCII byte by byte where that cannot differ from it).
bool containsUnicode(std::string_view text, std::string_view pattern, std::uint64_t options);

/// The byte-by-byte answer contains gives where comparesASCIIByCodeUnit
/// allows it (A-Z and a-z alike with the case-insensitive bit).
bool containsASCII(std::string_view text, std::string_view pattern, std::uint64_t options);

/// True when contains answers printable-ASCII text and pattern byte by byte
/// for these options in the current locale (its collation tells ASCII
/// characters apart as code units do). Literal searches always may.
bool comparesASCIIByCodeUnit(std::uint64_t options);

/// What the collation used for these options makes of one code point on its
/// own, to prove that text cannot match without searching it. A search
/// compares collation elements one for one, and a match never splits the
/// elements of one character: a range of text holding a context-free
/// character holds all of its elements.
struct CodePointWeight {
    /// The leading 16 bits of the primary weight of each of its collation
    /// elements in order (continuations left out), 0 for an element without
    /// one; elements ignorable at secondary strength are left out.
    std::vector<std::uint32_t> primaries;
    /// True when one element has no primary weight but a secondary one (an
    /// accent): no comparison strength of a search drops it.
    bool hasSecondaryOnly = false;
    /// False when its weights may depend on its neighbours in ways not listed
    /// below: a combining mark (reordered), a character the locale tailors
    /// (prefix rules among them), or one that starts with a mark.
    bool contextFree = false;
    /// Its canonical decomposition (itself when it has none).
    icu::UnicodeString decomposed;
    /// The contractions holding it or a character of its decomposition: its
    /// weights may change where all the characters of one are present.
    std::vector<icu::UnicodeString> contractions;
};
CodePointWeight codePointWeight(UChar32 c, std::uint64_t options);

/// Data-search flags: 1 backwards, 2 anchored (a match must start the data,
/// or with backwards end it). An empty pattern is never found.
bool dataContains(const qx::Data& data, std::string_view pattern, unsigned flags);

} // namespace QXStringSearch
