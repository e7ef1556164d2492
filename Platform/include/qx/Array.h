// Array.h - an editable ordered sequence of objects.
//
// Elements are never nothing when added by the library's readers; the array
// itself does not forbid null elements.
#pragma once

#include <qx/Object.h>

#include <initializer_list>
#include <vector>

namespace qx {

class Array final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::Array;

    Array() : Object(kKind) {}
    explicit Array(std::vector<Ref<Object>> items) : Object(kKind), items_(std::move(items)) {}
    Array(std::initializer_list<Ref<Object>> items) : Object(kKind), items_(items) {}

    static Ref<Array> create() { return std::make_shared<Array>(); }

    std::size_t count() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    /// The element at index; the index must be below count().
    const Ref<Object>& objectAtIndex(std::size_t index) const { return items_.at(index); }
    const Ref<Object>& operator[](std::size_t index) const { return items_[index]; }

    void addObject(Ref<Object> object) { items_.push_back(std::move(object)); }
    void insertObject(Ref<Object> object, std::size_t index);
    void removeObjectAtIndex(std::size_t index);
    void replaceObjectAtIndex(std::size_t index, Ref<Object> object) { items_.at(index) = std::move(object); }
    void removeAllObjects() { items_.clear(); }
    void reserve(std::size_t capacity) { items_.reserve(capacity); }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    const std::vector<Ref<Object>>& items() const { return items_; }

    std::string className() const override { return "Array"; }
    /// The old-style text form: "(\n    a,\n    b\n)".
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return items_.size(); }
    Ref<Object> copy() const override;

private:
    std::vector<Ref<Object>> items_;
};

} // namespace qx
