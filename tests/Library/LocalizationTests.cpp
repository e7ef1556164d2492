// LocalizationTests.cpp - strings files, bundles, the library bundle and QXFLocalizedString.

#include "Internal/QXFoundationPrivate.h"

#include <qx/Bundle.h>
#include <qx/StringsFile.h>

#include "ScopedLocale.h"
#include "TestSupport.h"

using namespace qx;
namespace fs = std::filesystem;
using qxtest::TempDir;

namespace {

std::string value(const Ref<Dictionary>& d, const std::string& key) {
    auto s = d->get<String>(key);
    return s ? s->utf8() : "<missing>";
}

std::string utf16Bytes(std::u16string text, bool bigEndian, bool bom) {
    if (bom) text.insert(text.begin(), u'\xFEFF');
    std::string out;
    for (char16_t c : text) out += bigEndian ? std::string{char(c >> 8), char(c)} : std::string{char(c), char(c >> 8)};
    return out;
}

void put(const TempDir& dir, const std::string& relative, const std::string& bytes) {
    fs::create_directories((dir.path() / relative).parent_path());
    qxtest::writeFile(dir.path() / relative, bytes);
}

// Points the library bundle at an override directory and makes it again
// afterwards from the environment as it was.
struct ScopedLibraryResources {
    explicit ScopedLibraryResources(const fs::path& dir) {
        if (const char* old = std::getenv("QXFOUNDATION_RESOURCES")) saved = old;
        ::setenv("QXFOUNDATION_RESOURCES", dir.c_str(), 1);
        QXFoundationInitializer();
    }
    ~ScopedLibraryResources() {
        saved ? ::setenv("QXFOUNDATION_RESOURCES", saved->c_str(), 1) : ::unsetenv("QXFOUNDATION_RESOURCES");
        QXFoundationInitializer();
    }
    std::optional<std::string> saved;
};

} // namespace

TEST(LocalizationStringsFile, EntriesCommentsEscapesAndMalformedEntries) {
    const std::string text =
        "/* header\n   comment */\n"
        "\"plain\" = \"Plain text\";\n"
        "// line comment = \"nope\";\n"
        "\"escapes\" = \"q\\\" b\\\\ n\\n t\\t r\\r o\\101 u\\U00e9\";\n"
        "\"pair\" = \"\\UD83D\\UDE00\";\n"
        "unquoted_key.1 = bare-value;\n"
        "\"lone\";\n"
        "'single' = 'quotes';\n"
        "\"%lu\"=\"Größe\";/* trailing */\"dup\" = \"first\"; \"dup\" = \"second\";\n"
        // Malformed entries are skipped; a missing ';' is forgiven.
        "\"noequals\" \"b\";\n"
        "= \"nokey\";\n"
        "\"novalue\" = ;\n"
        "\"good\" = \"c\"\n"
        "\"unterminated\" = \"e;\n";
    auto d = dictionaryFromStringsFileData(text);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"plain", "Plain text"}, {"escapes", "q\" b\\ n\n t\t r\r oA u\u00e9"}, {"pair", "\U0001F600"},
        {"unquoted_key.1", "bare-value"}, {"lone", "lone"}, {"single", "quotes"}, {"%lu", "Größe"},
        {"dup", "second"}, {"good", "c"},
    };
    for (const auto& [key, text] : expected) EXPECT_EQ(value(d, key), text) << key;
    EXPECT_EQ(d->count(), expected.size());
}

TEST(LocalizationStringsFile, EncodingsAreDetected) {
    const std::u16string text = u"\"k\" = \"Gr\u00f6\u00dfe \U0001F600\";";
    for (bool bigEndian : {false, true})
        for (bool bom : {true, false}) {
            auto d = dictionaryFromStringsFileData(utf16Bytes(text, bigEndian, bom));
            EXPECT_EQ(value(d, "k"), "Größe \U0001F600") << "big endian " << bigEndian << ", mark " << bom;
        }
    EXPECT_EQ(value(dictionaryFromStringsFileData("\xEF\xBB\xBF\"k\" = \"v\";"), "k"), "v");
    // Bytes that are not UTF-8 do not stop the reader.
    EXPECT_EQ(value(dictionaryFromStringsFileData("\"k\" = \"a\xFF" "b\"; \"n\" = \"m\";"), "n"), "m");
}

