// StringAdditionsTests.cpp - QXStringAdditions and the text encodings under it.

#include "Internal/QXFoundationPrivate.h"
#include "ScopedLocale.h"

#include <QXFoundation/QXStringAdditions.h>

#include <qx/StringEncoding.h>

#include "TestSupport.h"

#include <set>

namespace SA = QXStringAdditions;
using qx::str;
using qxtest::TempDir;

TEST(StringAdditions, HexValueKeepsItsCapitalLetterQuirk) {
    const std::vector<std::pair<std::string, std::uint64_t>> cases = {
        {"0x1f", 31},   {"ff", 255},     {"FF", 0},       {"A0", 160},    {"  12  ", 18},
        {"1g2", 0},     {"", 0},         {"0x", 0},       {"zz0x10zz", 16}, {"Ab", 171},
        {"aB", 160},    {"CAFE", 0xA00}, {"\u00e912\u00e9", 18},          {"0x0x1", 0},
        {"ffffffffffffffff", UINT64_MAX}, {"10000000000000001", 1},  // wraps: only 16 digits count
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(SA::unsignedLongLongHexValue(qx::String(text)), expected) << text;
}

TEST(StringAdditions, DecimalValueScansLikeTheScanner) {
    const std::vector<std::pair<std::string, std::uint64_t>> cases = {
        {"42", 42}, {" \n\t 12abc", 12}, {"+7", 7}, {"-1", UINT64_MAX}, {"abc", 0}, {"", 0}, {"- 1", 0},
        {"9223372036854775807", INT64_MAX}, {"99999999999999999999", INT64_MAX},
        {"-9223372036854775808", 0x8000000000000000u}, {"-99999999999999999999", 0x8000000000000000u},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(SA::unsignedLongLongValue(qx::String(text)), expected) << text;
}

TEST(StringAdditions, PascalStringsAndFourCharCodes) {
    auto p = SA::pascalString(qx::String(std::string(300, 'x')));
    ASSERT_TRUE(p);
    EXPECT_EQ(std::string(p->view()), "\xff" + std::string(300, 'x')) << "the length byte stops at 255, the bytes do not";
    EXPECT_EQ(SA::stringWithPascalString(p->bytes())->utf8(), std::string(255, 'x'));
    EXPECT_FALSE(SA::stringWithPascalString(nullptr));
    EXPECT_EQ(std::string(SA::pascalString(qx::String(""))->view()), std::string(1, '\0'));
    EXPECT_FALSE(SA::pascalString(qx::String("\u65e5\u672c")));  // no Mac OS Roman form

    for (const auto& [text, code] : std::vector<std::pair<std::string, std::uint32_t>>{
             {"TEXT", 0x54455854}, {"TEXTS", 0x54455854}, {"TEX", 0}, {"\U0001F600\U0001F600", 0}})  // four UTF-16 units, no Mac OS Roman
        EXPECT_EQ(SA::fourCharCode(qx::String(text)), code) << text;
    EXPECT_EQ(SA::stringWithFourCharCode(0)->utf8(), "");
    EXPECT_EQ(SA::stringWithFourCharCode(0x41000042)->utf8(), std::string("A\0\0B", 4));
    // A few fixed points of the Mac OS Roman table, then every high byte both ways, each to its own character.
    EXPECT_EQ(SA::stringWithFourCharCode(0x80A5DBF0)->utf8(), "\u00c4\u2022\u20ac\uf8ff");
    const unsigned char pascal[] = {2, 0xF0, 'z'};
    EXPECT_EQ(std::string(SA::pascalString(*SA::stringWithPascalString(pascal))->view()), "\x02\xf0z");
    std::set<std::string> seen;
    for (unsigned b = 0x80; b <= 0xFF; ++b) {
        const std::uint32_t code = (b << 24) | 0x616263;  // b, "abc"
        EXPECT_EQ(SA::fourCharCode(qx::String(*seen.insert(SA::stringWithFourCharCode(code)->utf8()).first)), code) << b;
    }
    EXPECT_EQ(seen.size(), 128u) << "two bytes decoded to the same character";
}

TEST(StringAdditions, CStringBuffersEndAtTheFirstZeroByte) {
    const std::string utf16("h\0i\0", 4);  // whatever the encoding, it ends after one byte
    const auto utf8 = qx::NSUTF8StringEncoding;
    const std::vector<std::tuple<const char*, std::size_t, qx::StringEncoding, std::string>> cases = {
        {"ab\0cd", 5, utf8, "ab"}, {"abcd", 3, utf8, "abc"}, {nullptr, 4, utf8, ""}, {"a\xff", 2, utf8, ""},
        {"caf\x8e", 4, qx::NSMacOSRomanStringEncoding, "caf\u00e9"}, {"abc", 3, 0xDEAD, ""},  // an unknown encoding
        {utf16.data(), 4, qx::NSUTF16LittleEndianStringEncoding, ""},
    };
    for (const auto& [bytes, length, encoding, expected] : cases)
        EXPECT_EQ(SA::initWithCString(bytes, length, encoding)->utf8(), expected) << (bytes ? bytes : "(null)") << " " << length;
    EXPECT_EQ(SA::initWithCStringData(qx::Data::withString(std::string("xy\0z", 4)), qx::NSASCIIStringEncoding)->utf8(), "xy");
    EXPECT_EQ(SA::initWithCStringData(nullptr, qx::NSASCIIStringEncoding)->utf8(), "");
}

TEST(StringAdditions, RegexEscapingEscapesEveryMetacharacter) {
    EXPECT_EQ(SA::stringByEscapingRegexCharacters(qx::String("*?+[](){}^$|./\\x"))->utf8(),
              "\\*\\?\\+\\[\\]\\(\\)\\{\\}\\^\\$\\|\\.\\/\\\\x");
}

TEST(StringAdditions, URLStrings) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"abc:def", true}, {"a1:", true}, {"http://x", true}, {"\u00e9t\u00e9:x", true}, {"\u0661:x", true},
        {"abc", false},    {":x", false}, {"a b:c", false},   {"", false},               {"a-b:c", false},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(SA::isURLString(qx::String(text)), expected) << text;
}

