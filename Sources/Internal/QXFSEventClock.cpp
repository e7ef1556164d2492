// QXFSEventClock.cpp - event identifiers taken from change times.
#include "Internal/QXFSEventClock.h"

#include <atomic>
#include <ctime>
#include <sys/vfs.h>

namespace QXFSEventClock {

namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1000000000ull;
// File systems whose change times are stamped by a clock coarser than the tick.
constexpr long kFuseMagic = 0x65735546;
constexpr long kMsdosMagic = 0x4d44;

std::atomic<std::uint64_t> lastIdentifier{0};

std::uint64_t read(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * kNanosecondsPerSecond + static_cast<std::uint64_t>(ts.tv_nsec);
}

// 0 for file systems stamped from the kernel's coarse clock.
std::uint64_t coarseGranule(const std::string& path) {
    struct statfs fs {};
    if (statfs(path.c_str(), &fs) != 0) return 0;
    if (static_cast<long>(fs.f_type) == kFuseMagic) return kNanosecondsPerSecond;
    if (static_cast<long>(fs.f_type) == kMsdosMagic) return 2 * kNanosecondsPerSecond;
    return 0;
}

} // namespace

std::uint64_t nextIdentifier(std::uint64_t changeTime) {
    std::uint64_t last = lastIdentifier.load(std::memory_order_relaxed);
    std::uint64_t next;
    do {
        next = changeTime > last ? changeTime : last + 1;
    } while (!lastIdentifier.compare_exchange_weak(last, next, std::memory_order_relaxed));
    return next;
}

std::uint64_t granuleStart(const std::string& path) {
    if (const std::uint64_t granule = coarseGranule(path)) return read(CLOCK_REALTIME) / granule * granule;
    // The kernel stamps inodes from this very clock (or a fine-grained time
    // above it), so nothing changed from now on can carry a smaller time.
    return read(CLOCK_REALTIME_COARSE);
}

std::uint64_t granuleLength(const std::string& path) {
    if (const std::uint64_t granule = coarseGranule(path)) return granule;
    timespec resolution{};
    clock_getres(CLOCK_REALTIME_COARSE, &resolution);
    return static_cast<std::uint64_t>(resolution.tv_sec) * kNanosecondsPerSecond + static_cast<std::uint64_t>(resolution.tv_nsec);
}

std::uint64_t now() { return read(CLOCK_REALTIME); }

} // namespace QXFSEventClock
