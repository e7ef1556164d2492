// Null.h - the one null object, for places where "nothing" must be a value.
#pragma once

#include <qx/Object.h>

namespace qx {

class Null final : public Object {
public:
    static Ref<Null> null();

    std::string className() const override { return "Null"; }
    std::string description() const override { return "<null>"; }
    bool isEqual(const Object& other) const override { return other.objectKind() == kKind; }
    std::size_t hash() const override { return 0x6e756c6c; }

    static constexpr ObjectKind kKind = ObjectKind::Null;

    Null() : Object(kKind) {}
};

} // namespace qx
