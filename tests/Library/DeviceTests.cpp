// DeviceTests.cpp - devices and volumes on real loop devices, and the mapping of recorded descriptions.
#include "LoopDevices.h"

#include <QXFoundation/QXDeviceCallbackContext.h>
#include <QXFoundation/QXDeviceManager.h>

#include <qx/BlockDeviceService.h>

#include "UDisksObjects.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <sys/wait.h>

#include <sys/statvfs.h>
#include <sys/sysmacros.h>

using namespace qxtest;

namespace {

std::string nameOf(const qx::Ref<qx::Object>& item) {
    auto device = qx::dyn_cast<QXDevice>(item);
    return device && device->bsdName() ? device->bsdName()->utf8() : std::string("?");
}

std::string text(const qx::Ref<qx::String>& s) { return s ? s->utf8() : std::string("(nothing)"); }
std::string text(const qx::Ref<qx::UUID>& u) { return u ? qx::UUID::withString(u->UUIDString())->UUIDString() : "(nothing)"; }
std::string uuidText(const std::string& s) { return qx::UUID::withString(s)->UUIDString(); }

// Every test runs through each provider: the kernel's tables ("direct")
// and the storage daemon on the system bus ("udisks").
class DeviceTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { QX_REQUIRE_DEVICE_PROVIDER(GetParam()); }

    QXDeviceManager& manager() { return manager_; }
    const qx::Ref<qx::BlockDeviceProvider> provider_ = providerNamed(GetParam());
    QXDeviceManager manager_{provider_};
    LoopDevices loops{provider_};
};

