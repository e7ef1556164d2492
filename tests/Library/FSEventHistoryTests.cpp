// History without a daemon: change-time scans, the identifier rule, and the
// saved parameters an application keeps across runs.
#include "FSEventTestSupport.h"

#include "Internal/QXChangeTimeScan.h"

#include <qx/KeyedArchiver.h>
#include <qx/Number.h>

#include <sys/xattr.h>

namespace fs = std::filesystem;
using namespace qxtest;

namespace {

using Tree = QXChangeTimeScan::Tree;

// trees: {latest, granuleStart} of each folder.
struct RuleCase { const char* name; std::vector<Tree> trees; std::uint64_t after, event; bool mustWait; };

// A stable answer for url: one that a question asked right after it gives
// back unchanged. A change stamped by the fine clock can lie beyond the next
// coarse tick, so an answer may be held back more than once before it settles.
std::uint64_t settledLatest(QXFSEventManager& manager, const std::string& path) {
    auto url = qx::URL::fileURLWithPath(path);
    std::uint64_t answer = manager.latestFSEventAtURL(url);
    for (int i = 0; i < 20; ++i) {
        const std::uint64_t next = manager.latestFSEventAtURL(url, answer);
        if (next == answer) return answer;
        answer = next;
    }
    ADD_FAILURE() << "the answer for " << path << " never settled";
    return answer;
}

QXFSEventManagerParameters::Ref parameters(const std::vector<std::string>& paths, std::uint64_t event) {
    return QXFSEventManager::parametersWithURLs(urlArray(paths), event);
}

std::uint64_t numberFor(const qx::Ref<qx::Dictionary>& map, const QXFSEventManagerParameters::Ref& key) {
    auto number = qx::dyn_cast<qx::Number>(map->objectForKey(*key));
    EXPECT_TRUE(number) << "no answer for " << key->description();
    return number ? number->uint64Value() : 0;
}

struct ChangeKind { const char* name; std::function<void(const fs::path& dir)> change; };

const std::vector<ChangeKind>& changeKinds() {
    static const std::vector<ChangeKind> kinds = {
        {"create", [](const fs::path& d) { writeFile(d / "sub" / "new", "x"); }},
        {"write", [](const fs::path& d) { writeFile(d / "sub" / "file", "changed"); }},
        {"chmod", [](const fs::path& d) { fs::permissions(d / "sub" / "file", fs::perms::owner_read); }},
        {"xattr", [](const fs::path& d) { ASSERT_EQ(::setxattr((d / "sub" / "file").c_str(), "user.qx", "1", 1, 0), 0); }},
        {"delete", [](const fs::path& d) { fs::remove(d / "sub" / "file"); }},
        {"delete folder", [](const fs::path& d) { fs::remove_all(d / "sub"); }},
        {"rename", [](const fs::path& d) { fs::rename(d / "sub" / "file", d / "sub" / "renamed"); }},
        {"symlink", [](const fs::path& d) { fs::create_symlink("file", d / "sub" / "link"); }},
    };
    return kinds;
}

void fillTree(const fs::path& dir) {
    fs::create_directories(dir / "sub");
    writeFile(dir / "sub" / "file", "original");
}

} // namespace

TEST(FSEventHistoryRule, AnswersNeverNameTheGranuleInProgress) {
    const std::uint64_t G = 1000;
    const std::vector<RuleCase> cases = {
        {"no folders", {}, 5, 5, false},
        {"missing folder", {{0, G}}, 5, 5, false},
        {"nothing after", {{400, G}}, 500, 500, false},
        {"equal to after", {{500, G}}, 500, 500, false},
        {"settled change", {{700, G}}, 500, 700, false},
        {"last settled time", {{G - 1, G}}, 500, G - 1, false},
        {"first held time", {{G, G}}, 500, G - 1, false},
        {"held change", {{G + 3, G}}, 500, G - 1, false},
        {"held again in the same granule", {{G + 3, G}}, G - 1, G - 1, true},
        {"after inside the granule", {{G + 3, G}}, G + 1, G + 1, true},
        {"held but not after", {{G + 3, G}}, G + 3, G + 3, false},
        {"another folder decides", {{G + 3, G}, {G - 1, 2 * G}}, G - 2, G - 1, false},
        {"highest of several", {{600, G}, {800, G}, {700, G}}, 500, 800, false},
        {"a later granule elsewhere", {{G + 3, G}, {G + 5, G + 10}}, 500, G + 5, false},
    };
    for (const auto& c : cases) {
        const auto answer = QXChangeTimeScan::answer(c.trees, c.after);
        EXPECT_EQ(answer.event, c.event) << c.name;
        EXPECT_EQ(answer.mustWait, c.mustWait) << c.name;
    }
}

