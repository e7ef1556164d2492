// XMLPropertyListTests.cpp - the XML property-list writer and reader: other programs' files,
// round trips through every format, the document layout, dates in the local zone, UIDs,
// every refusal, and hostile documents.
#include <gtest/gtest.h>

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "PlistFixtures.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Log.h>
#include <qx/Null.h>
#include <qx/Set.h>
#include <qx/String.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <optional>

using namespace qx;
using namespace plisttest;
using PLS = QXPropertyListSerialization;
using Log = std::vector<std::string>;

namespace {

// Sets TZ for one test and puts the old setting back.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) saved_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (saved_) ::setenv("TZ", saved_->c_str(), 1);
        else ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> saved_;
};

struct Read {
    Ref<Object> value;
    Ref<Error> error;
    Log log;
};
Read readXML(const std::string& text) {
    ScopedLogCapture capture;
    Read r;
    r.value = PLS::XMLPropertyListWithData(Data::withString(text), &r.error);
    r.log = capture.lines();
    return r;
}
std::string doc(const std::string& body, const std::string& version = "version=\"1.0\"") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist " + version + ">" + body + "</plist>";
}
std::string xmlText(const Ref<Object>& value) {
    Ref<Error> error;
    auto data = PLS::xmlDataWithPropertyList(value, &error);
    EXPECT_TRUE(data) << (error ? error->description() : "");
    return data ? std::string(data->view()) : std::string();
}
Ref<Object> roundTrip(const Ref<Object>& value, QXPropertyListFormat format) {
    Ref<Error> error;
    auto data = PLS::dataWithPropertyList(value, format, &error);
    EXPECT_TRUE(data) << (error ? error->description() : "");
    QXPropertyListFormat read = 0;
    auto back = data ? PLS::propertyListWithData(data, &read, &error) : nullptr;
    EXPECT_EQ(read, format);
    return back;
}

// Where a value read back from XML differs from the binary original, beyond
// what XML keeps: dates to the second, single-precision reals as decimal
// text, UIDs as their bytes read as a binary integer.
std::string xmlDifference(const Object* original, const Object* back, const std::string& path) {
    if (auto d = dynamic_cast<const Dictionary*>(original)) {
        auto b = dynamic_cast<const Dictionary*>(back);
        if (!b || b->count() != d->count()) return path + ": dictionary";
        for (const auto& [k, v] : *d)
            if (auto m = xmlDifference(v.get(), b->objectForKey(*k).get(), path + "." + k->description()); !m.empty())
                return m;
        return "";
    }
    if (auto a = dynamic_cast<const Array*>(original)) {
        auto b = dynamic_cast<const Array*>(back);
        if (!b || b->count() != a->count()) return path + ": array";
        for (std::size_t i = 0; i < a->count(); ++i)
            if (auto m = xmlDifference((*a)[i].get(), (*b)[i].get(), path + "[" + std::to_string(i) + "]"); !m.empty())
                return m;
        return "";
    }
    const auto differs = [&](bool same) { return same ? "" : path + ": " + describe(original) + " vs " + describe(back); };
    if (auto d = dynamic_cast<const Date*>(original)) {
        auto b = dynamic_cast<const Date*>(back);
        return differs(b && b->timeIntervalSinceReferenceDate() == std::floor(d->timeIntervalSinceReferenceDate()));
    }
    if (auto n = dynamic_cast<const Number*>(original); n && n->kind() == Number::Kind::Float) {
        auto b = dynamic_cast<const Number*>(back);
        return differs(b && b->isReal() && b->floatValue() == n->floatValue());
    }
    if (auto u = dynamic_cast<const QXUIDPropertyList*>(original)) {
        auto b = dynamic_cast<const QXUIDPropertyList*>(back);
        std::uint64_t at = 0;
        const auto expected = u->data()->length() <= 8 ? PLS::intFromData(*u->data(), at) : 0;
        return differs(b && static_cast<std::uint64_t>(b->int64Value()) == expected);
    }
    return differs(back && original->isEqual(*back));
}

