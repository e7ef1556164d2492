// TextPropertyListTests.cpp - the text formats. XML: each kind as its element, the document layout,
// dates in the local zone, every refusal, and hostile documents. Old style: the writer and escaping,
// the reader that serves as the fallback and reads strings files. The display texts with their
// parsers under several locales. (Other programs' files go through every format in
// BinaryPropertyListTests.cpp.)

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXStringAdditions.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXXMLPlistTree.h"
#include "PlistFixtures.h"
#include "ScopedLocale.h"
#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Log.h>
#include <qx/Null.h>
#include <qx/OldStylePropertyList.h>
#include <qx/Set.h>
#include <qx/String.h>
#include <qx/StringsFile.h>

using namespace qx;
using namespace qxtest;
using namespace plisttest;
using PLS = QXPropertyListSerialization;
using Log = std::vector<std::string>;

namespace {

const std::string kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                            "<plist version=\"1.0\">\n";

std::string doc(const std::string& body, const std::string& version = "version=\"1.0\"") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist " + version + ">" + body + "</plist>";
}
std::string xmlText(const Ref<Object>& value) { return toString(PLS::xmlDataWithPropertyList(value)); }
// The printer's output compared with libxml2's printing of the tree the same value builds.
std::string libraryPrint(const Ref<Object>& value) {
    auto document = QXXMLPlistTree::documentWithPropertyList(value);
    return document ? toString(QXXMLPlistTree::dataWithDocument(*document)) : "<failed>";
}

enum Direction { Both, ReadOnly, WriteOnly };
struct Element {
    Ref<Object> value;  // nothing: the text reads as nothing, without an error
    std::string text;   // the element as written one level inside plist
    Direction direction = Both;
};

Ref<Object> uid(const std::string& bytes) { return QXUIDPropertyList::initWithData(Data::withString(bytes)); }

std::string oldStyle(const Ref<Object>& value) {
    auto data = PLS::oldStylePlistDataWithItem(value);
    return data ? toString(data) : "<failed>";
}
Ref<Array> array(std::initializer_list<Ref<Object>> items) { return std::make_shared<Array>(Array(items)); }

} // namespace

