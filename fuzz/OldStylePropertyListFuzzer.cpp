// OldStylePropertyListFuzzer.cpp - libFuzzer target for the old-style text reader.
//
// Reads the input as old-style text, strictly and as a tolerant strings file.
// Whatever reads strictly is written back in the old-style form and must read
// again to the same value: the reader yields only strings, data, arrays and
// dictionaries, and the writer quotes and escapes every string so that it
// reads back as itself (data comes back as its description, a string).
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Log.h>
#include <qx/OldStylePropertyList.h>
#include <qx/StringsFile.h>

#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::silenceLog();

    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    qx::OldStyleParseFailure failure;
    auto plist = qx::propertyListFromOldStyleData(text, &failure);
    if (!plist && (failure.reason.empty() || failure.line == 0 || failure.column == 0)) std::abort();
    if (!qx::dictionaryFromStringsFileData(text)) std::abort();
    if (!plist) return 0;

    auto written = QXPropertyListSerialization::oldStylePlistDataWithItem(plist, nullptr);
    if (!written) std::abort();
    auto reread = qx::propertyListFromOldStyleData(written->view(), nullptr);
    if (!reread) std::abort();
    auto again = QXPropertyListSerialization::oldStylePlistDataWithItem(reread, nullptr);
    if (!again || again->view() != written->view()) std::abort();
    return 0;
}
