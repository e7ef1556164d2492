// QXDiskImageExport.cpp - an image's decoded disk written into a plain file.
#include "Internal/QXDiskImageExport.h"

#include <QXFoundation/QXDiskImage.h>

#include <cerrno>
#include <unistd.h>

namespace QXDiskImageExport {

namespace {

bool writeAt(int fd, const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) {
    while (length > 0) {
        const ssize_t n = ::pwrite(fd, bytes, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        length -= static_cast<std::uint64_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

} // namespace

bool writeDisk(QXDiskImage& image, int fd, const Progress& progress, int* writeErrno, qx::Ref<qx::Error>* error) {
    int failed = 0;
    const std::uint64_t total = image.size();
    const bool read = image.enumerateContents(
        [&](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
            if (bytes && !writeAt(fd, bytes, length, offset)) {
                failed = errno ? errno : EIO;
                return false;
            }
            if (progress && !progress(offset + length, total)) {
                failed = ECANCELED;
                return false;
            }
            return true;
        },
        error);
    if (failed == 0 && read && ::ftruncate(fd, static_cast<off_t>(total)) != 0) failed = errno;
    if (writeErrno) *writeErrno = failed;
    return failed == 0 && read;
}

} // namespace QXDiskImageExport
