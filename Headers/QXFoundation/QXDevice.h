// QXDevice.h - one disk or volume of the machine: its description, and mount, unmount, eject.
//
// A device is a snapshot of the block-device service's description of one
// medium (qx::BlockDeviceDescription), refreshed by reloadDiskInfo: at
// creation, and whenever the service reports that the description changed,
// on the run loop the device's session is scheduled on (from the first
// mount, unmount or eject on, the calling thread's loop in the private mode
// below, which it must then run for the changes to arrive).
//
// Mount, unmount and eject are synchronous: each sends its request, then runs
// the calling thread's run loop in the private mode until the answer comes,
// and reports a refusal as an error in QXDiskArbitrationErrorDomain whose code
// is the status of the table below and whose text is the service's (or
// "DiskArbitration error 0x%x" when it gave none).
//
// Where each property comes from (the description's parts are the storage
// daemon's interfaces; "Drive" is the drive behind the device, which loop
// devices do not have). What has no source here is nothing, false or 0.
//
//   property         source
//   volumeKind       Block.IdType, when Block.IdUsage is "filesystem"
//   volumeMountable  the Filesystem interface is present
//   volumeName       Block.IdLabel (nothing when empty)
//   isNetworkVolume  false: a block device is never a network volume
//   mountPointURL    the first of Filesystem.MountPoints, as a folder URL
//   volumeUUID       Block.IdUUID, when it is a UUID (a FAT serial is not)
//   blockSize        the logical block size (sysfs queue/logical_block_size)
//   bsdMajorNumber   major(Block.DeviceNumber)
//   bsdMinorNumber   minor(Block.DeviceNumber)
//   bsdName          the device node's name: "loop3", "loop3p1"
//   bsdUnitNumber    the number ending the whole disk's name ("loop3": 3), else 0
//   mediaContent     Partition.Type for a partition, else PartitionTable.Type
//   isEjectable      Drive.Ejectable
//   iconDescription  nothing
//   mediaKind        nothing
//   mediaIsLeaf      no PartitionTable interface
//   mediaName        Partition.Name (nothing when empty)
//   mediaPath        Block.Device: "/dev/loop3p1"
//   isRemovable      Drive.Removable
//   mediaSize        Block.Size
//   mediaType        nothing
//   mediaUUID        Partition.UUID for a partition, else the table's UUID, when a UUID
//   isWholeDisk      no Partition interface
//   isWritable       not Block.ReadOnly
//   guid             nothing (no drive reports a GUID here)
//   isInternal       a Drive on no removable bus (Drive.ConnectionBus empty, not Removable)
//   model            Drive.Model
//   devicePath       the device's path in the kernel's device tree (under /sys/devices)
//   protocol         Drive.ConnectionBus
//   revision         Drive.Revision
//   deviceID         0
//   vendor           Drive.Vendor
//   busName          Drive.ConnectionBus
//   busPath          nothing
//
// Refusals (the service's error name, after "org.freedesktop.UDisks2.Error."):
//
//   error name                    status
//   Failed, Cancelled             QXDiskArbitrationStatusError
//   DeviceBusy, AlreadyUnmounting QXDiskArbitrationStatusBusy
//   OptionNotPermitted            QXDiskArbitrationStatusBadArgument
//   AlreadyMounted                QXDiskArbitrationStatusExclusive
//   NotMounted                    QXDiskArbitrationStatusNotMounted
//   NotAuthorized, NotAuthorizedCanObtain, NotAuthorizedDismissed,
//   MountedByOtherUser            QXDiskArbitrationStatusNotPrivileged
//   NotSupported                  QXDiskArbitrationStatusUnsupported
//   Timedout, WouldWakeup         QXDiskArbitrationStatusNotReady
//   (the bus's UnknownObject)     QXDiskArbitrationStatusNotFound
//   anything else                 QXDiskArbitrationStatusError
//
// Threads: a device's mount, unmount and eject block the calling thread,
// which must be able to run its run loop. The properties are not locked:
// read them on the thread whose loop delivers the changes.
#pragma once

#include <qx/Array.h>
#include <qx/BlockDeviceService.h>
#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/String.h>
#include <qx/URL.h>
#include <qx/UUID.h>

#include <cstdint>
#include <string_view>

extern const char* const QXDiskArbitrationErrorDomain;  // "QXDiskArbitrationErrorDomain"
/// The run-loop mode mount, unmount and eject wait in.
extern const char* const QXDeviceRunLoopMode;  // "com.tovarik.QXFoundation.QXDevice.runLoopMode"

