// QXDiskImageChunkCache.cpp - a list in use order; capacities are a handful.
#include "Internal/QXDiskImageChunkCache.h"

QXDiskImageChunkCache::Bytes QXDiskImageChunkCache::find(std::size_t chunk) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first != chunk) continue;
        entries_.splice(entries_.begin(), entries_, it);
        return entries_.front().second;
    }
    return nullptr;
}

void QXDiskImageChunkCache::insert(std::size_t chunk, Bytes bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first != chunk) continue;
        entries_.erase(it);
        break;
    }
    entries_.emplace_front(chunk, std::move(bytes));
    while (entries_.size() > capacity_) entries_.pop_back();
}
