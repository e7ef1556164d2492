// DiskImageFixtures.cpp - fixture paths and the test image builder.
#include "DiskImageFixtures.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/String.h>

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

namespace diskimage {

namespace {

constexpr std::uint32_t kADC = 0x80000004, kZlib = 0x80000005, kBZip2 = 0x80000006, kXZ = 0x80000008;

Bytes compress(std::uint32_t type, const Bytes& in) {
    Bytes out(in.size() * 2 + 1024);
    if (type == kZlib) {
        uLongf length = out.size();
        EXPECT_EQ(compress2(out.data(), &length, in.data(), in.size(), 6), Z_OK);
        out.resize(length);
    } else if (type == kBZip2) {
        unsigned length = static_cast<unsigned>(out.size());
        EXPECT_EQ(BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &length,
                                           const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                                           static_cast<unsigned>(in.size()), 9, 0, 0),
                  BZ_OK);
        out.resize(length);
    } else if (type == kXZ) {
        std::size_t length = 0;
        EXPECT_EQ(lzma_easy_buffer_encode(6, LZMA_CHECK_CRC64, nullptr, in.data(), in.size(), out.data(), &length,
                                          out.size()),
                  LZMA_OK);
        out.resize(length);
    } else if (type == kADC) {
        // Literal runs only: valid ADC, and the decoder's matches are tested on their own.
        out.clear();
        for (std::size_t at = 0; at < in.size(); at += 128) {
            const std::size_t run = std::min<std::size_t>(128, in.size() - at);
            out.push_back(static_cast<std::uint8_t>(0x80 | (run - 1)));
            out.insert(out.end(), in.begin() + static_cast<std::ptrdiff_t>(at), in.begin() + static_cast<std::ptrdiff_t>(at + run));
        }
    } else {
        return in;  // raw
    }
    return out;
}

bool storesBytes(std::uint32_t type) { return type != 0 && type != 2; }

} // namespace

std::string fixturePath(const std::string& name) { return std::string(QX_TESTDATA_DIR) + "/dmg/" + name; }
Bytes fixture(const std::string& name) { return qxtest::readBytes(fixturePath(name)); }

