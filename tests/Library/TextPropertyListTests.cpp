// TextPropertyListTests.cpp - the old-style writer and escaping, the old-style reader that
// serves as the fallback and reads strings files, and the display texts with their parsers
// under several locales.

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXStringAdditions.h>

#include "PlistFixtures.h"
#include "ScopedLocale.h"
#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Log.h>
#include <qx/OldStylePropertyList.h>
#include <qx/String.h>
#include <qx/StringsFile.h>

using namespace qx;
using namespace qxtest;
using namespace plisttest;
using PLS = QXPropertyListSerialization;

namespace {

std::string oldStyle(const Ref<Object>& value) {
    auto data = PLS::oldStylePlistDataWithItem(value);
    return data ? toString(data) : "<failed>";
}
Ref<Array> array(std::initializer_list<Ref<Object>> items) { return std::make_shared<Array>(Array(items)); }

} // namespace

TEST(TextPropertyListWriter, LayoutAndLeaves) {
    const std::vector<std::pair<Ref<Object>, std::string>> cases = {
        {dict({{"a", Number::withInt64(1)}, {"b", str("x y")}}), "{\n    a = 1;\n    b = \"x y\";\n}"},
        {array({Number::withInt64(1), Number::withInt64(2)}), "(\n    1,\n    2\n)"},
        {Dictionary::create(), "{\n}"}, {Array::create(), "(\n)"},
        // Nested levels indent four more and start on their own line; keys keep the dictionary's order.
        {dict({{"z", array({dict({{"k", str("v")}}), Array::create()})}, {"a", Number::withBool(true)}}),
         "{\n    z = \n    (\n        \n        {\n            k = v;\n        },\n        \n        (\n        )\n    );\n    a = 1;\n}"},
        // Leaves are their descriptions, escaped; keys alike.
        {str("plain"), "plain"}, {Number::withDouble(2.5), "\"2.5\""}, {Number::withInt64(-7), "\"-7\""},
        {Number::withBool(false), "0"}, {Data::withString("\x01\xab"), "\"<01ab>\""},
        {Date::withTimeIntervalSinceReferenceDate(0), "\"2001-01-01 00:00:00 +0000\""},
        {dict({{"two words", str("")}}), "{\n    \"two words\" = \"\";\n}"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(oldStyle(value), text);
    // The string form keeps the leading line break of a container.
    EXPECT_EQ(PLS::oldStylePlistStringWithItem(Array::create())->utf8(), "\n(\n)");
    EXPECT_EQ(QXStringAdditions::stringWithPropertyList(dict({{"a", str("b")}}))->utf8(), "{\n    a = b;\n}");
    // Too deep to write is refused with the property-list error.
    Ref<Object> deep = str("x");
    for (unsigned i = 0; i <= QXBinaryPlistMaxNestingDepth; ++i) deep = array({deep});
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::oldStylePlistDataWithItem(deep, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 3840);
    EXPECT_FALSE(QXStringAdditions::stringWithPropertyList(deep));
}

TEST(TextPropertyListWriter, Escaping) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"abc123", "abc123"},          {"", "\"\""},           {"a\t\u00e9", "\"a\\t\\U00e9\""},
        {"x y", "\"x y\""},            {"1.5", "\"1.5\""},     {"a-b", "\"a-b\""},
        {"q\"b\\s", "\"q\\\"b\\\\s\""}, {"\r\n", "\"\\r\\n\""}, {"\x01\x7f", "\"\\U0001\\U007f\""},
        {"\U0001F600", "\"\\Ud83d\\Ude00\""},  // one escape per UTF-16 unit
        {"\u00e9", "\"\\U00e9\""},              // a letter, but escaped into punctuation
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(QXStringAdditions::stringByEscapingSpecialCharacters(String(in))->utf8(), out) << in;
}

