// SharedMimeDatabaseTests.cpp - types by name from databases written by the
// tests: the order in which kinds of pattern and weights decide, case,
// aliases and parents, folders hiding globs, the folders the environment
// names, and files nobody should have to trust.
#include "SharedMimeTestSupport.h"

#include <sys/stat.h>

using namespace qxtest;
using Types = std::vector<std::string>;

namespace {

const std::string kGlobs = "# a comment, then rules in no particular order\n"
                           "50:application/gzip:*.gz\n"
                           "50:application/x-compressed-tar:*.tar.gz\n"
                           "50:text/x-vhdl:*.vhd\n"
                           "50:application/x-vhd-disk:*.vhd\n"
                           "50:application/x-vhd-disk:*.vhd\n"  // said twice: still one candidate
                           "50:application/x-iso-low:*.iso\n"
                           "80:application/x-cd-image:*.iso\n"
                           "50:text/x-c:*.c:cs\n"
                           "50:text/x-c++:*.C:cs,other-flag\n"
                           "90:text/x-anyfile:*file\n"
                           "10:text/x-makefile:makefile\n"
                           "50:text/x-readme:README*\n"
                           "50:text/x-log:*.log.[0-9]\n"
                           "50:text/x-core:core:cs\n";

} // namespace

TEST(SharedMimeDatabase, KindsOfPatternThenWeightThenLengthDecide) {
    FakeMimeDatabase database;
    database.write(FakeMimeDatabase::System, "globs2", kGlobs);
    const std::pair<const char*, Types> cases[] = {
        {"a.tar.gz", {"application/x-compressed-tar"}},          // the longer suffix at one weight
        {"a.gz", {"application/gzip"}},
        {"disk.vhd", {"text/x-vhdl", "application/x-vhd-disk"}},  // a tie is left to the caller
        {"disc.iso", {"application/x-cd-image"}},                 // the heavier pattern
        {"DISC.ISO", {"application/x-cd-image"}},                 // case folds by default
        {"m.c", {"text/x-c"}},
        {"m.C", {"text/x-c++"}},                                  // "cs" keeps them apart
        {"Makefile", {"text/x-makefile"}},                        // a literal beats a heavier suffix
        {"Profile", {"text/x-anyfile"}},
        {"README.iso", {"application/x-cd-image"}},               // a suffix beats a full glob
        {"README.txt", {"text/x-readme"}},
        {"x.LOG.7", {"text/x-log"}},                              // full globs fold case too
        {"x.log.x", {}},
        {"core", {"text/x-core"}},
        {"CORE", {}},                                             // a case-sensitive literal
        {"nothing", {}},
        {"", {}},
    };
    for (const auto& [name, expected] : cases) EXPECT_EQ(database.typesFor(name), expected) << name;
}

TEST(SharedMimeDatabase, AliasesAndParentsResolveToCanonicalNames) {
    FakeMimeDatabase database;
    database.write(FakeMimeDatabase::System, "aliases",
                   "application/x-iso9660-image application/x-cd-image\n"
                   "application/x-old-name application/x-iso9660-image\n"  // a chain is followed one step
                   "application/x-disputed application/x-system-choice\n");
    database.write(FakeMimeDatabase::User, "aliases", "application/x-disputed application/x-user-choice\n");
    database.write(FakeMimeDatabase::System, "subclasses",
                   "application/x-iso9660-appimage application/x-cd-image\n"
                   "application/x-cd-image application/x-raw-disk-image\n"
                   "application/x-iso9660-appimage application/x-executable\n"
                   "application/x-wrapped application/x-iso9660-image\n"  // a parent by its alias
                   "text/x-a text/x-b\n"
                   "text/x-b text/x-a\n");  // a loop
    database.write(FakeMimeDatabase::System, "globs2", "50:application/x-iso9660-image:*.iso9660\n");
    const auto shared = QXSharedMimeDatabase::shared();
    EXPECT_EQ(database.typesFor("a.iso9660"), Types{"application/x-cd-image"});
    EXPECT_EQ(shared->canonicalType("application/x-old-name"), "application/x-iso9660-image");
    EXPECT_EQ(shared->canonicalType("application/x-unknown"), "application/x-unknown");
    EXPECT_EQ(shared->canonicalType("application/x-disputed"), "application/x-user-choice");
    const std::pair<const char*, Types> closures[] = {
        {"application/x-iso9660-appimage",
         {"application/x-iso9660-appimage", "application/x-cd-image", "application/x-executable",
          "application/x-raw-disk-image"}},
        {"application/x-iso9660-image", {"application/x-cd-image", "application/x-raw-disk-image"}},
        {"application/x-wrapped", {"application/x-wrapped", "application/x-cd-image", "application/x-raw-disk-image"}},
        {"text/x-a", {"text/x-a", "text/x-b"}},
        {"application/x-raw-disk-image", {"application/x-raw-disk-image"}},
    };
    for (const auto& [type, expected] : closures) EXPECT_EQ(shared->typeAndAncestors(type), expected) << type;
}

