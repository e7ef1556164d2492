// ImageInfoCommand.cpp - `hdiutil imageinfo`.
//
// The operand may be a device attached from an image (the mounter asks about
// an attached image through its device): the image behind the device's loop
// is described then, the original for a decoded one.
#include "ImageInfoCommand.h"

#include "ImageLocation.h"
#include "InfoCommand.h"
#include "PlistOutput.h"
#include "ToolFailure.h"

#include "Internal/QXDiskImageSummary.h"

#include <QXFoundation/QXDiskImage.h>

#include <qx/BlockDeviceProvider.h>

#include <sys/stat.h>

namespace hdiutil {

namespace {

// The image behind a block device operand (a path or a file URL, the way the
// mounter passes it); the operand itself otherwise.
std::string imageOperand(const std::string& operand) {
    const std::string path = operandPath(operand);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return operand;
    const std::string name = path.substr(path.find_last_of('/') + 1);
    const auto provider = qx::BlockDeviceProvider::systemProvider();
    auto device = provider->device(name);
    if (device && device->partition) device = provider->device(device->partition->table);
    if (!device || !device->loop || device->loop->backingFile.empty()) return operand;
    return imageBehind(device->loop->backingFile);
}

} // namespace

int runImageInfo(const ToolArguments& arguments) {
    const std::string verb = arguments.verbName;
    std::string reason;
    const auto location = locateImage(imageOperand(arguments.operand), reason);
    if (!location) return fail(verb, reason);
    qx::Ref<qx::Error> error;
    const auto image = QXDiskImage::imageWithContentsOfURL(location->url, &error);
    if (!image) return fail(verb, reasonFromError(error));
    const auto summary = QXDiskImageSummary::propertyList(*image);
    const bool printed = arguments.plist ? printPropertyList(summary, reason) : printText(dictionaryText(summary), reason);
    return printed ? 0 : fail(verb, reason);
}

} // namespace hdiutil
