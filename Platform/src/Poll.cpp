// Poll.cpp - poll(2) with EINTR handled against a fixed deadline.
#include <qx/Poll.h>

#include <poll.h>

#include <cerrno>

namespace qx {

PollResult pollDescriptor(int fd, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    if (fd < 0) {
        errno = EBADF;
        return PollResult::Failed;
    }
    const bool forever = timeout.count() < 0;
    const auto deadline = Clock::now() + (forever ? std::chrono::milliseconds(0) : timeout);
    for (;;) {
        int wait = -1;
        if (!forever) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            wait = left <= 0 ? 0 : (left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left));
        }
        struct pollfd p = {fd, POLLIN, 0};
        const int n = ::poll(&p, 1, wait);
        if (n > 0) {
            if (p.revents & POLLNVAL) {
                errno = EBADF;
                return PollResult::Failed;
            }
            return PollResult::Ready;  // POLLIN, POLLHUP or POLLERR: a read answers now
        }
        if (n == 0) {
            if (forever || Clock::now() >= deadline) return PollResult::TimedOut;
            continue;  // woke a little early
        }
        if (errno != EINTR) return PollResult::Failed;
    }
}

} // namespace qx