TEST(SharedMimeDatabase, NoGlobsHidesOnlyLaterFolders) {
    FakeMimeDatabase database;
    database.write(FakeMimeDatabase::User, "globs2",
                   "50:application/x-apple-diskimage:__NOGLOBS__\n"
                   "50:application/x-apple-diskimage:*.mydmg\n"
                   "50:application/x-mine:*.mine\n");
    database.write(FakeMimeDatabase::System, "globs2",
                   "50:application/x-apple-diskimage:*.dmg\n"
                   "50:application/x-other:*.other\n"
                   "50:application/x-mine:__NOGLOBS__\n"
                   "50:application/x-mine:*.sys\n");
    database.write(FakeMimeDatabase::LaterSystem, "globs2",
                   "50:application/x-mine:*.later\n"
                   "50:application/x-other:*.other2\n");
    const std::pair<const char*, Types> cases[] = {
        {"a.dmg", {}},  // hidden by the user's folder
        {"a.mydmg", {"application/x-apple-diskimage"}},
        {"a.other", {"application/x-other"}},
        {"a.other2", {"application/x-other"}},
        {"a.mine", {"application/x-mine"}},  // an earlier folder is not hidden
        {"a.sys", {"application/x-mine"}},
        {"a.later", {}},
    };
    for (const auto& [name, expected] : cases) EXPECT_EQ(database.typesFor(name), expected) << name;
}

TEST(SharedMimeDatabase, FoldersFromTheEnvironment) {
    struct Case {
        const char *home, *dataHome, *dataDirs;
        Types expected;
    };
    const Case cases[] = {
        {"/h", nullptr, nullptr, {"/h/.local/share/mime", "/usr/local/share/mime", "/usr/share/mime"}},
        {"/h", "", "", {"/h/.local/share/mime", "/usr/local/share/mime", "/usr/share/mime"}},
        {"/h", "/d/", "/a//:relative:/b", {"/d/mime", "/a/mime", "/b/mime"}},
        {nullptr, "relative", "/a:/a:/b", {"/a/mime", "/b/mime"}},
        {"relative", nullptr, "/a", {"/a/mime"}},
        {"/h", "/a", "/a", {"/a/mime"}},
    };
    for (const auto& c : cases) {
        ScopedEnvironment environment({{"HOME", c.home}, {"XDG_DATA_HOME", c.dataHome}, {"XDG_DATA_DIRS", c.dataDirs}});
        EXPECT_EQ(QXSharedMimeDatabase::searchFolders(), c.expected)
            << (c.home ? c.home : "-") << " " << (c.dataHome ? c.dataHome : "-") << " " << (c.dataDirs ? c.dataDirs : "-");
    }
}

TEST(SharedMimeDatabase, MalformedLinesAreSkippedAndTheRestIsKept) {
    FakeMimeDatabase database;
    const std::string overlong = "50:application/x-long:*." + std::string(QXSharedMimeDatabase::kMaxLineBytes, 'l');
    database.write(FakeMimeDatabase::User, "globs2",
                   "nonsense\n"
                   "50:notatype:*.a\n"
                   "50:application/x-b/extra:*.b\n"
                   "101:application/x-c:*.c\n"
                   "-1:application/x-d:*.d\n"
                   "5x:application/x-e:*.e\n"
                   "50:application/x-f:\n"
                   "50::*.g\n"
                   ":::\n"
                   "50:application/x h:*.h\n"
                   "\x01\xff\xfe:\x80/\x81:*.\xc0\n" +
                       overlong + "\n"
                       "  \n"
                       "0:application/x-good:*.good\r\n"
                       "100:application/x-fine:*.fine:cs:future-field\n");
    database.write(FakeMimeDatabase::User, "aliases",
                   "lonely\n"
                   "application/x-a application/x-b application/x-c\n"
                   "application/x-good application/x-good\n"
                   "application/x-alias  application/x-fine\n"
                   "application/x-named application/x-fine\n");
    database.write(FakeMimeDatabase::User, "subclasses", "application/x-fine\napplication/x-fine application/x-base\n");
    for (const char* name : {"x.a", "x.b", "x.c", "x.d", "x.e", "x.g", "x.h"})
        EXPECT_EQ(database.typesFor(name), Types{}) << name;
    EXPECT_EQ(database.typesFor("x." + std::string(QXSharedMimeDatabase::kMaxLineBytes, 'l')), Types{});
    EXPECT_EQ(database.typesFor("x.good"), Types{"application/x-good"});
    EXPECT_EQ(database.typesFor("x.fine"), Types{"application/x-fine"});
    const auto shared = QXSharedMimeDatabase::shared();
    EXPECT_EQ(shared->canonicalType("application/x-good"), "application/x-good");
    EXPECT_EQ(shared->canonicalType("application/x-alias"), "application/x-alias");
    EXPECT_EQ(shared->canonicalType("application/x-named"), "application/x-fine");
    EXPECT_EQ(shared->typeAndAncestors("application/x-named"), (Types{"application/x-fine", "application/x-base"}));
}

