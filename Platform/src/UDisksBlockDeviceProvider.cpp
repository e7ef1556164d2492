// UDisksBlockDeviceProvider.cpp - block devices through the storage daemon on the system bus.
#include "UDisksBlockDeviceProvider.h"

#include "BlockDeviceProbe.h"
#include "DirectBlockDeviceProvider.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <set>
#include <time.h>
#include <sys/eventfd.h>

namespace qx {

namespace {

namespace name = BlockDeviceErrorName;
using Clock = std::chrono::steady_clock;

constexpr const char* kManagerPath = "/org/freedesktop/UDisks2/Manager";
constexpr const char* kManager = "org.freedesktop.UDisks2.Manager";
constexpr const char* kFilesystem = "org.freedesktop.UDisks2.Filesystem";
constexpr const char* kLoop = "org.freedesktop.UDisks2.Loop";
constexpr const char* kDrive = "org.freedesktop.UDisks2.Drive";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

// How long a request waits for the daemon to show its effect. The daemon
// answers first and publishes from its own events, usually within milliseconds.
constexpr std::chrono::milliseconds kSettleLimit{10000};

// The daemon's signals about devices, and its name changing owner (a
// restarted daemon may describe every device anew).
constexpr const char* kMatches[] = {
    "type='signal',sender='org.freedesktop.UDisks2',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',path_namespace='/org/freedesktop/UDisks2'",
    "type='signal',sender='org.freedesktop.UDisks2',interface='org.freedesktop.DBus.ObjectManager',"
    "path='/org/freedesktop/UDisks2'",
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.UDisks2'",
};

BlockDeviceAnswer busFailure(const std::string& what, int result) {
    return BlockDeviceAnswer::failure(name::Failed, what + ": " + std::strerror(-result));
}

BlockDeviceAnswer noSuchDevice(const std::string& device) {
    return BlockDeviceAnswer::failure(name::NoSuchDevice, "No such device: " + device);
}

bool isMissingMethod(const BlockDeviceAnswer& answer) {
    return answer.errorName == "org.freedesktop.DBus.Error.UnknownMethod" ||
           answer.errorName == "org.freedesktop.DBus.Error.UnknownObject" ||
           answer.errorName == "org.freedesktop.DBus.Error.UnknownInterface";
}

std::function<int(sd_bus_message*)> withOptions(sdbus::Options options) {
    options.emplace_back("auth.no_user_interaction", true);  // refuse rather than wait for a password dialog
    return [options = std::move(options)](sd_bus_message* m) { return sdbus::appendOptions(m, options); };
}

const BlockDeviceDescription* named(const std::vector<BlockDeviceDescription>& all, const std::string& deviceName) {
    auto found = std::find_if(all.begin(), all.end(), [&](const BlockDeviceDescription& d) { return d.name == deviceName; });
    return found == all.end() ? nullptr : &*found;
}

// The first mounted volume on the disk (the disk itself or one of its partitions).
const BlockDeviceDescription* mountedVolumeOf(const std::vector<BlockDeviceDescription>& all, const std::string& disk) {
    for (const auto& d : all)
        if ((d.name == disk || (d.partition && d.partition->table == disk)) && d.filesystem && !d.filesystem->mountPoints.empty())
            return &d;
    return nullptr;
}

bool isMounted(const std::vector<BlockDeviceDescription>& all, const std::string& deviceName) {
    const auto* d = named(all, deviceName);
    return d && d->filesystem && !d->filesystem->mountPoints.empty();
}

// Names of the devices a signal is about; everything when it may concern any.
struct SignalNames {
    std::set<std::string> names;
    bool everything = false;

    void add(const char* path) {
        const std::string text = path ? path : "";
        if (std::string blockName = udisks::blockNameOfPath(text); !blockName.empty())
            names.insert(std::move(blockName));
        else if (text.rfind(udisks::kDrivePathPrefix, 0) == 0)
            everything = true;  // a drive's change shows in the descriptions of its devices
    }
};

int onSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* seen = static_cast<SignalNames*>(userdata);
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus", "NameOwnerChanged")) {
        seen->everything = true;
    } else if (sd_bus_message_is_signal(m, kObjectManager, nullptr)) {
        const char* path = nullptr;
        if (sd_bus_message_read_basic(m, 'o', &path) > 0) seen->add(path);
    } else {
        seen->add(sd_bus_message_get_path(m));
    }
    return 0;
}

