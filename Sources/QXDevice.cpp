// QXDevice.cpp - one disk or volume of the machine: its description, and mount, unmount, eject.
#include <QXFoundation/QXDevice.h>

#include <QXFoundation/QXDeviceCallbackContext.h>
#include <QXFoundation/QXError.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/RunLoop.h>

#include <algorithm>
#include <cctype>
#include <sys/sysmacros.h>

const char* const QXDiskArbitrationErrorDomain = "QXDiskArbitrationErrorDomain";
const char* const QXDeviceRunLoopMode = "com.tovarik.QXFoundation.QXDevice.runLoopMode";

namespace {

struct StatusForName {
    std::string_view name;
    std::int32_t status;
};

constexpr StatusForName kStatuses[] = {
    {"Failed", QXDiskArbitrationStatusError},
    {"Cancelled", QXDiskArbitrationStatusError},
    {"DeviceBusy", QXDiskArbitrationStatusBusy},
    {"AlreadyUnmounting", QXDiskArbitrationStatusBusy},
    {"OptionNotPermitted", QXDiskArbitrationStatusBadArgument},
    {"AlreadyMounted", QXDiskArbitrationStatusExclusive},
    {"NotMounted", QXDiskArbitrationStatusNotMounted},
    {"NotAuthorized", QXDiskArbitrationStatusNotPrivileged},
    {"NotAuthorizedCanObtain", QXDiskArbitrationStatusNotPrivileged},
    {"NotAuthorizedDismissed", QXDiskArbitrationStatusNotPrivileged},
    {"MountedByOtherUser", QXDiskArbitrationStatusNotPrivileged},
    {"NotSupported", QXDiskArbitrationStatusUnsupported},
    {"Timedout", QXDiskArbitrationStatusNotReady},
    {"WouldWakeup", QXDiskArbitrationStatusNotReady},
};

constexpr std::string_view kDaemonErrorPrefix = "org.freedesktop.UDisks2.Error.";
constexpr std::string_view kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";

qx::Ref<qx::String> stringOrNothing(const std::string& text) { return text.empty() ? nullptr : qx::String::create(text); }

qx::Ref<qx::UUID> uuidOrNothing(const std::string& text) { return text.empty() ? nullptr : qx::UUID::withString(text); }

std::uint64_t unitOf(const std::string& disk) {
    std::size_t start = disk.size();
    while (start > 0 && std::isdigit(static_cast<unsigned char>(disk[start - 1]))) --start;
    if (start == disk.size() || disk.size() - start > 9) return 0;
    return std::stoull(disk.substr(start));
}

} // namespace

std::int32_t QXDiskArbitrationStatusForErrorName(std::string_view errorName) {
    if (errorName == kUnknownObject) return QXDiskArbitrationStatusNotFound;
    if (errorName.substr(0, kDaemonErrorPrefix.size()) != kDaemonErrorPrefix) return QXDiskArbitrationStatusError;
    const std::string_view shortName = errorName.substr(kDaemonErrorPrefix.size());
    for (const auto& entry : kStatuses)
        if (entry.name == shortName) return entry.status;
    return QXDiskArbitrationStatusError;
}

qx::Ref<qx::Error> QXDiskArbitrationError(std::int32_t status, const std::string& message) {
    if (!message.empty())
        return QXGenerateError(QXDiskArbitrationErrorDomain, status, nullptr, nullptr, nullptr, QXFLocalizedString("%@"),
                               qx::String::create(message));
    return QXGenerateError(QXDiskArbitrationErrorDomain, status, nullptr, nullptr, nullptr,
                           QXFLocalizedString("DiskArbitration error 0x%x"), static_cast<unsigned>(status));
}

QXDevice::Ref QXDevice::deviceFromDADisk(const qx::Ref<qx::BlockDeviceDisk>& disk, const qx::Ref<qx::BlockDeviceService>& session) {
    return initWithDADisk(disk, session);
}

QXDevice::Ref QXDevice::deviceFromIOMedia(const qx::Ref<qx::Object>& entry, const qx::Ref<qx::BlockDeviceService>& session) {
    return initWithIOMedia(entry, session);
}

