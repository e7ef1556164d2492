// QxPlistXMLOutputTests.cpp - `qx plist convert --format xml` writes what the library prints
// and, without parsing every document again, still refuses one that would not read back.
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/String.h>

using namespace qxtest;
using PLS = QXPropertyListSerialization;

TEST_F(QxProcessTest, XMLOutputIsThePrintedDocumentAndOnlyOneThatReadsBack) {
    for (const std::string& last : {std::string("a & b \u00e9"), std::string("b\x02")}) {
        const auto value = std::make_shared<qx::Array>(qx::Array{qx::str(last), qx::str(std::string(2u << 20, 'x'))});
        const auto input = dir() / "in.plist", output = work() / "out.xml";
        writeFile(input, toString(PLS::binaryDataWithPropertyList(value)));
        const QxRun run = runQx({"plist", "convert", "--format", "xml", input.string(), "-o", output.string()});
        if (last.back() != '\x02') {
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_EQ(readFile(output), toString(PLS::xmlDataWithPropertyList(value)));
            std::filesystem::remove(output);
        } else {
            EXPECT_NE(run.err.find("would not read back"), std::string::npos) << run.describe();
            EXPECT_FALSE(std::filesystem::exists(output));
        }
    }
}
