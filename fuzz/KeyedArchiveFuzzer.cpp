// KeyedArchiveFuzzer.cpp - libFuzzer target for the keyed and sequential unarchivers.
//
// Reads the input as a keyed archive and as a sequential one (any property-list
// format). Whatever decodes must archive again; a decoded property-list tree
// must also unwrap. Failures must be the unarchivers' own errors or the
// readers' (NSCocoaErrorDomain, or the XML parser's).
#include <QXFoundation/QXPropertyList.h>

#include <qx/KeyedArchiver.h>
#include <qx/Log.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void requireCleanError(const qx::Ref<qx::Error>& error) {
    if (!error) return;
    if (error->domain() != qx::NSCocoaErrorDomain && error->domain() != "NSXMLParserErrorDomain") std::abort();
}

void check(const qx::Ref<qx::Object>& decoded) {
    if (!decoded) return;
    if (auto tree = qx::dyn_cast<QXPropertyList>(decoded)) (void)tree->unwrappedPropertyList();
    qx::Ref<qx::Error> error;
    (void)qx::KeyedArchiver::archivedDataWithRootObject(decoded, true, &error);
    requireCleanError(error);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const qx::LogSink previous = qx::setLogSink([](const std::string&) {});
    (void)previous;
    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    check(qx::KeyedUnarchiver::unarchiveObjectWithData(data, &error));
    requireCleanError(error);
    error = nullptr;
    check(qx::SequentialArchiver::unarchiveObjectWithData(data, &error));
    requireCleanError(error);
    return 0;
}