void putBE32(Bytes& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.at(at + static_cast<std::size_t>(i)) = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

void putBE64(Bytes& b, std::size_t at, std::uint64_t v) {
    putBE32(b, at, static_cast<std::uint32_t>(v >> 32));
    putBE32(b, at + 4, static_cast<std::uint32_t>(v));
}

std::uint32_t crc32Of(const Bytes& b) { return static_cast<std::uint32_t>(crc32(0, b.data(), static_cast<uInt>(b.size()))); }

BuiltImage buildImage(const std::vector<TableSpec>& tables, const BuildOptions& options) {
    BuiltImage image;
    Bytes fork(options.dataOffset, 0xEE);
    // Stored streams of every chunk, then placed in the chosen order.
    std::vector<std::vector<Bytes>> streams;
    for (const auto& table : tables) {
        streams.emplace_back();
        for (const auto& chunk : table.chunks)
            streams.back().push_back(storesBytes(chunk.type) ? compress(chunk.type, chunk.decoded) : Bytes{});
    }
    std::vector<std::vector<std::uint64_t>> offsets(tables.size());
    std::vector<std::pair<std::size_t, std::size_t>> order;
    for (std::size_t t = 0; t < tables.size(); ++t)
        for (std::size_t c = 0; c < tables[t].chunks.size(); ++c) order.emplace_back(t, c);
    if (options.storeReversed) std::reverse(order.begin(), order.end());
    for (std::size_t t = 0; t < tables.size(); ++t) offsets[t].resize(tables[t].chunks.size());
    for (const auto& [t, c] : order) {
        offsets[t][c] = fork.size() - options.dataOffset;
        fork.insert(fork.end(), streams[t][c].begin(), streams[t][c].end());
    }

    auto blkx = qx::Array::create();
    Bytes tableSums;
    std::uint64_t sector = 0;
    for (std::size_t t = 0; t < tables.size(); ++t) {
        const auto& spec = tables[t];
        Bytes mish(0xCC + (spec.chunks.size() + 1) * 40, 0);
        std::copy_n("mish", 4, mish.begin());
        putBE32(mish, 4, 1);
        std::uint64_t tableSectors = 0;
        Bytes checked;
        for (std::size_t c = 0; c < spec.chunks.size(); ++c) {
            const auto& chunk = spec.chunks[c];
            const std::uint64_t sectors = chunk.decoded.size() / 512;
            putBE32(mish, mish::entry(c, mish::kType), chunk.type);
            putBE64(mish, mish::entry(c, mish::kChunkSector), tableSectors);
            putBE64(mish, mish::entry(c, mish::kChunkSectors), sectors);
            putBE64(mish, mish::entry(c, mish::kChunkOffset), offsets[t][c]);
            putBE64(mish, mish::entry(c, mish::kChunkLength), streams[t][c].size());
            tableSectors += sectors;
            image.disk.insert(image.disk.end(), chunk.decoded.begin(), chunk.decoded.end());
            if (chunk.type != 2) checked.insert(checked.end(), chunk.decoded.begin(), chunk.decoded.end());
        }
        putBE32(mish, mish::entry(spec.chunks.size(), mish::kType), 0xFFFFFFFF);
        putBE64(mish, mish::kFirstSector, sector);
        putBE64(mish, mish::kSectorCount, tableSectors);
        putBE64(mish, mish::kDataOffset, options.dataOffset);
        putBE32(mish, 32, 2048);
        putBE32(mish, mish::kChecksumType, 2);
        putBE32(mish, 68, 32);
        putBE32(mish, 72, crc32Of(checked));
        putBE32(mish, mish::kEntryCount, static_cast<std::uint32_t>(spec.chunks.size() + 1));
        tableSums.insert(tableSums.end(), mish.begin() + 72, mish.begin() + 76);
        if (options.editTable) options.editTable(t, mish);
        sector += tableSectors;

        auto entry = qx::Dictionary::create();
        entry->setObject(qx::String::create("0x0050"), "Attributes");
        entry->setObject(qx::Data::withBytes(mish.data(), mish.size()), "Data");
        entry->setObject(qx::String::create(std::to_string(spec.id)), "ID");
        entry->setObject(qx::String::create(spec.name), "Name");
        blkx->addObject(entry);
    }
    auto resources = qx::Dictionary::create();
    resources->setObject(blkx, "blkx");
    auto root = qx::Dictionary::create();
    root->setObject(resources, "resource-fork");
    auto xml = QXPropertyListSerialization::dataWithPropertyList(root, 100);

    image.file = fork;
    const std::uint64_t xmlOffset = image.file.size();
    image.file.insert(image.file.end(), xml->bytes(), xml->bytes() + xml->length());
    image.trailerOffset = image.file.size();
    Bytes koly(512, 0);
    std::copy_n("koly", 4, koly.begin());
    putBE32(koly, 4, 4);
    putBE32(koly, 8, 512);
    putBE32(koly, 12, 1);
    putBE64(koly, 32, fork.size());
    putBE32(koly, 60, 1);
    putBE32(koly, 80, 2);
    putBE32(koly, 84, 32);
    putBE32(koly, 88, crc32Of(fork));
    putBE64(koly, 216, xmlOffset);
    putBE64(koly, 224, xml->length());
    putBE32(koly, 352, 2);
    putBE32(koly, 356, 32);
    putBE32(koly, 360, crc32Of(tableSums));
    putBE32(koly, 488, options.variant);
    putBE64(koly, 492, sector);
    image.file.insert(image.file.end(), koly.begin(), koly.end());
    return image;
}

} // namespace diskimage
