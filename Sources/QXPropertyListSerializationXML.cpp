// QXPropertyListSerializationXML.cpp - the XML form's entry points and base64.
//
// The document is printed by QXXMLPlistPrinter and read by QXXMLPlistReader
// (Sources/Internal); QXXMLPlistTree builds the same document as a libxml2 tree.
#include <QXFoundation/QXPropertyListSerialization.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXXMLPlistPrinter.h"
#include "Internal/QXXMLPlistReader.h"
#include "Internal/QXXMLPlistValueText.h"

#include <qx/String.h>

#include <ctime>
#include <string>
#include <vector>

using namespace QXBinaryPlistInternal;
using namespace QXXMLPlistInternal;

qx::Ref<qx::Data> QXPropertyListSerialization::xmlDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                       qx::Ref<qx::Error>* error) {
    return xmlDocumentWithPropertyList(plist, nullptr, error);
}

qx::Ref<qx::Object> QXPropertyListSerialization::XMLPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                                         qx::Ref<qx::Error>* error) {
    return readXMLPropertyList(data, error);
}

qx::Ref<qx::String> QXPropertyListSerialization::base64StringWithData(const qx::Ref<qx::Data>& data,
                                                                      qx::Ref<qx::Error>*) {
    if (!data) return qx::str("");
    return qx::str(encodeBase64(data->bytes(), data->length()));
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithBase64String(const qx::String& string, qx::Ref<qx::Error>*) {
    std::vector<std::uint8_t> bytes;
    if (!decodeBase64(string.utf8(), bytes)) return nullptr;
    return std::make_shared<qx::Data>(std::move(bytes));
}
