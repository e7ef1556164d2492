// HdiutilToolTests.cpp - the Linux disk-image tool run as a child, as root, on real loop devices.
//
// Every device a test attaches is detached by the fixture, by device; the
// cache and the records live in the test's own folder, and the fixture checks
// at the end that no loop device is left on a file of that folder.
#include "DiskImageFixtures.h"
#include "DiskImageToolSandbox.h"
#include "HttpTestServer.h"
#include "MountTable.h"
#include "QxProcessTest.h"

#include <QXFoundation/QXDiskImageWriter.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>

using namespace qxtest;

namespace {

qx::Ref<qx::Dictionary> parsePlist(const std::string& text) {
    return qx::dyn_cast<qx::Dictionary>(QXPropertyListSerialization::propertyListWithData(toData(text), nullptr, nullptr));
}

std::string field(const qx::Ref<qx::Object>& entity, const char* key) {
    auto d = qx::dyn_cast<qx::Dictionary>(entity);
    auto value = d ? d->get<qx::String>(key) : nullptr;
    return value ? value->utf8() : std::string();
}

class HdiutilTool : public QxProcessTest {
protected:
    void SetUp() override { QX_REQUIRE_LOOP_DEVICES(); }
    // Devices the test attached are detached quietly; anything else on its files fails it.
    void TearDown() override { EXPECT_EQ(sandbox_.sweep({}, attached_), "") << "left on files of " << dir(); }

    std::string environment() const {
        std::string words;
        for (const auto& variable : sandbox_.environment()) words += " " + variable.first + "=" + shellQuote(variable.second);
        return words;
    }
    QxRun tool(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null", const std::string& before = "") {
        std::string command = before + " env" + environment() + " " + shellQuote(QX_HDIUTIL_BINARY);
        for (const auto& arg : args) command += " " + shellQuote(arg);
        return runShell(command, stdinPath);
    }
    // attach -plist: the entities, each device remembered for the teardown.
    qx::Ref<qx::Array> attach(const std::string& image, std::vector<std::string> flags = {}) {
        flags.insert(flags.begin(), {"attach", "-plist"});
        flags.push_back(image);
        return entitiesOf(tool(flags));
    }
    qx::Ref<qx::Array> entitiesOf(const QxRun& run) {
        EXPECT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(run.out.rfind("<?xml", 0), 0u) << run.out.substr(0, 200);
        auto plist = parsePlist(run.out);
        auto entities = plist ? plist->get<qx::Array>("system-entities") : nullptr;
        if (entities && entities->count() > 0) attached_.push_back(field(entities->objectAtIndex(0), "dev-entry").substr(5));
        return entities ? entities : qx::Array::create();
    }
    DiskImageToolSandbox sandbox_{dir()};
    std::vector<std::string> attached_;
    std::error_code ignored_;
};

struct AttachCase {
    const char* name;
    bool gpt;
    std::optional<QXDiskImageFormat> format;
    const char* firstHint;
};
void PrintTo(const AttachCase& c, std::ostream* os) { *os << c.name; }

class HdiutilAttach : public HdiutilTool, public ::testing::WithParamInterface<AttachCase> {};

TEST_P(HdiutilAttach, MountsReadsBackListsAndDetaches) {
    const auto& c = GetParam();
    const std::string contents = "put in " + newUUID() + "\n";
    std::string image = sandbox_.ext4Image("disk.img", contents, c.gpt);
    if (c.format) image = DiskImageToolSandbox::udif(image, *c.format);
    const auto entities = attach(image);
    ASSERT_EQ(entities->count(), c.gpt ? 3u : 1u);
    EXPECT_EQ(field(entities->objectAtIndex(0), "content-hint"), c.firstHint);
    std::vector<std::string> points;
    for (std::size_t i = c.gpt ? 1 : 0; i < entities->count(); ++i) {
        const auto e = qx::dyn_cast<qx::Dictionary>(entities->objectAtIndex(i));
        EXPECT_EQ(field(e, "volume-kind"), "ext4");
        points.push_back(field(e, "mount-point"));
        EXPECT_EQ(readFile(std::filesystem::path(points.back()) / "file.txt"), contents) << points.back();
    }
    const std::string device = field(entities->objectAtIndex(0), "dev-entry");

    auto info = parsePlist(tool({"info", "-plist"}).out);
    ASSERT_TRUE(info && info->get<qx::Array>("images"));
    bool listed = false;
    for (const auto& entry : *info->get<qx::Array>("images")) {
        const auto e = qx::dyn_cast<qx::Dictionary>(entry);
        listed = listed || (field(e, "image-path") == image && field(e->get<qx::Array>("system-entities")->objectAtIndex(0), "dev-entry") == device);
    }
    EXPECT_TRUE(listed) << "info does not name " << image << " on " << device;
    auto imageInfo = parsePlist(tool({"imageinfo", device, "-plist"}).out);
    ASSERT_TRUE(imageInfo);
    EXPECT_EQ(field(imageInfo, "Format"), c.format ? (*c.format == QXDiskImageFormat::UDZO ? "UDZO" : "UDBZ") : "UDRW");

    const auto run = tool({"detach", device});
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
    // By backing file: the number may be another test's device by now.
    EXPECT_EQ(sandbox_.loopDevices(), std::vector<std::string>{});
    for (const auto& point : points) EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(point) / "file.txt"));
    const auto cached = std::filesystem::exists(dir() / "cache") ? std::distance(std::filesystem::directory_iterator(dir() / "cache"), {}) : 0;
    EXPECT_EQ(cached, c.format ? 1 : 0) << "raw images are attached as they are, UDIF ones decoded once";
}

