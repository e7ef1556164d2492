// DiskImageMounterTests.cpp - the mounter against a scripted stand-in for the
// disk-image tool (tests/Support/hdiutil-standin.sh) on a real pseudo-terminal.
#include "SharedMimeTestSupport.h"
#include "TestSupport.h"

#include <QXFoundation/QXDiskImageMounter.h>
#include <QXFoundation/QXError.h>

#include <sstream>

namespace {

// Property-list text: a dictionary of `body`, and system entities (device,
// mount point or "").
std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + body + "</dict></plist>";
}
std::string entities(std::initializer_list<std::pair<std::string, std::string>> list) {
    std::string xml = "<key>system-entities</key><array>";
    for (const auto& [device, mountPoint] : list)
        xml += "<dict><key>dev-entry</key><string>" + device + "</string>" +
               (mountPoint.empty() ? "" : "<key>mount-point</key><string>" + mountPoint + "</string>") + "</dict>";
    return xml + "</array>";
}

// Scenario lines for one verb.
std::string steps(const std::string& verb, const std::string& lines) {
    std::string scenario, line;
    for (std::istringstream in(lines); std::getline(in, line);) scenario += verb + " " + line + "\n";
    return scenario;
}

// The tool as a link to the stand-in in a fresh folder, where files are
// written; `play` starts a new scenario and a new log.
struct StandIn {
    qxtest::TempDir dir{"qx-mounter"};
    explicit StandIn(const std::string& scenario = "") {
        EXPECT_EQ(::symlink(QX_SOURCE_DIR "/tests/Support/hdiutil-standin.sh", (dir / "hdiutil").c_str()), 0);
        QXDiskImageMounter::setToolPath(dir / "hdiutil");
        play(scenario);
    }
    ~StandIn() { QXDiskImageMounter::setToolPath(""); }
    void play(const std::string& scenario) const {
        dir.file("scenario", scenario);
        std::filesystem::remove(dir.path() / "log");
    }
    std::string read(const std::string& name) const { return qxtest::readFile(dir.path() / name); }
};

const auto mounter = QXDiskImageMounter::sharedInstance;
qx::Ref<qx::URL> at(const std::string& path) { return qx::URL::fileURLWithPath(path); }
std::string pathOf(const qx::Ref<qx::URL>& url) { return url ? url->path() : ""; }
// Success without a domain; else that error, with that description unless "".
void expectOutcome(bool ok, const qx::Ref<qx::Error>& error, const char* domain, std::int64_t code, const char* text) {
    EXPECT_EQ(ok, !domain);
    if (!domain) return;
    EXPECT_QX_ERROR(error, domain, code);
    EXPECT_TRUE(!*text || (error && error->localizedDescription() == text)) << (error ? error->description() : "");
}
const std::string kEmptyImageInfo = "imageinfo out " + plist("") + "\n";

} // namespace

// ---- the attach conversation, branch by branch ----------------------------

struct Conversation {
    const char* name;
    bool licence, withoutMounting;
    int licenceAnswer, yesNoAnswer;  // 1 yes, 0 no, -1 no callback
    const char* steps;               // the stand-in's attach steps
    const char* domain;              // nullptr: success
    std::int64_t code;
    const char* expected;  // success: the device's path ("" none); failure: the description ("" unchecked)
    const char* shown;     // what the callbacks were shown
    const char* answers;   // what was typed
};
void PrintTo(const Conversation& c, std::ostream* os) { *os << c.name; }

class DiskImageMounterConversation : public ::testing::TestWithParam<Conversation> {};

