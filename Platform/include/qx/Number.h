// Number.h - a number that remembers the kind it was stored as.
//
// Writers and formatters depend on the stored kind: a boolean is written as a
// boolean, a float stays single precision, an unsigned 64-bit value keeps its
// magnitude. Equality compares values, whatever the kinds.
#pragma once

#include <qx/Object.h>

#include <cstdint>

namespace qx {

class Number final : public Object {
public:
    enum class Kind : std::uint8_t {
        Bool, Int8, Int16, Int32, Int64, UInt8, UInt16, UInt32, UInt64, Float, Double
    };

    static Ref<Number> withBool(bool v);
    static Ref<Number> withInt8(std::int8_t v) { return make(Kind::Int8, static_cast<std::int64_t>(v)); }
    static Ref<Number> withInt16(std::int16_t v) { return make(Kind::Int16, static_cast<std::int64_t>(v)); }
    static Ref<Number> withInt32(std::int32_t v) { return make(Kind::Int32, static_cast<std::int64_t>(v)); }
    static Ref<Number> withInt64(std::int64_t v) { return make(Kind::Int64, v); }
    static Ref<Number> withUInt8(std::uint8_t v) { return makeUnsigned(Kind::UInt8, v); }
    static Ref<Number> withUInt16(std::uint16_t v) { return makeUnsigned(Kind::UInt16, v); }
    static Ref<Number> withUInt32(std::uint32_t v) { return makeUnsigned(Kind::UInt32, v); }
    static Ref<Number> withUInt64(std::uint64_t v) { return makeUnsigned(Kind::UInt64, v); }
    static Ref<Number> withFloat(float v);
    static Ref<Number> withDouble(double v);

    Kind kind() const { return kind_; }
    bool isBoolean() const { return kind_ == Kind::Bool; }
    bool isReal() const { return kind_ == Kind::Float || kind_ == Kind::Double; }
    bool isUnsigned() const;

    bool boolValue() const;
    std::int64_t int64Value() const;
    std::uint64_t uint64Value() const;
    double doubleValue() const;
    float floatValue() const { return static_cast<float>(doubleValue()); }

    std::string className() const override { return "Number"; }
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override;
    Ref<Object> copy() const override;

    /// -1, 0 or 1 comparing the values (reals against integers by value).
    int compare(const Number& other) const;

    static constexpr ObjectKind kKind = ObjectKind::Number;

    /// i is kept for the integer and boolean kinds, d for the real ones.
    Number(Kind kind, std::int64_t i, double d) : Object(kKind), kind_(kind) {
        if (kind == Kind::Float || kind == Kind::Double) d_ = d;
        else i_ = i;
    }

private:
    static Ref<Number> make(Kind kind, std::int64_t v) { return std::make_shared<Number>(kind, v, 0.0); }
    static Ref<Number> makeUnsigned(Kind kind, std::uint64_t v) {
        return std::make_shared<Number>(kind, static_cast<std::int64_t>(v), 0.0);
    }

    Kind kind_;
    // The kind says which member holds the value: one number's worth of room.
    union {
        std::int64_t i_;  // integers and booleans; unsigned kinds keep their bits
        double d_;        // reals
    };
};

} // namespace qx
