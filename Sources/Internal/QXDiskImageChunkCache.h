// QXDiskImageChunkCache.h - the last few decoded chunks of an image.
//
// Small on purpose: it exists so that reads walking through the image in
// pieces smaller than a chunk decode each chunk once, not to hold the image.
// Least recently used chunks go first. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

class QXDiskImageChunkCache {
public:
    using Bytes = std::shared_ptr<const std::vector<std::uint8_t>>;

    explicit QXDiskImageChunkCache(std::size_t capacity) : capacity_(capacity) {}

    /// The chunk's bytes, or null when not held; a hit becomes the most recent.
    Bytes find(std::size_t chunk);
    /// Keeps bytes as the most recent, dropping the oldest beyond capacity.
    void insert(std::size_t chunk, Bytes bytes);

private:
    std::mutex mutex_;
    const std::size_t capacity_;
    std::list<std::pair<std::size_t, Bytes>> entries_;  // most recent first
};
