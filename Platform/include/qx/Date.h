// Date.h - a point in time: seconds since 2001-01-01 00:00:00 UTC.
#pragma once

#include <qx/Object.h>

namespace qx {

class Date final : public Object {
public:
    /// Seconds between 1970-01-01 and 2001-01-01.
    static constexpr double kTimeIntervalSince1970 = 978307200.0;

    static constexpr ObjectKind kKind = ObjectKind::Date;

    explicit Date(double sinceReferenceDate = 0) : Object(kKind), t_(sinceReferenceDate) {}
    static Ref<Date> withTimeIntervalSinceReferenceDate(double t) { return std::make_shared<Date>(t); }
    static Ref<Date> withTimeIntervalSince1970(double t) { return std::make_shared<Date>(t - kTimeIntervalSince1970); }
    static Ref<Date> now();

    double timeIntervalSinceReferenceDate() const { return t_; }
    double timeIntervalSince1970() const { return t_ + kTimeIntervalSince1970; }

    std::string className() const override { return "Date"; }
    /// "YYYY-MM-DD hh:mm:ss +0000" in UTC.
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return std::hash<double>()(t_); }
    Ref<Object> copy() const override;

private:
    double t_;
};

} // namespace qx
