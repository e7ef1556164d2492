// QXFileSizeFormatter.h - byte counts as human-readable sizes, and back.
//
// Shows a number as formattedStringWithFileSize does ("1023 bytes", "1.5 KiB",
// in German "1,5 KiB"). Reads a number with an optional unit, in either the
// decimal ("kb", "kilo", "mo" ... powers of 1000) or the binary family ("kib",
// "kibi", "mio" ... powers of 1024) up to yotta/yobi, case ignored, so that
// the text it writes reads back: "1.5 KiB" is 1536. An unknown or missing
// unit means bytes. The number may use "." or the current locale's decimal
// separator. Keeps no state; any thread.
#pragma once

#include <qx/Formatter.h>
#include <qx/Number.h>

/// Key names the application may store its size-display preferences under;
/// the formatter itself does not read them.
extern const char* const QXFileSizeFormatterAlwaysDisplayBytes;  // "QXFileSizeFormatterAlwaysDisplayBytes"
extern const char* const QXFileSizeFormatterDisplayBytesInHex;   // "QXFileSizeFormatterDisplayBytesInHex"

class QXFileSizeFormatter : public qx::Formatter {
public:
    static qx::Ref<QXFileSizeFormatter> create();

    /// A number's value as unsigned 64-bit, as a size text; nothing for anything else.
    qx::Ref<qx::String> stringForObjectValue(const qx::Ref<qx::Object>& object) const override;

    /// A signed 64-bit number: the leading decimal number of string times its
    /// unit's factor, rounded to the nearest integer. Fails when the text does
    /// not start with a number, or the size is beyond the signed 64-bit range.
    bool getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                        qx::Ref<qx::String>* errorDescription = nullptr) const override;

    std::string className() const override { return "QXFileSizeFormatter"; }

protected:
    QXFileSizeFormatter() = default;
};
