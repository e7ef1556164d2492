// BinaryPropertyListFuzzer.cpp - libFuzzer target for the binary property-list reader and writer.
//
// Reads the input as a binary property list; whatever reads is written back
// and must read again. Writing can fail cleanly only for values the writer has
// no encoding for (non-string keys, over-long UIDs); the re-read can fail only
// where the writer's own rules leave a value behind (sets and other kinds
// without bytes, references cut to the chosen width). Every failure must carry
// NSCocoaErrorDomain 3840. Whatever XML document the printer vouches for must
// read back.
#include <QXFoundation/QXPropertyListSerialization.h>

#include "Internal/QXXMLPlistPrinter.h"

#include <qx/Log.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    // Malformed input logs freely; keep it out of syslog.
    fuzz::silenceLog();

    auto data = qx::Data::withBytes(bytes, size);
    qx::Ref<qx::Error> error;
    auto plist = QXPropertyListSerialization::binaryPropertyListWithData(data, &error);
    fuzz::requireCleanError(error, {3840});

    // The general entry point sniffs first; what it reads as binary the binary
    // reader must read too (other data may read as text through the fallback).
    QXPropertyListFormat format = 0;
    qx::Ref<qx::Error> generalError;
    auto general = QXPropertyListSerialization::propertyListWithData(data, &format, &generalError);
    if (general && format == QXPropertyListBinaryFormat_v1_0 && !plist) std::abort();
    if (!plist) return 0;

    // A value read from binary can hold any text; the XML printer's word that
    // its document reads back (which lets qx skip parsing it again) must hold.
    bool readsBack = false;
    auto xml = QXXMLPlistInternal::xmlDocumentWithPropertyList(plist, &readsBack, nullptr);
    if (xml && readsBack && !QXPropertyListSerialization::XMLPropertyListWithData(xml, nullptr)) std::abort();

    qx::Ref<qx::Error> writeError;
    auto written = QXPropertyListSerialization::binaryDataWithPropertyList(plist, &writeError);
    fuzz::requireCleanError(writeError, {3840});
    if (!written) return 0;

    qx::Ref<qx::Error> rereadError;
    auto reread = QXPropertyListSerialization::binaryPropertyListWithData(written, &rereadError);
    fuzz::requireCleanError(rereadError, {3840});
    // What the writer's output reads back as is written again, or refused cleanly.
    if (reread) {
        qx::Ref<qx::Error> againError;
        QXPropertyListSerialization::binaryDataWithPropertyList(reread, &againError);
        fuzz::requireCleanError(againError, {3840});
    }
    return 0;
}
