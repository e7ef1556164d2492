// QXPropertyListSerialization.h - reading and writing property lists.
//
// The library's own serialiser. Writing never relies on anything else; reading
// tries the library's readers first and passes data they cannot read to the
// fallback reader. All operations are class operations.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>

#include <cstdint>

/// Property-list format codes.
using QXPropertyListFormat = std::uint64_t;
inline constexpr QXPropertyListFormat QXPropertyListOpenStepFormat = 1;
inline constexpr QXPropertyListFormat QXPropertyListXMLFormat_v1_0 = 100;
inline constexpr QXPropertyListFormat QXPropertyListBinaryFormat_v1_0 = 200;

class QXBinaryPlistTrailer;

class QXPropertyListSerialization {
public:
    QXPropertyListSerialization() = delete;

    // --- Entry points -----------------------------------------------------

    /// True when data is recognised as an XML or binary property list; then
    /// *format (when given) is 100 or 200.
    static bool isPropertyList(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format);

    /// Reads a property list of any recognised format. On success *format
    /// (when given) holds the format read.
    static qx::Ref<qx::Object> propertyListWithData(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                                    qx::Ref<qx::Error>* error = nullptr);

    /// Writes plist in format 1, 100 or 200; any other format fails with
    /// NSPOSIXErrorDomain 22.
    static qx::Ref<qx::Data> dataWithPropertyList(const qx::Ref<qx::Object>& plist, QXPropertyListFormat format,
                                                  qx::Ref<qx::Error>* error = nullptr);

    /// Writes the binary "bplist00" form.
    static qx::Ref<qx::Data> binaryDataWithPropertyList(const qx::Ref<qx::Object>& plist,
                                                        qx::Ref<qx::Error>* error = nullptr);

    /// Reads the binary form (the header is not looked at).
    static qx::Ref<qx::Object> binaryPropertyListWithData(const qx::Ref<qx::Data>& data,
                                                          qx::Ref<qx::Error>* error = nullptr);
};
