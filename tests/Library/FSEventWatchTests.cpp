// Live watching: real folders, changes made by other threads and child processes.
#include "FSEventTestSupport.h"

#include <fstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace qxtest;

namespace {

// path: relative to the watched folder, "" for the folder itself.
struct Expected { std::string path; std::uint32_t flags; };
using Change = std::function<void(const fs::path& dir, const fs::path& outside)>;
struct ChangeCase { const char* name; Change setup, change; std::vector<Expected> expected; };

void touch(const fs::path& path, const std::string& contents = "") { writeFile(path, contents); }

const std::vector<ChangeCase>& changeCases() {
    constexpr std::uint32_t created = QXFSEventFlagItemCreated, renamed = QXFSEventFlagItemRenamed,
                            removed = QXFSEventFlagItemRemoved, file = QXFSEventFlagItemIsFile, dir = QXFSEventFlagItemIsDir;
    const Change withFile = [](auto& d, auto&) { touch(d / "f"); }, withX = [](auto& d, auto&) { touch(d / "x"); };
    static const std::vector<ChangeCase> cases = {
        {"create", nullptr, [](auto& d, auto&) { touch(d / "f"); }, {{"f", created | file}}},
        {"write", withFile, [](auto& d, auto&) { std::ofstream(d / "f", std::ios::app) << "more"; },
         {{"f", QXFSEventFlagItemModified | file}}},
        {"chmod", withFile, [](auto& d, auto&) { ::chmod((d / "f").c_str(), 0600); },
         {{"f", QXFSEventFlagItemInodeMetaMod | file}}},
        {"xattr", withFile, [](auto& d, auto&) { ASSERT_EQ(::setxattr((d / "f").c_str(), "user.qx", "1", 1, 0), 0); },
         {{"f", QXFSEventFlagItemXattrMod | file}}},
        {"rename within", [](auto& d, auto&) { touch(d / "a"); }, [](auto& d, auto&) { fs::rename(d / "a", d / "b"); },
         {{"a", renamed | file}, {"b", renamed | file}}},
        {"rename into", [](auto&, auto& o) { touch(o / "x"); }, [](auto& d, auto& o) { fs::rename(o / "x", d / "x"); },
         {{"x", renamed | file}}},
        {"rename out of", withX, [](auto& d, auto& o) { fs::rename(d / "x", o / "x"); }, {{"x", renamed | file}}},
        {"delete", withFile, [](auto& d, auto&) { fs::remove(d / "f"); }, {{"f", removed | file}}},
        {"delete folder", [](auto& d, auto&) { fs::create_directory(d / "sub"); },
         [](auto& d, auto&) { fs::remove(d / "sub"); }, {{"sub", removed | dir}}},
        {"new folder filled at once", nullptr,
         [](auto& d, auto&) {
             fs::create_directories(d / "sub" / "deeper");
             touch(d / "sub" / "a");
             touch(d / "sub" / "deeper" / "b");
         },
         {{"sub", created | dir}, {"sub/deeper", created | dir}, {"sub/a", created | file}, {"sub/deeper/b", created | file}}},
        {"symlink", nullptr, [](auto& d, auto&) { fs::create_symlink("nowhere", d / "link"); },
         {{"link", created | QXFSEventFlagItemIsSymlink}}},
        {"renamed folder keeps its watch", [](auto& d, auto&) { fs::create_directories(d / "old" / "inner"); },
         [](auto& d, auto&) {
             fs::rename(d / "old", d / "new");
             touch(d / "new" / "inner" / "f");
         },
         {{"new", renamed | dir}, {"new/inner/f", created | file}}},
    };
    return cases;
}

bool awaitAll(const EventLog& log, const fs::path& dir, const std::vector<Expected>& expected) {
    return runLoopUntil([&] {
        for (const auto& e : expected)
            if (!log.has(e.path.empty() ? dir.string() : (dir / e.path).string(), e.flags)) return false;
        return true;
    });
}

class FSEventWatch : public ::testing::Test {
protected:
    std::string watched(const std::string& relative) const {
        return relative.empty() ? dir_.path().string() : (dir_.path() / relative).string();
    }
    bool awaitAll(const std::vector<Expected>& expected) { return ::awaitAll(log_, dir_.path(), expected); }

