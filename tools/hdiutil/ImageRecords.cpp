// ImageRecords.cpp - which image a decoded cache file stands for.
#include "ImageRecords.h"

#include "ToolFolders.h"

#include "Internal/QXSafeFileWriter.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace hdiutil {

namespace {

std::string recordPath(const std::string& cachePath) {
    return runtimeFolder() + "/" + std::filesystem::path(cachePath).filename().string() + ".image";
}

} // namespace

int rememberImage(const std::string& cachePath, const std::string& imageName) {
    if (const int code = makeFolder(runtimeFolder())) return code;
    if (recordedImage(cachePath) == imageName) return 0;
    QXSafeFileWriter writer;
    if (const int code = writer.open(recordPath(cachePath))) return code;
    if (const int code = writer.writeAll(imageName.data(), imageName.size())) return code;
    return writer.commit();
}

std::optional<std::string> recordedImage(const std::string& cachePath) {
    std::ifstream file(recordPath(cachePath), std::ios::binary);
    if (!file) return std::nullopt;
    std::string name((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (name.empty()) return std::nullopt;
    return name;
}

} // namespace hdiutil
