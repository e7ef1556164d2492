// StringsFile.cpp - the tolerant strings-file reader.
#include <qx/StringsFile.h>


#include <climits>
#include <cstdint>

namespace qx {

namespace {

std::u16string fromUTF16(std::string_view bytes, bool bigEndian) {
    std::u16string out(bytes.size() / 2, u'\0');
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    for (std::size_t i = 0; i < out.size(); ++i) {
        const unsigned hi = b[2 * i + (bigEndian ? 0 : 1)];
        const unsigned lo = b[2 * i + (bigEndian ? 1 : 0)];
        out[i] = static_cast<char16_t>((hi << 8) | lo);
    }
    return out;
}

std::u16string fromUTF8(std::string_view bytes) { return String(std::string(bytes)).utf16(); }

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

class Reader {
public:
    explicit Reader(const std::u16string& text) : s_(text) {}

    Ref<Dictionary> read() {
        auto dict = Dictionary::create();
        while (true) {
            skipSpaceAndComments();
            if (atEnd()) break;
            const std::size_t entryStart = i_;
            std::u16string key, value;
            if (!readToken(key)) {
                recover(entryStart);
                continue;
            }
            skipSpaceAndComments();
            if (!atEnd() && s_[i_] == u';') {
                ++i_;
                dict->setObject(String::withUTF16(key.data(), key.size()), String::withUTF16(key.data(), key.size()));
                continue;
            }
            if (atEnd() || s_[i_] != u'=') {
                recover(entryStart);
                continue;
            }
            ++i_;
            skipSpaceAndComments();
            if (!readToken(value)) {
                recover(entryStart);
                continue;
            }
            dict->setObject(String::withUTF16(value.data(), value.size()), String::withUTF16(key.data(), key.size()));
            skipSpaceAndComments();
            // A missing ';' is forgiven: the entry is complete without it.
            if (!atEnd() && s_[i_] == u';') ++i_;
        }
        return dict;
    }

private:
    bool atEnd() const { return i_ >= s_.size(); }

    void skipSpaceAndComments() {
        while (!atEnd()) {
            const char16_t c = s_[i_];
            if (isSpace(c)) {
                ++i_;
            } else if (c == u'/' && i_ + 1 < s_.size() && s_[i_ + 1] == u'*') {
                const std::size_t end = s_.find(u"*/", i_ + 2);
                i_ = end == std::u16string::npos ? s_.size() : end + 2;
            } else if (c == u'/' && i_ + 1 < s_.size() && s_[i_ + 1] == u'/') {
                while (!atEnd() && s_[i_] != u'\n' && s_[i_] != u'\r') ++i_;
            } else {
                return;
            }
        }
    }

    // Skips past the next ';' after a malformed entry, always moving forward.
    void recover(std::size_t entryStart) {
        if (i_ <= entryStart) i_ = entryStart + 1;
        const std::size_t semi = s_.find(u';', i_);
        i_ = semi == std::u16string::npos ? s_.size() : semi + 1;
    }

    bool readToken(std::u16string& out) {
        if (atEnd()) return false;
        const char16_t c = s_[i_];
        if (c == u'"' || c == u'\'') return readQuoted(c, out);
        if (!isUnquotedChar(c)) return false;
        while (!atEnd() && isUnquotedChar(s_[i_])) out += s_[i_++];
        return true;
    }

    bool readQuoted(char16_t quote, std::u16string& out) {
        ++i_;
        while (!atEnd()) {
            const char16_t c = s_[i_++];
            if (c == quote) return true;
            if (c != u'\\') {
                out += c;
                continue;
            }
            if (atEnd()) return false;
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
                for (; digits < 4 && !atEnd() && hexValue(s_[i_]) >= 0; ++digits) v = v * 16 + hexValue(s_[i_++]);
                if (digits == 0) out += e;  // not an escape after all: keep the letter
                else out += static_cast<char16_t>(v);
                break;
            }
            default:
                if (e >= u'0' && e <= u'7') {
                    unsigned v = e - u'0';
                    for (int n = 1; n < 3 && !atEnd() && s_[i_] >= u'0' && s_[i_] <= u'7'; ++n)
                        v = v * 8 + (s_[i_++] - u'0');
                    out += static_cast<char16_t>(v);
                } else {
                    out += e;  // \" \' \\ and anything else stand for themselves
                }
                break;
            }
        }
        return false;  // unterminated
    }

    const std::u16string& s_;
    std::size_t i_ = 0;
};

} // namespace

std::u16string decodeStringsFileText(std::string_view bytes) {
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    if (bytes.size() >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) return fromUTF8(bytes.substr(3));
    if (bytes.size() >= 2 && b[0] == 0xFF && b[1] == 0xFE) return fromUTF16(bytes.substr(2), false);
    if (bytes.size() >= 2 && b[0] == 0xFE && b[1] == 0xFF) return fromUTF16(bytes.substr(2), true);
    // No mark: text in UTF-16 has zero high bytes on ASCII characters, which
    // UTF-8 text never has; their side gives the byte order.
    std::size_t zeroEven = 0, zeroOdd = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        if (b[i] == 0) ++(i % 2 ? zeroOdd : zeroEven);
    if (bytes.size() % 2 == 0 && zeroEven + zeroOdd > 0) return fromUTF16(bytes, zeroEven > zeroOdd);
    return fromUTF8(bytes);
}

Ref<Dictionary> dictionaryFromStringsFileData(std::string_view bytes) {
    const std::u16string text = decodeStringsFileText(bytes);
    return Reader(text).read();
}

} // namespace qx
