// FormatterTests.cpp - QXFileSizeFormatter, QXHexNumberFormatter, QXHexFormatter.

#include "ScopedLocale.h"
#include "TestSupport.h"

#include <QXFoundation/QXFileSizeFormatter.h>
#include <QXFoundation/QXHexFormatter.h>
#include <QXFoundation/QXHexNumberFormatter.h>

#include <qx/Number.h>

using qx::str;

namespace {

// The value a formatter reads from text, as an int64, or nothing on failure
// (when it must also say why and leave the result alone).
std::optional<std::int64_t> readInt(const qx::Formatter& formatter, const std::string& text) {
    qx::Ref<qx::Object> value = str("untouched");
    qx::Ref<qx::String> why;
    if (!formatter.getObjectValue(&value, str(text), &why)) {
        EXPECT_TRUE(why && !why->empty()) << text;
        EXPECT_EQ(value->description(), "untouched") << text;
        return std::nullopt;
    }
    auto number = qx::dyn_cast<qx::Number>(value);
    EXPECT_TRUE(number) << text;
    return number ? std::optional<std::int64_t>(number->int64Value()) : std::nullopt;
}

std::string bytesOf(const qx::Ref<qx::Data>& data) { return data ? std::string(data->view()) : "<nothing>"; }

} // namespace