/// Refusal statuses (error codes in QXDiskArbitrationErrorDomain, as signed 32-bit values).
enum : std::int32_t {
    QXDiskArbitrationStatusError = static_cast<std::int32_t>(0xF8DA0001),
    QXDiskArbitrationStatusBusy = static_cast<std::int32_t>(0xF8DA0002),
    QXDiskArbitrationStatusBadArgument = static_cast<std::int32_t>(0xF8DA0003),
    QXDiskArbitrationStatusExclusive = static_cast<std::int32_t>(0xF8DA0004),
    QXDiskArbitrationStatusNoResources = static_cast<std::int32_t>(0xF8DA0005),
    QXDiskArbitrationStatusNotFound = static_cast<std::int32_t>(0xF8DA0006),
    QXDiskArbitrationStatusNotMounted = static_cast<std::int32_t>(0xF8DA0007),
    QXDiskArbitrationStatusNotPermitted = static_cast<std::int32_t>(0xF8DA0008),
    QXDiskArbitrationStatusNotPrivileged = static_cast<std::int32_t>(0xF8DA0009),
    QXDiskArbitrationStatusNotReady = static_cast<std::int32_t>(0xF8DA000A),
    QXDiskArbitrationStatusNotWritable = static_cast<std::int32_t>(0xF8DA000B),
    QXDiskArbitrationStatusUnsupported = static_cast<std::int32_t>(0xF8DA000C),
};

/// The status for a refusal's error name (the table above).
std::int32_t QXDiskArbitrationStatusForErrorName(std::string_view errorName);
/// The error for a refusal: the status as code, message as the description
/// ("DiskArbitration error 0x%x" with the status when message is empty).
qx::Ref<qx::Error> QXDiskArbitrationError(std::int32_t status, const std::string& message);

class QXDevice : public qx::Object {
public:
    using Ref = qx::Ref<QXDevice>;

    /// A new device for disk in session (see initWithDADisk).
    static Ref deviceFromDADisk(const qx::Ref<qx::BlockDeviceDisk>& disk, const qx::Ref<qx::BlockDeviceService>& session);
    /// A new device for a registry entry: nothing unless entry is a block device.
    static Ref deviceFromIOMedia(const qx::Ref<qx::Object>& entry, const qx::Ref<qx::BlockDeviceService>& session);
    /// Keeps session and disk; with a disk, watches its description (reloading
    /// on every change) and reads it once. Without one the device stays empty.
    static Ref initWithDADisk(const qx::Ref<qx::BlockDeviceDisk>& disk, const qx::Ref<qx::BlockDeviceService>& session);
    static Ref initWithIOMedia(const qx::Ref<qx::Object>& entry, const qx::Ref<qx::BlockDeviceService>& session);

    const qx::Ref<qx::BlockDeviceDisk>& DADisk() const { return _DADisk; }
    void setDADisk(const qx::Ref<qx::BlockDeviceDisk>& disk) { _DADisk = disk; }
    const qx::Ref<qx::BlockDeviceService>& session() const { return _session; }
    void setSession(const qx::Ref<qx::BlockDeviceService>& session) { _session = session; }

    /// Sets every property from the disk's current description (all empty
    /// when the service no longer knows the disk).
    void reloadDiskInfo();

    bool mountAndReturnError(qx::Ref<qx::Error>* error = nullptr);
    /// Mounts at url (nothing: the service's default place); whole: every
    /// volume of the whole disk instead (at their default places); arguments
    /// are mount options ("ro", "noexec", ...).
    bool mountToURL(const qx::Ref<qx::URL>& url, bool whole, const qx::Ref<qx::Array>& arguments,
                    qx::Ref<qx::Error>* error = nullptr);
    bool unmountAndReturnError(qx::Ref<qx::Error>* error = nullptr);
    /// whole: every volume of the whole disk; force: also when busy (the
    /// mounts are detached at once and go away when the last user lets go).
    bool unmountWholeDisk(bool whole, bool force, qx::Ref<qx::Error>* error = nullptr);
    /// Takes the medium away (a loop device is detached); its volumes must be unmounted.
    bool ejectAndReturnError(qx::Ref<qx::Error>* error = nullptr);

