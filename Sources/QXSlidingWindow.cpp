// QXSlidingWindow.cpp - history storage with copies by distance from the end.
#include <QXFoundation/QXSlidingWindow.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXByteStorage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace {
constexpr std::uint64_t kCapacityLimit = 0x7FFFFFFFFFFFFFFFull;
}

QXSlidingWindow::QXSlidingWindow(std::uint64_t capacity)
    : buffer_(std::make_unique<QXByteStorage>()), bufferSize_(capacity) {}

QXSlidingWindow::~QXSlidingWindow() = default;

qx::Ref<QXSlidingWindow> QXSlidingWindow::initWithCapacity(std::uint64_t capacity, qx::Ref<qx::Error>* error) {
    if (capacity >= kCapacityLimit) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, EINVAL);
        return nullptr;
    }
    qx::Ref<QXSlidingWindow> window(new QXSlidingWindow(capacity));
    if (!window->buffer_->allocate(capacity)) {
        if (error) *error = QXGenerateError(qx::NSPOSIXErrorDomain, ENOMEM);
        return nullptr;
    }
    return window;
}

void QXSlidingWindow::lock() {
    // The critical sections are single copies: spin briefly, then let the
    // other thread run rather than burn the core it may need.
    for (unsigned spins = 0; spinLock_.test_and_set(std::memory_order_acquire); ++spins)
        if (spins >= 64) std::this_thread::yield();
}

void QXSlidingWindow::unlock() { spinLock_.clear(std::memory_order_release); }

void QXSlidingWindow::writeBytes(const void* bytes, std::uint64_t length) {
    if (!bytes) return;
    const std::uint64_t capacity = bufferSize_;
    const auto* source = static_cast<const std::uint8_t*>(bytes);
    std::uint8_t* const storage = buffer_->bytes();
    lock();
    // Only the last capacity bytes of a long write can survive it.
    if (length > capacity) source += length - capacity;
    std::uint64_t count = std::min(length, capacity);
    std::uint64_t pointer = writePointer_.load(std::memory_order_relaxed);
    const std::uint64_t toEnd = capacity - pointer;
    if (count > toEnd) {
        if (toEnd) std::memcpy(storage + pointer, source, toEnd);
        source += toEnd;
        pointer = 0;
        hasLooped_.store(true, std::memory_order_relaxed);
        count -= toEnd;
    }
    if (count) std::memcpy(storage + pointer, source, count);
    writePointer_.store(pointer + count, std::memory_order_relaxed);
    unlock();
}

void QXSlidingWindow::writeData(const qx::Ref<qx::Data>& data) {
    if (data) writeBytes(data->bytes(), data->length());
}

std::uint64_t QXSlidingWindow::bytesInBuffer() const {
    return hasLooped_.load(std::memory_order_relaxed) ? bufferSize_ : writePointer_.load(std::memory_order_relaxed);
}

std::uint64_t QXSlidingWindow::getBytes(void* buffer, std::uint64_t distance, std::uint64_t length) {
    const std::uint64_t capacity = bufferSize_;
    auto* destination = static_cast<std::uint8_t*>(buffer);
    const std::uint8_t* const storage = buffer_->bytes();
    lock();
    const std::uint64_t held = bytesInBuffer();
    std::uint64_t back = distance;  // how far before the newest end the copy starts
    if (distance >= held) {
        const std::uint64_t tooOld = distance - held;
        // Deliberately returns with the lock still held (see the header).
        if (tooOld >= length) return 0;
        length -= tooOld;
        back = held;
    }
    std::uint64_t count = std::min(length, back);
    if (count && !destination) {
        unlock();
        return 0;
    }
    const std::uint64_t pointer = writePointer_.load(std::memory_order_relaxed);
    std::uint64_t first = 0;
    if (back > pointer) {
        // The start lies in the older part, at the end of the storage.
        first = std::min(back - pointer, count);
        std::memcpy(destination, storage + (capacity - (back - pointer)), first);
        destination += first;
        back -= first;
        count -= first;
    }
    if (count) std::memcpy(destination, storage + (pointer - back), count);
    unlock();
    return first + count;
}

qx::Ref<qx::Data> QXSlidingWindow::dataWithDistanceFromEnd(std::uint64_t distance, std::uint64_t length) {
    auto data = qx::Data::create();
    if (distance >= capacity()) return data;
    data->setLength(static_cast<std::size_t>(std::min(capacity(), length)));
    data->setLength(static_cast<std::size_t>(getBytes(data->mutableBytes(), distance, data->length())));
    return data;
}

void QXSlidingWindow::clearBuffer() {
    lock();
    writePointer_.store(0, std::memory_order_relaxed);
    hasLooped_.store(false, std::memory_order_relaxed);
    unlock();
}
