// XMLPropertyListFuzzer.cpp - libFuzzer target for the XML property-list reader and writer.
//
// Reads the input as an XML property list; whatever reads is written back as
// XML and must read again, and be written again to the same bytes. Failures
// must be the reader's own errors (NSCocoaErrorDomain 3840, 3841 or 256) or
// the XML parser's.
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Log.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::silenceLog();

    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    auto plist = QXPropertyListSerialization::XMLPropertyListWithData(data, &error);
    fuzz::requireCleanError(error, {3840, 3841, 256}, true);
    if (!plist) return 0;

    qx::Ref<qx::Error> writeError;
    auto written = QXPropertyListSerialization::xmlDataWithPropertyList(plist, &writeError);
    if (!written) std::abort();  // everything the reader makes can be written
    qx::Ref<qx::Error> rereadError;
    auto reread = QXPropertyListSerialization::XMLPropertyListWithData(written, &rereadError);
    if (!reread) std::abort();
    auto again = QXPropertyListSerialization::xmlDataWithPropertyList(reread, nullptr);
    if (!again || again->view() != written->view()) std::abort();
    return 0;
}
