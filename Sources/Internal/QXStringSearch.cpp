// QXStringSearch.cpp - substring tests by collation (ICU's string search) or by code points.
//
// Searching a whole tree tests the same pattern against a great many short
// strings, most of them ASCII. Each thread therefore keeps its collators and
// one open string search per collator (only the text changes from call to
// call), and text and pattern that are both ASCII are compared byte by byte
// whenever that provably gives the collation's answer.
#include "Internal/QXStringSearch.h"

#include <unicode/coleitr.h>
#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/tblcoll.h>
#include <unicode/uchar.h>
#include <unicode/uniset.h>
#include <unicode/usetiter.h>
#include <unicode/unistr.h>
#include <unicode/usearch.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

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

// --- ASCII ------------------------------------------------------------------------------------

constexpr char kFirstPrintable = 0x20, kLastPrintable = 0x7E;

bool isASCII(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isPrintableASCII(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return c >= kFirstPrintable && c <= kLastPrintable; });
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameChar(char a, char b, bool ignoreCase) { return ignoreCase ? lower(a) == lower(b) : a == b; }

bool asciiMatch(std::string_view text, std::string_view pattern, std::uint64_t options, bool ignoreCase) {
    if (pattern.size() > text.size()) return false;
    auto equalAt = [&](std::size_t at) {
        for (std::size_t i = 0; i < pattern.size(); ++i)
            if (!sameChar(text[at + i], pattern[i], ignoreCase)) return false;
        return true;
    };
    if (options & kAnchored) return equalAt((options & kBackwards) ? text.size() - pattern.size() : 0);
    if (!ignoreCase) return text.find(pattern) != std::string_view::npos;
    for (std::size_t at = 0; at + pattern.size() <= text.size(); ++at)
        if (equalAt(at)) return true;
    return false;
}

// True when, for printable ASCII, the collation compares one character at a
// time and tells characters apart exactly as code units do (ignoring case at
// secondary strength): no ASCII contraction or expansion, nothing ignorable,
// no numeric or case-level setting. Then a string search over printable
// ASCII finds what a byte comparison finds. Tailorings break this (Czech
// "ch", Danish "aa", Turkish dotless i), so it is checked per collator.
bool collatesASCIIByCodeUnit(icu::RuleBasedCollator& coll) {
    UErrorCode status = U_ZERO_ERROR;
    if (coll.getAttribute(UCOL_NUMERIC_COLLATION, status) == UCOL_ON ||
        coll.getAttribute(UCOL_ALTERNATE_HANDLING, status) == UCOL_SHIFTED ||
        coll.getAttribute(UCOL_CASE_LEVEL, status) == UCOL_ON || U_FAILURE(status))
        return false;
    const bool ignoreCase = coll.getAttribute(UCOL_STRENGTH, status) < UCOL_TERTIARY;
    icu::UnicodeSet contractions, expansions;
    ucol_getContractionsAndExpansions(coll.toUCollator(), contractions.toUSet(), expansions.toUSet(), true, &status);
    if (U_FAILURE(status) || expansions.containsSome(kFirstPrintable, kLastPrintable)) return false;
    // A contraction matters only when every character of it is printable ASCII.
    for (icu::UnicodeSetIterator each(contractions); each.next();) {
        const icu::UnicodeString& s = each.getString();
        bool allPrintable = true;
        for (int32_t i = 0; i < s.length() && allPrintable; ++i)
            allPrintable = s[i] >= kFirstPrintable && s[i] <= kLastPrintable;
        if (allPrintable) return false;
    }
    const icu::UnicodeString empty;
    for (char a = kFirstPrintable; a <= kLastPrintable; ++a) {
        const icu::UnicodeString sa(static_cast<UChar>(a));
        if (coll.compare(sa, empty, status) == UCOL_EQUAL) return false;
        for (char b = static_cast<char>(a + 1); b <= kLastPrintable; ++b) {
            const bool equal = coll.compare(sa, icu::UnicodeString(static_cast<UChar>(b)), status) == UCOL_EQUAL;
            if (equal != sameChar(a, b, ignoreCase)) return false;
        }
    }
    return U_SUCCESS(status);
}

// --- Collators and their searches ---------------------------------------------------------------

struct SearchClose {
    void operator()(UStringSearch* search) const { usearch_close(search); }
};

// One collator of the current locale at one strength, with what is worked
// out from it once. Members are released in reverse order: the search
// before the collator it was opened with.
struct CollatorSlot {
    std::unique_ptr<icu::Collator> collator;
    icu::RuleBasedCollator* rules = nullptr;
    bool asciiByCodeUnit = false;
    std::unique_ptr<UStringSearch, SearchClose> search;
    icu::UnicodeString pattern;  // the search reads it in place
    // For codePointWeight, made on first use: the code points the locale
    // tailors, the contractions each code point occurs in, one element
    // iterator, and the answers.
    std::unique_ptr<icu::UnicodeSet> tailored;
    std::unordered_map<UChar32, std::vector<icu::UnicodeString>> contractions;
    std::unique_ptr<icu::CollationElementIterator> elements;
    std::unordered_map<UChar32, CodePointWeight> weights;
};

