// DiskImageMounterTests.cpp - the mounter against a scripted stand-in for the
// disk-image tool (tests/Support/hdiutil-standin.sh) on a real pseudo-terminal.
#include "TestSupport.h"

#include <QXFoundation/QXDiskImageMounter.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Number.h>

#include <sys/stat.h>

using qxtest::TempDir;

namespace {

using Dict = std::initializer_list<std::pair<const char*, qx::Ref<qx::Object>>>;

qx::Ref<qx::Dictionary> dict(Dict entries) {
    auto d = qx::Dictionary::create();
    for (const auto& [key, value] : entries) d->setObject(value, key);
    return d;
}

// A device the tool reports; mount point "" for none.
qx::Ref<qx::Object> entity(const std::string& device, const std::string& mountPoint = "") {
    return dict({{"dev-entry", qx::str(device)}, {"mount-point", mountPoint.empty() ? nullptr : qx::str(mountPoint)}});
}

qx::Ref<qx::Object> array(std::initializer_list<qx::Ref<qx::Object>> list) { return std::make_shared<qx::Array>(list); }
qx::Ref<qx::Object> entities(std::initializer_list<qx::Ref<qx::Object>> list) {
    return dict({{"system-entities", array(list)}});
}

// The tool as a link to the stand-in in a fresh folder, playing `scenario`.
struct StandIn {
    TempDir dir{"qx-mounter"};
    explicit StandIn(const std::string& scenario = "") {
        EXPECT_EQ(::symlink(QX_SOURCE_DIR "/tests/Support/hdiutil-standin.sh", (dir / "hdiutil").c_str()), 0);
        QXDiskImageMounter::setToolPath(dir / "hdiutil");
        play(scenario);
    }
    ~StandIn() { QXDiskImageMounter::setToolPath(""); }
    // A new scenario, and a new log.
    void play(const std::string& scenario) const {
        dir.file("scenario", scenario);
        std::filesystem::remove(dir.path() / "log");
    }
    void plist(const std::string& name, const qx::Ref<qx::Object>& plist) const {
        dir.file(name, qxtest::toString(QXPropertyListSerialization::dataWithPropertyList(plist, 100)));
    }
    std::string log(const std::string& kind = "") const {
        std::string lines, line;
        std::istringstream in(qxtest::readFile(dir.path() / "log"));
        while (std::getline(in, line))
            if (line.rfind(kind, 0) == 0) lines += line.substr(kind.size()) + "\n";
        return lines;
    }
};

const auto mounter = QXDiskImageMounter::sharedInstance;
constexpr const char* kEmptyImageInfo = "imageinfo out <?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>\n";

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
    StandIn tool;
    tool.plist("mounted", entities({entity("/dev/disk7"), entity("disk7s1", tool.dir.path())}));
    tool.plist("unmounted", entities({entity("/dev/disk7")}));
    tool.plist("info", dict({{"Properties", dict({{"Software License Agreement", qx::Number::withBool(c.licence)}})}}));
    std::string scenario = "imageinfo cat info\n", step;
    for (std::istringstream in(c.steps); std::getline(in, step);) scenario += "attach " + step + "\n";
    tool.play(scenario);

