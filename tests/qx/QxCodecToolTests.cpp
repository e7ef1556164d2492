// QxCodecToolTests.cpp - `qx checksum` and `qx zip`, run as child processes.

#include "TestSupport.h"
#include "DecompressorPayloads.h"
#include "LegacyZipFixtures.h"
#include "QxProcessTest.h"

#include <zlib.h>

namespace fs = std::filesystem;
using namespace qxtest;

namespace {

// A ZIP archive written by hand, so that every field can be made wrong.
struct ZipWriterEntry {
    std::string name;
    Bytes content;
    std::uint16_t method = 0;  // 0 stored, 8 deflated; anything else is written stored but labelled so
    std::uint16_t flags = 0;
    std::int64_t crcOverride = -1;
};

void put16(Bytes& b, unsigned v) { b.insert(b.end(), {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8)}); }
void put32(Bytes& b, std::uint32_t v) { put16(b, v & 0xFFFF); put16(b, v >> 16); }

Bytes makeZip(const std::vector<ZipWriterEntry>& entries) {
    Bytes file, directory;
    for (const auto& e : entries) {
        const Bytes data = e.method == 8 ? decompressorpayloads::deflateBytes(e.content, -15) : e.content;
        const auto crc = e.crcOverride >= 0 ? static_cast<std::uint32_t>(e.crcOverride)
                                            : static_cast<std::uint32_t>(crc32(0, e.content.data(), static_cast<uInt>(e.content.size())));
        const auto offset = static_cast<std::uint32_t>(file.size());
        auto header = [&](Bytes& b, bool central) {
            put32(b, central ? 0x02014b50 : 0x04034b50);
            if (central) put16(b, 20);
            for (unsigned v : {20u, unsigned{e.flags}, unsigned{e.method}, 0u, 0u}) put16(b, v);  // version, flags, method, time, date
            for (std::uint32_t v : {crc, std::uint32_t(data.size()), std::uint32_t(e.content.size())}) put32(b, v);
            for (unsigned v : {unsigned(e.name.size()), 0u}) put16(b, v);  // name and extra-field lengths
            if (central) {
                for (int i = 0; i < 5; ++i) put16(b, 0);  // comment, disk, internal and external attributes
                put32(b, offset);
            }
            b.insert(b.end(), e.name.begin(), e.name.end());
        };
        header(file, false);
        file.insert(file.end(), data.begin(), data.end());
        header(directory, true);
    }
    const auto directoryOffset = static_cast<std::uint32_t>(file.size());
    file.insert(file.end(), directory.begin(), directory.end());
    put32(file, 0x06054b50);
    for (unsigned v : {0u, 0u, unsigned(entries.size()), unsigned(entries.size())}) put16(file, v);
    for (std::uint32_t v : {std::uint32_t(directory.size()), directoryOffset}) put32(file, v);
    put16(file, 0);
    return file;
}

// Every file under root, relative; temporaries included, so leftovers show.
std::vector<std::string> filesUnder(const fs::path& root) {
    std::vector<std::string> files;
    if (!fs::exists(root)) return files;
    for (const auto& e : fs::recursive_directory_iterator(root))
        if (!fs::is_directory(e.symlink_status())) files.push_back(e.path().lexically_relative(root).string());
    std::sort(files.begin(), files.end());
    return files;
}

using QxCodecTool = QxProcessTest;

} // namespace

TEST_F(QxCodecTool, ChecksumsPrintOneLinePerFileInTheUsualForm) {
    const std::string nine = dir() / "nine", empty = dir() / "empty";
    writeFile(nine, "123456789");
    writeFile(empty, "");
    // The 32-bit sums are shown as numbers, the digests as their bytes.
    for (const auto& [algorithm, ofNine, ofEmpty] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"ADLER32", "091e01de", "00000001"},
             {"sha256", "15e2b0d3c33891ebb0f1ef609ec419420c20e320ce94c65fbc8c3312448eb225",
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"}}) {
        const QxRun run = runQx({"checksum", "-a", algorithm, nine, empty, "-"}, nine);
        EXPECT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(run.out, ofNine + "  " + nine + "\n" + ofEmpty + "  " + empty + "\n" + ofNine + "  -\n") << algorithm;
    }
}

