// FileIO.cpp - whole-file input and all-or-nothing output for qx commands.
#include "FileIO.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

bool posixFailure(int code, qx::Ref<qx::Error>* error) {
    if (error) *error = qx::Error::create(qx::NSPOSIXErrorDomain, code);
    return false;
}

// Closes a descriptor this unit opened when the scope ends.
class DescriptorCloser {
public:
    explicit DescriptorCloser(int fd) : fd_(fd) {}
    ~DescriptorCloser() {
        if (fd_ >= 0) ::close(fd_);
    }
    DescriptorCloser(const DescriptorCloser&) = delete;
    DescriptorCloser& operator=(const DescriptorCloser&) = delete;

private:
    int fd_;
};

bool writeAll(int fd, const void* bytes, std::size_t length, qx::Ref<qx::Error>* error) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    while (length > 0) {
        // Large single writes are split so that one call never exceeds what
        // the kernel accepts (it caps a write near 2 GiB).
        const std::size_t chunk = length < (std::size_t{1} << 30) ? length : (std::size_t{1} << 30);
        const ssize_t n = ::write(fd, p, chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            return posixFailure(errno, error);
        }
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

mode_t modeForNewFile() {
    // The process is single-threaded here, so reading the mask by setting it is safe.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
}

// The temporary file's name: hidden, beside the target, recognisably ours.
// The base name is shortened so the result stays within NAME_MAX.
std::string temporaryTemplateFor(const std::string& target) {
    const auto slash = target.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : target.substr(0, slash == 0 ? 1 : slash);
    std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    if (base.size() > 200) base.resize(200);
    if (dir.back() != '/') dir += '/';
    return dir + "." + base + ".qx-XXXXXX";
}

} // namespace

qx::Ref<qx::Data> readInput(const std::string& path, qx::Ref<qx::Error>* error) {
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        posixFailure(errno, error);
        return nullptr;
    }
    DescriptorCloser closer(standardInput ? -1 : fd);

    // A regular file is read into a buffer of its size plus one byte, so the
    // common case takes one allocation and the extra byte detects a file that
    // grew meanwhile. Pipes and devices start small and double.
    struct stat st {};
    std::size_t capacity = 64 * 1024;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0)
        capacity = static_cast<std::size_t>(st.st_size) + 1;

    std::vector<std::uint8_t> bytes(capacity);
    std::size_t used = 0;
    for (;;) {
        if (used == bytes.size()) bytes.resize(bytes.size() * 2);
        const ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            posixFailure(errno, error);
            return nullptr;
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    bytes.resize(used);
    return std::make_shared<qx::Data>(std::move(bytes));
}

OutputFile::OutputFile(int fd, bool ownsDescriptor, std::string temporaryPath, std::string targetPath)
    : fd_(fd), ownsDescriptor_(ownsDescriptor), temporaryPath_(std::move(temporaryPath)),
      targetPath_(std::move(targetPath)) {}

std::unique_ptr<OutputFile> OutputFile::open(const std::string& path, qx::Ref<qx::Error>* error) {
    if (path == "-") return std::unique_ptr<OutputFile>(new OutputFile(STDOUT_FILENO, false, {}, {}));
    if (path.empty()) {
        posixFailure(ENOENT, error);
        return nullptr;
    }

    // Replace what a link points at, not the link.
    std::string target = path;
    struct stat linkStat {};
    if (::lstat(path.c_str(), &linkStat) == 0 && S_ISLNK(linkStat.st_mode)) {
        if (char* resolved = ::realpath(path.c_str(), nullptr)) {
            target = resolved;
            std::free(resolved);
        }
    }

    struct stat st {};
    const bool exists = ::stat(target.c_str(), &st) == 0;
    if (!exists && errno != ENOENT) {
        posixFailure(errno, error);
        return nullptr;
    }
    if (exists && !S_ISREG(st.st_mode)) {
        // Pipes, terminals and devices are streams, not files to replace.
        const int fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        if (fd < 0) {
            posixFailure(errno, error);
            return nullptr;
        }
        return std::unique_ptr<OutputFile>(new OutputFile(fd, true, {}, {}));
    }

    std::string temporary = temporaryTemplateFor(target);
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        posixFailure(errno, error);
        return nullptr;
    }
    // mkostemp creates the file 0600; give it the mode the replaced file had,
    // or the one a new file would get.
    const mode_t mode = exists ? static_cast<mode_t>(st.st_mode & 07777) : modeForNewFile();
    if (::fchmod(fd, mode) != 0) {
        const int saved = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        posixFailure(saved, error);
        return nullptr;
    }
    return std::unique_ptr<OutputFile>(new OutputFile(fd, true, std::move(temporary), std::move(target)));
}

OutputFile::~OutputFile() {
    if (fd_ >= 0 && ownsDescriptor_) ::close(fd_);
    if (!temporaryPath_.empty()) ::unlink(temporaryPath_.c_str());
}

bool OutputFile::write(const void* bytes, std::size_t length, qx::Ref<qx::Error>* error) {
    if (fd_ < 0) return posixFailure(EBADF, error);
    return writeAll(fd_, bytes, length, error);
}

bool OutputFile::commit(qx::Ref<qx::Error>* error) {
    if (fd_ < 0) return posixFailure(EBADF, error);
    const int fd = fd_;
    fd_ = -1;
    if (ownsDescriptor_ && ::close(fd) != 0) return posixFailure(errno, error);
    if (temporaryPath_.empty()) return true;
    if (::rename(temporaryPath_.c_str(), targetPath_.c_str()) != 0) return posixFailure(errno, error);
    temporaryPath_.clear();
    return true;
}

bool writeOutput(const std::string& path, const void* bytes, std::size_t length, qx::Ref<qx::Error>* error) {
    auto output = OutputFile::open(path, error);
    return output && output->write(bytes, length, error) && output->commit(error);
}

} // namespace qxtool
