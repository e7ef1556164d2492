// Format.cpp - printf-style formatting with "%@" for objects.
#include <qx/Format.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace qx {

namespace {

template <class T> void appendPrintf(std::string& out, const std::string& spec, T value) {
    char buf[128];
    int n = std::snprintf(buf, sizeof buf, spec.c_str(), value);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof buf) {
        out.append(buf, static_cast<std::size_t>(n));
        return;
    }
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), spec.c_str(), value);
    out.append(big.data(), static_cast<std::size_t>(n));
}

} // namespace

std::string stringWithFormatV(const char* format, va_list args) {
    std::string out;
    if (!format) return out;
    const char* p = format;
    while (*p) {
        const char* pct = std::strchr(p, '%');
        if (!pct) {
            out.append(p);
            break;
        }
        out.append(p, static_cast<std::size_t>(pct - p));
        p = pct + 1;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        // Gather the conversion specification, resolving '*' from the arguments.
        std::string spec = "%";
        while (*p && std::strchr("-+ #0'", *p)) spec += *p++;
        if (*p == '*') {
            spec += std::to_string(va_arg(args, int));
            ++p;
        } else {
            while (*p >= '0' && *p <= '9') spec += *p++;
        }
        if (*p == '.') {
            spec += *p++;
            if (*p == '*') {
                spec += std::to_string(va_arg(args, int));
                ++p;
            } else {
                while (*p >= '0' && *p <= '9') spec += *p++;
            }
        }
        std::string length;
        while (*p && std::strchr("hlLqjzt", *p)) length += *p++;
        const char conv = *p;
        if (!conv) {
            out += spec + length;
            break;
        }
        ++p;
        const bool isLong = length == "l";
        const bool isLongLong = length == "ll" || length == "q" || length == "j";
        const bool isSize = length == "z" || length == "t";
        switch (conv) {
        case '@':
            out += describe(va_arg(args, const Object*));
            break;
        case 'd': case 'i':
            if (isLongLong) appendPrintf(out, spec + "lld", va_arg(args, long long));
            else if (isLong) appendPrintf(out, spec + "ld", va_arg(args, long));
            else if (isSize) appendPrintf(out, spec + "zd", va_arg(args, std::ptrdiff_t));
            else appendPrintf(out, spec + length + conv, va_arg(args, int));
            break;
        case 'u': case 'o': case 'x': case 'X':
            if (isLongLong) appendPrintf(out, spec + "ll" + conv, va_arg(args, unsigned long long));
            else if (isLong) appendPrintf(out, spec + "l" + conv, va_arg(args, unsigned long));
            else if (isSize) appendPrintf(out, spec + "z" + conv, va_arg(args, std::size_t));
            else appendPrintf(out, spec + length + conv, va_arg(args, unsigned int));
            break;
        case 'c':
            appendPrintf(out, spec + "c", va_arg(args, int));
            break;
        case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
            if (length == "L") appendPrintf(out, spec + "L" + conv, va_arg(args, long double));
            else appendPrintf(out, spec + conv, va_arg(args, double));
            break;
        case 's': {
            const char* s = va_arg(args, const char*);
            appendPrintf(out, spec + "s", s ? s : "(null)");
            break;
        }
        case 'p':
            appendPrintf(out, spec + "p", va_arg(args, void*));
            break;
        default:
            // Unknown conversions (and %n, which is never honoured) are copied as text.
            out += spec + length + conv;
            break;
        }
    }
    return out;
}

std::string stringWithFormatC(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string s = stringWithFormatV(format, args);
    va_end(args);
    return s;
}

} // namespace qx
