// OldStylePropertyList.cpp - the old-style text reader, strict and tolerant.
#include <qx/OldStylePropertyList.h>

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/StringsFile.h>

#include <cstdint>

namespace qx {

namespace {

bool isSpace(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f' || c == u'\v' || c == 0xFEFF ||
           c == 0x2028 || c == 0x2029 || c == 0x00A0;
}

bool isUnquotedChar(char16_t c) {
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' ||
           c == u'$' || c == u'+' || c == u'/' || c == u':' || c == u'.' || c == u'-';
}

int hexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

std::string describeChar(char16_t c) {
    if (c >= 0x21 && c < 0x7F) return std::string("'") + static_cast<char>(c) + "'";
    char buf[16];
    std::snprintf(buf, sizeof buf, "U+%04X", static_cast<unsigned>(c));
    return buf;
}

class Parser {
public:
    explicit Parser(std::u16string_view text) : s_(text) {}

    // The whole text as one value, or else as a strings file.
    Ref<Object> parseDocument() {
        skipSpaceAndComments();
        if (failed_) return nullptr;
        if (atEnd()) return Dictionary::create();
        const bool startsWithString = isStringStart();
        Ref<Object> value = parseValue(0);
        if (!value) return nullptr;
        skipSpaceAndComments();
        if (failed_) return nullptr;
        if (atEnd()) return value;
        // More after a leading string: the text is a strings file.
        if (!startsWithString) return fail("Junk after the property list: unexpected character " + describeChar(s_[i_]));
        i_ = 0;
        auto dict = Dictionary::create();
        skipSpaceAndComments();
        if (parseEntries(*dict, u'\0', 0)) return dict;
        return nullptr;
    }

    Ref<Dictionary> parseStringsFileTolerantly() {
        auto dict = Dictionary::create();
        tolerant_ = true;
        skipSpaceAndComments();
        parseEntries(*dict, u'\0', 0);
        return dict;
    }

    void report(OldStyleParseFailure* out) const {
        if (!out) return;
        out->reason = failure_.reason;
        out->line = 1;
        std::size_t lineStart = 0;
        const std::size_t at = failure_.at < s_.size() ? failure_.at : s_.size();
        for (std::size_t k = 0; k < at; ++k) {
            if (s_[k] == u'\n' || (s_[k] == u'\r' && (k + 1 >= s_.size() || s_[k + 1] != u'\n'))) {
                ++out->line;
                lineStart = k + 1;
            }
        }
        out->column = at - lineStart + 1;
    }

private:
    struct Failure {
        std::string reason;
        std::size_t at = 0;
    };

    bool atEnd() const { return i_ >= s_.size(); }
    bool isStringStart() const {
        return !atEnd() && (s_[i_] == u'"' || s_[i_] == u'\'' || isUnquotedChar(s_[i_]));
    }

    std::nullptr_t fail(std::string reason) { return failAt(std::move(reason), i_); }
    std::nullptr_t failAt(std::string reason, std::size_t at) {
        if (!failed_) failure_ = {std::move(reason), at};
        failed_ = true;
        return nullptr;
    }
    std::nullptr_t unexpected() {
        return atEnd() ? fail("Unexpected end of text") : fail("Unexpected character " + describeChar(s_[i_]));
    }

    void skipSpaceAndComments() {
        while (!atEnd()) {
            const char16_t c = s_[i_];
            if (isSpace(c)) {
                ++i_;
            } else if (c == u'/' && i_ + 1 < s_.size() && s_[i_ + 1] == u'*') {
                const std::size_t end = s_.find(u"*/", i_ + 2);
                if (end == std::u16string_view::npos) {
                    // An unclosed comment swallows the rest; reported where it opened.
                    if (!tolerant_) failAt("Unterminated comment", i_);
                    i_ = s_.size();
                    return;
                }
                i_ = end + 2;
            } else if (c == u'/' && i_ + 1 < s_.size() && s_[i_ + 1] == u'/') {
                while (!atEnd() && s_[i_] != u'\n' && s_[i_] != u'\r') ++i_;
            } else {
                return;
            }
        }
    }

