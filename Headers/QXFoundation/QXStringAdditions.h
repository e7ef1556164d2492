// QXStringAdditions.h - operations added to strings: identifiers, legacy Mac
// text forms, tolerant decoding, escaping, number and version parsing.
//
// Every function is a pure function of its arguments, except the HTML entity
// table, which is read once from the library's "Entities.txt" resource and
// shared by the process. All are safe to call from any thread.
//
// Pascal strings and four-character codes are always Mac OS Roman.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/String.h>
#include <qx/StringEncoding.h>
#include <qx/URL.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace QXStringAdditions {

/// A new random UUID as upper-case hexadecimal groups 8-4-4-4-12 joined by "-".
qx::Ref<qx::String> uniqueID();

/// The text of a length-prefixed Mac OS Roman byte string (the first byte is
/// the count of bytes after it); nothing when pascalString is null.
qx::Ref<qx::String> stringWithPascalString(const unsigned char* pascalString);

/// The four bytes of code, most significant first, as Mac OS Roman text; the
/// empty string for 0. Zero bytes inside a non-zero code stay in the text.
qx::Ref<qx::String> stringWithFourCharCode(std::uint32_t code);

/// self's Mac OS Roman bytes behind one length byte. The length byte says at
/// most 255; longer text still has all its bytes appended, so readers that
/// trust the length byte see the first 255 (kept as the library always did).
/// Nothing when self has a character that Mac OS Roman cannot represent.
qx::Ref<qx::Data> pascalString(const qx::String& self);

/// The first four Mac OS Roman bytes of self as a big-endian number; 0 when
/// self is shorter than four UTF-16 units or cannot be represented in Mac OS Roman.
std::uint32_t fourCharCode(const qx::String& self);

/// Reads a text file whose encoding is not known: first with the encoding
/// detected from its bytes (byte-order mark, UTF-8, or a confident statistical
/// guess), else in the default C-string encoding (Mac OS Roman), which decodes
/// any bytes. *usedEncoding gets the encoding used. Only file URLs are read
/// (others fail with NSCocoaErrorDomain 262). A file that cannot be read
/// fails with the platform's file-reading error (NSCocoaErrorDomain 260 no
/// such file, 257 no permission, 256 otherwise), the POSIX error underneath.
qx::Ref<qx::String> stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(
    const qx::Ref<qx::URL>& url, qx::StringEncoding* usedEncoding = nullptr, qx::Ref<qx::Error>* error = nullptr);
/// The same as stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary.
qx::Ref<qx::String> initWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(
    const qx::Ref<qx::URL>& url, qx::StringEncoding* usedEncoding = nullptr, qx::Ref<qx::Error>* error = nullptr);
/// The URL form on the file URL of path.
qx::Ref<qx::String> initWithContentsOfFileFallingBackOnDefaultEncodingIfNecessary(
    std::string_view path, qx::StringEncoding* usedEncoding = nullptr, qx::Ref<qx::Error>* error = nullptr);

/// The bytes of a C buffer up to its first zero byte (all bufferLength bytes
/// when it has none) decoded in encoding. Never nothing: bytes that do not
/// decode, an unknown encoding, a null buffer or length 0 give the empty string.
qx::Ref<qx::String> initWithCString(const void* bytes, std::size_t bufferLength, qx::StringEncoding encoding);
/// initWithCString over data's bytes and length (nothing: the empty string).
qx::Ref<qx::String> initWithCStringData(const qx::Ref<qx::Data>& data, qx::StringEncoding encoding);

/// self with every backslash doubled and a backslash before each of
/// "*?+[](){}^$|./", so that a regular expression matches it literally.
qx::Ref<qx::String> stringByEscapingRegexCharacters(const qx::String& self);

/// The signed 64-bit decimal integer at the start of self (white space and
/// line breaks skipped, optional sign; values beyond the range saturate), as
/// its unsigned 64-bit pattern; 0 when there is none.
std::uint64_t unsignedLongLongValue(const qx::String& self);

/// self read as hexadecimal after trimming non-hexadecimal characters from
/// both ends and one leading "0x"; 0 when anything else remains. Arithmetic
/// wraps, so only the last 16 digits count.
///
/// Deliberate and relied upon by existing callers: of the capital letters,
/// only "A" has its value (10); "B" to "F" count as 0. So "FF" is 0, "A0" 160.
std::uint64_t unsignedLongLongHexValue(const qx::String& self);

/// Orders self against other as the current locale sorts text, ignoring case
/// (not accents) and comparing runs of digits by their numeric value
/// ("file9" < "file10"). Returns -1, 0 or 1 (ascending, same, descending).
int localizedCaseInsensitiveNumericCompare(const qx::String& self, const qx::String& other);

/// True when self starts with a letter or digit (any script) and the first
/// character that is neither is ":" ("abc:def", "a1:"; not "abc", ":x", "a b:c").
bool isURLString(const qx::String& self);

/// self safe for HTML text: every character outside ASCII letters, digits,
/// CR, LF, space and !"#$%'()*+:;,-./[]\^_`{}|~ becomes its named entity from
/// the library's entity table ("&lt;"), or "&#N;" with its UTF-16 code unit
/// when the table has no name for it or cannot be read. Characters outside the
/// Basic Multilingual Plane are written as their two surrogate units.
qx::Ref<qx::String> stringByEncodingForHTML(const qx::String& self);

/// Splits "major.minor.bugfix" at its dots. False, writing nothing, when self
/// has no "."; else true, writing each given out-parameter whose part exists
/// (the leading decimal integer of the part, 0 when it has none).
/// "10.6" sets major and minor; "10." only major.
bool parseVersionStringAndReturnMajorVersion(const qx::String& self, std::int64_t* majorVersion,
                                             std::int64_t* minorVersion, std::int64_t* bugfixVersion);

/// A byte count as users read it: "1023 bytes", else one decimal in KiB, MiB
/// or GiB (powers of 1024, GiB the largest), with the current locale's
/// decimal separator ("1.5 KiB", in German "1,5 KiB") and localised units.
qx::Ref<qx::String> formattedStringWithFileSize(std::uint64_t size);

// --- Property-list text -----------------------------------------------------

/// self as an old-style property-list leaf or key: backslash and double quote
/// escaped with a backslash, CR, LF and tab as \r \n \t, every other UTF-16
/// unit outside printable ASCII as \U and four lower-case hexadecimal digits;
/// then the whole put in double quotes unless it is non-empty and only letters
/// and digits ("abc123" stays bare, "a b", "1.5" and "" are quoted).
qx::Ref<qx::String> stringByEscapingSpecialCharacters(const qx::String& self);

/// The old-style property-list text of plist (as format 1 writes it: a
/// container without its leading line break); nothing, with the writer's
/// error, when a value cannot be written.
qx::Ref<qx::String> stringWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error = nullptr);
/// The same as stringWithPropertyList.
qx::Ref<qx::String> initWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error = nullptr);

} // namespace QXStringAdditions
