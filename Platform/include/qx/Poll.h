// Poll.h - waiting for one descriptor to become readable, with a time limit.
#pragma once

#include <chrono>

namespace qx {

enum class PollResult {
    Ready,     // a read will not block: data, end of file, or an error to report
    TimedOut,  // nothing happened within the timeout
    Failed,    // the wait itself failed (bad descriptor, ...); errno tells why
};

/// Waits until fd is readable or timeout passes (a negative timeout waits
/// without limit, zero only looks). Interrupted waits resume with the time
/// that is left.
PollResult pollDescriptor(int fd, std::chrono::milliseconds timeout);

} // namespace qx