    TempDir dir_{"qx-fsw"};
    EventLog log_;
};

} // namespace

TEST_F(FSEventWatch, ReportsEachKindOfChangeMadeOnAnotherThread) {
    for (const auto& c : changeCases()) {
        SCOPED_TRACE(c.name);
        TempDir dir("qx-fsw-case"), outside("qx-fsw-case-out");
        if (c.setup) c.setup(dir.path(), outside.path());
        EventLog log;
        auto manager = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(dir.path().string()), log.handler());
        ASSERT_TRUE(manager);
        changeOnAnotherThread([&] { c.change(dir.path(), outside.path()); });
        EXPECT_TRUE(::awaitAll(log, dir.path(), c.expected)) << "got:\n" << log.describe();
    }
}

TEST_F(FSEventWatch, ReportsChangesMadeByAChildProcessInOrderWithRisingIdentifiers) {
    writeFile(dir_.path() / "old", "x");
    auto manager = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(watched("")), log_.handler());
    ASSERT_TRUE(manager);
    changeInChildProcess("cd " + watched("") + " && echo a > one && mkdir two && echo b > two/three && mv one four && rm old");
    ASSERT_TRUE(awaitAll({{"one", QXFSEventFlagItemCreated},
                          {"two", QXFSEventFlagItemCreated | QXFSEventFlagItemIsDir},
                          {"two/three", QXFSEventFlagItemCreated},
                          {"four", QXFSEventFlagItemRenamed},
                          {"old", QXFSEventFlagItemRemoved}}))
        << log_.describe();
    for (std::size_t i = 1; i < log_.entries.size(); ++i)
        EXPECT_GT(log_.entries[i].identifier, log_.entries[i - 1].identifier) << log_.describe();
    // Identifiers are change times: the renamed file's is its own ctime or just above.
    struct stat st {};
    ASSERT_EQ(::stat(watched("four").c_str(), &st), 0);
    const std::uint64_t ctime = std::uint64_t(st.st_ctim.tv_sec) * 1000000000ull + std::uint64_t(st.st_ctim.tv_nsec);
    for (const auto& entry : log_.entries) EXPECT_TRUE(entry.path != watched("four") || entry.identifier >= ctime) << entry.identifier;
}

TEST_F(FSEventWatch, EventsUnderASiblingWithALongerNameAreNotReported) {
    fs::create_directories(dir_.path() / "a" / "b");
    fs::create_directories(dir_.path() / "a" / "bc");
    auto manager = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(watched("a/b")), log_.handler());
    ASSERT_TRUE(manager);
    changeOnAnotherThread([&] {
        touch(dir_.path() / "a" / "bc" / "no");
        touch(dir_.path() / "a" / "b" / "yes");
    });
    ASSERT_TRUE(awaitAll({{"a/b/yes", QXFSEventFlagItemCreated}})) << log_.describe();
    EXPECT_FALSE(log_.has(watched("a/bc/no"), 0)) << log_.describe();
}

TEST_F(FSEventWatch, ASecondStartWatchesBothFoldersWithTheNewHandler) {
    fs::create_directory(dir_.path() / "one");
    fs::create_directory(dir_.path() / "two");
    EventLog first;
    auto manager = QXFSEventManager::create();
    ASSERT_TRUE(manager->startWatchingURL(qx::URL::fileURLWithPath(watched("one")), first.handler()));
    ASSERT_TRUE(manager->startWatchingURL(qx::URL::fileURLWithPath(watched("two")), log_.handler()));
    EXPECT_TRUE(manager->URLsBeingWatched()->isEqual(*urlArray({watched("one"), watched("two")})));
    changeOnAnotherThread([&] {
        touch(dir_.path() / "one" / "f");
        touch(dir_.path() / "two" / "g");
    });
    ASSERT_TRUE(awaitAll({{"one/f", QXFSEventFlagItemCreated}, {"two/g", QXFSEventFlagItemCreated}})) << log_.describe();
    EXPECT_TRUE(first.entries.empty()) << "the restarted watch still called the old handler";
}

