// QxCodecToolTests.cpp - `qx checksum` and `qx zip`, run as child processes.
#include <gtest/gtest.h>

#include "JsonValue.h"
#include "LegacyZipFixtures.h"
#include "QxProcessTest.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace qxtest;

namespace {

using Bytes = std::vector<std::uint8_t>;

void writeBytes(const fs::path& p, const Bytes& bytes) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A ZIP archive written by hand, so that every field can be made wrong.
struct ZipWriterEntry {
    std::string name;
    Bytes content;
    std::uint16_t method = 0;  // 0 stored, 8 deflated; anything else is written stored but labelled so
    std::uint16_t flags = 0;
    std::int64_t crcOverride = -1;
};

void put16(Bytes& b, unsigned v) {
    b.push_back(static_cast<std::uint8_t>(v));
    b.push_back(static_cast<std::uint8_t>(v >> 8));
}
void put32(Bytes& b, std::uint32_t v) {
    put16(b, v & 0xFFFF);
    put16(b, v >> 16);
}

Bytes deflateRaw(const Bytes& in) {
    z_stream z{};
    deflateInit2(&z, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    Bytes out(deflateBound(&z, in.size()) + 16);
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

Bytes makeZip(const std::vector<ZipWriterEntry>& entries) {
    Bytes file, directory;
    for (const auto& e : entries) {
        const Bytes data = e.method == 8 ? deflateRaw(e.content) : e.content;
        const auto crc = e.crcOverride >= 0 ? static_cast<std::uint32_t>(e.crcOverride)
                                            : static_cast<std::uint32_t>(crc32(0, e.content.data(), static_cast<uInt>(e.content.size())));
        const auto offset = static_cast<std::uint32_t>(file.size());
        auto header = [&](Bytes& b, bool central) {
            put32(b, central ? 0x02014b50 : 0x04034b50);
            if (central) put16(b, 20);
            put16(b, 20);
            put16(b, e.flags);
            put16(b, e.method);
            put32(b, 0);
            put32(b, crc);
            put32(b, static_cast<std::uint32_t>(data.size()));
            put32(b, static_cast<std::uint32_t>(e.content.size()));
            put16(b, static_cast<unsigned>(e.name.size()));
            put16(b, 0);
            if (central) {
                put16(b, 0);
                put16(b, 0);
                put16(b, 0);
                put32(b, 0);
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
    put16(file, 0);
    put16(file, 0);
    put16(file, static_cast<unsigned>(entries.size()));
    put16(file, static_cast<unsigned>(entries.size()));
    put32(file, static_cast<std::uint32_t>(directory.size()));
    put32(file, directoryOffset);
    put16(file, 0);
    return file;
}

Bytes randomBytes(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<std::uint8_t>(rng() % 7 == 0 ? rng() : 'a' + rng() % 3);
    return b;
}

class QxCodecTool : public QxProcessTest {
protected:
    QxCodecTool() : QxProcessTest("qx-codec") {}

    // Every file under root, relative; temporaries included, so leftovers show.
    static std::vector<std::string> filesUnder(const fs::path& root) {
        std::vector<std::string> files;
        if (!fs::exists(root)) return files;
        for (const auto& e : fs::recursive_directory_iterator(root))
            if (!fs::is_directory(e.symlink_status())) files.push_back(e.path().lexically_relative(root).string());
        std::sort(files.begin(), files.end());
        return files;
    }
};

TEST_F(QxCodecTool, ChecksumsMatchTheShaToolsAndZlib) {
    std::vector<std::string> files;
    for (std::size_t size : {0u, 1u, 65536u, 300001u}) {
        const fs::path p = dir() / ("in-" + std::to_string(size));
        writeBytes(p, randomBytes(size, static_cast<unsigned>(size)));
        files.push_back(p.string());
    }
    for (const char* algorithm : {"sha1", "sha224", "sha256", "sha384", "sha512"}) {
        SCOPED_TRACE(algorithm);
        std::string peer = std::string(algorithm) + "sum";
        for (const auto& f : files) peer += " " + shellQuote(f);
        const QxRun expected = runShell(peer);
        ASSERT_EQ(expected.exitStatus, 0) << "the peer tool failed: " << expected.describe();
        std::vector<std::string> args = {"checksum", "--algorithm", algorithm};
        args.insert(args.end(), files.begin(), files.end());
        const QxRun got = runQx(args);
        EXPECT_EQ(got.exitStatus, 0) << got.describe();
        EXPECT_EQ(got.out, expected.out);
    }
    for (const char* algorithm : {"crc32", "adler32"}) {
        SCOPED_TRACE(algorithm);
        std::string expected;
        for (const auto& f : files) {
            const auto bytes = legacyzip::readBytes(f);
            const bool crc = algorithm[0] == 'c';
            const uLong value = crc ? crc32(crc32(0, nullptr, 0), bytes.data(), static_cast<uInt>(bytes.size()))
                                    : adler32(adler32(0, nullptr, 0), bytes.data(), static_cast<uInt>(bytes.size()));
            char hex[16];
            std::snprintf(hex, sizeof hex, "%08lx", value);
            expected += std::string(hex) + "  " + f + "\n";
        }
        std::vector<std::string> args = {"checksum", "-a", algorithm};
        args.insert(args.end(), files.begin(), files.end());
        const QxRun got = runQx(args);
        EXPECT_EQ(got.exitStatus, 0) << got.describe();
        EXPECT_EQ(got.out, expected);
    }
}

TEST_F(QxCodecTool, ChecksumReportsUnreadableFilesAndRefusesTheCrosswiseDigests) {
    const fs::path good = dir() / "good";
    writeBytes(good, {'1', '2', '3', '4', '5', '6', '7', '8', '9'});
    const QxRun r = runQx({"checksum", "-a", "crc32", (dir() / "missing").string(), good.string(), dir().string()});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_EQ(r.out, "cbf43926  " + good.string() + "\n");
    EXPECT_EQ(r.errLines(), 2u) << r.err;
    EXPECT_NE(r.err.find("qx: " + (dir() / "missing").string() + ": "), std::string::npos) << r.err;
    for (const char* refused : {"md5", "md2", "3", "crc64"}) {
        const QxRun refusedRun = runQx({"checksum", "-a", refused, good.string()});
        EXPECT_EQ(refusedRun.exitStatus, 2) << refused;
        EXPECT_TRUE(refusedRun.out.empty()) << refused;
    }
}

TEST_F(QxCodecTool, ExtractingEveryFixtureArchiveGivesTheExpectedBytes) {
    const auto top = JsonValue::parse(readFile(legacyzip::fixtureRoot() / "manifest.json"));
    ASSERT_TRUE(top && top->member("archives"));
    std::size_t checked = 0, refused = 0;
    for (const auto& archive : top->member("archives")->items) {
        const fs::path archivePath = legacyzip::fixtureRoot() / archive.member("archive")->text;
        SCOPED_TRACE(archivePath.filename().string());
        const auto manifest = JsonValue::parse(
            readFile(legacyzip::fixtureRoot() / archive.member("entries_dir")->text / "manifest.json"));
        ASSERT_TRUE(manifest);
        const fs::path out = dir() / archivePath.stem();
        const QxRun r = runQx({"zip", "extract", archivePath.string(), "-d", out.string()});
        bool anyOrphans = false;
        for (const auto& entry : manifest->member("entries")->items) {
            // The stored name's bytes: one is in code page 866, not UTF-8.
            std::string name;
            const std::string hex = entry.member("name_hex")->text;
            for (std::size_t i = 0; i + 1 < hex.size(); i += 2) name += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
            const JsonValue* stats = entry.member("shrink_stats");
            const bool orphans = stats && stats->member("orphans")->low64() > 0;
            if (orphans) {
                // The entry fails on its own, with its name, and leaves nothing behind.
                anyOrphans = true;
                EXPECT_NE(r.err.find(": " + name + ": shrunk data is corrupt"), std::string::npos) << name << r.err;
                EXPECT_FALSE(fs::exists(out / name)) << name;
                ++refused;
            } else {
                const auto bytes = legacyzip::readBytes(out / name);
                EXPECT_EQ(legacyzip::sha256Hex(bytes), entry.member("expected_sha256")->text) << name;
                ++checked;
            }
        }
        EXPECT_EQ(r.exitStatus, anyOrphans ? 1 : 0) << r.describe();
        for (const auto& f : filesUnder(out)) EXPECT_EQ(f.find(".qx-"), std::string::npos) << f;
    }
    EXPECT_GE(checked, 170u);
    EXPECT_GE(refused, 5u);
}

TEST_F(QxCodecTool, ListShowsEveryEntryAndExtractCanPickByName) {
    const fs::path archive = dir() / "a.zip";
    const Bytes text = randomBytes(5000, 1);
    writeBytes(archive, makeZip({{"dir/", {}, 0, 0}, {"dir/deflated.txt", text, 8, 0}, {"stored.bin", {'x', 'y'}, 0, 0}}));
    const QxRun list = runQx({"zip", "list", archive.string()});
    ASSERT_EQ(list.exitStatus, 0) << list.describe();
    EXPECT_NE(list.out.find("deflated"), std::string::npos) << list.out;
    char crcText[16];
    std::snprintf(crcText, sizeof crcText, "%08lx", crc32(0, text.data(), static_cast<uInt>(text.size())));
    EXPECT_NE(list.out.find(crcText), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("  dir/deflated.txt\n"), std::string::npos) << list.out;
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 4);

    const fs::path out = dir() / "out";
    QxRun r = runQx({"zip", "extract", archive.string(), "-d", out.string(), "dir/deflated.txt", "nothere"});
    EXPECT_EQ(r.exitStatus, 1) << r.describe();
    EXPECT_EQ(r.errLines(), 1u) << r.err;
    EXPECT_NE(r.err.find("nothere: no such entry"), std::string::npos) << r.err;
    EXPECT_EQ(filesUnder(out), std::vector<std::string>{"dir/deflated.txt"});
    EXPECT_EQ(legacyzip::readBytes(out / "dir/deflated.txt"), text);
}

TEST_F(QxCodecTool, NamesThatLeaveTheDestinationAreRefused) {
    const fs::path archive = dir() / "evil.zip";
    writeBytes(archive, makeZip({{"../evil1", {'e'}, 0, 0},
                                 {"/tmp/qx-evil-absolute", {'e'}, 0, 0},
                                 {"a/../../evil2", {'e'}, 0, 0},
                                 {"..\\evil3", {'e'}, 0, 0},
                                 {"link/evil4", {'e'}, 0, 0},
                                 {"ok/fine.txt", {'o', 'k'}, 0, 0}}));
    const fs::path out = dir() / "deep" / "out";
    fs::create_directories(out);
    fs::create_directories(dir() / "elsewhere");
    fs::create_symlink(dir() / "elsewhere", out / "link");
    const QxRun r = runQx({"zip", "extract", archive.string(), "-d", out.string()});
    EXPECT_EQ(r.exitStatus, 1) << r.describe();
    EXPECT_EQ(r.errLines(), 5u) << r.err;
    EXPECT_EQ(filesUnder(dir() / "elsewhere"), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(dir() / "deep" / "evil1"));
    EXPECT_FALSE(fs::exists(dir() / "evil2"));
    EXPECT_FALSE(fs::exists("/tmp/qx-evil-absolute"));
    EXPECT_EQ(filesUnder(out), (std::vector<std::string>{"link", "ok/fine.txt"}));
}

TEST_F(QxCodecTool, DamagedEntriesFailAloneAndDamagedArchivesFailCleanly) {
    const Bytes text = randomBytes(20000, 2);
    const fs::path archive = dir() / "mixed.zip";
    writeBytes(archive, makeZip({{"bad-crc", text, 8, 0, 0x12345678},
                                 {"encrypted", {'s'}, 0, 1},
                                 {"bzip2", {'b'}, 12, 0},
                                 {"good", text, 8, 0}}));
    const fs::path out = dir() / "out";
    QxRun r = runQx({"zip", "extract", archive.string(), "-d", out.string()});
    EXPECT_EQ(r.exitStatus, 1) << r.describe();
    EXPECT_EQ(r.errLines(), 3u) << r.err;
    EXPECT_NE(r.err.find("bad-crc: CRC-32 mismatch"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("encrypted: encrypted entries are not supported"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("bzip2: compression method 12"), std::string::npos) << r.err;
    EXPECT_EQ(filesUnder(out), std::vector<std::string>{"good"});

    // Cut or damaged anywhere, an archive gives a clean failure or a clean
    // success, and never leaves a temporary file.
    const Bytes whole = legacyzip::readBytes(archive);
    std::mt19937 rng(4);
    for (int round = 0; round < 40; ++round) {
        Bytes damaged = whole;
        if (round % 2) {
            damaged.resize(rng() % whole.size());
        } else {
            for (int i = 0; i < 3; ++i) damaged[rng() % damaged.size()] = static_cast<std::uint8_t>(rng());
        }
        writeBytes(archive, damaged);
        fs::remove_all(out);
        r = runQx({"zip", "extract", archive.string(), "-d", out.string()});
        ASSERT_TRUE(r.exitStatus == 0 || r.exitStatus == 1) << r.describe();
        EXPECT_GE(r.errLines(), r.exitStatus == 1 ? 1u : 0u);
        for (const auto& f : filesUnder(out)) EXPECT_EQ(f.find(".qx-"), std::string::npos) << f;
    }

    // Not an archive at all, and an archive that needs ZIP64.
    writeBytes(archive, randomBytes(100, 3));
    r = runQx({"zip", "list", archive.string()});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("not a ZIP archive"), std::string::npos) << r.err;
    Bytes zip64 = makeZip({{"x", {'x'}, 0, 0}});
    std::fill(zip64.end() - 6, zip64.end() - 2, 0xFF);  // the directory's offset
    writeBytes(archive, zip64);
    r = runQx({"zip", "extract", archive.string(), "-d", out.string()});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("ZIP64 archives are not supported"), std::string::npos) << r.err;
}

} // namespace