    std::string shown;
    QXDiskImageMounter::LicenseHandler licence;
    QXDiskImageMounter::YesNoPromptHandler yesNo;
    if (c.licenceAnswer >= 0) licence = [&](const qx::Ref<qx::String>& text) {
        shown += "L:" + text->utf8() + ";";
        return c.licenceAnswer == 1;
    };
    if (c.yesNoAnswer >= 0) yesNo = [&](const qx::Ref<qx::String>& output, const qx::Ref<qx::String>& console) {
        shown += "Q:" + output->utf8() + "|" + console->utf8() + ";";
        return c.yesNoAnswer == 1;
    };
    qx::Ref<qx::URL> mountPoint, device;
    qx::Ref<qx::Error> error;
    const bool ok = mounter()->attachImageAtURLWithoutMounting(qx::URL::fileURLWithPath(tool.dir / "image.dmg"),
                                                               c.withoutMounting, &mountPoint, &device, licence, yesNo,
                                                               &error);
    EXPECT_EQ(shown, c.shown);
    EXPECT_EQ(tool.log("answer "), c.answers);
    if (!c.domain) {
        ASSERT_TRUE(ok) << error->localizedDescription();
        EXPECT_EQ(device ? device->path() : "", c.expected);
        EXPECT_EQ(mountPoint ? mountPoint->path() : "", c.withoutMounting ? "" : tool.dir.path().string());
        return;
    }
    EXPECT_FALSE(ok);
    EXPECT_QX_ERROR(error, c.domain, c.code);
    if (*c.expected && error) {
        EXPECT_EQ(error->localizedDescription(), c.expected);
    }
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
        Conversation{"ConsoleUnderTenCharacters", false, false, 1, 1, "err hdiutil:\\n\nexit 1", QXErrorDomain, -1,
                     "Unknown Error image.dmg", "", ""},
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
    StandIn tool;
    tool.plist("mounted", entities({entity("disk7s1", tool.dir.path())}));
    tool.play(std::string(kEmptyImageInfo) + "attach err Go? y/n\nattach ask\nattach cat mounted\n");
    auto attach = [&] {
        return mounter()->attachImageAtURL(qx::URL::fileURLWithPath(tool.dir / "image.dmg"), nullptr, nullptr,
                                           [](auto&, auto&) { return true; });
    };
    auto other = std::async(std::launch::async, attach);
    EXPECT_TRUE(attach());
    EXPECT_TRUE(other.get());
}

// ---- command lines, detach and the tool's information -----------------------

TEST(DiskImageMounterTool, CommandLines) {
    StandIn tool(std::string(kEmptyImageInfo) + "attach cat mounted\n");
    tool.plist("mounted", entities({entity("disk7s1", "/mnt")}));
    const auto image = qx::URL::fileURLWithPath(tool.dir.file("my image.dmg", ""));
    EXPECT_TRUE(mounter()->attachImageWithoutMountingAtURL(image, nullptr, nullptr, nullptr));
    EXPECT_TRUE(mounter()->detachImageWithDevEntryURL(qx::URL::fileURLWithPath("/dev/disk7s1")));
    const std::string url = image->absoluteString();
    EXPECT_EQ(tool.log("run "), "info -plist\nimageinfo " + url +
                                    " -plist\nattach -readonly -nokernel -plist -noverify -nobrowse -noidme "
                                    "-noautoopen -puppetstrings -nomount " + url + "\ndetach /dev/disk7s1\n");
    QXDiskImageMounter::setToolPath(tool.dir / "missing");
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(mounter()->attachImageAtURL(image, nullptr, nullptr, nullptr, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, ENOENT);
}

struct ToolRun {
    const char* verb;   // "detach" or "info"
    const char* steps;
    const char* domain;  // nullptr: success
    std::int64_t code;
    const char* description;
};

void PrintTo(const ToolRun& r, std::ostream* os) { *os << r.verb << ": " << r.steps; }

class DiskImageMounterTool : public ::testing::TestWithParam<ToolRun> {};

TEST_P(DiskImageMounterTool, ErrorsFromTheToolsWords) {
    const auto& r = GetParam();
    StandIn tool;
    tool.plist("images", dict({{"images", qx::Array::create()}}));
    std::string scenario, step;
    for (std::istringstream in(r.steps); std::getline(in, step);) scenario += std::string(r.verb) + " " + step + "\n";
    tool.play(scenario);
    qx::Ref<qx::Error> error;
    const bool ok = std::string(r.verb) == "detach"
                        ? mounter()->detachImageWithDevEntryURL(qx::URL::fileURLWithPath("/dev/disk7"), &error)
                        : mounter()->globalInfoWithError(&error) != nullptr;
    EXPECT_EQ(ok, r.domain == nullptr);
    if (!r.domain) return;
    EXPECT_QX_ERROR(error, r.domain, r.code);
    if (*r.description && error) {
        EXPECT_EQ(error->localizedDescription(), r.description);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Runs, DiskImageMounterTool,
    ::testing::Values(ToolRun{"detach", "exit 0", nullptr, 0, ""},
                      ToolRun{"detach", "err hdiutil: couldn't eject \"disk7\" - Resource busy\\n\nexit 16",
                              qx::NSPOSIXErrorDomain, EBUSY, "couldn't eject \"disk7\" - Resource busy"},
                      ToolRun{"detach", "out hdiutil: detach failed - No such file or directory\\n\nexit 1",
                              QXErrorDomain, -1, "detach failed - No such file or directory"},
                      ToolRun{"detach", "out boom\nexit 2", QXErrorDomain, -1, "boom"},
                      ToolRun{"info", "cat images", nullptr, 0, ""},
                      ToolRun{"info", "cat images\nerr warning: hdiutil: info failed - Resource busy now\\n",
                              QXErrorDomain, -1, "info failed - Resource busy now"},
                      ToolRun{"info", "exit 0", qx::NSCocoaErrorDomain, 256, ""}));

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
        auto local = entities({entity(devices + "/d1"), entity(first, "/mnt/1"), entity(second, "/mnt/2")});
        auto remote = entities({entity("disk9s1", "/mnt/9")});
        qx::dyn_cast<qx::Dictionary>(local)->setObject(qx::str(image), "image-path");
        qx::dyn_cast<qx::Dictionary>(remote)->setObject(qx::str("https://example.com/c.dmg"), "image-path");
        tool.plist("info", dict({{"images", array({local, remote})}}));
    }
    ~DiskImageMounterAttached() override { std::filesystem::remove_all(devices); }

    // Gives the node a date in seconds, or removes it (-1).
    void date(const std::string& node, long seconds) const {
        if (seconds < 0) return (void)std::filesystem::remove(node);
        qxtest::writeFile(node, "");
        const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
        EXPECT_EQ(::utimensat(AT_FDCWD, node.c_str(), times, 0), 0);
    }
    std::string paths(const qx::Ref<qx::Array>& urls) const {
        std::string out;
        for (const auto& url : urls ? urls->items() : std::vector<qx::Ref<qx::Object>>{})
            out += qx::dyn_cast<qx::URL>(url)->path() + " ";
        return out;
    }
};

