// Array.cpp - editable ordered sequences.
#include <qx/Array.h>

#include "Describe.h"

#include <stdexcept>

namespace qx {

void Array::insertObject(Ref<Object> object, std::size_t index) {
    if (index > items_.size()) throw std::out_of_range("Array::insertObject");
    items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(index), std::move(object));
}

void Array::removeObjectAtIndex(std::size_t index) {
    if (index >= items_.size()) throw std::out_of_range("Array::removeObjectAtIndex");
    items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
}

std::string Array::description() const {
    std::string out;
    detail::appendDescription(out, this, 0);
    return out;
}

bool Array::isEqual(const Object& other) const {
    const auto* a = dyn_cast<Array>(&other);
    if (!a || a->items_.size() != items_.size()) return false;
    for (std::size_t i = 0; i < items_.size(); ++i)
        if (!qx::isEqual(items_[i].get(), a->items_[i].get())) return false;
    return true;
}

Ref<Object> Array::copy() const { return std::make_shared<Array>(items_); }

} // namespace qx
