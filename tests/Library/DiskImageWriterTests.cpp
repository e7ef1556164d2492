// DiskImageWriterTests.cpp - the disk-image writer: raw disks (a GPT disk with
// two partitions, a bare file system) through every format and back, read by
// our reader and by 7-Zip; the licence; failures that leave nothing behind.
#include "QxProcessTest.h"
#include "TestSupport.h"

#include "Internal/QXUDIFChunkEncoder.h"
#include "Internal/QXUDIFLicense.h"

#include <QXFoundation/QXDiskImage.h>
#include <QXFoundation/QXDiskImageWriter.h>

#include <qx/URL.h>

#include <map>

using namespace qxtest;

namespace {

bool inCI() { return std::getenv("CI") && std::string(std::getenv("CI")) == "true"; }
bool hasTool(const std::string& name) { return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0; }
int sh(const std::string& command) { return std::system(("bash -c " + shellQuote(command + " >/dev/null 2>&1")).c_str()); }

qx::Ref<QXDiskImage> openPath(const std::string& path, qx::Ref<qx::Error>* error = nullptr) {
    return QXDiskImage::imageWithContentsOfURL(qx::URL::fileURLWithPath(path), error);
}

// Disks made at test time: a 6 MiB GPT disk whose partitions hold an ext4 file
// system and 3 MiB of text with short and long zero runs (so that a table has
// several chunks), and that file system alone.
class DiskImageWriterTest : public ::testing::TestWithParam<QXDiskImageFormat> {
protected:
    void SetUp() override {
        for (const char* tool : {"sfdisk", "mkfs.ext4"})
            if (!hasTool(tool)) {
                if (inCI()) FAIL() << tool << " is missing (scripts/setup.sh installs it)";
                GTEST_SKIP() << tool << " is not installed";
            }
        std::filesystem::create_directory(dir_ / "tree");
        writeFile(dir_ / "tree/text", makePayload(200000, 3));
        writeFile(dir_ / "tree/random", randomBytes(70000, 4));
        ASSERT_EQ(sh("mkfs.ext4 -q -d " + dir_ / "tree" + " " + fs() + " 1M"), 0);
        Bytes data = makePayload(3 << 20, 5);
        std::fill_n(data.begin() + 4096, 63 * 512, 0);     // stays inside its chunk
        std::fill_n(data.begin() + 65536, 300 * 512, 0);  // becomes zero fill
        writeFile(disk(), Bytes(6 << 20, 0));
        ASSERT_EQ(sh("printf 'label: gpt\\nstart=2048, size=2048, name=files\\nstart=4096, size=6144, name=text\\n' | "
                     "sfdisk -q " + disk()), 0);
        ASSERT_EQ(sh("dd if=" + fs() + " of=" + disk() + " bs=512 seek=2048 conv=notrunc"), 0);
        Bytes whole = readBytes(disk());
        std::copy(data.begin(), data.end(), whole.begin() + 4096 * 512);
        writeFile(disk(), whole);
    }
    std::string disk() const { return dir_ / "disk.img"; }
    std::string fs() const { return dir_ / "fs.img"; }

    std::string write(const std::string& raw, qx::Ref<QXDiskImageWriter> writer = nullptr) {
        if (!writer) writer = QXDiskImageWriter::writerWithFormat(GetParam());
        writer->setThreadCount(2);
        auto source = openPath(raw);
        const std::string target = dir_ / "out.dmg";
        qx::Ref<qx::Error> error;
        EXPECT_TRUE(source && writer->writeImage(*source, target, &error)) << (error ? error->localizedDescription() : "");
        return target;
    }

