// QxImageCommandTests.cpp - `qx image`, run as a child process: what each verb
// prints, its exit status, the sparse raw output, and one-line failures.
#include "DiskImageFixtures.h"
#include "LegacyZipFixtures.h"
#include "QxProcessTest.h"
#include "TestSupport.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Dictionary.h>
#include <qx/String.h>

using namespace qxtest;
using diskimage::fixturePath;

namespace {

class QxImage : public QxProcessTest {
protected:
    QxRun image(std::vector<std::string> args) {
        args.insert(args.begin(), "image");
        return runQx(args);
    }
    std::string damaged() const {
        Bytes file = diskimage::fixture("nodeudif-compression-zlib.dmg");
        file[file.size() - 512 + 360] ^= 1;  // the master checksum
        return input("damaged.dmg", file);
    }
};

TEST_F(QxImage, VerbsPrintWhatTheImageHolds) {
    struct Row { std::vector<std::string> args; std::string expected; };
    const Row rows[] = {
        {{"info", fixturePath("dmglicense-empty.dmg")}, "partition 4: disk image (Apple_HFS) number 3 start 40 length 2944\n"},
        {{"info", fixturePath("nodeudif-compression-bz2.dmg")}, "format: UDBZ (UDIF read-only compressed (bzip2))\n"},
        {{"verify", fixturePath("nodeudif-compression-adc.dmg")}, "master checksum: ok\n"},
        {{"license", fixturePath("generated-sla-nodeudif-compression-zlib.dmg")}, "SAMPLE LICENCE AGREEMENT (test fixture)\n\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args[0]);
        const auto run = image(row.args);
        EXPECT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_NE(run.out.find(row.expected), std::string::npos) << run.out;
    }
}

TEST_F(QxImage, InfoPlistIsAPropertyListFirstThing) {
    const auto run = image({"info", "--plist", fixturePath("generated-sla-nodeudif-compression-zlib.dmg")});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out.rfind("<?xml", 0), 0u);
    auto plist = qx::dyn_cast<qx::Dictionary>(QXPropertyListSerialization::propertyListWithData(toData(run.out), nullptr));
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->get<qx::String>("Format")->utf8(), "UDZO");
    EXPECT_EQ(plist->get<qx::String>("Checksum Value")->utf8(), "$2B76E491");
    auto properties = plist->get<qx::Dictionary>("Properties");
    ASSERT_TRUE(properties);
    EXPECT_TRUE(properties->get<qx::Number>("Software License Agreement")->boolValue());
}

TEST_F(QxImage, VerifyFailsOnAMismatch) {
    const auto run = image({"verify", damaged()});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find("master checksum: MISMATCH"), std::string::npos) << run.out;
    EXPECT_EQ(run.errLines(), 1u) << run.describe();
}

TEST_F(QxImage, ConvertWritesASparseRawDisk) {
    const std::string target = out();
    const auto run = image({"convert", fixturePath("dmglicense-empty.dmg"), "-o", target});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    const Bytes disk = readBytes(target);
    EXPECT_EQ(legacyzip::sha256Hex(disk), "0450acec759e06931fa93314fa440fd19ba787bc94c1be1cf700e97aa6e89729");
    struct stat info {};
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_LT(static_cast<std::uint64_t>(info.st_blocks) * 512, disk.size()) << "zero chunks became data, not holes";
}

// A sample to UDZO and back: the same disk, and a terminal-free run prints nothing.
TEST_F(QxImage, ConvertToUDIFAndBack) {
    const std::string udif = (dir() / "again.dmg").string();
    const auto run = image({"convert", fixturePath("nodeudif-gpt.dmg"), "-o", udif, "--format", "UDZO", "-T", "2"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(run.err.empty() && run.out.empty()) << run.describe();
    ASSERT_EQ(image({"convert", udif, "-o", out()}).exitStatus, 0);
    ASSERT_EQ(image({"convert", fixturePath("nodeudif-gpt.dmg"), "-o", (dir() / "direct").string()}).exitStatus, 0);
    EXPECT_EQ(readBytes(out()), readBytes(dir() / "direct"));
}

TEST_F(QxImage, FailuresAreOneLine) {
    struct Row { const char* label; std::vector<std::string> args; std::string name; };
    Bytes encrypted = randomBytes(4096, 1);
    std::copy_n("encrcdsa", 8, encrypted.begin());
    const std::string encryptedPath = input("locked.dmg", encrypted);
    const std::string missing = (dir() / "missing.dmg").string();
    const Row rows[] = {
        {"missing image", {"info", missing}, missing},
        {"encrypted image", {"info", encryptedPath}, encryptedPath},
        {"no agreement", {"license", fixturePath("nodeudif-gpt.dmg")}, fixturePath("nodeudif-gpt.dmg")},
        {"convert of a missing image", {"convert", missing, "-o", out()}, missing},
        {"unknown format", {"convert", fixturePath("nodeudif-gpt.dmg"), "-o", out(), "--format", "UDXX"}, "image convert"},
        {"level out of range", {"convert", fixturePath("nodeudif-gpt.dmg"), "-o", out(), "--format", "UDBZ", "--level", "0"},
         "image convert"},
        {"licence on raw output", {"convert", fixturePath("nodeudif-gpt.dmg"), "-o", out(), "--license", missing}, "image convert"},
        {"missing licence", {"convert", fixturePath("nodeudif-gpt.dmg"), "-o", out(), "--format", "UDZO", "--license", missing},
         missing},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        const auto run = image(row.args);
        expectOneLineFailure(run, row.name);
        EXPECT_TRUE(workEntries().empty()) << "output left behind";
    }
    EXPECT_NE(image({"info", encryptedPath}).err.find("encrypted"), std::string::npos);
}

} // namespace
