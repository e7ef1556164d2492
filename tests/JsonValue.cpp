// JsonValue.cpp - a small recursive-descent JSON reader for test expectations.
#include "JsonValue.h"

#include <cctype>
#include <cstdlib>

namespace {

class Parser {
public:
    explicit Parser(std::string_view s) : s_(s) {}

    std::optional<JsonValue> document() {
        JsonValue v;
        if (!value(v, 0)) return std::nullopt;
        skipSpace();
        if (i_ != s_.size()) return std::nullopt;
        return v;
    }

private:
    void skipSpace() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\r' || s_[i_] == '\t')) ++i_;
    }
    bool eat(char c) {
        skipSpace();
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    bool literal(std::string_view word) {
        if (s_.substr(i_, word.size()) != word) return false;
        i_ += word.size();
        return true;
    }

    bool value(JsonValue& v, int depth) {
        if (depth > 200) return false;
        skipSpace();
        if (i_ >= s_.size()) return false;
        const char c = s_[i_];
        if (c == '{') return object(v, depth);
        if (c == '[') return array(v, depth);
        if (c == '"') {
            v.kind = JsonValue::Kind::String;
            return string(v.text);
        }
        if (c == 't' || c == 'f') {
            v.kind = JsonValue::Kind::Bool;
            v.boolean = c == 't';
            return literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') {
            v.kind = JsonValue::Kind::Null;
            return literal("null");
        }
        return number(v);
    }

    bool object(JsonValue& v, int depth) {
        v.kind = JsonValue::Kind::Object;
        ++i_;
        if (eat('}')) return true;
        do {
            skipSpace();
            std::string key;
            if (i_ >= s_.size() || s_[i_] != '"' || !string(key) || !eat(':')) return false;
            JsonValue member;
            if (!value(member, depth + 1)) return false;
            v.members.emplace_back(std::move(key), std::move(member));
        } while (eat(','));
        return eat('}');
    }

    bool array(JsonValue& v, int depth) {
        v.kind = JsonValue::Kind::Array;
        ++i_;
        if (eat(']')) return true;
        do {
            JsonValue item;
            if (!value(item, depth + 1)) return false;
            v.items.push_back(std::move(item));
        } while (eat(','));
        return eat(']');
    }

    bool number(JsonValue& v) {
        const std::size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '-') ++i_;
        const std::size_t digits = i_;
        while (i_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[i_])) || s_[i_] == '.' ||
                                  s_[i_] == 'e' || s_[i_] == 'E' || s_[i_] == '+' || s_[i_] == '-'))
            ++i_;
        if (i_ == digits) return false;
        v.kind = JsonValue::Kind::Number;
        v.text = std::string(s_.substr(start, i_ - start));
        return true;
    }

    bool hex4(std::uint32_t& out) {
        if (i_ + 4 > s_.size()) return false;
        out = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = s_[i_++];
            out <<= 4;
            if (c >= '0' && c <= '9') out |= static_cast<std::uint32_t>(c - '0');
            else if (c >= 'a' && c <= 'f') out |= static_cast<std::uint32_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') out |= static_cast<std::uint32_t>(c - 'A' + 10);
            else return false;
        }
        return true;
    }

    static void appendUTF8(std::string& out, std::uint32_t cp) {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
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
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                std::uint32_t cp;
                if (!hex4(cp)) return false;
                // A lone surrogate becomes U+FFFD, as the UTF-16 decoder does.
                if (cp >= 0xD800 && cp < 0xDC00) {
                    std::uint32_t low;
                    if (s_.substr(i_, 2) == "\\u") {
                        const std::size_t save = i_;
                        i_ += 2;
                        if (hex4(low) && low >= 0xDC00 && low < 0xE000) {
                            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                        } else {
                            i_ = save;
                            cp = 0xFFFD;
                        }
                    } else {
                        cp = 0xFFFD;
                    }
                } else if (cp >= 0xDC00 && cp < 0xE000) {
                    cp = 0xFFFD;
                }
                appendUTF8(out, cp);
                break;
            }
            default: return false;
            }
        }
        return false;
    }

    std::string_view s_;
    std::size_t i_ = 0;
};

} // namespace

std::optional<JsonValue> JsonValue::parse(std::string_view json) { return Parser(json).document(); }

bool JsonValue::isInteger() const {
    return kind == Kind::Number && text.find_first_of(".eE") == std::string::npos;
}

std::uint64_t JsonValue::low64() const {
    std::uint64_t v = 0;
    const bool negative = !text.empty() && text[0] == '-';
    for (std::size_t k = negative ? 1 : 0; k < text.size(); ++k) v = v * 10 + static_cast<std::uint64_t>(text[k] - '0');
    return negative ? ~v + 1 : v;
}

double JsonValue::real() const { return std::strtod(text.c_str(), nullptr); }

const JsonValue* JsonValue::member(std::string_view key) const {
    for (const auto& [k, v] : members)
        if (k == key) return &v;
    return nullptr;
}
