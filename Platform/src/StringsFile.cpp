// StringsFile.cpp - strings files: their text encodings; the entries are read by the old-style reader.
#include <qx/StringsFile.h>

#include <qx/OldStylePropertyList.h>

#include <climits>
#include <cstdint>

namespace qx {

namespace {

std::u16string fromUTF16(std::string_view bytes, bool bigEndian) {
    std::u16string out(bytes.size() / 2, u'\0');
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    for (std::size_t i = 0; i < out.size(); ++i) {
        const unsigned hi = b[2 * i + (bigEndian ? 0 : 1)];
        const unsigned lo = b[2 * i + (bigEndian ? 1 : 0)];
        out[i] = static_cast<char16_t>((hi << 8) | lo);
    }
    return out;
}

std::u16string fromUTF8(std::string_view bytes) { return String(std::string(bytes)).utf16(); }

} // namespace

std::u16string decodeStringsFileText(std::string_view bytes) {
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    if (bytes.size() >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) return fromUTF8(bytes.substr(3));
    if (bytes.size() >= 2 && b[0] == 0xFF && b[1] == 0xFE) return fromUTF16(bytes.substr(2), false);
    if (bytes.size() >= 2 && b[0] == 0xFE && b[1] == 0xFF) return fromUTF16(bytes.substr(2), true);
    // No mark: text in UTF-16 has zero high bytes on ASCII characters, which
    // UTF-8 text never has; their side gives the byte order.
    std::size_t zeroEven = 0, zeroOdd = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        if (b[i] == 0) ++(i % 2 ? zeroOdd : zeroEven);
    if (bytes.size() % 2 == 0 && zeroEven + zeroOdd > 0) return fromUTF16(bytes, zeroEven > zeroOdd);
    return fromUTF8(bytes);
}

Ref<Dictionary> dictionaryFromStringsFileData(std::string_view bytes) {
    const std::u16string text = decodeStringsFileText(bytes);
    return dictionaryFromStringsFileText(text);
}

} // namespace qx
