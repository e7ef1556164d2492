// Dictionary.h - an editable map from keys to objects.
//
// Keys are strings by convention (property lists); any object with hash() and
// isEqual() works, because binary files may carry other keys. Enumeration
// order is insertion order; replacing a value keeps the key's place. Keys are
// copied when set, as the platform's dictionaries do.
#pragma once

#include <qx/ObjectTable.h>
#include <qx/String.h>

#include <string_view>

namespace qx {

class Dictionary final : public Object {
public:
    using Entry = detail::ObjectTable::Entry;

    static constexpr ObjectKind kKind = ObjectKind::Dictionary;

    Dictionary() : Object(kKind) {}
    static Ref<Dictionary> create() { return std::make_shared<Dictionary>(); }

    std::size_t count() const { return table_.count(); }
    bool empty() const { return table_.count() == 0; }

    /// The value for key, or nothing.
    Ref<Object> objectForKey(const Object& key) const;
    Ref<Object> objectForKey(std::string_view key) const;
    template <class T> Ref<T> get(std::string_view key) const { return dyn_cast<T>(objectForKey(key)); }

    /// Sets or replaces; a null value removes the key.
    void setObject(Ref<Object> value, Ref<Object> key);
    void setObject(Ref<Object> value, std::string_view key) { setObject(std::move(value), str(key)); }
    void removeObjectForKey(const Object& key) { table_.remove(key); }
    void removeObjectForKey(std::string_view key) { table_.remove(String(std::string(key))); }
    void removeAllObjects() { table_.clear(); }
    void addEntriesFromDictionary(const Dictionary& other);
    void reserve(std::size_t n) { table_.reserve(n); }

    /// Entries in insertion order (key, value).
    auto begin() const { return table_.entries().begin(); }
    auto end() const { return table_.entries().end(); }
    std::vector<Ref<Object>> allKeys() const;

    std::string className() const override { return "Dictionary"; }
    /// The old-style text form: "{\n    key = value;\n}".
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return table_.count(); }
    Ref<Object> copy() const override;

private:
    detail::ObjectTable table_;
};

} // namespace qx
