// Number.cpp - numbers that keep their stored kind.
#include <qx/Number.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace qx {

Ref<Number> Number::withBool(bool v) {
    // Never destroyed: threads still at work while the process exits take copies.
    static const Ref<Number>* const yes = new Ref<Number>(std::make_shared<Number>(Kind::Bool, 1, 0.0));
    static const Ref<Number>* const no = new Ref<Number>(std::make_shared<Number>(Kind::Bool, 0, 0.0));
    return v ? *yes : *no;
}

Ref<Number> Number::withFloat(float v) { return std::make_shared<Number>(Kind::Float, 0, static_cast<double>(v)); }
Ref<Number> Number::withDouble(double v) { return std::make_shared<Number>(Kind::Double, 0, v); }

bool Number::isUnsigned() const {
    return kind_ == Kind::UInt8 || kind_ == Kind::UInt16 || kind_ == Kind::UInt32 || kind_ == Kind::UInt64;
}

bool Number::boolValue() const { return isReal() ? d_ != 0.0 : i_ != 0; }

std::int64_t Number::int64Value() const {
    if (!isReal()) return i_;
    if (std::isnan(d_)) return 0;
    if (d_ >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
    if (d_ <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(d_);
}

std::uint64_t Number::uint64Value() const {
    if (!isReal()) return static_cast<std::uint64_t>(i_);
    if (std::isnan(d_) || d_ <= 0) return d_ <= -1.0 ? static_cast<std::uint64_t>(int64Value()) : 0;
    if (d_ >= 18446744073709551615.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(d_);
}

double Number::doubleValue() const {
    if (isReal()) return d_;
    return (kind_ == Kind::UInt64) ? static_cast<double>(static_cast<std::uint64_t>(i_)) : static_cast<double>(i_);
}

std::string Number::description() const {
    char buf[64];
    if (kind_ == Kind::Float) {
        auto r = std::to_chars(buf, buf + sizeof buf, static_cast<float>(d_));
        return std::string(buf, r.ptr);
    }
    if (kind_ == Kind::Double) {
        auto r = std::to_chars(buf, buf + sizeof buf, d_);
        return std::string(buf, r.ptr);
    }
    if (kind_ == Kind::UInt64) return std::to_string(static_cast<std::uint64_t>(i_));
    return std::to_string(i_);
}

int Number::compare(const Number& o) const {
    if (isReal() || o.isReal()) {
        const double a = doubleValue(), b = o.doubleValue();
        return a < b ? -1 : (a > b ? 1 : 0);
    }
    const bool aBig = kind_ == Kind::UInt64 && i_ < 0;      // above INT64_MAX
    const bool bBig = o.kind_ == Kind::UInt64 && o.i_ < 0;
    if (aBig != bBig) return aBig ? 1 : -1;
    if (aBig) {
        const auto a = static_cast<std::uint64_t>(i_), b = static_cast<std::uint64_t>(o.i_);
        return a < b ? -1 : (a > b ? 1 : 0);
    }
    return i_ < o.i_ ? -1 : (i_ > o.i_ ? 1 : 0);
}

bool Number::isEqual(const Object& other) const {
    const auto* n = dyn_cast<Number>(&other);
    return n && compare(*n) == 0;
}

std::size_t Number::hash() const {
    const double d = doubleValue();
    if (d == std::floor(d) && std::abs(d) < 9.0e15) return std::hash<std::int64_t>()(static_cast<std::int64_t>(d));
    return std::hash<double>()(d);
}

Ref<Object> Number::copy() const { return Object::copy(); }

} // namespace qx
