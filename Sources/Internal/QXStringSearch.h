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

#include <unicode/umachine.h>

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
/// own. leadPrimary is the leading 16 bits of the primary weight of its first
/// collation element (0 when that element has no primary weight: ignorable
/// characters, combining marks). contextFree is true when the code point's
/// weights cannot depend on its neighbours: it is a starter that takes part
/// in no contraction or prefix rule, and so does its decomposition. A range
/// of text holding a context-free code point then holds that first element,
/// which no comparison strength drops. Meaningless for literal searches.
struct CodePointWeight {
    std::uint32_t leadPrimary = 0;
    bool contextFree = false;
};
CodePointWeight codePointWeight(UChar32 c, std::uint64_t options);

/// Data-search flags: 1 backwards, 2 anchored (a match must start the data,
/// or with backwards end it). An empty pattern is never found.
bool dataContains(const qx::Data& data, std::string_view pattern, unsigned flags);

} // namespace QXStringSearch
