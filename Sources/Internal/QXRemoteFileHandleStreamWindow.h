// QXRemoteFileHandleStreamWindow.h - the position of a local descriptor that
// cannot seek (a pipe, a socket, a terminal) and the bytes most recently read
// from it, so that a seek back among them reads them again.
//
// Invariant: consumed - kept <= position <= consumed. The lock is never held
// across a read of the descriptor, which may block for long.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

class QXRemoteFileHandleStreamWindow {
public:
    /// How many of the last bytes read are kept.
    static constexpr std::size_t kCapacity = 64 * 1024;

    std::uint64_t currentPosition();

    /// Up to length bytes from the position: kept bytes first, else one read
    /// of the descriptor. 0 at the end; -1 with errno set on failure.
    ssize_t read(int fd, std::uint8_t* out, std::size_t length);

    /// Moves to offset: among the kept bytes at once, forward by reading and
    /// dropping what lies between. 0, or the errno: ESPIPE for a position
    /// behind the kept bytes, and for one past the end of the stream (the
    /// position is then the end).
    int seek(int fd, std::uint64_t offset);

private:
    void keep(const std::uint8_t* bytes, std::size_t n);

    std::mutex mutex_;
    std::uint64_t position_ = 0;      // where the next read starts; guarded by mutex_
    std::uint64_t consumed_ = 0;      // bytes taken from the descriptor; guarded by mutex_
    std::vector<std::uint8_t> kept_;  // the bytes [consumed_ - kept_.size(), consumed_); guarded by mutex_
};