INSTANTIATE_TEST_SUITE_P(Providers, DeviceTest, ::testing::Values("direct", "udisks"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST_P(DeviceTest, EnumerationAndEverySearch) {
    const std::string same = "QXS" + newUUID().substr(0, 8), label1 = "QXP" + newUUID().substr(0, 8);
    const std::string uuidA = newUUID(), table = newUUID(), parts[2] = {newUUID(), newUUID()}, volumes[2] = {newUUID(), newUUID()};
    const std::string a = loops.attach(loops.ext4Image("a.img", same, uuidA));
    const std::string g = loops.attach(loops.gptImage("g.img", table, parts, {label1, same}, volumes));
    ASSERT_FALSE(a.empty() || g.empty());

    // Whole disks by name, each followed at once by its partitions.
    std::vector<std::string> all;
    const auto devices = manager().allDiskDevices();
    for (const auto& item : *devices) all.push_back(nameOf(item));
    const auto at = [&](const std::string& n) { return std::find(all.begin(), all.end(), n) - all.begin(); };
    ASSERT_LT(at(g) + 2, static_cast<long>(all.size()));
    EXPECT_EQ(all[at(g) + 1], g + "p1");
    EXPECT_EQ(all[at(g) + 2], g + "p2");
    EXPECT_EQ(at(a) < at(g), a.size() < g.size() || (a.size() == g.size() && a < g));

    auto disk = manager().deviceWithBSDName("/dev/" + a);
    ASSERT_TRUE(disk);
    EXPECT_EQ(text(disk->bsdName()), a);
    EXPECT_EQ(text(disk->volumeKind()), "ext4");
    EXPECT_EQ(text(disk->volumeName()), same);
    EXPECT_EQ(text(disk->volumeUUID()), uuidText(uuidA));
    EXPECT_EQ(disk->mediaSize(), 8u << 20);
    EXPECT_EQ(disk->blockSize(), 512u);
    EXPECT_EQ(disk->bsdMajorNumber(), 7u);
    EXPECT_TRUE(disk->isWholeDisk() && disk->mediaIsLeaf() && disk->isWritable() && disk->volumeMountable());
    EXPECT_FALSE(disk->mountPointURL());
    EXPECT_EQ(text(disk->mediaPath()), "/dev/" + a);

    auto whole = manager().deviceWithBSDName(g);
    ASSERT_TRUE(whole);
    EXPECT_EQ(text(whole->mediaContent()), "gpt");
    EXPECT_FALSE(whole->mediaIsLeaf() || whole->volumeMountable() || whole->volumeKind());
    EXPECT_EQ(text(whole->mediaUUID()), uuidText(table));

    auto first = manager().deviceWithVolumeUUID(qx::UUID::withString(volumes[0]));
    ASSERT_TRUE(first);
    EXPECT_EQ(text(first->bsdName()), g + "p1");
    EXPECT_FALSE(first->isWholeDisk());
    EXPECT_EQ(text(first->mediaContent()), "0fc63daf-8483-4772-8e79-3d69d8477de4");
    EXPECT_EQ(text(first->mediaUUID()), uuidText(parts[0]));
    EXPECT_EQ(text(first->mediaName()), "first");
    EXPECT_EQ(text(first->volumeName()), label1);
    EXPECT_EQ(first->bsdUnitNumber(), whole->bsdUnitNumber());
    EXPECT_EQ(first->mediaSize(), 3u << 20);

    std::vector<std::string> named;
    const auto sameName = manager().devicesWithVolumeName(same);
    for (const auto& item : *sameName) named.push_back(nameOf(item));
    EXPECT_EQ(named, (at(a) < at(g) ? std::vector<std::string>{a, g + "p2"} : std::vector<std::string>{g + "p2", a}));

    auto second = manager().deviceWithMediaUUID(qx::UUID::withString(parts[1]));
    EXPECT_EQ(second ? text(second->bsdName()) : "", g + "p2");
    auto tableDevice = manager().deviceWithMediaUUID(qx::UUID::withString(table));
    EXPECT_EQ(tableDevice ? text(tableDevice->bsdName()) : "", g);

    // Nothing found is nothing.
    EXPECT_FALSE(manager().deviceWithVolumeUUID(nullptr));
    EXPECT_FALSE(manager().deviceWithVolumeUUID(qx::UUID::create()));
    EXPECT_FALSE(manager().deviceWithMediaUUID(qx::UUID::create()));
    EXPECT_EQ(manager().devicesWithVolumeName("QXNONE" + newUUID().substr(0, 8))->count(), 0u);
    EXPECT_FALSE(manager().deviceWithBSDName("loop-none"));
    EXPECT_FALSE(manager().deviceWithMountPointURL(qx::URL::fileURLWithPath(loops.dir().path().string(), true)));
    EXPECT_FALSE(manager().deviceContainingURL(qx::URL::fileURLWithPath("/proc/self/status")));
}

TEST_P(DeviceTest, MountFindUnmount) {
    const std::string label = "QXM" + newUUID().substr(0, 8);
    const std::string a = loops.attach(loops.ext4Image("a.img", label, newUUID()));
    auto device = manager().deviceWithBSDName(a);
    ASSERT_TRUE(device);

    qx::Ref<qx::Error> error;
    ASSERT_TRUE(device->mountAndReturnError(&error)) << error->localizedDescription();
    // The change comes with the answer: the device knows its mount point when the call returns.
    ASSERT_TRUE(device->mountPointURL());
    const std::string point = device->mountPointURL()->path();
    EXPECT_EQ(std::filesystem::path(point.substr(0, point.find_last_not_of('/') + 1)).filename(), label);
    writeFile(std::filesystem::path(point) / "inside", "x");

    auto byPoint = manager().deviceWithMountPointURL(qx::URL::fileURLWithPath(point, true));
    EXPECT_EQ(byPoint ? text(byPoint->bsdName()) : "", a);
    auto containing = manager().deviceContainingURL(qx::URL::fileURLWithPath(point + "/inside"));
    EXPECT_EQ(containing ? text(containing->bsdName()) : "", a);

    ASSERT_TRUE(device->unmountAndReturnError(&error)) << error->localizedDescription();
    EXPECT_FALSE(device->mountPointURL());
    EXPECT_FALSE(std::filesystem::exists(point)) << "the folder made for the mount stays behind";

    // A folder of the caller's (a name the mount table escapes), with options.
    const std::string folder = loops.dir() / "m n\\t";
    std::filesystem::create_directory(folder);
    auto readOnly = qx::Array::create();
    readOnly->addObject(qx::String::create("ro"));
    ASSERT_TRUE(device->mountToURL(qx::URL::fileURLWithPath(folder, true), false, readOnly, &error)) << error->localizedDescription();
    struct statvfs vfs {};
    ASSERT_EQ(::statvfs(folder.c_str(), &vfs), 0);
    EXPECT_TRUE(vfs.f_flag & ST_RDONLY);
    EXPECT_TRUE(std::filesystem::exists(folder + "/inside"));
    EXPECT_EQ(device->mountPointURL() ? device->mountPointURL()->path() : "", folder);
    EXPECT_FALSE(device->mountToURL(nullptr, false, nullptr, &error));  // already mounted
    EXPECT_EQ(error->code(), QXDiskArbitrationStatusExclusive);
    ASSERT_TRUE(device->unmountWholeDisk(false, false, &error)) << error->localizedDescription();
    EXPECT_TRUE(std::filesystem::exists(folder)) << "the caller's folder is the caller's";
    EXPECT_FALSE(device->unmountAndReturnError(&error));
    EXPECT_EQ(error->code(), QXDiskArbitrationStatusNotMounted);
}

TEST_P(DeviceTest, WholeDiskMountsEveryVolumeAndEjectWaitsForThem) {
    const std::string parts[2] = {newUUID(), newUUID()}, volumes[2] = {newUUID(), newUUID()};
    const std::string g = loops.attach(loops.gptImage("g.img", newUUID(), parts, {"QXW1", "QXW2"}, volumes));
    auto partition = manager().deviceWithBSDName(g + "p2");
    ASSERT_TRUE(partition);
    qx::Ref<qx::Error> error;
    ASSERT_TRUE(partition->mountToURL(nullptr, true, nullptr, &error)) << error->localizedDescription();
    auto one = manager().deviceWithBSDName(g + "p1");
    ASSERT_TRUE(one && one->mountPointURL() && partition->mountPointURL());

    // A mounted volume holds the disk.
    auto whole = manager().deviceWithBSDName(g);
    ASSERT_FALSE(whole->ejectAndReturnError(&error));
    EXPECT_EQ(error->code(), QXDiskArbitrationStatusBusy);
    ASSERT_TRUE(partition->unmountWholeDisk(true, false, &error)) << error->localizedDescription();
    EXPECT_FALSE(partition->mountPointURL());
    ASSERT_TRUE(whole->ejectAndReturnError(&error)) << error->localizedDescription();
    EXPECT_FALSE(loops.holds(g));
    EXPECT_EQ(whole->mediaSize(), 0u);
}

TEST_P(DeviceTest, BusyUnmountIsRefusedWithTheServicesTextUntilForced) {
    const std::string a = loops.attach(loops.ext4Image("a.img", "QXBUSY", newUUID()));
    auto device = manager().deviceWithBSDName(a);
    ASSERT_TRUE(device);
    qx::Ref<qx::Error> error;
    ASSERT_TRUE(device->mountAndReturnError(&error));
    ASSERT_TRUE(device->mountPointURL());
    const std::string point = device->mountPointURL()->path();
    // Another process working inside the volume.
    struct Child {
        pid_t pid = -1;
        ~Child() {
            if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
        }
    } child;
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    if ((child.pid = ::fork()) == 0) {
        if (::chdir(point.c_str()) == 0 && ::write(ready[1], "x", 1) == 1) ::pause();
        ::_exit(1);
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1) << "the child did not get inside";
    ::close(ready[0]);

    EXPECT_FALSE(device->unmountAndReturnError(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), QXDiskArbitrationErrorDomain);
    EXPECT_EQ(error->code(), QXDiskArbitrationStatusBusy);
    EXPECT_NE(error->localizedDescription().find("target is busy"), std::string::npos) << error->localizedDescription();
    EXPECT_TRUE(device->mountPointURL());

    EXPECT_TRUE(device->unmountWholeDisk(false, true, &error));
    EXPECT_FALSE(device->mountPointURL());
}

TEST_P(DeviceTest, ChangesMadeElsewhereReachTheDeviceOnItsRunLoop) {
    const std::string a = loops.attach(loops.ext4Image("a.img", "QXOLD", newUUID()));
    const std::string other = loops.ext4Image("b.img", "QXNEW", newUUID());
    auto device = manager().deviceWithBSDName(a);
    ASSERT_TRUE(device);
    device->session()->scheduleWithRunLoop(qx::RunLoop::current(), QXDeviceRunLoopMode);

    const std::string folder = loops.dir() / "mnt";
    std::filesystem::create_directory(folder);
    ASSERT_EQ(::mount(("/dev/" + a).c_str(), folder.c_str(), "ext4", 0, nullptr), 0) << std::strerror(errno);
    EXPECT_TRUE(runDeviceLoopUntil([&] { return device->mountPointURL() != nullptr; }));
    ASSERT_EQ(::umount2(folder.c_str(), 0), 0);
    EXPECT_TRUE(runDeviceLoopUntil([&] { return device->mountPointURL() == nullptr; }));

    // A label written by another program; the change event is the one the device manager's watch sends.
    ASSERT_EQ(std::system(("tune2fs -L QXRENAMED /dev/" + a + " >/dev/null").c_str()), 0);
    writeFile("/sys/class/block/" + a + "/uevent", "change");
    EXPECT_TRUE(runDeviceLoopUntil([&] { return text(device->volumeName()) == "QXRENAMED"; }));

    // The loop device detached, then attached to another image.
    LoopDevices::detach(a);
    EXPECT_TRUE(runDeviceLoopUntil([&] { return device->mediaSize() == 0; }));
    if (std::system(("losetup /dev/" + a + " " + other + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "another job took /dev/" << a << " meanwhile";
    EXPECT_TRUE(runDeviceLoopUntil([&] { return text(device->volumeName()) == "QXNEW"; }));
}

// A provider serving recorded descriptions: drive-level keys come from a
// storage daemon's property set, since these machines have no drives.
class RecordedProvider final : public qx::BlockDeviceProvider {
public:
    std::vector<qx::BlockDeviceDescription> list;
    qx::BlockDeviceAnswer answer;
    std::vector<std::string> requests;
    ChangeListener listener;

    std::vector<qx::BlockDeviceDescription> devices() override { return list; }
    std::optional<qx::BlockDeviceDescription> device(const std::string& name) override {
        for (const auto& d : list)
            if (d.name == name) return d;
        return std::nullopt;
    }
    qx::BlockDeviceAnswer mount(const std::string& name, const std::string& point, const std::string& options) override {
        requests.push_back("mount " + name + " at '" + point + "' with '" + options + "'");
        return answer;
    }
    qx::BlockDeviceAnswer unmount(const std::string& name, bool force) override {
        requests.push_back("unmount " + name + (force ? " force" : ""));
        return answer;
    }
    qx::BlockDeviceAnswer eject(const std::string& name) override { return requests.push_back("eject " + name), answer; }
    qx::BlockDeviceAnswer loopSetup(int, const qx::LoopSetupOptions&) override { return answer; }
    qx::BlockDeviceAnswer loopDelete(const std::string&) override { return answer; }
    std::uint64_t addChangeListener(ChangeListener l) override { return listener = std::move(l), 1; }
    void removeChangeListener(std::uint64_t) override { listener = nullptr; }
};

// The storage daemon's objects from a recorded answer of its object manager
// (busctl --json), read as the provider reads a live one.
qx::udisks::Objects recordedObjects(const std::string& name) {
    const auto bytes = [](const nlohmann::json& data) {
        std::string text;
        for (const auto& byte : data) text += static_cast<char>(byte.get<int>());
        return text.substr(0, text.find('\0'));
    };
    const std::string prefix = qx::udisks::kInterfacePrefix;
    qx::udisks::Objects objects;
    const auto reply = nlohmann::json::parse(readFile(std::string(QX_TESTDATA_DIR) + "/udisks/" + name));
    for (const auto& [path, interfaces] : reply.at("data").at(0).items())
        for (const auto& [interface, properties] : interfaces.items()) {
            if (interface.rfind(prefix, 0) != 0) continue;
            auto& target = objects[path][interface.substr(prefix.size())];
            for (const auto& [property, value] : properties.items()) {
                const std::string type = value.at("type");
                const auto& data = value.at("data");
                if (type == "b") target[property] = data.get<bool>();
                else if (type == "s" || type == "o") target[property] = data.get<std::string>();
                else if (type == "ay") target[property] = bytes(data);
                else if (type == "as" || type == "ao") target[property] = data.get<std::vector<std::string>>();
                else if (type == "t" || type == "u") target[property] = data.get<std::uint64_t>();
                else if (type == "aay") {
                    std::vector<std::string> list;
                    for (const auto& item : data) list.push_back(bytes(item));
                    target[property] = list;
                }
            }
        }
    return objects;
}

TEST(DeviceMapping, RecordedDriveKeysRequestsAndRefusals) {
    // A USB stick with one FAT partition, mounted: drives are what these machines lack.
    auto provider = std::make_shared<RecordedProvider>();
    provider->list = qx::udisks::describeObjects(recordedObjects("good-usb-stick-managed-objects.json"));
    QXDeviceManager manager(provider);
    auto stick = manager.deviceWithBSDName("sdb1");
    ASSERT_TRUE(stick);
    EXPECT_EQ(stick->mountPointURL() ? stick->mountPointURL()->path() : "", "/media/user/STICK");
    EXPECT_EQ(text(stick->volumeName()), "STICK");
    EXPECT_EQ(stick->mediaSize(), 15518924800u);
    EXPECT_EQ(provider->list[0].partitionTable->partitions, std::vector<std::string>{"sdb1"});
    EXPECT_EQ(text(stick->vendor()), "Kingston");
    EXPECT_EQ(text(stick->model()), "DataTraveler 3.0");
    EXPECT_EQ(text(stick->revision()), "PMAP");
    EXPECT_EQ(text(stick->protocol()), "usb");
    EXPECT_TRUE(stick->isEjectable() && stick->isRemovable());
    EXPECT_FALSE(stick->isInternal() || stick->isWholeDisk());
    EXPECT_EQ(stick->bsdMinorNumber(), 17u);
    EXPECT_EQ(stick->bsdUnitNumber(), 0u);  // "sdb" ends in no number
    EXPECT_EQ(text(stick->mediaContent()), "0x0c");
    EXPECT_FALSE(stick->volumeUUID() || stick->mediaUUID()) << "a FAT serial and an MBR entry's identifier are no UUIDs";

    // The request goes out with the options joined; the refusal comes back in the domain.
    provider->answer = qx::BlockDeviceAnswer::failure("org.freedesktop.UDisks2.Error.NotAuthorizedCanObtain", "busy");
    auto options = qx::Array::create();
    options->addObject(qx::String::create("ro"));
    options->addObject(qx::String::create("noexec"));
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(stick->mountToURL(qx::URL::fileURLWithPath("/mnt/x", true), false, options, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), QXDiskArbitrationStatusNotPrivileged);
    EXPECT_EQ(error->localizedDescription(), "busy");
    provider->answer = qx::BlockDeviceAnswer::success();
    EXPECT_TRUE(stick->unmountWholeDisk(false, true, &error));
    EXPECT_EQ(provider->requests, (std::vector<std::string>{"mount sdb1 at '/mnt/x' with 'ro,noexec'", "unmount sdb1 force"}));

    // A change the provider reports reaches the device on the loop its session waits on.
    provider->list[1].idLabel = "RENAMED";
    ASSERT_TRUE(provider->listener);
    provider->listener({"sdb1"});
    EXPECT_TRUE(runDeviceLoopUntil([&] { return text(stick->volumeName()) == "RENAMED"; }));

    auto disk = manager.deviceWithBSDName("sdb");
    ASSERT_TRUE(disk);
    EXPECT_EQ(text(disk->mediaContent()), "dos");
    EXPECT_EQ(text(disk->vendor()), "Kingston");
    EXPECT_TRUE(disk->isWholeDisk() && disk->isEjectable() && !disk->mediaIsLeaf());

    // Without a disk: empty, and every request refused.
    auto empty = QXDevice::initWithDADisk(nullptr, qx::BlockDeviceService::create(provider));
    EXPECT_FALSE(empty->bsdName() || empty->isWritable() || empty->mediaSize());
    EXPECT_FALSE(empty->ejectAndReturnError(&error));
    EXPECT_FALSE(QXDevice::initWithIOMedia(qx::String::create("sdb1"), qx::BlockDeviceService::create(provider)));
}

// The two providers describe the same loop devices alike: attached through
// the kernel, then seen by the daemon through the device manager's events.
TEST(DeviceProviders, DescribeTheSameLoopDevicesAlike) {
    QX_REQUIRE_DEVICE_PROVIDER("udisks");
    LoopDevices loops(providerNamed("direct"));
    const std::string parts[2] = {newUUID(), newUUID()}, volumes[2] = {newUUID(), newUUID()};
    const std::string a = loops.attach(loops.ext4Image("a.img", "QXALIKE", newUUID()));
    const std::string g = loops.attach(loops.gptImage("g.img", newUUID(), parts, {"QXALIKE1", "QXALIKE2"}, volumes));
    ASSERT_FALSE(a.empty() || g.empty());
    const std::string folder = loops.dir() / "mnt";
    std::filesystem::create_directory(folder);
    ASSERT_EQ(::mount(("/dev/" + g + "p2").c_str(), folder.c_str(), "ext4", MS_RDONLY, nullptr), 0) << std::strerror(errno);
    for (const std::string& name : {a, g, g + "p1", g + "p2"}) {
        const auto direct = providerNamed("direct")->device(name);
        ASSERT_TRUE(direct && direct->hasMedium()) << name;
        EXPECT_TRUE(waitForDescription(*providerNamed("udisks"), name, direct)) << name;
        EXPECT_EQ(providerNamed("udisks")->device(name), direct);
    }
    ::umount2(folder.c_str(), 0);
}

TEST(DeviceMapping, RefusalStatusesAndTexts) {
    const std::pair<const char*, std::int32_t> table[] = {
        {"org.freedesktop.UDisks2.Error.DeviceBusy", QXDiskArbitrationStatusBusy},
        {"org.freedesktop.UDisks2.Error.NotMounted", QXDiskArbitrationStatusNotMounted},
        {"org.freedesktop.UDisks2.Error.NotAuthorized", QXDiskArbitrationStatusNotPrivileged},
        {"org.freedesktop.UDisks2.Error.AlreadyMounted", QXDiskArbitrationStatusExclusive},
        {"org.freedesktop.UDisks2.Error.OptionNotPermitted", QXDiskArbitrationStatusBadArgument},
        {"org.freedesktop.UDisks2.Error.NotSupported", QXDiskArbitrationStatusUnsupported},
        {"org.freedesktop.DBus.Error.UnknownObject", QXDiskArbitrationStatusNotFound},
        {"org.freedesktop.UDisks2.Error.Failed", QXDiskArbitrationStatusError},
        {"org.example.DeviceBusy", QXDiskArbitrationStatusError},
    };
    for (const auto& [name, status] : table) EXPECT_EQ(QXDiskArbitrationStatusForErrorName(name), status) << name;

    auto withText = QXDiskArbitrationError(QXDiskArbitrationStatusBusy, "busy");
    EXPECT_EQ(withText->domain(), "QXDiskArbitrationErrorDomain");
    EXPECT_EQ(withText->code(), static_cast<std::int32_t>(0xF8DA0002));
    EXPECT_EQ(withText->localizedDescription(), "busy");
    EXPECT_EQ(QXDiskArbitrationError(QXDiskArbitrationStatusBusy, "")->localizedDescription(), "DiskArbitration error 0xf8da0002");
    EXPECT_EQ(QXDiskArbitrationError(0x1c, "")->localizedDescription(), "DiskArbitration error 0x1c");

    auto context = QXDeviceCallbackContext::create();
    EXPECT_FALSE(context->success() || context->error());
}

} // namespace
