// StringEncoding.h - the platform's text-encoding numbers and conversions through ICU.
//
// Encodings are identified by the platform's numbers (NSUTF8StringEncoding = 4,
// NSMacOSRomanStringEncoding = 30, ...), because callers store and exchange
// them. Each number the platform knows and ICU can convert is in the table of
// this unit; any other number converts nothing.
//
// Conversions are strict unless asked otherwise: bytes that are not valid in
// the encoding, or characters it cannot represent, make the conversion fail
// rather than silently change the text. They stream through ICU in pieces, so
// there is no limit on the length beyond memory.
//
// Thread-safe; converters are opened per call.
#pragma once

#include <qx/Data.h>
#include <qx/String.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qx {

using StringEncoding = std::uint64_t;

inline constexpr StringEncoding NSASCIIStringEncoding = 1;
inline constexpr StringEncoding NSNEXTSTEPStringEncoding = 2;
inline constexpr StringEncoding NSJapaneseEUCStringEncoding = 3;
inline constexpr StringEncoding NSUTF8StringEncoding = 4;
inline constexpr StringEncoding NSISOLatin1StringEncoding = 5;
inline constexpr StringEncoding NSShiftJISStringEncoding = 8;
inline constexpr StringEncoding NSISOLatin2StringEncoding = 9;
inline constexpr StringEncoding NSUnicodeStringEncoding = 10;  // UTF-16, byte-order mark honoured (big endian without)
inline constexpr StringEncoding NSWindowsCP1251StringEncoding = 11;
inline constexpr StringEncoding NSWindowsCP1252StringEncoding = 12;
inline constexpr StringEncoding NSWindowsCP1253StringEncoding = 13;
inline constexpr StringEncoding NSWindowsCP1254StringEncoding = 14;
inline constexpr StringEncoding NSWindowsCP1250StringEncoding = 15;
inline constexpr StringEncoding NSISO2022JPStringEncoding = 21;
inline constexpr StringEncoding NSMacOSRomanStringEncoding = 30;
inline constexpr StringEncoding NSUTF16BigEndianStringEncoding = 0x90000100;
inline constexpr StringEncoding NSUTF16LittleEndianStringEncoding = 0x94000100;
inline constexpr StringEncoding NSUTF32StringEncoding = 0x8c000100;
inline constexpr StringEncoding NSUTF32BigEndianStringEncoding = 0x98000100;
inline constexpr StringEncoding NSUTF32LittleEndianStringEncoding = 0x9c000100;

/// The encoding the platform assumes for C strings of unknown origin. It is
/// Mac OS Roman, as on the platform the library is written for: every byte
/// sequence decodes in it, so a last-resort decode never fails.
StringEncoding defaultCStringEncoding();

/// ICU's converter name for an encoding, or nothing (empty) when unknown.
std::string_view converterNameForEncoding(StringEncoding encoding);
/// The encoding of a converter or charset name as ICU or a charset detector
/// reports it ("UTF-8", "windows-1252", "Shift_JIS", ...), or 0 when none of
/// the table's encodings has that name.
StringEncoding encodingForCharsetName(std::string_view name);

/// Decodes bytes; nothing when the encoding is unknown or a byte sequence is
/// not valid in it. Nothing decodes to the empty string.
Ref<String> stringWithBytes(const void* bytes, std::size_t length, StringEncoding encoding);
/// Encodes text; nothing when the encoding is unknown or, unless lossy, a
/// character has no representation in it (lossy: such characters become "?").
Ref<Data> dataUsingEncoding(const String& text, StringEncoding encoding, bool allowLossyConversion = false);

/// Guesses the encoding of a file's bytes: a byte-order mark, else valid
/// UTF-8, else a charset detector's confident answer; the answer always
/// decodes all the bytes. 0 when there is no trustworthy answer (also for a
/// byte-order mark followed by bytes that do not decode). Empty input is UTF-8.
StringEncoding detectEncoding(const void* bytes, std::size_t length);

} // namespace qx
