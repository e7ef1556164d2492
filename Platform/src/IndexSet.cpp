// IndexSet.cpp - range merging and splitting.
#include <qx/IndexSet.h>

#include <algorithm>
#include <limits>

namespace qx {

Ref<IndexSet> IndexSet::create(std::size_t index) {
    auto set = create();
    set->addIndex(index);
    return set;
}

Ref<IndexSet> IndexSet::createWithRange(std::size_t location, std::size_t length) {
    auto set = create();
    set->addRange(location, length);
    return set;
}

namespace {
std::size_t clippedEnd(std::size_t location, std::size_t length) {
    const auto max = std::numeric_limits<std::size_t>::max();
    return length > max - location ? max : location + length;
}
} // namespace

void IndexSet::addRange(std::size_t location, std::size_t length) {
    if (length == 0) return;
    std::size_t begin = location, end = clippedEnd(location, length);
    // The first range that ends at or after begin may touch or overlap.
    auto it = std::lower_bound(ranges_.begin(), ranges_.end(), begin,
                               [](const auto& r, std::size_t value) { return r.second < value; });
    auto last = it;
    while (last != ranges_.end() && last->first <= end) {
        begin = std::min(begin, last->first);
        end = std::max(end, last->second);
        ++last;
    }
    it = ranges_.erase(it, last);
    ranges_.insert(it, {begin, end});
}

void IndexSet::removeRange(std::size_t location, std::size_t length) {
    if (length == 0) return;
    const std::size_t begin = location, end = clippedEnd(location, length);
    std::vector<std::pair<std::size_t, std::size_t>> kept;
    kept.reserve(ranges_.size() + 1);
    for (const auto& r : ranges_) {
        if (r.second <= begin || r.first >= end) {
            kept.push_back(r);
            continue;
        }
        if (r.first < begin) kept.emplace_back(r.first, begin);
        if (r.second > end) kept.emplace_back(end, r.second);
    }
    ranges_.swap(kept);
}

bool IndexSet::contains(std::size_t index) const {
    auto it = std::upper_bound(ranges_.begin(), ranges_.end(), index,
                               [](std::size_t value, const auto& r) { return value < r.second; });
    return it != ranges_.end() && it->first <= index;
}

std::size_t IndexSet::count() const {
    std::size_t total = 0;
    for (const auto& r : ranges_) total += r.second - r.first;
    return total;
}

void IndexSet::forEach(const std::function<void(std::size_t, bool&)>& body) const {
    bool stop = false;
    for (const auto& r : ranges_)
        for (std::size_t i = r.first; i < r.second; ++i) {
            body(i, stop);
            if (stop) return;
        }
}

std::vector<std::size_t> IndexSet::indexes() const {
    std::vector<std::size_t> all;
    forEach([&](std::size_t i, bool&) { all.push_back(i); });
    return all;
}

bool IndexSet::isEqual(const Object& other) const {
    auto set = dyn_cast<IndexSet>(&other);
    return set && set->ranges_ == ranges_;
}

std::size_t IndexSet::hash() const {
    std::size_t h = ranges_.size();
    for (const auto& r : ranges_) h = h * 31 + r.first * 7 + r.second;
    return h;
}

std::string IndexSet::description() const {
    std::string text = "(";
    for (std::size_t i = 0; i < ranges_.size(); ++i) {
        if (i) text += " ";
        text += std::to_string(ranges_[i].first);
        if (ranges_[i].second - ranges_[i].first > 1) text += "-" + std::to_string(ranges_[i].second - 1);
    }
    return text + ")";
}

} // namespace qx