TEST_P(DiskImageMounterConversation, EndsAsTheToolSays) {
    const auto& c = GetParam();
    StandIn tool("imageinfo cat info\n" + steps("attach", c.steps));
    tool.dir.file("mounted", plist(entities({{"/dev/disk7", ""}, {"disk7s1", tool.dir.path()}})));
    tool.dir.file("unmounted", plist(entities({{"/dev/disk7", ""}})));
    tool.dir.file("info", plist("<key>Properties</key><dict><key>Software License Agreement</key>" +
                                std::string(c.licence ? "<true/>" : "<false/>") + "</dict>"));
    std::string shown;
    QXDiskImageMounter::LicenseHandler licence;
    QXDiskImageMounter::YesNoPromptHandler yesNo;
    if (c.licenceAnswer >= 0) licence = [&](auto& text) { return shown += "L:" + text->utf8() + ";", c.licenceAnswer; };
    if (c.yesNoAnswer >= 0) yesNo = [&](auto& out, auto& console) {
        return shown += "Q:" + out->utf8() + "|" + console->utf8() + ";", c.yesNoAnswer;
    };
    qx::Ref<qx::URL> mountPoint, device;
    qx::Ref<qx::Error> error;
    const auto image = at(tool.dir / "my image.dmg");
    const bool ok = mounter()->attachImageAtURLWithoutMounting(image, c.withoutMounting, &mountPoint, &device, licence,
                                                               yesNo, &error);
    EXPECT_EQ(tool.read("log"), "imageinfo " + image->absoluteString() + " -plist\nattach -readonly -nokernel -plist "
              "-noverify -nobrowse -noidme -noautoopen -puppetstrings " + (c.withoutMounting ? "-nomount " : "") +
              image->absoluteString() + "\n");
    EXPECT_EQ(shown, c.shown);
    EXPECT_EQ(tool.read("answers"), c.answers);
    expectOutcome(ok, error, c.domain, c.code, c.domain ? c.expected : "");
    if (c.domain) return;
    EXPECT_EQ(pathOf(device), c.expected);
    EXPECT_EQ(pathOf(mountPoint), c.withoutMounting ? "" : tool.dir.path().string());
}