TEST_F(FSEventWatch, ALatencyChangeSilencesARunningWatch) {
    auto silenced = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(watched("")), log_.handler());
    ASSERT_TRUE(silenced);
    silenced->setLatency(0.0);
    EXPECT_EQ(silenced->URLsBeingWatched()->count(), 1u);
    // A slower witness over the same folder: when it has delivered, the
    // silenced watch (latency 0) would have delivered long before.
    EventLog witnessLog;
    auto witness = QXFSEventManager::create();
    witness->setLatency(0.3);
    ASSERT_TRUE(witness->startWatchingURL(qx::URL::fileURLWithPath(watched("")), witnessLog.handler()));
    changeOnAnotherThread([&] { touch(dir_.path() / "f"); });
    ASSERT_TRUE(runLoopUntil([&] { return witnessLog.has(watched("f"), QXFSEventFlagItemCreated); }));
    qx::RunLoop::current()->runMode(qx::RunLoop::DefaultMode, std::chrono::milliseconds(0));
    EXPECT_EQ(log_.batches, 0) << log_.describe();
}

TEST_F(FSEventWatch, LatencyGathersABurstIntoOneBatch) {
    auto manager = QXFSEventManager::create();
    manager->setLatency(0.5);
    ASSERT_TRUE(manager->startWatchingURL(qx::URL::fileURLWithPath(watched("")), log_.handler()));
    changeOnAnotherThread([&] {
        for (int i = 0; i < 20; ++i) touch(dir_.path() / ("f" + std::to_string(i)));
    });
    ASSERT_TRUE(awaitAll({{"f19", QXFSEventFlagItemCreated}})) << log_.describe();
    EXPECT_EQ(log_.batches, 1);
    EXPECT_TRUE(log_.has(watched("f0"), QXFSEventFlagItemCreated));
}

TEST_F(FSEventWatch, DumpingTheStreamEndsTheWatchAndStartNeedsAFolder) {
    auto manager = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(watched("")), log_.handler());
    ASSERT_TRUE(manager);
    manager->dumpFSEventStream();
    EXPECT_EQ(manager->URLsBeingWatched()->count(), 0u);
    EXPECT_FALSE(manager->startWatchingURLs(qx::Array::create(), log_.handler()));
    EXPECT_FALSE(QXFSEventManager::managerWatchingURLs(qx::Array::create(), log_.handler()));
}

// The kernel's queue is sized when a watch instance is made, so lowering the
// limit only for the start of the watch is enough and nothing else notices.
TEST_F(FSEventWatch, AnOverflowedQueueAsksForARescan) {
    const char* limitPath = "/proc/sys/fs/inotify/max_queued_events";
    if (::geteuid() != 0) {
        if (std::getenv("CI") && std::string(std::getenv("CI")) == "true") FAIL() << "CI runs as root; lowering " << limitPath << " needs it";
        GTEST_SKIP() << "lowering " << limitPath << " needs root";
    }
    const std::string saved = readFile(limitPath);
    ASSERT_FALSE(saved.empty());
    writeFile(limitPath, "4\n");
    auto manager = QXFSEventManager::managerWatchingURL(qx::URL::fileURLWithPath(watched("")), log_.handler());
    writeFile(limitPath, saved);
    ASSERT_EQ(readFile(limitPath), saved);
    ASSERT_TRUE(manager);
    const auto overflowed = [&] { return log_.has(watched(""), QXFSEventFlagMustScanSubDirs | QXFSEventFlagKernelDropped); };
    for (int burst = 0; burst < 20 && !overflowed(); ++burst) {
        changeInChildProcess("cd " + watched("") + " && for i in $(seq 200); do : > b" + std::to_string(burst) + "-$i; done");
        runLoopUntil([&] { return overflowed() || log_.has(watched("b" + std::to_string(burst) + "-200"), 0); });
    }
    EXPECT_TRUE(overflowed()) << log_.describe().substr(0, 2000);
}
