// BlockDeviceProvider.h - one source of block-device descriptions and operations.
//
// A provider answers synchronously; BlockDeviceService puts the run loops and
// the waiting around it. Two providers are meant: the storage daemon on the
// system bus (no root needed) and the direct one, which reads the kernel's
// own tables and calls the kernel as root. systemProvider() is the one place
// that chooses between them.
//
// Every call is safe from any thread; calls may block (a mount, a probe).
#pragma once

#include <qx/BlockDevice.h>
#include <qx/Object.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx {

struct LoopSetupOptions {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;  // 0: to the end of the file
    bool readOnly = false;
    bool noPartScan = false;  // leave the partitions of a table unannounced
};

class BlockDeviceProvider : public Object {
public:
    /// Called on a thread of the provider's with the names of the devices
    /// that may have changed (added, removed, remounted, resized); an empty
    /// list means "any of them". Spurious calls are allowed: listeners compare.
    using ChangeListener = std::function<void(const std::vector<std::string>& names)>;

    /// The provider this machine should use, chosen once: the storage
    /// daemon's when the system bus has it (running, or startable on demand),
    /// else the direct one. The environment variable QX_BLOCK_DEVICE_PROVIDER
    /// set to "udisks" or "direct" makes the choice instead.
    static Ref<BlockDeviceProvider> systemProvider();
    /// The provider that reads the kernel's tables itself (see DirectBlockDeviceProvider.h).
    static Ref<BlockDeviceProvider> directProvider();
    /// The storage daemon's provider (see UDisksBlockDeviceProvider.h), made
    /// once; nothing while the system bus has no such daemon to offer.
    static Ref<BlockDeviceProvider> udisksProvider();

    /// Every block object with a medium, in a stable order: whole disks by
    /// name (shorter names first, so loop2 comes before loop10), each followed
    /// by its partitions by number.
    virtual std::vector<BlockDeviceDescription> devices() = 0;
    /// One device by its node's name ("loop0"); nothing when there is none.
    virtual std::optional<BlockDeviceDescription> device(const std::string& name) = 0;

    /// mountPoint empty: the default place for the volume. options: a
    /// comma-separated list in mount(8)'s words.
    virtual BlockDeviceAnswer mount(const std::string& name, const std::string& mountPoint, const std::string& options) = 0;
    virtual BlockDeviceAnswer unmount(const std::string& name, bool force) = 0;
    /// Takes the medium away: for a loop device, detaches it.
    virtual BlockDeviceAnswer eject(const std::string& name) = 0;
    /// Attaches a loop device to the open file fd (the caller keeps fd); the
    /// answer's result is the new device's name. The partitions of a table on
    /// it are announced unless options say not to.
    virtual BlockDeviceAnswer loopSetup(int fd, const LoopSetupOptions& options) = 0;
    virtual BlockDeviceAnswer loopDelete(const std::string& name) = 0;

    /// Starts calling listener on changes; returns a token for removeListener.
    /// The watch runs while at least one listener is registered.
    virtual std::uint64_t addChangeListener(ChangeListener listener) = 0;
    /// After it returns, the listener is not called again.
    virtual void removeChangeListener(std::uint64_t token) = 0;

    std::string className() const override { return "BlockDeviceProvider"; }
};

} // namespace qx
