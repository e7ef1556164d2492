// DirectBlockDeviceProvider.cpp - block devices straight from the kernel, as root.
#include "DirectBlockDeviceProvider.h"

#include "BlockDeviceProbe.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace qx {

namespace {

namespace fs = std::filesystem;
namespace name = BlockDeviceErrorName;

// The storage daemon's words for what errno says, so that both providers
// refuse alike.
BlockDeviceAnswer refusal(int error, const std::string& what) {
    const char* errorName = name::Failed;
    if (error == EBUSY) errorName = name::DeviceBusy;
    else if (error == EPERM || error == EACCES) errorName = name::NotAuthorized;
    return BlockDeviceAnswer::failure(errorName, what + ": " + std::strerror(error));
}

BlockDeviceAnswer noSuchDevice(const std::string& device) {
    return BlockDeviceAnswer::failure(name::NoSuchDevice, "No such device: " + device);
}

struct MountFlag {
    const char* word;
    unsigned long set, clear;
};

constexpr MountFlag kMountFlags[] = {
    {"ro", MS_RDONLY, 0},          {"rw", 0, MS_RDONLY},
    {"nosuid", MS_NOSUID, 0},      {"suid", 0, MS_NOSUID},
    {"nodev", MS_NODEV, 0},        {"dev", 0, MS_NODEV},
    {"noexec", MS_NOEXEC, 0},      {"exec", 0, MS_NOEXEC},
    {"sync", MS_SYNCHRONOUS, 0},   {"async", 0, MS_SYNCHRONOUS},
    {"dirsync", MS_DIRSYNC, 0},    {"noatime", MS_NOATIME, 0},
    {"atime", 0, MS_NOATIME},      {"nodiratime", MS_NODIRATIME, 0},
    {"relatime", MS_RELATIME, 0},  {"strictatime", MS_STRICTATIME, 0},
};

// Words that would make mount(2) do something else than mount this device.
constexpr const char* kRefusedOptions[] = {"remount", "bind", "rbind", "move", "shared", "private", "slave", "unbindable"};

// Splits mount(8)-style options into mount(2)'s flags and the file system's
// own data; false (with the word) for an option this provider will not pass.
bool parseMountOptions(const std::string& options, unsigned long& flags, std::string& data, std::string& refused) {
    std::size_t start = 0;
    while (start <= options.size()) {
        const std::size_t comma = std::min(options.find(',', start), options.size());
        const std::string word = options.substr(start, comma - start);
        start = comma + 1;
        if (word.empty()) continue;
        if (std::find_if(std::begin(kRefusedOptions), std::end(kRefusedOptions),
                         [&](const char* r) { return word == r; }) != std::end(kRefusedOptions)) {
            refused = word;
            return false;
        }
        auto flag = std::find_if(std::begin(kMountFlags), std::end(kMountFlags), [&](const MountFlag& f) { return word == f.word; });
        if (flag != std::end(kMountFlags)) {
            flags = (flags | flag->set) & ~flag->clear;
        } else {
            if (!data.empty()) data += ',';
            data += word;
        }
    }
    return true;
}

// A folder for the volume under root, named after its label (or UUID, or
// device) with a number added while the name is taken by something not empty.
std::string makeDefaultMountPoint(const BlockDeviceDescription& d, std::string& failure) {
    const fs::path root = DirectBlockDeviceProvider::defaultMountRoot();
    std::error_code ec;
    fs::create_directories(root, ec);
    std::string base = !d.idLabel.empty() ? d.idLabel : !d.idUUID.empty() ? d.idUUID : d.name;
    std::replace(base.begin(), base.end(), '/', '_');
    if (base == "." || base == "..") base = d.name;
    for (int suffix = 0; suffix < 1000; ++suffix) {
        const fs::path candidate = root / (suffix ? base + std::to_string(suffix) : base);
        if (::mkdir(candidate.c_str(), 0700) == 0) return candidate.string();
        if (errno != EEXIST) {
            failure = std::string("Error creating mount point ") + candidate.string() + ": " + std::strerror(errno);
            return {};
        }
    }
    failure = "Error creating mount point under " + root.string() + ": too many volumes of that name";
    return {};
}

std::vector<std::string> mountPointsOfDisk(const std::vector<blockprobe::MountEntry>& mounts, std::uint64_t device) {
    std::vector<std::string> points;
    for (const auto& mount : mounts)
        if (mount.deviceNumber == device) points.push_back(mount.mountPoint);
    return points;
}

// The names in one uevent of the block subsystem ("DEVNAME=loop3"), if any.
void collectUeventName(const char* message, std::size_t length, std::vector<std::string>& names) {
    bool block = false;
    std::string device;
    for (std::size_t at = 0; at < length;) {
        const std::string_view field(message + at, strnlen(message + at, length - at));
        if (field == "SUBSYSTEM=block") block = true;
        if (field.rfind("DEVNAME=", 0) == 0) device = std::string(field.substr(8));
        at += field.size() + 1;
    }
    if (block && !device.empty()) names.push_back(fs::path(device).filename().string());
}

UniqueFd openUeventSocket() {
    UniqueFd socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;  // the kernel's own events
    if (socket && ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) socket.reset();
    return socket;
}

// True when the device manager (udevd) answers on its control socket.
bool deviceManagerRuns() {
    UniqueFd control(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, "/run/udev/control", sizeof address.sun_path - 1);
    return control && ::connect(control.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// Waits (at most a second) for a "change" event of the device on the
// kernel's event socket.
void waitForChangeEvent(const std::string& deviceName, int events) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    std::vector<char> buffer(8192);
    for (;;) {
        ssize_t length;
        while ((length = ::recv(events, buffer.data(), buffer.size(), 0)) > 0) {
            bool change = false;
            std::vector<std::string> names;
            collectUeventName(buffer.data(), static_cast<std::size_t>(length), names);
            for (std::size_t at = 0; at < static_cast<std::size_t>(length); at += strnlen(buffer.data() + at, length - at) + 1)
                change = change || std::strcmp(buffer.data() + at, "ACTION=change") == 0;
            if (change && std::find(names.begin(), names.end(), deviceName) != names.end()) return;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd p{events, POLLIN, 0};
        if (left <= 0 || (::poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR)) return;
    }
}

// True while the device still reports a medium; its size is the last thing
// the kernel clears on a detach (after the loop attributes go).
bool hasMedium(const std::string& deviceName) {
    UniqueFd size(::open(("/sys/class/block/" + deviceName + "/size").c_str(), O_RDONLY | O_CLOEXEC));
    char text[32] = {};
    return size && ::read(size.get(), text, sizeof text - 1) > 0 && std::strtoull(text, nullptr, 10) != 0;
}

// Waits (at most a few seconds, on the kernel's events) until the loop
// device has let go of its file. Without events (no socket) it returns at once.
void waitForDetach(const std::string& deviceName, int events) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::vector<char> buffer(8192);
    while (events >= 0 && hasMedium(deviceName)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) return;
        pollfd p{events, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR) return;
        while (::recv(events, buffer.data(), buffer.size(), 0) > 0) {
        }
    }
}

} // namespace

