// QXStoragePool.cpp - storage given back by data objects, for the next ones.
#include "Internal/QXStoragePool.h"

std::shared_ptr<QXStoragePool> QXStoragePool::create(std::size_t maxKept, std::size_t minCapacity,
                                                     std::size_t maxCapacity) {
    return std::shared_ptr<QXStoragePool>(new QXStoragePool(maxKept, minCapacity, maxCapacity));
}

qx::Ref<qx::Data> QXStoragePool::take() {
    std::vector<std::uint8_t> storage = takeStorage();
    storage.clear();
    return wrap(std::move(storage));
}

std::vector<std::uint8_t> QXStoragePool::takeStorage(
    const std::function<bool(const std::vector<std::uint8_t>&)>& accept) {
    std::vector<std::uint8_t> storage;
    std::vector<std::vector<std::uint8_t>> passedOver;  // freed outside the lock
    {
        std::lock_guard<std::mutex> lock(mutex_);
        while (!kept_.empty()) {
            std::vector<std::uint8_t> candidate = std::move(kept_.back());
            kept_.pop_back();
            if (!accept || accept(candidate)) {
                storage = std::move(candidate);
                break;
            }
            passedOver.push_back(std::move(candidate));
        }
    }
    return storage;
}

qx::Ref<qx::Data> QXStoragePool::wrap(std::vector<std::uint8_t> storage) {
    std::weak_ptr<QXStoragePool> weakPool = weak_from_this();
    return qx::Ref<qx::Data>(new qx::Data(std::move(storage)), [weakPool](qx::Data* data) {
        if (const auto pool = weakPool.lock()) pool->giveBack(data->vector());
        delete data;
    });
}

void QXStoragePool::giveBack(std::vector<std::uint8_t>& storage) {
    if (storage.capacity() < minCapacity_ || storage.capacity() > maxCapacity_ || storage.capacity() == 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (kept_.size() < maxKept_) kept_.push_back(std::move(storage));
}

std::size_t QXStoragePool::keptCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return kept_.size();
}
