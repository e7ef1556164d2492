// DiskImageTests.cpp - the disk-image reader: real samples, built images with
// every chunk kind, lying fields, damaged chunks, and reads over HTTP.
#include "DiskImageFixtures.h"
#include "HttpTestServer.h"
#include "LegacyZipFixtures.h"
#include "TestSupport.h"

#include "Internal/QXUDIFBlockTable.h"
#include "Internal/QXUDIFChunkDecoders.h"
#include "Internal/QXUDIFLicense.h"
#include "Internal/QXUDIFResources.h"

#include <QXFoundation/QXDiskImage.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/String.h>

#include <qx/URL.h>

#include <zlib.h>

using namespace diskimage;
using legacyzip::sha256Hex;
using qxtest::Bytes;

namespace {

constexpr std::uint32_t kZero = 0, kRaw = 1, kIgnore = 2, kADC = 0x80000004, kZlib = 0x80000005,
                        kBZip2 = 0x80000006, kXZ = 0x80000008;

qx::Ref<QXDiskImage> openBytes(const Bytes& bytes, qx::Ref<qx::Error>* error = nullptr) {
    return QXDiskImage::imageWithData(qxtest::toData(bytes), error);
}

// The whole disk through the parallel pass, with zero runs filled in.
Bytes decodeAll(QXDiskImage& image, qx::Ref<qx::Error>* error = nullptr) {
    Bytes disk(image.size(), 0xA5);
    std::uint64_t expected = 0;
    const bool ok = image.enumerateContents(
        [&](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
            EXPECT_EQ(offset, expected) << "contents out of order";
            expected = offset + length;
            if (bytes) std::copy_n(bytes, length, disk.begin() + static_cast<std::ptrdiff_t>(offset));
            else std::fill_n(disk.begin() + static_cast<std::ptrdiff_t>(offset), length, 0);
            return true;
        },
        error);
    if (!ok) return {};
    EXPECT_EQ(expected, image.size());
    return disk;
}

Bytes sectors(std::size_t count, unsigned seed) { return qxtest::makePayload(count * 512, seed); }

// ---- Samples --------------------------------------------------------------

struct Sample { const char* file; const char* sha256; };

void PrintTo(const Sample& sample, std::ostream* out) { *out << sample.file; }

class DiskImageSampleTest : public ::testing::TestWithParam<Sample> {};

TEST_P(DiskImageSampleTest, DecodesToPublishedHash) {
    const Sample& sample = GetParam();
    qx::Ref<qx::Error> error;
    auto image = QXDiskImage::imageWithContentsOfURL(qx::URL::fileURLWithPath(fixturePath(sample.file)), &error);
    ASSERT_TRUE(image) << (error ? error->localizedDescription() : "");
    const Bytes disk = decodeAll(*image, &error);
    ASSERT_FALSE(error) << error->localizedDescription();
    EXPECT_EQ(sha256Hex(disk), sample.sha256);
    // The range path and the parallel pass agree.
    EXPECT_EQ(qxtest::toBytes(image->readDataInRange(0, image->size())), disk);
    QXDiskImageVerification verification;
    ASSERT_TRUE(image->verifyChecksums(&verification, &error));
    EXPECT_TRUE(verification.passed());
    EXPECT_EQ(verification.master, QXDiskImageVerification::State::Passed);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, DiskImageSampleTest,
    ::testing::Values(
        Sample{"nodeudif-compression-zlib.dmg", kSmallDiskSha256},
        Sample{"nodeudif-compression-bz2.dmg", kSmallDiskSha256},
        Sample{"nodeudif-compression-adc.dmg", kSmallDiskSha256},
        Sample{"nodeudif-compression-lzfse.dmg", kSmallDiskSha256},
        Sample{"nodeudif-compression-raw.dmg", kSmallDiskSha256},
        Sample{"generated-sla-nodeudif-compression-zlib.dmg", kSmallDiskSha256},
        Sample{"nodeudif-gpt.dmg", "8a091a4d2f9ad790315d88e3666d81c71a674736e827e0b8410eb257d0a38724"},
        Sample{"nodeudif-zlib-compressed.dmg", "308bcbc833f18ef17c01a3e6798c6de475329710168bd5d3d1cf89f9501b8930"},
        Sample{"nodeudif-encrypted.dmg", "7adf6e58e93f35e9506964c4b672a8f539e6de6963c62d89d64641f16eec55c9"},
        Sample{"nodeudif-raw.dmg", "2deccfded5012b341726df88ea00d71e4ac6b8fbf93bf157885269b42d61b910"},
        Sample{"dmglicense-empty.dmg", "0450acec759e06931fa93314fa440fd19ba787bc94c1be1cf700e97aa6e89729"}),
    [](const ::testing::TestParamInfo<Sample>& info) {
        std::string name = info.param.file;
        name = name.substr(0, name.size() - 4);
        for (auto& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(DiskImageProperties, PartitionsAndFormatOfSamples) {
    struct Row {
        const char* file;
        const char* format;
        std::uint32_t variant;
        std::uint64_t sectors;
        std::size_t partitions;
        std::size_t checked;  // which partition the remaining columns describe
        const char* name;
        const char* type;
        std::int64_t number;
        std::uint64_t first, count;
    };
    const Row rows[] = {
        {"nodeudif-compression-zlib.dmg", "UDZO", 1, 10240, 5, 3, "", "Windows_FAT_16", 2, 2176, 2048},
        {"nodeudif-compression-bz2.dmg", "UDBZ", 1, 10240, 5, 0, "Master Boot Record", "MBR", -1, 0, 1},
        {"nodeudif-compression-adc.dmg", "UDCO", 1, 10240, 5, 4, "", "Apple_Free", 3, 4224, 6016},
        {"nodeudif-compression-lzfse.dmg", "ULFO", 1, 10240, 5, 2, "", "Windows_FAT_16", 1, 128, 2048},
        {"nodeudif-compression-raw.dmg", "UDRO", 1, 10240, 5, 1, "", "Apple_Free", 0, 1, 127},
        {"nodeudif-gpt.dmg", "UDZO", 2, 18320, 1, 0, "whole disk", "Apple_HFS", 0, 0, 18320},
        {"dmglicense-empty.dmg", "UDRO", 1, 3024, 8, 4, "disk image", "Apple_HFS", 3, 40, 2944},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        auto image = openBytes(fixture(row.file));
        ASSERT_TRUE(image);
        EXPECT_TRUE(image->isUDIF());
        EXPECT_EQ(image->formatName(), row.format);
        EXPECT_EQ(image->imageVariant(), row.variant);
        EXPECT_EQ(image->sectorCount(), row.sectors);
        EXPECT_EQ(image->size(), row.sectors * 512);
        ASSERT_EQ(image->partitions().size(), row.partitions);
        const auto& p = image->partitions()[row.checked];
        EXPECT_EQ(p.name, row.name);
        EXPECT_EQ(p.type, row.type);
        EXPECT_EQ(p.number, row.number);
        EXPECT_EQ(p.firstSector, row.first);
        EXPECT_EQ(p.sectorCount, row.count);
        EXPECT_FALSE(image->hasLicenseAgreement());
    }
}

// ---- Licence agreements ---------------------------------------------------

TEST(DiskImageLicense, GeneratedSampleCarriesItsText) {
    auto image = openBytes(fixture("generated-sla-nodeudif-compression-zlib.dmg"));
    ASSERT_TRUE(image);
    EXPECT_TRUE(image->hasLicenseAgreement());
    EXPECT_EQ(image->licenseAgreement().value_or("<none>"),
              "SAMPLE LICENCE AGREEMENT (test fixture)\n\nThis disk image is a test fixture. By agreeing you accept "
              "nothing at all.\nLine three ends here.\n");
    EXPECT_FALSE(openBytes(fixture("nodeudif-gpt.dmg"))->licenseAgreement());
}

Bytes macBytes(const std::string& text) { return qxtest::toBytes(text); }

QXUDIF::Resources resourcesOf(const std::vector<std::tuple<std::string, std::int64_t, Bytes>>& list) {
    auto fork = qx::Dictionary::create();
    for (const auto& [type, id, data] : list) {
        auto array = fork->get<qx::Array>(type);
        if (!array) {
            array = qx::Array::create();
            fork->setObject(array, type);
        }
        auto entry = qx::Dictionary::create();
        entry->setObject(qxtest::toData(data), "Data");
        entry->setObject(qx::String::create(std::to_string(id)), "ID");
        array->addObject(entry);
    }
    auto root = qx::Dictionary::create();
    root->setObject(fork, "resource-fork");
    auto xml = QXPropertyListSerialization::dataWithPropertyList(root, 100);
    std::string reason;
    auto resources = QXUDIF::Resources::fromXML(xml->bytes(), xml->length(), &reason);
    EXPECT_TRUE(resources) << reason;
    return resources ? *resources : QXUDIF::Resources{};
}

TEST(DiskImageLicense, ChoosesLanguageAndConvertsText) {
    // LPic: default language 0, two entries: language 3 -> 5001, language 0 -> 5002.
    const Bytes lpic = {0, 0, 0, 2, 0, 3, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0};
    const Bytes lpicNoDefault = {0, 9, 0, 2, 0, 3, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0};
    struct Row {
        const char* label;
        std::vector<std::tuple<std::string, std::int64_t, Bytes>> resources;
        std::optional<std::string> text;
    };
    const Row rows[] = {
        {"default language through LPic, Mac OS Roman and CR",
         {{"LPic", 5000, lpic}, {"TEXT", 5001, macBytes("other")}, {"TEXT", 5002, macBytes("Caf\x8E\rend")}},
         "Caf\xC3\xA9\nend"},
        {"English when the default has no entry",
         {{"LPic", 5000, lpicNoDefault}, {"TEXT", 5001, macBytes("other")}, {"TEXT", 5002, macBytes("english")}},
         "english"},
        {"damaged LPic falls back to the first text", {{"LPic", 5000, {0}}, {"TEXT", 5003, macBytes("only")}}, "only"},
        {"RTF reduced to text",
         {{"RTF ", 5000, macBytes("{\\rtf1\\ansi{\\fonttbl\\f0 Helvetica;}{\\*\\generator x;}\\f0 Hello\\par "
                                  "W\\'8Ert \\u8364?\\tab\\{x\\}}")}},
         "Hello\nW\xC3\xA9rt \xE2\x82\xAC\t{x}"},
        {"text below 5000 is no agreement", {{"TEXT", 128, macBytes("not a licence")}}, std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        const auto resources = resourcesOf(row.resources);
        EXPECT_EQ(QXUDIF::License::text(resources), row.text);
        EXPECT_EQ(QXUDIF::License::isPresent(resources), row.text.has_value());
    }
}

// ---- Legacy resource fork ---------------------------------------------------

// With the property list's length cleared the image reads from the fork alone,
// and finds the same partitions and the same disk.
TEST(DiskImageResourceFork, LegacyForkMatchesThePropertyList) {
    const Bytes file = fixture("dmglicense-empty.dmg");
    Bytes forkOnly = file;
    putBE64(forkOnly, file.size() - 512 + 224, 0);
    auto image = openBytes(forkOnly), both = openBytes(file);
    ASSERT_TRUE(image && both);
    ASSERT_EQ(image->partitions().size(), 8u);
    for (std::size_t i = 0; i < 8; ++i) {
        const auto &a = image->partitions()[i], &b = both->partitions()[i];
        EXPECT_TRUE(a.name == b.name && a.type == b.type && a.number == b.number && a.firstSector == b.firstSector &&
                    a.sectorCount == b.sectorCount) << i;
    }
    EXPECT_EQ(sha256Hex(decodeAll(*image)), "0450acec759e06931fa93314fa440fd19ba787bc94c1be1cf700e97aa6e89729");
}

// ---- Built images: every chunk kind, layout rules, verification ------------

TEST(DiskImageBuilt, EveryChunkKindAndLayoutDecodes) {
    struct Row { const char* label; std::vector<TableSpec> tables; BuildOptions options; const char* format; };
    std::vector<TableSpec> mixed = {
        {"Protective Master Boot Record (MBR : 0)", -1, {{kRaw, sectors(1, 1)}}},
        {"disk image (Apple_HFS : 1)",
         1,
         {{kXZ, sectors(8, 2)}, {kZero, Bytes(4 * 512)}, {kZlib, sectors(3, 3)}, {kIgnore, Bytes(2 * 512)},
          {kBZip2, sectors(5, 4)}, {kADC, sectors(2, 5)}, {kRaw, sectors(1, 6)}}},
    };
    std::vector<TableSpec> many(1);
    for (unsigned i = 0; i < 40; ++i) many[0].chunks.push_back({kZlib, sectors(4, 10 + i)});
    const Row rows[] = {
        {"mixed kinds", mixed, {}, "UDZO"},
        {"stored last to first, with a table data offset", mixed, {true, 777, 1, nullptr}, "UDZO"},
        {"xz only", {{"whole disk (Apple_HFS : 0)", 0, {{kXZ, sectors(16, 7)}}}}, {false, 0, 2, nullptr}, "ULMO"},
        {"more chunks than one parallel batch", many, {}, "UDZO"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        const BuiltImage built = buildImage(row.tables, row.options);
        qx::Ref<qx::Error> error;
        auto image = openBytes(built.file, &error);
        ASSERT_TRUE(image) << error->localizedDescription();
        EXPECT_EQ(image->formatName(), row.format);
        EXPECT_EQ(decodeAll(*image), built.disk);
        QXDiskImageVerification verification;
        ASSERT_TRUE(image->verifyChecksums(&verification));
        EXPECT_TRUE(verification.passed());
        EXPECT_EQ(verification.dataFork, QXDiskImageVerification::State::Passed);
        for (auto state : verification.partitions) EXPECT_EQ(state, QXDiskImageVerification::State::Passed);
    }
}

TEST(DiskImageBuilt, ReadsAtAnyOffsetMatchTheWholeDisk) {
    for (const char* file : {"dmglicense-empty.dmg", "nodeudif-compression-zlib.dmg"}) {
        SCOPED_TRACE(file);
        auto image = openBytes(fixture(file));
        ASSERT_TRUE(image);
        const Bytes disk = decodeAll(*image);
        std::mt19937 rng(7);
        for (int i = 0; i < 200; ++i) {
            const std::uint64_t offset = rng() % (disk.size() + 1000);
            const std::uint64_t length = rng() % (i % 10 == 0 ? 3 * 1048576 : 5000);
            Bytes expected;
            if (offset < disk.size())
                expected.assign(disk.begin() + static_cast<std::ptrdiff_t>(offset),
                                disk.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(disk.size(), offset + length)));
            ASSERT_EQ(qxtest::toBytes(image->readDataInRange(offset, length)), expected) << offset << "+" << length;
        }
    }
}

TEST(DiskImageBuilt, VerificationNamesWhatDoesNotMatch) {
    using State = QXDiskImageVerification::State;
    const std::vector<TableSpec> tables = {{"a (MBR : 0)", 0, {{kRaw, sectors(2, 1)}}},
                                           {"b (Apple_HFS : 1)", 1, {{kZlib, sectors(4, 2)}, {kIgnore, sectors(2, 3)}}}};
    const BuiltImage good = buildImage(tables);
    struct Row {
        const char* label;
        std::function<void(Bytes&)> damage;
        std::vector<State> partitions;
        State master, dataFork;
    };
    const std::size_t trailer = good.trailerOffset;
    const Row rows[] = {
        {"untouched", [](Bytes&) {}, {State::Passed, State::Passed}, State::Passed, State::Passed},
        {"raw sector changed", [](Bytes& f) { f[10] ^= 1; }, {State::Failed, State::Passed}, State::Passed, State::Failed},
        {"master value", [trailer](Bytes& f) { f[trailer + 360] ^= 1; }, {State::Passed, State::Passed}, State::Failed,
         State::Passed},
        {"data fork value", [trailer](Bytes& f) { f[trailer + 88] ^= 1; }, {State::Passed, State::Passed}, State::Passed,
         State::Failed},
        {"no master checksum", [trailer](Bytes& f) { putBE32(f, trailer + 352, 0); }, {State::Passed, State::Passed},
         State::NotPresent, State::Passed},
        {"unknown data fork checksum kind", [trailer](Bytes& f) { putBE32(f, trailer + 80, 9); },
         {State::Passed, State::Passed}, State::Passed, State::Unsupported},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        Bytes file = good.file;
        row.damage(file);
        auto image = openBytes(file);
        ASSERT_TRUE(image);
        QXDiskImageVerification verification;
        ASSERT_TRUE(image->verifyChecksums(&verification));
        EXPECT_EQ(verification.partitions, row.partitions);
        EXPECT_EQ(verification.master, row.master);
        EXPECT_EQ(verification.dataFork, row.dataFork);
        const bool anyFailed = row.master == State::Failed || row.dataFork == State::Failed ||
                               std::count(row.partitions.begin(), row.partitions.end(), State::Failed) > 0;
        EXPECT_EQ(verification.passed(), !anyFailed);
    }
}

// ---- Damage: lying fields fail cleanly -----------------------------------------

void expectCleanFailure(const Bytes& file, std::int64_t code, const char* label) {
    SCOPED_TRACE(label);
    qx::Ref<qx::Error> error;
    auto image = openBytes(file, &error);
    if (image) {
        // Some damage only shows when the chunk is decoded.
        EXPECT_FALSE(image->readDataInRange(0, image->size(), &error));
    }
    EXPECT_QX_ERROR(error, kQXDiskImageErrorDomain, code);
}

TEST(DiskImageDamage, LyingTrailerFieldsFailCleanly) {
    const Bytes good = fixture("nodeudif-compression-zlib.dmg");
    const std::size_t t = good.size() - 512;
    struct Row { const char* label; std::size_t field; int width; std::uint64_t value; std::int64_t code; };
    const std::uint64_t huge = 0xFFFFFFFFFFFFFF00ull;
    const Row rows[] = {
        {"version", 4, 32, 5, kQXDiskImageErrorCorrupt},
        {"header size", 8, 32, 511, kQXDiskImageErrorCorrupt},
        {"data fork offset", 24, 64, huge, kQXDiskImageErrorCorrupt},
        {"data fork length", 32, 64, huge, kQXDiskImageErrorCorrupt},
        {"data fork past the trailer", 32, 64, t + 1, kQXDiskImageErrorCorrupt},
        {"data fork shorter than its chunks", 32, 64, 100, kQXDiskImageErrorCorrupt},
        {"resource fork offset", 40, 64, huge, kQXDiskImageErrorCorrupt},
        {"resource fork length", 48, 64, huge, kQXDiskImageErrorCorrupt},
        {"segment number", 56, 32, 2, kQXDiskImageErrorUnsupportedImage},
        {"segment count", 60, 32, 3, kQXDiskImageErrorUnsupportedImage},
        {"XML offset", 216, 64, huge, kQXDiskImageErrorCorrupt},
        {"XML offset one too far", 216, 64, t, kQXDiskImageErrorCorrupt},
        {"XML length", 224, 64, huge, kQXDiskImageErrorCorrupt},
        {"XML length short", 224, 64, 100, kQXDiskImageErrorCorrupt},
        {"no XML and no fork", 224, 64, 0, kQXDiskImageErrorCorrupt},
        {"sector count huge", 492, 64, huge, kQXDiskImageErrorCorrupt},
        {"sector count below the tables", 492, 64, 10000, kQXDiskImageErrorCorrupt},
    };
    for (const auto& row : rows) {
        Bytes file = good;
        if (row.width == 32) putBE32(file, t + row.field, static_cast<std::uint32_t>(row.value));
        else putBE64(file, t + row.field, row.value);
        expectCleanFailure(file, row.code, row.label);
    }
}

TEST(DiskImageDamage, LyingTableFieldsFailCleanly) {
    const std::vector<TableSpec> tables = {
        {"a (MBR : 0)", 0, {{kRaw, sectors(2, 1)}}},
        {"b (Apple_HFS : 1)", 1, {{kZlib, sectors(4, 2)}, {kXZ, sectors(4, 3)}, {kZero, Bytes(512)}}}};
    struct Row {
        const char* label;
        std::size_t table;
        std::size_t field;
        int width;
        std::uint64_t value;
        std::int64_t code;
    };
    using namespace mish;
    const std::uint64_t huge = 0xFFFFFFFFFFFFFF00ull;
    const Row rows[] = {
        {"magic", 0, 0, 32, 0x6D697368u + 1, kQXDiskImageErrorCorrupt},
        {"version", 0, 4, 32, 2, kQXDiskImageErrorCorrupt},
        {"entry count beyond the data", 1, kEntryCount, 32, 5, kQXDiskImageErrorCorrupt},
        {"entry count huge", 1, kEntryCount, 32, 0xFFFFFFFFu, kQXDiskImageErrorCorrupt},
        {"first sector beyond the disk", 1, kFirstSector, 64, 100, kQXDiskImageErrorCorrupt},
        {"sector count huge", 1, kSectorCount, 64, huge, kQXDiskImageErrorCorrupt},
        {"tables overlap", 1, kFirstSector, 64, 1, kQXDiskImageErrorCorrupt},
        {"data offset beyond the fork", 1, kDataOffset, 64, 1 << 20, kQXDiskImageErrorCorrupt},
        {"unknown chunk kind", 1, entry(1, kType), 32, 0x80000009u, kQXDiskImageErrorUnsupportedChunk},
        {"chunk beyond its table", 1, entry(1, kChunkSector), 64, 6, kQXDiskImageErrorCorrupt},
        {"chunk sector count huge", 1, entry(1, kChunkSectors), 64, huge, kQXDiskImageErrorCorrupt},
        {"chunks overlap", 1, entry(1, kChunkSector), 64, 2, kQXDiskImageErrorCorrupt},
        {"chunk offset beyond the fork", 1, entry(0, kChunkOffset), 64, huge, kQXDiskImageErrorCorrupt},
        {"chunk length beyond the fork", 1, entry(0, kChunkLength), 64, huge, kQXDiskImageErrorCorrupt},
        {"compressed chunk absurdly long", 1, entry(0, kChunkLength), 64, 1 << 16, kQXDiskImageErrorCorrupt},
        {"raw length disagrees with sectors", 0, entry(0, kChunkLength), 64, 1000, kQXDiskImageErrorCorrupt},
        {"chunk cut short", 1, entry(0, kChunkLength), 64, 20, kQXDiskImageErrorCorrupt},
        {"chunk claims more sectors than it holds", 1, entry(1, kChunkSectors), 64, 3, kQXDiskImageErrorCorrupt},
    };
    for (const auto& row : rows) {
        BuildOptions options;
        options.editTable = [&row](std::size_t table, Bytes& bytes) {
            if (table != row.table) return;
            if (row.width == 32) putBE32(bytes, row.field, static_cast<std::uint32_t>(row.value));
            else putBE64(bytes, row.field, row.value);
        };
        expectCleanFailure(buildImage(tables, options).file, row.code, row.label);
    }
}

TEST(DiskImageDamage, DamagedChunkBytesFailTheirRead) {
    for (std::uint32_t type : {kZlib, kBZip2, kXZ}) {
        SCOPED_TRACE(type);
        const BuiltImage built = buildImage({{"d (Apple_HFS : 1)", 1, {{kRaw, sectors(1, 1)}, {type, sectors(8, 2)}}}});
        Bytes file = built.file;
        for (std::size_t i = 512 + 20; i < 512 + 60; ++i) file[i] ^= 0x5A;
        auto image = openBytes(file);
        ASSERT_TRUE(image) << "chunk damage is found when the chunk is read";
        qx::Ref<qx::Error> error;
        EXPECT_EQ(qxtest::toBytes(image->readDataInRange(0, 512, &error)), Bytes(built.disk.begin(), built.disk.begin() + 512));
        EXPECT_FALSE(image->readDataInRange(512, 512, &error));
        EXPECT_QX_ERROR(error, kQXDiskImageErrorDomain, kQXDiskImageErrorCorrupt);
    }
}

// The zlib chunk decoder hands common streams to a faster inflater; whatever
// the stream, its verdict (the count, or -1) must be zlib's own.
TEST(DiskImageDamage, ZlibChunkVerdictsMatchZlib) {
    const Bytes plain = sectors(64, 9);
    auto deflated = [&plain](int windowBits) {
        z_stream z{};
        deflateInit2(&z, 6, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
        Bytes out(deflateBound(&z, plain.size()));
        z.next_in = const_cast<Bytef*>(plain.data());
        z.avail_in = static_cast<uInt>(plain.size());
        z.next_out = out.data();
        z.avail_out = static_cast<uInt>(out.size());
        deflate(&z, Z_FINISH);
        out.resize(z.total_out);
        deflateEnd(&z);
        return out;
    };
    const Bytes good = deflated(15);
    const std::size_t n = plain.size();
    // Rows: the stream, the room, a byte to flip (or none), bytes to cut (or append, when negative).
    struct Row { Bytes stream; std::size_t room; std::size_t flip; long cut; };
    std::vector<Row> rows = {{good, n, 0, 0}, {good, n - 1, 0, 0}, {good, n + 100, 0, 0}, {deflated(10), n, 0, 0},
                             {good, n, 0, -3}, {good, n, 1, 0}, {good, n, 5, 0}, {good, n, good.size() / 2, 0},
                             {good, n, good.size() - 1, 0}, {good, n, good.size() - 4, 0}};
    for (long cut = 1; cut <= 6; ++cut) rows.push_back({good, n, 0, cut});
    for (auto row : rows) {
        if (row.flip) row.stream[row.flip] ^= 0x40;
        if (row.cut > 0) row.stream.resize(row.stream.size() - std::size_t(row.cut));
        else row.stream.insert(row.stream.end(), std::size_t(-row.cut), 7);
        Bytes out(row.room + 1);
        uLongf written = row.room;
        uLong consumed = row.stream.size();
        const std::ptrdiff_t zlib = uncompress2(out.data(), &written, row.stream.data(), &consumed) == Z_OK ? std::ptrdiff_t(written) : -1;
        EXPECT_EQ(QXUDIF::inflateChunk(row.stream.data(), row.stream.size(), out.data(), row.room), zlib)
            << "room " << row.room << " flip " << row.flip << " cut " << row.cut;
    }
}

TEST(DiskImageDamage, TruncationAndRandomDamageNeverReadOutsideTheFile) {
    const Bytes good = fixture("nodeudif-compression-zlib.dmg");
    const Bytes trailer(good.end() - 512, good.end());
    // The body cut short under an intact trailer.
    for (std::size_t cut = 0; cut + 512 < good.size(); cut += 97) {
        Bytes file(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(cut));
        file.insert(file.end(), trailer.begin(), trailer.end());
        qx::Ref<qx::Error> error;
        auto image = openBytes(file, &error);
        if (image) image->readDataInRange(0, image->size(), &error);
        ASSERT_TRUE(error) << "cut at " << cut;
        EXPECT_EQ(error->domain(), kQXDiskImageErrorDomain);
        EXPECT_NE(error->code(), kQXDiskImageErrorReadFailed) << "read outside the file at cut " << cut;
    }
    std::mt19937 rng(3);
    for (int round = 0; round < 300; ++round) {
        Bytes file = good;
        for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips) file[rng() % file.size()] = static_cast<std::uint8_t>(rng());
        qx::Ref<qx::Error> error;
        auto image = openBytes(file, &error);
        if (image) {
            QXDiskImageVerification verification;
            image->verifyChecksums(&verification, &error);
        }
        if (error) {
            EXPECT_EQ(error->domain(), kQXDiskImageErrorDomain);
            EXPECT_NE(error->code(), kQXDiskImageErrorReadFailed) << "read outside the file in round " << round;
        }
    }
}

// ---- Recognition ------------------------------------------------------------------

TEST(DiskImageRecognition, RefusedKindsAndRawImages) {
    Bytes encrypted = sectors(4, 1);
    std::copy_n("encrcdsa", 8, encrypted.begin());
    Bytes encryptedV1 = sectors(4, 2);
    std::copy_n("cdsaencr", 8, encryptedV1.end() - 8);
    Bytes diskCopy(84 + 1024, 0);
    diskCopy[0] = 5;
    putBE32(diskCopy, 64, 1024);
    diskCopy[82] = 1;
    Bytes sparse = sectors(4, 3);
    std::copy_n("sprs", 4, sparse.begin());
    for (const auto& [bytes, label] : {std::pair{encrypted, "encrypted"}, std::pair{encryptedV1, "encrypted v1"},
                                       std::pair{diskCopy, "DiskCopy 4.2"}, std::pair{sparse, "sparse"}})
        expectCleanFailure(bytes, kQXDiskImageErrorUnsupportedImage, label);

    // A file without the trailer is the disk itself, to the byte.
    const Bytes raw = qxtest::randomBytes(1000, 4);
    auto image = openBytes(raw);
    ASSERT_TRUE(image);
    EXPECT_FALSE(image->isUDIF());
    EXPECT_EQ(image->formatName(), "UDRW");
    EXPECT_EQ(image->size(), raw.size());
    EXPECT_EQ(decodeAll(*image), raw);
    EXPECT_EQ(qxtest::toBytes(image->readDataInRange(990, 100)), Bytes(raw.end() - 10, raw.end()));

    qx::Ref<qx::Error> error;
    EXPECT_FALSE(image->enumerateContents([](std::uint64_t, const std::uint8_t*, std::uint64_t) { return false; }, &error));
    EXPECT_QX_ERROR(error, kQXDiskImageErrorDomain, kQXDiskImageErrorCancelled);
}

// ---- HTTP ------------------------------------------------------------------------------

TEST(DiskImageRemote, ReadsByRangesOverHTTP) {
    HttpTestServer server(fixture("nodeudif-compression-bz2.dmg"));
    qx::Ref<qx::Error> error;
    auto image = QXDiskImage::imageWithContentsOfURL(qx::URL::URLWithString(server.url(HttpTestServer::RangesPath)), &error);
    ASSERT_TRUE(image) << error->localizedDescription();
    EXPECT_EQ(image->formatName(), "UDBZ");
    EXPECT_EQ(sha256Hex(decodeAll(*image)), kSmallDiskSha256);
    std::size_t ranged = 0;
    for (const auto& request : server.requestsFor(HttpTestServer::RangesPath))
        if (!request.header("Range").empty()) ++ranged;
    EXPECT_GE(ranged, 2u) << "the trailer and the chunks come by range";
}

} // namespace