    const qx::Ref<qx::String>& volumeKind() const { return _volumeKind; }
    bool volumeMountable() const { return _volumeMountable; }
    const qx::Ref<qx::String>& volumeName() const { return _volumeName; }
    bool isNetworkVolume() const { return _isNetworkVolume; }
    const qx::Ref<qx::URL>& mountPointURL() const { return _mountPointURL; }
    const qx::Ref<qx::UUID>& volumeUUID() const { return _volumeUUID; }
    std::uint64_t blockSize() const { return _blockSize; }
    std::uint64_t bsdMajorNumber() const { return _bsdMajorNumber; }
    std::uint64_t bsdMinorNumber() const { return _bsdMinorNumber; }
    const qx::Ref<qx::String>& bsdName() const { return _bsdName; }
    std::uint64_t bsdUnitNumber() const { return _bsdUnitNumber; }
    const qx::Ref<qx::String>& mediaContent() const { return _mediaContent; }
    bool isEjectable() const { return _isEjectable; }
    const qx::Ref<qx::Dictionary>& iconDescription() const { return _iconDescription; }
    const qx::Ref<qx::String>& mediaKind() const { return _mediaKind; }
    bool mediaIsLeaf() const { return _mediaIsLeaf; }
    const qx::Ref<qx::String>& mediaName() const { return _mediaName; }
    const qx::Ref<qx::String>& mediaPath() const { return _mediaPath; }
    bool isRemovable() const { return _isRemovable; }
    std::uint64_t mediaSize() const { return _mediaSize; }
    const qx::Ref<qx::String>& mediaType() const { return _mediaType; }
    const qx::Ref<qx::UUID>& mediaUUID() const { return _mediaUUID; }
    bool isWholeDisk() const { return _isWholeDisk; }
    bool isWritable() const { return _isWritable; }
    const qx::Ref<qx::Data>& guid() const { return _guid; }
    bool isInternal() const { return _isInternal; }
    const qx::Ref<qx::String>& model() const { return _model; }
    const qx::Ref<qx::String>& devicePath() const { return _devicePath; }
    const qx::Ref<qx::String>& protocol() const { return _protocol; }
    const qx::Ref<qx::String>& revision() const { return _revision; }
    std::uint64_t deviceID() const { return _deviceID; }
    const qx::Ref<qx::String>& vendor() const { return _vendor; }
    const qx::Ref<qx::String>& busName() const { return _busName; }
    const qx::Ref<qx::String>& busPath() const { return _busPath; }

    std::string className() const override { return "QXDevice"; }
    std::string description() const override;

    QXDevice() = default;
    ~QXDevice() override;

protected:
    /// Sends one request and runs the calling thread's loop in the private
    /// mode until its answer has come; the answer's success or error.
    bool waitForRequest(const std::function<void(qx::BlockDeviceService::Completion)>& start, qx::Ref<qx::Error>* error);
    /// Names of the whole disk's volumes (the whole disk first, then its
    /// partitions) that have a file system.
    std::vector<std::string> volumesOfWholeDisk() const;
    void apply(const qx::BlockDeviceDescription* description);

private:
    qx::Ref<qx::BlockDeviceDisk> _DADisk;
    qx::Ref<qx::BlockDeviceService> _session;
    std::uint64_t _watchToken = 0;

    qx::Ref<qx::String> _volumeKind;
    bool _volumeMountable = false;
    qx::Ref<qx::String> _volumeName;
    bool _isNetworkVolume = false;
    qx::Ref<qx::URL> _mountPointURL;
    qx::Ref<qx::UUID> _volumeUUID;
    std::uint64_t _blockSize = 0;
    std::uint64_t _bsdMajorNumber = 0;
    std::uint64_t _bsdMinorNumber = 0;
    qx::Ref<qx::String> _bsdName;
    std::uint64_t _bsdUnitNumber = 0;
    qx::Ref<qx::String> _mediaContent;
    bool _isEjectable = false;
    qx::Ref<qx::Dictionary> _iconDescription;
    qx::Ref<qx::String> _mediaKind;
    bool _mediaIsLeaf = false;
    qx::Ref<qx::String> _mediaName;
    qx::Ref<qx::String> _mediaPath;
    bool _isRemovable = false;
    std::uint64_t _mediaSize = 0;
    qx::Ref<qx::String> _mediaType;
    qx::Ref<qx::UUID> _mediaUUID;
    bool _isWholeDisk = false;
    bool _isWritable = false;
    qx::Ref<qx::Data> _guid;
    bool _isInternal = false;
    qx::Ref<qx::String> _model;
    qx::Ref<qx::String> _devicePath;
    qx::Ref<qx::String> _protocol;
    qx::Ref<qx::String> _revision;
    std::uint64_t _deviceID = 0;
    qx::Ref<qx::String> _vendor;
    qx::Ref<qx::String> _busName;
    qx::Ref<qx::String> _busPath;
};
