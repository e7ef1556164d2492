// InfoCommand.cpp - `hdiutil info`.
//
// Every loop device with a backing file is an attached image: the images this
// tool attached and the ones attached by other means alike, since a caller
// asking whether an image is attached means attached at all. Decoded images
// are named by the record the attach left beside the cache.
#include "InfoCommand.h"

#include "FuseMounts.h"
#include "ImageCache.h"
#include "ImageRecords.h"
#include "PlistOutput.h"
#include "SystemEntities.h"
#include "ToolFailure.h"

#include <qx/Array.h>
#include <qx/BlockDeviceProvider.h>
#include <qx/Number.h>
#include <qx/String.h>

namespace hdiutil {

namespace {

constexpr const char* kDeletedSuffix = " (deleted)";

} // namespace

std::string imageBehind(const std::string& backingFile) {
    std::string file = backingFile;
    // The kernel marks a backing file removed since the attach; its name still says what it was.
    const std::string suffix = kDeletedSuffix;
    if (file.size() > suffix.size() && file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0)
        file.resize(file.size() - suffix.size());
    if (ImageCache::holds(file))
        if (auto image = recordedImage(file)) return *image;
    return file;
}

int runInfo(const ToolArguments& arguments) {
    const auto all = qx::BlockDeviceProvider::systemProvider()->devices();
    auto images = qx::Array::create();
    std::string text;
    for (const auto& disk : all) {
        if (!disk.loop || disk.partition || disk.loop->backingFile.empty()) continue;
        std::vector<qx::BlockDeviceDescription> devices{disk};
        for (const auto& d : all)
            if (d.partition && d.partition->table == disk.name) devices.push_back(d);
        addHelperMounts(devices);
        const std::string path = imageBehind(disk.loop->backingFile);
        const auto entities = systemEntities(devices, {});
        auto image = qx::Dictionary::create();
        image->setObject(qx::String::create(path), "image-path");
        image->setObject(qx::String::create(ImageCache::holds(disk.loop->backingFile) ? "UDIF read-only image (decoded)"
                                                                                       : "raw read-only image"),
                         "image-type");
        image->setObject(qx::Number::withBool(!disk.readOnly), "writeable");
        image->setObject(entities, "system-entities");
        images->addObject(image);
        text += "================================================\nimage-path      : " + path + "\n" + entitiesText(entities);
    }
    std::string reason;
    if (arguments.plist) {
        auto root = qx::Dictionary::create();
        root->setObject(qx::String::create(HDIUTIL_VERSION), "framework");
        root->setObject(qx::String::create(HDIUTIL_VERSION), "revision");
        root->setObject(qx::String::create("QXFoundation"), "vendor");
        root->setObject(images, "images");
        if (!printPropertyList(root, reason)) return fail(arguments.verbName, reason);
    } else {
        const std::string header = std::string("framework       : ") + HDIUTIL_VERSION + "\ndriver          : loop\n";
        if (!printText(header + text, reason)) return fail(arguments.verbName, reason);
    }
    return 0;
}

} // namespace hdiutil
