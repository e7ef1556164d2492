// QXByteStorage.cpp - heap or mapped storage for the fixed-size buffers.
#include "Internal/QXByteStorage.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sys/mman.h>

namespace {
// At and above this size the storage is mapped, as the C library would do anyway.
constexpr std::uint64_t kMapThreshold = 1u << 20;
}

QXByteStorage::~QXByteStorage() {
    if (mapped_)
        ::munmap(bytes_, length_);
    else
        std::free(bytes_);
}

bool QXByteStorage::allocate(std::uint64_t capacity) {
    if (capacity == 0) return true;
    if (capacity > std::numeric_limits<std::size_t>::max() / 2) {
        errno = ENOMEM;
        return false;
    }
    const auto length = static_cast<std::size_t>(capacity);
    if (capacity < kMapThreshold) {
        bytes_ = static_cast<std::uint8_t*>(std::malloc(length));
        if (!bytes_) {
            errno = ENOMEM;
            return false;
        }
    } else {
        void* area = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) return false;
        bytes_ = static_cast<std::uint8_t*>(area);
        mapped_ = true;
    }
    length_ = length;
    return true;
}
