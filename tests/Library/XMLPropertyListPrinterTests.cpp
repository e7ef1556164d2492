// XMLPropertyListPrinterTests.cpp - the printer's word that a document reads back. Writers
// that refuse to leave a file they cannot read skip the parse when the printer vouches, so
// a wrong "reads back" would let an unreadable file through; a wrong "not sure" only costs
// time. Every fixture is also checked: whatever the printer vouches for must read.

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXXMLPlistPrinter.h"
#include "PlistFixtures.h"
#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Set.h>
#include <qx/String.h>

using namespace qx;
using namespace qxtest;
using namespace plisttest;
using PLS = QXPropertyListSerialization;

namespace {

struct Vouched {
    bool readsBack = false;
    bool sameBytes = false;
};

Vouched print(const Ref<Object>& value) {
    Vouched v;
    auto document = QXXMLPlistInternal::xmlDocumentWithPropertyList(value, &v.readsBack, nullptr);
    auto plain = PLS::xmlDataWithPropertyList(value);
    v.sameBytes = document && plain ? document->view() == plain->view() : !document && !plain;
    return v;
}

} // namespace

TEST(XMLPropertyListPrinter, VouchesOnlyForTextTheParserTakes) {
    const std::string megabyte(1u << 20, 'a');
    struct Row {
        Ref<Object> value;
        bool readsBack;
    };
    const std::vector<Row> table = {
        {dict({{"k & <l>", str("a & <b> \r\n\t\x7f \u00e9\u4e2d\U0001F600 \U0010FFFF")}, {"n", Number::withDouble(1.5)},
               {"i", Number::withDouble(INFINITY)}, {"d", Data::withString("\x01\x02")},
               {"t", Date::withTimeIntervalSinceReferenceDate(1e9)}, {"u", QXUIDPropertyList::initWithInt64Value(3)}}),
         true},
        {str(megabyte), true},
        // Longer texts are left to a read-back, though this one would read.
        {str(megabyte + "a"), false},
        // C0 controls other than tab, line feed and carriage return are not XML characters.
        {str("a\x01"), false},
        {std::make_shared<Array>(Array{str("x"), str(std::string("\0", 1))}), false},
        {dict({{"\x1f", str("v")}}), false},
        // Malformed UTF-8: a stray continuation byte, a truncated sequence, an overlong form,
        // a surrogate, a code point above U+10FFFF; and the non-characters U+FFFE and U+FFFF.
        {str("\x80"), false},
        {str("\xe4\xb8"), false},
        {str("\xc0\xaf"), false},
        {str("\xed\xa0\x80"), false},
        {str("\xf4\x90\x80\x80"), false},
        {str("\xef\xbf\xbe"), false},
        {str("\xef\xbf\xbf"), false},
    };
    for (const auto& row : table) {
        const std::string text = describe(row.value.get());
        SCOPED_TRACE(text.substr(0, 80));
        const Vouched v = print(row.value);
        EXPECT_TRUE(v.sameBytes);
        EXPECT_EQ(v.readsBack, row.readsBack);
        EXPECT_TRUE(!v.readsBack || PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(row.value)));
    }
    // What is refused stays refused, with nothing vouched for.
    bool readsBack = true;
    EXPECT_FALSE(QXXMLPlistInternal::xmlDocumentWithPropertyList(Set::create(), &readsBack, nullptr));
}

TEST(XMLPropertyListPrinter, TextsItDoesNotVouchForAreOnesTheReaderRefuses) {
    // Not vouching is no mere caution for these: reading the document fails.
    for (const std::string bad : {"a\x01", "\x80", "\xc0\xaf", "\xed\xa0\x80", "\xef\xbf\xbe"}) {
        Ref<Error> error;
        EXPECT_FALSE(PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(str(bad)), &error)) << bad;
        EXPECT_TRUE(error) << bad;
    }
}

TEST(XMLPropertyListPrinter, EveryFixtureItVouchesForReadsBack) {
    std::size_t vouched = 0;
    for (const auto& format : {"binary", "xml"}) {
        for (const auto& entry : fixtures(format)) {
            auto value = PLS::propertyListWithData(fixture(entry.file), nullptr);
            if (!value) continue;
            SCOPED_TRACE(entry.file);
            const Vouched v = print(value);
            EXPECT_TRUE(v.sameBytes);
            if (!v.readsBack) continue;
            ++vouched;
            EXPECT_TRUE(PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(value)));
        }
    }
    EXPECT_GT(vouched, 50u);
}
