// QXHexFormatter.cpp - hexadecimal dumps of byte buffers.
#include <QXFoundation/QXHexFormatter.h>

#include "Internal/QXCharacterSets.h"

#include <qx/StringEncoding.h>

#include <array>
#include <string>

namespace {

// The UTF-8 text of each byte as a Mac OS Roman character (the platform's
// 8-bit default encoding, in which every byte is a character).
const std::array<std::string, 256>& macRomanCharacters() {
    static const std::array<std::string, 256> table = [] {
        std::array<std::string, 256> t;
        for (unsigned b = 0; b < 256; ++b) {
            const unsigned char byte = static_cast<unsigned char>(b);
            auto text = qx::stringWithBytes(&byte, 1, qx::NSMacOSRomanStringEncoding);
            t[b] = text ? text->utf8() : std::string(".");
        }
        return t;
    }();
    return table;
}

bool isDumpCharacter(UChar32 c, bool allowNewlines) {
    return QXCharacterSets::isHexDigit(c) || c == '<' || c == '>' || QXCharacterSets::isWhitespace(c) ||
           (allowNewlines && QXCharacterSets::isNewline(c));
}

// True when every character of text is a hexadecimal digit, "<", ">", white
// space or (when allowed) a line break.
bool holdsOnlyDumpCharacters(std::string_view text, bool allowNewlines) {
    std::size_t i = 0;
    while (i < text.size())
        if (!isDumpCharacter(QXCharacterSets::nextCodePoint(text, &i), allowNewlines)) return false;
    return true;
}

int hexDigitValue(UChar32 c) {
    if (c <= '9') return c - '0';
    if (c <= 'F') return c - 'A' + 10;
    return c - 'a' + 10;
}

} // namespace

qx::Ref<QXHexFormatter> QXHexFormatter::formatter() { return qx::Ref<QXHexFormatter>(new QXHexFormatter); }

bool QXHexFormatter::isAsciiCharLegal(std::uint8_t byte) const {
    return (byte >= 32 && byte <= 126) || (byte >= 128 && byte <= 160) || (byte >= 162 && byte <= 201) ||
           (byte >= 203 && byte <= 254);
}

qx::Ref<qx::String> QXHexFormatter::hexStringForData(const qx::Ref<qx::Data>& data, qx::Ref<qx::String>* asciiString) const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const std::size_t length = data ? data->length() : 0;
    std::string hex(length * 3, ' ');
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint8_t b = data->bytes()[i];
        hex[3 * i] = kDigits[b >> 4];
        hex[3 * i + 1] = kDigits[b & 15];
    }
    if (asciiString) {
        const auto& characters = macRomanCharacters();
        std::string text;
        text.reserve(length);
        for (std::size_t i = 0; i < length; ++i) {
            const std::uint8_t b = data->bytes()[i];
            text += isAsciiCharLegal(b) ? characters[b] : std::string(".");
        }
        *asciiString = std::make_shared<qx::String>(std::move(text));
    }
    return std::make_shared<qx::String>(std::move(hex));
}

qx::Ref<qx::Data> QXHexFormatter::dataFromHexString(const qx::String& string) const {
    const std::string_view text = string.utf8();
    auto data = qx::Data::create();
    data->reserve(text.size() / 2);
    int pending = -1;  // the high digit of a byte not yet complete
    std::size_t i = 0;
    while (i < text.size()) {
        const UChar32 c = QXCharacterSets::nextCodePoint(text, &i);
        if (c == '<' || c == '>' || QXCharacterSets::isWhitespaceOrNewline(c)) continue;
        if (!QXCharacterSets::isHexDigit(c)) return nullptr;
        if (pending < 0) {
            pending = hexDigitValue(c);
        } else {
            data->appendByte(static_cast<std::uint8_t>((pending << 4) | hexDigitValue(c)));
            pending = -1;
        }
    }
    if (pending >= 0) data->appendByte(static_cast<std::uint8_t>(pending));
    return data;
}

qx::Ref<qx::String> QXHexFormatter::stringForObjectValue(const qx::Ref<qx::Object>& object) const {
    qx::Ref<qx::Data> data = qx::dyn_cast<qx::Data>(object);
    if (auto string = qx::dyn_cast<qx::String>(object)) {
        if (holdsOnlyDumpCharacters(string->utf8(), false)) data = dataFromHexString(*string);
        else data = qx::dataUsingEncoding(*string, qx::NSMacOSRomanStringEncoding, true);
    }
    if (!data) return nullptr;
    return hexStringForData(data);
}

bool QXHexFormatter::getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                                    qx::Ref<qx::String>*) const {
    qx::Ref<qx::Data> data = string ? dataFromHexString(*string) : nullptr;
    if (object) *object = data ? data : qx::Data::create();
    return true;
}

bool QXHexFormatter::isPartialStringValid(qx::Ref<qx::String>* partialString, qx::Range*, const qx::Ref<qx::String>&,
                                          qx::Range, qx::Ref<qx::String>*) const {
    return partialString && *partialString && holdsOnlyDumpCharacters((*partialString)->utf8(), true);
}
