// QxPlistXMLOutputTests.cpp - `qx plist convert --format xml` writes what the library prints,
// and still refuses a document that would not read back although it no longer parses
// every document again.
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/String.h>

namespace fs = std::filesystem;
using namespace qxtest;
using PLS = QXPropertyListSerialization;

TEST_F(QxProcessTest, XMLOutputIsThePrintedDocumentAndOnlyOneThatReadsBack) {
    struct Case {
        std::string name;
        qx::Ref<qx::Object> value;
        bool written;
    };
    for (const auto& c : std::vector<Case>{
             {"plain", std::make_shared<qx::Array>(qx::Array{qx::str("a & b \u00e9"), qx::str(std::string(2u << 20, 'x'))}), true},
             {"control", std::make_shared<qx::Array>(qx::Array{qx::str("a"), qx::str("b\x02")}), false}}) {
        SCOPED_TRACE(c.name);
        const fs::path input = dir() / (c.name + ".plist");
        writeFile(input, toString(PLS::binaryDataWithPropertyList(c.value)));
        const fs::path output = work() / (c.name + ".xml");
        const QxRun run = runQx({"plist", "convert", "--format", "xml", input.string(), "-o", output.string()});
        if (c.written) {
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_EQ(readFile(output), toString(PLS::xmlDataWithPropertyList(c.value)));
        } else {
            EXPECT_NE(run.exitStatus, 0);
            EXPECT_NE(run.err.find("would not read back"), std::string::npos) << run.err;
            EXPECT_FALSE(fs::exists(output));
        }
    }
}