Ref<Dictionary> dict(std::initializer_list<std::pair<const char*, Ref<Object>>> entries) {
    auto d = Dictionary::create();
    for (const auto& [k, v] : entries) d->setObject(v, k);
    return d;
}

bool isError(const Ref<Error>& e, const char* domain, std::int64_t code) {
    return e && e->domain() == domain && e->code() == code;
}

} // namespace

// --- Other programs' files ---------------------------------------------------------

TEST(XMLPropertyListFixtures, GoodFilesMatchPlistlibAndSurviveEveryFormat) {
    ScopedTimeZone utc("UTC");  // the fixtures' expected dates are UTC
    int checked = 0;
    auto entries = fixtures("xml");
    for (auto& e : fixtures("xml-utf16")) entries.push_back(e);
    for (const auto& e : entries) {
        if (e.status != "good") continue;
        SCOPED_TRACE(e.file);
        QXPropertyListFormat format = 0;
        Ref<Error> error;
        auto value = PLS::propertyListWithData(fixture(e.file), &format, &error);
        const std::string text(fixture(e.file)->view());
        if (e.file == "libplist/hex.plist" || (e.format == "xml" && text.find("<plist version=\"1.0\"") == std::string::npos)) {
            // Integers are decimal text, so "0x..." is no number; the document
            // element must be plist, of version "1.0". These files are refused.
            EXPECT_FALSE(value);
            EXPECT_TRUE(error);
            continue;
        }
        ASSERT_TRUE(value) << (error ? error->description() : "");
        EXPECT_EQ(format, 100u);
        const JsonValue expected = expectedValue(e);
        EXPECT_EQ(mismatch(value.get(), expected, "root"), "");
        // Through binary and XML and back, the value stays (binary files past
        // 64 KiB with few objects cut their offsets to two bytes by design).
        if (PLS::binaryDataWithPropertyList(value)->length() < 0x10000) {
            EXPECT_EQ(mismatch(roundTrip(value, 200).get(), expected, "binary"), "");
        }
        auto viaXML = roundTrip(value, 100);
        EXPECT_EQ(mismatch(viaXML.get(), expected, "xml"), "");
        // The writer's own output is a fixed point.
        EXPECT_EQ(xmlText(viaXML), xmlText(value));
        ++checked;
    }
    EXPECT_GE(checked, 25);
}

TEST(XMLPropertyListFixtures, BinaryFilesConvertToXMLAndBack) {
    ScopedTimeZone utc("UTC");
    int checked = 0;
    for (const auto& e : fixtures("binary")) {
        if (e.status != "good") continue;
        auto value = PLS::binaryPropertyListWithData(fixture(e.file), nullptr);
        if (!value) continue;  // refusals are the binary reader's tests
        SCOPED_TRACE(e.file);
        auto back = roundTrip(value, 100);
        ASSERT_TRUE(back);
        EXPECT_EQ(xmlDifference(value.get(), back.get(), "root"), "");
        ++checked;
    }
    EXPECT_GE(checked, 30);
}

TEST(XMLPropertyListFixtures, MalformedFilesFailCleanly) {
    int refused = 0;
    for (const auto& e : fixtures("xml")) {
        if (e.status != "malformed") continue;
        SCOPED_TRACE(e.file);
        ScopedLogCapture logs;
        Ref<Error> error;
        auto value = PLS::propertyListWithData(fixture(e.file), nullptr, &error);
        if (value) continue;  // plistlib is stricter about some files than this reader
        ASSERT_TRUE(error);
        EXPECT_FALSE(logs.lines().empty()) << "a refusal says why in the log";
        ++refused;
    }
    EXPECT_GE(refused, 8);
    // An internal entity expands; an external one is never fetched.
    auto entity = PLS::propertyListWithData(fixture("cpython/xml-with-entity.plist"), nullptr, nullptr);
    ASSERT_TRUE(dyn_cast<Dictionary>(entity));
    EXPECT_EQ(dyn_cast<Dictionary>(entity)->get<String>("A")->utf8(), "replacement text");
}

