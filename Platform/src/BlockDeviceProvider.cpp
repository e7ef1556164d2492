// BlockDeviceProvider.cpp - the machine's providers, and the one place that chooses between them.
#include <qx/BlockDeviceProvider.h>

#include "DirectBlockDeviceProvider.h"
#include "UDisksBlockDeviceProvider.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace qx {

namespace {

// Made on first use, with connection (when given) as its first connection,
// so that the choice's own look at the bus is not thrown away.
Ref<BlockDeviceProvider> udisksInstance(sdbus::Bus connection = nullptr) {
    static std::once_flag once;
    static Ref<BlockDeviceProvider> provider;
    std::call_once(once, [&] { provider = std::make_shared<UDisksBlockDeviceProvider>(std::move(connection)); });
    return provider;
}

Ref<BlockDeviceProvider> choose() {
    const char* forced = std::getenv("QX_BLOCK_DEVICE_PROVIDER");
    if (forced && std::strcmp(forced, "direct") == 0) return BlockDeviceProvider::directProvider();
    if (forced && std::strcmp(forced, "udisks") == 0) return udisksInstance();
    sdbus::Bus bus = sdbus::openSystemBus();
    if (bus && UDisksBlockDeviceProvider::serviceIsAvailable(bus.get())) return udisksInstance(std::move(bus));
    return BlockDeviceProvider::directProvider();
}

} // namespace

Ref<BlockDeviceProvider> BlockDeviceProvider::systemProvider() {
    static const Ref<BlockDeviceProvider> chosen = choose();
    return chosen;
}

Ref<BlockDeviceProvider> BlockDeviceProvider::directProvider() {
    static const Ref<BlockDeviceProvider> provider = std::make_shared<DirectBlockDeviceProvider>();
    return provider;
}

Ref<BlockDeviceProvider> BlockDeviceProvider::udisksProvider() {
    sdbus::Bus bus = sdbus::openSystemBus();
    if (!bus || !UDisksBlockDeviceProvider::serviceIsAvailable(bus.get())) return nullptr;
    return udisksInstance(std::move(bus));
}

} // namespace qx
