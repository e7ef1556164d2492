// QXSearchPattern.cpp - a search text compiled once, tested against many values.
#include "Internal/QXSearchPattern.h"

#include "Internal/QXDateTextAlphabet.h"
#include "Internal/QXStringSearch.h"

#include <unicode/locid.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace {

constexpr std::uint64_t kCaseInsensitive = 1, kLiteral = 2, kAnchored = 8;
constexpr std::uint64_t kDiacriticInsensitive = 128, kWidthInsensitive = 256;

bool isPrintableASCII(unsigned char c) { return c >= 0x20 && c <= 0x7E; }

bool isPrintableASCII(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return isPrintableASCII(static_cast<unsigned char>(c)); });
}

// Every character a number's description can hold: decimal digits, signs,
// the point and exponent, "inf" and "nan".
const icu::UnicodeSet& numberAlphabet() {
    static const icu::UnicodeSet* const set = [] {
        auto* s = new icu::UnicodeSet(u'0', u'9');
        s->addAll(icu::UnicodeString(u"+-.aefin"));
        s->freeze();
        return s;
    }();
    return *set;
}

// The styles' formatters and, once asked for, their alphabets, for one
// locale and time zone setting.
struct DateStyles {
    std::string madeFor;
    std::array<qx::Ref<qx::DateFormatter>, 4> formatters;
    std::array<std::unique_ptr<QXDateTextAlphabet>, 4> alphabets;
};

DateStyles& dateStyles() {
    thread_local DateStyles styles;
    const char* tz = std::getenv("TZ");
    std::string now = std::string(icu::Locale::getDefault().getName()) + (tz ? std::string("|") + tz : "");
    if (!styles.formatters[0] || styles.madeFor != now) {
        using Style = qx::DateFormatter::Style;
        const Style kinds[] = {Style::Full, Style::Long, Style::Medium, Style::Short};
        for (std::size_t i = 0; i < 4; ++i) {
            styles.formatters[i] = qx::DateFormatter::create(kinds[i], kinds[i]);
            styles.alphabets[i].reset();
        }
        styles.madeFor = std::move(now);
    }
    return styles;
}

} // namespace

QXSearchPattern::QXSearchPattern(std::string_view pattern, std::uint64_t options)
    : pattern_(pattern), options_(options), ignoreCase_(options & kCaseInsensitive) {
    const bool folds = options & (kCaseInsensitive | kDiacriticInsensitive | kWidthInsensitive);
    if (pattern_.empty()) {
        mode_ = Mode::Never;
    } else if ((options & kLiteral) && !folds) {
        mode_ = Mode::Bytes;
    } else if (!(options & kLiteral) && isPrintableASCII(pattern_) && QXStringSearch::comparesASCIIByCodeUnit(options)) {
        mode_ = Mode::ASCII;
        for (char c : pattern_) {
            for (std::uint32_t primary : QXStringSearch::codePointWeight(static_cast<unsigned char>(c), options).primaries)
                if (std::find(primaries_.begin(), primaries_.end(), primary) == primaries_.end()) primaries_.push_back(primary);
        }
    }
    numberRuledOut_ = rulesOut(numberAlphabet());
}

bool QXSearchPattern::bytesOccurIn(std::string_view text) const {
    return QXStringSearch::containsASCII(text, pattern_, options_ & ~kAnchored);
}