DirectBlockDeviceProvider::DirectBlockDeviceProvider() : stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

DirectBlockDeviceProvider::~DirectBlockDeviceProvider() {
    if (watcher_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(stop_.get(), &one, sizeof one);
        watcher_.join();
    }
}

std::string DirectBlockDeviceProvider::defaultMountRoot() {
    const passwd* user = ::getpwuid(::geteuid());
    return std::string("/run/media/") + (user && user->pw_name ? user->pw_name : std::to_string(::geteuid()));
}

std::vector<BlockDeviceDescription> DirectBlockDeviceProvider::devices() {
    const auto mounts = blockprobe::readMountTable();
    std::vector<BlockDeviceDescription> list;
    for (const auto& deviceName : blockprobe::blockDeviceNames())
        if (auto d = blockprobe::describe(deviceName, mounts); d && d->hasMedium()) list.push_back(std::move(*d));
    return list;
}

std::optional<BlockDeviceDescription> DirectBlockDeviceProvider::device(const std::string& deviceName) {
    return blockprobe::describe(deviceName, blockprobe::readMountTable());
}

BlockDeviceAnswer DirectBlockDeviceProvider::mount(const std::string& deviceName, const std::string& mountPoint,
                                                  const std::string& options) {
    const auto d = device(deviceName);
    if (!d) return noSuchDevice(deviceName);
    if (!d->filesystem)
        return BlockDeviceAnswer::failure(name::NotSupported, "Device " + d->device + " has no mountable file system");
    if (!d->filesystem->mountPoints.empty())
        return BlockDeviceAnswer::failure(name::AlreadyMounted,
                                          "Device " + d->device + " is already mounted at `" + d->filesystem->mountPoints.front() + "'.");
    unsigned long flags = MS_NOSUID | MS_NODEV | MS_RELATIME;
    std::string data, refused;
    if (!parseMountOptions(options, flags, data, refused))
        return BlockDeviceAnswer::failure(name::OptionNotPermitted, "Mount option `" + refused + "' is not allowed");
    if (d->readOnly) flags |= MS_RDONLY;

    std::string target = mountPoint, failure;
    const bool madeFolder = target.empty();
    if (madeFolder && (target = makeDefaultMountPoint(*d, failure)).empty())
        return BlockDeviceAnswer::failure(name::Failed, failure);
    if (::mount(d->device.c_str(), target.c_str(), d->idType.c_str(), flags, data.empty() ? nullptr : data.c_str()) != 0) {
        const int error = errno;
        if (madeFolder) ::rmdir(target.c_str());
        return refusal(error, "Error mounting " + d->device + " at " + target);
    }
    listeners_.announce({deviceName});
    return BlockDeviceAnswer::success(target);
}

