// ChangeListenerRegistry.cpp - registering, removing and calling listeners.
#include "ChangeListenerRegistry.h"

namespace qx {

std::uint64_t ChangeListenerRegistry::add(Listener listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::uint64_t token = nextToken_++;
    listeners_.emplace(token, std::move(listener));
    return token;
}

void ChangeListenerRegistry::remove(std::uint64_t token) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        listeners_.erase(token);
    }
    // Waits for a call under way (a listener removing itself holds this already).
    std::lock_guard<std::recursive_mutex> calls(callMutex_);
}

void ChangeListenerRegistry::announce(const std::vector<std::string>& names) {
    std::lock_guard<std::recursive_mutex> calls(callMutex_);
    std::vector<Listener> listeners;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : listeners_) listeners.push_back(entry.second);
    }
    for (const auto& listener : listeners) listener(names);
}

} // namespace qx
