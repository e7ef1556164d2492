// KeyedArchiveFuzzer.cpp - libFuzzer target for the keyed and sequential unarchivers.
//
// Reads the input as a keyed archive and as a sequential one (any property-list
// format). Whatever decodes must archive again; a decoded property-list tree
// must also unwrap. Failures must be the unarchivers' own errors or the
// readers' (NSCocoaErrorDomain, or the XML parser's).
#include <QXFoundation/QXPropertyList.h>

#include <qx/KeyedArchiver.h>
#include <qx/Log.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void check(const qx::Ref<qx::Object>& decoded) {
    if (!decoded) return;
    if (auto tree = qx::dyn_cast<QXPropertyList>(decoded)) (void)tree->unwrappedPropertyList();
    qx::Ref<qx::Error> error;
    (void)qx::KeyedArchiver::archivedDataWithRootObject(decoded, true, &error);
    fuzz::requireCleanError(error, {}, true);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::silenceLog();
    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    check(qx::KeyedUnarchiver::unarchiveObjectWithData(data, &error));
    fuzz::requireCleanError(error, {}, true);
    error = nullptr;
    check(qx::SequentialArchiver::unarchiveObjectWithData(data, &error));
    fuzz::requireCleanError(error, {}, true);
    return 0;
}
