// QXRemoteFileHandleStreamWindow.cpp - front-to-back reading of a descriptor that cannot seek.
#include "Internal/QXRemoteFileHandleStreamWindow.h"

#include "Internal/QXRemoteFileHandlePrivate.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

std::uint64_t QXRemoteFileHandleStreamWindow::currentPosition() {
    std::lock_guard<std::mutex> lock(mutex_);
    return position_;
}

ssize_t QXRemoteFileHandleStreamWindow::read(int fd, std::uint8_t* out, std::size_t length) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (position_ < consumed_) {
            const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(length, consumed_ - position_));
            std::memcpy(out, kept_.data() + (kept_.size() - (consumed_ - position_)), count);
            position_ += count;
            return static_cast<ssize_t>(count);
        }
    }
    ssize_t n;
    do n = ::read(fd, out, length);
    while (n < 0 && errno == EINTR);
    if (n > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        keep(out, static_cast<std::size_t>(n));
        position_ = consumed_;
    }
    return n;
}

int QXRemoteFileHandleStreamWindow::seek(int fd, std::uint64_t offset) {
    std::uint64_t consumed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (offset < consumed_ - kept_.size()) return ESPIPE;
        if (offset <= consumed_) {
            position_ = offset;
            return 0;
        }
        position_ = consumed_;
        consumed = consumed_;
    }
    // Forward: read and drop what lies between. A stream that ends first has
    // no such position: the seek fails, leaving the position at the end.
    std::vector<std::uint8_t> scratch(static_cast<std::size_t>(std::min<std::uint64_t>(offset - consumed, qxrfh::kMaxReadBuffer)));
    while (consumed < offset) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(offset - consumed, scratch.size()));
        const ssize_t n = read(fd, scratch.data(), want);
        if (n < 0) return errno;
        if (n == 0) return ESPIPE;
        consumed += static_cast<std::uint64_t>(n);
    }
    return 0;
}

void QXRemoteFileHandleStreamWindow::keep(const std::uint8_t* bytes, std::size_t n) {
    if (n >= kCapacity) {
        kept_.assign(bytes + (n - kCapacity), bytes + n);
    } else {
        if (kept_.size() + n > kCapacity) kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(kept_.size() + n - kCapacity));
        kept_.insert(kept_.end(), bytes, bytes + n);
    }
    consumed_ += n;
}
