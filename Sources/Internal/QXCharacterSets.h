// QXCharacterSets.h - the platform's character sets the string code tests against.
//
// Text is UTF-8 inside qx::String; these helpers walk it by code point and
// classify code points the way the platform's predefined sets do. Malformed
// UTF-8 reads as U+FFFD, as the text's UTF-16 view shows it.
#pragma once

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace QXCharacterSets {

/// The code point at text[*index], advancing *index past it.
inline UChar32 nextCodePoint(std::string_view text, std::size_t* index) {
    const auto* s = reinterpret_cast<const std::uint8_t*>(text.data());
    if (s[*index] < 0x80) return s[(*index)++];
    // U8_NEXT counts in 32 bits; a window of a few bytes holds any sequence.
    const std::size_t start = *index;
    const int32_t window = static_cast<int32_t>(text.size() - start < 8 ? text.size() - start : 8);
    int32_t offset = 0;
    UChar32 c;
    U8_NEXT(s + start, offset, window, c);
    *index = start + static_cast<std::size_t>(offset);
    return c < 0 ? 0xFFFD : c;
}

/// Tab and the space separators (the platform's white-space set).
inline bool isWhitespace(UChar32 c) { return c == '\t' || u_charType(c) == U_SPACE_SEPARATOR; }

/// Line feed to carriage return, next line, and the line and paragraph separators.
inline bool isNewline(UChar32 c) { return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029; }

inline bool isWhitespaceOrNewline(UChar32 c) { return isWhitespace(c) || isNewline(c); }

/// Letters, marks and numbers of every script (the platform's alphanumeric set).
inline bool isAlphanumeric(UChar32 c) {
    return (U_GET_GC_MASK(c) & (U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK)) != 0;
}

/// "0123456789abcdefABCDEF".
inline bool isHexDigit(UChar32 c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

} // namespace QXCharacterSets