BlockDeviceAnswer DirectBlockDeviceProvider::unmount(const std::string& deviceName, bool force) {
    const auto d = device(deviceName);
    if (!d) return noSuchDevice(deviceName);
    if (!d->filesystem || d->filesystem->mountPoints.empty())
        return BlockDeviceAnswer::failure(name::NotMounted, "Device `" + d->device + "' is not mounted");
    const std::string root = defaultMountRoot() + "/";
    // The latest mount first: one stacked on another must go before it.
    auto points = d->filesystem->mountPoints;
    std::reverse(points.begin(), points.end());
    for (const auto& point : points) {
        if (::umount2(point.c_str(), force ? MNT_FORCE | MNT_DETACH : 0) != 0) {
            const int error = errno;
            listeners_.announce({deviceName});
            // umount(8)'s words, which the storage daemon passes on as well.
            if (error == EBUSY)
                return BlockDeviceAnswer::failure(name::DeviceBusy, "Error unmounting " + d->device + ": target is busy");
            return refusal(error, "Error unmounting " + d->device);
        }
        // Folders this provider made for a mount go with it.
        if (point.rfind(root, 0) == 0) ::rmdir(point.c_str());
    }
    listeners_.announce({deviceName});
    return BlockDeviceAnswer::success();
}

BlockDeviceAnswer DirectBlockDeviceProvider::eject(const std::string& deviceName) {
    const std::string disk = blockprobe::wholeDiskName(deviceName);
    const auto d = device(disk);
    if (!d) return noSuchDevice(deviceName);
    if (!d->loop) return BlockDeviceAnswer::failure(name::NotSupported, "Device " + d->device + " is not ejectable");
    return loopDelete(disk);
}