    Ref<Object> parseValue(unsigned depth) {
        if (failed_) return nullptr;
        if (atEnd()) return unexpected();
        switch (s_[i_]) {
        case u'{': return parseDictionary(depth);
        case u'(': return parseArray(depth);
        case u'<': return parseData();
        default: return parseString();
        }
    }

    Ref<String> parseString() {
        std::u16string out;
        if (!readString(out)) return nullptr;
        return String::withUTF16(out.data(), out.size());
    }

    bool readString(std::u16string& out) {
        if (atEnd()) return unexpected(), false;
        const char16_t c = s_[i_];
        if (c == u'"' || c == u'\'') return readQuoted(c, out);
        if (!isUnquotedChar(c)) return unexpected(), false;
        const std::size_t start = i_;
        while (!atEnd() && isUnquotedChar(s_[i_])) ++i_;
        out.assign(s_.substr(start, i_ - start));
        return true;
    }

    bool readQuoted(char16_t quote, std::u16string& out) {
        const std::size_t open = i_++;
        while (!atEnd()) {
            // Runs without escapes are copied whole.
            std::size_t run = i_;
            while (run < s_.size() && s_[run] != quote && s_[run] != u'\\') ++run;
            out.append(s_.substr(i_, run - i_));
            i_ = run;
            if (atEnd()) break;
            const char16_t c = s_[i_++];
            if (c == quote) return true;
            if (atEnd()) break;
            const char16_t e = s_[i_++];
            switch (e) {
            case u'a': out += u'\a'; break;
            case u'b': out += u'\b'; break;
            case u'f': out += u'\f'; break;
            case u'n': out += u'\n'; break;
            case u'r': out += u'\r'; break;
            case u't': out += u'\t'; break;
            case u'v': out += u'\v'; break;
            case u'U':
            case u'u': {
                unsigned v = 0;
                int digits = 0;
                for (; digits < 4 && !atEnd() && hexValue(s_[i_]) >= 0; ++digits)
                    v = v * 16 + static_cast<unsigned>(hexValue(s_[i_++]));
                if (digits == 0) out += e;  // not an escape after all: keep the letter
                else out += static_cast<char16_t>(v);
                break;
            }
            default:
                if (e >= u'0' && e <= u'7') {
                    unsigned v = e - u'0';
                    for (int n = 1; n < 3 && !atEnd() && s_[i_] >= u'0' && s_[i_] <= u'7'; ++n)
                        v = v * 8 + static_cast<unsigned>(s_[i_++] - u'0');
                    out += static_cast<char16_t>(v);
                } else {
                    out += e;  // \" \' \\ and anything else stand for themselves
                }
                break;
            }
        }
        failAt("Unterminated quoted string", open);
        return false;
    }

    Ref<Object> parseData() {
        const std::size_t open = i_++;
        auto data = Data::create();
        int high = -1;
        while (true) {
            skipSpaceAndComments();
            if (atEnd()) return failAt("Unterminated data", open);
            const char16_t c = s_[i_];
            if (c == u'>') {
                if (high >= 0) return fail("Odd number of hexadecimal digits in data");
                ++i_;
                return data;
            }
            const int v = hexValue(c);
            if (v < 0) return unexpected();
            ++i_;
            if (high < 0) {
                high = v;
            } else {
                data->appendByte(static_cast<std::uint8_t>(high * 16 + v));
                high = -1;
            }
        }
    }

    bool enter(unsigned depth) {
        if (depth + 1 > kOldStyleMaxNestingDepth) {
            fail("Containers nest deeper than " + std::to_string(kOldStyleMaxNestingDepth) + " levels");
            return false;
        }
        return true;
    }

