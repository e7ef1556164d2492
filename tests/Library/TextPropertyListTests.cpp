// TextPropertyListTests.cpp - the old-style writer and escaping, the old-style reader that
// serves as the fallback and reads strings files, and the display texts with their parsers
// under several locales.
#include <gtest/gtest.h>

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXStringAdditions.h>

#include "PlistFixtures.h"
#include "ScopedLocale.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/OldStylePropertyList.h>
#include <qx/String.h>
#include <qx/StringsFile.h>

#include <cmath>
#include <cstdlib>

#include <unistd.h>

using namespace qx;
using namespace plisttest;
using PLS = QXPropertyListSerialization;

namespace {

std::string oldStyle(const Ref<Object>& value) {
    auto data = PLS::oldStylePlistDataWithItem(value);
    return data ? std::string(data->view()) : "<failed>";
}
std::string escape(const std::string& s) { return QXStringAdditions::stringByEscapingSpecialCharacters(String(s))->utf8(); }

Ref<Dictionary> dict(std::initializer_list<std::pair<const char*, Ref<Object>>> entries) {
    auto d = Dictionary::create();
    for (const auto& [k, v] : entries) d->setObject(v, k);
    return d;
}

// The value the text form keeps of a value: leaves become their description
// strings (numbers, booleans as 1 and 0, dates, data, UIDs).
Ref<Object> asText(const Ref<Object>& value) {
    if (auto d = dyn_cast<Dictionary>(value)) {
        auto out = Dictionary::create();
        for (const auto& [k, v] : *d) out->setObject(asText(v), k);
        return out;
    }
    if (auto a = dyn_cast<Array>(value)) {
        auto out = Array::create();
        for (const auto& v : *a) out->addObject(asText(v));
        return out;
    }
    if (auto s = dyn_cast<String>(value)) return s;
    return str(value->description());
}

Ref<Object> readText(const std::string& text, OldStyleParseFailure* failure = nullptr) {
    return propertyListFromOldStyleData(text, failure);
}

} // namespace

// --- Writing ---------------------------------------------------------------------------

TEST(TextPropertyListWriter, LayoutOfContainers) {
    EXPECT_EQ(oldStyle(dict({{"a", Number::withInt64(1)}, {"b", str("x y")}})), "{\n    a = 1;\n    b = \"x y\";\n}");
    EXPECT_EQ(oldStyle(std::make_shared<Array>(Array{Number::withInt64(1), Number::withInt64(2)})), "(\n    1,\n    2\n)");
    EXPECT_EQ(oldStyle(Dictionary::create()), "{\n}");
    EXPECT_EQ(oldStyle(Array::create()), "(\n)");
    // The string form keeps the leading line break of a container; leaves have none.
    EXPECT_EQ(PLS::oldStylePlistStringWithItem(Array::create())->utf8(), "\n(\n)");
    EXPECT_EQ(oldStyle(str("plain")), "plain");
    // Nested levels indent four more; a nested container starts on its own line.
    // Keys keep the dictionary's own order.
    auto nested = dict({{"z", std::make_shared<Array>(Array{dict({{"k", str("v")}}), Array::create()})},
                        {"a", Number::withBool(true)}});
    EXPECT_EQ(oldStyle(nested),
              "{\n    z = \n    (\n        \n        {\n            k = v;\n        },\n        \n        (\n        )\n"
              "    );\n    a = 1;\n}");
}