TEST_F(DiskImageMounterAttached, RecordsKeepMountedDevicesOfEachImage) {
    auto records = mounter()->currentlyAttachedImagesWithError();
    ASSERT_TRUE(records && records->count() == 2);
    std::string seen;
    for (const auto& item : *records) {
        auto record = qx::dyn_cast<qx::Dictionary>(item);
        seen += record->get<QXRef>("QXRef")->url()->absoluteString() + ": ";
        for (const auto& item : *record->get<qx::Array>("Partitions")) {
            auto partition = qx::dyn_cast<qx::Dictionary>(item);
            seen += partition->get<qx::URL>("DevEntryURL")->path() + " " +
                    partition->get<qx::URL>("MountPointURL")->path() + " ";
        }
    }
    EXPECT_EQ(seen, qx::URL::fileURLWithPath(image)->absoluteString() + ": " + first + " /mnt/1 " + second +
                        " /mnt/2 https://example.com/c.dmg: /dev/disk9s1 /mnt/9 ");
    qx::Ref<qx::Array> found;
    EXPECT_EQ(paths(mounter()->mountPointsForAttachedImageAtURL(qx::URL::fileURLWithPath(image), &found)),
              "/mnt/1 /mnt/2 ");
    EXPECT_EQ(paths(found), first + " " + second + " ");
    EXPECT_TRUE(mounter()->isDiskImageAttachedAtURL(qx::URL::URLWithString("https://example.com/c.dmg")));
}

