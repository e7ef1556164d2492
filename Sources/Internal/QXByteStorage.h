// QXByteStorage.h - the fixed storage behind the ring buffer and the sliding window.
//
// A buffer's capacity comes from its caller and may be anything up to 2^64 - 1;
// an allocation that cannot be made has to come back as a clean failure, not
// as a crash in the allocator. Small areas come from the heap (so the memory
// checkers see every byte); large ones are mapped straight from the system,
// which refuses an impossible size with ENOMEM and hands out zero pages that
// are only backed once they are written.
#pragma once

#include <cstddef>
#include <cstdint>

class QXByteStorage {
public:
    QXByteStorage() = default;
    ~QXByteStorage();
    QXByteStorage(const QXByteStorage&) = delete;
    QXByteStorage& operator=(const QXByteStorage&) = delete;

    /// Allocates capacity bytes (none for 0). False, with errno set, when the
    /// system cannot provide them.
    bool allocate(std::uint64_t capacity);

    std::uint8_t* bytes() const { return bytes_; }

private:
    std::uint8_t* bytes_ = nullptr;
    std::size_t length_ = 0;
    bool mapped_ = false;
};
