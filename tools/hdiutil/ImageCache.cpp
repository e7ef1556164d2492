// ImageCache.cpp - decoded disks of UDIF and remote images.
#include "ImageCache.h"

#include "CacheTrimmer.h"
#include "ToolFailure.h"
#include "ToolFolders.h"

#include "Internal/QXSafeFileWriter.h"

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXDiskImage.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace hdiutil {

std::string ImageCache::fileName(QXDiskImage& image, const ImageLocation& location) {
    std::string key;
    if (location.isRemote()) {
        const auto master = image.masterChecksum(), fork = image.dataForkChecksum();
        key = "url\n" + location.url->absoluteString() + "\n" + std::to_string(image.fileSize()) + "\n" +
              std::to_string(master.type) + ":" + std::to_string(master.value) + "\n" + std::to_string(fork.type) + ":" +
              std::to_string(fork.value);
    } else {
        const struct stat& s = location.status;
        key = "file\n" + location.path + "\n" + std::to_string(s.st_dev) + ":" + std::to_string(s.st_ino) + "\n" +
              std::to_string(s.st_size) + "\n" + std::to_string(s.st_mtim.tv_sec) + "." + std::to_string(s.st_mtim.tv_nsec) +
              "\n" + std::to_string(s.st_ctim.tv_sec) + "." + std::to_string(s.st_ctim.tv_nsec);
    }
    const auto digest = QXChecksum::checksumForData(qx::Data::withString(key), QXChecksumAlgorithmSHA256);
    static const char kHex[] = "0123456789abcdef";
    std::string name;
    for (std::size_t i = 0; digest && i < 16 && i < digest->length(); ++i) {
        name += kHex[digest->bytes()[i] >> 4];
        name += kHex[digest->bytes()[i] & 15];
    }
    return name + ".img";
}

bool ImageCache::holds(const std::string& path) {
    // Backing files come from the kernel with links resolved.
    std::error_code ec;
    return std::filesystem::path(path).parent_path() == std::filesystem::weakly_canonical(cacheFolder(), ec);
}

std::string ImageCache::decodedFile(QXDiskImage& image, const ImageLocation& location,
                                    const QXDiskImageExport::Progress& progress, std::string& reason) {
    const std::string folder = cacheFolder();
    if (const int code = makeFolder(folder)) {
        reason = folder + ": " + std::strerror(code);
        return {};
    }
    const std::string path = folder + "/" + fileName(image, location);
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) == image.size()) {
        // The time of last use, which trimming goes by; the atime alone would be lost on a noatime mount.
        ::utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
        trimCache(folder, path, cacheLimit());
        return path;
    }

    QXSafeFileWriter writer;
    if (const int code = writer.open(path)) {
        reason = path + ": " + std::strerror(code);
        return {};
    }
    int writeError = 0;
    qx::Ref<qx::Error> error;
    const auto written = [&writer, &progress](std::uint64_t done, std::uint64_t total) {
        writer.wroteUpTo(done);
        return !progress || progress(done, total);
    };
    if (!QXDiskImageExport::writeDisk(image, writer.fd(), written, &writeError, &error)) {
        reason = writeError ? path + ": " + std::strerror(writeError) : reasonFromError(error);
        return {};
    }
    if (const int code = writer.commit()) {
        reason = path + ": " + std::strerror(code);
        return {};
    }
    trimCache(folder, path, cacheLimit());
    return path;
}

} // namespace hdiutil
