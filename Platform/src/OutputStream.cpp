// OutputStream.cpp - the memory and file output streams behind the factories.
#include <qx/OutputStream.h>

#include <qx/Number.h>
#include <qx/UniqueFd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

namespace qx {

namespace {

constexpr std::uint64_t kMaxWrite = std::numeric_limits<std::int64_t>::max();

class MemoryOutputStream final : public OutputStream {
public:
    void open() override {
        StreamStatus status = streamStatus();
        if (status != StreamStatus::NotOpen) return;
        setStatus(StreamStatus::Open);
        queueEvent(StreamEventOpenCompleted | StreamEventHasSpaceAvailable);
    }

    std::int64_t write(const std::uint8_t* buffer, std::uint64_t length) override {
        if (streamStatus() != StreamStatus::Open || (!buffer && length)) return -1;
        length = std::min(length, kMaxWrite);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            data_->append(buffer, static_cast<std::size_t>(length));
        }
        queueEvent(StreamEventHasSpaceAvailable);
        return static_cast<std::int64_t>(length);
    }

    bool hasSpaceAvailable() const override { return streamStatus() == StreamStatus::Open; }

    Ref<Object> propertyForKey(const std::string& key) const override {
        if (key != DataWrittenToMemoryStreamKey) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        return Data::withBytes(data_->bytes(), data_->length());
    }

    std::string className() const override { return "MemoryOutputStream"; }

private:
    mutable std::mutex mutex_;
    Ref<Data> data_ = Data::create();
};

class FileOutputStream final : public OutputStream {
public:
    FileOutputStream(std::string path, bool append) : path_(std::move(path)), append_(append) {}

    void open() override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (streamStatus() != StreamStatus::NotOpen) return;
        int fd;
        do fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append_ ? O_APPEND : O_TRUNC), 0666);
        while (fd < 0 && errno == EINTR);
        if (fd < 0) {
            const int errnum = errno;
            lock.unlock();
            failWithError(Error::create(NSPOSIXErrorDomain, errnum));
            return;
        }
        fd_.reset(fd);
        setStatus(StreamStatus::Open);
        lock.unlock();
        queueEvent(StreamEventOpenCompleted | StreamEventHasSpaceAvailable);
    }

    void close() override {
        std::lock_guard<std::mutex> lock(mutex_);
        fd_.reset();
        setStatus(StreamStatus::Closed);
    }

    std::int64_t write(const std::uint8_t* buffer, std::uint64_t length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (streamStatus() != StreamStatus::Open || (!buffer && length)) return -1;
        length = std::min(length, kMaxWrite);
        std::uint64_t done = 0;
        while (done < length) {
            const ssize_t n = ::write(fd_.get(), buffer + done, static_cast<std::size_t>(std::min<std::uint64_t>(length - done, SSIZE_MAX)));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                const int errnum = n < 0 ? errno : EIO;
                lock.unlock();
                failWithError(Error::create(NSPOSIXErrorDomain, errnum));
                return -1;
            }
            done += static_cast<std::uint64_t>(n);
        }
        lock.unlock();
        queueEvent(StreamEventHasSpaceAvailable);
        return static_cast<std::int64_t>(length);
    }

    bool hasSpaceAvailable() const override { return streamStatus() == StreamStatus::Open; }

    Ref<Object> propertyForKey(const std::string& key) const override {
        if (key != FileCurrentOffsetKey) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!fd_) return nullptr;
        const off_t at = ::lseek(fd_.get(), 0, SEEK_CUR);
        return at < 0 ? nullptr : Number::withUInt64(static_cast<std::uint64_t>(at));
    }

    bool setProperty(const Ref<Object>& property, const std::string& key) override {
        auto number = dyn_cast<Number>(property);
        if (key != FileCurrentOffsetKey || !number || number->isReal()) return false;
        const std::uint64_t offset = number->uint64Value();
        if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        return fd_ && !append_ && ::lseek(fd_.get(), static_cast<off_t>(offset), SEEK_SET) >= 0;
    }

    std::string className() const override { return "FileOutputStream"; }

private:
    mutable std::mutex mutex_;  // guards fd_ and the writes on it
    std::string path_;
    bool append_;
    UniqueFd fd_;
};

} // namespace

Ref<OutputStream> OutputStream::outputStreamToMemory() { return std::make_shared<MemoryOutputStream>(); }

Ref<OutputStream> OutputStream::outputStreamToFileAtPath(const std::string& path, bool append) {
    return path.empty() ? nullptr : std::make_shared<FileOutputStream>(path, append);
}

Ref<OutputStream> OutputStream::outputStreamWithURL(const Ref<URL>& url, bool append) {
    return url && url->isFileURL() ? outputStreamToFileAtPath(url->path(), append) : nullptr;
}

} // namespace qx
