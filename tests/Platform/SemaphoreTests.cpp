// Counting semaphores: timed waits, and counts kept across many threads.

#include "TestSupport.h"
#include <qx/Semaphore.h>

using namespace qx;
using namespace std::chrono_literals;

TEST(Semaphore, TimedWaitsGiveUpWithoutTakingAndLaterSignalsAreKept) {
    auto sem = Semaphore::create(2);
    EXPECT_TRUE(sem->tryWait() && sem->waitFor(0s));
    EXPECT_FALSE(sem->tryWait() || sem->waitFor(5ms) || sem->waitFor(-1s) || sem->waitUntil(Semaphore::Clock::now() - 1h));
    sem->signal();
    sem->signal();
    EXPECT_TRUE(sem->waitFor(0s) && sem->waitUntil(Semaphore::Clock::time_point::max()));
    EXPECT_FALSE(sem->tryWait());

    auto negative = Semaphore::create(-1);  // needs two signals before a wait passes
    negative->signal();
    EXPECT_FALSE(negative->tryWait());
    negative->signal();
    EXPECT_TRUE(negative->tryWait());
}

TEST(Semaphore, EverySignalIsTakenExactlyOnceUnderContention) {
    constexpr int producers = 4, consumers = 4, perProducer = 5000;
    auto sem = Semaphore::create();
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&] {
            for (int i = 0; i < producers * perProducer / consumers; ++i) {
                // Untimed and timed waits mixed; a timed one that gives up must not take.
                if (i % 2) sem->wait();
                else while (!sem->waitFor(1ms)) {}
                taken.fetch_add(1);
            }
        });
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < perProducer; ++i) sem->signal();
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(taken.load(), producers * perProducer);
    EXPECT_FALSE(sem->tryWait());
}