TEST(FileSizeFormatter, ReadsUnitsOfBothFamilies) {
    ScopedLocale scoped("en_US");
    const auto f = QXFileSizeFormatter::create();
    const std::vector<std::pair<std::string, std::optional<std::int64_t>>> cases = {
        {"2 MB", 2000000},       {"2 megabytes", 2000000}, {"2 bananas", 2},        {"MB", std::nullopt},
        {".", std::nullopt},     {"1.5 kb", 1500},         {"3ko", 3000},           {"1 KIBIBYTE", 1024},
        {"  \n2\tGiB", 2147483648}, {"1.0e3 bytes", 1000}, {"0.5", 1},            {"-1 KiB", -1024},
        {"1 Pio", 1LL << 50},    {"4 exbibytes", 1LL << 62}, {"1 YB", std::nullopt}, {"9 eib", std::nullopt},
        {"1e400", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(readInt(*f, text), expected) << text;
}

TEST(FileSizeFormatter, ShowsAndReadsWithTheLocaleDecimalSeparator) {
    const auto f = QXFileSizeFormatter::create();
    for (const auto& [locale, shown, commaRead] : {std::tuple{"en_US", "1.5 KiB", 1}, {"de_DE", "1,5 KiB", 1536}}) {
        ScopedLocale scoped(locale);  // shown as the string additions show it
        EXPECT_EQ(f->stringForObjectValue(qx::Number::withInt32(1536))->utf8(), shown);
        EXPECT_EQ(readInt(*f, "1,5 KiB"), commaRead) << locale;
        EXPECT_EQ(readInt(*f, "1.5 KiB"), 1536) << locale;
    }
    qx::Ref<qx::Object> value;
    EXPECT_FALSE(f->stringForObjectValue(str("12")) || f->stringForObjectValue(nullptr) || f->getObjectValue(&value, nullptr));
}

TEST(HexNumberFormatter, ShowsEachStoredWidth) {
    const auto f = QXHexNumberFormatter::create();
    using N = qx::Number;
    const std::vector<std::pair<qx::Ref<N>, std::string>> cases = {
        {N::withInt16(-1), "0xffff"},  {N::withInt8(-1), "0xff"},        {N::withBool(true), "0x1"},
        {N::withInt32(-1), "0xffffffff"}, {N::withInt64(-1), "0xffffffffffffffff"}, {N::withDouble(255.9), "0xff"},
        {N::withDouble(8589934593.0), "0x1"},  {N::withFloat(-1.0f), "0xffffffff"}, {N::withDouble(std::nan("")), "0x0"},
    };  // doubles wrap to 32 bits
    for (const auto& [number, text] : cases) EXPECT_EQ(f->stringForObjectValue(number)->utf8(), text) << number->description();
    EXPECT_FALSE(f->stringForObjectValue(str("0xff")));
}

TEST(HexNumberFormatter, ReadsPrefixesAndSaturates) {
    const auto f = QXHexNumberFormatter::create();
    const std::vector<std::pair<std::string, std::optional<std::int64_t>>> cases = {
        {"$FF", 255},          {"0xff", 255},         {"ff", 255},           {"<0a 0b>", 0x0a0b},
        {"0x", std::nullopt},  {"$", std::nullopt},   {"xyz", std::nullopt}, {"", std::nullopt},
        {"0x0x1", std::nullopt}, {"0X1", std::nullopt}, {"< >", std::nullopt}, {"ffffffffff", 0xffffffff},
        {"0x 1", 1},          {"\u00e9", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(readInt(*f, text), expected) << text;
    qx::Ref<qx::Object> value;
    ASSERT_TRUE(f->getObjectValue(&value, str("$10")));
    EXPECT_EQ(qx::dyn_cast<qx::Number>(value)->kind(), qx::Number::Kind::UInt32);
}

TEST(HexFormatter, DumpsBytesWithTheirTextColumn) {
    // Control bytes, DEL, and Mac OS Roman's 0xA1, 0xCA and 0xFF show as ".".
    const auto f = QXHexFormatter::formatter();
    qx::Ref<qx::String> text;
    EXPECT_EQ(f->hexStringForData(qx::Data::withString(std::string("A\0", 2)), &text)->utf8(), "41 00 ");
    EXPECT_EQ(text->utf8(), "A.");
    EXPECT_EQ(f->hexStringForData(qx::Data::withString("\x80\xa1\xca\xff\xa5\x7f\x1f "), &text)->utf8(),
              "80 A1 CA FF A5 7F 1F 20 ");
    EXPECT_EQ(text->utf8(), "\u00c4...\u2022.. ");
    EXPECT_EQ(f->hexStringForData(nullptr, &text)->utf8(), "");
    EXPECT_EQ(text->utf8(), "");
    EXPECT_EQ(f->hexStringForData(qx::Data::create())->utf8(), "");
}

TEST(HexFormatter, ReadsHexTextIntoBytes) {
    const auto f = QXHexFormatter::formatter();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ABC", "\xab\x0c"}, {"<0a 0b>", "\x0a\x0b"}, {"G1", "<nothing>"}, {"", ""},
        {"de\nad\tbe\u3000ef", "\xde\xad\xbe\xef"}, {"0x12", "<nothing>"}, {"F", "\x0f"}, {"<>", ""},
    };
    for (const auto& [hex, bytes] : cases) EXPECT_EQ(bytesOf(f->dataFromHexString(qx::String(hex))), bytes) << hex;

    // Every byte survives a dump and a read, as data or as an object value.
    std::string bytes;
    for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
    const auto dump = f->hexStringForData(qx::Data::withString(bytes));
    qx::Ref<qx::Object> value;
    ASSERT_TRUE(f->getObjectValue(&value, dump));
    EXPECT_EQ(bytesOf(f->dataFromHexString(*dump)) + "|" + bytesOf(qx::dyn_cast<qx::Data>(value)), bytes + "|" + bytes);
}

TEST(HexFormatter, ObjectValuesAndEditing) {
    const auto f = QXHexFormatter::formatter();
    // Text that is not hexadecimal (a line break makes it text) shows its Mac OS Roman bytes, "?" without one.
    const std::vector<std::pair<qx::Ref<qx::Object>, std::string>> shown = {
        {qx::Data::withString("\x01\xfe"), "01 FE "}, {str("ab c"), "AB 0C "}, {str("hello"), "68 65 6C 6C 6F "},
        {str("ab\ncd"), "61 62 0A 63 64 "}, {str("\u00e9\u65e5"), "8E 3F "},
    };
    for (const auto& [object, text] : shown) EXPECT_EQ(f->stringForObjectValue(object)->utf8(), text) << object->description();
    EXPECT_FALSE(f->stringForObjectValue(qx::Number::withInt32(1)));

    qx::Ref<qx::Object> value;
    EXPECT_TRUE(f->getObjectValue(&value, str("zz")));
    EXPECT_EQ(bytesOf(qx::dyn_cast<qx::Data>(value)), "");

    qx::Range selection{1, 0};
    for (const auto& [text, valid] : std::vector<std::pair<std::string, bool>>{
             {"<ab cd>\n", true}, {"", true}, {"abx", false}, {"\u00e9", false}}) {
        auto partial = str(text);
        EXPECT_EQ(f->isPartialStringValid(&partial, &selection, str(""), {0, 0}), valid) << text;
    }

    auto attributes = qx::Dictionary::create();
    attributes->setObject(str("Menlo"), "font");
    auto attributed = f->attributedStringForObjectValue(qx::Data::withString("A"), attributes);
    EXPECT_TRUE(attributed && attributed->string()->utf8() == "41 " && attributed->attributes()->isEqual(*attributes));
    EXPECT_FALSE(f->attributedStringForObjectValue(qx::Number::withInt32(1), attributes));
}
