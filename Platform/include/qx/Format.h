// Format.h - printf-style formatting where "%@" takes an object.
//
// "%@" consumes a `const qx::Object*` and inserts its description ("(null)"
// for nothing). Every other conversion behaves as printf's. The variadic
// template qx::format accepts Refs and std::strings directly and converts
// them to what the C conversion expects; stringWithFormatV is for callers
// that already hold a va_list.
#pragma once

#include <qx/Object.h>

#include <cstdarg>
#include <string>
#include <type_traits>

namespace qx {

std::string stringWithFormatV(const char* format, va_list args);
std::string stringWithFormatC(const char* format, ...) __attribute__((format(printf, 1, 0)));

namespace detail {
template <class T> decltype(auto) vararg(const T& v) {
    if constexpr (requires { v.get(); typename T::element_type; }) {
        return static_cast<const Object*>(v.get());
    } else if constexpr (std::is_same_v<T, std::string>) {
        return v.c_str();
    } else if constexpr (std::is_pointer_v<T> && std::is_base_of_v<Object, std::remove_cv_t<std::remove_pointer_t<T>>>) {
        return static_cast<const Object*>(v);
    } else {
        return v;
    }
}
} // namespace detail

template <class... Args> std::string format(const char* fmt, const Args&... args) {
    return stringWithFormatC(fmt, detail::vararg(args)...);
}

} // namespace qx