TEST(TextPropertyListWriter, LeavesAreTheirDescriptionsEscaped) {
    EXPECT_EQ(oldStyle(Number::withDouble(2.5)), "\"2.5\"");
    EXPECT_EQ(oldStyle(Number::withInt64(-7)), "\"-7\"");
    EXPECT_EQ(oldStyle(Number::withBool(false)), "0");
    EXPECT_EQ(oldStyle(Data::withString("\x01\xab")), "\"<01ab>\"");
    EXPECT_EQ(oldStyle(Date::withTimeIntervalSinceReferenceDate(0)), "\"2001-01-01 00:00:00 +0000\"");
    // Keys are escaped like values.
    EXPECT_EQ(oldStyle(dict({{"two words", str("")}})), "{\n    \"two words\" = \"\";\n}");
    // Too deep to write is refused with the property-list error.
    Ref<Object> deep = str("x");
    for (unsigned i = 0; i <= QXBinaryPlistMaxNestingDepth; ++i) deep = std::make_shared<Array>(Array{deep});
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::oldStylePlistDataWithItem(deep, &error));
    EXPECT_TRUE(error && error->code() == 3840);
    EXPECT_FALSE(QXStringAdditions::stringWithPropertyList(deep));
    EXPECT_EQ(QXStringAdditions::stringWithPropertyList(dict({{"a", str("b")}}))->utf8(), "{\n    a = b;\n}");
}

TEST(TextPropertyListWriter, Escaping) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"abc123", "abc123"},
        {"", "\"\""},
        {"a\t\u00e9", "\"a\\t\\U00e9\""},
        {"x y", "\"x y\""},
        {"1.5", "\"1.5\""},
        {"a-b", "\"a-b\""},
        {"q\"b\\s", "\"q\\\"b\\\\s\""},
        {"\r\n", "\"\\r\\n\""},
        {"\x01\x7f", "\"\\U0001\\U007f\""},
        {"\U0001F600", "\"\\Ud83d\\Ude00\""},  // one escape per UTF-16 unit
        {"\u00e9", "\"\\U00e9\""},              // a letter, but escaped into punctuation
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(escape(in), out) << in;
}

// --- Reading ----------------------------------------------------------------------------

TEST(TextPropertyListReader, GrammarStringsDataCommentsAndStringsFiles) {
    auto value = readText("// leading comment\n{ a = (1, \"two\", <0A1b 2c>, ()); /* inner */ 'q' = {x=y;}; "
                          "\"esc\" = \"\\t\\U00e9\\101\\\"\"; lone; trailing = (z,); }");
    auto d = dyn_cast<Dictionary>(value);
    ASSERT_TRUE(d);
    auto a = d->get<Array>("a");
    ASSERT_TRUE(a);
    ASSERT_EQ(a->count(), 4u);
    EXPECT_EQ(dyn_cast<String>((*a)[0])->utf8(), "1");
    EXPECT_EQ(std::string(dyn_cast<Data>((*a)[2])->view()), "\x0a\x1b\x2c");
    EXPECT_TRUE(dyn_cast<Array>((*a)[3])->empty());
    EXPECT_EQ(d->get<Dictionary>("q")->get<String>("x")->utf8(), "y");
    EXPECT_EQ(d->get<String>("esc")->utf8(), "\t\u00e9A\"");
    EXPECT_EQ(d->get<String>("lone")->utf8(), "lone");
    EXPECT_EQ(d->get<Array>("trailing")->count(), 1u);

    // Entries without braces are a strings file; nothing at all an empty one.
    auto strings = dyn_cast<Dictionary>(readText("\"k\" = \"v\";\nk2 = v2;"));
    ASSERT_TRUE(strings);
    EXPECT_EQ(strings->count(), 2u);
    EXPECT_EQ(strings->get<String>("k2")->utf8(), "v2");
    EXPECT_TRUE(dyn_cast<Dictionary>(readText(" /* */ \n"))->empty());
    EXPECT_EQ(dyn_cast<String>(readText("  bare  "))->utf8(), "bare");
}

