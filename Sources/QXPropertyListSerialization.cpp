// QXPropertyListSerialization.cpp - format detection, the fallback reader, the
// entry points, and the binary form's entry points and helpers.
//
// The binary reader and writer themselves are QXBinaryPlistReader and
// QXBinaryPlistWriter (Sources/Internal).
#include <QXFoundation/QXPropertyListSerialization.h>

#include <QXFoundation/QXBinaryPlistTrailer.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXBinaryPlistInternal.h"
#include "Internal/QXBinaryPlistReader.h"
#include "Internal/QXBinaryPlistWriter.h"

#include <qx/Log.h>
#include <qx/OldStylePropertyList.h>
#include <qx/String.h>
#include <qx/StringsFile.h>

#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

using namespace QXBinaryPlistInternal;

namespace {

constexpr std::string_view kXMLDeclaration = "<?xml";
constexpr std::string_view kPlistTag = "<plist version=\"1.0\">";
constexpr std::size_t kMinimumSniffLength = 6;
constexpr std::size_t kXMLSniffLength = 300;
constexpr std::size_t kTextSniffLength = 30;
constexpr std::size_t kMinimumBinaryLength = 9;

// --- Format detection and the readers of other formats --------------------------

// True when bytes, read as UTF-8 with white space and line ends trimmed from
// the start, begin with the plist tag. Bytes that are not valid UTF-8 (a
// character cut at the end counts) are not text.
bool beginsWithPlistTag(std::string_view bytes) {
    UChar units[kTextSniffLength];
    int32_t count = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(units, static_cast<int32_t>(kTextSniffLength), &count, bytes.data(),
                  static_cast<int32_t>(bytes.size()), &status);
    if (U_FAILURE(status)) return false;
    int32_t i = 0;
    while (i < count) {
        UChar32 c;
        int32_t next = i;
        U16_NEXT(units, next, count, c);
        if (!u_isUWhiteSpace(c)) break;
        i = next;
    }
    if (static_cast<std::size_t>(count - i) < kPlistTag.size()) return false;
    for (std::size_t k = 0; k < kPlistTag.size(); ++k)
        if (units[static_cast<std::size_t>(i) + k] != static_cast<UChar>(kPlistTag[k])) return false;
    return true;
}

// The platform's reader, for data the library's own readers cannot read. It
// reads what this system's platform would: binary files are left as they
// failed; text that opens like an XML document (also in UTF-16) goes to the
// XML reader, whose errors are then the caller's; anything else is read as
// old-style text, the brace and parenthesis form that format 1 writes.
qx::Ref<qx::Object> readWithFallback(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                     qx::Ref<qx::Error>* error) {
    if (!data || data->view().starts_with("bplist")) {
        setError(error);
        return nullptr;
    }
    if (data->length() == 0) {
        QXLog("cannot read a property list from empty data");
        if (error)
            *error = QXGenerateError(qx::NSCocoaErrorDomain, kPropertyListErrorCode, nullptr, nullptr, nullptr,
                                     "The data is empty.");
        return nullptr;
    }
    const std::string_view bytes = data->view();
    // The opening, decoded as the text reader decodes: enough for an XML declaration.
    const std::u16string head = qx::decodeStringsFileText(bytes.substr(0, std::min<std::size_t>(bytes.size(), 256)));
    std::size_t i = 0;
    while (i < head.size() && (head[i] == u' ' || head[i] == u'\t' || head[i] == u'\r' || head[i] == u'\n' ||
                               head[i] == 0xFEFF))
        ++i;
    const std::u16string_view opening = std::u16string_view(head).substr(i);
    if (opening.starts_with(u"<?xml") || opening.starts_with(u"<!") || opening.starts_with(u"<plist")) {
        qx::Ref<qx::Error> xmlError;
        auto plist = QXPropertyListSerialization::XMLPropertyListWithData(data, &xmlError);
        if (plist) {
            if (format) *format = QXPropertyListXMLFormat_v1_0;
            return plist;
        }
        // Element text that does not parse fails the document without an
        // error of its own; the caller still learns that the data was refused.
        if (!xmlError) QXLog("XML property list holds text that is not a value of its element");
        if (error) *error = xmlError ? xmlError : makeError();
        return nullptr;
    }
    qx::OldStyleParseFailure failure;
    auto plist = qx::propertyListFromOldStyleData(bytes, &failure);
    if (!plist) {
        QXLog("old-style property list: %s at line %lu, column %lu", failure.reason,
              static_cast<unsigned long>(failure.line), static_cast<unsigned long>(failure.column));
        if (error)
            *error = QXGenerateError(qx::NSCocoaErrorDomain, kPropertyListErrorCode, nullptr, nullptr, nullptr,
                                     "The data is not a property list: %s at line %lu, column %lu.", failure.reason,
                                     static_cast<unsigned long>(failure.line),
                                     static_cast<unsigned long>(failure.column));
        return nullptr;
    }
    if (format) *format = QXPropertyListOpenStepFormat;
    return plist;
}

} // namespace