TEST(TextPropertyListReader, GrammarStringsDataCommentsAndStringsFiles) {
    auto d = dyn_cast<Dictionary>(propertyListFromOldStyleData(
        "// leading comment\n{ a = (1, \"two\", <0A1b 2c>, ()); /* inner */ 'q' = {x=y;}; "
        "\"esc\" = \"\\t\\U00e9\\101\\\"\"; lone; trailing = (z,); }"));
    ASSERT_TRUE(d);
    EXPECT_TRUE(d->get<Array>("a")->isEqual(Array{str("1"), str("two"), Data::withString("\x0a\x1b\x2c"), Array::create()}));
    EXPECT_EQ(d->get<Dictionary>("q")->get<String>("x")->utf8(), "y");
    EXPECT_EQ(d->get<String>("esc")->utf8(), "\t\u00e9A\"");
    EXPECT_EQ(d->get<String>("lone")->utf8(), "lone");
    EXPECT_EQ(d->get<Array>("trailing")->count(), 1u);
    // Entries without braces are a strings file; nothing at all an empty one.
    auto strings = propertyListFromOldStyleData("\"k\" = \"v\";\nk2 = v2;");
    EXPECT_TRUE(strings && strings->isEqual(*dict({{"k", str("v")}, {"k2", str("v2")}})));
    EXPECT_TRUE(dyn_cast<Dictionary>(propertyListFromOldStyleData(" /* */ \n"))->empty());
    EXPECT_EQ(dyn_cast<String>(propertyListFromOldStyleData("  bare  "))->utf8(), "bare");
}

TEST(TextPropertyListReader, MalformedTextSaysWhereAndWhy) {
    const std::vector<std::tuple<std::string, std::size_t, std::size_t>> cases = {
        {"{a = b}", 1, 7},  // missing ';'
        {"(1, 2", 1, 1},    // unterminated: where it opened
        {"<0a1>", 1, 5},    // odd number of digits
        {"a = b; c", 1, 9}, // strings file cut short
        {"{\n  a = b;\n  c = @;\n}", 3, 7}, {"\"never closed", 1, 1}, {"<0g>", 1, 3}, {"(1 2)", 1, 4},
        {"{a = b;} extra", 1, 10}, {"(a) /* open", 1, 5}, {"\r\n\r\n(@)", 3, 2},
    };
    for (const auto& [text, line, column] : cases) {
        OldStyleParseFailure failure;
        EXPECT_FALSE(propertyListFromOldStyleData(text, &failure)) << text;
        EXPECT_FALSE(failure.reason.empty()) << text;
        EXPECT_EQ(std::make_pair(failure.line, failure.column), std::make_pair(line, column)) << text << ": " << failure.reason;
    }
    // Through the general reader: 3840, and the position in the log and the text.
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::propertyListWithData(Data::withString("{\n  a = b;\n  c = @;\n}"), nullptr, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 3840);
    EXPECT_NE(error->localizedDescription().find("line 3, column 7"), std::string::npos);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_NE(logs.lines()[0].find("line 3, column 7"), std::string::npos);
}

TEST(TextPropertyListReader, DepthTruncationAndDamageAreBounded) {
    EXPECT_TRUE(propertyListFromOldStyleData(std::string(kOldStyleMaxNestingDepth, '(') + std::string(kOldStyleMaxNestingDepth, ')')));
    OldStyleParseFailure failure;
    EXPECT_FALSE(propertyListFromOldStyleData(std::string(kOldStyleMaxNestingDepth + 1, '('), &failure));
    EXPECT_NE(failure.reason.find("deeper"), std::string::npos);
    std::string text = oldStyle(dict({{"a", array({str("x y"), Data::withString("\x01")})}, {"b\u00e9", dict({{"c", str("\"q\"")}})}}));
    for (std::size_t n = 0; n < text.size(); ++n) {
        propertyListFromOldStyleData(text.substr(0, n));
        dictionaryFromStringsFileData(text.substr(0, n));
    }
    for (std::size_t i = 0; i < text.size(); i += 3) text[i] = "{}()<>;=\"\\/*,"[i % 13];
    propertyListFromOldStyleData(text);
    dictionaryFromStringsFileData(text);
}

// --- Display texts and their parsers ----------------------------------------------------------

TEST(TextPropertyListDisplay, TextsOfEachKind) {
    ScopedLocale english("en_US");
    const auto text = [](const Ref<Object>& v) { return PLS::stringRepresentationOfPropertyList(v)->utf8(); };
    for (const auto& [value, expected] : std::vector<std::pair<Ref<Object>, std::string>>{
             {str("s"), "s"}, {Number::withBool(true), "Yes"}, {Number::withBool(false), "No"},
             {Number::withInt64(1234567), "1234567"}, {Number::withDouble(2.5), "2.5"},
             {Data::withString("caf\xc3\xa9"), "caf\u00e9"},
             {Data::withString("caf\xe9"), "caf\u00e9"}})  // not UTF-8: one character per byte
        EXPECT_EQ(text(value), expected);
    EXPECT_EQ(text(array({str("x")})), toString(PLS::xmlDataWithPropertyList(array({str("x")}))));
    EXPECT_EQ(PLS::stringRepresentationOfItems(array({str("only")}))->utf8(), "only");
    EXPECT_EQ(PLS::stringRepresentationOfItems(array({str("a"), str("b")}))->utf8(), text(array({str("a"), str("b")})));
    ScopedLocale german("de_DE");
    EXPECT_EQ(text(Number::withDouble(2.5)), "2,5");
}

