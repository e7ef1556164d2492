// QXPropertyListKind.h - which kind of property-list value an object is.
//
// Private to Sources/. One KindCache serves one reader or writer on one
// thread; it is not shared.
#pragma once

#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/Array.h>
#include <qx/Date.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/Set.h>
#include <qx/String.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <typeinfo>
#include <utility>

namespace QXBinaryPlistInternal {

enum class Kind : std::uint8_t { Other, String, Number, Dictionary, Array, Set, Date, Data, UID };

// Tells the kind of a value. The value classes are final, so an exact type
// test is a kind test; but comparing std::type_info objects falls back to
// comparing their names whenever the addresses differ, which would cost a
// string compare per kind tried per value. Each distinct type_info address is
// therefore classified once, with the full comparison, and remembered.
class KindCache {
public:
    Kind kindOf(const qx::Object& object) {
        const std::type_info* type = &typeid(object);
        for (std::size_t i = 0; i < used_; ++i)
            if (seen_[i].first == type) return seen_[i].second;
        const Kind kind = classify(object, *type);
        if (used_ < seen_.size()) seen_[used_++] = {type, kind};
        return kind;
    }

private:
    static Kind classify(const qx::Object& object, const std::type_info& type) {
        if (type == typeid(qx::String)) return Kind::String;
        if (type == typeid(qx::Number)) return Kind::Number;
        if (type == typeid(qx::Dictionary)) return Kind::Dictionary;
        if (type == typeid(qx::Array)) return Kind::Array;
        if (type == typeid(qx::Set)) return Kind::Set;
        if (type == typeid(qx::Date)) return Kind::Date;
        if (type == typeid(qx::Data)) return Kind::Data;
        if (dynamic_cast<const QXUIDPropertyList*>(&object)) return Kind::UID;
        return Kind::Other;
    }

    std::array<std::pair<const std::type_info*, Kind>, 16> seen_{};
    std::size_t used_ = 0;
};

} // namespace QXBinaryPlistInternal