TEST(XMLPropertyListElements, EachKindIsWrittenAsThisElementAndReadBack) {
    ScopedTimeZone utc("UTC");
    const std::vector<Element> table = {
        {Number::withInt64(INT64_MIN), "<integer>-9223372036854775808</integer>"},
        {Number::withUInt64(UINT64_MAX), "<integer>-1</integer>", WriteOnly},
        {Number::withUInt64(UINT64_MAX), "<integer>18446744073709551615</integer>", ReadOnly},
        {Number::withDouble(18446744073709551616.0), "<integer>18446744073709551616</integer>", ReadOnly},
        {Number::withInt64(-17), "<integer> -17 </integer>", ReadOnly}, {Number::withInt64(5), "<integer>+5</integer>", ReadOnly},
        // The text, not the element, decides between integer and real.
        {Number::withDouble(1.5), "<integer>1.5</integer>", ReadOnly},
        {Number::withInt64(2), "<real>2</real>", ReadOnly},
        {Number::withDouble(2.5), "<real>2.5</real>"},
        {Number::withDouble(2), "<real>2.0</real>"},
        {Number::withDouble(-1e300), "<real>-1e+300</real>"},
        {Number::withDouble(INFINITY), "<real>inf</real>"},
        {Number::withDouble(-INFINITY), "<real>-infinity</real>", ReadOnly},
        {Number::withDouble(INFINITY), "<real>1e400</real>", ReadOnly},
        {Number::withBool(true), "<true/>"}, {Number::withBool(false), "<false/>"},
        {str("a & <b> \r\n\t\u00e9"), "<string>a &amp; &lt;b&gt; &#13;\n\t\u00e9</string>"},
        {str(""), "<string/>"},
        {str("]]> \"q\" 's' &amp; \u00e9\u4e2d\U0001F600"), "<string>]]&gt; \"q\" 's' &amp;amp; \u00e9\u4e2d\U0001F600</string>"},
        {str(" "), "<string> </string>"},
        {str("<raw> & text"), "<string><![CDATA[<raw> & text]]></string>", ReadOnly},
        {str("ab"), "<string>a<!-- note -->b</string>", ReadOnly},
        {Data::withString(std::string("\0\xff\x10", 3)), "<data>AP8Q</data>"},
        {Data::withString(std::string("\0\1\2\3", 4)), "<data>\n\tAAEC\n\tAw==\n</data>", ReadOnly},
        {Data::create(), "<data/>"},
        {Date::withTimeIntervalSinceReferenceDate(1e9), "<date>2032-09-09T01:46:40Z</date>"},
        {Array::create(), "<array/>"}, {Dictionary::create(), "<dict/>"},
        // Keys sort ignoring case and by the value of digit runs.
        {dict({{"Item10", Number::withInt64(-3)}, {"item2", Number::withBool(true)}, {"b", std::make_shared<Array>(Array{Dictionary::create()})}}),
         "<dict>\n    <key>b</key>\n    <array>\n      <dict/>\n    </array>\n    <key>item2</key>\n    <true/>\n"
         "    <key>Item10</key>\n    <integer>-3</integer>\n  </dict>"},
        {dict({{"", str("e")}}), "<dict><key/><string>e</string></dict>", ReadOnly},
        {dict({{"k", Number::withBool(false)}}), "<dict><key>k</key><true/><key>k</key><false/></dict>", ReadOnly},
        // A UID is written as { "CF$UID": n }, n its bytes read as a binary
        // integer object (the first byte is the size marker); archives rely on it.
        {QXUIDPropertyList::initWithInt64Value(7), "<dict>\n    <key>CF$UID</key>\n    <integer>7</integer>\n  </dict>", ReadOnly},
        {QXUIDPropertyList::initWithInt64Value(42), "<dict>\n    <key>CF$UID</key>\n    <integer>0</integer>\n  </dict>", WriteOnly},
        {uid("\x11\x01\x02"), "<dict>\n    <key>CF$UID</key>\n    <integer>258</integer>\n  </dict>", WriteOnly},
        {uid(std::string(9, 'A')), "<dict>\n    <key>CF$UID</key>\n    <data>QUFBQUFBQUFB</data>\n  </dict>", WriteOnly},
        {dict({{"CF$UID", Number::withInt64(7)}, {"x", Number::withBool(true)}}),
         "<dict><key>CF$UID</key><integer>7</integer><key>x</key><true/></dict>", ReadOnly},
        {nullptr, "<integer>42xy</integer>", ReadOnly}, {nullptr, "<real>1.5.5</real>", ReadOnly},
        {nullptr, "<data>QQ=Q</data>", ReadOnly},
        {nullptr, "<array><integer>1</integer><integer>x</integer></array>", ReadOnly},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        if (row.direction != ReadOnly) {
            EXPECT_EQ(xmlText(row.value), kHeader + "  " + row.text + "\n</plist>\n");
            EXPECT_EQ(xmlText(row.value), libraryPrint(row.value));
        }
        if (row.direction == WriteOnly) continue;
        auto r = readXML(doc(row.text));
        if (!row.value) {
            EXPECT_FALSE(r.value || r.error);
            continue;
        }
        ASSERT_TRUE(r.value) << (r.log.empty() ? "" : r.log.back());
        EXPECT_EQ(r.value->className(), row.value->className());
        EXPECT_TRUE(dyn_cast<Dictionary>(row.value) ? r.value->isEqual(*row.value)
                                                    : r.value->description() == row.value->description())
            << describe(r.value.get());
        EXPECT_TRUE(!dyn_cast<Number>(row.value) || dyn_cast<Number>(r.value)->kind() == dyn_cast<Number>(row.value)->kind());
    }
}