TEST(TextPropertyListReader, MalformedTextSaysWhereAndWhy) {
    struct Case {
        std::string text;
        std::size_t line, column;
    };
    const std::vector<Case> cases = {
        {"{a = b}", 1, 7},               // missing ';'
        {"(1, 2", 1, 1},                 // unterminated: where it opened
        {"{\n  a = b;\n  c = @;\n}", 3, 7},
        {"\"never closed", 1, 1},
        {"<0a1>", 1, 5},                 // odd number of digits
        {"<0g>", 1, 3},
        {"(1 2)", 1, 4},
        {"{a = b;} extra", 1, 10},
        {"a = b; c", 1, 9},              // strings file cut short
        {"(a) /* open", 1, 5},
        {"\r\n\r\n(@)", 3, 2},
    };
    for (const auto& c : cases) {
        OldStyleParseFailure failure;
        EXPECT_FALSE(readText(c.text, &failure)) << c.text;
        EXPECT_FALSE(failure.reason.empty()) << c.text;
        EXPECT_EQ(failure.line, c.line) << c.text << ": " << failure.reason;
        EXPECT_EQ(failure.column, c.column) << c.text << ": " << failure.reason;
    }
    // Through the general reader: 3840, and the position in the log and the text.
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::propertyListWithData(Data::withString("{\n  a = b;\n  c = @;\n}"), nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3840);
    EXPECT_NE(error->localizedDescription().find("line 3, column 7"), std::string::npos);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_NE(logs.lines()[0].find("line 3, column 7"), std::string::npos);
}

TEST(TextPropertyListReader, DepthTruncationAndDamageAreBounded) {
    EXPECT_TRUE(readText(std::string(kOldStyleMaxNestingDepth, '(') + std::string(kOldStyleMaxNestingDepth, ')')));
    OldStyleParseFailure failure;
    EXPECT_FALSE(readText(std::string(100000, '('), &failure));
    EXPECT_NE(failure.reason.find("deeper"), std::string::npos);

    const std::string text = oldStyle(dict({{"a", std::make_shared<Array>(Array{str("x y"), Data::withString("\x01")})},
                                            {"b\u00e9", dict({{"c", str("\"q\"")}})}}));
    for (std::size_t n = 0; n < text.size(); ++n) {
        readText(text.substr(0, n));
        dictionaryFromStringsFileData(text.substr(0, n));
    }
    std::string damaged = text;
    for (std::size_t i = 0; i < damaged.size(); i += 3) damaged[i] = "{}()<>;=\"\\/*,"[i % 13];
    readText(damaged);
    dictionaryFromStringsFileData(damaged);
}

TEST(TextPropertyListReader, WhatTheWriterWritesReadsBackThroughTheGeneralReader) {
    int checked = 0;
    for (const auto& format : {"binary", "xml"}) {
        for (const auto& e : fixtures(format)) {
            if (e.status != "good") continue;
            auto value = PLS::propertyListWithData(fixture(e.file), nullptr, nullptr);
            if (!value) continue;
            SCOPED_TRACE(e.file);
            QXPropertyListFormat read = 0;
            Ref<Error> error;
            auto back = PLS::propertyListWithData(PLS::dataWithPropertyList(value, 1), &read, &error);
            ASSERT_TRUE(back) << (error ? error->localizedDescription() : "");
            EXPECT_EQ(read, 1u);
            EXPECT_TRUE(back->isEqual(*asText(value)));
            ++checked;
        }
    }
    EXPECT_GE(checked, 60);
}

// --- Display texts and their parsers ----------------------------------------------------------

TEST(TextPropertyListDisplay, TextsOfEachKind) {
    ScopedLocale english("en_US");
    const auto text = [](const Ref<Object>& v) { return PLS::stringRepresentationOfPropertyList(v)->utf8(); };
    EXPECT_EQ(text(str("s")), "s");
    EXPECT_EQ(text(Number::withBool(true)), "Yes");
    EXPECT_EQ(text(Number::withBool(false)), "No");
    EXPECT_EQ(text(Number::withInt64(1234567)), "1234567");
    EXPECT_EQ(text(Number::withDouble(2.5)), "2.5");
    EXPECT_EQ(text(Data::withString("caf\xc3\xa9")), "caf\u00e9");
    EXPECT_EQ(text(Data::withString("caf\xe9")), "caf\u00e9");  // not UTF-8: one character per byte
    EXPECT_NE(text(std::make_shared<Array>(Array{str("x")})).find("<array>"), std::string::npos);
    EXPECT_EQ(PLS::stringRepresentationOfItems(std::make_shared<Array>(Array{str("only")}))->utf8(), "only");
    EXPECT_NE(PLS::stringRepresentationOfItems(std::make_shared<Array>(Array{str("a"), str("b")}))->utf8().find("<array>"),
              std::string::npos);
    {
        ScopedLocale german("de_DE");
        EXPECT_EQ(text(Number::withDouble(2.5)), "2,5");
    }
    EXPECT_EQ(PLS::defaultDataEncoding(), NSUTF8StringEncoding);
}

