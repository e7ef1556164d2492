// LegacyZipFixtures.cpp - the real shrink and implode streams under tests/fixtures/zip.
#include "LegacyZipFixtures.h"

#include "JsonValue.h"

#include <nettle/sha2.h>

#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace legacyzip {

namespace {

std::string jsonString(const JsonValue& object, const char* key) {
    const JsonValue* v = object.member(key);
    return v && v->kind == JsonValue::Kind::String ? v->text : std::string();
}

std::uint64_t jsonInteger(const JsonValue& object, const char* key) {
    const JsonValue* v = object.member(key);
    return v && v->isInteger() ? v->low64() : 0;
}

std::optional<JsonValue> readJson(const fs::path& path) {
    const auto bytes = readBytes(path);
    return JsonValue::parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

FixtureStream describe(const JsonValue& entry) {
    FixtureStream s;
    s.name = jsonString(entry, "name");
    s.method = static_cast<int>(jsonInteger(entry, "method"));
    s.flags = static_cast<unsigned>(jsonInteger(entry, "flags"));
    s.uncompressedSize = jsonInteger(entry, "uncompressed_size");
    if (const JsonValue* stats = entry.member("shrink_stats")) s.orphans = jsonInteger(*stats, "orphans");
    return s;
}

} // namespace

const fs::path& fixtureRoot() {
    static const fs::path root = fs::path(QX_TESTDATA_DIR) / "zip";
    return root;
}

std::vector<std::uint8_t> readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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
    const auto top = readJson(fixtureRoot() / "manifest.json");
    if (!top) return streams;
    if (const JsonValue* archives = top->member("archives")) {
        for (const auto& archive : archives->items) {
            const fs::path dir = fixtureRoot() / jsonString(archive, "entries_dir");
            const fs::path archivePath = fixtureRoot() / jsonString(archive, "archive");
            const auto manifest = readJson(dir / "manifest.json");
            if (!manifest || !manifest->member("entries")) return {};
            const auto archiveBytes = readBytes(archivePath);
            for (const auto& entry : manifest->member("entries")->items) {
                if (static_cast<int>(jsonInteger(entry, "method")) != method) continue;
                FixtureStream s = describe(entry);
                s.label = archivePath.filename().string() + ":" + s.name;
                const std::uint64_t offset = jsonInteger(entry, "data_offset");
                const std::uint64_t size = jsonInteger(entry, "compressed_size");
                if (offset > archiveBytes.size() || size > archiveBytes.size() - offset) return {};
                s.compressed.assign(archiveBytes.begin() + static_cast<std::ptrdiff_t>(offset),
                                    archiveBytes.begin() + static_cast<std::ptrdiff_t>(offset + size));
                s.expectedSha256 = jsonString(entry, "expected_sha256");
                streams.push_back(std::move(s));
            }
        }
    }
    if (const JsonValue* raws = top->member("raw_streams")) {
        for (const auto& raw : raws->items) {
            if (static_cast<int>(jsonInteger(raw, "method")) != method) continue;
            FixtureStream s = describe(raw);
            s.label = jsonString(raw, "raw");
            s.compressed = readBytes(fixtureRoot() / jsonString(raw, "raw"));
            s.expectedSha256 = sha256Hex(readBytes(fixtureRoot() / jsonString(raw, "expected")));
            streams.push_back(std::move(s));
        }
    }
    return streams;
}

} // namespace legacyzip