// --- The document as written ----------------------------------------------------------

TEST(XMLPropertyListWriter, DocumentLayoutKeyOrderAndCompactEmptyElements) {
    auto dict = Dictionary::create();
    dict->setObject(Number::withInt64(-3), "Item10");
    dict->setObject(Number::withBool(true), "item2");
    auto inner = Array::create();
    inner->addObject(str("a & <b>"));
    inner->addObject(str(""));
    inner->addObject(Number::withDouble(2.5));
    inner->addObject(Data::withString("hello world, more than fifty-seven bytes of data to see one line"));
    inner->addObject(Dictionary::create());
    dict->setObject(inner, "b");
    EXPECT_EQ(xmlText(dict),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n"
              "  <dict>\n"
              "    <key>b</key>\n"
              "    <array>\n"
              "      <string>a &amp; &lt;b&gt;</string>\n"
              "      <string/>\n"
              "      <real>2.5</real>\n"
              "      <data>aGVsbG8gd29ybGQsIG1vcmUgdGhhbiBmaWZ0eS1zZXZlbiBieXRlcyBvZiBkYXRhIHRvIHNlZSBvbmUgbGluZQ==</data>\n"
              "      <dict/>\n"
              "    </array>\n"
              "    <key>item2</key>\n"
              "    <true/>\n"
              "    <key>Item10</key>\n"
              "    <integer>-3</integer>\n"
              "  </dict>\n"
              "</plist>\n");
}

TEST(XMLPropertyListWriter, PrintsExactlyWhatTheXMLLibraryPrintsOfTheSameTree) {
    const auto libraryPrint = [](const Ref<Object>& value) {
        auto document = PLS::xmlDocumentWithPropertyList(value);
        auto data = document ? PLS::dataWithXMLDocument(*document) : nullptr;
        return data ? std::string(data->view()) : std::string("<failed>");
    };
    auto tricky = Array::create();
    for (const char* s : {"a & b < c > d", "cr\r lf\n tab\t", "]]> \"quoted\" 'single'", "\u00e9\u4e2d\U0001F600", " ",
                          "&amp; stays text"})
        tricky->addObject(str(s));
    tricky->addObject(dict({{"", str("empty key")}, {"a<b", Array::create()}}));
    tricky->addObject(QXUIDPropertyList::initWithInt64Value(3));
    tricky->addObject(Date::withTimeIntervalSinceReferenceDate(1e9));
    EXPECT_EQ(xmlText(tricky), libraryPrint(tricky));
    int compared = 0;
    for (const auto& format : {"binary", "xml"}) {
        for (const auto& e : fixtures(format)) {
            auto value = PLS::propertyListWithData(fixture(e.file), nullptr, nullptr);
            if (!value) continue;
            if (!PLS::xmlDocumentWithPropertyList(value)) {
                // Sets and non-string keys: neither way writes them.
                EXPECT_FALSE(PLS::xmlDataWithPropertyList(value)) << e.file;
                continue;
            }
            EXPECT_EQ(xmlText(value), libraryPrint(value)) << e.file;
            ++compared;
        }
    }
    EXPECT_GE(compared, 70);
}

TEST(XMLPropertyListWriter, EveryKindReadsBackAsItself) {
    auto a = Array::create();
    a->addObject(Number::withInt64(INT64_MIN));
    a->addObject(Number::withUInt64(UINT64_MAX));  // written as signed 64-bit: -1
    a->addObject(Number::withDouble(0.1));
    a->addObject(Number::withDouble(-1e300));
    a->addObject(Number::withDouble(INFINITY));
    a->addObject(Number::withBool(false));
    a->addObject(str("tab\there \u00e9 \U0001F600 \r\n"));
    a->addObject(Data::create());
    a->addObject(Data::withString(std::string("\0\xff\x10", 3)));
    a->addObject(Array::create());
    auto back = dyn_cast<Array>(PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(a)));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->count(), a->count());
    EXPECT_EQ(dyn_cast<Number>((*back)[1])->int64Value(), -1);
    for (std::size_t i : {0u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u}) EXPECT_TRUE((*back)[i]->isEqual(*(*a)[i])) << i;
    EXPECT_TRUE(dyn_cast<Number>((*back)[2])->isReal());
    EXPECT_TRUE(dyn_cast<Number>((*back)[5])->isBoolean());
}

