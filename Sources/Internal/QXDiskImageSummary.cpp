// QXDiskImageSummary.cpp - an image's description as a property list.
#include "Internal/QXDiskImageSummary.h"

#include <QXFoundation/QXDiskImage.h>

#include <qx/Array.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <cinttypes>
#include <cstdio>

namespace QXDiskImageSummary {

qx::Ref<qx::Dictionary> propertyList(const QXDiskImage& image) {
    auto root = qx::Dictionary::create();
    const auto master = image.masterChecksum();
    root->setObject(qx::String::create(image.formatName()), "Format");
    root->setObject(qx::String::create(image.formatDescription()), "Format Description");
    root->setObject(qx::String::create(image.isUDIF() ? "CUDIFDiskImage" : "CRawDiskImage"), "Class Name");
    root->setObject(qx::String::create(master.type == 2 ? "CRC32" : "none"), "Checksum Type");
    char value[16];
    std::snprintf(value, sizeof value, "$%08" PRIX32, master.value);
    if (master.type == 2) root->setObject(qx::String::create(value), "Checksum Value");

    auto sizes = qx::Dictionary::create();
    sizes->setObject(qx::Number::withUInt64(image.size()), "Total Bytes");
    sizes->setObject(qx::Number::withUInt64(image.sectorCount()), "Sector Count");
    sizes->setObject(qx::Number::withUInt64(image.compressedSize()), "Compressed Bytes");
    sizes->setObject(qx::Number::withUInt64(image.fileSize()), "Total Non-Empty Bytes");
    root->setObject(sizes, "Size Information");

    const bool compressed = image.formatName() != "UDRO" && image.formatName() != "UDRW";
    auto properties = qx::Dictionary::create();
    properties->setObject(qx::Number::withBool(false), "Encrypted");
    properties->setObject(qx::Number::withBool(true), "Kernel Compatible");
    properties->setObject(qx::Number::withBool(master.type != 0), "Checksummed");
    properties->setObject(qx::Number::withBool(image.hasLicenseAgreement()), "Software License Agreement");
    properties->setObject(qx::Number::withBool(image.imageVariant() == 1), "Partitioned");
    properties->setObject(qx::Number::withBool(compressed), "Compressed");
    root->setObject(properties, "Properties");

    auto list = qx::Array::create();
    for (const auto& p : image.partitions()) {
        auto entry = qx::Dictionary::create();
        entry->setObject(qx::String::create(p.name), "partition-name");
        entry->setObject(qx::Number::withUInt64(p.firstSector), "partition-start");
        entry->setObject(qx::Number::withUInt64(p.sectorCount), "partition-length");
        entry->setObject(qx::String::create(p.type), "partition-hint");
        list->addObject(entry);
    }
    auto partitions = qx::Dictionary::create();
    partitions->setObject(qx::Number::withUInt64(512), "block-size");
    partitions->setObject(list, "partitions");
    root->setObject(partitions, "partitions");
    return root;
}

} // namespace QXDiskImageSummary