TEST(StringAdditions, VersionStrings) {
    struct Case { std::string text; bool result; std::int64_t major, minor, bugfix; };  // -7: left untouched
    const std::vector<Case> cases = {
        {"10.6", true, 10, 6, -7},     {"10.", true, 10, -7, -7},      {"10", false, -7, -7, -7},
        {"10.6.8", true, 10, 6, 8},    {"10.6.8.2", true, 10, 6, 8},   {"1.x.3b", true, 1, 0, 3},
        {".5", true, 0, 5, -7},        {"2..4", true, 2, -7, 4},       {"", false, -7, -7, -7},
    };
    for (const auto& c : cases) {
        std::int64_t v[3] = {-7, -7, -7};
        EXPECT_EQ(SA::parseVersionStringAndReturnMajorVersion(qx::String(c.text), &v[0], &v[1], &v[2]), c.result) << c.text;
        EXPECT_EQ(std::vector<std::int64_t>(v, v + 3), (std::vector<std::int64_t>{c.major, c.minor, c.bugfix})) << c.text;
    }
    EXPECT_TRUE(SA::parseVersionStringAndReturnMajorVersion(qx::String("1.2.3"), nullptr, nullptr, nullptr));
}

TEST(StringAdditions, HTMLEncodingWithTheLibraryTable) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a<b&c", "a&lt;b&amp;c"}, {"@ = ?", "&#64; &#61; &#63;"}, {"caf\u00e9 \u20ac \u00a0", "caf&eacute; &euro; &nbsp;"},
        {"\U0001F600", "&#55357;&#56832;"},
        {"Safe: !\"#$%'()*+,-./:;[\\]^_`{|}~\r\n", "Safe: !\"#$%'()*+,-./:;[\\]^_`{|}~\r\n"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(SA::stringByEncodingForHTML(qx::String(text))->utf8(), expected) << text;
}

