// InputStream.cpp - the memory and file input streams behind the factories.
#include <qx/InputStream.h>

#include <qx/HTTPInputStream.h>
#include <qx/Number.h>
#include <qx/UniqueFd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

namespace qx {

bool InputStream::getBuffer(const std::uint8_t**, std::uint64_t*) { return false; }

namespace {

constexpr std::uint64_t kMaxRead = std::numeric_limits<std::int64_t>::max();

class DataInputStream final : public InputStream {
public:
    explicit DataInputStream(Ref<Data> data) : data_(std::move(data)) {}

    void open() override {
        if (streamStatus() != StreamStatus::NotOpen) return;
        if (length() == 0) {
            setStatus(StreamStatus::AtEnd);
            queueEvent(StreamEventOpenCompleted | StreamEventEndEncountered);
        } else {
            setStatus(StreamStatus::Open);
            queueEvent(StreamEventOpenCompleted | StreamEventHasBytesAvailable);
        }
    }

    std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
        std::unique_lock<std::mutex> lock(mutex_);
        const StreamStatus status = streamStatus();
        if (status == StreamStatus::AtEnd) return 0;
        if (status != StreamStatus::Open || !buffer) return -1;
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>({maxLength, length() - position_, kMaxRead}));
        std::copy_n(data_->bytes() + position_, n, buffer);
        position_ += n;
        const bool atEnd = position_ == length();
        if (atEnd) setStatus(StreamStatus::AtEnd);
        lock.unlock();
        queueEvent(atEnd ? StreamEventEndEncountered : StreamEventHasBytesAvailable);
        return static_cast<std::int64_t>(n);
    }

    bool getBuffer(const std::uint8_t** buffer, std::uint64_t* length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streamStatus() != StreamStatus::Open || !buffer || !length) return false;
        *buffer = data_->bytes() + position_;
        *length = this->length() - position_;
        return true;
    }

    bool hasBytesAvailable() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return streamStatus() == StreamStatus::Open && position_ < length();
    }

    std::string className() const override { return "DataInputStream"; }

private:
    std::size_t length() const { return data_ ? data_->length() : 0; }

    mutable std::mutex mutex_;
    Ref<Data> data_;
    std::size_t position_ = 0;  // 0 <= position_ <= length()
};

class FileInputStream final : public InputStream {
public:
    explicit FileInputStream(std::string path) : path_(std::move(path)) {}

    void open() override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (streamStatus() != StreamStatus::NotOpen) return;
        UniqueFd fd;
        do fd.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        while (!fd && errno == EINTR);
        if (!fd || (startOffset_ > 0 && ::lseek(fd.get(), static_cast<off_t>(startOffset_), SEEK_SET) < 0)) {
            const int errnum = errno;
            fd.reset();
            lock.unlock();
            failWithError(Error::create(NSPOSIXErrorDomain, errnum));
            return;
        }
        fd_ = std::move(fd);
        setStatus(StreamStatus::Open);
        lock.unlock();
        queueEvent(StreamEventOpenCompleted | StreamEventHasBytesAvailable);
    }

    void close() override {
        std::lock_guard<std::mutex> lock(mutex_);
        fd_.reset();
        setStatus(StreamStatus::Closed);
    }

    std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
        std::unique_lock<std::mutex> lock(mutex_);
        const StreamStatus status = streamStatus();
        if (status == StreamStatus::AtEnd) return 0;
        if (status != StreamStatus::Open || !buffer) return -1;
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(maxLength, SSIZE_MAX));
        ssize_t n;
        do n = ::read(fd_.get(), buffer, want);
        while (n < 0 && errno == EINTR);
        if (n < 0) {
            const int errnum = errno;
            lock.unlock();
            failWithError(Error::create(NSPOSIXErrorDomain, errnum));
            return -1;
        }
        if (n == 0 && want > 0) setStatus(StreamStatus::AtEnd);
        lock.unlock();
        queueEvent(n == 0 && want > 0 ? StreamEventEndEncountered : StreamEventHasBytesAvailable);
        return n;
    }

    bool hasBytesAvailable() const override { return streamStatus() == StreamStatus::Open; }

    Ref<Object> propertyForKey(const std::string& key) const override {
        if (key != FileCurrentOffsetKey) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!fd_) return streamStatus() == StreamStatus::NotOpen ? Number::withUInt64(startOffset_) : nullptr;
        const off_t at = ::lseek(fd_.get(), 0, SEEK_CUR);
        return at < 0 ? nullptr : Number::withUInt64(static_cast<std::uint64_t>(at));
    }

    bool setProperty(const Ref<Object>& property, const std::string& key) override {
        auto number = dyn_cast<Number>(property);
        if (key != FileCurrentOffsetKey || !number || number->isReal()) return false;
        const std::uint64_t offset = number->uint64Value();
        if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        const StreamStatus status = streamStatus();
        if (status == StreamStatus::NotOpen) {
            startOffset_ = offset;
            return true;
        }
        if (!fd_ || (status != StreamStatus::Open && status != StreamStatus::AtEnd)) return false;
        if (::lseek(fd_.get(), static_cast<off_t>(offset), SEEK_SET) < 0) return false;
        // Moving back from the end makes the rest readable again.
        if (status == StreamStatus::AtEnd) setStatus(StreamStatus::Open);
        return true;
    }

    std::string className() const override { return "FileInputStream"; }

private:
    mutable std::mutex mutex_;  // guards fd_ and the reads on it
    std::string path_;
    UniqueFd fd_;
    std::uint64_t startOffset_ = 0;  // set before the open
};

} // namespace

Ref<InputStream> InputStream::inputStreamWithData(const Ref<Data>& data) {
    return data ? std::make_shared<DataInputStream>(data) : nullptr;
}

Ref<InputStream> InputStream::inputStreamWithFileAtPath(const std::string& path) {
    return path.empty() ? nullptr : std::make_shared<FileInputStream>(path);
}

Ref<InputStream> InputStream::inputStreamWithURL(const Ref<URL>& url) {
    if (!url) return nullptr;
    if (url->isFileURL()) return inputStreamWithFileAtPath(url->path());
    if (url->scheme() == "http" || url->scheme() == "https") return HTTPInputStream::inputStreamWithURL(url, nullptr);
    return nullptr;
}

} // namespace qx
