// QXDiskImageSource.cpp - the three kinds of source.
#include "Internal/QXDiskImageSource.h"

#include <QXFoundation/QXDiskImage.h>
#include <QXFoundation/QXError.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

qx::Ref<qx::Error> readError(int code) {
    auto underlying = QXGenerateError(qx::NSPOSIXErrorDomain, code);
    return QXGenerateError(kQXDiskImageErrorDomain, kQXDiskImageErrorReadFailed, nullptr, underlying, nullptr,
                           "cannot read the image: %s", std::string(std::strerror(code)));
}

class FileSource final : public QXDiskImageSource {
public:
    FileSource(qx::UniqueFd fd, std::string path, std::uint64_t size) : fd_(std::move(fd)), path_(std::move(path)) {
        size_ = size;
    }

    bool read(std::uint64_t offset, void* buffer, std::size_t length, qx::Ref<qx::Error>* error) override {
        auto* out = static_cast<std::uint8_t*>(buffer);
        while (length > 0) {
            const ssize_t n = ::pread(fd_.get(), out, length, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                // A file that shrank since it was opened ends early.
                if (error) *error = readError(n < 0 ? errno : EIO);
                return false;
            }
            out += n;
            offset += static_cast<std::uint64_t>(n);
            length -= static_cast<std::size_t>(n);
        }
        return true;
    }

    std::string legacyResourceFork() override {
        static const char* const kAttribute = "user.com.apple.ResourceFork";
        const ssize_t length = ::fgetxattr(fd_.get(), kAttribute, nullptr, 0);
        if (length <= 0) return {};
        std::string fork(static_cast<std::size_t>(length), '\0');
        const ssize_t got = ::fgetxattr(fd_.get(), kAttribute, fork.data(), fork.size());
        if (got < 0) return {};
        fork.resize(static_cast<std::size_t>(got));
        return fork;
    }

private:
    qx::UniqueFd fd_;
    std::string path_;
};

class HandleSource final : public QXDiskImageSource {
public:
    HandleSource(qx::Ref<QXRemoteFileHandle> handle, std::uint64_t size) : handle_(std::move(handle)) { size_ = size; }

    bool read(std::uint64_t offset, void* buffer, std::size_t length, qx::Ref<qx::Error>* error) override {
        std::lock_guard<std::mutex> lock(mutex_);
        qx::Ref<qx::Error> failure;
        auto data = handle_->readDataInRange(offset, length, &failure);
        if (!data || data->length() != length) {
            if (error)
                *error = QXGenerateError(kQXDiskImageErrorDomain, kQXDiskImageErrorReadFailed, nullptr, failure,
                                         nullptr, "cannot read the image: short read");
            return false;
        }
        std::memcpy(buffer, data->bytes(), length);
        return true;
    }

private:
    std::mutex mutex_;  // the handle serves one read at a time
    qx::Ref<QXRemoteFileHandle> handle_;
};

class DataSource final : public QXDiskImageSource {
public:
    explicit DataSource(qx::Ref<qx::Data> data) : data_(std::move(data)) { size_ = data_->length(); }

    bool read(std::uint64_t offset, void* buffer, std::size_t length, qx::Ref<qx::Error>* error) override {
        // Callers check ranges against size(); memory cannot fail, so this is
        // the one place a range that slipped past them shows.
        if (offset > size_ || length > size_ - offset) {
            if (error) *error = readError(EFAULT);
            return false;
        }
        std::memcpy(buffer, data_->bytes() + offset, length);
        return true;
    }

private:
    qx::Ref<qx::Data> data_;
};

} // namespace

std::unique_ptr<QXDiskImageSource> QXDiskImageSource::openFile(const std::string& path, qx::Ref<qx::Error>* error) {
    qx::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, errno);
        return nullptr;
    }
    if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
        return nullptr;
    }
    std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
    if (S_ISBLK(info.st_mode)) {
        const off_t end = ::lseek(fd.get(), 0, SEEK_END);
        size = end < 0 ? 0 : static_cast<std::uint64_t>(end);
    }
    return std::make_unique<FileSource>(std::move(fd), path, size);
}

std::unique_ptr<QXDiskImageSource> QXDiskImageSource::withHandle(const qx::Ref<QXRemoteFileHandle>& handle,
                                                                 qx::Ref<qx::Error>* error) {
    // An HTTP handle knows whether the server takes ranges only once its size is known.
    const std::uint64_t size = handle ? handle->fileSize() : 0;
    if (!handle || !handle->isReadable() || !handle->isSeekable()) {
        if (error)
            *error = QXGenerateError(kQXDiskImageErrorDomain, kQXDiskImageErrorReadFailed, nullptr, nullptr, nullptr,
                                     "the image cannot be read by ranges");
        return nullptr;
    }
    return std::make_unique<HandleSource>(handle, size);
}

std::unique_ptr<QXDiskImageSource> QXDiskImageSource::withData(const qx::Ref<qx::Data>& data) {
    return std::make_unique<DataSource>(data ? data : qx::Data::create());
}