TEST(StringAdditions, HTMLEncodingWithoutTheTableAndWhenItAppears) {
    TempDir dir;
    {
        // The library bundle from the folder alone, no compiled-in resources; the normal one again after the block.
        QXFoundationInitializerWithResources(nullptr, 0, dir.path().c_str());
        const std::unique_ptr<void, void (*)(void*)> restore(&dir, [](void*) { QXFoundationInitializer(); });
        EXPECT_EQ(SA::stringByEncodingForHTML(qx::String("a<b&\u00e9"))->utf8(), "a&#60;b&#38;&#233;");

        // A table that is not ASCII text is not read.
        dir.file("Entities.txt", "<!ENTITY lt CDATA \"&#60;\" -- \xc3\xa9 -->");
        EXPECT_EQ(SA::stringByEncodingForHTML(qx::String("<"))->utf8(), "&#60;");

        // Once readable it is used at the next call: parameter entities and
        // other kinds are skipped, a later declaration replaces an earlier one.
        dir.file("Entities.txt",
                  "<!-- <!ENTITY % HTMLlat1 PUBLIC \"-//W3C//ENTITIES Latin 1//EN//HTML\"> -->\n"
                  "<!ENTITY lt CDATA \"&#60;\" -- less-than -->\n"
                  "<!ENTITY\tcommat   CDATA \"&#64;\">\n"
                  "<!ENTITY old CDATA \"&#233;\">\n<!ENTITY eacute CDATA \"&#233;\">\n"
                  "<!ENTITY sys SYSTEM \"&#38;\">\n<!ENTITY bad CDATA \"&#x26;\">\n<!ENTITY huge CDATA \"&#128512;\">\n");
        EXPECT_EQ(SA::stringByEncodingForHTML(qx::String("a<b@c&\u00e9"))->utf8(), "a&lt;b&commat;c&#38;&eacute;");
    }
    // The library's own table again after the bundle is restored.
    EXPECT_EQ(SA::stringByEncodingForHTML(qx::String("@&"))->utf8(), "&#64;&amp;");
}

TEST(StringAdditions, TextFilesFallBackOnTheDefaultEncoding) {
    TempDir dir;
    struct Case { std::string name, bytes, text; qx::StringEncoding encoding; };
    const std::string german = "Gr\u00fc\u00dfe aus K\u00f6ln! Die Stra\u00dfen sind sch\u00f6n und die B\u00e4ume gr\u00fcn.";
    const auto germanLatin1 = qx::dataUsingEncoding(qx::String(german), qx::NSISOLatin1StringEncoding);
    ASSERT_TRUE(germanLatin1);
    const std::vector<Case> cases = {
        {"utf8.txt", "caf\xc3\xa9\n", "caf\u00e9\n", qx::NSUTF8StringEncoding},
        {"utf16le.txt", std::string("\xff\xfeh\0i\0", 6), "hi", qx::NSUTF16LittleEndianStringEncoding},
        {"utf16be.txt", std::string("\xfe\xff\0h\0i", 6), "hi", qx::NSUTF16BigEndianStringEncoding},
        {"empty.txt", "", "", qx::NSUTF8StringEncoding},
        // Too short for any guess: Mac OS Roman decodes whatever bytes there are.
        {"roman.txt", "\x80\xff", "\u00c4\u02c7", qx::NSMacOSRomanStringEncoding},
        // A byte-order mark before bytes that do not decode is no answer either.
        {"odd16.txt", std::string("\xff\xfeh\0i", 5), std::string("\u02c7\u02dbh\0i", 7),
         qx::NSMacOSRomanStringEncoding},
    };
    for (const auto& c : cases) {
        qx::StringEncoding used = 0;
        qx::Ref<qx::Error> error;
        auto text = SA::initWithContentsOfFileFallingBackOnDefaultEncodingIfNecessary(dir.file(c.name, c.bytes), &used, &error);
        ASSERT_TRUE(text && !error) << c.name << ": " << qx::describe(error.get());
        EXPECT_EQ(text->utf8() + " " + std::to_string(used), c.text + " " + std::to_string(c.encoding)) << c.name;
    }
    // Latin-1 prose is recognised by its letters, whichever single-byte
    // encoding the detector names for it.
    qx::StringEncoding used = 0;
    auto text = SA::stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(
        qx::URL::fileURLWithPath(dir.file("latin1.txt", std::string(germanLatin1->view()))), &used);
    ASSERT_TRUE(text);
    EXPECT_EQ(text->utf8(), german);
    EXPECT_TRUE(used == qx::NSISOLatin1StringEncoding || used == qx::NSWindowsCP1252StringEncoding) << used;
}

