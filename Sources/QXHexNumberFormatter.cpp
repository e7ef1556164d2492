// QXHexNumberFormatter.cpp - integers as hexadecimal text.
#include <QXFoundation/QXHexNumberFormatter.h>

#include "Internal/QXCharacterSets.h"
#include "Internal/QXFoundationPrivate.h"

#include <qx/Format.h>

#include <cmath>
#include <cstdint>

namespace {

// A real as the platform's unsigned 32-bit accessor gives it: truncated
// toward zero, then wrapped; values beyond any integer and NaN are 0.
std::uint32_t realAsUInt32(double v) {
    if (!(std::fabs(v) < 9.2e18)) return 0;
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(v));
}

} // namespace

qx::Ref<QXHexNumberFormatter> QXHexNumberFormatter::create() {
    return qx::Ref<QXHexNumberFormatter>(new QXHexNumberFormatter);
}

qx::Ref<qx::String> QXHexNumberFormatter::stringForObjectValue(const qx::Ref<qx::Object>& object) const {
    const auto number = qx::dyn_cast<qx::Number>(object);
    if (!number) return nullptr;
    using Kind = qx::Number::Kind;
    const std::uint64_t bits = number->uint64Value();
    switch (number->kind()) {
    case Kind::Bool: case Kind::Int8: case Kind::UInt8:
        return qx::str(qx::format("0x%x", static_cast<unsigned>(static_cast<std::uint8_t>(bits))));
    case Kind::Int16: case Kind::UInt16:
        return qx::str(qx::format("0x%x", static_cast<unsigned>(static_cast<std::uint16_t>(bits))));
    case Kind::Int32: case Kind::UInt32:
        return qx::str(qx::format("0x%x", static_cast<unsigned>(static_cast<std::uint32_t>(bits))));
    case Kind::Int64: case Kind::UInt64:
        return qx::str(qx::format("0x%lx", static_cast<unsigned long>(bits)));
    case Kind::Float: case Kind::Double:
        return qx::str(qx::format("0x%x", static_cast<unsigned>(realAsUInt32(number->doubleValue()))));
    }
    return nullptr;
}

bool QXHexNumberFormatter::getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                                          qx::Ref<qx::String>* errorDescription) const {
    qx::Ref<qx::Number> number;
    if (string) {
        std::string_view text = string->utf8();
        bool tooShort = false;
        if (text.starts_with("0x")) {
            tooShort = string->length() < 3;
            text.remove_prefix(2);
        } else if (text.starts_with("$")) {
            tooShort = string->length() < 2;
            text.remove_prefix(1);
        }
        if (!tooShort) number = numberFromHexString(qx::String(std::string(text)));
    }
    if (!number) {
        if (errorDescription)
            *errorDescription = qx::str(qx::format(QXFLocalizedString("“%@” is not a hexadecimal number.")->utf8().c_str(),
                                                   string ? string : qx::str("")));
        return false;
    }
    if (object) *object = number;
    return true;
}

qx::Ref<qx::Number> QXHexNumberFormatter::numberFromHexString(const qx::String& string) const {
    const std::string_view text = string.utf8();
    std::uint64_t value = 0;
    bool anyDigit = false;
    std::size_t i = 0;
    while (i < text.size()) {
        const UChar32 c = QXCharacterSets::nextCodePoint(text, &i);
        if (c == '<' || c == '>' || QXCharacterSets::isWhitespaceOrNewline(c)) continue;
        if (!QXCharacterSets::isHexDigit(c)) return nullptr;
        const unsigned digit = c <= '9' ? unsigned(c - '0') : c <= 'F' ? unsigned(c - 'A' + 10) : unsigned(c - 'a' + 10);
        value = value * 16 + digit;
        if (value > UINT32_MAX) value = UINT64_C(0x100000000);  // saturated; stays above the range
        anyDigit = true;
    }
    if (!anyDigit) return nullptr;
    return qx::Number::withUInt32(value > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(value));
}
