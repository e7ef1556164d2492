// Semaphore.h - a counting semaphore with waits that may give up at a deadline.
//
// signal() adds one to the count and wakes one waiter; wait() takes one,
// blocking (without spinning) while the count is zero. A timed wait that
// gives up leaves the count as it was, so a later signal is not lost.
#pragma once

#include <qx/Object.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace qx {

class Semaphore final : public Object {
public:
    using Clock = std::chrono::steady_clock;

    static Ref<Semaphore> create(std::int64_t initialCount = 0);

    void signal();
    void wait();
    /// Waits until the count can be taken or deadline passes; true when taken.
    [[nodiscard]] bool waitUntil(Clock::time_point deadline);
    /// As waitUntil, with a relative timeout (zero or less only tries).
    [[nodiscard]] bool waitFor(std::chrono::duration<double> timeout);
    /// Takes one without blocking; true when the count was above zero.
    [[nodiscard]] bool tryWait();

    std::string className() const override { return "Semaphore"; }

    explicit Semaphore(std::int64_t initialCount = 0) : count_(initialCount) {}

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    std::int64_t count_;
};

} // namespace qx