// A change made while nothing watches, in a new process's terms: a fresh
// manager, asked right away, within the granule of the change.
TEST(FSEventHistory, ChangesMadeWhileNothingWatchedAreSeenAfterARestart) {
    for (const auto& kind : changeKinds()) {
        SCOPED_TRACE(kind.name);
        TempDir dir("qx-fsh");
        fillTree(dir.path());
        std::uint64_t saved;
        {
            auto before = QXFSEventManager::create();
            saved = settledLatest(*before, dir.path().string());
        }
        changeOnAnotherThread([&] { kind.change(dir.path()); });
        auto after = QXFSEventManager::create();
        EXPECT_TRUE(after->changesMadeSinceFSEvent(saved, qx::URL::fileURLWithPath(dir.path().string())));
    }
}

TEST(FSEventHistory, NoChangeIsMissedWhenQuestionsAndChangesShareAClockTick) {
    TempDir dir("qx-fsh");
    fillTree(dir.path());
    auto url = qx::URL::fileURLWithPath(dir.path().string());
    auto manager = QXFSEventManager::create();
    std::uint64_t answer = manager->latestFSEventAtURL(url);
    int missed = 0;
    for (int i = 0; i < 300; ++i) {
        // Changes in places whose change time the last scan read and in
        // places it never saw, right after the answer.
        if (i % 3 == 0) writeFile(dir.path() / "sub" / "file", std::to_string(i));
        if (i % 3 == 1) writeFile(dir.path() / ("n" + std::to_string(i)), "x");
        if (i % 3 == 2) fs::create_directory(dir.path() / "sub" / ("d" + std::to_string(i)));
        const std::uint64_t next = manager->latestFSEventAtURL(url, answer);
        if (next == answer) ++missed;
        answer = next;
    }
    EXPECT_EQ(missed, 0);
    // The answer asked again (after the one repeated "changed") reports no change.
    answer = manager->latestFSEventAtURL(url, answer);
    EXPECT_GT(answer, 0u);
    EXPECT_FALSE(manager->changesMadeSinceFSEvent(answer, url));
}

TEST(FSEventHistory, ParametersOverOneFolderGetTheirOwnAnswers) {
    TempDir dir("qx-fsh");
    fillTree(dir.path());
    auto manager = QXFSEventManager::create();
    const std::uint64_t settled = settledLatest(*manager, dir.path().string());
    auto old = parameters({dir.path().string()}, 0), current = parameters({dir.path().string()}, settled);
    auto list = std::make_shared<qx::Array>(qx::Array{old, current});
    auto latest = manager->latestFSEventsWithParameters(list);
    EXPECT_EQ(numberFor(latest, old), settled);
    EXPECT_EQ(numberFor(latest, current), settled);
    auto changed = manager->changesMadeSinceParameters(list);
    EXPECT_EQ(numberFor(changed, old), 1u);
    EXPECT_EQ(numberFor(changed, current), 0u);

    writeFile(dir.path() / "sub" / "file", "again");
    latest = manager->latestFSEventsWithParameters(list);
    EXPECT_GT(numberFor(latest, current), settled);
    // When the write shares a clock tick with the settled change, current has to
    // wait for the tick to end and sees the write itself, while old is answered
    // with the held-back start of the tick.
    EXPECT_LE(numberFor(latest, old), numberFor(latest, current));
    EXPECT_GT(numberFor(latest, old), 0u);
}