    Ref<Object> parseArray(unsigned depth) {
        if (!enter(depth)) return nullptr;
        const std::size_t open = i_++;
        auto array = Array::create();
        skipSpaceAndComments();
        while (true) {
            if (failed_) return nullptr;
            if (atEnd()) return failAt("Unterminated array", open);
            if (s_[i_] == u')') {
                ++i_;
                return array;
            }
            auto value = parseValue(depth + 1);
            if (!value) return nullptr;
            array->addObject(std::move(value));
            skipSpaceAndComments();
            if (atEnd()) return failAt("Unterminated array", open);
            if (s_[i_] == u',') {
                ++i_;
                skipSpaceAndComments();
            } else if (s_[i_] != u')') {
                return fail("Missing ',' or ')' in array: unexpected character " + describeChar(s_[i_]));
            }
        }
    }

    Ref<Object> parseDictionary(unsigned depth) {
        if (!enter(depth)) return nullptr;
        const std::size_t open = i_++;
        auto dict = Dictionary::create();
        skipSpaceAndComments();
        if (!parseEntries(*dict, u'}', depth)) return failed_ ? nullptr : failAt("Unterminated dictionary", open);
        return dict;
    }

    // Skips past the next ';' after a malformed entry, always moving forward.
    void recover(std::size_t entryStart) {
        if (i_ <= entryStart) i_ = entryStart + 1;
        const std::size_t semi = s_.find(u';', i_);
        i_ = semi == std::u16string_view::npos ? s_.size() : semi + 1;
        failed_ = false;
    }

    // Entries up to close (consumed) or, for close '\0', to the end of the
    // text. False on failure; in tolerant mode malformed entries are skipped.
    bool parseEntries(Dictionary& dict, char16_t close, unsigned depth) {
        while (true) {
            skipSpaceAndComments();
            if (failed_ && !tolerant_) return false;
            if (atEnd()) return close == u'\0';
            if (close != u'\0' && s_[i_] == close) {
                ++i_;
                return true;
            }
            const std::size_t entryStart = i_;
            std::u16string key;
            if (!readString(key)) {
                if (!tolerant_) return false;
                recover(entryStart);
                continue;
            }
            auto keyString = String::withUTF16(key.data(), key.size());
            skipSpaceAndComments();
            if (!atEnd() && s_[i_] == u';') {
                // A lone key stands for itself.
                ++i_;
                dict.setObject(keyString, keyString);
                continue;
            }
            if (atEnd() || s_[i_] != u'=') {
                if (!tolerant_) {
                    if (atEnd()) fail("Unexpected end of text: missing '=' or ';' after a key");
                    else fail("Missing '=' or ';' after a key: unexpected character " + describeChar(s_[i_]));
                    return false;
                }
                recover(entryStart);
                continue;
            }
            ++i_;
            skipSpaceAndComments();
            auto value = parseValue(depth + 1);
            if (!value) {
                if (!tolerant_) return false;
                recover(entryStart);
                continue;
            }
            dict.setObject(std::move(value), std::move(keyString));
            skipSpaceAndComments();
            if (!atEnd() && s_[i_] == u';') {
                ++i_;
            } else if (!tolerant_) {
                if (atEnd()) fail("Unexpected end of text: missing ';' after a value");
                else fail("Missing ';' after a value: unexpected character " + describeChar(s_[i_]));
                return false;
            }
            // (Tolerant: a missing ';' is forgiven, the entry is complete without it.)
        }
    }

    std::u16string_view s_;
    std::size_t i_ = 0;
    bool tolerant_ = false;
    bool failed_ = false;
    Failure failure_;
};

} // namespace

Ref<Object> propertyListFromOldStyleText(std::u16string_view text, OldStyleParseFailure* failure) {
    Parser parser(text);
    auto value = parser.parseDocument();
    if (!value) parser.report(failure);
    return value;
}

Ref<Object> propertyListFromOldStyleData(std::string_view bytes, OldStyleParseFailure* failure) {
    const std::u16string text = decodeStringsFileText(bytes);
    return propertyListFromOldStyleText(text, failure);
}

Ref<Dictionary> dictionaryFromStringsFileText(std::u16string_view text) {
    return Parser(text).parseStringsFileTolerantly();
}

} // namespace qx