BlockDeviceAnswer DirectBlockDeviceProvider::announcePartitions(const std::string& deviceName) {
    const std::string path = "/dev/" + deviceName;
    const auto entries = blockprobe::readPartitionEntries(path);
    if (entries.empty()) return BlockDeviceAnswer::success();
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return refusal(errno, "Error opening " + path);
    for (const auto& entry : entries) {
        blkpg_partition partition{};
        partition.start = static_cast<long long>(entry.start);
        partition.length = static_cast<long long>(entry.length);
        partition.pno = entry.number;
        blkpg_ioctl_arg arg{};
        arg.op = BLKPG_ADD_PARTITION;
        arg.datalen = sizeof partition;
        arg.data = &partition;
        // EBUSY: the kernel announced this one already.
        if (::ioctl(fd.get(), BLKPG, &arg) != 0 && errno != EBUSY)
            return refusal(errno, "Error adding partition " + std::to_string(entry.number) + " of " + path);
    }
    return BlockDeviceAnswer::success();
}

BlockDeviceAnswer DirectBlockDeviceProvider::loopSetup(int fd, const LoopSetupOptions& options) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return refusal(errno, "Error setting up loop device");
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        return BlockDeviceAnswer::failure(name::Failed, "Error setting up loop device: not a file or a block device");
    loop_config config{};
    config.fd = static_cast<std::uint32_t>(fd);
    config.info.lo_offset = options.offset;
    config.info.lo_sizelimit = options.size;
    config.info.lo_flags = (options.readOnly ? LO_FLAGS_READ_ONLY : 0) | (options.noPartScan ? 0 : LO_FLAGS_PARTSCAN);
    {
        char link[64], path[4096];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t length = ::readlink(link, path, sizeof path - 1);
        if (length > 0) {
            std::memcpy(config.info.lo_file_name, path, std::min<std::size_t>(static_cast<std::size_t>(length), LO_NAME_SIZE - 1));
        }
    }

    std::lock_guard<std::mutex> lock(loopMutex_);
    UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control) return refusal(errno, "Error opening /dev/loop-control");
    // Another process may take the free device between the two calls: ask again.
    for (int attempt = 0; attempt < 16; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) return refusal(errno, "Error allocating a loop device");
        const std::string deviceName = "loop" + std::to_string(number);
        UniqueFd loop(::open(("/dev/" + deviceName).c_str(), (options.readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
        if (!loop) return refusal(errno, "Error opening /dev/" + deviceName);
        // The device manager re-reads a disk's table when a writer closes it,
        // which on kernels without table parsers drops the partitions announced
        // below; it leaves a disk alone while someone holds it locked, so the
        // lock stays until it has seen our close.
        UniqueFd lock(::open(("/dev/" + deviceName).c_str(), O_RDONLY | O_CLOEXEC));
        if (lock) ::flock(lock.get(), LOCK_EX);
        if (::ioctl(loop.get(), LOOP_CONFIGURE, &config) != 0) {
            if (errno == EBUSY) continue;
            return refusal(errno, "Error setting up loop device /dev/" + deviceName);
        }
        // Kernels without table parsers leave the partitions to user space.
        if (!options.noPartScan) {
            if (auto added = announcePartitions(deviceName); !added.succeeded()) {
                ::ioctl(loop.get(), LOOP_CLR_FD, 0);
                return added;
            }
        }
        UniqueFd events = !options.noPartScan && !options.readOnly && deviceManagerRuns() ? openUeventSocket() : UniqueFd();
        loop.reset();
        if (events) waitForChangeEvent(deviceName, events.get());
        lock.reset();
        listeners_.announce({deviceName});
        return BlockDeviceAnswer::success(deviceName);
    }
    return BlockDeviceAnswer::failure(name::DeviceBusy, "Error setting up loop device: every free device was taken meanwhile");
}

BlockDeviceAnswer DirectBlockDeviceProvider::loopDelete(const std::string& deviceName) {
    const auto d = device(deviceName);
    if (!d || !d->loop) return noSuchDevice(deviceName);
    const auto mounts = blockprobe::readMountTable();
    std::vector<std::string> children = d->partitionTable ? d->partitionTable->partitions : std::vector<std::string>{};
    for (const auto& part : blockprobe::blockDeviceNames())
        if (part != deviceName && blockprobe::wholeDiskName(part) == deviceName &&
            std::find(children.begin(), children.end(), part) == children.end())
            children.push_back(part);
    if (!mountPointsOfDisk(mounts, d->deviceNumber).empty())
        return BlockDeviceAnswer::failure(name::DeviceBusy, "Error deleting " + d->device + ": the device is mounted");
    std::vector<int> numbers;
    for (const auto& child : children) {
        const auto part = blockprobe::describe(child, mounts);
        if (!part) continue;
        if (!mountPointsOfDisk(mounts, part->deviceNumber).empty())
            return BlockDeviceAnswer::failure(name::DeviceBusy, "Error deleting " + d->device + ": " + part->device + " is mounted");
        if (part->partition) numbers.push_back(static_cast<int>(part->partition->number));
    }

    UniqueFd loop(::open(d->device.c_str(), O_RDONLY | O_CLOEXEC));
    if (!loop) return refusal(errno, "Error opening " + d->device);
    // Partitions announced from user space are not dropped by the detach on
    // every kernel; drop them first.
    for (const int number : numbers) {
        blkpg_partition partition{};
        partition.pno = number;
        blkpg_ioctl_arg arg{};
        arg.op = BLKPG_DEL_PARTITION;
        arg.datalen = sizeof partition;
        arg.data = &partition;
        ::ioctl(loop.get(), BLKPG, &arg);
    }
    // A detach while someone else has the device open (a probe) happens at
    // their last close; the kernel's change event tells when.
    UniqueFd events = openUeventSocket();
    if (::ioctl(loop.get(), LOOP_CLR_FD, 0) != 0) {
        // ENXIO: another detach came first (the device is unbound, or goes
        // at its last close): what was asked is happening; wait for it.
        if (errno != ENXIO) return refusal(errno, "Error deleting " + d->device);
    }
    loop.reset();
    waitForDetach(deviceName, events.get());
    listeners_.announce({deviceName});
    return BlockDeviceAnswer::success();
}

std::uint64_t DirectBlockDeviceProvider::addChangeListener(ChangeListener listener) {
    const std::uint64_t token = listeners_.add(std::move(listener));
    std::lock_guard<std::mutex> lock(mutex_);
    if (!watcher_.joinable()) watcher_ = std::thread([this] { watch(); });
    return token;
}

void DirectBlockDeviceProvider::removeChangeListener(std::uint64_t token) { listeners_.remove(token); }

void DirectBlockDeviceProvider::watch() {
    UniqueFd mountinfo(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    UniqueFd uevents = openUeventSocket();
    std::vector<char> buffer(16384);
    for (;;) {
        pollfd fds[3] = {{stop_.get(), POLLIN, 0}, {mountinfo.get(), POLLPRI, 0}, {uevents.get(), POLLIN, 0}};
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents) return;
        std::vector<std::string> names;
        bool changed = false;
        if (fds[1].revents & (POLLPRI | POLLERR)) {
            // The table is re-read by whoever asks next; reading it here re-arms the signal.
            ::lseek(mountinfo.get(), 0, SEEK_SET);
            while (::read(mountinfo.get(), buffer.data(), buffer.size()) > 0) {
            }
            changed = true;
        }
        if (fds[2].revents & POLLIN) {
            ssize_t length;
            while ((length = ::recv(uevents.get(), buffer.data(), buffer.size(), 0)) > 0) {
                collectUeventName(buffer.data(), static_cast<std::size_t>(length), names);
            }
            changed = changed || !names.empty();
        }
        if (changed) listeners_.announce(fds[1].revents ? std::vector<std::string>{} : names);
    }
}

} // namespace qx
