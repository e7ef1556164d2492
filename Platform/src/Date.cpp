// Date.cpp - points in time relative to 2001-01-01 UTC.
#include <qx/Date.h>

#include <chrono>
#include <cmath>
#include <ctime>

namespace qx {

Ref<Date> Date::now() {
    const auto since1970 = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch());
    return withTimeIntervalSince1970(since1970.count());
}

std::string Date::description() const {
    const double secs = std::floor(timeIntervalSince1970());
    if (!std::isfinite(secs) || std::abs(secs) > 1e15) return std::to_string(t_);
    const std::time_t tt = static_cast<std::time_t>(secs);
    std::tm tm{};
    if (!gmtime_r(&tt, &tm)) return std::to_string(t_);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d +0000", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

bool Date::isEqual(const Object& other) const {
    const auto* d = dyn_cast<Date>(&other);
    return d && d->t_ == t_;
}

Ref<Object> Date::copy() const { return Object::copy(); }

} // namespace qx