const QXSearchPattern::Inertness& QXSearchPattern::inertness(UChar32 c) const {
    auto& recent = recent_[static_cast<std::size_t>(c) % recent_.size()];
    if (recent.second && recent.first == c) return *recent.second;
    auto known = inert_.find(c);
    if (known != inert_.end()) {
        recent = {c, &known->second};
        return known->second;
    }
    QXStringSearch::CodePointWeight weight = QXStringSearch::codePointWeight(c, options_);
    // One element that no pattern character has is enough: an accent (no
    // pattern character is one), or a primary weight not among the pattern's.
    auto unmatched = [this](std::uint32_t primary) {
        return primary != 0 && std::find(primaries_.begin(), primaries_.end(), primary) == primaries_.end();
    };
    Inertness answer;
    answer.inert = weight.contextFree &&
                   (weight.hasSecondaryOnly || std::any_of(weight.primaries.begin(), weight.primaries.end(), unmatched));
    answer.decomposed = weight.decomposed;
    if (answer.inert) answer.contractions = std::move(weight.contractions);
    for (const auto& contraction : answer.contractions) {
        std::uint64_t bits = 0;
        for (int32_t i = 0; i < contraction.length(); i = contraction.moveIndex32(i, 1))
            bits |= std::uint64_t{1} << (contraction.char32At(i) % 64);
        answer.contractionBits.push_back(bits);
    }
    const Inertness& stored = inert_.emplace(c, std::move(answer)).first->second;
    recent = {c, &stored};
    return stored;
}

bool QXSearchPattern::matchesText(std::string_view text) const {
    switch (mode_) {
    case Mode::Never: return false;
    case Mode::Bytes: return QXStringSearch::containsUnicode(text, pattern_, options_);  // a byte search
    case Mode::Unicode: return QXStringSearch::contains(text, pattern_, options_);
    case Mode::ASCII: break;
    }
    if (isPrintableASCII(text)) return QXStringSearch::containsASCII(text, pattern_, options_);
    if (!(options_ & (kDiacriticInsensitive | kWidthInsensitive)) && !bytesOccurIn(text)) {
        // Ruled out when every other character is inert (see the header).
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        const auto length = static_cast<int32_t>(text.size());
        bool ruledOut = true, contracts = false;
        for (int32_t i = 0; i < length && ruledOut;) {
            if (isPrintableASCII(bytes[i])) {
                ++i;
                continue;
            }
            UChar32 c;
            U8_NEXT(bytes, i, length, c);
            const Inertness* inert = c >= 0 ? &inertness(c) : nullptr;
            ruledOut = inert && inert->inert;
            contracts = contracts || (ruledOut && !inert->contractions.empty());
        }
        if (ruledOut && contracts) ruledOut = !contractionPresent(text);
        if (ruledOut) return false;
    }
    return QXStringSearch::containsUnicode(text, pattern_, options_);
}

namespace {

bool allPresent(const icu::UnicodeString& contraction, const std::vector<UChar32>& present) {
    for (int32_t i = 0; i < contraction.length(); i = contraction.moveIndex32(i, 1))
        if (std::find(present.begin(), present.end(), contraction.char32At(i)) == present.end()) return false;
    return true;
}

template <class Inertness>
bool anyFormed(const Inertness& inert, const std::vector<UChar32>& present, std::uint64_t presentBits) {
    for (std::size_t i = 0; i < inert.contractions.size(); ++i)
        if ((inert.contractionBits[i] & ~presentBits) == 0 && allPresent(inert.contractions[i], present)) return true;
    return false;
}

} // namespace

void QXSearchPattern::addDecomposed(UChar32 c, std::vector<UChar32>& present, std::uint64_t& bits) const {
    if (c < 0x80) {
        present.push_back(c);
        bits |= std::uint64_t{1} << (c % 64);
        return;
    }
    const icu::UnicodeString& parts = inertness(c).decomposed;
    for (int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
        present.push_back(parts.char32At(i));
        bits |= std::uint64_t{1} << (parts.char32At(i) % 64);
    }
}

bool QXSearchPattern::contractionPresent(std::string_view text) const {
    // A contraction matches decomposed text: the characters present are
    // those of every character's decomposition.
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    std::vector<UChar32>& present = present_;
    present.clear();
    std::uint64_t bits = 0;
    for (int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c >= 0) addDecomposed(c, present, bits);
    }
    for (int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c >= 0 && !(c < 0x80 && isPrintableASCII(static_cast<unsigned char>(c))) &&
            anyFormed(inertness(c), present, bits))
            return true;
    }
    return false;
}