TEST_F(QxCodecTool, ChecksumReportsUnreadableFilesAndRefusesOtherAlgorithms) {
    const std::string good = dir() / "good", missing = dir() / "missing";
    writeFile(good, "123456789");
    const QxRun run = runQx({"checksum", "-a", "crc32", missing, good, dir().string()});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, "cbf43926  " + good + "\n");
    EXPECT_EQ(run.errLines(), 2u) << run.err;
    EXPECT_EQ(run.err.rfind("qx: " + missing + ": " + std::strerror(ENOENT) + "\n", 0), 0u) << run.err;
    const QxRun refused = runQx({"checksum", "-a", "md5", good});
    EXPECT_TRUE(refused.exitStatus == 2 && refused.out.empty()) << refused.describe();
}

TEST_F(QxCodecTool, ListShowsEveryEntryAndExtractCanPickByName) {
    const std::string archive = dir() / "a.zip";
    const Bytes text = makePayload(5000);
    writeFile(archive, makeZip({{"dir/", {}}, {"dir/deflated.txt", text, 8}, {"stored.bin", {'x', 'y'}}}));
    const QxRun list = runQx({"zip", "list", archive});
    ASSERT_EQ(list.exitStatus, 0) << list.describe();
    char line[128];
    std::snprintf(line, sizeof line, "%12zu %12zu  deflated  %08lx  dir/deflated.txt\n", text.size(),
                  decompressorpayloads::deflateBytes(text, -15).size(), crc32(0, text.data(), static_cast<uInt>(text.size())));
    EXPECT_NE(list.out.find(line), std::string::npos) << list.out;
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 4);

    const fs::path out = dir() / "out";
    const QxRun run = runQx({"zip", "extract", archive, "-d", out.string(), "dir/deflated.txt", "nothere"});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.err, "qx: " + archive + ": nothere: no such entry in the archive\n");
    EXPECT_EQ(filesUnder(out), std::vector<std::string>{"dir/deflated.txt"});
    EXPECT_EQ(legacyzip::readBytes(out / "dir/deflated.txt"), text);
}

TEST_F(QxCodecTool, NamesThatLeaveTheDestinationAreRefused) {
    const std::string archive = dir() / "evil.zip";
    writeFile(archive, makeZip({{"../evil1", {'e'}}, {"/tmp/qx-evil-absolute", {'e'}}, {"a/../../evil2", {'e'}},
                                {"..\\evil3", {'e'}}, {"link/evil4", {'e'}}, {"ok/fine.txt", {'o', 'k'}}}));
    const fs::path out = dir() / "deep" / "out";
    fs::create_directories(out);
    fs::create_directories(dir() / "elsewhere");
    fs::create_symlink(dir() / "elsewhere", out / "link");
    const QxRun run = runQx({"zip", "extract", archive, "-d", out.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.errLines(), 5u) << run.err;
    EXPECT_EQ(filesUnder(dir() / "elsewhere"), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(dir() / "deep" / "evil1") || fs::exists(dir() / "evil2") || fs::exists("/tmp/qx-evil-absolute"));
    EXPECT_EQ(filesUnder(out), (std::vector<std::string>{"link", "ok/fine.txt"}));
}

TEST_F(QxCodecTool, DamagedEntriesFailAloneAndDamagedArchivesFailCleanly) {
    const Bytes text = makePayload(20000, 2);
    const std::string archive = dir() / "mixed.zip";
    writeFile(archive, makeZip({{"bad-crc", text, 8, 0, 0x12345678}, {"encrypted", {'s'}, 0, 1}, {"bzip2", {'b'}, 12}, {"good", text, 8}}));
    const fs::path out = dir() / "out";
    QxRun run = runQx({"zip", "extract", archive, "-d", out.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.errLines(), 3u) << run.err;
    for (const char* reason : {"bad-crc: CRC-32 mismatch", "encrypted: encrypted entries are not supported", "bzip2: compression method 12"})
        EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    EXPECT_EQ(filesUnder(out), std::vector<std::string>{"good"});

    // Not an archive at all, and an archive that needs ZIP64.
    writeFile(archive, randomBytes(100, 3));
    expectOneLineFailure(run = runQx({"zip", "list", archive}), archive);
    EXPECT_NE(run.err.find("not a ZIP archive"), std::string::npos) << run.err;
    Bytes zip64 = makeZip({{"x", {'x'}}});
    std::fill(zip64.end() - 6, zip64.end() - 2, 0xFF);  // the directory's offset
    writeFile(archive, zip64);
    expectOneLineFailure(run = runQx({"zip", "extract", archive, "-d", out.string()}), archive);
    EXPECT_NE(run.err.find("ZIP64 archives are not supported"), std::string::npos) << run.err;
}