TEST(TextPropertyListDisplay, DatesFollowTheLocaleAndZoneAndParseBack) {
    const char* saved = std::getenv("TZ");
    const std::string savedZone = saved ? saved : "";
    ::setenv("TZ", "Asia/Tokyo", 1);
    const auto date = Date::withTimeIntervalSinceReferenceDate(3600 * 24 * 365.0);  // 2002-01-01 00:00 UTC
    for (const char* locale : {"en_US", "de_DE", "sv_SE", "ja_JP"}) {
        ScopedLocale scoped(locale);
        const std::string text = PLS::stringRepresentationOfPropertyList(date)->utf8();
        EXPECT_NE(text.find("9"), std::string::npos) << locale << ": " << text << " (09:00 in Tokyo)";
        auto back = PLS::dateWithStringValue(String(text));
        EXPECT_EQ(back->timeIntervalSinceReferenceDate(), date->timeIntervalSinceReferenceDate()) << locale << ": " << text;
    }
    {
        ScopedLocale scoped("de_DE");
        EXPECT_NE(PLS::stringRepresentationOfPropertyList(date)->utf8().find("2002"), std::string::npos);
    }
    // Text that is no date gives the current date and time.
    const double before = Date::now()->timeIntervalSinceReferenceDate();
    const double parsed = PLS::dateWithStringValue(String("not a date"))->timeIntervalSinceReferenceDate();
    EXPECT_GE(parsed, before);
    if (saved) ::setenv("TZ", savedZone.c_str(), 1);
    else ::unsetenv("TZ");
}

TEST(TextPropertyListDisplay, NumberBooleanAndDataParsers) {
    ScopedLocale english("en_US");
    const auto number = [](const char* s) { return PLS::numberWithStringValue(String(s)); };
    EXPECT_EQ(number("1,234")->int64Value(), 1234);
    EXPECT_FALSE(number("1,234")->isReal());
    EXPECT_EQ(number("3.5")->doubleValue(), 3.5);
    EXPECT_TRUE(number("3.5")->isReal());
    EXPECT_EQ(number("abc")->int64Value(), 0);
    EXPECT_EQ(number("yes")->int64Value(), 1);
    EXPECT_EQ(number("no")->int64Value(), 0);
    EXPECT_EQ(number("  -42 apples")->int64Value(), -42);
    EXPECT_EQ(number("99999999999999999999")->int64Value(), INT64_MAX);
    {
        ScopedLocale german("de_DE");
        EXPECT_EQ(number("1.234")->int64Value(), 1234);
        EXPECT_EQ(number("3,5")->doubleValue(), 3.5);
    }

    const auto boolean = [](const char* s) { return PLS::booleanWithStringValue(String(s))->boolValue(); };
    for (const char* t : {"yes", "YES", "1", "00", "true", "anything"}) EXPECT_TRUE(boolean(t)) << t;
    for (const char* f : {"no", "No", "", "0", "0 apples"}) EXPECT_FALSE(boolean(f)) << f;

    const auto hex = [](const char* s) { return std::string(PLS::dataWithStringValue(String(s))->view()); };
    EXPECT_EQ(hex("<0a1b 2c>"), "\x0a\x1b\x2c");
    EXPECT_EQ(hex("0xABC"), "\xab\xc0");
    EXPECT_EQ(hex("zz"), std::string(1, '\0'));
    EXPECT_EQ(hex("12 0x34"), std::string("\x12\x00\x34", 3));  // an inner 0x is 00
    EXPECT_EQ(hex("\u00e9f"), "\x0f");                           // one character, one digit
    EXPECT_EQ(hex(""), "");
    EXPECT_EQ(PLS::stringWithStringValue(String("t"))->utf8(), "t");
}

