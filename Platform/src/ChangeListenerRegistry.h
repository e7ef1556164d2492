// ChangeListenerRegistry.h - the listeners a block-device provider tells of
// changes, shared by both providers.
//
// An announcement calls the listeners registered when it began, in the order
// they were added, with the list itself unlocked, so a listener may add or
// remove listeners (itself included) from inside its call: one removed during
// an announcement is still called by that announcement if it has not been
// yet, never by a later one; one added is first called by the next.
// Announcements run one at a time, so listeners never see two at once.
//
// remove() returns only once no announcement is calling the listener, so its
// owner may free what the listener uses as soon as remove() returns. The one
// exception is a removal from inside an announcement on the same thread,
// which cannot wait for the call it is part of.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qx {

class ChangeListenerRegistry {
public:
    using Listener = std::function<void(const std::vector<std::string>& names)>;

    /// Registers listener; the token is for remove(), and never 0.
    std::uint64_t add(Listener listener);
    /// Unregisters a token (an unknown one is ignored) and waits for an
    /// announcement under way on another thread.
    void remove(std::uint64_t token);
    /// Calls each registered listener with names.
    void announce(const std::vector<std::string>& names);

private:
    std::mutex mutex_;                  // guards listeners_, nextToken_
    std::recursive_mutex callMutex_;    // held while listeners are called; recursive for a listener that removes
    std::map<std::uint64_t, Listener> listeners_;
    std::uint64_t nextToken_ = 1;
};

} // namespace qx
