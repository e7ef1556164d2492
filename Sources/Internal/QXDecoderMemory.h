// QXDecoderMemory.h - the caller's allocator, as the resumable decoders use it.
//
// Every allocation a decoder makes - its stream, its state and every buffer
// inside - goes through the hooks the caller gave at Init (malloc and free
// when none), so that a test can fail any one of them and see the decoder
// report running out of memory instead of crashing or leaking.
#pragma once

#include <QXFoundation/QXDecoderAllocator.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

struct QXDecoderMemory {
    QXAllocFunction alloc = nullptr;
    QXFreeFunction free = nullptr;
    void* opaque = nullptr;

    void* allocate(std::size_t size) const { return alloc ? alloc(opaque, 1, size) : std::malloc(size); }
    void release(void* address) const {
        if (!address) return;
        if (free) free(opaque, address);
        else std::free(address);
    }

    // A T built in memory from the hooks; null when the memory is refused or
    // the constructor throws.
    template <typename T, typename... Args>
    T* create(Args&&... args) const {
        void* raw = allocate(sizeof(T));
        if (!raw) return nullptr;
        try {
            return new (raw) T(std::forward<Args>(args)...);
        } catch (...) {
            release(raw);
            return nullptr;
        }
    }
    template <typename T>
    void destroy(T* object) const {
        if (!object) return;
        object->~T();
        release(object);
    }
};

// A standard allocator over the hooks: throws std::bad_alloc when they refuse,
// which the decoders turn into their out-of-memory result. The memory object
// must outlive every container that uses it (it lives in the decoder's state).
template <typename T>
class QXDecoderAllocator {
public:
    using value_type = T;

    explicit QXDecoderAllocator(const QXDecoderMemory* memory) noexcept : memory_(memory) {}
    template <typename U>
    QXDecoderAllocator(const QXDecoderAllocator<U>& other) noexcept : memory_(other.memory()) {}

    T* allocate(std::size_t n) {
        if (n > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
        void* p = memory_->allocate(n * sizeof(T));
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t) noexcept { memory_->release(p); }

    const QXDecoderMemory* memory() const noexcept { return memory_; }
    friend bool operator==(const QXDecoderAllocator& a, const QXDecoderAllocator& b) noexcept {
        return a.memory_ == b.memory_;
    }

private:
    const QXDecoderMemory* memory_;
};

template <typename T>
using QXDecoderVector = std::vector<T, QXDecoderAllocator<T>>;