TEST(TextPropertyListDisplay, TypedTextBecomesTheValueItReads) {
    ScopedLocale english("en_US");
    const auto item = [](const char* s) { return PLS::itemWithStringRepresentation(String(s)); };
    EXPECT_EQ(dyn_cast<Number>(item("1,234"))->int64Value(), 1234);
    EXPECT_EQ(dyn_cast<Number>(item("2.5"))->doubleValue(), 2.5);
    auto array = dyn_cast<Array>(item("(1, 2)"));
    ASSERT_TRUE(array);
    EXPECT_TRUE(array->isEqual(Array{str("1"), str("2")}));
    auto d = dyn_cast<Dictionary>(item("{a = b;}"));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->get<String>("a")->utf8(), "b");
    EXPECT_EQ(dyn_cast<String>(item("hello world"))->utf8(), "hello world");  // not a property list: the text
    EXPECT_EQ(dyn_cast<String>(item("-5"))->utf8(), "-5");                    // a sign is not among the number characters
    EXPECT_TRUE(dyn_cast<Number>(item("<?xml version=\"1.0\"?><plist version=\"1.0\"><true/></plist>"))->boolValue());
    {
        ScopedLocale german("de_DE");
        EXPECT_EQ(dyn_cast<Number>(item("1.234,5"))->doubleValue(), 1234.5);
    }
}

// --- The tool ---------------------------------------------------------------------------------

TEST(TextPropertyListTool, ConvertsThroughEveryFormatAndPrintsAny) {
    const std::string dir = ::testing::TempDir() + "qx-text-tool-" + std::to_string(::getpid());
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    const std::string qx = QX_QX_BINARY;
    const std::string input = QX_PLIST_TESTDATA_DIR "/dd-plist/test1-binary.plist";
    const auto run = [&](const std::string& args) { return std::system((qx + " " + args + " 2>/dev/null").c_str()); };
    ASSERT_EQ(run("plist convert --format xml " + input + " -o " + dir + "/a.xml"), 0);
    ASSERT_EQ(run("plist convert --format text " + dir + "/a.xml -o " + dir + "/a.txt"), 0);
    ASSERT_EQ(run("plist convert --format binary " + dir + "/a.txt -o " + dir + "/a.bplist"), 0);
    ASSERT_EQ(run("plist print " + dir + "/a.xml >" + dir + "/print-xml.txt"), 0);
    ASSERT_EQ(run("plist print " + dir + "/a.txt >" + dir + "/print-text.txt"), 0);
    // The text form keeps every value as text: what it reads is what the writer gave it.
    auto original = PLS::propertyListWithData(fixture("dd-plist/test1-binary.plist"), nullptr, nullptr);
    auto fromText = PLS::propertyListWithData(Data::withString(readFile(dir + "/a.bplist")), nullptr, nullptr);
    ASSERT_TRUE(original && fromText);
    EXPECT_TRUE(fromText->isEqual(*asText(original)));
    auto fromXML = PLS::propertyListWithData(Data::withString(readFile(dir + "/a.xml")), nullptr, nullptr);
    ASSERT_TRUE(fromXML);
    EXPECT_TRUE(fromXML->isEqual(*original));
    EXPECT_EQ(readFile(dir + "/print-xml.txt"), fromXML->description() + "\n");
    EXPECT_EQ(readFile(dir + "/print-text.txt"), fromText->description() + "\n");
    std::system(("rm -rf " + dir).c_str());
}
