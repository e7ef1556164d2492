// CacheTrimmer.cpp - keeping the folder of decoded images within a budget.
#include "CacheTrimmer.h"

#include "ImageRecords.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace hdiutil {

namespace {

namespace fs = std::filesystem;

constexpr std::time_t kRecentUse = 60;             // seconds a used decoded file is spared
constexpr std::time_t kAbandonedTemporary = 15 * 60; // seconds without a write before a temporary is stale

constexpr std::size_t kDigestLength = 32;              // hex digits of ImageCache::fileName
constexpr const char kDecodedExtension[] = ".img";
constexpr const char kTemporaryMark[] = ".qx-";        // the safe file writer's hidden temporaries
constexpr std::size_t kTemporarySuffixLength = 12;

bool isHex(const std::string& text, std::size_t from, std::size_t length) {
    if (from + length > text.size()) return false;
    return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(from), text.begin() + static_cast<std::ptrdiff_t>(from + length),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool isDecodedName(const std::string& name) {
    return name.size() == kDigestLength + std::strlen(kDecodedExtension) && isHex(name, 0, kDigestLength) &&
           name.compare(kDigestLength, std::string::npos, kDecodedExtension) == 0;
}

// "." + a decoded file's name + ".qx-" + 12 hex digits.
bool isTemporaryName(const std::string& name) {
    const std::size_t markAt = name.size() >= kTemporarySuffixLength + std::strlen(kTemporaryMark)
                                   ? name.size() - kTemporarySuffixLength - std::strlen(kTemporaryMark)
                                   : 0;
    return markAt > 1 && name[0] == '.' && isDecodedName(name.substr(1, markAt - 1)) &&
           name.compare(markAt, std::strlen(kTemporaryMark), kTemporaryMark) == 0 && isHex(name, markAt + std::strlen(kTemporaryMark), kTemporarySuffixLength);
}

struct Decoded {
    fs::path path;
    std::uint64_t allocated;
    std::timespec used;
};

bool usedEarlier(const Decoded& a, const Decoded& b) {
    if (a.used.tv_sec != b.used.tv_sec) return a.used.tv_sec < b.used.tv_sec;
    if (a.used.tv_nsec != b.used.tv_nsec) return a.used.tv_nsec < b.used.tv_nsec;
    return a.path < b.path;
}

} // namespace

std::uint64_t cacheLimit() {
    const char* value = std::getenv("QXFOUNDATION_IMAGE_CACHE_LIMIT");
    if (!value || !*value) return kDefaultCacheLimit;
    std::uint64_t limit = 0;
    const char* end = value + std::strlen(value);
    const auto parsed = std::from_chars(value, end, limit);
    // A value that is not a plain count of bytes is ignored rather than read in part.
    return parsed.ec == std::errc() && parsed.ptr == end ? limit : kDefaultCacheLimit;
}

void trimCache(const std::string& folder, const std::string& keep, std::uint64_t limit) {
    std::error_code ec;
    // Loop devices name their backing files by real paths.
    const fs::path root = fs::weakly_canonical(folder, ec);
    const std::string kept = fs::path(keep).filename().string();
    const auto inUse = loopBackingFiles();
    const std::time_t now = std::time(nullptr);

    std::uint64_t total = 0;
    std::vector<Decoded> candidates;
    for (fs::directory_iterator entry(root, ec), end; !ec && entry != end; entry.increment(ec)) {
        const std::string name = entry->path().filename().string();
        const bool decoded = isDecodedName(name);
        if (!decoded && !isTemporaryName(name)) continue;
        struct stat status {};
        if (::lstat(entry->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        if (!decoded && now - status.st_mtim.tv_sec > kAbandonedTemporary) {
            ::unlink(entry->path().c_str());
            continue;
        }
        const auto allocated = static_cast<std::uint64_t>(status.st_blocks) * 512;
        total += allocated;
        if (decoded && name != kept && now - status.st_mtim.tv_sec > kRecentUse && !inUse.count(entry->path().string()))
            candidates.push_back({entry->path(), allocated, status.st_mtim});
    }

    std::sort(candidates.begin(), candidates.end(), usedEarlier);
    for (const auto& candidate : candidates) {
        if (total <= limit) break;
        if (::unlink(candidate.path.c_str()) != 0) continue;
        forgetImage(candidate.path.string());
        total -= candidate.allocated;
    }
}

} // namespace hdiutil