INSTANTIATE_TEST_SUITE_P(
    Branches, DiskImageMounterConversation,
    ::testing::Values(
        Conversation{"LicenceOnceThenQuestion", true, false, 1, 1,
                     "out Licence text\\n\nerr Agree Y/N?\\x20\nask\nerr Mount anyway? (y/n)\nask\ncat mounted",
                     nullptr, 0, "/dev/disk7s1", "L:Licence text;Q:|Mount anyway? ;", "y\ny\n"},
        Conversation{"QuestionOnlyOnConsole", false, false, 1, 1, "err Continue? [Y/N]\nask\ncat mounted", nullptr, 0,
                     "/dev/disk7s1", "Q:|Continue? [];", "y\n"},
        Conversation{"DeclinedQuestion", false, false, 1, 0, "out Eject?\\n\nerr y/n\nask\ncat mounted",
                     qx::NSCocoaErrorDomain, 3072, "", "Q:Eject?|;", "n\n"},
        Conversation{"NoLicenceHandlerDeclines", true, false, -1, 1, "out Terms\\n\nerr Agree Y/N?\nask",
                     qx::NSCocoaErrorDomain, 3072, "", "", "n\n"},
        Conversation{"LowerCaseComplaint", false, false, 1, 1,
                     "err hdiutil: attach failed - image not recognized\\n\nexit 1", QXErrorDomain, -1,
                     "Attach failed - image not recognized", "", ""},
        Conversation{"ConsoleOfTenCharacters", false, false, 1, 1, "err hdiutil: x\\n\nexit 1", QXErrorDomain, -1, "X",
                     "", ""},
        Conversation{"ConsoleUnderTenCharacters", false, false, 1, 1, "err hdiutil:\\n\nexit 1", QXErrorDomain, -1,
                     "Unknown Error my image.dmg", "", ""},
        Conversation{"PropertyListAfterOtherOutput", false, false, 1, 1, "out PERCENT:-1.000000\\n\ncat mounted",
                     nullptr, 0, "/dev/disk7s1", "", ""},
        Conversation{"NoPropertyList", false, false, 1, 1, "out attached\\n", qx::NSCocoaErrorDomain, 256, "", "", ""},
        Conversation{"ExitStatusOneWithPropertyList", false, false, 1, 1, "cat mounted\nexit 1",
                     qx::NSCocoaErrorDomain, 256, "", "", ""},
        Conversation{"AttachedWithoutMountPoint", false, false, 1, 1, "cat unmounted",
                     QXDiskImageMounterErrorDomain, 1, "", "", ""},
        Conversation{"WithoutMountingReportsTheDevice", false, true, 1, 1, "cat unmounted", nullptr, 0, "/dev/disk7",
                     "", ""},
        Conversation{"WithoutMountingToleratesFailure", false, true, 1, 1, "err hdiutil: attach failed - x\\n\nexit 1",
                     nullptr, 0, "", "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DiskImageMounterThreads, AttachesRunSideBySide) {
    StandIn tool(kEmptyImageInfo + steps("attach", "err Go? y/n\nask\ncat mounted"));
    tool.dir.file("mounted", plist(entities({{"disk7s1", tool.dir.path()}})));
    const auto yes = [](auto&, auto&) { return true; };
    auto attach = [&] { return mounter()->attachImageAtURL(at(tool.dir / "i.dmg"), nullptr, nullptr, yes); };
    auto other = std::async(std::launch::async, attach);
    EXPECT_TRUE(attach());
    EXPECT_TRUE(other.get());
}

// ---- detach and the tool's information ---------------------------------------

TEST(DiskImageMounterTool, ErrorsFromTheToolsWords) {
    const std::string empty = "out " + plist("");
    const struct {
        const char *verb, *domain;
        std::string steps;
        std::int64_t code;
        const char* text;
    } runs[] = {
        {"detach", nullptr, "exit 0", 0, ""},
        {"detach", qx::NSPOSIXErrorDomain, "err hdiutil: couldn't eject \"disk7\" - Resource busy\\n\nexit 16", EBUSY,
         "couldn't eject \"disk7\" - Resource busy"},
        {"detach", QXErrorDomain, "out hdiutil: detach failed - No such file or directory\\n\nexit 1", -1,
         "detach failed - No such file or directory"},
        {"detach", QXErrorDomain, "out boom\nexit 2", -1, "boom"},
        {"info", nullptr, empty, 0, ""},
        {"info", QXErrorDomain, empty + "\nerr x hdiutil: info failed - Resource busy now", -1,
         "info failed - Resource busy now"},
        {"info", qx::NSCocoaErrorDomain, "exit 0", 256, ""}};
    for (const auto& r : runs) {
        SCOPED_TRACE(r.steps);
        StandIn tool(steps(r.verb, r.steps));
        qx::Ref<qx::Error> error;
        const bool ok = std::string(r.verb) == "detach" ? mounter()->detachImageWithDevEntryURL(at("/dev/x"), &error)
                                                        : mounter()->globalInfoWithError(&error) != nullptr;
        expectOutcome(ok, error, r.domain, r.code, r.text);
    }
}

// ---- what is attached -------------------------------------------------------------

class DiskImageMounterAttached : public ::testing::Test {
protected:
    // Device nodes under /dev (as the tool names them) whose dates a test sets.
    std::string devices = [] {
        char pattern[] = "/dev/shm/qx-mounter-XXXXXX";
        EXPECT_TRUE(::mkdtemp(pattern));
        return std::string(pattern);
    }();
    StandIn tool{"info cat info\n"};
    std::string image = tool.dir.file("a.dmg", "a"), first = devices + "/d1s1", second = devices + "/d2s1";
    void SetUp() override {
        const auto local = entities({{devices + "/d1", ""}, {first, "/mnt/1"}, {second, "/mnt/2"}});
        const auto remote = entities({{"disk9s1", "/mnt/9"}});
        tool.dir.file("info", plist("<key>images</key><array><dict><key>image-path</key><string>" + image +
                                    "</string>" + local + "</dict><dict><key>image-path</key><string>"
                                    "https://example.com/c.dmg</string>" + remote + "</dict></array>"));
    }
    ~DiskImageMounterAttached() override { std::filesystem::remove_all(devices); }

    // Gives the node a date in seconds, or removes it (-1).
    void date(const std::string& node, long seconds) const {
        if (seconds < 0) return (void)std::filesystem::remove(node);
        qxtest::writeFile(node, "");
        const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
        EXPECT_EQ(::utimensat(AT_FDCWD, node.c_str(), times, 0), 0);
    }
};

TEST_F(DiskImageMounterAttached, RecordsKeepMountedDevicesOfEachImage) {
    auto records = mounter()->currentlyAttachedImagesWithError();
    std::string seen;
    for (const auto& item : records ? records->items() : std::vector<qx::Ref<qx::Object>>{}) {
        auto record = qx::dyn_cast<qx::Dictionary>(item);
        seen += record->get<QXRef>("QXRef")->url()->absoluteString() + ":";
        for (const auto& partition : *record->get<qx::Array>("Partitions")) {
            auto urls = qx::dyn_cast<qx::Dictionary>(partition);
            seen += " " + pathOf(urls->get<qx::URL>("DevEntryURL")) + " " + pathOf(urls->get<qx::URL>("MountPointURL"));
        }
    }
    EXPECT_EQ(seen, at(image)->absoluteString() + ": " + first + " /mnt/1 " + second +
                        " /mnt/2https://example.com/c.dmg: /dev/disk9s1 /mnt/9");
    EXPECT_TRUE(mounter()->isDiskImageAttachedAtURL(qx::URL::URLWithString("https://example.com/c.dmg")));
}

TEST_F(DiskImageMounterAttached, ImagesNotAttachedOrNotThere) {
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(mounter()->devEntryURLsForAttachedImageAtURL(at(tool.dir / "scenario"), &error));
    EXPECT_QX_ERROR(error, QXDiskImageMounterErrorDomain, 1);
    EXPECT_FALSE(mounter()->isDiskImageAttachedAtURL(at(tool.dir / "gone.dmg")));
    EXPECT_FALSE(mounter()->mountPointForAttachedImageAtURL(at(tool.dir / "gone.dmg"), nullptr, &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 4);
    EXPECT_QX_ERROR(error->underlyingError(), qx::NSCocoaErrorDomain, 260);
}

TEST_F(DiskImageMounterAttached, NewestDeviceIsChosen) {
    // Dates of the two nodes (-1: none) and the mount point chosen.
    const struct { long first, second; const char* chosen; } cases[] = {
        {100, 200, "/mnt/2"}, {200, 100, "/mnt/1"}, {100, 100, "/mnt/1"}, {-1, 100, "/mnt/2"}, {-1, -1, "/mnt/1"}};
    for (const auto& c : cases) {
        date(first, c.first);
        date(second, c.second);
        qx::Ref<qx::URL> device;
        EXPECT_EQ(pathOf(mounter()->mountPointForAttachedImageAtURL(at(image), &device)), c.chosen) << c.first;
        EXPECT_EQ(pathOf(device), c.chosen == std::string("/mnt/1") ? first : second);
    }
}

TEST_F(DiskImageMounterAttached, ImageInfoAndDetachGoThroughTheDevices) {
    date(first, 100);
    date(second, 200);
    tool.play("info cat info\ndetach exit 0\n" + kEmptyImageInfo);
    EXPECT_TRUE(mounter()->imageInfoAtURL(at(image)));
    EXPECT_TRUE(mounter()->detachImageAtURL(at(image)));
    EXPECT_EQ(tool.read("log"), "info -plist\nimageinfo file://" + second +
                                    " -plist\ninfo -plist\ndetach " + first + "\ndetach " + second + "\n");

    // A failure stops the walk; a node gone with an earlier one is skipped.
    qx::Ref<qx::Error> error;
    tool.play("info cat info\ndetach exit 1\n");
    EXPECT_FALSE(mounter()->detachImageAtURL(at(image), &error));
    EXPECT_QX_ERROR(error, QXErrorDomain, -1);
    EXPECT_EQ(tool.read("log"), "info -plist\ndetach " + first + "\n");
    date(second, -1);
    tool.play("info cat info\ndetach exit 0\n");
    EXPECT_TRUE(mounter()->detachImageAtURL(at(image)));
    EXPECT_EQ(tool.read("log"), "info -plist\ndetach " + first + "\n");
}

// ---- recognising images and choosing the tool ---------------------------------------

TEST(DiskImageMounter, RecognisesImagesByExtension) {
    qxtest::FakeMimeDatabase noTypes;  // the extension rules alone
    const std::pair<const char*, bool> cases[] = {
        {"file:///a/x.dmg", true},     {"file:///a/X.SparseBundle/", true}, {"file:///a/x.dmg.bin", true},
        {"file:///a/x.Img.BIN", true}, {"file:///a/x.bin", false},          {"file:///a/x.txt.bin", false},
        {"file:///a/.dmg", false},     {"file:///a/dmg", false},            {"https://h/x.iso?y=1", true},
        {"file:///a/x.qcow2", false}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(mounter()->isDiskImageAtURL(qx::URL::URLWithString(text)), expected) << text;
    ASSERT_EQ(mounter()->diskImageTypes()->count(), 18u);
    EXPECT_EQ(mounter()->diskImageTypes()->objectAtIndex(17)->description(), "image");
}

TEST(DiskImageMounter, RecognisesImagesByTheirMimeType) {
    qxtest::FakeMimeDatabase database;
    database.write(qxtest::FakeMimeDatabase::System, "globs2",
                   "50:application/x-qemu-disk:*.qcow2\n"
                   "50:application/x-virtualbox-vdi:*.vdi\n"  // named by its alias
                   "50:application/x-iso9660-appimage:*.appimage\n"
                   "50:application/x-raw-floppy-disk-image:*.fd\n"
                   "50:application/x-raw-disk-image-xz-compressed:*.img.xz\n"
                   "50:text/x-vhdl:*.vhd\n"
                   "50:application/x-vhd-disk:*.vhd\n"
                   "50:text/x-vhdl:*.vhdl\n"
                   "50:application/vnd.squashfs:*.sqsh\n"
                   "50:application/x-apple-diskimage:*.dmg\n"
                   "50:application/x-mine:*.mine\n"
                   "50:application/x-renamed-vmdk:*.rvmdk\n");
    database.write(qxtest::FakeMimeDatabase::System, "aliases",
                   "application/x-virtualbox-vdi application/x-vdi-disk\n"
                   "application/x-vmdk-disk application/x-renamed-vmdk\n");  // a database that renamed one
    database.write(qxtest::FakeMimeDatabase::System, "subclasses",
                   "application/x-iso9660-appimage application/x-cd-image\n"
                   "application/x-raw-floppy-disk-image application/x-raw-disk-image\n"
                   "application/x-raw-disk-image-xz-compressed application/x-xz\n");
    // The user's own: a type of theirs made a kind of disc.
    database.write(qxtest::FakeMimeDatabase::User, "subclasses", "application/x-mine application/x-cd-image\n");
    const std::pair<const char*, bool> cases[] = {
        {"file:///a/b.qcow2", true},          {"file:///a/B.QCOW2", true},
        {"https://h/p/b.qcow2?x=1", true},    {"file:///a/b.vdi", true},
        {"file:///a/b.AppImage", true},       {"file:///a/b.fd", true},
        {"file:///a/b.mine", true},           {"file:///a/b.vhd", true},  // or VHDL: the name cannot tell
        {"file:///a/b.vhdl", false},          {"file:///a/disk.img.xz", false},
        {"file:///a/b.sqsh", false},          {"file:///a/.dmg", true},  // the database's glob takes it
        {"file:///a/b.qcow2.txt", false},     {"file:///a/", false},
        {"file:///a/b.rvmdk", true},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(mounter()->isDiskImageAtURL(qx::URL::URLWithString(text)), expected) << text;
}

TEST(DiskImageMounter, RecognisesImagesByTheSystemsMimeDatabase) {
    qxtest::ScopedEnvironment systemFolders({{"XDG_DATA_HOME", nullptr}, {"XDG_DATA_DIRS", nullptr}});
    QXSharedMimeDatabase::resetShared();
    const std::string globs = qxtest::readFile("/usr/share/mime/globs2");
    QX_SKIP_OR_FAIL_UNLESS_EMPTY(globs.find(":*.qcow2") != std::string::npos
                                     ? ""
                                     : "no shared MIME database naming *.qcow2 (scripts/setup.sh installs it)");
    EXPECT_TRUE(mounter()->isDiskImageAtURL(at("/images/disk.qcow2")));
    EXPECT_TRUE(mounter()->isDiskImageAtURL(at("/images/disk.vmdk")));
    EXPECT_FALSE(mounter()->isDiskImageAtURL(at("/images/notes.txt")));
    QXSharedMimeDatabase::resetShared();
}

TEST(DiskImageMounter, ToolPathPrecedence) {
    ::unsetenv("QX_HDIUTIL_PATH");
    const std::string fallback = QXDiskImageMounter::toolPath();
    EXPECT_TRUE(fallback == "/usr/bin/hdiutil" || fallback.ends_with("/qxfoundation/hdiutil")) << fallback;
    ::setenv("QX_HDIUTIL_PATH", "/from/environment", 1);
    const std::string environment = QXDiskImageMounter::toolPath();
    QXDiskImageMounter::setToolPath("/from/application");
    EXPECT_EQ(environment + " " + QXDiskImageMounter::toolPath(), "/from/environment /from/application");
    ::unsetenv("QX_HDIUTIL_PATH");
    QXDiskImageMounter::setToolPath("/nonexistent/hdiutil");
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(mounter()->detachImageWithDevEntryURL(at("/dev/disk7"), &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, ENOENT);
    QXDiskImageMounter::setToolPath("");
}
