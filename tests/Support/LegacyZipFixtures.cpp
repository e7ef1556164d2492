// LegacyZipFixtures.cpp - the real shrink and implode streams under tests/fixtures/zip.
#include "LegacyZipFixtures.h"

#include "TestSupport.h"

#include <nlohmann/json.hpp>

#include <nettle/sha2.h>

namespace fs = std::filesystem;
using nlohmann::json;
using qxtest::readBytes;

namespace legacyzip {

namespace {

json readJson(const fs::path& path) { return json::parse(qxtest::readFile(path), nullptr, false); }

FixtureStream describe(const json& entry) {
    FixtureStream s;
    s.name = entry.value("name", "");
    s.method = entry.value("method", 0);
    s.flags = entry.value("flags", 0u);
    s.uncompressedSize = entry.value("uncompressed_size", std::uint64_t{0});
    if (entry.contains("shrink_stats")) s.orphans = entry["shrink_stats"].value("orphans", std::uint64_t{0});
    return s;
}

} // namespace

const fs::path& fixtureRoot() {
    static const fs::path root = fs::path(QX_TESTDATA_DIR) / "zip";
    return root;
}

std::string sha256Hex(const std::uint8_t* bytes, std::size_t length) {
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, length, bytes);
    std::uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&ctx, sizeof digest, digest);
    static const char* hex = "0123456789abcdef";
    std::string text;
    for (auto b : digest) {
        text += hex[b >> 4];
        text += hex[b & 15];
    }
    return text;
}

std::vector<FixtureStream> fixtureStreams(int method) {
    std::vector<FixtureStream> streams;
    const json top = readJson(fixtureRoot() / "manifest.json");
    if (!top.is_object()) return streams;
    for (const auto& archive : top.value("archives", json::array())) {
        const fs::path dir = fixtureRoot() / archive.value("entries_dir", "");
        const fs::path archivePath = fixtureRoot() / archive.value("archive", "");
        const json manifest = readJson(dir / "manifest.json");
        if (!manifest.contains("entries")) return {};
        const auto archiveBytes = readBytes(archivePath);
        for (const auto& entry : manifest["entries"]) {
            if (entry.value("method", -1) != method) continue;
            FixtureStream s = describe(entry);
            s.label = archivePath.filename().string() + ":" + s.name;
            const auto offset = entry.value("data_offset", std::uint64_t{0}), size = entry.value("compressed_size", std::uint64_t{0});
            if (offset > archiveBytes.size() || size > archiveBytes.size() - offset) return {};
            s.compressed.assign(archiveBytes.begin() + static_cast<std::ptrdiff_t>(offset),
                                archiveBytes.begin() + static_cast<std::ptrdiff_t>(offset + size));
            s.expectedSha256 = entry.value("expected_sha256", "");
            streams.push_back(std::move(s));
        }
    }
    for (const auto& raw : top.value("raw_streams", json::array())) {
        if (raw.value("method", -1) != method) continue;
        FixtureStream s = describe(raw);
        s.label = raw.value("raw", "");
        s.compressed = readBytes(fixtureRoot() / s.label);
        s.expectedSha256 = sha256Hex(readBytes(fixtureRoot() / raw.value("expected", "")));
        streams.push_back(std::move(s));
    }
    return streams;
}

} // namespace legacyzip