// Installs every match on bus with callback; the slots own them.
bool addMatches(sd_bus* bus, std::vector<sdbus::Slot>& slots, sd_bus_message_handler_t callback, void* userdata) {
    for (const char* match : kMatches) {
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(bus, &slot, match, callback, userdata) < 0) return false;
        slots.emplace_back(slot);
    }
    return true;
}

// Waits until bus has something to read or the time (a steady-clock
// deadline, or none) is up; false when stop fired or the wait failed.
bool waitForBus(sd_bus* bus, int stop, std::optional<Clock::time_point> deadline) {
    int timeout = -1;
    std::uint64_t due = 0;  // the library's next timer, in CLOCK_MONOTONIC microseconds
    if (sd_bus_get_timeout(bus, &due) > 0 && due != UINT64_MAX) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const std::uint64_t nowUs = static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
        timeout = due <= nowUs ? 0 : static_cast<int>(std::min<std::uint64_t>((due - nowUs + 999) / 1000, 60000));
    }
    if (deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
        const int limit = static_cast<int>(std::clamp<long long>(left, 0, 60000));
        timeout = timeout < 0 ? limit : std::min(timeout, limit);
    }
    const int events = sd_bus_get_events(bus);
    pollfd fds[2] = {{sd_bus_get_fd(bus), static_cast<short>(events < 0 ? POLLIN : events), 0}, {stop, POLLIN, 0}};
    const int r = ::poll(fds, stop >= 0 ? 2 : 1, timeout);
    if (r < 0) return errno == EINTR;
    return !(stop >= 0 && fds[1].revents);
}

} // namespace

// A connection lent from the provider's idle ones (or a new one), given
// back when done unless it broke.
class UDisksBlockDeviceProvider::Connection {
public:
    Connection(UDisksBlockDeviceProvider& owner, sdbus::Bus bus, int failure) : owner_(owner), bus_(std::move(bus)), failure_(failure) {}
    ~Connection() {
        if (!bus_ || sd_bus_is_open(bus_.get()) <= 0) return;
        std::lock_guard<std::mutex> lock(owner_.poolMutex_);
        owner_.idle_.push_back(std::move(bus_));
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sd_bus* get() const { return bus_.get(); }
    int failure() const { return failure_; }

private:
    UDisksBlockDeviceProvider& owner_;
    sdbus::Bus bus_;
    int failure_;
};

UDisksBlockDeviceProvider::UDisksBlockDeviceProvider(sdbus::Bus connection) : stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (connection) idle_.push_back(std::move(connection));
}

UDisksBlockDeviceProvider::~UDisksBlockDeviceProvider() {
    if (watcher_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(stop_.get(), &one, sizeof one);
        watcher_.join();
    }
}

bool UDisksBlockDeviceProvider::serviceIsAvailable(sd_bus* bus) {
    sdbus::SdBusError error;
    sd_bus_message* answer = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
                           error.get(), &answer, "s", udisks::kService) < 0)
        return false;
    sdbus::Message reply(answer);
    int owned = 0;
    if (sd_bus_message_read_basic(reply.get(), 'b', &owned) > 0 && owned) return true;

    sdbus::SdBusError listError;
    answer = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListActivatableNames",
                           listError.get(), &answer, "") < 0)
        return false;
    reply.reset(answer);
    char** names = nullptr;
    if (sd_bus_message_read_strv(reply.get(), &names) < 0 || !names) return false;
    bool found = false;
    for (char** n = names; *n; ++n) {
        found = found || std::strcmp(*n, udisks::kService) == 0;
        std::free(*n);
    }
    std::free(names);
    return found;
}

UDisksBlockDeviceProvider::Connection UDisksBlockDeviceProvider::connection() {
    {
        std::lock_guard<std::mutex> lock(poolMutex_);
        if (!idle_.empty()) {
            sdbus::Bus bus = std::move(idle_.back());
            idle_.pop_back();
            return Connection(*this, std::move(bus), 0);
        }
    }
    int failure = 0;
    sdbus::Bus bus = sdbus::openSystemBus(&failure);
    return Connection(*this, std::move(bus), failure);
}

