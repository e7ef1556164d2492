// QXHexFormatter.h - byte buffers as hexadecimal dumps, and back.
//
// Shows data as "41 42 0A " (two upper-case digits and a space per byte) and
// reads any run of hexadecimal digits, optionally in "<...>" and spaced, back
// into bytes. Keeps no state; any thread.
#pragma once

#include <qx/Data.h>
#include <qx/Formatter.h>

#include <cstdint>

class QXHexFormatter : public qx::Formatter {
public:
    /// A new formatter.
    static qx::Ref<QXHexFormatter> formatter();

    /// Whether a byte is shown as itself in a dump's text column: 32-126,
    /// 128-160, 162-201 and 203-254. Control bytes, 127, 161, 202 and 255 are not.
    bool isAsciiCharLegal(std::uint8_t byte) const;

    /// Every byte of data as "%02X " (also after the last). When asciiString is
    /// given it gets one character per byte: the byte's Mac OS Roman character
    /// when isAsciiCharLegal, else ".". Nothing data gives the empty string.
    qx::Ref<qx::String> hexStringForData(const qx::Ref<qx::Data>& data, qx::Ref<qx::String>* asciiString = nullptr) const;

    /// The bytes of string's hexadecimal digits, two per byte, once "<", ">",
    /// white space and line breaks are removed; a last lone digit d is the byte
    /// 0d. Nothing when any other character remains; empty data for no digits.
    qx::Ref<qx::Data> dataFromHexString(const qx::String& string) const;

    /// A dump of data; of a string of only hexadecimal digits, white space,
    /// "<" and ">", the dump of the bytes it spells; of any other string, the
    /// dump of its Mac OS Roman bytes (characters without one as "?").
    /// Nothing for other objects.
    qx::Ref<qx::String> stringForObjectValue(const qx::Ref<qx::Object>& object) const override;

    /// Data from dataFromHexString, or empty data when string spells none.
    /// Always succeeds.
    bool getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                        qx::Ref<qx::String>* errorDescription = nullptr) const override;

    /// True exactly when the proposed text holds only hexadecimal digits,
    /// white space, line breaks, "<" and ">". Changes nothing.
    bool isPartialStringValid(qx::Ref<qx::String>* partialString, qx::Range* proposedSelectedRange,
                              const qx::Ref<qx::String>& originalString, qx::Range originalSelectedRange,
                              qx::Ref<qx::String>* errorDescription = nullptr) const override;

    std::string className() const override { return "QXHexFormatter"; }

protected:
    QXHexFormatter() = default;
};
