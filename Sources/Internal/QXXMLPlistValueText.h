// QXXMLPlistValueText.h - the text forms of leaf values in XML property lists.
//
// Private to Sources/: base64 for data, local-time dates, and decimal numbers.
// The date functions read the process's time zone (call tzset first when it
// may have changed); everything else is stateless and safe from any thread.
#pragma once

#include <qx/Date.h>
#include <qx/Number.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QXXMLPlistInternal {

/// Standard base64 with "=" padding, on one line.
std::string encodeBase64(const std::uint8_t* p, std::size_t n);
/// Appends the bytes of text to out, skipping characters outside the
/// alphabet; false when what is left does not decode.
bool decodeBase64(std::string_view text, std::vector<std::uint8_t>& out);

/// "YYYY-MM-DDTHH:MM:SSZ" of the date in the local zone (the "Z" is kept
/// although the fields are local time; fractions of a second are dropped).
std::string localDateText(double sinceReferenceDate);
/// The date of such text read as local time; each field is read only after
/// its separator, missing fields take their first value.
qx::Ref<qx::Date> dateFromLocalText(std::string_view text);

/// Decimal text in the POSIX conventions, white space around it ignored:
/// digits alone make an integer (unsigned above the signed range), anything
/// else that parses a real; nothing otherwise.
qx::Ref<qx::Number> numberFromText(std::string_view text);


} // namespace QXXMLPlistInternal