// --- Entry points --------------------------------------------------------------

bool QXPropertyListSerialization::isPropertyList(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format) {
    if (!data || data->length() < kMinimumSniffLength) return false;
    const std::string_view bytes = data->view();
    if (bytes.starts_with(kXMLDeclaration)) {
        if (bytes.substr(0, kXMLSniffLength).find(kPlistTag) == std::string_view::npos) return false;
        if (format) *format = QXPropertyListXMLFormat_v1_0;
        return true;
    }
    if (bytes.size() >= kTextSniffLength) {
        if (beginsWithPlistTag(bytes.substr(0, kTextSniffLength))) {
            if (format) *format = QXPropertyListXMLFormat_v1_0;
            return true;
        }
    } else if (bytes.size() < kMinimumBinaryLength) {
        return false;
    }
    if (!bytes.starts_with(kBinaryPlistMagic)) return false;
    if (format) *format = QXPropertyListBinaryFormat_v1_0;
    return true;
}

qx::Ref<qx::Object> QXPropertyListSerialization::propertyListWithData(const qx::Ref<qx::Data>& data,
                                                                      QXPropertyListFormat* format,
                                                                      qx::Ref<qx::Error>* error) {
    QXPropertyListFormat recognised = 0;
    if (isPropertyList(data, &recognised)) {
        qx::Ref<qx::Object> plist = recognised == QXPropertyListBinaryFormat_v1_0
                                        ? binaryPropertyListWithData(data, nullptr)
                                        : XMLPropertyListWithData(data, nullptr);
        if (plist) {
            if (format) *format = recognised;
            return plist;
        }
    }
    return readWithFallback(data, format, error);
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                    QXPropertyListFormat format,
                                                                    qx::Ref<qx::Error>* error) {
    switch (format) {
    case QXPropertyListBinaryFormat_v1_0: return binaryDataWithPropertyList(plist, error);
    case QXPropertyListOpenStepFormat: return oldStylePlistDataWithItem(plist, error);
    case QXPropertyListXMLFormat_v1_0: return xmlDataWithPropertyList(plist, error);
    default: setError(error, qx::NSPOSIXErrorDomain, EINVAL); return nullptr;
    }
}

qx::Ref<qx::Data> QXPropertyListSerialization::binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                          qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&] { return writeBinary(plist, error); });
}

qx::Ref<qx::Data> QXPropertyListSerialization::binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                          QXBinaryPlistWriteOptions options,
                                                                          qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&] { return writeBinary(plist, error, options & QXBinaryPlistWidenReferences); });
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                                    QXPropertyListFormat format,
                                                                    QXBinaryPlistWriteOptions options,
                                                                    qx::Ref<qx::Error>* error) {
    if (format == QXPropertyListBinaryFormat_v1_0) return binaryDataWithPropertyList(plist, options, error);
    return dataWithPropertyList(plist, format, error);
}