BlockDeviceAnswer UDisksBlockDeviceProvider::call(const std::string& path, const char* interface, const char* member,
                                                  const std::function<int(sd_bus_message*)>& append, sdbus::Message* reply) {
    Connection bus = connection();
    if (!bus.get()) return busFailure("Error connecting to the system bus", bus.failure());
    sdbus::Message request = sdbus::newMethodCall(bus.get(), udisks::kService, path, interface, member);
    int r = request ? 0 : -ENOMEM;
    if (r >= 0 && append) r = append(request.get());
    if (r < 0) return busFailure(std::string("Error making the request ") + member, r);
    sdbus::SdBusError error;
    sd_bus_message* answer = nullptr;
    // The library's default time limit (25 s): a mount may take long, a daemon that hangs must not hang us.
    r = sd_bus_call(bus.get(), request.get(), 0, error.get(), &answer);
    if (r < 0) {
        if (error.isSet()) return BlockDeviceAnswer::failure(error.name(), error.message());
        return busFailure(std::string("Error calling ") + member + " on " + path, r);
    }
    sdbus::Message owned(answer);
    if (reply) *reply = std::move(owned);
    return BlockDeviceAnswer::success();
}

BlockDeviceAnswer UDisksBlockDeviceProvider::describeAll(std::vector<BlockDeviceDescription>& out,
                                                         const std::function<bool(const BlockDeviceDescription&)>& keep) {
    sdbus::Message reply;
    auto answer = call(udisks::kRootPath, kObjectManager, "GetManagedObjects", nullptr, &reply);
    if (!answer.succeeded()) return answer;
    udisks::Objects objects;
    if (const int r = udisks::readManagedObjects(reply.get(), objects); r < 0)
        return busFailure("Error reading the storage daemon's objects", r);
    out = udisks::describeObjects(objects);
    if (keep) out.erase(std::remove_if(out.begin(), out.end(), [&](const BlockDeviceDescription& d) { return !keep(d); }), out.end());
    for (auto& d : out) {
        blockprobe::addKernelAttributes(d);
        if (d.partitionTable && d.partitionTable->uuid.empty())
            d.partitionTable->uuid = blockprobe::deviceDatabaseProperty(d.deviceNumber, "ID_PART_TABLE_UUID");
    }
    return answer;
}

std::vector<BlockDeviceDescription> UDisksBlockDeviceProvider::devices() {
    std::vector<BlockDeviceDescription> all;
    describeAll(all, [](const BlockDeviceDescription& d) { return d.hasMedium(); });
    return all;
}

std::optional<BlockDeviceDescription> UDisksBlockDeviceProvider::device(const std::string& deviceName) {
    std::vector<BlockDeviceDescription> one;
    describeAll(one, [&](const BlockDeviceDescription& d) { return d.name == deviceName; });
    return one.empty() ? std::nullopt : std::optional<BlockDeviceDescription>(std::move(one.front()));
}

bool UDisksBlockDeviceProvider::waitUntil(const Predicate& holds, std::chrono::milliseconds limit) {
    std::vector<BlockDeviceDescription> all;
    if (describeAll(all).succeeded() && holds(all)) return true;
    // Listen first, then look again: a change between the two is not missed.
    sdbus::Bus bus = sdbus::openSystemBus();
    SignalNames seen;
    std::vector<sdbus::Slot> slots;
    if (!bus || !addMatches(bus.get(), slots, onSignal, &seen)) return false;
    const auto deadline = Clock::now() + limit;
    for (;;) {
        all.clear();
        if (describeAll(all).succeeded() && holds(all)) return true;
        seen = {};
        while (seen.names.empty() && !seen.everything) {
            const int r = sd_bus_process(bus.get(), nullptr);
            if (r < 0) return false;
            if (r > 0) continue;
            if (Clock::now() >= deadline || !waitForBus(bus.get(), -1, deadline)) return false;
        }
    }
}

BlockDeviceAnswer UDisksBlockDeviceProvider::missingInterface(const std::string& deviceName, const BlockDeviceAnswer& answer,
                                                              bool unmounting) {
    if (!isMissingMethod(answer)) return answer;
    const auto d = device(deviceName);
    if (!d) return noSuchDevice(deviceName);
    if (unmounting) return BlockDeviceAnswer::failure(name::NotMounted, "Device `" + d->device + "' is not mounted");
    return BlockDeviceAnswer::failure(name::NotSupported, "Device " + d->device + " has no mountable file system");
}

