// XMLPropertyListStreamingTests.cpp - the XML reader builds values while it parses: failures found
// early still give way as a check of the finished document would, limits met mid-document fail the
// whole read, and freeing what was read loses nothing.

#include <QXFoundation/QXPropertyListSerialization.h>

#include "PlistFixtures.h"
#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

using namespace qx;
using namespace qxtest;
using namespace plisttest;
using PLS = QXPropertyListSerialization;

namespace {

const std::string kPlist = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">";

} // namespace

TEST(XMLPropertyListStreaming, EarlyFailuresGiveWayAsACheckOfTheWholeDocumentWould) {
    const std::string cocoa = NSCocoaErrorDomain, parser = "NSXMLParserErrorDomain";
    struct Case { std::string text; std::string domain; std::int64_t code; std::string log; };
    std::string deep;
    for (int i = 0; i < 251; ++i) deep += "<array>";
    const std::vector<Case> cases = {
        {kPlist + "<array><nope/></array><true/></plist>", cocoa, 3840, "more than one root element in plist"},
        {kPlist + "<array><nope/></array>", parser, 77, "XML parser error 77 at line 2, column 44: Premature end of data in tag plist line 2"},
        {kPlist + deep + "</plist>", parser, 77, ""},  // too deep for the reader, then malformed
        {"<?xml version=\"1.0\"?><plist version=\"0.9\"><true/><x></plist>", parser, 77, ""},
        {"<?xml version=\"1.0\"?><dict><true/><false/></dict>", cocoa, 3840, "not a plist"},
        {kPlist + "<dict><key>a</key><string>b</string><nope/></dict></plist>", cocoa, 3840, ""},
    };
    for (const auto& c : cases) {
        auto r = readXML(c.text);
        EXPECT_FALSE(r.value) << c.text.substr(0, 120);
        EXPECT_QX_ERROR(r.error, c.domain, c.code) << c.text.substr(0, 120);
        ASSERT_EQ(r.log.size(), c.log.empty() && c.domain == cocoa ? 0u : 1u) << c.text.substr(0, 120);
        if (!c.log.empty()) {
            EXPECT_EQ(r.log[0], c.log);
        } else if (c.domain == parser) {
            EXPECT_EQ(r.log[0].rfind("XML parser error " + std::to_string(c.code), 0), 0u);
        }
    }
}

TEST(XMLPropertyListStreaming, ATextNodeOverTheParsersLimitFailsTheReadInsteadOfCuttingItShort) {
    std::string text;
    for (int i = 0; i < 3'500'000; ++i) text += "ab&amp;";  // 10.5 million characters
    for (const std::string& body : {"<string>" + text + "</string>", "<array><true/>" + text + "<false/></array>"}) {
        auto r = readXML(kPlist + body + "</plist>");
        EXPECT_FALSE(r.value);
        EXPECT_QX_ERROR(r.error, "NSXMLParserErrorDomain", 2);
    }
}

TEST(XMLPropertyListStreaming, ValuesSurviveTheFreeingOfWhatWasRead) {
    auto big = Array::create();
    auto wide = Dictionary::create();
    for (int i = 0; i < 3000; ++i) {
        auto d = Dictionary::create();
        d->setObject(Number::withInt64(i), "id");
        d->setObject(str(std::string(i % 90, 'k')), std::string(i % 90, 'k'));  // keys long and short
        d->setObject(Array::create(), "empty");
        big->addObject(d);
        wide->setObject(str(std::to_string(i)), "key " + std::to_string(i));  // many keys: cache slots reused
    }
    big->addObject(wide);
    auto back = PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(big));
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->isEqual(*big));
    // Text, comments and entity references between and inside values.
    auto r = readXML("<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY e \"<b>x</b>&amp;\">]>"
                     "<plist version=\"1.0\"><array>t<!--c--><string>a<!--x-->b&e;</string> <string> </string>&e;"
                     "<dict> <key>k</key> <integer>1</integer> </dict></array></plist>");
    ASSERT_TRUE(r.value) << (r.log.empty() ? "" : r.log[0]);
    auto dict = Dictionary::create();
    dict->setObject(Number::withInt64(1), "k");
    EXPECT_TRUE(r.value->isEqual(Array{str("abx&"), str(" "), dict}));
}
