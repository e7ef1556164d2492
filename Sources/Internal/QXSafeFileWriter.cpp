// QXSafeFileWriter.cpp - temporary-then-rename replacement of one file.
#include "Internal/QXSafeFileWriter.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The mask is read from /proc rather than with umask(), which can only be read
// by setting it: another thread creating a file in between would get the
// wrong mode.
mode_t currentUmask() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Umask:", 0) != 0) continue;
        char* end = nullptr;
        const unsigned long mask = std::strtoul(line.c_str() + 6, &end, 8);
        if (end != line.c_str() + 6 && mask <= 0777) return static_cast<mode_t>(mask);
        break;
    }
    return 022;
}

// Hidden, beside the target and recognisably ours; the target's name is cut so
// that the temporary's stays within NAME_MAX.
std::string temporaryNameFor(const std::string& name) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    char suffix[24];
    std::snprintf(suffix, sizeof suffix, ".qx-%012" PRIx64, static_cast<std::uint64_t>(random() & 0xFFFFFFFFFFFFu));
    return "." + name.substr(0, 200) + suffix;
}

bool isOneComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

} // namespace

QXSafeFileWriter::~QXSafeFileWriter() { discard(); }

QXSafeFileWriter::QXSafeFileWriter(QXSafeFileWriter&& other) noexcept
    : folder_(std::move(other.folder_)), file_(std::move(other.file_)), name_(std::move(other.name_)),
      temporaryName_(std::exchange(other.temporaryName_, {})), targetPath_(std::move(other.targetPath_)),
      newFileMode_(other.newFileMode_), appended_(other.appended_), writebackFrom_(other.writebackFrom_) {}

QXSafeFileWriter& QXSafeFileWriter::operator=(QXSafeFileWriter&& other) noexcept {
    if (this != &other) {
        discard();
        folder_ = std::move(other.folder_);
        file_ = std::move(other.file_);
        name_ = std::move(other.name_);
        temporaryName_ = std::exchange(other.temporaryName_, {});
        targetPath_ = std::move(other.targetPath_);
        newFileMode_ = other.newFileMode_;
        appended_ = other.appended_;
        writebackFrom_ = other.writebackFrom_;
    }
    return *this;
}

int QXSafeFileWriter::open(const std::string& path, const std::optional<std::string>& temporaryName) {
    discard();
    if (path.empty()) return ENOENT;
    if (temporaryName && !isOneComponent(*temporaryName)) return EINVAL;
    std::string target = path;
    struct stat linkStat {};
    if (::lstat(path.c_str(), &linkStat) == 0 && S_ISLNK(linkStat.st_mode)) {
        if (char* resolved = ::realpath(path.c_str(), nullptr)) {
            target = resolved;
            std::free(resolved);
        }
    }
    const auto slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
    std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    if (!isOneComponent(name)) return EISDIR;

    // A folder that may be written but not listed can still take the file;
    // it only cannot be synced.
    qx::UniqueFd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folderFd && errno == EACCES) folderFd.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folderFd) return errno;
    const int result = start(std::move(folderFd), std::move(name), std::nullopt, temporaryName);
    if (result == 0) targetPath_ = std::move(target);
    return result;
}

int QXSafeFileWriter::openAt(int dirFd, const std::string& name, std::optional<mode_t> newFileMode) {
    discard();
    if (!isOneComponent(name)) return EINVAL;
    qx::UniqueFd folderFd(::fcntl(dirFd, F_DUPFD_CLOEXEC, 0));
    if (!folderFd) return errno;
    const int result = start(std::move(folderFd), name, newFileMode);
    if (result == 0) targetPath_ = name;
    return result;
}

int QXSafeFileWriter::start(qx::UniqueFd folder, std::string name, std::optional<mode_t> newFileMode,
                            const std::optional<std::string>& temporaryName) {
    // A name the caller chose gets one attempt: taking another would hand back
    // a temporary other than the one asked for.
    for (int attempt = 0; attempt < (temporaryName ? 1 : 100); ++attempt) {
        std::string temporary = temporaryName ? *temporaryName : temporaryNameFor(name);
        const int fd = ::openat(folder.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0600);
        if (fd >= 0) {
            folder_ = std::move(folder);
            file_.reset(fd);
            name_ = std::move(name);
            temporaryName_ = std::move(temporary);
            newFileMode_ = newFileMode;
            appended_ = 0;
            writebackFrom_ = 0;
            return 0;
        }
        if (errno != EEXIST) return errno;
    }
    return EEXIST;
}

int QXSafeFileWriter::writeAll(const void* bytes, std::size_t length) {
    if (!file_) return EBADF;
    const auto* p = static_cast<const unsigned char*>(bytes);
    while (length > 0) {
        // One call never asks for more than the kernel accepts (it caps a write near 2 GiB).
        const std::size_t chunk = length < (std::size_t{1} << 30) ? length : (std::size_t{1} << 30);
        const ssize_t n = ::write(file_.get(), p, chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return EIO;
        p += n;
        length -= static_cast<std::size_t>(n);
        appended_ += static_cast<std::uint64_t>(n);
    }
    wroteUpTo(appended_);
    return 0;
}

void QXSafeFileWriter::wroteUpTo(std::uint64_t end) {
    constexpr std::uint64_t step = std::uint64_t{8} << 20;
    if (!file_ || end < writebackFrom_ + step) return;
    const std::uint64_t upTo = end - end % step;
    // Only starts the write-back (no waiting): errors surface at commit's sync.
    ::sync_file_range(file_.get(), static_cast<off_t>(writebackFrom_), static_cast<off_t>(upTo - writebackFrom_),
                      SYNC_FILE_RANGE_WRITE);
    writebackFrom_ = upTo;
}

int QXSafeFileWriter::commit() {
    if (!file_) return EBADF;
    // The target's mode and owner are taken now, not at open, so a change made
    // to it meanwhile is kept. chown before chmod: changing the owner clears
    // set-user-ID bits.
    struct stat st {};
    if (::fstatat(folder_.get(), name_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) {
        if (::fchown(file_.get(), st.st_uid, st.st_gid) != 0 && errno != EPERM) return fail(errno);
        if (::fchmod(file_.get(), st.st_mode & 07777) != 0) return fail(errno);
    } else {
        const mode_t mode = newFileMode_ ? *newFileMode_ : static_cast<mode_t>(0666 & ~currentUmask());
        if (::fchmod(file_.get(), mode) != 0) return fail(errno);
    }
    if (::fsync(file_.get()) != 0) return fail(errno);
    if (const int closed = file_.close(); closed != 0) return fail(closed);
    if (::renameat(folder_.get(), temporaryName_.c_str(), folder_.get(), name_.c_str()) != 0) return fail(errno);
    temporaryName_.clear();
    ::fsync(folder_.get());
    folder_.reset();
    return 0;
}

int QXSafeFileWriter::finish(bool keep) {
    if (keep) return commit();
    discard();
    return 0;
}

void QXSafeFileWriter::discard() {
    file_.reset();
    if (!temporaryName_.empty()) ::unlinkat(folder_.get(), temporaryName_.c_str(), 0);
    temporaryName_.clear();
    folder_.reset();
}

int QXSafeFileWriter::fail(int code) {
    discard();
    return code;
}
