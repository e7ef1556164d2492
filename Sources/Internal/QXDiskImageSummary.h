// QXDiskImageSummary.h - an image's description as a property list: format,
// sizes, checksum, properties and block tables.
//
// The keys are the ones disk-image tools print for image information
// ("Format", "Size Information", "Properties", "partitions", ...), so that
// `qx image info --plist` and the Linux disk-image tool print the same thing
// and a caller that reads one reads the other.
#pragma once

#include <qx/Dictionary.h>

class QXDiskImage;

namespace QXDiskImageSummary {

/// The description of image; reads nothing beyond what opening it read.
qx::Ref<qx::Dictionary> propertyList(const QXDiskImage& image);

} // namespace QXDiskImageSummary
