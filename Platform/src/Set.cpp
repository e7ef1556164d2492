// Set.cpp - editable collections of distinct objects.
#include <qx/Set.h>

#include "Describe.h"

namespace qx {

void Set::addObject(Ref<Object> object) {
    if (!object || containsObject(*object)) return;
    table_.set(std::move(object), nullptr);
}

std::vector<Ref<Object>> Set::allObjects() const {
    std::vector<Ref<Object>> out;
    out.reserve(count());
    for (const auto& e : table_.entries()) out.push_back(e.first);
    return out;
}

std::string Set::description() const {
    std::string out;
    detail::appendDescription(out, this, 0);
    return out;
}

bool Set::isEqual(const Object& other) const {
    const auto* s = dyn_cast<Set>(&other);
    if (!s || s->count() != count()) return false;
    for (const auto& e : table_.entries())
        if (!s->containsObject(*e.first)) return false;
    return true;
}

Ref<Object> Set::copy() const {
    auto s = std::make_shared<Set>();
    s->table_ = table_;
    return s;
}

} // namespace qx
