// DirectBlockDeviceProvider.h - block devices straight from the kernel, as root.
//
// Descriptions come from sysfs, libblkid and the mount table (see
// BlockDeviceProbe.h). Mounts go through mount(2) and umount2(2), loop devices
// through /dev/loop-control and LOOP_CONFIGURE / LOOP_CLR_FD, and the
// partitions of a table the kernel did not read itself (kernels built without
// table parsers) are announced with BLKPG, the way partx does it.
//
// Changes are watched on one thread: the mount table (poll() reports
// POLLPRI|POLLERR when it changes), the kernel's block-device events (a
// netlink socket, where the machine delivers them) and the provider's own
// requests, which announce their devices when they finish.
#pragma once

#include "ChangeListenerRegistry.h"

#include <qx/BlockDeviceProvider.h>
#include <qx/UniqueFd.h>

#include <mutex>
#include <thread>

namespace qx {

class DirectBlockDeviceProvider final : public BlockDeviceProvider {
public:
    DirectBlockDeviceProvider();
    ~DirectBlockDeviceProvider() override;

    std::vector<BlockDeviceDescription> devices() override;
    std::optional<BlockDeviceDescription> device(const std::string& name) override;

    BlockDeviceAnswer mount(const std::string& name, const std::string& mountPoint, const std::string& options) override;
    BlockDeviceAnswer unmount(const std::string& name, bool force) override;
    BlockDeviceAnswer eject(const std::string& name) override;
    BlockDeviceAnswer loopSetup(int fd, const LoopSetupOptions& options) override;
    BlockDeviceAnswer loopDelete(const std::string& name) override;

    std::uint64_t addChangeListener(ChangeListener listener) override;
    void removeChangeListener(std::uint64_t token) override;

    /// Where mounts without a mount point go: /run/media/USER.
    static std::string defaultMountRoot();
    /// Announces the partitions of the table on the device called name that
    /// the kernel has not (BLKPG, as root); those it has are left alone.
    static BlockDeviceAnswer announcePartitions(const std::string& name);

    std::string className() const override { return "DirectBlockDeviceProvider"; }

private:
    void watch();

    ChangeListenerRegistry listeners_;
    std::mutex mutex_;                                 // guards watcher_
    UniqueFd stop_;                                    // an eventfd that ends the watch
    std::thread watcher_;
    std::mutex loopMutex_;                             // one loop attachment at a time in this process
};

} // namespace qx