INSTANTIATE_TEST_SUITE_P(Images, HdiutilAttach,
                         ::testing::Values(AttachCase{"RawExt4", false, std::nullopt, "Linux"},
                                           AttachCase{"UDZOExt4", false, QXDiskImageFormat::UDZO, "Linux"},
                                           AttachCase{"UDBZGPTTwoPartitions", true, QXDiskImageFormat::UDBZ, "GUID_partition_scheme"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HdiutilTool, LicenseAnsweredOnTheConsole) {
    const std::string image = DiskImageToolSandbox::udif(sandbox_.ext4Image("licensed.img", "x"), QXDiskImageFormat::UDZO, "Use it kindly.");
    // Declined or unanswered (no console: standard error and standard input).
    for (const char* answer : {"n\n", "", "maybe\n"}) {
        const auto run = tool({"attach", "-plist", image}, input("answer", toBytes(std::string(answer))), "setsid -w");
        EXPECT_EQ(run.exitStatus, 1) << answer;
        EXPECT_EQ(run.out, "Use it kindly.\n");
        EXPECT_EQ(run.err, "Agree Y/N? hdiutil: attach canceled\n");
    }
    EXPECT_FALSE(std::filesystem::exists(dir() / "cache")) << "nothing decoded before the answer";

    // Accepted on a pseudo-terminal, the way the mounter talks to the tool.
    auto process = qx::Process::create(QX_HDIUTIL_BINARY, {"attach", "-plist", image});
    // Inherited too: the provider the suite runs with, so that the teardown
    // detaches the way the tool attached.
    auto variables = processEnvironment();
    for (const auto& variable : sandbox_.environment()) variables[variable.first] = variable.second;
    process->setEnvironment(variables);
    process->setStandardInput(qx::Process::Stdio::Terminal);
    process->setStandardError(qx::Process::Stdio::Terminal);
    process->setStandardOutput(qx::Process::Stdio::Pipe);
    ASSERT_TRUE(process->launch());
    std::string console;
    while (console.find("Agree Y/N? ") == std::string::npos) {
        const auto data = process->terminal()->availableData();
        if (!data || data->length() == 0) break;
        console += toString(data);
    }
    ASSERT_NE(console.find("Agree Y/N? "), std::string::npos) << console;
    process->terminal()->writeBytes("y\n", 2);
    const std::string out = toString(process->standardOutput()->readDataToEndOfFile());
    process->waitUntilExit();
    const auto plist = out.find("<?xml");
    ASSERT_NE(plist, std::string::npos) << out << toString(process->terminal()->availableData());
    const auto entities = entitiesOf({process->terminationStatus(), out.substr(plist), ""});
    EXPECT_EQ(out.substr(0, plist), "Use it kindly.\n");
    ASSERT_EQ(entities->count(), 1u);
    EXPECT_EQ(readFile(std::filesystem::path(field(entities->objectAtIndex(0), "mount-point")) / "file.txt"), "x");
}

TEST_F(HdiutilTool, BusyDetachLeavesEverythingAttached) {
    // The busy file system is the first partition, which a detach would unmount last.
    const auto entities = attach(sandbox_.ext4Image("busy.img", "busy", true));
    ASSERT_EQ(entities->count(), 3u);
    const std::string device = field(entities->objectAtIndex(0), "dev-entry");
    auto inside = qx::Process::create("/bin/sleep", {"60"});
    inside->setCurrentDirectory(field(entities->objectAtIndex(1), "mount-point"));
    ASSERT_TRUE(inside->launch());
    auto run = tool({"detach", device});
    inside->terminate();
    inside->waitUntilExit();
    EXPECT_EQ(run.exitStatus, 16);
    EXPECT_EQ(run.err, "hdiutil: couldn't eject \"" + device.substr(5) + "\" - Resource busy\n");
    for (std::size_t i = 1; i < 3; ++i)
        EXPECT_EQ(readFile(std::filesystem::path(field(entities->objectAtIndex(i), "mount-point")) / "file.txt"), "busy")
            << "a busy detach unmounted partition " << i;
    run = tool({"detach", device});
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
}

TEST_F(HdiutilTool, DecodedOnceWhileTheImageIsUnchanged) {
    const std::string image = DiskImageToolSandbox::udif(sandbox_.ext4Image("cached.img", "c"), QXDiskImageFormat::UDZO);
    const auto cacheFiles = [&] {
        std::map<std::string, ino_t> files;
        for (const auto& entry : std::filesystem::directory_iterator(dir() / "cache")) {
            struct stat status {};
            ::stat(entry.path().c_str(), &status);
            files[entry.path().filename()] = status.st_ino;
        }
        return files;
    };
    const auto attachChanged = [&](const char* date) {
        ASSERT_EQ(std::system(("touch -d '" + std::string(date) + "' " + image).c_str()), 0);
        ASSERT_EQ(attach(image, {"-nomount"})->count(), 1u);
    };
    attachChanged("2001-01-01");
    const auto first = cacheFiles();
    const auto decoded = dir() / "cache" / first.begin()->first;
    ASSERT_EQ(std::system(("touch -d 2001-01-01 " + decoded.string()).c_str()), 0);
    ASSERT_EQ(attach(image, {"-nomount"})->count(), 1u);
    EXPECT_EQ(cacheFiles(), first) << "the unchanged image was decoded again";
    EXPECT_GT(std::filesystem::last_write_time(decoded), std::filesystem::file_time_type::clock::now() - std::chrono::minutes(1))
        << "a reuse left the decoded file looking unused since its decode";
    attachChanged("2002-02-02");
    EXPECT_EQ(cacheFiles().size(), 2u) << "a changed image reused the old decoded file, or dropped it in use";
    for (const auto& device : attached_) EXPECT_EQ(tool({"detach", device}).exitStatus, 0);
    attachChanged("2003-03-03");
    EXPECT_EQ(cacheFiles().size(), 1u) << "decoded files of older versions stay";
}

TEST_F(HdiutilTool, FileSystemTheKernelCannotMount) {
    if (readFile("/proc/filesystems").find("hfsplus") != std::string::npos) GTEST_SKIP() << "this kernel mounts HFS+";
    const std::string sample = diskimage::fixturePath("nodeudif-gpt.dmg");
    auto run = tool({"attach", "-plist", sample});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "hdiutil: attach failed - no mountable file systems\n");
    EXPECT_EQ(run.out, "");
    const auto entities = attach(sample, {"-nomount"});
    ASSERT_EQ(entities->count(), 1u);
    const auto e = qx::dyn_cast<qx::Dictionary>(entities->objectAtIndex(0));
    EXPECT_EQ(field(e, "content-hint"), "Apple_HFS");
    EXPECT_EQ(field(e, "volume-kind"), "hfs");
    EXPECT_FALSE(e->objectForKey("mount-point"));
    EXPECT_TRUE(e->get<qx::Number>("potentially-mountable")->boolValue());
    EXPECT_EQ(tool({"detach", field(e, "dev-entry")}).exitStatus, 0);
}

TEST_F(HdiutilTool, FatPartitionsThroughTheFuseHelperWhereTheKernelHasNoDriver) {
    QX_SKIP_OR_FAIL_UNLESS_EMPTY(DiskImageToolSandbox::missingPrograms({"fusefat"}));
    const auto entities = attach(diskimage::fixturePath("nodeudif-compression-zlib.dmg"));
    ASSERT_EQ(entities->count(), 3u);
    const std::string points[] = {field(entities->objectAtIndex(1), "mount-point"), field(entities->objectAtIndex(2), "mount-point")};
    EXPECT_EQ(readFile(std::filesystem::path(points[0]) / "README.TXT").rfind("This is a test partition", 0), 0u) << points[0];
    EXPECT_EQ(readFile(std::filesystem::path(points[1]) / "README.TXT").rfind("This is a second test partition", 0), 0u) << points[1];
    auto inside = qx::Process::create("/bin/sleep", {"60"});
    inside->setCurrentDirectory(points[0]);
    ASSERT_TRUE(inside->launch());
    const std::string device = field(entities->objectAtIndex(0), "dev-entry");
    const auto busy = tool({"detach", device});
    inside->terminate();
    inside->waitUntilExit();
    EXPECT_EQ(busy.exitStatus, 16) << busy.describe();
    EXPECT_EQ(tool({"detach", device}).exitStatus, 0);
    for (const auto& point : points) EXPECT_FALSE(std::filesystem::exists(point)) << point << " stays";
}

// When the file name in the user's home folder (from the user database, as
// helpers find it, not $HOME) was last changed, or -1 when it is not there.
std::int64_t homeFileState(const std::string& name) {
    const passwd* user = ::getpwuid(::geteuid());
    struct stat status {};
    if (!user || ::stat((std::string(user->pw_dir) + "/" + name).c_str(), &status) != 0) return -1;
    return static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

struct FuseCase {
    const char* name;
    bool apfs; // else ISO 9660 holding file.txt
    std::optional<QXDiskImageFormat> format;
    const char* volumeKind;
    std::vector<const char*> programs; // the maker and the mounter
    bool lingering = false;            // the mounter's server outlives its unmount for a while
};
void PrintTo(const FuseCase& c, std::ostream* os) { *os << c.name; }

class HdiutilFuse : public HdiutilTool, public ::testing::WithParamInterface<FuseCase> {};

// Whichever mounts it (the kernel where it has the driver, else the helper):
// read-only, readable, busy detach refused, and a detach leaves no mount,
// folder, server or loop device behind.
TEST_P(HdiutilFuse, MountsReadOnlyAndDetachLeavesNoServer) {
    const auto& c = GetParam();
    QX_SKIP_OR_FAIL_UNLESS_EMPTY(DiskImageToolSandbox::missingPrograms(c.programs));
    const auto mtabBefore = homeFileState(".mtab.fuseiso");
    std::string label = "QX" + newUUID().substr(0, 8), contents = "on a disc " + newUUID() + "\n";
    std::transform(label.begin(), label.end(), label.begin(), [](unsigned char ch) { return static_cast<char>(std::toupper(ch)); });
    std::string image = c.apfs ? sandbox_.apfsImage("volume.img") : sandbox_.isoImage("disc.iso", label, contents);
    if (c.format) image = DiskImageToolSandbox::udif(image, *c.format);
    std::string path;
    if (c.lingering) {
        std::filesystem::create_directories(dir() / "bin");
        ASSERT_EQ(::symlink(QX_SOURCE_DIR "/tests/Support/lingering-fuse-helper.sh", (dir() / "bin" / c.programs.back()).c_str()), 0);
        path = "PATH=" + shellQuote(dir() / "bin") + ":\"$PATH\"";
    }
    const auto entities = entitiesOf(tool({"attach", "-plist", image}, "/dev/null", path));
    ASSERT_EQ(entities->count(), 1u);
    const auto e = qx::dyn_cast<qx::Dictionary>(entities->objectAtIndex(0));
    EXPECT_EQ(field(e, "volume-kind"), c.volumeKind);
    const std::string device = field(e, "dev-entry"), point = field(e, "mount-point");
    ASSERT_FALSE(point.empty()) << "not mounted";
    const auto mount = mountAt(point);
    ASSERT_TRUE(mount) << point << " is not in the mount table";
    EXPECT_TRUE(hasOption(*mount, "ro")) << mount->options;
    const auto readable = [&] {
        if (!c.apfs) return readFile(std::filesystem::path(point) / "file.txt") == contents;
        std::error_code ec;
        std::filesystem::directory_iterator root(point, ec);
        return !ec;
    };
    EXPECT_TRUE(readable()) << point;
    if (c.apfs && readFile("/proc/filesystems").find("\tapfs\n") == std::string::npos) {
        EXPECT_EQ(mount->type.rfind("fuse", 0), 0u) << mount->type;
    }

    auto inside = qx::Process::create("/bin/sleep", {"60"});
    inside->setCurrentDirectory(point);
    ASSERT_TRUE(inside->launch());
    const auto busy = tool({"detach", device});
    inside->terminate();
    inside->waitUntilExit();
    EXPECT_EQ(busy.exitStatus, 16) << busy.describe();
    EXPECT_TRUE(mountAt(point) && readable()) << "a busy detach unmounted " << point;

    const auto run = tool({"detach", device});
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_FALSE(mountAt(point)) << point << " stays mounted";
    EXPECT_FALSE(std::filesystem::exists(point)) << point << " stays";
    EXPECT_EQ(liveProcessesNaming(point), std::vector<pid_t>{}) << "the server of " << point << " outlived the detach";
    // By backing file: the number may be another test's device by now.
    EXPECT_EQ(sandbox_.loopDevices(), std::vector<std::string>{}) << device << " outlived the detach";
    EXPECT_EQ(homeFileState(".mtab.fuseiso"), mtabBefore) << "a helper wrote its own list of mounts in the home folder";
}

INSTANTIATE_TEST_SUITE_P(FileSystems, HdiutilFuse,
                         ::testing::Values(FuseCase{"RawISO9660", false, std::nullopt, "cd9660", {"xorriso", "fuseiso"}},
                                           FuseCase{"UDZOISO9660", false, QXDiskImageFormat::UDZO, "cd9660", {"xorriso", "fuseiso"}},
                                           FuseCase{"RawAPFS", true, std::nullopt, "apfs", {"mkapfs", "fsapfsmount"}},
                                           FuseCase{"ServerLeavingLate", false, std::nullopt, "cd9660", {"xorriso", "fuseiso"}, true}),
                         [](const auto& info) { return std::string(info.param.name); });

struct TrimCase {
    const char* name;
    const char* limit;   // QXFOUNDATION_IMAGE_CACHE_LIMIT; "total" for the space a, b and d take
    bool dUsedRecently;  // else d was last used long ago, like a and b
    const char* removed; // the decoded files expected gone, by letter
};
void PrintTo(const TrimCase& c, std::ostream* os) { *os << c.name; }

class HdiutilCacheTrim : public HdiutilTool, public ::testing::WithParamInterface<TrimCase> {
protected:
    // Space the file takes on disk, which the budget counts.
    static std::uint64_t allocated(const std::filesystem::path& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return static_cast<std::uint64_t>(status.st_blocks) * 512;
    }
    static void age(const std::filesystem::path& path, const char* date) {
        ASSERT_EQ(std::system(("touch -d '" + std::string(date) + "' " + shellQuote(path)).c_str()), 0) << path;
    }
    // The cache file an attach of image made, attaching it without mounting.
    std::string attachNew(const std::string& image, const std::string& before = "") {
        std::set<std::string> known;
        for (const auto& entry : std::filesystem::directory_iterator(dir() / "cache", ignored_)) known.insert(entry.path().filename());
        EXPECT_EQ(entitiesOf(tool({"attach", "-plist", "-nomount", image}, "/dev/null", before))->count(), 1u);
        for (const auto& entry : std::filesystem::directory_iterator(dir() / "cache", ignored_))
            if (!known.count(entry.path().filename()) && entry.path().filename().string().front() != '.') return entry.path().filename();
        ADD_FAILURE() << image << " made no cache file";
        return {};
    }
};

// Four decoded images, least recently used first: b (attached all along), a,
// d, then c, made by the attach that trims. c decodes to the same bytes as a,
// so the "total" budget is met by removing a alone.
TEST_P(HdiutilCacheTrim, LeastRecentlyUsedUnusedFilesGoFirst) {
    const auto& c = GetParam();
    std::map<char, std::string> images;
    for (const char letter : {'a', 'b', 'd'})
        images[letter] = DiskImageToolSandbox::udif(sandbox_.ext4Image(std::string(1, letter) + ".img", std::string(1, letter)), QXDiskImageFormat::UDZO);
    images['c'] = dir() / "c.dmg";
    std::filesystem::copy_file(images['a'], images['c']);

    std::map<char, std::string> files;
    files['b'] = attachNew(images['b']);
    for (const char letter : {'a', 'd'}) {
        files[letter] = attachNew(images[letter]);
        EXPECT_EQ(tool({"detach", attached_.back()}).exitStatus, 0);
    }
    const auto cache = dir() / "cache";
    age(cache / files['b'], "2000-01-01");
    age(cache / files['a'], "2001-01-01");
    if (!c.dUsedRecently) age(cache / files['d'], "2002-01-01");
    // Leftovers of cut-off decodes, one long abandoned, one still being written; and a file not the cache's.
    const auto staleTemporary = cache / ("." + files['a'] + ".qx-00000000000a"), liveTemporary = cache / ("." + files['d'] + ".qx-00000000000d");
    writeFile(staleTemporary, "");
    age(staleTemporary, "2001-01-01");
    writeFile(liveTemporary, "");
    writeFile(cache / "notes.txt", std::string(1 << 16, 'n'));
    age(cache / "notes.txt", "1999-01-01");

    const std::string limit =
        c.limit == std::string("total") ? std::to_string(allocated(cache / files['a']) + allocated(cache / files['b']) + allocated(cache / files['d'])) : c.limit;
    files['c'] = attachNew(images['c'], "QXFOUNDATION_IMAGE_CACHE_LIMIT=" + shellQuote(limit));

    for (const auto& [letter, file] : files) {
        const bool removed = std::string(c.removed).find(letter) != std::string::npos;
        EXPECT_EQ(std::filesystem::exists(cache / file), !removed) << letter << (removed ? " stays" : " was removed");
        EXPECT_EQ(std::filesystem::exists(dir() / "run" / (file + ".image")), !removed) << "the record of " << letter;
    }
    EXPECT_FALSE(std::filesystem::exists(staleTemporary)) << "an abandoned decode stays";
    EXPECT_TRUE(std::filesystem::exists(liveTemporary)) << "a decode in progress lost its file";
    EXPECT_TRUE(std::filesystem::exists(cache / "notes.txt")) << "a file the cache did not make was removed";
}

INSTANTIATE_TEST_SUITE_P(Budgets, HdiutilCacheTrim,
                         ::testing::Values(TrimCase{"OldestUnusedGoesUntilWithinBudget", "total", false, "a"},
                                           TrimCase{"ZeroLeavesWhatIsInUse", "0", false, "ad"},
                                           TrimCase{"RecentlyUsedStays", "0", true, "a"},
                                           TrimCase{"NotACountOfBytesMeansTheDefault", "4096x", false, ""}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HdiutilTool, RemoteImageReadByRanges) {
    const std::string contents = "from afar\n";
    HttpTestServer server(readBytes(DiskImageToolSandbox::udif(sandbox_.ext4Image("remote.img", contents), QXDiskImageFormat::UDZO)));
    const auto entities = attach(server.url(HttpTestServer::RangesPath));
    ASSERT_EQ(entities->count(), 1u);
    EXPECT_EQ(readFile(std::filesystem::path(field(entities->objectAtIndex(0), "mount-point")) / "file.txt"), contents);
}

TEST_F(HdiutilTool, FailuresAreOneLine) {
    const std::string missing = dir() / "missing.dmg";
    const struct {
        std::vector<std::string> args;
        std::string line;
    } cases[] = {
        {{"attach", "-plist", missing}, "hdiutil: attach failed - No such file or directory\n"},
        {{"attach", "-plist", "file://" + missing}, "hdiutil: attach failed - No such file or directory\n"},
        {{"attach", "-bogus", missing}, "hdiutil: attach failed - unknown option -bogus\n"},
        {{"imageinfo", "-plist", missing}, "hdiutil: imageinfo failed - No such file or directory\n"},
        {{"detach", "/dev/no-such-device"}, "hdiutil: detach failed - No such file or directory\n"},
        {{"attach", "-plist", input("tiny.img", toBytes(std::string("tiny")))}, "hdiutil: attach failed - image not recognized\n"},
    };
    for (const auto& c : cases) {
        const auto run = tool(c.args);
        EXPECT_EQ(run.exitStatus, 1) << c.line;
        EXPECT_EQ(run.err, c.line);
        EXPECT_EQ(run.out, "");
    }
}

} // namespace
