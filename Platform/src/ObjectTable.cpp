// ObjectTable.cpp - insertion-ordered lookup by value.
#include <qx/ObjectTable.h>

#include <chrono>
#include <cstdint>
#include <random>

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

std::size_t ObjectTable::KeyHash::operator()(const Object* k) const {
    // The splitmix64 finaliser: a bijection, so distinct hashes stay distinct,
    // and without the seed the bucket of a key cannot be predicted.
    std::uint64_t x = static_cast<std::uint64_t>(k->hash()) + processSeed();
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return static_cast<std::size_t>(x ^ (x >> 31));
}

std::size_t ObjectTable::find(const Object& key) const {
    if (index_.empty()) {
        for (std::size_t i = 0; i < entries_.size(); ++i)
            if (entries_[i].first->isEqual(key)) return i;
        return npos;
    }
    auto it = index_.find(&key);
    return it == index_.end() ? npos : it->second;
}

void ObjectTable::buildIndex() {
    index_.reserve(entries_.size() * 2);
    for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].first.get(), i);
}

void ObjectTable::set(Ref<Object> key, Ref<Object> value) {
    const std::size_t at = find(*key);
    if (at != npos) {
        entries_[at].second = std::move(value);
        return;
    }
    const Object* raw = key.get();
    entries_.emplace_back(std::move(key), std::move(value));
    if (!index_.empty()) index_.emplace(raw, entries_.size() - 1);
    else if (entries_.size() > kIndexThreshold) buildIndex();
}

bool ObjectTable::remove(const Object& key) {
    const std::size_t at = find(key);
    if (at == npos) return false;
    if (!index_.empty()) index_.erase(entries_[at].first.get());
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    if (!index_.empty())
        for (std::size_t i = at; i < entries_.size(); ++i) index_[entries_[i].first.get()] = i;
    return true;
}

void ObjectTable::clear() {
    index_.clear();
    entries_.clear();
}

void ObjectTable::reserve(std::size_t n) { entries_.reserve(n); }

} // namespace qx::detail
