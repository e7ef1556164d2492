// IndexSet.h - a sorted set of unsigned indexes, stored as disjoint ranges.
#pragma once

#include <qx/Object.h>

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace qx {

class IndexSet final : public Object {
public:
    static Ref<IndexSet> create() { return std::make_shared<IndexSet>(); }
    static Ref<IndexSet> create(std::size_t index);
    /// Indexes location ..< location + length (nothing for length 0; cut at
    /// the largest index rather than wrapping).
    static Ref<IndexSet> createWithRange(std::size_t location, std::size_t length);

    void addIndex(std::size_t index) { addRange(index, 1); }
    void addRange(std::size_t location, std::size_t length);
    void removeIndex(std::size_t index) { removeRange(index, 1); }
    void removeRange(std::size_t location, std::size_t length);

    bool contains(std::size_t index) const;
    std::size_t count() const;
    bool empty() const { return ranges_.empty(); }
    /// The smallest and largest index; only meaningful when not empty.
    std::size_t firstIndex() const { return ranges_.front().first; }
    std::size_t lastIndex() const { return ranges_.back().second - 1; }
    /// The indexes in ascending order; a stop flag set by body ends the walk.
    void forEach(const std::function<void(std::size_t index, bool& stop)>& body) const;
    std::vector<std::size_t> indexes() const;

    bool isEqual(const Object& other) const override;
    std::size_t hash() const override;
    Ref<Object> copy() const override { return std::make_shared<IndexSet>(*this); }
    std::string className() const override { return "IndexSet"; }
    std::string description() const override;

    IndexSet() = default;
    IndexSet(const IndexSet&) = default;

private:
    // Half-open [first, second), sorted, disjoint and not touching.
    std::vector<std::pair<std::size_t, std::size_t>> ranges_;
};

} // namespace qx
