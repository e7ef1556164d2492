// QXStringSearch.cpp - substring tests by collation (ICU's string search) or by code points.
#include "Internal/QXStringSearch.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/tblcoll.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/usearch.h>

#include <map>
#include <memory>
#include <string>

namespace QXStringSearch {

namespace {

constexpr std::uint64_t kCaseInsensitive = 1, kLiteral = 2, kBackwards = 4, kAnchored = 8;
constexpr std::uint64_t kDiacriticInsensitive = 128, kWidthInsensitive = 256;

// Width variants are folded by compatibility composition; it also folds a
// few other compatibility forms (ligatures, superscripts), which a width-
// insensitive search accepts as the same text.
icu::UnicodeString foldWidth(const icu::UnicodeString& s) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfkc = icu::Normalizer2::getNFKCInstance(status);
    if (U_FAILURE(status)) return s;
    icu::UnicodeString out = nfkc->normalize(s, status);
    return U_SUCCESS(status) ? out : s;
}

icu::UnicodeString stripDiacritics(const icu::UnicodeString& s) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) return s;
    icu::UnicodeString decomposed = nfd->normalize(s, status);
    if (U_FAILURE(status)) return s;
    icu::UnicodeString out;
    for (int32_t i = 0; i < decomposed.length(); i = decomposed.moveIndex32(i, 1)) {
        const UChar32 c = decomposed.char32At(i);
        if (u_charType(c) != U_NON_SPACING_MARK) out.append(c);
    }
    return out;
}

bool matchAt(const icu::UnicodeString& text, const icu::UnicodeString& pattern, std::uint64_t options) {
    if (options & kAnchored) return (options & kBackwards) ? text.endsWith(pattern) : text.startsWith(pattern);
    return text.indexOf(pattern) >= 0;
}

// Collators of the current locale, one per strength, made
// once per thread (a collator is not to be shared between threads).
//
// The POSIX locale (what ICU makes of an environment without a language) has
// a collation that orders by code point and so gives case distinct primary
// weights: nothing could be found ignoring case. Searches there use the root
// collation, as a locale without a collation of its own would.
icu::Collator* collator(UColAttributeValue strength) {
    thread_local std::map<std::pair<std::string, int>, std::unique_ptr<icu::Collator>> cache;
    const icu::Locale& current = icu::Locale::getDefault();
    const icu::Locale locale = std::string(current.getVariant()) == "POSIX" ? icu::Locale::getRoot() : current;
    auto key = std::make_pair(std::string(locale.getName()), static_cast<int>(strength));
    auto& slot = cache[key];
    if (!slot) {
        UErrorCode status = U_ZERO_ERROR;
        slot.reset(icu::Collator::createInstance(locale, status));
        if (U_FAILURE(status) || !slot) {
            slot.reset();
            return nullptr;
        }
        slot->setAttribute(UCOL_STRENGTH, strength, status);
        slot->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
    }
    return slot.get();
}

bool collatedContains(const icu::UnicodeString& text, const icu::UnicodeString& pattern, std::uint64_t options) {
    // Accents are secondary differences and case tertiary ones; the string
    // search compares at one strength and drops the case level, so accents
    // are removed beforehand (by the caller) when only they are to be ignored.
    const UColAttributeValue strength = (options & kCaseInsensitive) ? UCOL_SECONDARY : UCOL_TERTIARY;
    icu::Collator* coll = collator(strength);
    if (!coll) return matchAt(text, pattern, options);
    auto* rule = dynamic_cast<icu::RuleBasedCollator*>(coll);
    if (!rule) return matchAt(text, pattern, options);
    UErrorCode status = U_ZERO_ERROR;
    UStringSearch* search = usearch_openFromCollator(pattern.getBuffer(), pattern.length(), text.getBuffer(),
                                                     text.length(), rule->toUCollator(), nullptr, &status);
    if (U_FAILURE(status)) return false;
    bool found = false;
    if (options & kAnchored) {
        if (options & kBackwards) {
            const int32_t at = usearch_last(search, &status);
            found = at != USEARCH_DONE && at + usearch_getMatchedLength(search) == text.length();
        } else {
            found = usearch_first(search, &status) == 0;
        }
    } else {
        found = usearch_first(search, &status) != USEARCH_DONE;
    }
    usearch_close(search);
    return U_SUCCESS(status) && found;
}

} // namespace

bool contains(std::string_view text, std::string_view pattern, std::uint64_t options) {
    if (pattern.empty()) return false;
    const bool folds = options & (kCaseInsensitive | kDiacriticInsensitive | kWidthInsensitive);
    if ((options & kLiteral) && !folds) {
        if (options & kAnchored) return (options & kBackwards) ? text.ends_with(pattern) : text.starts_with(pattern);
        return text.find(pattern) != std::string_view::npos;
    }
    icu::UnicodeString t = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::UnicodeString p =
        icu::UnicodeString::fromUTF8(icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size())));
    if (options & kWidthInsensitive) {
        t = foldWidth(t);
        p = foldWidth(p);
    }
    if (options & kDiacriticInsensitive) {
        t = stripDiacritics(t);
        p = stripDiacritics(p);
    }
    if (!(options & kLiteral)) return collatedContains(t, p, options);
    if (options & kCaseInsensitive) {
        t.foldCase();
        p.foldCase();
    }
    return matchAt(t, p, options);
}

bool dataContains(const qx::Data& data, std::string_view pattern, unsigned flags) {
    if (pattern.empty()) return false;
    const std::string_view bytes = data.view();
    if (flags & 2) return (flags & 1) ? bytes.ends_with(pattern) : bytes.starts_with(pattern);
    return bytes.find(pattern) != std::string_view::npos;
}

} // namespace QXStringSearch