BlockDeviceAnswer UDisksBlockDeviceProvider::mount(const std::string& deviceName, const std::string& mountPoint,
                                                  const std::string& options) {
    std::string where = mountPoint;
    if (!mountPoint.empty()) {
        // The daemon chooses its own folders; a caller's folder is the kernel's business (as root).
        auto answer = directProvider()->mount(deviceName, mountPoint, options);
        if (!answer.succeeded()) return answer;
    } else {
        sdbus::Options mountOptions;
        if (!options.empty()) mountOptions.emplace_back("options", options);
        sdbus::Message reply;
        auto answer = call(udisks::blockObjectPath(deviceName), kFilesystem, "Mount", withOptions(std::move(mountOptions)), &reply);
        if (!answer.succeeded()) return missingInterface(deviceName, answer, false);
        const char* path = nullptr;
        if (sd_bus_message_read_basic(reply.get(), 's', &path) <= 0 || !path)
            return BlockDeviceAnswer::failure(name::Failed, "The storage daemon named no mount point for " + deviceName);
        where = path;
    }
    waitUntil([&](const std::vector<BlockDeviceDescription>& all) { return isMounted(all, deviceName); }, kSettleLimit);
    listeners_.announce({deviceName});
    return BlockDeviceAnswer::success(where);
}

BlockDeviceAnswer UDisksBlockDeviceProvider::unmount(const std::string& deviceName, bool force) {
    auto answer = call(udisks::blockObjectPath(deviceName), kFilesystem, "Unmount", withOptions({{"force", force}}));
    if (!answer.succeeded()) {
        // A refusal may still have changed something (a stacked mount gone): the listeners compare.
        listeners_.announce({deviceName});
        return missingInterface(deviceName, answer, true);
    }
    waitUntil([&](const std::vector<BlockDeviceDescription>& all) { return !isMounted(all, deviceName); }, kSettleLimit);
    listeners_.announce({deviceName});
    return answer;
}

BlockDeviceAnswer UDisksBlockDeviceProvider::deleteLoop(const BlockDeviceDescription& loop, const std::vector<BlockDeviceDescription>& all) {
    // The daemon would only mark a busy device to go at its last close; a
    // refusal tells the caller what holds it.
    if (const auto* mounted = mountedVolumeOf(all, loop.name))
        return BlockDeviceAnswer::failure(name::DeviceBusy, "Error deleting " + loop.device + ": " + mounted->device + " is mounted");
    auto answer = call(udisks::blockObjectPath(loop.name), kLoop, "Delete", withOptions({}));
    if (!answer.succeeded()) return answer;
    std::vector<std::string> names{loop.name};
    if (loop.partitionTable) names.insert(names.end(), loop.partitionTable->partitions.begin(), loop.partitionTable->partitions.end());
    const std::string deviceName = loop.name;
    waitUntil(
        [&](const std::vector<BlockDeviceDescription>& now) {
            const auto* d = named(now, deviceName);
            return !d || !d->hasMedium();
        },
        kSettleLimit);
    listeners_.announce(names);
    return answer;
}

BlockDeviceAnswer UDisksBlockDeviceProvider::eject(const std::string& deviceName) {
    std::vector<BlockDeviceDescription> all;
    if (auto answer = describeAll(all); !answer.succeeded()) return answer;
    const auto* d = named(all, deviceName);
    if (!d) return noSuchDevice(deviceName);
    const auto* disk = d->partition ? named(all, d->partition->table) : d;
    if (!disk) return noSuchDevice(d->partition->table);
    if (disk->loop) return deleteLoop(*disk, all);
    if (!disk->drive || !disk->drive->ejectable)
        return BlockDeviceAnswer::failure(name::NotSupported, "Device " + disk->device + " is not ejectable");
    if (const auto* mounted = mountedVolumeOf(all, disk->name))
        return BlockDeviceAnswer::failure(name::DeviceBusy, "Error ejecting " + disk->device + ": " + mounted->device + " is mounted");

    // The drive's object is named by the block object's Drive property.
    sdbus::Message reply;
    auto answer = call(udisks::blockObjectPath(disk->name), "org.freedesktop.DBus.Properties", "Get",
                       [](sd_bus_message* m) { return sd_bus_message_append(m, "ss", "org.freedesktop.UDisks2.Block", "Drive"); }, &reply);
    if (!answer.succeeded()) return answer;
    const char* drivePath = nullptr;
    if (sd_bus_message_read(reply.get(), "v", "o", &drivePath) <= 0 || !drivePath)
        return BlockDeviceAnswer::failure(name::Failed, "The storage daemon named no drive for " + disk->device);
    answer = call(drivePath, kDrive, "Eject", withOptions({}));
    if (answer.succeeded()) listeners_.announce({disk->name});
    return answer;
}

