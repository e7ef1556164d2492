// JsonValue.cpp - a small recursive-descent JSON reader for test expectations.
#include "JsonValue.h"

#include <cstdlib>
#include <cstring>

namespace {

class Parser {
public:
    explicit Parser(std::string_view s) : s_(s) {}

    std::optional<JsonValue> document() {
        JsonValue v;
        if (!value(v, 0) || (skipSpace(), i_ != s_.size())) return std::nullopt;
        return v;
    }

private:
    void skipSpace() {
        while (i_ < s_.size() && std::strchr(" \n\r\t", s_[i_]) && s_[i_]) ++i_;
    }
    bool eat(char c) {
        skipSpace();
        return i_ < s_.size() && s_[i_] == c && (++i_, true);
    }
    bool literal(std::string_view word) { return s_.substr(i_, word.size()) == word && (i_ += word.size(), true); }

    bool value(JsonValue& v, int depth) {
        using K = JsonValue::Kind;
        skipSpace();
        if (depth > 200 || i_ >= s_.size()) return false;
        switch (s_[i_]) {
        case '{': return object(v, depth);
        case '[':
            v.kind = K::Array;
            ++i_;
            if (eat(']')) return true;
            do
                if (!value(v.items.emplace_back(), depth + 1)) return false;
            while (eat(','));
            return eat(']');
        case '"': v.kind = K::String; return string(v.text);
        case 't': v.kind = K::Bool; v.boolean = true; return literal("true");
        case 'f': v.kind = K::Bool; return literal("false");
        case 'n': v.kind = K::Null; return literal("null");
        default: {
            const std::size_t start = i_;
            if (s_[i_] == '-') ++i_;
            const std::size_t digits = i_;
            while (i_ < s_.size() && s_[i_] && std::strchr("0123456789.eE+-", s_[i_])) ++i_;
            v.kind = K::Number;
            v.text = std::string(s_.substr(start, i_ - start));
            return i_ != digits;
        }
        }
    }

    bool object(JsonValue& v, int depth) {
        v.kind = JsonValue::Kind::Object;
        ++i_;
        if (eat('}')) return true;
        do {
            std::string key;
            if (!eat('"') || (--i_, !string(key)) || !eat(':')) return false;
            v.members.push_back(JsonMember{std::move(key), JsonValue{}});
            if (!value(v.members.back().value, depth + 1)) return false;
        } while (eat(','));
        return eat('}');
    }

    bool hex4(std::uint32_t& out) {
        if (i_ + 4 > s_.size()) return false;
        const std::string digits(s_.substr(i_, 4));
        i_ += 4;
        out = static_cast<std::uint32_t>(std::strtoul(digits.c_str(), nullptr, 16));
        return digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    }

    static void appendUTF8(std::string& out, std::uint32_t cp) {
        const int extra = cp < 0x80 ? 0 : cp < 0x800 ? 1 : 2;
        static const unsigned char lead[] = {0x00, 0xC0, 0xE0};
        out += static_cast<char>(lead[extra] | (cp >> (6 * extra)));
        for (int k = extra - 1; k >= 0; --k) out += static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F));
    }

    bool string(std::string& out) {
        ++i_;  // opening quote
        while (i_ < s_.size()) {
            const char c = s_[i_++];
            if (c == '"') return true;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (i_ >= s_.size()) return false;
            const char e = s_[i_++];
            static const std::string_view from = "\"\\/bfnrt", to = "\"\\/\b\f\n\r\t";
            if (const auto k = from.find(e); k != std::string_view::npos) {
                out += to[k];
                continue;
            }
            // Code points of the basic plane only: no manifest escapes anything beyond it.
            std::uint32_t cp;
            if (e != 'u' || !hex4(cp) || (cp >= 0xD800 && cp < 0xE000)) return false;
            appendUTF8(out, cp);
        }
        return false;
    }

    std::string_view s_;
    std::size_t i_ = 0;
};

} // namespace

std::optional<JsonValue> JsonValue::parse(std::string_view json) { return Parser(json).document(); }

bool JsonValue::isInteger() const { return kind == Kind::Number && text.find_first_of("-.eE") == std::string::npos; }

std::uint64_t JsonValue::low64() const {
    std::uint64_t v = 0;
    for (char c : text) v = v * 10 + static_cast<std::uint64_t>(c - '0');
    return v;
}

const JsonValue* JsonValue::member(std::string_view key) const {
    for (const auto& [k, v] : members)
        if (k == key) return &v;
    return nullptr;
}