QXDevice::Ref QXDevice::initWithDADisk(const qx::Ref<qx::BlockDeviceDisk>& disk, const qx::Ref<qx::BlockDeviceService>& session) {
    auto device = std::make_shared<QXDevice>();
    device->_session = session;
    device->_DADisk = disk;
    if (disk && session) {
        std::weak_ptr<QXDevice> weak = device;
        device->_watchToken = session->watchDescription(disk->name(), [weak] {
            if (auto strong = weak.lock()) strong->reloadDiskInfo();
        });
        device->reloadDiskInfo();
    }
    return device;
}

QXDevice::Ref QXDevice::initWithIOMedia(const qx::Ref<qx::Object>& entry, const qx::Ref<qx::BlockDeviceService>& session) {
    auto disk = qx::dyn_cast<qx::BlockDeviceDisk>(entry);
    return disk ? initWithDADisk(disk, session) : nullptr;
}

QXDevice::~QXDevice() {
    if (_session && _watchToken) _session->unwatchDescription(_watchToken);
}

void QXDevice::reloadDiskInfo() {
    if (!_DADisk || !_session) return;
    const auto description = _session->device(_DADisk->name());
    apply(description ? &*description : nullptr);
}

void QXDevice::apply(const qx::BlockDeviceDescription* d) {
    const qx::BlockDeviceDescription empty;
    if (!d) d = &empty;
    const bool isFilesystem = d->idUsage == "filesystem";
    const qx::BlockDrivePart noDrive;
    const auto& drive = d->drive ? *d->drive : noDrive;
    const std::string* mountPoint = d->filesystem && !d->filesystem->mountPoints.empty() ? &d->filesystem->mountPoints.front() : nullptr;

    _volumeKind = isFilesystem ? stringOrNothing(d->idType) : nullptr;
    _volumeMountable = d->filesystem.has_value();
    _volumeName = stringOrNothing(d->idLabel);
    _isNetworkVolume = false;
    _mountPointURL = mountPoint ? qx::URL::fileURLWithPath(*mountPoint, true) : nullptr;
    _volumeUUID = uuidOrNothing(d->idUUID);
    _blockSize = d->logicalBlockSize;
    _bsdMajorNumber = d->name.empty() ? 0 : major(d->deviceNumber);
    _bsdMinorNumber = d->name.empty() ? 0 : minor(d->deviceNumber);
    _bsdName = stringOrNothing(d->name);
    _bsdUnitNumber = unitOf(d->partition ? d->partition->table : d->name);
    _mediaContent = d->partition ? stringOrNothing(d->partition->type)
                                 : d->partitionTable ? stringOrNothing(d->partitionTable->type) : nullptr;
    _isEjectable = drive.ejectable;
    _iconDescription = nullptr;
    _mediaKind = nullptr;
    _mediaIsLeaf = !d->name.empty() && !d->partitionTable;
    _mediaName = d->partition ? stringOrNothing(d->partition->name) : nullptr;
    _mediaPath = stringOrNothing(d->device);
    _isRemovable = drive.removable;
    _mediaSize = d->size;
    _mediaType = nullptr;
    _mediaUUID = d->partition ? uuidOrNothing(d->partition->uuid)
                              : d->partitionTable ? uuidOrNothing(d->partitionTable->uuid) : nullptr;
    _isWholeDisk = !d->name.empty() && !d->partition;
    _isWritable = !d->name.empty() && !d->readOnly;
    _guid = nullptr;
    _isInternal = d->drive && drive.connectionBus.empty() && !drive.removable;
    _model = stringOrNothing(drive.model);
    _devicePath = stringOrNothing(d->sysfsPath);
    _protocol = stringOrNothing(drive.connectionBus);
    _revision = stringOrNothing(drive.revision);
    _deviceID = 0;
    _vendor = stringOrNothing(drive.vendor);
    _busName = stringOrNothing(drive.connectionBus);
    _busPath = nullptr;
}

std::string QXDevice::description() const {
    return "<QXDevice " + (_bsdName ? _bsdName->utf8() : std::string("(no disk)")) + ">";
}