    TempDir dir_{"qx-dmg-writer"};
};

std::string nameOf(QXDiskImageFormat format) {
    for (const char* name : {"UDRO", "UDZO", "UDBZ", "ULMO"})
        if (QXDiskImageWriter::formatNamed(name) == format) return name;
    return "";
}

TEST_P(DiskImageWriterTest, RoundTripsThroughOurReader) {
    struct Case {
        std::string raw;
        std::uint32_t variant;
        std::vector<std::pair<std::string, std::uint64_t>> tables;  // name and first sector
    };
    const Case cases[] = {
        {disk(), 1, {{"Protective Master Boot Record", 0}, {"GPT Header and Partition Data", 1}, {"files", 2048},
                     {"text", 4096}, {"GPT Partition Data and Header", 10240}}},
        {fs(), 2, {{"whole disk", 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.raw);
        qx::Ref<qx::Error> error;
        auto image = openPath(write(c.raw), &error);
        ASSERT_TRUE(image) << error->localizedDescription();
        EXPECT_EQ(image->formatName(), nameOf(GetParam()));
        EXPECT_EQ(image->imageVariant(), c.variant);
        EXPECT_EQ(toBytes(image->readDataInRange(0, image->size())), readBytes(c.raw));
        QXDiskImageVerification verification;
        ASSERT_TRUE(image->verifyChecksums(&verification));
        const auto passed = QXDiskImageVerification::State::Passed;
        EXPECT_EQ(verification.partitions, std::vector<QXDiskImageVerification::State>(c.tables.size(), passed));
        EXPECT_EQ(verification.master, passed);
        EXPECT_EQ(verification.dataFork, passed);
        ASSERT_EQ(image->partitions().size(), c.tables.size());
        for (std::size_t i = 0; i < c.tables.size(); ++i) {
            EXPECT_EQ(image->partitions()[i].name, c.tables[i].first);
            EXPECT_EQ(image->partitions()[i].firstSector, c.tables[i].second);
        }
    }
}

// 7-Zip's extraction is one file per table, numbered in disk order.
TEST_P(DiskImageWriterTest, SevenZipExtractsTheRawDisk) {
    if (!hasTool("7zz")) {
        if (inCI()) FAIL() << "7zz is missing (scripts/setup.sh installs it)";
        GTEST_SKIP() << "7zz is not installed";
    }
    for (const std::string& raw : {disk(), fs()}) {
        SCOPED_TRACE(raw);
        const std::string image = write(raw), out = dir_ / "x";
        std::filesystem::remove_all(out);
        ASSERT_EQ(sh("7zz l -tdmg " + image), 0);
        ASSERT_EQ(sh("7zz x -tdmg -y -o" + out + " " + image), 0);
        std::map<int, std::string> parts;
        for (const auto& entry : std::filesystem::directory_iterator(out))
            parts[std::stoi(entry.path().filename().string())] = readFile(entry.path());
        std::string joined;
        for (const auto& part : parts) joined += part.second;
        EXPECT_TRUE(joined == readFile(raw)) << "7-Zip's extraction differs from the disk";
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, DiskImageWriterTest,
                         ::testing::Values(QXDiskImageFormat::UDRO, QXDiskImageFormat::UDZO, QXDiskImageFormat::UDBZ,
                                           QXDiskImageFormat::ULMO),
                         [](const auto& info) { return nameOf(info.param); });

using DiskImageWriterLicenseTest = DiskImageWriterTest;

TEST_F(DiskImageWriterLicenseTest, AgreementReadsBackAndBadTextIsRefused) {
    auto writer = QXDiskImageWriter::writerWithFormat(QXDiskImageFormat::UDZO);
    const std::string text = "Terms \xE2\x80\x9C" "caf\xC3\xA9\xE2\x80\x9D\r\nsecond line\nthird";
    ASSERT_TRUE(writer->setLicenseAgreement(text));
    auto image = openPath(write(fs(), writer));
    ASSERT_TRUE(image);
    EXPECT_TRUE(image->hasLicenseAgreement());
    EXPECT_EQ(image->licenseAgreement().value_or(""), "Terms \xE2\x80\x9C" "caf\xC3\xA9\xE2\x80\x9D\nsecond line\nthird");
    // Stored as classic readers show it: Mac OS Roman, CR line ends.
    QXUDIF::Resources resources;
    std::string reason;
    ASSERT_TRUE(QXUDIF::License::addEnglish("caf\xC3\xA9\nend", resources, &reason));
    EXPECT_EQ(resources.find("TEXT", 5000)->data, toBytes("caf\x8E\rend"));
    for (const std::string bad : {"\xFF\xFE", "smile \xF0\x9F\x98\x80"}) {
        qx::Ref<qx::Error> error;
        EXPECT_FALSE(writer->setLicenseAgreement(bad, &error));
        EXPECT_TRUE(isError(error, kQXDiskImageErrorDomain, kQXDiskImageErrorInvalidLicense));
    }
}

// A source that fails half way, or a level out of range, leaves the target as
// it was and nothing beside it.
TEST_F(DiskImageWriterLicenseTest, FailureLeavesTheTargetAlone) {
    auto writer = QXDiskImageWriter::writerWithFormat(QXDiskImageFormat::UDZO);
    writer->setThreadCount(2);
    const std::string raw = readFile(disk());
    const std::string good = write(disk(), writer);
    Bytes damaged = readBytes(good);
    damaged[damaged.size() / 2] ^= 0xFF;  // inside some compressed chunk
    TempDir out("qx-dmg-out");
    const std::string target = out.file("target.dmg", "before");
    auto source = QXDiskImage::imageWithData(toData(damaged));
    ASSERT_TRUE(source);
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(writer->writeImage(*source, target, &error));
    EXPECT_TRUE(isError(error, kQXDiskImageErrorDomain, kQXDiskImageErrorCorrupt));
    writer->setCompressionLevel(10);
    EXPECT_FALSE(writer->writeImage(*openPath(disk()), target, &error));
    EXPECT_TRUE(isError(error, kQXDiskImageErrorDomain, kQXDiskImageErrorInvalidLevel));
    EXPECT_EQ(out.names(), std::vector<std::string>{"target.dmg"});
    EXPECT_EQ(readFile(target), "before");
}

TEST(DiskImageChunkEncoder, ZeroRunsShortOnesStayInTheData) {
    using QXUDIF::ChunkEncoder;
    struct Case {
        std::uint64_t zeroFrom, zeroTo, count;
        std::vector<std::uint64_t> runs;  // sector counts, alternating data and zero fill from the first kind
        bool startsWithZero;
    };
    const std::uint64_t m = ChunkEncoder::kMinZeroRun;
    const Case cases[] = {
        {10, 10 + m - 1, 2048, {2048}, false},
        {10, 10 + m, 2048, {10, m, 2048 - 10 - m}, false},
        {0, 2048, 2048, {2048}, true},
        {0, 3, 3, {3}, true},                  // a whole short piece of zeros
        {2048 - m, 2048, 2048, {2048 - m, m}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.zeroFrom << ".." << c.zeroTo);
        Bytes sectors(c.count * 512, 0x5A);
        std::fill(sectors.begin() + c.zeroFrom * 512, sectors.begin() + c.zeroTo * 512, 0);
        const auto runs = ChunkEncoder::runs(sectors.data(), c.count);
        ASSERT_EQ(runs.size(), c.runs.size());
        std::uint64_t at = 0;
        for (std::size_t i = 0; i < runs.size(); ++i) {
            EXPECT_EQ(runs[i].firstSector, at);
            EXPECT_EQ(runs[i].sectorCount, c.runs[i]);
            EXPECT_EQ(runs[i].type == QXUDIF::kChunkZeroFill, c.startsWithZero == (i % 2 == 0));
            at += runs[i].sectorCount;
        }
    }
}

} // namespace
