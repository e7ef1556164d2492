// StringSearchTests.cpp - the byte-by-byte answers for ASCII against the
// Unicode machinery, for every option bit, in locales whose collation keeps
// ASCII apart as code units and in locales whose tailorings do not.
#include <gtest/gtest.h>

#include "Internal/QXStringSearch.h"
#include "ScopedLocale.h"

#include <QXFoundation/QXPropertyList.h>

#include <string>
#include <vector>

namespace {

constexpr std::uint64_t kCase = QXCaseInsensitiveSearch, kLiteral = QXLiteralSearch, kBack = QXBackwardsSearch,
                        kAnchor = QXAnchoredSearch;

// Every combination of the bits that change an answer, plus the numeric bit
// (accepted, never used) and the folds, which leave ASCII as it is.
std::vector<std::uint64_t> optionSets() {
    std::vector<std::uint64_t> sets;
    for (std::uint64_t bits = 0; bits < 16; ++bits)
        for (std::uint64_t extra : {std::uint64_t{0}, std::uint64_t{QXDiacriticInsensitiveSearch},
                                    std::uint64_t{QXWidthInsensitiveSearch | QXNumericSearch}})
            sets.push_back(bits | extra);
    return sets;
}

// Pairs where a wrong shortcut shows: case, repeats that overlap at either
// end, ASCII contractions of some tailorings (ch, aa, cs, ll, dz), Turkish
// i, punctuation a shifted collation would ignore, digits a numeric one
// would read as numbers, control characters (ignorable, and CR LF is one
// character), and text that is not ASCII but folds or collates onto ASCII:
// ligatures, sharp s, combining marks, the Kelvin sign, fullwidth letters.
struct Pair {
    const char* text;
    const char* pattern;
};
const std::vector<Pair> kPairs = {
    {"Hello World", "world"},   {"Hello World", "Hello"},   {"Hello World", "World"},  {"aaa", "aa"},
    {"abcabc", "cab"},          {"abc", "abcd"},            {"", "a"},                 {"x", "x"},
    {"chleba", "c"},            {"chleba", "h"},            {"Bach", "ch"},            {"Aarhus", "a"},
    {"haag", "ag"},             {"csak", "s"},              {"calle", "l"},            {"dzwon", "z"},
    {"LIMIT", "limit"},         {"limit", "LIMIT"},         {"I", "i"},                {"Istanbul", "ist"},
    {"co-op", "coop"},          {"co-op", "o-o"},           {"a b", "ab"},             {"a.b!c", "b!"},
    {"x10y", "10"},             {"x010y", "10"},            {"v2", "02"},              {"a\x01" "b", "ab"},
    {"line\r\nnext", "\n"},     {"tab\there", "\th"},       {"\xEF\xAC\x81" "eld", "fi"},  // ligature fi
    {"Stra\xC3\x9F" "e", "ss"}, {"Strasse", "stra\xC3\x9F"}, {"cafe\xCC\x81", "cafe"},     // combining acute
    {"\xE2\x84\xAA" "elvin", "kelvin"},                     {"\xEF\xBD\x81\xEF\xBD\x82", "ab"},  // Kelvin sign; fullwidth
    {"na\xC3\xAFve", "naive"},  {"\xC4\xB0stanbul", "istanbul"},
};

void expectSameAnswers(const char* locale) {
    for (std::uint64_t options : optionSets())
        for (const auto& pair : kPairs)
            EXPECT_EQ(QXStringSearch::contains(pair.text, pair.pattern, options),
                      QXStringSearch::containsUnicode(pair.text, pair.pattern, options))
                << locale << ": \"" << pair.text << "\" / \"" << pair.pattern << "\" options " << options;
}

} // namespace

TEST(StringSearch, ASCIIShortcutAgreesWithCollation) {
    for (const char* locale : {"en_US", "en_US_POSIX", "de_DE", "tr_TR", "cs_CZ", "da_DK", "th_TH", "es@collation=traditional",
                               "en@colNumeric=yes", "en@colAlternate=shifted"}) {
        ScopedLocale scoped(locale);
        expectSameAnswers(locale);
    }
}

// The shortcut must actually be taken where the collation allows it, or the
// comparison above proves nothing; and refused where a tailoring, a setting
// or the case mapping makes ASCII collate otherwise.
TEST(StringSearch, ASCIIShortcutOnlyWhereCollationAllows) {
    struct Case {
        const char* locale;
        std::uint64_t options;
        bool allowed;
    };
    const std::vector<Case> cases = {
        {"en_US", 0, true},
        {"en_US", kCase, true},
        {"en_US_POSIX", kCase, true},  // searched with the root collation
        {"de_DE", kCase | kAnchor | kBack, true},
        {"tr_TR", 0, true},
        {"tr_TR", kCase, false},  // I is the capital of dotless i
        {"cs_CZ", 0, false},      // ch
        {"da_DK", 0, false},      // aa
        {"en@colNumeric=yes", 0, false},
        {"en@colAlternate=shifted", 0, false},
        {"cs_CZ", kLiteral | kCase, true},  // code points, whatever the collation
    };
    for (const auto& c : cases) {
        ScopedLocale scoped(c.locale);
        EXPECT_EQ(QXStringSearch::comparesASCIIByCodeUnit(c.options), c.allowed) << c.locale << " " << c.options;
    }
}

// The search kept open between calls must not carry one pattern's or one
// text's state into the next call.
TEST(StringSearch, ReusedSearchStartsAfresh) {
    ScopedLocale scoped("en_US");
    struct Step {
        const char* text;
        const char* pattern;
        std::uint64_t options;
        bool expected;
    };
    const std::vector<Step> steps = {
        {"Caf\xC3\xA9 menu", "menu", 0, true},
        {"Caf\xC3\xA9 menu", "MENU", 0, false},
        {"Caf\xC3\xA9 menu", "MENU", kCase, true},
        {"\xC3\xA9t\xC3\xA9", "t", 0, true},
        {"\xC3\xA9t\xC3\xA9", "tt", 0, false},
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9", kAnchor | kBack, true},
        {"\xC3\xA9tx", "\xC3\xA9", kAnchor | kBack, false},
        {"", "\xC3\xA9", 0, false},
        {"\xC3\xA9", "\xC3\xA9", 0, true},
        {"\xCC\x81", "\xCC\x81", QXDiacriticInsensitiveSearch, false},  // nothing left to search for
    };
    for (int round = 0; round < 2; ++round)
        for (const auto& s : steps)
            EXPECT_EQ(QXStringSearch::contains(s.text, s.pattern, s.options), s.expected)
                << s.text << " / " << s.pattern << " / " << s.options;
}