bool QXSearchPattern::rulesOut(const icu::UnicodeSet& alphabet) const {
    auto lacks = [&alphabet](UChar32 c) { return !alphabet.contains(c); };
    switch (mode_) {
    case Mode::Never: return true;
    case Mode::Bytes: {
        const icu::UnicodeString pattern = icu::UnicodeString::fromUTF8(pattern_);
        for (int32_t i = 0; i < pattern.length(); i = pattern.moveIndex32(i, 1))
            if (lacks(pattern.char32At(i))) return true;
        return false;
    }
    case Mode::Unicode: return false;
    case Mode::ASCII: break;
    }
    const bool transforms = options_ & (kDiacriticInsensitive | kWidthInsensitive);
    std::vector<UChar32> present;
    std::uint64_t bits = 0;
    for (int32_t r = 0; r < alphabet.getRangeCount(); ++r)
        for (UChar32 c = alphabet.getRangeStart(r); c <= alphabet.getRangeEnd(r); ++c) addDecomposed(c, present, bits);
    for (int32_t r = 0; r < alphabet.getRangeCount(); ++r)
        for (UChar32 c = alphabet.getRangeStart(r); c <= alphabet.getRangeEnd(r); ++c) {
            if (c < 0x80 && isPrintableASCII(static_cast<unsigned char>(c))) continue;
            if (transforms) return false;
            const Inertness& inert = inertness(c);
            if (!inert.inert || anyFormed(inert, present, bits)) return false;
        }
    for (char c : pattern_) {
        const auto u = static_cast<unsigned char>(c);
        const bool letter = (u | 0x20) >= 'a' && (u | 0x20) <= 'z';
        if (ignoreCase_ && letter ? lacks(u | 0x20) && lacks(u & ~0x20) : lacks(u)) return true;
    }
    return false;
}

bool QXSearchPattern::matchesKey(const qx::String& key) const {
    const std::uint64_t hash = (reinterpret_cast<std::uintptr_t>(&key) >> 4) * 0x9E3779B97F4A7C15ull;
    auto& known = keys_[(hash >> 56) % keys_.size()];
    if (known.first != &key) known = {&key, matchesText(key.utf8())};
    return known.second;
}

bool QXSearchPattern::matchesNumber(const qx::Number& number) const {
    return !numberRuledOut_ && matchesText(number.description());
}

bool QXSearchPattern::matchesData(const qx::Data& data) const {
    return QXStringSearch::dataContains(data, pattern_, static_cast<unsigned>((options_ >> 2) & 3));
}

bool QXSearchPattern::matchesDate(const qx::Ref<qx::Date>& date) const {
    const bool finite = std::isfinite(date->timeIntervalSince1970() * 1000.0);
    if (datesKnown_ && finite && datesRuledOut_) return false;
    DateStyles& styles = dateStyles();
    if (!datesKnown_) {
        const icu::DateFormat::EStyle kinds[] = {icu::DateFormat::kFull, icu::DateFormat::kLong, icu::DateFormat::kMedium,
                                                 icu::DateFormat::kShort};
        for (std::size_t i = 0; i < 4; ++i) {
            if (!styles.alphabets[i])
                styles.alphabets[i] = std::make_unique<QXDateTextAlphabet>(icu::Locale::getDefault(), kinds[i]);
            dateStyleRuledOut_[i] = styles.alphabets[i]->isBounded() && rulesOut(styles.alphabets[i]->characters());
        }
        datesRuledOut_ = std::all_of(dateStyleRuledOut_.begin(), dateStyleRuledOut_.end(), [](bool out) { return out; });
        datesKnown_ = true;
    }
    for (std::size_t i = 0; i < 4; ++i) {
        if (finite && dateStyleRuledOut_[i]) continue;
        if (auto shown = styles.formatters[i]->stringForObjectValue(date))
            if (matchesText(shown->utf8())) return true;
    }
    return false;
}

const std::array<qx::Ref<qx::DateFormatter>, 4>& QXSearchPattern::dateFormatters() { return dateStyles().formatters; }
