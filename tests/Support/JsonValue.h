// JsonValue.h - a small JSON reader for the fixtures' manifests: objects keep their
// member order, numbers their text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct JsonMember;

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool boolean = false;
    std::string text;  // a string's UTF-8, or a number's literal text
    std::vector<JsonValue> items;
    std::vector<JsonMember> members;  // an object's members in document order

    /// Parses a whole document; nothing when it is not valid JSON.
    static std::optional<JsonValue> parse(std::string_view json);

    bool isInteger() const;  // a number without sign, fraction or exponent
    /// An integer's value modulo 2^64.
    std::uint64_t low64() const;
    /// The member named key, or null.
    const JsonValue* member(std::string_view key) const;
};

// Defined after JsonValue so that the value is complete where the member
// needs it (a std::pair would need it inside JsonValue already).
struct JsonMember {
    std::string key;
    JsonValue value;
};
