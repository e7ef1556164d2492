// ImageRecords.cpp - which image a decoded cache file stands for.
#include "ImageRecords.h"

#include "ToolFolders.h"

#include "Internal/QXSafeFileWriter.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <unistd.h>

namespace hdiutil {

namespace {

namespace fs = std::filesystem;

constexpr const char* kRecordExtension = ".image";

std::string recordPath(const std::string& cachePath) {
    return runtimeFolder() + "/" + fs::path(cachePath).filename().string() + kRecordExtension;
}

std::string contents(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

} // namespace

std::set<std::string> loopBackingFiles() {
    std::set<std::string> files;
    std::error_code ec;
    for (fs::directory_iterator entry("/sys/block", ec), end; !ec && entry != end; entry.increment(ec)) {
        std::string file = contents(entry->path() / "loop" / "backing_file");
        while (!file.empty() && file.back() == '\n') file.pop_back();
        if (!file.empty()) files.insert(file);
    }
    return files;
}

int rememberImage(const std::string& cachePath, const std::string& imageName) {
    if (const int code = makeFolder(runtimeFolder())) return code;
    if (recordedImage(cachePath) == imageName) return 0;
    QXSafeFileWriter writer;
    if (const int code = writer.open(recordPath(cachePath))) return code;
    if (const int code = writer.writeAll(imageName.data(), imageName.size())) return code;
    return writer.commit();
}

std::optional<std::string> recordedImage(const std::string& cachePath) {
    std::string name = contents(recordPath(cachePath));
    if (name.empty()) return std::nullopt;
    return name;
}

void forgetImage(const std::string& cachePath) { ::unlink(recordPath(cachePath).c_str()); }

void dropStaleDecodings(const std::string& imageName, const std::string& keep) {
    std::error_code ec;
    // The kernel names backing files by their real paths.
    const fs::path cache = fs::weakly_canonical(fs::path(keep).parent_path(), ec);
    const auto inUse = loopBackingFiles();
    for (fs::directory_iterator entry(runtimeFolder(), ec), end; !ec && entry != end; entry.increment(ec)) {
        const fs::path record = entry->path();
        if (record.extension() != kRecordExtension || contents(record) != imageName) continue;
        const fs::path decoded = fs::weakly_canonical(cache / record.stem(), ec);
        if (decoded.filename() == fs::path(keep).filename() || inUse.count(decoded.string())) continue;
        ::unlink(decoded.c_str());
        ::unlink(record.c_str());
    }
}

} // namespace hdiutil