// Collators of the current locale, one per strength, made once per thread
// (a collator is not to be shared between threads).
//
// The POSIX locale (what ICU makes of an environment without a language) has
// a collation that orders by code point and so gives case distinct primary
// weights: nothing could be found ignoring case. Searches there use the root
// collation, as a locale without a collation of its own would.
CollatorSlot* collatorSlot(UColAttributeValue strength) {
    thread_local std::map<std::pair<std::string, int>, CollatorSlot> cache;
    // The slot used last, found again without building the map's key.
    thread_local std::string lastLocale;
    thread_local int lastStrength = -1;
    thread_local CollatorSlot* last = nullptr;
    const icu::Locale& current = icu::Locale::getDefault();
    if (last && lastStrength == strength && lastLocale == current.getName()) return last->rules ? last : nullptr;
    const icu::Locale locale = std::string(current.getVariant()) == "POSIX" ? icu::Locale::getRoot() : current;
    auto [it, made] = cache.try_emplace(std::make_pair(std::string(locale.getName()), static_cast<int>(strength)));
    CollatorSlot& slot = it->second;
    if (made) {
        UErrorCode status = U_ZERO_ERROR;
        slot.collator.reset(icu::Collator::createInstance(locale, status));
        if (U_SUCCESS(status) && slot.collator) {
            slot.collator->setAttribute(UCOL_STRENGTH, strength, status);
            slot.collator->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
            slot.rules = dynamic_cast<icu::RuleBasedCollator*>(slot.collator.get());
            if (slot.rules) slot.asciiByCodeUnit = collatesASCIIByCodeUnit(*slot.rules);
        }
    }
    last = &slot;
    lastLocale = current.getName();
    lastStrength = strength;
    return slot.rules ? &slot : nullptr;
}

// Accents are secondary differences and case tertiary ones; the string search
// compares at one strength and drops the case level, so accents are removed
// beforehand (by the caller) when only they are to be ignored.
UColAttributeValue strengthFor(std::uint64_t options) {
    return (options & kCaseInsensitive) ? UCOL_SECONDARY : UCOL_TERTIARY;
}

bool collatedContains(CollatorSlot& slot, const icu::UnicodeString& text, const icu::UnicodeString& pattern,
                      std::uint64_t options) {
    // The string search takes neither an empty text nor an empty pattern.
    if (text.isEmpty() || pattern.isEmpty()) return false;
    UErrorCode status = U_ZERO_ERROR;
    if (!slot.search) {
        slot.pattern = pattern;
        slot.search.reset(usearch_openFromCollator(slot.pattern.getBuffer(), slot.pattern.length(), text.getBuffer(),
                                                   text.length(), slot.rules->toUCollator(), nullptr, &status));
        if (U_FAILURE(status)) {
            slot.search.reset();
            return false;
        }
    } else {
        usearch_setText(slot.search.get(), text.getBuffer(), text.length(), &status);
        if (slot.pattern != pattern) {
            slot.pattern = pattern;
            usearch_setPattern(slot.search.get(), slot.pattern.getBuffer(), slot.pattern.length(), &status);
        }
        if (U_FAILURE(status)) {
            slot.search.reset();  // opened afresh next time
            return false;
        }
    }
    UStringSearch* search = slot.search.get();
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
    return U_SUCCESS(status) && found;
}

// Filled on the slot's first use by codePointWeight; false when ICU fails,
// and every code point then counts as depending on its neighbours.
bool prepareWeights(CollatorSlot& slot) {
    if (slot.tailored) return slot.elements != nullptr;
    slot.tailored = std::make_unique<icu::UnicodeSet>();
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeSet contractions;
    ucol_getContractionsAndExpansions(slot.rules->toUCollator(), contractions.toUSet(), nullptr, true, &status);
    std::unique_ptr<icu::UnicodeSet> tailored(slot.rules->getTailoredSet(status));
    if (U_FAILURE(status) || !tailored) return false;
    for (icu::UnicodeSetIterator each(*tailored); each.next();) {
        if (!each.isString()) {
            slot.tailored->add(each.getCodepoint());
            continue;
        }
        slot.tailored->addAll(each.getString());
    }
    for (icu::UnicodeSetIterator each(contractions); each.next();) {
        if (!each.isString()) {
            slot.tailored->add(each.getCodepoint());  // not expected: counts as unknown
            continue;
        }
        const icu::UnicodeString& s = each.getString();
        for (int32_t i = 0; i < s.length(); i = s.moveIndex32(i, 1)) {
            auto& list = slot.contractions[s.char32At(i)];
            if (list.empty() || list.back() != s) list.push_back(s);
        }
    }
    slot.elements.reset(slot.rules->createCollationElementIterator(icu::UnicodeString()));
    return slot.elements != nullptr;
}

