// SearchPatternTests.cpp - the compiled search text against the Unicode
// machinery on random text full of characters that collate onto ASCII or
// next to it, and the date alphabets against every formatted date.
#include <gtest/gtest.h>

#include "Internal/QXDateTextAlphabet.h"
#include "Internal/QXSearchPattern.h"
#include "Internal/QXStringSearch.h"
#include "ScopedLocale.h"

#include <QXFoundation/QXPropertyList.h>

#include <cstdlib>
#include <random>
#include <string>

namespace {

// ASCII pieces, and characters a shortcut could get wrong: accents both
// composed and combining, expansions (sharp s, ligature), contractions (the
// noncharacter of index boundaries, Cyrillic and breve, Czech ch, Danish
// aa), the Kelvin sign and a fullwidth letter (equal to ASCII at some
// strength), ignorables (zero-width space, soft hyphen, a control), a
// prepended mark, a lone combining mark, the Japanese length mark (prefix
// rule), and a malformed byte.
const char* const kPieces[] = {
    "zor", "qua", "a", "u", "K", "fi", "ss", "-", "e", " ", "ch", "aa", "Zo",
    "\xC3\xA9", "e\xCC\x81", "\xC3\xBC", "\xC3\x9F", "\xCE\xA9", "\xD0\xB8", "\xD0\xB8\xCC\x86", "\xD0\xB9",
    "\xE4\xB8\xAD", "\xF0\x9F\x98\x80", "\xE2\x82\xAC", "\xEF\xB7\x91", "\xEF\xBD\x9A", "\xE2\x84\xAA",
    "\xE2\x80\x8B", "\xC2\xAD", "\x01", "\xD8\x80", "\xCC\x88", "\xEF\xAC\x81", "\xE3\x82\xA2\xE3\x83\xBC",
    "\xC3\xA4", "\xC3\xB6", "\t", "\xFF"};
const char* const kPatterns[] = {"zorqua", "zor", "a", "u", "k", "fi", "ss", "-", "aa", "Zo"};
const std::uint64_t kOptions[] = {0,
                                  QXCaseInsensitiveSearch,
                                  QXLiteralSearch,
                                  QXAnchoredSearch,
                                  QXAnchoredSearch | QXBackwardsSearch | QXCaseInsensitiveSearch,
                                  QXDiacriticInsensitiveSearch,
                                  QXWidthInsensitiveSearch | QXCaseInsensitiveSearch};

icu::UnicodeSet charactersOf(const std::string& text) {
    icu::UnicodeSet set;
    set.addAll(icu::UnicodeString::fromUTF8(text));
    return set;
}

} // namespace

// The shortcuts must give ICU's answer, and must be taken: a pattern that
// rules a text's characters out has to be right about that text.
TEST(SearchPattern, AgreesWithUnicodeOnRandomText) {
    for (const char* locale : {"en_US", "sv_SE", "cs_CZ", "da_DK", "ja_JP", "tr_TR"}) {
        ScopedLocale scoped(locale);
        std::mt19937 rng(7);
        std::vector<std::string> texts;
        for (int i = 0; i < 120; ++i) {
            std::string text;
            for (int n = 1 + static_cast<int>(rng() % 6); n > 0; --n) text += kPieces[rng() % std::size(kPieces)];
            texts.push_back(text);
        }
        int ruledOut = 0;
        for (const char* pattern : kPatterns) {
            for (std::uint64_t options : kOptions) {
                const QXSearchPattern compiled(pattern, options);
                for (const auto& text : texts) {
                    const bool expected = QXStringSearch::containsUnicode(text, pattern, options);
                    ASSERT_EQ(compiled.matchesText(text), expected)
                        << locale << ": \"" << text << "\" / \"" << pattern << "\" options " << options;
                    if (compiled.rulesOut(charactersOf(text))) {
                        ++ruledOut;
                        ASSERT_FALSE(expected) << locale << ": \"" << text << "\" / \"" << pattern << "\" " << options;
                    }
                }
            }
        }
        EXPECT_GT(ruledOut, 500) << locale;
    }
}

// Every character of every date shown in a style is in that style's
// alphabet, across scripts, day-period rules and zones with names and without.
TEST(DateTextAlphabet, HoldsEveryFormattedDate) {
    const char* savedTZ = std::getenv("TZ");
    const std::string saved = savedTZ ? savedTZ : "";
    const icu::DateFormat::EStyle kinds[] = {icu::DateFormat::kFull, icu::DateFormat::kLong, icu::DateFormat::kMedium,
                                             icu::DateFormat::kShort};
    int bounded = 0;
    for (const char* zone : {"UTC", "America/New_York", "Asia/Kolkata"}) {
        setenv("TZ", zone, 1);
        for (const char* locale : {"en_US", "de_DE", "ar_EG", "zh_TW", "ja_JP", "ru_RU", "hi_IN"}) {
            ScopedLocale scoped(locale);
            const auto& formatters = QXSearchPattern::dateFormatters();
            std::mt19937 rng(11);
            for (std::size_t style = 0; style < 4; ++style) {
                const QXDateTextAlphabet alphabet(icu::Locale::getDefault(), kinds[style]);
                if (!alphabet.isBounded()) continue;
                ++bounded;
                for (int i = 0; i < 120; ++i) {
                    // From before year 1 to past 2100, every hour and minute.
                    const double seconds = -6.5e10 + static_cast<double>(rng() % 10000000) * 7000.0 + (rng() % 86400);
                    const auto shown = formatters[style]->stringForObjectValue(qx::Date::withTimeIntervalSince1970(seconds));
                    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(shown->utf8());
                    for (int32_t at = 0; at < text.length(); at = text.moveIndex32(at, 1))
                        ASSERT_TRUE(alphabet.characters().contains(text.char32At(at)))
                            << zone << " " << locale << " style " << style << ": " << shown->utf8() << " at " << at;
                }
            }
        }
    }
    if (savedTZ)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    EXPECT_GE(bounded, 60);
}
