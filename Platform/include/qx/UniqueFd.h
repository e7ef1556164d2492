// UniqueFd.h - sole owner of one file descriptor.
//
// A UniqueFd closes the descriptor it holds when it is destroyed or reset, so
// a descriptor is closed also when an exception passes. It moves but never
// copies; a moved-from owner holds nothing (-1).
//
// close() is for callers that must report a failed close (a file being
// written, where close may be the first to see a full disk). On Linux the
// descriptor is released even when close fails, so the owner never retries:
// retrying could close a descriptor another thread has just been given.
// EINTR counts as closed for the same reason.
#pragma once

#include <cerrno>
#include <unistd.h>

namespace qx {

class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    /// Gives the descriptor up without closing it; the owner then holds nothing.
    int release() noexcept {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

    /// Closes what is held (ignoring errors) and takes fd.
    void reset(int fd = -1) noexcept {
        int old = fd_;
        fd_ = fd;
        if (old >= 0 && old != fd) ::close(old);
    }

    /// Closes now; 0, or the errno value of a failed close. Holds nothing after.
    int close() noexcept {
        int fd = release();
        if (fd < 0 || ::close(fd) == 0 || errno == EINTR) return 0;
        return errno;
    }

private:
    int fd_ = -1;
};

} // namespace qx
