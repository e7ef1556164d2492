// QXHelperThreads.h - a few threads kept for the life of the process that
// run one job together with the thread that asks.
//
// Private to Sources/. What the Unicode machinery sets up per thread
// (collators and their contraction tables) is slow to make; a thread made
// for each search would make it again every time, where these keep it.
// One job at a time: a caller that finds the helpers busy does its job
// alone. The threads are never stopped; they wait until the process ends.
// A child made by fork has none of them, so there every caller works alone.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <sys/types.h>

class QXHelperThreads {
public:
    /// The process's helpers: one fewer than the hardware threads, at most
    /// three, made on first use.
    static QXHelperThreads& shared();

    /// Runs job on every helper and on the calling thread at once, and
    /// returns when all have finished. job must not throw. When another
    /// caller holds the helpers, job runs on the calling thread alone.
    void run(const std::function<void()>& job);

    QXHelperThreads(const QXHelperThreads&) = delete;
    QXHelperThreads& operator=(const QXHelperThreads&) = delete;

private:
    explicit QXHelperThreads(unsigned count);
    void serve();

    std::mutex busy_;  // held by the caller whose job the helpers run
    std::mutex mutex_;
    std::condition_variable wake_, done_;
    const std::function<void()>* job_ = nullptr;
    std::uint64_t generation_ = 0;  // one more per job handed out
    std::size_t threads_ = 0;       // helpers started
    std::size_t pending_ = 0;       // helpers still on the current job
    const pid_t owner_;             // the process the helpers run in
};
