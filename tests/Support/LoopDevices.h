// LoopDevices.h - small ext4 images attached as loop devices, for the device tests.
//
// Needs root, /dev/loop-control, mkfs.ext4 and sfdisk, and for the storage
// daemon's provider the daemon on the system bus. Tests call
// QX_REQUIRE_LOOP_DEVICES() or QX_REQUIRE_DEVICE_PROVIDER() first: without
// them the test is skipped with the reason, except when CI=true, where it fails. Everything attached through a
// LoopDevices is unmounted and detached when it goes, by device.
#pragma once

#include "MountTable.h"
#include "TestSupport.h"

#include <qx/BlockDeviceProvider.h>
#include <qx/RunLoop.h>
#include <qx/UUID.h>
#include <qx/UniqueFd.h>

#include <QXFoundation/QXDevice.h>

#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <linux/loop.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

namespace qxtest {

inline std::string missingLoopPrerequisite() {
    if (::geteuid() != 0) return "loop devices and mounts need root";
    if (::access("/dev/loop-control", W_OK) != 0) return "no /dev/loop-control";
    if (std::system("command -v mkfs.ext4 >/dev/null && command -v sfdisk >/dev/null") != 0)
        return "mkfs.ext4 or sfdisk is missing (scripts/setup.sh installs them)";
    return {};
}

#define QX_REQUIRE_LOOP_DEVICES() QX_SKIP_OR_FAIL_UNLESS_EMPTY(::qxtest::missingLoopPrerequisite())

// The provider a device test runs through: "direct" or "udisks" (nothing
// while the system bus has no storage daemon).
inline qx::Ref<qx::BlockDeviceProvider> providerNamed(const std::string& name) {
    return name == "udisks" ? qx::BlockDeviceProvider::udisksProvider() : qx::BlockDeviceProvider::directProvider();
}

inline std::string missingProviderPrerequisite(const std::string& name) {
    std::string why = missingLoopPrerequisite();
    if (why.empty() && !providerNamed(name))
        why = "no storage daemon on the system bus (scripts/udisks-services.sh start; setup.sh installs udisks2)";
    return why;
}

#define QX_REQUIRE_DEVICE_PROVIDER(name) QX_SKIP_OR_FAIL_UNLESS_EMPTY(::qxtest::missingProviderPrerequisite(name))

inline std::string newUUID() {
    std::string text = qx::UUID::create()->UUIDString();
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

class LoopDevices {
public:
    explicit LoopDevices(qx::Ref<qx::BlockDeviceProvider> provider = qx::BlockDeviceProvider::directProvider())
        : provider_(std::move(provider)) {}
    ~LoopDevices() {
        for (auto it = attached_.rbegin(); it != attached_.rend(); ++it) detach(*it);
    }
    LoopDevices(const LoopDevices&) = delete;
    LoopDevices& operator=(const LoopDevices&) = delete;

    const TempDir& dir() const { return dir_; }

    // An 8 MiB ext4 image with this label and UUID.
    std::string ext4Image(const std::string& name, const std::string& label, const std::string& uuid) const {
        const std::string path = dir_ / name;
        run("truncate -s 8M " + path + " && mkfs.ext4 -q -F -L " + label + " -U " + uuid + " " + path);
        return path;
    }

    // An 8 MiB GPT image (table UUID tableUUID) with two 3 MiB ext4 partitions
    // named "first" and "second", with these partition UUIDs and volume labels and UUIDs.
    std::string gptImage(const std::string& name, const std::string& tableUUID, const std::string (&partUUID)[2],
                         const std::string (&label)[2], const std::string (&uuid)[2]) const {
        const std::string path = dir_ / name;
        run("truncate -s 8M " + path + " && printf 'label: gpt\\nlabel-id: " + tableUUID + "\\nstart=2048, size=6144, uuid=" +
            partUUID[0] + ", name=first\\nstart=8192, size=6144, uuid=" + partUUID[1] + ", name=second\\n' | sfdisk -q " + path);
        for (int i = 0; i < 2; ++i)
            run("mkfs.ext4 -q -F -E offset=" + std::to_string((i ? 8192 : 2048) * 512) + " -L " + label[i] + " -U " + uuid[i] +
                " " + path + " 3M");
        return path;
    }

    // Whether the device called name is still bound to a file of this
    // folder. Not by its number alone: once detached, the number may be
    // another test's device.
    bool holds(const std::string& name) const {
        return readFile("/sys/class/block/" + name + "/loop/backing_file").rfind(dir_.path().string() + "/", 0) == 0;
    }

    // Attaches path through the provider (partitions announced); the device's name.
    std::string attach(const std::string& path) {
        qx::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!provider_) return {};
        const auto answer = provider_->loopSetup(fd.get(), {});
        EXPECT_TRUE(answer.succeeded()) << answer.errorName << ": " << answer.message;
        if (answer.succeeded()) attached_.push_back(answer.result);
        return answer.result;
    }

    // Unmounts whatever is mounted from the device or its partitions and detaches it.
    static void detach(const std::string& name) {
        std::vector<std::string> points;
        for (const auto& mount : mountTable())
            if (mount.source == "/dev/" + name || mount.source.rfind("/dev/" + name + "p", 0) == 0) points.push_back(mount.point);
        for (auto it = points.rbegin(); it != points.rend(); ++it) {
            ::umount2(it->c_str(), MNT_DETACH);
            // The folders the providers made for their mounts (the daemon's are under /media).
            if (it->rfind("/run/media/", 0) == 0 || it->rfind("/media/", 0) == 0) ::rmdir(it->c_str());
        }
        qx::UniqueFd loop(::open(("/dev/" + name).c_str(), O_RDONLY | O_CLOEXEC));
        if (loop) ::ioctl(loop.get(), LOOP_CLR_FD, 0);
    }

private:
    static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

    qx::Ref<qx::BlockDeviceProvider> provider_;
    TempDir dir_{"qx-devices"};
    std::vector<std::string> attached_;
};

// Waits (10 s at most) until provider describes the device called name as
// expected, looking again on each change it reports; whether it came to that.
inline bool waitForDescription(qx::BlockDeviceProvider& provider, const std::string& name,
                               const std::optional<qx::BlockDeviceDescription>& expected) {
    std::mutex mutex;
    std::condition_variable changed;
    std::uint64_t changes = 0;
    const auto token = provider.addChangeListener([&](const std::vector<std::string>&) {
        std::lock_guard<std::mutex> lock(mutex);
        ++changes;
        changed.notify_all();
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool same = false;
    for (;;) {
        std::unique_lock<std::mutex> lock(mutex);
        const std::uint64_t seen = changes;
        lock.unlock();
        if ((same = provider.device(name) == expected)) break;
        lock.lock();
        if (!changed.wait_until(lock, deadline, [&] { return changes != seen; })) break;
    }
    provider.removeChangeListener(token);
    return same;
}

// Runs the calling thread's loop in the devices' private mode until done() or 10 s pass.
inline bool runDeviceLoopUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        qx::RunLoop::current()->runMode(QXDeviceRunLoopMode, std::chrono::milliseconds(100));
    }
    return true;
}

} // namespace qxtest

