// StringAdditionsFuzzer.cpp - libFuzzer target for the string additions, the
// text encodings under them and the formatters' readers.
//
// The input is taken as text (UTF-8 or not) and as raw bytes. Besides not
// crashing, what is checked is what must hold for any input: hexadecimal
// dumps read back to their bytes, HTML encoding leaves only safe ASCII,
// Pascal strings carry the documented length byte, a detected encoding decodes.
#include <QXFoundation/QXFileSizeFormatter.h>
#include <QXFoundation/QXHexFormatter.h>
#include <QXFoundation/QXHexNumberFormatter.h>
#include <QXFoundation/QXStringAdditions.h>

#include <qx/StringEncoding.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace SA = QXStringAdditions;

namespace {

bool sameBytes(const qx::Ref<qx::Data>& a, const qx::Ref<qx::Data>& b) { return a && b && a->view() == b->view(); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view raw(reinterpret_cast<const char*>(bytes), size);
    const qx::String text{std::string(raw)};

    (void)SA::unsignedLongLongHexValue(text);
    (void)SA::unsignedLongLongValue(text);
    (void)SA::isURLString(text);
    (void)SA::localizedCaseInsensitiveNumericCompare(text, qx::String("file10"));
    std::int64_t major = 0, minor = 0, bugfix = 0;
    (void)SA::parseVersionStringAndReturnMajorVersion(text, &major, &minor, &bugfix);
    fuzz::require(SA::stringByEscapingRegexCharacters(text)->utf8().size() >= size);

    const auto html = SA::stringByEncodingForHTML(text);
    for (unsigned char c : html->utf8())
        fuzz::require(c >= 0x20 ? c < 0x7F : (c == '\r' || c == '\n'));

    if (auto pascal = SA::pascalString(text)) {
        fuzz::require(pascal->length() >= 1);
        fuzz::require(pascal->bytes()[0] == (pascal->length() - 1 > 255 ? 255 : pascal->length() - 1));
        fuzz::require(SA::stringWithPascalString(pascal->bytes()) != nullptr);
    }
    (void)SA::fourCharCode(text);
    if (size >= 4) {
        std::uint32_t code;
        std::memcpy(&code, bytes, 4);
        if (code) fuzz::require(SA::fourCharCode(*SA::stringWithFourCharCode(code)) == code);
    }

    for (qx::StringEncoding encoding : {qx::NSUTF8StringEncoding, qx::NSMacOSRomanStringEncoding, qx::NSUnicodeStringEncoding,
                                        qx::NSShiftJISStringEncoding, qx::NSISO2022JPStringEncoding})
        fuzz::require(SA::initWithCString(bytes, size, encoding) != nullptr);
    if (const qx::StringEncoding detected = qx::detectEncoding(bytes, size))
        fuzz::require(qx::stringWithBytes(bytes, size, detected) != nullptr);

    const auto hex = QXHexFormatter::formatter();
    qx::Ref<qx::String> column;
    const auto data = qx::Data::withBytes(bytes, size);
    fuzz::require(sameBytes(hex->dataFromHexString(*hex->hexStringForData(data, &column)), data));
    if (auto parsed = hex->dataFromHexString(text))
        fuzz::require(sameBytes(hex->dataFromHexString(*hex->hexStringForData(parsed)), parsed));
    (void)hex->stringForObjectValue(qx::str(raw));

    qx::Ref<qx::Object> value;
    (void)QXFileSizeFormatter::create()->getObjectValue(&value, qx::str(raw));
    (void)QXHexNumberFormatter::create()->getObjectValue(&value, qx::str(raw));
    return 0;
}
