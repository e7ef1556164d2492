// QXStoragePool.h - byte storage that data objects give back when their last
// holder lets go of them, for the next data of the same producer.
//
// Fresh megabytes cost more than filling them: the system hands out and
// clears every page on first touch. A producer that makes data of about the
// same size over and over (a decoder's output per call, a reader's chunks)
// takes its storage from a pool instead; each data it hands out gives its
// storage back when its last holder drops it, on whatever thread that is,
// under the pool's lock. The lock, not a reference count, is what tells the
// producer that the holder is done with the bytes, so a holder that keeps a
// data keeps it intact. A pool that is gone lets its data free their storage.
#pragma once

#include <qx/Data.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class QXStoragePool final : public std::enable_shared_from_this<QXStoragePool> {
public:
    /// A pool keeping at most maxKept storages given back, each of a capacity
    /// from minCapacity to maxCapacity; others are freed.
    static std::shared_ptr<QXStoragePool> create(std::size_t maxKept, std::size_t minCapacity = 0,
                                                 std::size_t maxCapacity = SIZE_MAX);

    /// An empty data whose storage is the one given back most recently (its
    /// capacity kept), or new, and comes back here.
    qx::Ref<qx::Data> take();

    /// The most recently given back storage that accept (when set) takes,
    /// or empty storage; the ones passed over on the way are freed. Its bytes
    /// are as the last holder left them.
    std::vector<std::uint8_t> takeStorage(const std::function<bool(const std::vector<std::uint8_t>&)>& accept = {});
    /// A data over storage (its length as it stands) that comes back here.
    qx::Ref<qx::Data> wrap(std::vector<std::uint8_t> storage);

    /// Storages kept now.
    std::size_t keptCount() const;

private:
    QXStoragePool(std::size_t maxKept, std::size_t minCapacity, std::size_t maxCapacity)
        : maxKept_(maxKept), minCapacity_(minCapacity), maxCapacity_(maxCapacity) {}
    void giveBack(std::vector<std::uint8_t>& storage);

    const std::size_t maxKept_;
    const std::size_t minCapacity_;
    const std::size_t maxCapacity_;
    mutable std::mutex mutex_;
    std::vector<std::vector<std::uint8_t>> kept_;  // most recently given back last
};
