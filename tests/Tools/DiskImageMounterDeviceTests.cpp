// DiskImageMounterDeviceTests.cpp - the mounter driving the Linux disk-image
// tool, as root, on real loop devices: once through the storage daemon and
// once straight through the kernel.
//
// The mounter's child inherits this process's environment, which is how each
// test picks the tool, its provider and its sandboxed folders. Whatever a test
// leaves attached, mounted or made fails it.
#include "DiskImageFixtures.h"
#include "DiskImageToolSandbox.h"
#include "HttpTestServer.h"

#include <QXFoundation/QXDiskImageMounter.h>
#include <QXFoundation/QXError.h>

#include <qx/Process.h>

namespace {

using qxtest::readFile;

const auto mounter = QXDiskImageMounter::sharedInstance;

std::string describe(const qx::Ref<qx::Error>& error) { return error ? error->description() : "no error"; }
// The paths of an array of file URLs.
std::set<std::string> paths(const qx::Ref<qx::Array>& urls) {
    std::set<std::string> result;
    for (const auto& each : urls ? urls->items() : std::vector<qx::Ref<qx::Object>>{})
        if (const auto url = qx::dyn_cast<qx::URL>(each)) result.insert(url->path());
    return result;
}
std::string fileIn(const qx::Ref<qx::Object>& point) {
    auto url = qx::dyn_cast<qx::URL>(point);
    return url ? readFile(url->path() + "/file.txt") : "(no mount point)";
}

// The provider's name, the tool and its folders in this process's
// environment while a test runs.
class MounterOnDevices {
protected:
    void enter(const std::string& provider) {
        auto variables = sandbox_.environment();
        variables.emplace_back("QX_BLOCK_DEVICE_PROVIDER", provider);
        variables.emplace_back("QX_HDIUTIL_PATH", QX_HDIUTIL_BINARY);
        for (const auto& variable : variables) {
            const char* old = std::getenv(variable.first.c_str());
            saved_.emplace_back(variable.first, old ? std::optional<std::string>(old) : std::nullopt);
            ::setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
    }
    void leave() {
        EXPECT_EQ(sandbox_.sweep(seen_), "") << "left behind";
        for (const auto& variable : saved_)
            variable.second ? ::setenv(variable.first.c_str(), variable.second->c_str(), 1) : ::unsetenv(variable.first.c_str());
    }

    // Attaches with mounting; the mount point, remembered for the sweep.
    qx::Ref<qx::URL> attach(const qx::Ref<qx::URL>& image, qx::Ref<qx::URL>* device = nullptr,
                            const QXDiskImageMounter::LicenseHandler& license = nullptr) {
        qx::Ref<qx::Error> error;
        auto point = mounter()->attachImageAtURL(image, device, license, nullptr, &error);
        EXPECT_TRUE(point) << describe(error);
        if (point) seen_.insert(point->path());
        return point;
    }

    qxtest::DiskImageToolSandbox sandbox_;
    std::set<std::string> seen_;

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// ---- every kind of disk: attached, looked up, detached ------------------------

enum class Disk { Ext4, Squashfs, Ext4TwoPartitions };
struct DiskCase {
    const char* name;
    Disk disk;
    std::optional<QXDiskImageFormat> format;
    const char* formatName;  // as the image information gives it
};
void PrintTo(const DiskCase& c, std::ostream* os) { *os << c.name; }

class MounterDisksDeviceTest : public ::testing::TestWithParam<std::tuple<const char*, DiskCase>>, protected MounterOnDevices {
protected:
    void SetUp() override {
        QX_REQUIRE_DEVICE_PROVIDER(std::get<0>(GetParam()));
        enter(std::get<0>(GetParam()));
    }
    void TearDown() override { leave(); }
};

TEST_P(MounterDisksDeviceTest, AttachesReadsBackListsAndDetaches) {
    const DiskCase& c = std::get<1>(GetParam());
    const std::string contents = "put in " + qxtest::newUUID() + "\n";
    std::string path = c.disk == Disk::Squashfs ? sandbox_.squashfsImage("disk.img", contents)
                                                : sandbox_.ext4Image("disk.img", contents, c.disk == Disk::Ext4TwoPartitions);
    if (c.format) path = sandbox_.udif(path, *c.format);
    const auto image = qx::URL::fileURLWithPath(path);
    const std::size_t volumes = c.disk == Disk::Ext4TwoPartitions ? 2 : 1;
    EXPECT_FALSE(mounter()->isDiskImageAttachedAtURL(image));

    qx::Ref<qx::URL> device;
    const auto point = attach(image, &device);
    ASSERT_TRUE(point && device);
    EXPECT_EQ(fileIn(point), contents);
    EXPECT_EQ(device->path().rfind("/dev/loop", 0), 0u) << device->path();
    // The whole disk first, then its volumes: the device reported is the mounted partition's.
    EXPECT_EQ(device->path().find('p', 9) != std::string::npos, volumes == 2) << device->path();

    qx::Ref<qx::Error> error;
    qx::Ref<qx::Array> devices;
    const auto points = mounter()->mountPointsForAttachedImageAtURL(image, &devices, &error);
    ASSERT_TRUE(points && devices) << describe(error);
    ASSERT_EQ(points->count(), volumes);
    ASSERT_EQ(devices->count(), volumes);
    for (const auto& each : *points) {
        EXPECT_EQ(fileIn(each), contents);
        seen_.insert(qx::dyn_cast<qx::URL>(each)->path());
    }
    EXPECT_TRUE(paths(points).count(point->path()));
    EXPECT_TRUE(paths(devices).count(device->path()));
    EXPECT_TRUE(mounter()->isDiskImageAttachedAtURL(image));
    qx::Ref<qx::URL> newest;
    const auto one = mounter()->mountPointForAttachedImageAtURL(image, &newest, &error);
    ASSERT_TRUE(one && newest) << describe(error);
    EXPECT_TRUE(paths(points).count(one->path()));
    EXPECT_TRUE(paths(devices).count(newest->path()));

    const auto images = mounter()->currentlyAttachedImagesWithError(&error);
    ASSERT_TRUE(images) << describe(error);
    std::size_t records = 0;
    for (const auto& each : *images) {
        const auto record = qx::dyn_cast<qx::Dictionary>(each);
        const auto ref = qx::dyn_cast<QXRef>(record->objectForKey(QXDiskImageMounter::kRefKey));
        if (!ref || !ref->isSameFileAsURL(image)) continue;
        ++records;
        EXPECT_EQ(record->get<qx::Array>(QXDiskImageMounter::kPartitionsKey)->count(), volumes);
    }
    EXPECT_EQ(records, 1u) << "the attached image is not listed once";

    // Asked about an attached image, the tool is asked about its device.
    const auto info = mounter()->imageInfoAtURL(image, &error);
    ASSERT_TRUE(info) << describe(error);
    EXPECT_EQ(info->get<qx::String>("Format")->utf8(), c.formatName);

    EXPECT_TRUE(mounter()->detachImageAtURL(image, &error)) << describe(error);
    EXPECT_FALSE(mounter()->isDiskImageAttachedAtURL(image));
    for (const auto& each : *points) EXPECT_FALSE(std::filesystem::exists(qx::dyn_cast<qx::URL>(each)->path() + "/file.txt"));
    EXPECT_TRUE(sandbox_.loopDevices().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Providers, MounterDisksDeviceTest,
    ::testing::Combine(::testing::Values("udisks", "direct"),
                       ::testing::Values(DiskCase{"RawExt4", Disk::Ext4, std::nullopt, "UDRW"},
                                         DiskCase{"RawSquashfs", Disk::Squashfs, std::nullopt, "UDRW"},
                                         DiskCase{"UDZOExt4", Disk::Ext4, QXDiskImageFormat::UDZO, "UDZO"},
                                         DiskCase{"UDBZSquashfs", Disk::Squashfs, QXDiskImageFormat::UDBZ, "UDBZ"},
                                         DiskCase{"ULMOExt4", Disk::Ext4, QXDiskImageFormat::ULMO, "ULMO"},
                                         DiskCase{"UDZOGPTTwoPartitions", Disk::Ext4TwoPartitions, QXDiskImageFormat::UDZO, "UDZO"})),
    [](const auto& info) { return std::string(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name; });

// ---- the conversation's other endings, on real devices ------------------------

class MounterDeviceTest : public ::testing::TestWithParam<const char*>, protected MounterOnDevices {
protected:
    void SetUp() override {
        QX_REQUIRE_DEVICE_PROVIDER(GetParam());
        enter(GetParam());
    }
    void TearDown() override { leave(); }
};

TEST_P(MounterDeviceTest, LicenseDeclinedAttachesNothingAndAcceptedOnceMounts) {
    const auto image = qx::URL::fileURLWithPath(
        sandbox_.udif(sandbox_.ext4Image("licensed.img", "kindly\n"), QXDiskImageFormat::UDZO, "Use it kindly."));
    std::vector<std::string> shown;
    const auto answering = [&shown](bool answer) {
        return [&shown, answer](const qx::Ref<qx::String>& agreement) {
            shown.push_back(agreement->utf8());
            return answer;
        };
    };
    std::size_t questions = 0;
    const auto question = [&questions](const qx::Ref<qx::String>&, const qx::Ref<qx::String>&) { return ++questions, true; };

    for (const bool withCallback : {true, false}) {
        qx::Ref<qx::Error> error;
        qx::Ref<qx::URL> device;
        EXPECT_FALSE(mounter()->attachImageAtURL(image, &device, withCallback ? QXDiskImageMounter::LicenseHandler(answering(false)) : nullptr, question, &error));
        EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 3072);
        EXPECT_FALSE(device);
        EXPECT_TRUE(sandbox_.loopDevices().empty()) << "attached after a declined licence";
    }
    EXPECT_EQ(shown, std::vector<std::string>{"Use it kindly."});

    qx::Ref<qx::Error> error;
    qx::Ref<qx::URL> device;
    const auto point = mounter()->attachImageAtURL(image, &device, answering(true), question, &error);
    ASSERT_TRUE(point) << describe(error);
    seen_.insert(point->path());
    EXPECT_EQ(fileIn(point), "kindly\n");
    EXPECT_EQ(shown.size(), 2u);
    EXPECT_EQ(questions, 0u) << "the licence went to the yes/no callback too";
    EXPECT_TRUE(mounter()->detachImageWithDevEntryURL(device, &error)) << describe(error);
}

TEST_P(MounterDeviceTest, BusyDetachIsDeviceBusyAndLeavesTheImageMounted) {
    const auto image = qx::URL::fileURLWithPath(sandbox_.ext4Image("busy.img", "busy\n"));
    qx::Ref<qx::URL> device;
    const auto point = attach(image, &device);
    ASSERT_TRUE(point && device);
    auto inside = qx::Process::create("/bin/sleep", {"60"});
    inside->setCurrentDirectory(point->path());
    ASSERT_TRUE(inside->launch());
    qx::Ref<qx::Error> error;
    const bool detached = mounter()->detachImageWithDevEntryURL(device, &error);
    inside->terminate();
    inside->waitUntilExit();
    EXPECT_FALSE(detached);
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, 16);
    EXPECT_EQ(fileIn(point), "busy\n");
    EXPECT_TRUE(mounter()->isDiskImageAttachedAtURL(image));
    EXPECT_TRUE(mounter()->detachImageAtURL(image, &error)) << describe(error);
}

TEST_P(MounterDeviceTest, FileSystemTheKernelCannotMountAttachesWithoutAMountPoint) {
    if (readFile("/proc/filesystems").find("hfsplus") != std::string::npos) GTEST_SKIP() << "this kernel mounts HFS+";
    // A copy in the sandbox, so that the sweep finds its loop device if one is left.
    const std::string path = sandbox_.dir() / "hfs.dmg";
    std::filesystem::copy_file(diskimage::fixturePath("nodeudif-gpt.dmg"), path);
    const auto image = qx::URL::fileURLWithPath(path);
    qx::Ref<qx::Error> error;
    qx::Ref<qx::URL> device;
    EXPECT_FALSE(mounter()->attachImageAtURL(image, &device, nullptr, nullptr, &error));
    EXPECT_QX_ERROR(error, QXErrorDomain, -1);
    EXPECT_EQ(error ? error->localizedDescription() : "", "Attach failed - no mountable file systems");
    EXPECT_TRUE(sandbox_.loopDevices().empty()) << "a failed attach stays attached";

    ASSERT_TRUE(mounter()->attachImageWithoutMountingAtURL(image, &device, nullptr, nullptr, &error)) << describe(error);
    ASSERT_TRUE(device);
    EXPECT_EQ(sandbox_.loopDevices(), std::vector<std::string>{device->lastPathComponent()});
    EXPECT_FALSE(mounter()->isDiskImageAttachedAtURL(image)) << "only mounted volumes count";
    EXPECT_TRUE(mounter()->detachImageWithDevEntryURL(device, &error)) << describe(error);
}

TEST_P(MounterDeviceTest, RemoteImageAttachedByItsURL) {
    HttpTestServer server(
        qxtest::readBytes(sandbox_.udif(sandbox_.ext4Image("remote.img", "from afar\n"), QXDiskImageFormat::UDZO)));
    const auto image = qx::URL::URLWithString(server.url(HttpTestServer::RangesPath));
    qx::Ref<qx::URL> device;
    const auto point = attach(image, &device);
    ASSERT_TRUE(point && device);
    EXPECT_EQ(fileIn(point), "from afar\n");
    qx::Ref<qx::Error> error;
    EXPECT_TRUE(mounter()->isDiskImageAttachedAtURL(image));
    EXPECT_TRUE(mounter()->detachImageAtURL(image, &error)) << describe(error);
}

INSTANTIATE_TEST_SUITE_P(Providers, MounterDeviceTest, ::testing::Values("udisks", "direct"));

} // namespace
