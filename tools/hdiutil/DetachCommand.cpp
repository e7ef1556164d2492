// DetachCommand.cpp - `hdiutil detach`.
//
// All or nothing as far as this tool can tell: every file system of the image
// is checked for users before the first is unmounted, so a busy one leaves
// the whole image attached and mounted (exit 16). Only a process that starts
// using a file system between the check and its unmount can still leave the
// image half detached; that unmount then fails the same way.
#include "DetachCommand.h"

#include "FuseMounts.h"
#include "MountUsers.h"
#include "SystemEntities.h"
#include "ToolFailure.h"

#include <qx/BlockDeviceProvider.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hdiutil {

namespace {

// "/dev/loop3", "loop3", "/dev/loop3p1" and "loop3p1" all name loop3.
std::string deviceName(const std::string& operand) {
    const std::string prefix = "/dev/";
    return operand.rfind(prefix, 0) == 0 ? operand.substr(prefix.size()) : operand;
}

int busy(const std::string& name) { return failWithLine("couldn't eject \"" + name + "\" - Resource busy", kExitBusy); }

} // namespace

int runDetach(const ToolArguments& arguments) {
    const std::string verb = arguments.verbName;
    const auto provider = qx::BlockDeviceProvider::systemProvider();
    const std::string name = deviceName(arguments.operand);
    const auto device = provider->device(name);
    if (!device) return fail(verb, "No such file or directory");
    const std::string disk = device->partition ? device->partition->table : device->name;
    const auto devices = imageDevices(disk);
    if (devices.empty() || !devices.front().loop || devices.front().loop->backingFile.empty())
        return fail(verb, "not a disk image");

    std::vector<std::string> points;
    for (const auto& d : devices)
        if (d.filesystem) points.insert(points.end(), d.filesystem->mountPoints.begin(), d.filesystem->mountPoints.end());
    if (!arguments.force && isAnyInUse(points)) return busy(name);

    // Partitions before the whole disk, so a disk with a file system of its own goes last.
    for (auto d = devices.rbegin(); d != devices.rend(); ++d) {
        if (!d->filesystem) continue;
        bool kernelMount = false;
        for (const auto& point : d->filesystem->mountPoints) {
            if (!isHelperMount(devices, point)) {
                kernelMount = true;
            } else if (const int code = unmountHelper(point, arguments.force)) {
                return code == EBUSY ? busy(name) : fail(verb, point + ": " + std::strerror(code));
            }
        }
        if (!kernelMount) continue;
        const auto answer = provider->unmount(d->name, arguments.force);
        if (answer.errorName == qx::BlockDeviceErrorName::DeviceBusy) return busy(name);
        if (!answer.succeeded()) return fail(verb, answer.message.empty() ? answer.errorName : answer.message);
    }
    const auto answer = provider->loopDelete(disk);
    if (answer.errorName == qx::BlockDeviceErrorName::DeviceBusy) return busy(name);
    if (!answer.succeeded()) return fail(verb, answer.message.empty() ? answer.errorName : answer.message);
    forgetHelperMounts(devices.front());
    std::printf("\"%s\" ejected.\n", name.c_str());
    return 0;
}

} // namespace hdiutil
