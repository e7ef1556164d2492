// Semaphore.cpp - a count under a mutex, waiters on a condition.
#include <qx/Semaphore.h>

namespace qx {

Ref<Semaphore> Semaphore::create(std::int64_t initialCount) { return std::make_shared<Semaphore>(initialCount); }

void Semaphore::signal() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
    }
    condition_.notify_one();
}

void Semaphore::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    condition_.wait(lock, [&] { return count_ > 0; });
    --count_;
}

bool Semaphore::tryWait() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ <= 0) return false;
    --count_;
    return true;
}

bool Semaphore::waitUntil(Clock::time_point deadline) {
    if (deadline == Clock::time_point::max()) {
        wait();
        return true;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (!condition_.wait_until(lock, deadline, [&] { return count_ > 0; })) return false;
    --count_;
    return true;
}

bool Semaphore::waitFor(std::chrono::duration<double> timeout) {
    const auto now = Clock::now();
    if (timeout.count() <= 0) return tryWait();
    // Anything beyond a century is "never" and must not overflow the clock.
    if (timeout > std::chrono::hours(24 * 365 * 100)) {
        wait();
        return true;
    }
    return waitUntil(now + std::chrono::duration_cast<Clock::duration>(timeout));
}

} // namespace qx