TEST(XMLPropertyListWriter, RefusedValuesAndDepth) {
    auto nonStringKey = Dictionary::create();
    nonStringKey->setObject(str("v"), Number::withInt64(1));
    Ref<Object> deep = str("x");
    for (unsigned i = 0; i < QXXMLPlistMaxNestingDepth; ++i) deep = std::make_shared<Array>(Array{deep});
    for (const auto& [value, line] : std::vector<std::pair<Ref<Object>, std::string>>{
             {Set::create(), "error: unknown plist type!"},
             {Null::null(), "error: unknown plist type!"},
             {std::make_shared<Array>(Array{Set::create()}), "error: unknown plist type!"},
             {nonStringKey, "can't have a non-string key!"},
             {std::make_shared<Array>(Array{deep}), "property list nests deeper than 250 levels"}}) {
        for (int tree = 0; tree < 2; ++tree) {
            ScopedLogCapture logs;
            Ref<Error> error;
            EXPECT_FALSE(tree ? !!QXXMLPlistTree::documentWithPropertyList(value, &error)
                              : !!PLS::xmlDataWithPropertyList(value, &error));
            EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 3840);
            EXPECT_EQ(logs.lines(), Log{line});
        }
    }
    // As deep as the reader goes is written and read back.
    auto back = PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(deep));
    EXPECT_TRUE(back && back->isEqual(*deep));
}

TEST(XMLPropertyListDates, FieldsAreLocalTimeOnBothSides) {
    {
        ScopedTimeZone tokyo("Asia/Tokyo");
        auto r = readXML(doc("<date>2001-01-01T09:00:00Z</date>"));
        EXPECT_EQ(r.value ? dyn_cast<Date>(r.value)->timeIntervalSinceReferenceDate() : -1, 0);
    }
    ScopedTimeZone plusTwo("Etc/GMT-2");  // UTC+2 (POSIX signs are reversed)
    // Fractions of a second are dropped.
    EXPECT_NE(xmlText(Date::withTimeIntervalSinceReferenceDate(-7200 + 0.75)).find("<date>2001-01-01T00:00:00Z</date>"),
              std::string::npos);
    // Fields are read by position, each only after its separator; missing ones take their first value.
    for (const auto& [text, written] : std::vector<std::pair<std::string, std::string>>{
             {"2001-01-01T00:00:00Z", "2001-01-01T00:00:00Z"},
             {"2020", "2020-01-01T00:00:00Z"},
             {"2020-03-04T05", "2020-03-04T05:00:00Z"},
             {"2020-03-04T05:06:07", "2020-03-04T05:06:07Z"},
             {"2020/03-04", "2020-01-01T00:00:00Z"},
             {"2020-03-04 05:06:07Z", "2020-03-04T00:00:00Z"},
             {"20x0-1y-02", "0020-01-02T00:00:00Z"}}) {  // a field's value is its leading digits
        auto value = readXML(doc("<date>" + text + "</date>")).value;
        EXPECT_NE(xmlText(value).find("<date>" + written + "</date>"), std::string::npos) << text;
    }
}

TEST(XMLPropertyListReader, RefusalsWithTheirErrorsAndLogLines) {
    struct Case { std::string text; std::string domain; std::int64_t code; Log log; };
    const std::string cocoa = NSCocoaErrorDomain, parser = "NSXMLParserErrorDomain";
    const std::vector<Case> cases = {
        {doc("<true/>", "version=\"0.9\""), cocoa, 3841, {"we might not be able to handle this plist version: <0.9>"}},
        {doc("<true/>", ""), cocoa, 3841, {"we might not be able to handle this plist version: <>"}},
        {doc(""), cocoa, 3840, {"no root element in plist"}},
        {doc("<true/><false/>"), cocoa, 3840, {"more than one root element in plist"}},
        {"<?xml version=\"1.0\"?><dict/>", cocoa, 3840, {"not a plist"}},
        {doc("<dict><key>a</key><string/><key>b</key></dict>"), cocoa, 3840, {}},
        {doc("<dict><string>a</string><string/></dict>"), cocoa, 3840, {}},
        {doc("<array><true/><nope/></array>"), cocoa, 3840, {"Error: unknown tag <nope>"}},
        {doc("<key>a</key>"), cocoa, 3840, {"Error: unknown tag <key>"}},
        {doc("<integer/>"), cocoa, 256, {}},
        {doc("<real></real>"), cocoa, 256, {}},
        {"", parser, 4, {"XML parser error 4 at line 0, column 0: Document is empty"}},
        {"<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<array><true/></plist>", parser, 77,
         {"XML parser error 77 at line 3, column 23: Premature end of data in tag plist line 2"}},
    };
    for (const auto& c : cases) {
        auto r = readXML(c.text);
        EXPECT_FALSE(r.value) << c.text;
        EXPECT_QX_ERROR(r.error, c.domain, c.code) << c.text;
        EXPECT_EQ(r.log, c.log) << c.text;
    }
    EXPECT_FALSE(PLS::XMLPropertyListWithData(nullptr, nullptr));
}