TEST(FSEventHistory, AFolderWithALongerNameIsNotUnderTheShorterOne) {
    TempDir dir("qx-fsh");
    const std::string b = (dir / "a/b"), bc = (dir / "a/bc");
    fs::create_directories(b);
    fs::create_directories(bc);
    auto manager = QXFSEventManager::create();
    auto pb = parameters({b}, settledLatest(*manager, b)), pbc = parameters({bc}, settledLatest(*manager, bc));
    writeFile(fs::path(bc) / "f", "x");
    auto changed = manager->changesMadeSinceParameters(std::make_shared<qx::Array>(qx::Array{pb, pbc}));
    EXPECT_EQ(numberFor(changed, pb), 0u);
    EXPECT_EQ(numberFor(changed, pbc), 1u);
}

TEST(FSEventHistory, URLsThatAreNotFilesKeepTheirEvent) {
    auto manager = QXFSEventManager::create();
    auto remote = QXFSEventManager::parametersWithURLs(
        std::make_shared<qx::Array>(qx::Array{qx::URL::URLWithString("https://example.com/a")}), 42);
    auto latest = manager->latestFSEventsWithParameters(std::make_shared<qx::Array>(qx::Array{remote}));
    EXPECT_EQ(numberFor(latest, remote), 42u);
    EXPECT_TRUE(remote->pathPrefixes().empty());
}

TEST(FSEventParameters, PrefixesStandardiseAndEndInASeparator) {
    auto p = parameters({"/a/./b/../b//", "/x"}, 0);
    EXPECT_EQ(p->pathPrefixes(), (std::vector<std::string>{"/a/b/", "/x/"}));
    const struct { const char* path; bool covered; } cases[] = {{"/a/b", true}, {"/a/b/c/d", true}, {"/a/bc", false}, {"/a", false}, {"/x", true}, {"/xy/z", false}};
    for (const auto& c : cases) EXPECT_EQ(p->covers(c.path), c.covered) << c.path;
    EXPECT_TRUE(parameters({"/"}, 0)->covers("/anything"));
}

TEST(FSEventParameters, EqualityNeedsTheSameURLsAndEvent) {
    auto base = parameters({"/a", "/b"}, 7);
    EXPECT_TRUE(base->isEqual(*parameters({"/a", "/b"}, 7)));
    EXPECT_EQ(base->hash(), parameters({"/a", "/b"}, 7)->hash());
    EXPECT_FALSE(base->isEqual(*parameters({"/a", "/b"}, 8)));
    EXPECT_FALSE(base->isEqual(*parameters({"/b", "/a"}, 7)));
    EXPECT_FALSE(base->isEqual(*parameters({"/a"}, 7)));
    EXPECT_FALSE(base->isEqual(*urlArray({"/a", "/b"})));
    EXPECT_TRUE(base->isEqual(*base->copy()));

    auto source = urlArray({"/a"});
    auto copied = QXFSEventManager::parametersWithURLs(source, 1);
    source->addObject(qx::URL::fileURLWithPath("/b"));
    EXPECT_EQ(copied->URLs()->count(), 1u) << "the URLs must be copied when the parameters are made";
}

TEST(FSEventParameters, ArchivesOfBothKindsComeBackEqual) {
    const std::uint64_t event = 0xFEDCBA9876543210ull;  // above the signed range: must survive the int64 key
    auto original = parameters({"/tmp/one", "/tmp/two words"}, event);
    auto keyed = qx::KeyedUnarchiver::unarchiveObjectWithData(qx::KeyedArchiver::archivedDataWithRootObject(original));
    auto sequential = qx::SequentialArchiver::unarchiveObjectWithData(qx::SequentialArchiver::archivedDataWithRootObject(original));
    for (const auto& copy : {keyed, sequential}) {
        ASSERT_TRUE(qx::dyn_cast<QXFSEventManagerParameters>(copy));
        EXPECT_TRUE(original->isEqual(*copy)) << copy->description();
    }
    // The keyed form files its fields under their documented names.
    auto archive = qx::KeyedArchiver::archiveWithRootObject(original);
    ASSERT_TRUE(archive);
    bool found = false;
    for (const auto& entry : *archive->get<qx::Array>("$objects"))
        if (auto fields = qx::dyn_cast<qx::Dictionary>(entry))
            found = found || (fields->objectForKey(QXFSEventManagerParameters::URLsKey) &&
                              fields->get<qx::Number>(QXFSEventManagerParameters::EventKey) &&
                              fields->get<qx::Number>(QXFSEventManagerParameters::EventKey)->int64Value() == std::int64_t(event));
    EXPECT_TRUE(found);
}