namespace qx {
// What a failed comparison of descriptions prints.
inline void PrintTo(const BlockDeviceDescription& d, std::ostream* os) {
    *os << d.name << " " << d.device << " number " << d.deviceNumber << " size " << d.size << " block " << d.logicalBlockSize
        << " seq " << d.diskSeq << " ro " << d.readOnly << " system " << d.hintSystem << " id " << d.idUsage << "/" << d.idType
        << "/" << d.idLabel << "/" << d.idUUID << "/" << d.idVersion << " at " << d.sysfsPath;
    for (const auto& point : d.filesystem ? d.filesystem->mountPoints : std::vector<std::string>{"(no file system)"}) *os << " on " << point;
    if (d.partition)
        *os << " partition " << d.partition->number << " " << d.partition->offset << "+" << d.partition->size << " " << d.partition->type
            << " " << d.partition->uuid << " '" << d.partition->name << "' of " << d.partition->table;
    if (d.partitionTable) *os << " table " << d.partitionTable->type << " " << d.partitionTable->uuid << " parts " << d.partitionTable->partitions.size();
    if (d.loop) *os << " loop " << d.loop->backingFile << " autoclear " << d.loop->autoclear << " by " << d.loop->setupByUID;
    if (d.drive) *os << " drive " << d.drive->vendor << " " << d.drive->model;
}
} // namespace qx