TEST(XMLPropertyListWriter, UIDsAreWrittenAsTheirBytesReadAsABinaryInteger) {
    const auto uidValue = [](const Ref<Object>& uid) -> std::string {
        const std::string text = xmlText(uid);
        const auto from = text.find("<key>CF$UID</key>");
        return from == std::string::npos ? text : text.substr(from + 17, text.find("</dict>") - from - 17);
    };
    // The first byte is taken as an integer marker: 8-byte values made from an
    // integer read as their second byte.
    EXPECT_EQ(uidValue(QXUIDPropertyList::initWithInt64Value(42)), "\n    <integer>0</integer>\n  ");
    EXPECT_EQ(uidValue(QXUIDPropertyList::initWithData(Data::withString("\x10\x2a"))), "\n    <integer>42</integer>\n  ");
    EXPECT_EQ(uidValue(QXUIDPropertyList::initWithData(Data::withString("\x11\x01\x02"))), "\n    <integer>258</integer>\n  ");
    EXPECT_EQ(uidValue(QXUIDPropertyList::initWithData(Data::withString(std::string(9, 'A')))),
              "\n    <data>QUFBQUFBQUFB</data>\n  ");

    auto uid = dyn_cast<QXUIDPropertyList>(readXML(doc("<dict><key>CF$UID</key><integer>7</integer></dict>")).value);
    ASSERT_TRUE(uid);
    EXPECT_EQ(std::string(uid->data()->view()), std::string("\0\0\0\0\0\0\0\x07", 8));
    EXPECT_TRUE(dyn_cast<Dictionary>(
        readXML(doc("<dict><key>CF$UID</key><integer>7</integer><key>x</key><true/></dict>")).value));
}

TEST(XMLPropertyListWriter, RefusedValuesAndDepth) {
    auto nonStringKey = Dictionary::create();
    nonStringKey->setObject(str("v"), Number::withInt64(1));
    auto nested = Array::create();
    nested->addObject(Set::create());
    for (const auto& [value, line] : {std::pair<Ref<Object>, std::string>{Set::create(), "error: unknown plist type!"},
                                      {Null::null(), "error: unknown plist type!"},
                                      {nested, "error: unknown plist type!"},
                                      {nonStringKey, "can't have a non-string key!"}}) {
        ScopedLogCapture logs;
        Ref<Error> error;
        EXPECT_FALSE(PLS::xmlDataWithPropertyList(value, &error));
        EXPECT_TRUE(isError(error, NSCocoaErrorDomain, 3840));
        EXPECT_EQ(logs.lines(), Log{line});
    }
    // As deep as the reader goes is written and read back; one more is refused.
    Ref<Object> deep = str("x");
    for (unsigned i = 0; i < QXXMLPlistMaxNestingDepth; ++i) deep = std::make_shared<Array>(Array{deep});
    auto back = PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(deep));
    EXPECT_TRUE(back && back->isEqual(*deep));
    ScopedLogCapture logs;
    Ref<Error> error;
    EXPECT_FALSE(PLS::xmlDataWithPropertyList(std::make_shared<Array>(Array{deep}), &error));
    EXPECT_TRUE(isError(error, NSCocoaErrorDomain, 3840));
}

// --- Dates in the local zone --------------------------------------------------------------

