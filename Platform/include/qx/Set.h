// Set.h - an editable unordered collection of distinct objects.
//
// Enumerates in insertion order, which makes output reproducible.
#pragma once

#include <qx/ObjectTable.h>

namespace qx {

class Set final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::Set;

    Set() : Object(kKind) {}
    static Ref<Set> create() { return std::make_shared<Set>(); }

    std::size_t count() const { return table_.count(); }
    bool containsObject(const Object& object) const { return table_.find(object) != detail::ObjectTable::npos; }
    void addObject(Ref<Object> object);
    void removeObject(const Object& object) { table_.remove(object); }
    std::vector<Ref<Object>> allObjects() const;

    std::string className() const override { return "Set"; }
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return table_.count(); }
    Ref<Object> copy() const override;

private:
    detail::ObjectTable table_;
};

} // namespace qx