TEST(XMLPropertyListHardening, EntitiesAreNeitherFetchedNorAllowedToExplode) {
    // An external entity names a file that exists; its text must not appear.
    auto r = readXML("<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY x SYSTEM \"file://" QX_PLIST_TESTDATA_DIR
                     "/README.md\">]>\n<plist version=\"1.0\"><string>[&x;]</string></plist>");
    EXPECT_TRUE(!r.value || r.value->isEqual(*str("[]")));
    // Nests of entities (the exponential attack) are the parser's to refuse.
    std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 2; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    r = readXML(laughs + "]>\n<plist version=\"1.0\"><string>&l2;</string></plist>");
    EXPECT_QX_ERROR(r.error, "NSXMLParserErrorDomain", 89);
    // Entities may add 1 MiB plus four times the document's size: 24 copies of
    // 64 KiB fit a document of 128 KiB, and not one a byte shorter.
    for (std::size_t size : {131072u, 131071u}) {
        std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY e \"" + std::string(65536, 'x') +
                           "\">]>\n<plist version=\"1.0\"><string>";
        for (int k = 0; k < 24; ++k) text += "&e;";
        text += "</string></plist>\n";
        text.resize(size, '\n');
        r = readXML(text);
        EXPECT_EQ(r.value ? dyn_cast<String>(r.value)->utf8().size() : 0, size == 131072 ? 24 * 65536u : 0u);
        EXPECT_EQ(r.log, size == 131072 ? Log{} : Log{"entity references in the property list expand too far"});
    }
}

TEST(XMLPropertyListHardening, DeepNestingAndTruncationFailCleanly) {
    std::string deep;
    for (int i = 0; i < 5000; ++i) deep += "<array>";
    auto r = readXML(doc(deep));
    EXPECT_TRUE(!r.value && r.error);
    const std::string file = toString(fixture("cpython/testdata-apple.xml"));
    for (std::size_t n = 0; n < file.rfind("</plist>"); n += 7) {
        Ref<Error> error;
        EXPECT_TRUE(!PLS::XMLPropertyListWithData(Data::withString(file.substr(0, n)), &error) && error) << n;
    }
}

TEST(XMLPropertyListEntryPoints, Base64) {
    for (std::size_t n = 0; n < 7; ++n) {
        auto bytes = Data::withString(std::string("\xff\x00\x7f\x80\x01\xfe", n));
        auto text = PLS::base64StringWithData(bytes);
        EXPECT_EQ(text->utf8().find('\n'), std::string::npos);
        EXPECT_TRUE(PLS::dataWithBase64String(*text)->isEqual(*bytes)) << n;
    }
    EXPECT_EQ(toString(PLS::dataWithBase64String(String(" Y W\nI = "))), "ab");
    EXPECT_FALSE(PLS::dataWithBase64String(String("Y")));
    EXPECT_FALSE(PLS::dataWithBase64String(String("YQ==YQ==")));
}

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

TEST(TextPropertyListDisplay, TextsOfEachKindAndTheTypedTextParsers) {
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
    EXPECT_EQ(text(Number::withDouble(2.5)), "2,5");
    EXPECT_EQ(number("1.234")->int64Value(), 1234);
    EXPECT_EQ(number("3,5")->doubleValue(), 3.5);
    EXPECT_EQ(dyn_cast<Number>(item("1.234,5"))->doubleValue(), 1234.5);
}
