// String.h - immutable text, UTF-8 inside.
//
// Algorithms that count UTF-16 code units (binary property lists, ranges)
// use utf16() / length(); everything else works on the UTF-8 bytes.
#pragma once

#include <qx/Object.h>

#include <string>
#include <string_view>

namespace qx {

class String final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::String;

    String() : Object(kKind) {}
    explicit String(std::string utf8) : Object(kKind), utf8_(std::move(utf8)) {}

    static Ref<String> create(std::string_view utf8) { return std::make_shared<String>(std::string(utf8)); }
    /// Decodes UTF-16 in machine order; unpaired surrogates become U+FFFD.
    static Ref<String> withUTF16(const char16_t* units, std::size_t count);
    /// Decodes UTF-16 big-endian bytes (count is in code units).
    static Ref<String> withUTF16BigEndian(const unsigned char* bytes, std::size_t count);

    const std::string& utf8() const { return utf8_; }
    std::u16string utf16() const;
    /// Length in UTF-16 code units.
    std::size_t length() const;
    bool empty() const { return utf8_.empty(); }
    /// True when every byte is below 0x80.
    bool isASCII() const;

    /// Compares as a user expects in a list of file names: case ignored,
    /// digit runs compared as numbers (item2 < item10), collated by the current
    /// locale. Returns <0, 0, >0.
    int localizedStandardCompare(const String& other) const;
    /// The same collation without the tie-break: strings that differ only in
    /// case compare equal (0). Follows the locale in force at the call.
    int localizedCaseInsensitiveNumericCompare(const String& other) const;

    std::string className() const override { return "String"; }
    std::string description() const override { return utf8_; }
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return std::hash<std::string>()(utf8_); }
    Ref<Object> copy() const override;

private:
    std::string utf8_;
};

inline Ref<String> str(std::string_view utf8) { return String::create(utf8); }

} // namespace qx
