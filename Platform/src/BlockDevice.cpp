// BlockDevice.cpp - what the block-device service says about one block object.
#include <qx/BlockDevice.h>

namespace qx {

bool BlockDeviceDisk::isEqual(const Object& other) const {
    auto* disk = dynamic_cast<const BlockDeviceDisk*>(&other);
    return disk && disk->name_ == name_;
}

} // namespace qx