TEST(StringAdditions, UnreadableTextFilesReportTheReadingError) {
    TempDir dir;
    const std::vector<std::tuple<qx::Ref<qx::URL>, std::int64_t, int>> cases = {  // URL, code, underlying errno
        {qx::URL::fileURLWithPath((dir.path() / "missing.txt").string()), 260, ENOENT},
        {qx::URL::fileURLWithPath(dir.path().string()), 256, EISDIR},
        {qx::URL::URLWithString("http://127.0.0.1/x.txt"), 262, -1},
        {nullptr, 262, -1},
    };
    for (const auto& [url, code, posix] : cases) {
        qx::StringEncoding used = 99;
        qx::Ref<qx::Error> error;
        EXPECT_FALSE(SA::stringWithContentsOfURLFallingBackOnDefaultEncodingIfNecessary(url, &used, &error));
        ASSERT_TRUE(error) << code;
        EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " + std::to_string(used),
                  std::string(qx::NSCocoaErrorDomain) + " " + std::to_string(code) + " 99");
        if (posix > 0) { EXPECT_EQ(error->underlyingError() ? error->underlyingError()->code() : -1, posix); }
    }
}

TEST(StringAdditionsLocale, NumericCaseInsensitiveCompareFollowsTheLocale) {
    // The same in English and German: numbers by value, case ignored, accents not.
    const std::vector<std::tuple<const char*, const char*, int>> common = {
        {"File10", "file9", 1}, {"ABC", "abc", 0}, {"x2y10", "x2y9", 1}, {"\u00e4", "a", 1}, {"\u00c4pfel", "Zebra", -1},
    };
    for (const char* locale : {"en_US", "de_DE"}) {
        ScopedLocale scoped(locale);
        for (const auto& [a, b, order] : common)
            EXPECT_EQ(SA::localizedCaseInsensitiveNumericCompare(qx::String(a), qx::String(b)), order) << locale << ": " << a;
    }
    // Swedish sorts "ä" after "z"; the comparison takes the locale in force at the call.
    ScopedLocale swedish("sv_SE");
    EXPECT_EQ(SA::localizedCaseInsensitiveNumericCompare(qx::String("\u00c4pfel"), qx::String("Zebra")), 1);
}

TEST(StringAdditionsLocale, FileSizesUseTheLocaleDecimalSeparator) {
    const std::vector<std::tuple<std::uint64_t, std::string, std::string>> cases = {
        {1023, "1023 bytes", "1023 bytes"},       {1024, "1.0 KiB", "1,0 KiB"},   {1048575, "1024.0 KiB", "1024,0 KiB"},
        {1048576, "1.0 MiB", "1,0 MiB"},          {1073741823, "1024.0 MiB", "1024,0 MiB"},
        {UINT64_MAX, "17179869184.0 GiB", "17179869184,0 GiB"},
    };
    for (const std::string locale : {"en_US", "de_DE"}) {
        ScopedLocale scoped(locale.c_str());
        for (const auto& [size, english, german] : cases)
            EXPECT_EQ(SA::formattedStringWithFileSize(size)->utf8(), locale == "en_US" ? english : german) << size;
    }
}
