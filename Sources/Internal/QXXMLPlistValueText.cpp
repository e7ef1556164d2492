// QXXMLPlistValueText.cpp - base64, dates and numbers as XML property lists write them.
#include "Internal/QXXMLPlistValueText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace QXXMLPlistInternal {

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct Base64Table {
    signed char value[256];
    constexpr Base64Table() : value() {
        for (int i = 0; i < 256; ++i) value[i] = -1;
        for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<signed char>(i);
    }
};
constexpr Base64Table kBase64Values;

// Seconds since 1970 that localtime can take; beyond, dates are pinned to the
// nearest (billions of years are no calendar date anyone writes).
constexpr double kLargestCalendarSeconds = 67767976233316800.0 / 1000.0;

// The integer value of the leading decimal digits of text[at, at + n).
int fieldValue(std::string_view text, std::size_t at, std::size_t n) {
    int v = 0;
    for (std::size_t k = at; k < at + n && text[k] >= '0' && text[k] <= '9'; ++k) v = v * 10 + (text[k] - '0');
    return v;
}


bool isXMLSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
    return s;
}


} // namespace

// --- Base64 ---------------------------------------------------------------------

std::string encodeBase64(const std::uint8_t* p, std::size_t n) {
    std::string out;
    out.resize((n + 2) / 3 * 4);
    char* o = out.data();
    std::size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8) | p[i + 2];
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = kBase64Alphabet[(v >> 6) & 63];
        *o++ = kBase64Alphabet[v & 63];
    }
    if (n - i == 1) {
        const std::uint32_t v = std::uint32_t{p[i]} << 16;
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = '=';
        *o++ = '=';
    } else if (n - i == 2) {
        const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8);
        *o++ = kBase64Alphabet[v >> 18];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = kBase64Alphabet[(v >> 6) & 63];
        *o++ = '=';
    }
    return out;
}

// Characters outside the alphabet are skipped; "=" may only end the text
// (at most two of them), and a lone last sextet is no byte.
bool decodeBase64(std::string_view text, std::vector<std::uint8_t>& out) {
    out.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t acc = 0;
    int sextets = 0;
    int padding = 0;
    for (unsigned char c : text) {
        const int v = kBase64Values.value[c];
        if (v < 0) {
            if (c == '=') ++padding;
            continue;
        }
        if (padding) return false;
        acc = (acc << 6) | static_cast<std::uint32_t>(v);
        if (++sextets == 4) {
            out.push_back(static_cast<std::uint8_t>(acc >> 16));
            out.push_back(static_cast<std::uint8_t>(acc >> 8));
            out.push_back(static_cast<std::uint8_t>(acc));
            acc = 0;
            sextets = 0;
        }
    }
    if (padding > 2) return false;
    switch (sextets) {
    case 0: return true;
    case 1: return false;
    case 2: out.push_back(static_cast<std::uint8_t>(acc >> 4)); return true;
    default:
        out.push_back(static_cast<std::uint8_t>(acc >> 10));
        out.push_back(static_cast<std::uint8_t>(acc >> 2));
        return true;
    }
}

// --- Dates ----------------------------------------------------------------------

std::string localDateText(double sinceReferenceDate) {
    double seconds = std::floor(sinceReferenceDate + qx::Date::kTimeIntervalSince1970);
    if (std::isnan(seconds)) seconds = qx::Date::kTimeIntervalSince1970;
    seconds = std::clamp(seconds, -kLargestCalendarSeconds, kLargestCalendarSeconds);
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    if (!localtime_r(&t, &tm)) gmtime_r(&t, &tm);
    long long year = static_cast<long long>(tm.tm_year) + 1900;
    if (year <= 0) year = 1 - year;  // the calendar counts years before year 1 in the era before
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lu-%02lu-%02luT%02lu:%02lu:%02luZ", static_cast<unsigned long>(year),
                  static_cast<unsigned long>(tm.tm_mon + 1), static_cast<unsigned long>(tm.tm_mday),
                  static_cast<unsigned long>(tm.tm_hour), static_cast<unsigned long>(tm.tm_min),
                  static_cast<unsigned long>(tm.tm_sec));
    return buf;
}

// Each field is read by position only when the separator before it is where
// it belongs; the trailing "Z" is not looked at.
qx::Ref<qx::Date> dateFromLocalText(std::string_view text) {
    int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0;
    bool yearSet = false;
    if (text.size() >= 4) {
        year = fieldValue(text, 0, 4);
        yearSet = true;
        if (text.size() >= 7 && text[4] == '-') {
            month = fieldValue(text, 5, 2);
            if (text.size() >= 10 && text[7] == '-') {
                day = fieldValue(text, 8, 2);
                if (text.size() >= 13 && text[10] == 'T') {
                    hour = fieldValue(text, 11, 2);
                    if (text.size() >= 16 && text[13] == ':') {
                        minute = fieldValue(text, 14, 2);
                        if (text.size() >= 19 && text[16] == ':') second = fieldValue(text, 17, 2);
                    }
                }
            }
        }
    }
    // No year at all: the calendar's first year.
    if (!yearSet) year = 1;
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    return qx::Date::withTimeIntervalSince1970(static_cast<double>(t));
}

// --- Numbers ----------------------------------------------------------------------

// Decimal text in the fixed POSIX conventions; the text, not the element,
// decides between integer and real. Nothing when it is not a whole number.
qx::Ref<qx::Number> numberFromText(std::string_view raw) {
    std::string_view text = trimmed(raw);
    if (text.empty()) return nullptr;
    std::string_view unsignedText = text;
    const bool negative = text.front() == '-';
    if (text.front() == '+' || negative) unsignedText.remove_prefix(1);
    if (unsignedText.empty()) return nullptr;
    const bool digitsOnly = std::all_of(unsignedText.begin(), unsignedText.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (digitsOnly) {
        const char* first = negative ? text.data() : unsignedText.data();
        const char* last = text.data() + text.size();
        std::int64_t i = 0;
        if (auto r = std::from_chars(first, last, i); r.ec == std::errc() && r.ptr == last) return qx::Number::withInt64(i);
        std::uint64_t u = 0;
        if (!negative)
            if (auto r = std::from_chars(first, last, u); r.ec == std::errc() && r.ptr == last)
                return qx::Number::withUInt64(u);
        // Beyond 64 bits: the nearest real.
    }
    // from_chars takes no "+"; it reads "inf", "infinity" and "nan" in any case.
    const char* first = negative ? text.data() : unsignedText.data();
    const char* last = text.data() + text.size();
    double d = 0;
    auto r = std::from_chars(first, last, d);
    if (r.ptr != last) return nullptr;
    if (r.ec == std::errc::result_out_of_range) {
        // Too large or too small for a double: what strtod gives, infinity or zero.
        d = std::strtod(std::string(text).c_str(), nullptr);
    } else if (r.ec != std::errc()) {
        return nullptr;
    }
    return qx::Number::withDouble(d);
}

} // namespace QXXMLPlistInternal
