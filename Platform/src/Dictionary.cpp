// Dictionary.cpp - editable maps with insertion order.
#include <qx/Dictionary.h>

#include "Describe.h"

namespace qx {

Ref<Object> Dictionary::objectForKey(const Object& key) const {
    const std::size_t i = table_.find(key);
    return i == detail::ObjectTable::npos ? nullptr : table_.entries()[i].second;
}

Ref<Object> Dictionary::objectForKey(std::string_view key) const {
    return objectForKey(String(std::string(key)));
}

void Dictionary::setObject(Ref<Object> value, Ref<Object> key) {
    if (!key) return;
    if (!value) {
        table_.remove(*key);
        return;
    }
    // Immutable values are their own copies: keep the reference already held.
    switch (key->objectKind()) {
    case ObjectKind::String:
    case ObjectKind::Number:
    case ObjectKind::Date:
    case ObjectKind::Null: table_.set(std::move(key), std::move(value)); break;
    default: table_.set(key->copy(), std::move(value)); break;
    }
}

void Dictionary::addEntriesFromDictionary(const Dictionary& other) {
    for (const auto& [k, v] : other) setObject(v, k);
}

std::vector<Ref<Object>> Dictionary::allKeys() const {
    std::vector<Ref<Object>> keys;
    keys.reserve(count());
    for (const auto& e : table_.entries()) keys.push_back(e.first);
    return keys;
}

std::string Dictionary::description() const {
    std::string out;
    detail::appendDescription(out, this, 0);
    return out;
}

bool Dictionary::isEqual(const Object& other) const {
    const auto* d = dyn_cast<Dictionary>(&other);
    if (!d || d->count() != count()) return false;
    for (const auto& [k, v] : table_.entries())
        if (!qx::isEqual(v.get(), d->objectForKey(*k).get())) return false;
    return true;
}

Ref<Object> Dictionary::copy() const {
    auto d = std::make_shared<Dictionary>();
    d->table_ = table_;
    return d;
}

} // namespace qx
