// StringsFile.h - reading localisation tables ("key" = "value"; lines).
//
// A strings file is a sequence of entries `"key" = "value";` (a lone
// `"key";` maps the key to itself) with /* */ and // comments. Quoted texts
// take the escapes \" \\ \n \t \r \a \b \f \v, octal \ooo and \UXXXX (one
// UTF-16 unit; surrogate pairs are written as two). Unquoted keys and values
// are runs of letters, digits and _$+/:.-.
//
// The entries are read by the old-style property-list reader (OldStylePropertyList.h)
// in its tolerant mode. The reader is tolerant: it is fed files that anybody can edit, so a
// malformed entry is skipped up to the next ';' and reading goes on; it never
// fails and never reads outside the bytes it is given.
#pragma once

#include <qx/Dictionary.h>

#include <string>
#include <string_view>

namespace qx {

/// Decodes the text of a strings file: UTF-8 or UTF-16 (either order) with a
/// byte-order mark; without one, UTF-16 when the zero bytes say so, else
/// UTF-8. Malformed sequences become U+FFFD.
std::u16string decodeStringsFileText(std::string_view bytes);

/// The entries of a strings file in file order (a repeated key keeps its
/// first place and its last value). Never null.
Ref<Dictionary> dictionaryFromStringsFileData(std::string_view bytes);

} // namespace qx
