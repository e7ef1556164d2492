// ObjectTable.cpp - insertion-ordered lookup by value.
#include <qx/ObjectTable.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <stdexcept>

namespace qx::detail {

namespace {

// Made on first use, so tables built by static initialisers hash the same
// way as every later one.
std::uint64_t processSeed() {
    static const std::uint64_t seed = [] {
        std::uint64_t s = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        try {
            std::random_device device;
            s ^= (static_cast<std::uint64_t>(device()) << 32) ^ device();
        } catch (...) {
            // No entropy source: the clock alone still varies per process.
        }
        return s;
    }();
    return seed;
}

} // namespace

std::size_t ObjectTable::slotHash(const Object& key) {
    // The splitmix64 finaliser: a bijection, so distinct hashes stay distinct,
    // and without the seed the slot of a key cannot be predicted.
    std::uint64_t x = static_cast<std::uint64_t>(key.hash()) + processSeed();
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return static_cast<std::size_t>(x ^ (x >> 31));
}

std::size_t ObjectTable::find(const Object& key) const {
    if (slots_.empty()) {
        for (std::size_t i = 0; i < entries_.size(); ++i)
            if (entries_[i].first->isEqual(key)) return i;
        return npos;
    }
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = slotHash(key) & mask;; i = (i + 1) & mask) {
        const std::uint32_t slot = slots_[i];
        if (slot == 0) return npos;
        if (entries_[slot - 1].first->isEqual(key)) return slot - 1;
    }
}

void ObjectTable::indexEntry(std::size_t at) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = slotHash(*entries_[at].first) & mask;
    while (slots_[i] != 0) i = (i + 1) & mask;
    slots_[i] = static_cast<std::uint32_t>(at + 1);
}

void ObjectTable::buildIndex() {
    // Slots hold 32-bit indexes: a table of four billion entries would not
    // fit in memory anyway, but say so rather than wrap.
    if (entries_.size() >= UINT32_MAX / 4) throw std::length_error("object table too large");
    std::size_t capacity = 32;
    while (capacity < entries_.size() * 2) capacity *= 2;
    slots_.assign(capacity, 0);
    for (std::size_t i = 0; i < entries_.size(); ++i) indexEntry(i);
}

void ObjectTable::set(Ref<Object> key, Ref<Object> value) {
    const std::size_t at = find(*key);
    if (at != npos) {
        entries_[at].second = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (slots_.empty() ? entries_.size() > kIndexThreshold : entries_.size() * 2 > slots_.size()) buildIndex();
    else if (!slots_.empty()) indexEntry(entries_.size() - 1);
}

bool ObjectTable::remove(const Object& key) {
    const std::size_t at = find(key);
    if (at == npos) return false;
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    // The later entries moved down by one: index them afresh.
    if (entries_.size() > kIndexThreshold) buildIndex();
    else slots_.clear();
    return true;
}

void ObjectTable::clear() {
    slots_.clear();
    entries_.clear();
}

void ObjectTable::reserve(std::size_t n) { entries_.reserve(n); }

} // namespace qx::detail
