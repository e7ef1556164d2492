// XMLPropertyListFuzzer.cpp - libFuzzer target for the XML property-list reader and writer.
//
// Reads the input as an XML property list; whatever reads is written back as
// XML and must read again, and be written again to the same bytes. Failures
// must be the reader's own errors (NSCocoaErrorDomain 3840, 3841 or 256) or
// the XML parser's.
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Log.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void requireCleanError(const qx::Ref<qx::Error>& error) {
    if (!error) return;
    if (error->domain() == "NSXMLParserErrorDomain") return;
    if (error->domain() != qx::NSCocoaErrorDomain) std::abort();
    if (error->code() != 3840 && error->code() != 3841 && error->code() != 256) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const qx::LogSink previous = qx::setLogSink([](const std::string&) {});
    (void)previous;

    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    auto plist = QXPropertyListSerialization::XMLPropertyListWithData(data, &error);
    requireCleanError(error);
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
