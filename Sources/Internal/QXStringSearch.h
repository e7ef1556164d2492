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

namespace QXStringSearch {

/// True when text contains pattern (an empty pattern is never found). With
/// the anchored bit the match must start text, or with the backwards bit
/// too, end it.
bool contains(std::string_view text, std::string_view pattern, std::uint64_t options);

/// The same answer as contains, always worked out with the Unicode machinery
/// (contains compares ASCII byte by byte where that cannot differ from it).
bool containsUnicode(std::string_view text, std::string_view pattern, std::uint64_t options);

/// True when contains answers printable-ASCII text and pattern byte by byte
/// for these options in the current locale (its collation tells ASCII
/// characters apart as code units do). Literal searches always may.
bool comparesASCIIByCodeUnit(std::uint64_t options);

/// Data-search flags: 1 backwards, 2 anchored (a match must start the data,
/// or with backwards end it). An empty pattern is never found.
bool dataContains(const qx::Data& data, std::string_view pattern, unsigned flags);

} // namespace QXStringSearch