TEST_F(DiskImageMounterAttached, ImagesNotAttachedOrNotThere) {
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(mounter()->devEntryURLsForAttachedImageAtURL(qx::URL::fileURLWithPath(tool.dir / "scenario"), &error));
    EXPECT_QX_ERROR(error, QXDiskImageMounterErrorDomain, 1);
    EXPECT_FALSE(mounter()->isDiskImageAttachedAtURL(qx::URL::fileURLWithPath(tool.dir / "gone.dmg")));
    EXPECT_FALSE(mounter()->mountPointForAttachedImageAtURL(qx::URL::fileURLWithPath(tool.dir / "gone.dmg"), nullptr,
                                                            &error));
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
        auto mountPoint = mounter()->mountPointForAttachedImageAtURL(qx::URL::fileURLWithPath(image), &device);
        ASSERT_TRUE(mountPoint && device);
        EXPECT_EQ(mountPoint->path(), c.chosen) << c.first << " " << c.second;
        EXPECT_EQ(device->path(), c.chosen == std::string("/mnt/1") ? first : second);
    }
}

TEST_F(DiskImageMounterAttached, ImageInfoAndDetachGoThroughTheDevices) {
    date(first, 100);
    date(second, 200);
    tool.play(std::string("info cat info\ndetach exit 0\n") + kEmptyImageInfo);
    EXPECT_TRUE(mounter()->imageInfoAtURL(qx::URL::fileURLWithPath(image)));
    EXPECT_TRUE(mounter()->detachImageAtURL(qx::URL::fileURLWithPath(image)));
    const std::string runs = tool.log("run ");
    EXPECT_NE(runs.find("imageinfo file://" + second + " -plist\n"), std::string::npos) << runs;
    EXPECT_NE(runs.find("info -plist\ndetach " + first + "\ndetach " + second + "\n"), std::string::npos) << runs;

    // A failure stops the walk; a node gone with an earlier one is skipped.
    qx::Ref<qx::Error> error;
    tool.play("info cat info\ndetach exit 1\n");
    EXPECT_FALSE(mounter()->detachImageAtURL(qx::URL::fileURLWithPath(image), &error));
    EXPECT_QX_ERROR(error, QXErrorDomain, -1);
    EXPECT_EQ(tool.log("run detach "), first + "\n");
    date(second, -1);
    tool.play("info cat info\ndetach exit 0\n");
    EXPECT_TRUE(mounter()->detachImageAtURL(qx::URL::fileURLWithPath(image)));
    EXPECT_EQ(tool.log("run detach "), first + "\n");
}

// ---- recognising images and choosing the tool ---------------------------------------

TEST(DiskImageMounter, RecognisesImagesByExtension) {
    const std::pair<const char*, bool> cases[] = {
        {"file:///a/x.dmg", true},  {"file:///a/X.SparseBundle/", true}, {"file:///a/x.dmg.bin", true},
        {"file:///a/x.Img.BIN", true}, {"file:///a/x.bin", false}, {"file:///a/x.txt.bin", false},
        {"file:///a/.dmg", false},  {"file:///a/dmg", false}, {"https://h/x.iso?y=1", true}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(mounter()->isDiskImageAtURL(qx::URL::URLWithString(text)), expected) << text;
    auto types = mounter()->diskImageTypes();
    ASSERT_EQ(types->count(), 18u);
    EXPECT_EQ(qx::dyn_cast<qx::String>(types->objectAtIndex(17))->utf8(), "image");
}

TEST(DiskImageMounter, ToolPathPrecedence) {
    ::unsetenv("QX_HDIUTIL_PATH");
    const std::string fallback = QXDiskImageMounter::toolPath();
    EXPECT_TRUE(fallback == "/usr/bin/hdiutil" || fallback.ends_with("/qxfoundation/hdiutil")) << fallback;
    ::setenv("QX_HDIUTIL_PATH", "/from/environment", 1);
    EXPECT_EQ(QXDiskImageMounter::toolPath(), "/from/environment");
    QXDiskImageMounter::setToolPath("/from/application");
    EXPECT_EQ(QXDiskImageMounter::toolPath(), "/from/application");
    QXDiskImageMounter::setToolPath("");
    ::unsetenv("QX_HDIUTIL_PATH");
    EXPECT_EQ(QXDiskImageMounter::toolPath(), fallback);
}
