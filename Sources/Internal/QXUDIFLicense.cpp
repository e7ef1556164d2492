// QXUDIFLicense.cpp - finding the agreement text and making it readable.
#include "Internal/QXUDIFLicense.h"

#include "Internal/QXUDIFTrailer.h"

#include <qx/StringEncoding.h>

#include <cctype>
#include <iterator>
#include <cstdint>
#include <vector>

namespace QXUDIF {

namespace {

constexpr std::int64_t kFirstLicenseID = 5000;
// LPic's language code for English (United States).
constexpr int kEnglish = 0;

std::string macRomanToUTF8(const std::string& bytes) {
    // Every byte sequence is valid Mac OS Roman, so this never comes back empty
    // for non-empty input.
    auto text = qx::stringWithBytes(bytes.data(), bytes.size(), qx::NSMacOSRomanStringEncoding);
    return text ? text->utf8() : std::string();
}

std::string withLineFeeds(std::string text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            out += '\n';
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

void appendUTF8(std::string& out, std::uint32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        if (c >= 0xD800 && c < 0xE000) c = 0xFFFD;
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The resource ID that holds the preferred language's text, from LPic.
std::optional<std::int64_t> idFromLPic(const Resources& resources) {
    const Resource* lpic = resources.find("LPic", kFirstLicenseID);
    if (!lpic || lpic->data.size() < 4) return std::nullopt;
    const auto& d = lpic->data;
    const int defaultLanguage = static_cast<std::int16_t>(be16(d.data()));
    const std::size_t count = be16(d.data() + 2);
    std::optional<std::int64_t> first;
    std::optional<std::int64_t> english;
    for (std::size_t i = 0; i < count && 4 + i * 6 + 6 <= d.size(); ++i) {
        const std::uint8_t* entry = d.data() + 4 + i * 6;
        const int language = static_cast<std::int16_t>(be16(entry));
        const std::int64_t id = kFirstLicenseID + static_cast<std::int16_t>(be16(entry + 2));
        if (language == defaultLanguage) return id;
        if (!first) first = id;
        if (language == kEnglish && !english) english = id;
    }
    return english ? english : first;
}

const Resource* textResource(const Resources& resources, std::int64_t id, bool* rtf) {
    if (const Resource* text = resources.find("TEXT", id)) {
        *rtf = false;
        return text;
    }
    if (const Resource* text = resources.find("RTF ", id)) {
        *rtf = true;
        return text;
    }
    return nullptr;
}

const Resource* firstTextResource(const Resources& resources, bool* rtf) {
    const Resource* best = nullptr;
    for (const char* type : {"TEXT", "RTF "})
        for (const auto& r : resources.ofType(type))
            if (r.id >= kFirstLicenseID && (!best || r.id < best->id)) {
                best = &r;
                *rtf = type[0] == 'R';
            }
    return best;
}

// The strings of STR# 5000, in the order the agreement dialog takes them.
constexpr const char* kEnglishStrings[] = {
    "English", "Agree", "Disagree", "Print", "Save...",
    ("If you agree with the terms of this license, press \"Agree\" to install the software. If you do not agree, "
     "press \"Disagree\"."),
};

void appendBE16(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

} // namespace

bool License::addEnglish(const std::string& utf8Text, Resources& resources, std::string* reason) {
    std::string withCR;
    withCR.reserve(utf8Text.size());
    for (std::size_t i = 0; i < utf8Text.size(); ++i) {
        if (utf8Text[i] == '\r' && i + 1 < utf8Text.size() && utf8Text[i + 1] == '\n') continue;
        withCR += utf8Text[i] == '\n' ? '\r' : utf8Text[i];
    }
    auto text = qx::stringWithBytes(withCR.data(), withCR.size(), qx::NSUTF8StringEncoding);
    if (!text) {
        *reason = "license text is not UTF-8";
        return false;
    }
    auto roman = qx::dataUsingEncoding(*text, qx::NSMacOSRomanStringEncoding);
    if (!roman) {
        *reason = "license text has characters Mac OS Roman cannot hold";
        return false;
    }

    Resource lpic;
    lpic.id = kFirstLicenseID;
    // Default language, one entry: English, in the resources numbered 5000 + 0.
    for (std::uint16_t field : {std::uint16_t{kEnglish}, std::uint16_t{1}, std::uint16_t{kEnglish}, std::uint16_t{0},
                                std::uint16_t{0}})
        appendBE16(lpic.data, field);
    Resource strings;
    strings.id = kFirstLicenseID;
    strings.name = "English buttons";
    appendBE16(strings.data, static_cast<std::uint16_t>(std::size(kEnglishStrings)));
    for (const char* item : kEnglishStrings) {
        const std::string value(item);
        strings.data.push_back(static_cast<std::uint8_t>(value.size()));
        strings.data.insert(strings.data.end(), value.begin(), value.end());
    }
    Resource body;
    body.id = kFirstLicenseID;
    body.name = "English SLA";
    body.data = roman->vector();
    resources.add("LPic", std::move(lpic));
    resources.add("STR#", std::move(strings));
    resources.add("TEXT", std::move(body));
    return true;
}

bool License::isPresent(const Resources& resources) {
    bool rtf = false;
    return resources.find("LPic", kFirstLicenseID) != nullptr || firstTextResource(resources, &rtf) != nullptr;
}

std::optional<std::string> License::text(const Resources& resources) {
    bool rtf = false;
    const Resource* chosen = nullptr;
    if (const auto id = idFromLPic(resources)) chosen = textResource(resources, *id, &rtf);
    if (!chosen) chosen = firstTextResource(resources, &rtf);
    if (!chosen) return std::nullopt;
    const std::string raw(chosen->data.begin(), chosen->data.end());
    return withLineFeeds(rtf ? textFromRTF(raw) : macRomanToUTF8(raw));
}

std::string License::textFromRTF(const std::string& rtf) {
    // Groups that hold document settings, not text.
    static const char* const kSkippedDestinations[] = {"fonttbl", "colortbl", "stylesheet", "info", "pict",
                                                       "header",  "footer",   "expandedcolortbl"};
    std::string out;
    std::string pendingBytes;  // \'hh bytes, decoded together so multi-byte runs stay whole
    std::vector<bool> skipping{false};
    auto flush = [&] {
        if (!pendingBytes.empty()) out += macRomanToUTF8(pendingBytes);
        pendingBytes.clear();
    };
    std::size_t i = 0;
    int skipAfterUnicode = 0;
    while (i < rtf.size()) {
        const char c = rtf[i];
        if (c == '{') {
            skipping.push_back(skipping.back());
            ++i;
            continue;
        }
        if (c == '}') {
            if (skipping.size() > 1) skipping.pop_back();
            ++i;
            continue;
        }
        if (c == '\r' || c == '\n') {
            ++i;
            continue;
        }
        if (c != '\\') {
            if (!skipping.back()) {
                if (skipAfterUnicode > 0) {
                    --skipAfterUnicode;
                } else {
                    flush();
                    pendingBytes += c;
                    flush();
                }
            }
            ++i;
            continue;
        }
        // A control symbol or word.
        ++i;
        if (i >= rtf.size()) break;
        const char s = rtf[i];
        if (s == '\\' || s == '{' || s == '}') {
            if (!skipping.back()) {
                flush();
                out += s;
            }
            ++i;
            continue;
        }
        if (s == '\'') {
            if (i + 2 < rtf.size() && std::isxdigit(static_cast<unsigned char>(rtf[i + 1])) &&
                std::isxdigit(static_cast<unsigned char>(rtf[i + 2]))) {
                if (!skipping.back()) {
                    if (skipAfterUnicode > 0) --skipAfterUnicode;
                    else pendingBytes += static_cast<char>(std::stoi(rtf.substr(i + 1, 2), nullptr, 16));
                }
                i += 3;
            } else {
                ++i;
            }
            continue;
        }
        if (s == '*') {
            skipping.back() = true;
            ++i;
            continue;
        }
        if (s == '\n' || s == '\r') {  // an escaped line end is a paragraph break
            if (!skipping.back()) {
                flush();
                out += '\n';
            }
            ++i;
            continue;
        }
        if (!std::isalpha(static_cast<unsigned char>(s))) {
            if (s == '~' && !skipping.back()) {
                flush();
                out += ' ';
            }
            ++i;
            continue;
        }
        std::string word;
        while (i < rtf.size() && std::isalpha(static_cast<unsigned char>(rtf[i]))) word += rtf[i++];
        bool hasParameter = false;
        long parameter = 0;
        bool negative = false;
        if (i < rtf.size() && rtf[i] == '-') {
            negative = true;
            ++i;
        }
        while (i < rtf.size() && std::isdigit(static_cast<unsigned char>(rtf[i]))) {
            hasParameter = true;
            if (parameter < 1000000) parameter = parameter * 10 + (rtf[i] - '0');
            ++i;
        }
        if (negative) parameter = -parameter;
        if (i < rtf.size() && rtf[i] == ' ') ++i;  // the delimiter belongs to the word
        if (skipping.back()) continue;
        for (const char* skipped : kSkippedDestinations)
            if (word == skipped) skipping.back() = true;
        if (skipping.back()) continue;
        if (word == "par" || word == "line") {
            flush();
            out += '\n';
        } else if (word == "tab") {
            flush();
            out += '\t';
        } else if (word == "u" && hasParameter) {
            flush();
            appendUTF8(out, static_cast<std::uint32_t>(parameter < 0 ? parameter + 65536 : parameter));
            skipAfterUnicode = 1;
        }
    }
    flush();
    return out;
}

} // namespace QXUDIF