TEST(XMLPropertyListDates, FieldsAreLocalTimeOnBothSides) {
    ScopedTimeZone plusTwo("Etc/GMT-2");  // UTC+2 (POSIX signs are reversed)
    auto r = readXML(doc("<date>2001-01-01T00:00:00Z</date>"));
    ASSERT_TRUE(dyn_cast<Date>(r.value));
    EXPECT_EQ(dyn_cast<Date>(r.value)->timeIntervalSinceReferenceDate(), -7200);
    EXPECT_NE(xmlText(r.value).find("<date>2001-01-01T00:00:00Z</date>"), std::string::npos);
    // Fractions of a second are dropped.
    EXPECT_NE(xmlText(Date::withTimeIntervalSinceReferenceDate(-7200 + 0.75)).find("2001-01-01T00:00:00Z"),
              std::string::npos);

    // Fields are read by position, each only after its separator; missing ones take their first value.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"2020", "2020-01-01T00:00:00Z"},
        {"2020-03", "2020-03-01T00:00:00Z"},
        {"2020-03-04T05", "2020-03-04T05:00:00Z"},
        {"2020-03-04T05:06:07", "2020-03-04T05:06:07Z"},
        {"2020/03-04", "2020-01-01T00:00:00Z"},       // no "-" after the year: the rest is ignored
        {"2020-03-04 05:06:07Z", "2020-03-04T00:00:00Z"},  // no "T"
        {"20x0-1y-02", "0020-01-02T00:00:00Z"},       // a field's value is its leading digits
    };
    for (const auto& [text, written] : cases) {
        auto value = readXML(doc("<date>" + text + "</date>")).value;
        ASSERT_TRUE(value) << text;
        EXPECT_NE(xmlText(value).find("<date>" + written + "</date>"), std::string::npos) << text << "\n"
                                                                                          << xmlText(value);
    }
}

TEST(XMLPropertyListDates, TheSameTextIsAnotherInstantInAnotherZone) {
    double utc = 0, tokyo = 0;
    {
        ScopedTimeZone zone("UTC");
        utc = dyn_cast<Date>(readXML(doc("<date>2010-11-12T13:14:15Z</date>")).value)->timeIntervalSinceReferenceDate();
    }
    {
        ScopedTimeZone zone("Asia/Tokyo");
        tokyo = dyn_cast<Date>(readXML(doc("<date>2010-11-12T13:14:15Z</date>")).value)->timeIntervalSinceReferenceDate();
    }
    EXPECT_EQ(utc - tokyo, 9 * 3600);
}

// --- Reading: every refusal ---------------------------------------------------------------

TEST(XMLPropertyListReader, DocumentLevelRefusals) {
    struct Case {
        std::string text;
        std::int64_t code;
        Log log;
    };
    const std::vector<Case> cases = {
        {doc("<true/>", "version=\"0.9\""), 3841, {"we might not be able to handle this plist version: <0.9>"}},
        {doc("<true/>", ""), 3841, {"we might not be able to handle this plist version: <>"}},
        {doc(""), 3840, {"no root element in plist"}},
        {doc("<true/><false/>"), 3840, {"more than one root element in plist"}},
        {"<?xml version=\"1.0\"?><dict/>", 3840, {"not a plist"}},
        {doc("<dict><key>a</key><string/><key>b</key></dict>"), 3840, {}},
        {doc("<dict><string>a</string><string/></dict>"), 3840, {}},
        {doc("<array><true/><nope/></array>"), 3840, {"Error: unknown tag <nope>"}},
        {doc("<key>a</key>"), 3840, {"Error: unknown tag <key>"}},
        {doc("<integer/>"), 256, {}},
        {doc("<real></real>"), 256, {}},
    };
    for (const auto& c : cases) {
        auto r = readXML(c.text);
        EXPECT_FALSE(r.value) << c.text;
        EXPECT_TRUE(isError(r.error, NSCocoaErrorDomain, c.code)) << c.text;
        EXPECT_EQ(r.log, c.log) << c.text;
    }
}

