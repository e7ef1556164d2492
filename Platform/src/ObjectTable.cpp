// ObjectTable.cpp - insertion-ordered lookup by value.
#include <qx/ObjectTable.h>

namespace qx::detail {

std::size_t ObjectTable::find(const Object& key) const {
    auto it = index_.find(&key);
    return it == index_.end() ? npos : it->second;
}

void ObjectTable::set(Ref<Object> key, Ref<Object> value) {
    auto it = index_.find(key.get());
    if (it != index_.end()) {
        entries_[it->second].second = std::move(value);
        return;
    }
    const Object* raw = key.get();
    entries_.emplace_back(std::move(key), std::move(value));
    index_.emplace(raw, entries_.size() - 1);
}

bool ObjectTable::remove(const Object& key) {
    auto it = index_.find(&key);
    if (it == index_.end()) return false;
    const std::size_t at = it->second;
    index_.erase(it);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    for (std::size_t i = at; i < entries_.size(); ++i) index_[entries_[i].first.get()] = i;
    return true;
}

void ObjectTable::clear() {
    index_.clear();
    entries_.clear();
}

void ObjectTable::reserve(std::size_t n) {
    entries_.reserve(n);
    index_.reserve(n);
}

} // namespace qx::detail
