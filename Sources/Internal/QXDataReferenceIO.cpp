// QXDataReferenceIO.cpp - descriptor-level I/O for data-reference write-outs.
#include "Internal/QXDataReferenceIO.h"

#include <QXFoundation/QXStringAdditions.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace qxdataref {

namespace {

FaultHook& faultHook() {
    static FaultHook hook;
    return hook;
}

int injectedFault() {
    return faultHook() ? faultHook()() : 0;
}

int readWholeFork(int fd, std::vector<std::uint8_t>& value) {
    for (;;) {
        const ssize_t size = ::fgetxattr(fd, kResourceForkAttribute, nullptr, 0);
        if (size < 0) return errno;
        value.resize(static_cast<std::size_t>(size));
        const ssize_t got = ::fgetxattr(fd, kResourceForkAttribute, value.data(), value.size());
        if (got >= 0) {
            value.resize(static_cast<std::size_t>(got));
            return 0;
        }
        if (errno != ERANGE) return errno;  // it grew in between; ask again
    }
}

std::string folderOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

void setFaultHook(FaultHook hook) {
    faultHook() = std::move(hook);
}

int writeAt(int fd, const void* bytes, std::size_t length, std::uint64_t offset) {
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    while (length > 0) {
        if (const int fault = injectedFault()) return fault;
        const ssize_t n = ::pwrite(fd, p, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return ENOSPC;
        p += n;
        length -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return 0;
}

long long readAt(int fd, void* bytes, std::size_t length, std::uint64_t offset) {
    auto* p = static_cast<std::uint8_t*>(bytes);
    std::size_t total = 0;
    while (total < length) {
        const ssize_t n = ::pread(fd, p + total, length - total, static_cast<off_t>(offset + total));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        total += static_cast<std::size_t>(n);
    }
    return static_cast<long long>(total);
}

int truncateTo(int fd, std::uint64_t length) {
    if (const int fault = injectedFault()) return fault;
    while (::ftruncate(fd, static_cast<off_t>(length)) != 0)
        if (errno != EINTR) return errno;
    return 0;
}

int syncFile(int fd) {
    if (const int fault = injectedFault()) return fault;
    // A descriptor that cannot be synced (a pipe, a device) has nothing to lose.
    if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS) return errno;
    return 0;
}

int forkLength(int fd, std::uint64_t* length) {
    const ssize_t size = ::fgetxattr(fd, kResourceForkAttribute, nullptr, 0);
    if (size < 0 && errno != ENODATA) return errno;
    *length = size < 0 ? 0 : std::min<std::uint64_t>(static_cast<std::uint64_t>(size), kMaxForkPosition);
    return 0;
}

long long readFork(int fd, std::uint64_t position, void* bytes, std::size_t length) {
    // The attribute interface reads values whole.
    std::vector<std::uint8_t> value;
    const int rc = readWholeFork(fd, value);
    if (rc == ENODATA) return 0;
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    if (position >= value.size()) return 0;
    const std::size_t count = std::min<std::size_t>(length, value.size() - position);
    std::copy_n(value.data() + position, count, static_cast<std::uint8_t*>(bytes));
    return static_cast<long long>(count);
}

int writeFork(int fd, std::uint64_t position, const void* bytes, std::size_t length) {
    if (const int fault = injectedFault()) return fault;
    std::vector<std::uint8_t> value;
    const int rc = readWholeFork(fd, value);
    if (rc != 0 && rc != ENODATA) return rc;
    if (value.size() < position + length) value.resize(position + length);
    std::copy_n(static_cast<const std::uint8_t*>(bytes), length, value.data() + position);
    if (::fsetxattr(fd, kResourceForkAttribute, value.data(), value.size(), 0) != 0) return errno;
    return 0;
}

int removeFork(int fd) {
    if (::fremovexattr(fd, kResourceForkAttribute) != 0 && errno != ENODATA) return errno;
    return 0;
}

int openUnlinkedTemporary(const std::string& path, qx::UniqueFd* file) {
    std::string folder = folderOf(path);
    struct stat info {};
    while (::stat(folder.c_str(), &info) != 0 && folder != "/" && folder != ".") folder = folderOf(folder);

    // O_TMPFILE never has a name; file systems without it get a named file
    // that is unlinked at once.
    qx::UniqueFd fd(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!fd) {
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return errno;
        const std::string name = folder + "/FennickTempFile-" + QXStringAdditions::uniqueID()->utf8();
        fd.reset(::open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
        if (!fd) return errno;
        ::unlink(name.c_str());
    }
    *file = std::move(fd);
    return 0;
}

} // namespace qxdataref