// The second half of a 64-bit collation element split in two (the 32-bit
// form the element iterator returns) carries these bits.
constexpr int32_t kContinuationMarker = 0xC0;

CodePointWeight weigh(CollatorSlot& slot, UChar32 c) {
    CodePointWeight weight;
    if (!prepareWeights(slot)) return weight;
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) return weight;
    icu::UnicodeString decomposed;
    if (!nfd->getDecomposition(c, decomposed)) decomposed = icu::UnicodeString(c);
    bool free = u_getCombiningClass(c) == 0 && u_getCombiningClass(decomposed.char32At(0)) == 0 &&
                !slot.tailored->contains(c);
    for (int32_t i = 0; i < decomposed.length() && free; i = decomposed.moveIndex32(i, 1)) {
        const UChar32 part = decomposed.char32At(i);
        free = !slot.tailored->contains(part);
        for (UChar32 each : {c, part}) {
            auto found = slot.contractions.find(each);
            if (found != slot.contractions.end())
                weight.contractions.insert(weight.contractions.end(), found->second.begin(), found->second.end());
        }
    }
    slot.elements->setText(icu::UnicodeString(c), status);
    for (int32_t element = slot.elements->next(status);
         U_SUCCESS(status) && element != icu::CollationElementIterator::NULLORDER; element = slot.elements->next(status)) {
        if ((element & kContinuationMarker) == kContinuationMarker) continue;
        const auto primary = static_cast<std::uint32_t>(icu::CollationElementIterator::primaryOrder(element));
        if (primary == 0 && icu::CollationElementIterator::secondaryOrder(element) == 0) continue;
        weight.hasSecondaryOnly = weight.hasSecondaryOnly || primary == 0;
        weight.primaries.push_back(primary);
    }
    if (U_FAILURE(status)) return {};
    weight.contextFree = free;
    weight.decomposed = decomposed;
    return weight;
}

icu::UnicodeString fromUTF8(std::string_view s) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
}

} // namespace

bool containsUnicode(std::string_view text, std::string_view pattern, std::uint64_t options) {
    if (pattern.empty()) return false;
    const bool folds = options & (kCaseInsensitive | kDiacriticInsensitive | kWidthInsensitive);
    if ((options & kLiteral) && !folds) {
        if (options & kAnchored) return (options & kBackwards) ? text.ends_with(pattern) : text.starts_with(pattern);
        return text.find(pattern) != std::string_view::npos;
    }
    icu::UnicodeString t = fromUTF8(text), p = fromUTF8(pattern);
    if (options & kWidthInsensitive) {
        t = foldWidth(t);
        p = foldWidth(p);
    }
    if (options & kDiacriticInsensitive) {
        t = stripDiacritics(t);
        p = stripDiacritics(p);
    }
    if (!(options & kLiteral)) {
        CollatorSlot* slot = collatorSlot(strengthFor(options));
        return slot ? collatedContains(*slot, t, p, options) : matchAt(t, p, options);
    }
    if (options & kCaseInsensitive) {
        t.foldCase();
        p.foldCase();
    }
    return matchAt(t, p, options);
}

bool contains(std::string_view text, std::string_view pattern, std::uint64_t options) {
    if (pattern.empty()) return false;
    // ASCII is its own width and diacritic fold, and case folding maps it
    // onto itself (A-Z to a-z); text that is not ASCII may fold into ASCII.
    if (options & kLiteral) {
        if (isASCII(text) && isASCII(pattern)) return asciiMatch(text, pattern, options, options & kCaseInsensitive);
    } else if (isPrintableASCII(text) && isPrintableASCII(pattern) && comparesASCIIByCodeUnit(options)) {
        return asciiMatch(text, pattern, options, options & kCaseInsensitive);
    }
    return containsUnicode(text, pattern, options);
}

bool containsASCII(std::string_view text, std::string_view pattern, std::uint64_t options) {
    return !pattern.empty() && asciiMatch(text, pattern, options, options & kCaseInsensitive);
}

bool comparesASCIIByCodeUnit(std::uint64_t options) {
    if (options & kLiteral) return true;
    const CollatorSlot* slot = collatorSlot(strengthFor(options));
    return slot && slot->asciiByCodeUnit;
}

CodePointWeight codePointWeight(UChar32 c, std::uint64_t options) {
    CollatorSlot* slot = collatorSlot(strengthFor(options));
    if (!slot) return {};
    auto found = slot->weights.find(c);
    if (found == slot->weights.end()) found = slot->weights.emplace(c, weigh(*slot, c)).first;
    return found->second;
}

bool dataContains(const qx::Data& data, std::string_view pattern, unsigned flags) {
    if (pattern.empty()) return false;
    const std::string_view bytes = data.view();
    if (flags & 2) return (flags & 1) ? bytes.ends_with(pattern) : bytes.starts_with(pattern);
    return bytes.find(pattern) != std::string_view::npos;
}

} // namespace QXStringSearch