TEST(TextPropertyListDisplay, DatesFollowTheLocaleAndZoneAndParseBack) {
    ScopedTimeZone tokyo("Asia/Tokyo");
    const auto date = Date::withTimeIntervalSinceReferenceDate(3600 * 24 * 365.0);  // 2002-01-01 00:00 UTC
    for (const char* locale : {"en_US", "de_DE", "sv_SE", "ja_JP"}) {
        ScopedLocale scoped(locale);
        const std::string text = PLS::stringRepresentationOfPropertyList(date)->utf8();
        EXPECT_NE(text.find("9"), std::string::npos) << locale << ": " << text << " (09:00 in Tokyo)";
        EXPECT_NE(text.find("2002"), std::string::npos) << locale << ": " << text;
        EXPECT_EQ(PLS::dateWithStringValue(String(text))->timeIntervalSinceReferenceDate(), 3600 * 24 * 365.0) << text;
    }
    // Text that is no date gives the current date and time.
    const double before = Date::now()->timeIntervalSinceReferenceDate();
    EXPECT_GE(PLS::dateWithStringValue(String("not a date"))->timeIntervalSinceReferenceDate(), before);
}

TEST(TextPropertyListDisplay, NumberBooleanDataAndTypedTextParsers) {
    ScopedLocale english("en_US");
    const auto number = [](const char* s) { return PLS::numberWithStringValue(String(s)); };
    for (const auto& [text, value, real] : std::vector<std::tuple<const char*, double, bool>>{
             {"1,234", 1234, false}, {"3.5", 3.5, true}, {"abc", 0, false}, {"yes", 1, false},
             {"no", 0, false}, {"  -42 apples", -42, false}}) {
        EXPECT_EQ(number(text)->doubleValue(), value) << text;
        EXPECT_EQ(number(text)->isReal(), real) << text;
    }
    EXPECT_EQ(number("99999999999999999999")->int64Value(), INT64_MAX);
    for (const char* t : {"yes", "YES", "1", "00", "true", "anything"}) EXPECT_TRUE(PLS::booleanWithStringValue(String(t))->boolValue()) << t;
    for (const char* f : {"no", "No", "", "0", "0 apples"}) EXPECT_FALSE(PLS::booleanWithStringValue(String(f))->boolValue()) << f;
    const auto hex = [](const char* s) { return toString(PLS::dataWithStringValue(String(s))); };
    EXPECT_EQ(hex("<0a1b 2c>"), "\x0a\x1b\x2c");
    EXPECT_EQ(hex("0xABC"), "\xab\xc0");
    EXPECT_EQ(hex("12 0x34"), std::string("\x12\x00\x34", 3));  // an inner 0x is 00
    EXPECT_EQ(hex("\u00e9f"), "\x0f");                           // one character, one digit
    EXPECT_EQ(PLS::stringWithStringValue(String("t"))->utf8(), "t");
    const auto item = [](const char* s) { return PLS::itemWithStringRepresentation(String(s)); };
    EXPECT_TRUE(item("1,234")->isEqual(*Number::withInt64(1234)));
    EXPECT_TRUE(item("(1, 2)")->isEqual(Array{str("1"), str("2")}));
    EXPECT_TRUE(item("{a = b;}")->isEqual(*dict({{"a", str("b")}})));
    EXPECT_TRUE(item("<?xml version=\"1.0\"?><plist version=\"1.0\"><true/></plist>")->isEqual(*Number::withBool(true)));
    EXPECT_TRUE(item("hello world")->isEqual(*str("hello world")));  // not a property list: the text
    EXPECT_TRUE(item("-5")->isEqual(*str("-5")));                    // a sign is not among the number characters
    ScopedLocale german("de_DE");
    EXPECT_EQ(number("1.234")->int64Value(), 1234);
    EXPECT_EQ(number("3,5")->doubleValue(), 3.5);
    EXPECT_EQ(dyn_cast<Number>(item("1.234,5"))->doubleValue(), 1234.5);
}
