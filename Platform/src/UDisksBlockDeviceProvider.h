// UDisksBlockDeviceProvider.h - block devices through the storage daemon on the system bus.
//
// Descriptions come from the daemon's object manager (one call answers for
// every device; see UDisksObjects.h for the mapping), completed from sysfs
// with what the daemon does not publish. Requests are the daemon's own
// methods, and a refusal keeps the daemon's error name and text:
//
//   mount    Filesystem.Mount; a chosen folder goes through mount(2) instead
//            (the daemon mounts only at its own places), which needs root
//   unmount  Filesystem.Unmount, with the daemon's force option
//   eject    Loop.Delete for a loop device (or a partition of one), else
//            Drive.Eject; refused while a volume of the disk is mounted
//   loop     Manager.LoopSetup with the descriptor itself, Loop.Delete
//
// No root is needed except where said. A request returns once the daemon's
// description shows its effect, and then tells the change listeners, so a
// caller that asks again sees what it did.
//
// Changes are watched on a thread of the provider's with its own connection:
// the daemon's PropertiesChanged, InterfacesAdded and InterfacesRemoved
// signals and its name changing owner. A thread rather than a descriptor for
// the caller's run loop: listeners are called on the provider's thread by
// contract, a connection must not be used by two threads at once, and the
// watch must go on whether or not any run loop runs.
#pragma once

#include "SdBus.h"
#include "UDisksObjects.h"

#include "ChangeListenerRegistry.h"

#include <qx/BlockDeviceProvider.h>
#include <qx/UniqueFd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

namespace qx {

class UDisksBlockDeviceProvider final : public BlockDeviceProvider {
public:
    /// connection: an open system-bus connection to start with (optional).
    explicit UDisksBlockDeviceProvider(sdbus::Bus connection = nullptr);
    ~UDisksBlockDeviceProvider() override;

    /// True when the daemon owns its name on the bus of connection or the
    /// bus can start it.
    static bool serviceIsAvailable(sd_bus* connection);

    std::vector<BlockDeviceDescription> devices() override;
    std::optional<BlockDeviceDescription> device(const std::string& name) override;

    BlockDeviceAnswer mount(const std::string& name, const std::string& mountPoint, const std::string& options) override;
    BlockDeviceAnswer unmount(const std::string& name, bool force) override;
    BlockDeviceAnswer eject(const std::string& name) override;
    BlockDeviceAnswer loopSetup(int fd, const LoopSetupOptions& options) override;
    BlockDeviceAnswer loopDelete(const std::string& name) override;

    std::uint64_t addChangeListener(ChangeListener listener) override;
    void removeChangeListener(std::uint64_t token) override;

    std::string className() const override { return "UDisksBlockDeviceProvider"; }

private:
    class Connection;
    using Predicate = std::function<bool(const std::vector<BlockDeviceDescription>&)>;

    Connection connection();
    /// Every description (with or without a medium) for which keep (when
    /// given) holds, or the failure. Only those kept are completed from sysfs.
    BlockDeviceAnswer describeAll(std::vector<BlockDeviceDescription>& out,
                                  const std::function<bool(const BlockDeviceDescription&)>& keep = nullptr);
    /// Calls the daemon's member of interface on path with the arguments
    /// append adds; reply, when given, receives the answer.
    BlockDeviceAnswer call(const std::string& path, const char* interface, const char* member,
                           const std::function<int(sd_bus_message*)>& append, sdbus::Message* reply = nullptr);
    /// A refusal for a method the device's object lacks (no such device, or
    /// no file system), in the words the direct provider uses for the same case.
    BlockDeviceAnswer missingInterface(const std::string& name, const BlockDeviceAnswer& answer, bool unmounting);
    /// Returns when holds() is true of the daemon's descriptions, re-checking
    /// on each of its signals, or when the time is up; whether it held.
    bool waitUntil(const Predicate& holds, std::chrono::milliseconds limit);
    BlockDeviceAnswer deleteLoop(const BlockDeviceDescription& loop, const std::vector<BlockDeviceDescription>& all);

    void watch();

    std::mutex poolMutex_;                 // guards idle_
    std::vector<sdbus::Bus> idle_;         // connections no call is using

    ChangeListenerRegistry listeners_;
    std::mutex mutex_;                                 // guards watcher_
    UniqueFd stop_;                                    // an eventfd that ends the watch
    std::thread watcher_;
};

} // namespace qx