BlockDeviceAnswer UDisksBlockDeviceProvider::loopSetup(int fd, const LoopSetupOptions& options) {
    sdbus::Options setup;
    if (options.offset) setup.emplace_back("offset", options.offset);
    if (options.size) setup.emplace_back("size", options.size);
    if (options.readOnly) setup.emplace_back("read-only", true);
    if (options.noPartScan) setup.emplace_back("no-part-scan", true);
    const auto appendOptions = withOptions(std::move(setup));
    sdbus::Message reply;
    BlockDeviceAnswer answer;
    // The daemon picks a free device and then binds it: another process may
    // take that device in between, which it reports as busy. Ask again, as
    // the direct provider does.
    for (int attempt = 0; attempt < 16; ++attempt) {
        answer = call(
            kManagerPath, kManager, "LoopSetup",
            [&](sd_bus_message* m) {
                // The bus passes the descriptor itself: the daemon opens nothing by name.
                const int r = sd_bus_message_append_basic(m, 'h', &fd);
                return r < 0 ? r : appendOptions(m);
            },
            &reply);
        if (answer.succeeded() || answer.message.find("Device or resource busy") == std::string::npos) break;
    }
    if (!answer.succeeded()) return answer;
    const char* path = nullptr;
    if (sd_bus_message_read_basic(reply.get(), 'o', &path) <= 0 || !path)
        return BlockDeviceAnswer::failure(name::Failed, "The storage daemon named no loop device");
    const std::string deviceName = udisks::blockNameOfPath(path);

    // Kernels without table parsers leave the partitions to user space (as
    // root); the daemon describes them once the device manager has seen them.
    if (!options.noPartScan) {
        const std::size_t count = blockprobe::readPartitionEntries("/dev/" + deviceName).size();
        if (count > 0 && DirectBlockDeviceProvider::announcePartitions(deviceName).succeeded())
            waitUntil(
                [&](const std::vector<BlockDeviceDescription>& all) {
                    const auto* d = named(all, deviceName);
                    if (!d || !d->partitionTable || d->partitionTable->partitions.size() < count) return false;
                    return std::all_of(d->partitionTable->partitions.begin(), d->partitionTable->partitions.end(),
                                       [&](const std::string& part) { return named(all, part) != nullptr; });
                },
                kSettleLimit);
    }
    listeners_.announce({deviceName});
    return BlockDeviceAnswer::success(deviceName);
}

BlockDeviceAnswer UDisksBlockDeviceProvider::loopDelete(const std::string& deviceName) {
    std::vector<BlockDeviceDescription> all;
    if (auto answer = describeAll(all); !answer.succeeded()) return answer;
    const auto* d = named(all, deviceName);
    if (!d || !d->loop) return noSuchDevice(deviceName);
    return deleteLoop(*d, all);
}

std::uint64_t UDisksBlockDeviceProvider::addChangeListener(ChangeListener listener) {
    const std::uint64_t token = listeners_.add(std::move(listener));
    std::lock_guard<std::mutex> lock(mutex_);
    if (!watcher_.joinable()) watcher_ = std::thread([this] { watch(); });
    return token;
}

void UDisksBlockDeviceProvider::removeChangeListener(std::uint64_t token) { listeners_.remove(token); }

void UDisksBlockDeviceProvider::watch() {
    bool lost = false;
    for (;;) {
        SignalNames seen;
        std::vector<sdbus::Slot> slots;
        sdbus::Bus bus = sdbus::openSystemBus();
        if (!bus || !addMatches(bus.get(), slots, onSignal, &seen)) {
            // No bus (yet, or any more): look again every second until stopped.
            slots.clear();
            pollfd stop{stop_.get(), POLLIN, 0};
            if (::poll(&stop, 1, 1000) > 0) return;
            lost = true;
            continue;
        }
        // Whatever happened while there was no connection is unknown.
        if (lost) listeners_.announce({});
        lost = false;
        for (;;) {
            int r;
            while ((r = sd_bus_process(bus.get(), nullptr)) > 0) {
            }
            if (seen.everything || !seen.names.empty()) {
                listeners_.announce(seen.everything ? std::vector<std::string>{} : std::vector<std::string>(seen.names.begin(), seen.names.end()));
                seen = {};
            }
            if (r < 0) break;
            if (!waitForBus(bus.get(), stop_.get(), std::nullopt)) {
                pollfd stop{stop_.get(), POLLIN, 0};
                if (::poll(&stop, 1, 0) > 0) return;
            }
        }
        // The connection broke: the slots go before the bus they belong to.
        slots.clear();
        lost = true;
    }
}

} // namespace qx