TEST(SharedMimeDatabase, OnlyRegularFilesAreReadAndWithinBounds) {
    FakeMimeDatabase database;
    // A FIFO would block the first lookup; a folder cannot be read as a file.
    ASSERT_EQ(::mkfifo((database.folder(FakeMimeDatabase::User) / "globs2").c_str(), 0600), 0);
    std::filesystem::create_directory(database.folder(FakeMimeDatabase::User) / "aliases");
    database.write(FakeMimeDatabase::System, "aliases", "application/x-alias application/x-first\n");
    // Entries past the cap are not kept, nor a line the size cap cuts.
    std::string many;
    for (std::size_t i = 0; i < QXSharedMimeDatabase::kMaxEntriesPerFile; ++i)
        many += "50:application/x-many:*.m" + std::to_string(i) + "\n";
    database.write(FakeMimeDatabase::System, "globs2", many + "50:application/x-many:*.past\n");
    const std::string kept = "50:application/x-big:*.kept\n", cut = "50:application/x-big:*.cut";
    std::string big(QXSharedMimeDatabase::kMaxFileBytes - kept.size() - cut.size() - 1, '#');
    big += "\n" + kept + cut + "-by-the-cap\n";  // the cap falls right after "*.cut"
    database.write(FakeMimeDatabase::LaterSystem, "globs2", big);
    EXPECT_EQ(database.typesFor("x.m0"), Types{"application/x-many"});
    EXPECT_EQ(database.typesFor("x.m" + std::to_string(QXSharedMimeDatabase::kMaxEntriesPerFile - 1)),
              Types{"application/x-many"});
    EXPECT_EQ(database.typesFor("x.past"), Types{});
    EXPECT_EQ(database.typesFor("x.kept"), Types{"application/x-big"});
    EXPECT_EQ(database.typesFor("x.cut"), Types{});
    EXPECT_EQ(database.typesFor("x.cut-by-the-cap"), Types{});
    EXPECT_EQ(QXSharedMimeDatabase::shared()->canonicalType("application/x-alias"), "application/x-first");
}

TEST(SharedMimeDatabase, LoadedOnceForAllThreadsUntilReset) {
    FakeMimeDatabase database;
    database.write(FakeMimeDatabase::System, "globs2", "50:application/x-first:*.x\n");
    std::vector<std::shared_ptr<const QXSharedMimeDatabase>> seen(6);
    std::vector<std::thread> threads;
    for (auto& slot : seen) threads.emplace_back([&slot] { slot = QXSharedMimeDatabase::shared(); });
    for (auto& thread : threads) thread.join();
    for (const auto& one : seen) EXPECT_EQ(one, seen.front());
    EXPECT_EQ(seen.front()->typesForFileName("a.x"), Types{"application/x-first"});
    // Written after the load: not seen until the database is read again.
    writeFile(database.folder(FakeMimeDatabase::System) / "globs2", "50:application/x-second:*.x\n");
    EXPECT_EQ(database.typesFor("a.x"), Types{"application/x-first"});
    QXSharedMimeDatabase::resetShared();
    EXPECT_EQ(database.typesFor("a.x"), Types{"application/x-second"});
    EXPECT_EQ(seen.front()->typesForFileName("a.x"), Types{"application/x-first"});  // a holder keeps its copy
}