TEST(XMLPropertyListReader, TextThatDoesNotParseIsNothingWithoutAnError) {
    for (const std::string body : {"<integer>42xy</integer>", "<real>1.5.5</real>", "<data>QQ=Q</data>",
                                   "<array><integer>1</integer><integer>x</integer></array>"}) {
        auto r = readXML(doc(body));
        EXPECT_FALSE(r.value) << body;
        EXPECT_FALSE(r.error) << body;
    }
}

TEST(XMLPropertyListReader, NumberTextDecidesTheKind) {
    const auto number = [](const std::string& body) { return dyn_cast<Number>(readXML(doc(body)).value); };
    EXPECT_FALSE(number("<integer>1.5</integer>")->isBoolean());
    EXPECT_TRUE(number("<integer>1.5</integer>")->isReal());
    EXPECT_FALSE(number("<real>2</real>")->isReal());
    EXPECT_EQ(number("<integer> -17 </integer>")->int64Value(), -17);
    EXPECT_EQ(number("<integer>+5</integer>")->int64Value(), 5);
    EXPECT_EQ(number("<integer>18446744073709551615</integer>")->uint64Value(), UINT64_MAX);
    EXPECT_TRUE(number("<integer>18446744073709551616</integer>")->isReal());
    EXPECT_EQ(number("<real>-infinity</real>")->doubleValue(), -INFINITY);
    EXPECT_TRUE(std::isnan(number("<real>nan</real>")->doubleValue()));
    EXPECT_EQ(number("<real>1e400</real>")->doubleValue(), INFINITY);
}

TEST(XMLPropertyListReader, TextContentOfElements) {
    auto r = readXML(doc("<array>\n  <string> two  spaces </string>\n  <string><![CDATA[<raw> & text]]></string>\n"
                         "  <string>a<!-- note -->b</string>\n  <data>\n\tAAEC\n\tAw==\n</data>\n  <data/>\n"
                         "  <dict><key/><string>empty key</string></dict>\n</array>"));
    auto a = dyn_cast<Array>(r.value);
    ASSERT_TRUE(a) << (r.log.empty() ? "" : r.log.back());
    ASSERT_EQ(a->count(), 6u);
    EXPECT_EQ(dyn_cast<String>((*a)[0])->utf8(), " two  spaces ");
    EXPECT_EQ(dyn_cast<String>((*a)[1])->utf8(), "<raw> & text");
    EXPECT_EQ(dyn_cast<String>((*a)[2])->utf8(), "ab");
    EXPECT_EQ(std::string(dyn_cast<Data>((*a)[3])->view()), std::string("\0\1\2\3", 4));
    EXPECT_EQ(dyn_cast<Data>((*a)[4])->length(), 0u);
    EXPECT_EQ(dyn_cast<Dictionary>((*a)[5])->get<String>("")->utf8(), "empty key");
    // A repeated key keeps its last value.
    auto d = dyn_cast<Dictionary>(readXML(doc("<dict><key>k</key><true/><key>k</key><false/></dict>")).value);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->count(), 1u);
    EXPECT_FALSE(dyn_cast<Number>(d->objectForKey("k"))->boolValue());
}

TEST(XMLPropertyListReader, ParserFailuresCarryTheParsersErrorAndPosition) {
    auto r = readXML("<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<array><true/></plist>");
    EXPECT_FALSE(r.value);
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->domain(), "NSXMLParserErrorDomain");
    EXPECT_NE(r.error->localizedDescription().find("line 3"), std::string::npos) << r.error->localizedDescription();
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_NE(r.log[0].find("line 3"), std::string::npos);
    EXPECT_TRUE(isError(readXML("").error, "NSXMLParserErrorDomain", 4));
    EXPECT_FALSE(PLS::XMLPropertyListWithData(nullptr, nullptr));
}

// --- Hostile documents -------------------------------------------------------------------------