qx::Ref<qx::Object> QXPropertyListSerialization::binaryPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                                            qx::Ref<qx::Error>* error) {
    if (!data) {
        setError(error);
        return nullptr;
    }
    auto trailer = failingOnExhaustion(error, [&] { return QXBinaryPlistTrailer::trailerWithData(*data, error); });
    if (!trailer) return nullptr;
    return plistElementWithNumber(trailer->numberOfTopLevelObject(), *data, *trailer, error);
}

// --- Writer helpers ------------------------------------------------------------

std::uint64_t QXPropertyListSerialization::countPlists(const qx::Ref<qx::Object>& plist) {
    KindCache kinds;
    Census census;
    takeCensus(plist.get(), 0, kinds, census);
    return census.values;
}

bool QXPropertyListSerialization::addPlist(const qx::Ref<qx::Object>& plist, qx::Data& data, qx::Data& ptrTable,
                                           std::uint8_t ptrSize, std::uint64_t& objCount, std::uint64_t* objNum,
                                           qx::Ref<qx::Error>* error) {
    BinaryWriter writer(data.vector(), ptrTable.vector(), ptrSize, objCount);
    return writer.write(plist.get(), objNum, 0, error);
}

bool QXPropertyListSerialization::addVariableLength(std::uint64_t count, qx::Data& data, std::uint8_t marker,
                                                    qx::Ref<qx::Error>*) {
    appendCountHeader(data.vector(), count, marker);
    return true;
}

bool QXPropertyListSerialization::addInteger(std::uint64_t value, qx::Data& data, qx::Ref<qx::Error>*) {
    appendInteger(data.vector(), value);
    return true;
}

bool QXPropertyListSerialization::addInteger(std::uint64_t value, qx::Data& data, std::uint8_t intSize,
                                             qx::Ref<qx::Error>*) {
    appendBigEndian(data.vector(), value, intSize);
    return true;
}

bool QXPropertyListSerialization::addDouble(double value, qx::Data& data, qx::Ref<qx::Error>*) {
    appendDouble(data.vector(), value);
    return true;
}

// --- Reader helpers ------------------------------------------------------------

std::uint64_t QXPropertyListSerialization::intFromData(const qx::Data& data, std::uint64_t& position) {
    return readInteger(data.bytes(), data.length(), position);
}

std::uint64_t QXPropertyListSerialization::intFromData(const qx::Data& data, std::uint64_t& position,
                                                       std::uint64_t size) {
    return readSized(data.bytes(), data.length(), position, size);
}

qx::Ref<qx::Number> QXPropertyListSerialization::floatNumberFromData(const qx::Data& data, std::uint64_t& position,
                                                                     std::uint64_t size, qx::Ref<qx::Error>* error) {
    return readReal(data.bytes(), data.length(), position, size, error);
}

qx::Ref<qx::Data> QXPropertyListSerialization::dataFromData(const qx::Data& data, std::uint64_t& position,
                                                            std::uint8_t initialByte, qx::Ref<qx::Error>* error) {
    Payload p;
    if (!readPayload(data.bytes(), data.length(), position, initialByte, p, error)) return nullptr;
    const std::uint64_t byteCount = (initialByte & 0xF0) == 0x60 ? 2 * p.count : p.count;
    return qx::Data::withBytes(p.bytes, static_cast<std::size_t>(byteCount));
}

qx::Ref<qx::Object> QXPropertyListSerialization::plistElementWithNumber(std::uint64_t number, const qx::Data& data,
                                                                        const QXBinaryPlistTrailer& trailer,
                                                                        qx::Ref<qx::Error>* error) {
    return failingOnExhaustion(error, [&] {
        BinaryReader reader(data, trailer);
        return reader.decode(number, 0, error);
    });
}