TEST(LocalizationBundle, OverrideDirectoryWinsAndPathsFollowTheLocalisation) {
    static const unsigned char kEmbeddedEn[] = "\"k\" = \"embedded en\"; \"only\" = \"embedded\";";
    static const unsigned char kEntities[] = "<!ENTITY amp \"&#38;\">";
    const EmbeddedResource table[] = {{"en.lproj/Localizable.strings", kEmbeddedEn, sizeof kEmbeddedEn - 1},
                                      {"Entities.txt", kEntities, sizeof kEntities - 1},
                                      {nullptr, nullptr, 0}};
    TempDir dir;
    put(dir, "en.lproj/Localizable.strings", "\"k\" = \"override en\";");
    put(dir, "sub/de.lproj/x.bin", "wrong place");
    put(dir, "de.lproj/sub/x.bin", "right place");

    auto bundle = Bundle::withEmbeddedResources(table, 2, dir.path().string());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->resourceData("Localizable", "strings", {}, "en")->view(), "\"k\" = \"override en\";");
    EXPECT_EQ(bundle->resourceData("Entities.txt", "")->view(), "<!ENTITY amp \"&#38;\">");
    EXPECT_EQ(bundle->resourceData("x", "bin", "sub", "de")->view(), "right place");
    EXPECT_FALSE(bundle->resourceData("Localizable", "strings", {}, "fr"));
    EXPECT_FALSE(bundle->resourceData("missing", "txt"));

    // Without the directory the compiled-in copy is used; with nothing at all there is no bundle.
    auto embeddedOnly = Bundle::withEmbeddedResources(table, 2, "/nonexistent/qx");
    ASSERT_TRUE(embeddedOnly);
    EXPECT_EQ(embeddedOnly->resourceData("Localizable", "strings", {}, "en")->view(), reinterpret_cast<const char*>(kEmbeddedEn));
    EXPECT_FALSE(Bundle::withEmbeddedResources(nullptr, 0, "/nonexistent/qx"));
}

TEST(LocalizationBundle, StringsComeFromPreferredLanguageThenBaseOnly) {
    TempDir dir;
    put(dir, "de_CH.lproj/Localizable.strings", "\"regional\" = \"Grüezi\";");
    put(dir, "de.lproj/Localizable.strings", "\"regional\" = \"Hallo\"; \"german\" = \"Deutsch\";");
    put(dir, "Base.lproj/Localizable.strings", "\"base\" = \"Base text\"; \"german\" = \"not this\";");
    put(dir, "en.lproj/Localizable.strings", "\"english\" = \"English\";");
    put(dir, "de.lproj/Other.strings", "\"t\" = \"other table\";");
    auto bundle = Bundle::withEmbeddedResources(nullptr, 0, dir.path().string());
    ASSERT_TRUE(bundle);
    {
        ScopedLocale locale("de_CH");
        EXPECT_EQ(bundle->localizedStringForKey("regional", "x")->utf8(), "Grüezi");
        EXPECT_EQ(bundle->localizedStringForKey("german", "x")->utf8(), "Deutsch");
        EXPECT_EQ(bundle->localizedStringForKey("base", "x")->utf8(), "Base text");
        EXPECT_EQ(bundle->localizedStringForKey("t", "x", "Other")->utf8(), "other table");
        // No English fall-back in the bundle itself.
        EXPECT_EQ(bundle->localizedStringForKey("english", "NOT_FOUND")->utf8(), "NOT_FOUND");
        EXPECT_EQ(bundle->localizedStringForKey("english", "")->utf8(), "english");
    }
    ScopedLocale locale("de_DE");  // the locale is read at each lookup
    EXPECT_EQ(bundle->localizedStringForKey("regional", "x")->utf8(), "Hallo");
}

TEST(LocalizationLibrary, EnglishTableIsCompiledIn) {
    auto data = QXFoundationBundle()->resourceData("Localizable", "strings", {}, "en");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->view(), qxtest::readFile(std::string(QX_SOURCE_DIR) + "/Resources/en.lproj/Localizable.strings"));
}

TEST(LocalizationLibrary, TranslationThenEnglishThenKey) {
    struct Case { const char *locale, *file, *table; std::vector<std::pair<const char*, const char*>> lookups; };
    for (const Case& c : {
             // Missing from the translation: the compiled-in English text; missing everywhere: the key.
             Case{"de_DE", "de.lproj/Localizable.strings", "\"NEW_OBJECT\" = \"Neues Objekt\";",
             {{"NEW_OBJECT", "Neues Objekt"}, {"INVALID_KEY", "The key is not valid."}, {"No such key %@", "No such key %@"}, {"", ""}}},
             // No French table anywhere: an overridden English table is the fall-back, then the key.
             Case{"fr_FR", "en.lproj/Localizable.strings", "\"KiB\" = \"kibibytes\";", {{"KiB", "kibibytes"}, {"MiB", "MiB"}}}}) {
        TempDir dir;
        put(dir, c.file, c.table);
        ScopedLocale locale(c.locale);
        ScopedLibraryResources resources(dir.path());
        for (const auto& [key, text] : c.lookups) EXPECT_EQ(QXFLocalizedString(key)->utf8(), text) << c.locale << ": " << key;
    }
}

TEST(LocalizationLibrary, UnloadDropsTheBundle) {
    ASSERT_TRUE(QXFoundationBundle());
    CFFoundationUninitializer();
    EXPECT_FALSE(QXFoundationBundle());
    EXPECT_EQ(QXFLocalizedString("KiB")->utf8(), "KiB");
    QXFoundationInitializer();
    EXPECT_TRUE(QXFoundationBundle());
}

TEST(LocalizationLibraryDeathTest, MissingBundleStopsTheProcess) {
    EXPECT_DEATH(QXFoundationInitializerWithResources(nullptr, 0, "/nonexistent/qx-resources"),
                 "Assertion failure in QXFoundationInitializer\\(\\), Sources/QXFoundationPrivate:27"
                 "(.|\n)*qxfBundle != nil");
}