TEST(XMLPropertyListHardening, EntitiesAreNeitherFetchedNorAllowedToExplode) {
    // An external entity names a file that exists; its text must not appear.
    const std::string external =
        "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY x SYSTEM \"file://" QX_PLIST_TESTDATA_DIR
        "/README.md\">]>\n<plist version=\"1.0\"><string>[&x;]</string></plist>";
    auto r = readXML(external);
    if (r.value) {
        EXPECT_EQ(dyn_cast<String>(r.value)->utf8(), "[]");
    }

    std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [<!ENTITY l0 \"lollollollollollollollollol\">";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    laughs += "]>\n<plist version=\"1.0\"><string>&l9;</string></plist>";
    r = readXML(laughs);
    EXPECT_FALSE(r.value);
    EXPECT_TRUE(r.error);
}

TEST(XMLPropertyListHardening, DeepNestingTruncationAndDamageFailCleanly) {
    std::string deep;
    for (int i = 0; i < 5000; ++i) deep += "<array>";
    auto r = readXML(doc(deep));
    EXPECT_FALSE(r.value);
    EXPECT_TRUE(r.error);

    ScopedTimeZone utc("UTC");
    const std::string file(fixture("cpython/testdata-apple.xml")->view());
    ASSERT_GT(file.size(), 500u);
    for (std::size_t n = 0; n < file.rfind("</plist>"); n += 7) {
        Ref<Error> error;
        auto value = PLS::XMLPropertyListWithData(Data::withString(file.substr(0, n)), &error);
        EXPECT_FALSE(value) << n;
        EXPECT_TRUE(error) << n;
    }
    std::string damaged = file;
    std::uint32_t seed = 12345;
    for (int round = 0; round < 300; ++round) {
        seed = seed * 1103515245u + 12345u;
        damaged[seed % damaged.size()] = "<>/&;\"x\0\xff"[(seed >> 16) % 9];
        Ref<Error> error;
        auto value = PLS::XMLPropertyListWithData(Data::withString(damaged), &error);
        if (!value && error) {
            EXPECT_TRUE(error->domain() == "NSXMLParserErrorDomain" || error->domain() == NSCocoaErrorDomain);
        }
    }
}

// --- Helpers and entry points --------------------------------------------------------------------

TEST(XMLPropertyListEntryPoints, Base64AndRouting) {
    for (std::size_t n = 0; n < 7; ++n) {
        auto bytes = Data::withString(std::string("\xff\x00\x7f\x80\x01\xfe", n));
        auto text = PLS::base64StringWithData(bytes);
        EXPECT_EQ(text->utf8().find('\n'), std::string::npos);
        EXPECT_TRUE(PLS::dataWithBase64String(*text)->isEqual(*bytes)) << n;
    }
    EXPECT_EQ(PLS::base64StringWithData(Data::withString("ab"))->utf8(), "YWI=");
    EXPECT_EQ(std::string(PLS::dataWithBase64String(String(" Y W\nI = "))->view()), "ab");
    EXPECT_FALSE(PLS::dataWithBase64String(String("Y")));
    EXPECT_FALSE(PLS::dataWithBase64String(String("YQ==YQ==")));

    QXPropertyListFormat format = 0;
    auto value = PLS::propertyListWithData(Data::withString(doc("<string>s</string>")), &format, nullptr);
    EXPECT_TRUE(value && value->isEqual(*str("s")));
    EXPECT_EQ(format, 100u);
    // UTF-16 with a byte-order mark is not sniffed as XML; the fallback still reads it as XML.
    format = 0;
    value = PLS::propertyListWithData(fixture("dd-plist/test-xml-utf-16le-bom.plist"), &format, nullptr);
    EXPECT_TRUE(value);
    EXPECT_EQ(format, 100u);

    auto element = PLS::xmlElementWithPropertyList(str("x"));
    ASSERT_TRUE(element);
    auto back = PLS::propertyListFromXMLNode(*element);
    EXPECT_TRUE(back && back->isEqual(*str("x")));
}
