// OldStylePropertyList.h - the reader of old-style (brace and parenthesis)
// property-list text and of strings files.
//
// This is the platform's general text reader, the one a property-list
// serialiser falls back on for data it does not recognise. The grammar:
//
//   value      = string | dictionary | array | data
//   string     = quoted | unquoted
//   quoted     = '"' ... '"' or '\'' ... '\'' with the escapes \a \b \f \n
//                \r \t \v \" \' \\, octal \ooo and \UXXXX (one UTF-16 unit)
//   unquoted   = a run of letters, digits and _ $ + / : . -
//   dictionary = '{' { string '=' value ';' | string ';' } '}'
//   array      = '(' [ value { ',' value } [ ','] ] ')'
//   data       = '<' hexadecimal digit pairs, white space ignored '>'
//
// with /* */ and // comments anywhere white space may stand. A text whose
// top level is not a single value is read as a strings file: dictionary
// entries without the braces ("key" = "value"; lines). Every leaf is a
// string; the text form has no numbers, booleans or dates.
//
// Untrusted text never makes the reader read outside its input or recurse
// without bound: containers nest at most kOldStyleMaxNestingDepth deep.
#pragma once

#include <qx/Dictionary.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace qx {

/// Containers (the root counts) may enclose one another at most this deep.
inline constexpr unsigned kOldStyleMaxNestingDepth = 512;

/// Why a text was refused: a reason and the 1-based line and column (in
/// UTF-16 units) of the character where reading stopped.
struct OldStyleParseFailure {
    std::string reason;
    std::size_t line = 0;
    std::size_t column = 0;
};

/// Reads a whole old-style text. Nothing on failure, with *failure (when
/// given) saying where and why. A text of nothing but white space and
/// comments is an empty strings file: an empty dictionary.
Ref<Object> propertyListFromOldStyleText(std::u16string_view text, OldStyleParseFailure* failure = nullptr);

/// The same over bytes: UTF-8 or UTF-16 as decodeStringsFileText (StringsFile.h) decides.
Ref<Object> propertyListFromOldStyleData(std::string_view bytes, OldStyleParseFailure* failure = nullptr);

/// Reads a strings file tolerantly: the entries of the file in file order (a
/// repeated key keeps its first place and its last value). An entry that
/// does not parse is skipped up to the next ';', and a missing ';' after a
/// complete entry is forgiven, because such files are edited by hand and one
/// bad line must not lose the others. Never fails, never null.
Ref<Dictionary> dictionaryFromStringsFileText(std::u16string_view text);

} // namespace qx