bool QXDevice::waitForRequest(const std::function<void(qx::BlockDeviceService::Completion)>& start, qx::Ref<qx::Error>* error) {
    auto context = QXDeviceCallbackContext::create();
    auto loop = qx::RunLoop::current();
    // Stays scheduled: description changes reach the device on this loop from now on.
    _session->scheduleWithRunLoop(loop, QXDeviceRunLoopMode);
    start([context](const qx::BlockDeviceAnswer& answer) {
        if (answer.succeeded()) {
            context->setError(nullptr);
            context->setSuccess(true);
            return;
        }
        context->setSuccess(false);
        context->setError(QXDiskArbitrationError(QXDiskArbitrationStatusForErrorName(answer.errorName), answer.message));
    });
    while (!context->success()) {
        if (context->error()) break;
        loop->runMode(QXDeviceRunLoopMode, qx::RunLoop::distantFuture());
    }
    if (!context->success() && error) *error = context->error();
    return context->success();
}

std::vector<std::string> QXDevice::volumesOfWholeDisk() const {
    std::vector<std::string> names;
    const auto self = _session->device(_DADisk->name());
    const std::string disk = self && self->partition ? self->partition->table : _DADisk->name();
    const auto whole = _session->device(disk);
    if (!whole) return names;
    if (whole->filesystem) names.push_back(disk);
    if (whole->partitionTable)
        for (const auto& part : whole->partitionTable->partitions)
            if (auto d = _session->device(part); d && d->filesystem) names.push_back(part);
    return names;
}

bool QXDevice::mountAndReturnError(qx::Ref<qx::Error>* error) { return mountToURL(nullptr, false, nullptr, error); }

bool QXDevice::mountToURL(const qx::Ref<qx::URL>& url, bool whole, const qx::Ref<qx::Array>& arguments, qx::Ref<qx::Error>* error) {
    if (!_DADisk || !_session) {
        if (error) *error = QXDiskArbitrationError(QXDiskArbitrationStatusNotFound, "");
        return false;
    }
    std::string options;
    if (arguments)
        for (const auto& item : *arguments)
            if (auto word = qx::dyn_cast<qx::String>(item); word && !word->empty())
                options += (options.empty() ? "" : ",") + word->utf8();
    const std::string mountPoint = url && url->isFileURL() ? url->path() : std::string();
    if (!whole)
        return waitForRequest([&](auto done) { _session->mount(_DADisk->name(), mountPoint, options, done); }, error);

    // Every volume of the whole disk that is not mounted yet, each at its default place.
    const auto volumes = volumesOfWholeDisk();
    if (volumes.empty()) {
        if (error) *error = QXDiskArbitrationError(QXDiskArbitrationStatusUnsupported, "No mountable file system on " + _DADisk->name());
        return false;
    }
    for (const auto& volume : volumes) {
        const auto d = _session->device(volume);
        if (!d || !d->filesystem || !d->filesystem->mountPoints.empty()) continue;
        if (!waitForRequest([&](auto done) { _session->mount(volume, "", options, done); }, error)) return false;
    }
    return true;
}

bool QXDevice::unmountAndReturnError(qx::Ref<qx::Error>* error) { return unmountWholeDisk(false, false, error); }

bool QXDevice::unmountWholeDisk(bool whole, bool force, qx::Ref<qx::Error>* error) {
    if (!_DADisk || !_session) {
        if (error) *error = QXDiskArbitrationError(QXDiskArbitrationStatusNotFound, "");
        return false;
    }
    if (!whole) return waitForRequest([&](auto done) { _session->unmount(_DADisk->name(), force, done); }, error);
    for (const auto& volume : volumesOfWholeDisk()) {
        const auto d = _session->device(volume);
        if (!d || !d->filesystem || d->filesystem->mountPoints.empty()) continue;
        if (!waitForRequest([&](auto done) { _session->unmount(volume, force, done); }, error)) return false;
    }
    return true;
}

bool QXDevice::ejectAndReturnError(qx::Ref<qx::Error>* error) {
    if (!_DADisk || !_session) {
        if (error) *error = QXDiskArbitrationError(QXDiskArbitrationStatusNotFound, "");
        return false;
    }
    return waitForRequest([&](auto done) { _session->eject(_DADisk->name(), done); }, error);
}
