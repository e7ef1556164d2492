// XMLPropertyListPrinterTests.cpp - the printer's word that a document reads back: a wrong
// "reads back" lets qx write a file it cannot read, a wrong "not sure" only costs time.

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXXMLPlistPrinter.h"
#include "PlistFixtures.h"
#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/String.h>

using namespace qx;
using namespace qxtest;
using namespace plisttest;
using PLS = QXPropertyListSerialization;

namespace {

bool vouched(const Ref<Object>& value) {
    bool readsBack = false;
    QXXMLPlistInternal::xmlDocumentWithPropertyList(value, &readsBack, nullptr);
    return readsBack;
}

} // namespace

TEST(XMLPropertyListPrinter, VouchesOnlyForTextTheParserTakes) {
    const std::string megabyte(1u << 20, 'a');
    struct Row { Ref<Object> value; bool readsBack; };
    const std::vector<Row> table = {
        {dict({{"k & <l>", str("a & <b> \r\n\t\x7f \u00e9\u4e2d\U0001F600 \U0010FFFF")}, {"n", Number::withDouble(1.5)},
               {"i", Number::withDouble(INFINITY)}, {"d", Data::withString("\x01\x02")},
               {"t", Date::withTimeIntervalSinceReferenceDate(1e9)}, {"u", QXUIDPropertyList::initWithInt64Value(3)}}),
         true},
        {str(megabyte), true},
        // Longer texts are left to a read-back, though this one would read.
        {str(megabyte + "a"), false},
        // C0 controls other than tab, line feed and carriage return are not XML characters.
        {str("a\x01"), false}, {std::make_shared<Array>(Array{str("x"), str(std::string("\0", 1))}), false},
        {dict({{"\x1f", str("v")}}), false},
        // A stray continuation byte, a cut sequence, an overlong form, a surrogate, a code
        // point above U+10FFFF, the non-characters U+FFFE and U+FFFF.
        {str("\x80"), false}, {str("\xe4\xb8"), false}, {str("\xc0\xaf"), false}, {str("\xed\xa0\x80"), false},
        {str("\xf4\x90\x80\x80"), false}, {str("\xef\xbf\xbe"), false}, {str("\xef\xbf\xbf"), false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(describe(row.value.get()).substr(0, 80));
        EXPECT_EQ(vouched(row.value), row.readsBack);
        EXPECT_TRUE(!row.readsBack || PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(row.value)));
    }
}

TEST(XMLPropertyListPrinter, EveryFixtureItVouchesForReadsBack) {
    std::size_t count = 0;
    for (const auto& format : {"binary", "xml"}) {
        for (const auto& entry : fixtures(format)) {
            auto value = PLS::propertyListWithData(fixture(entry.file), nullptr);
            if (!value) continue;
            SCOPED_TRACE(entry.file);
            if (!vouched(value)) continue;
            ++count;
            EXPECT_TRUE(PLS::XMLPropertyListWithData(PLS::xmlDataWithPropertyList(value)));
        }
    }
    EXPECT_GT(count, 50u);
}
