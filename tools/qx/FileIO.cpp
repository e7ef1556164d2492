// FileIO.cpp - whole-file input and all-or-nothing output for qx commands.
#include "FileIO.h"

#include <cerrno>
#include <utility>
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

} // namespace

qx::Ref<qx::Data> readInput(const std::string& path, qx::Ref<qx::Error>* error) {
    const bool standardInput = path == "-";
    const qx::UniqueFd file(standardInput ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    const int fd = standardInput ? STDIN_FILENO : file.get();
    if (fd < 0) {
        posixFailure(errno, error);
        return nullptr;
    }

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

OutputFile::OutputFile(int fd, qx::UniqueFd owned, QXSafeFileWriter replacement)
    : fd_(fd), owned_(std::move(owned)), replacement_(std::move(replacement)) {}

std::unique_ptr<OutputFile> OutputFile::open(const std::string& path, qx::Ref<qx::Error>* error) {
    if (path == "-") return std::unique_ptr<OutputFile>(new OutputFile(STDOUT_FILENO, {}, {}));
    if (path.empty()) {
        posixFailure(ENOENT, error);
        return nullptr;
    }

    struct stat st {};
    const bool exists = ::stat(path.c_str(), &st) == 0;
    if (!exists && errno != ENOENT) {
        posixFailure(errno, error);
        return nullptr;
    }
    if (exists && !S_ISREG(st.st_mode)) {
        // Pipes, terminals and devices are streams, not files to replace.
        qx::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
        if (!fd) {
            posixFailure(errno, error);
            return nullptr;
        }
        const int raw = fd.get();
        return std::unique_ptr<OutputFile>(new OutputFile(raw, std::move(fd), {}));
    }

    QXSafeFileWriter replacement;
    if (const int failure = replacement.open(path); failure != 0) {
        posixFailure(failure, error);
        return nullptr;
    }
    const int fd = replacement.fd();
    return std::unique_ptr<OutputFile>(new OutputFile(fd, {}, std::move(replacement)));
}

OutputFile::~OutputFile() = default;

bool OutputFile::write(const void* bytes, std::size_t length, qx::Ref<qx::Error>* error) {
    if (fd_ < 0) return posixFailure(EBADF, error);
    return writeAll(fd_, bytes, length, error);
}

bool OutputFile::commit(qx::Ref<qx::Error>* error) {
    if (fd_ < 0) return posixFailure(EBADF, error);
    fd_ = -1;
    if (owned_) {
        if (const int failure = owned_.close(); failure != 0) return posixFailure(failure, error);
        return true;
    }
    if (replacement_.fd() < 0) return true;  // standard output stays open
    if (const int failure = replacement_.commit(); failure != 0) return posixFailure(failure, error);
    return true;
}

bool writeOutput(const std::string& path, const void* bytes, std::size_t length, qx::Ref<qx::Error>* error) {
    auto output = OutputFile::open(path, error);
    return output && output->write(bytes, length, error) && output->commit(error);
}

} // namespace qxtool
