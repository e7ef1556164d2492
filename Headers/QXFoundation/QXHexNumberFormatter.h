// QXHexNumberFormatter.h - integers as hexadecimal ("0xff"), and back.
//
// Keeps no state; any thread.
#pragma once

#include <qx/Formatter.h>
#include <qx/Number.h>

class QXHexNumberFormatter : public qx::Formatter {
public:
    static qx::Ref<QXHexNumberFormatter> create();

    /// "0x" and lower-case digits of a number at its stored width: 8-bit
    /// kinds (and booleans) as unsigned 8-bit, 16-bit as unsigned 16-bit,
    /// 64-bit as unsigned 64-bit; 32-bit and reals as unsigned 32-bit (reals
    /// truncated toward zero, then wrapped; NaN is 0). Nothing for non-numbers.
    qx::Ref<qx::String> stringForObjectValue(const qx::Ref<qx::Object>& object) const override;

    /// An unsigned 32-bit number from "0xff", "$FF" or "ff" (see
    /// numberFromHexString). "0x" must be followed by at least one character,
    /// "$" too.
    bool getObjectValue(qx::Ref<qx::Object>* object, const qx::Ref<qx::String>& string,
                        qx::Ref<qx::String>* errorDescription = nullptr) const override;

    /// The unsigned 32-bit number of string's hexadecimal digits (either case)
    /// once "<", ">", white space and line breaks are removed; nothing when
    /// anything else remains or no digit does. More than 32 bits of value read
    /// as 0xffffffff, as the platform's scanner saturates.
    qx::Ref<qx::Number> numberFromHexString(const qx::String& string) const;

    std::string className() const override { return "QXHexNumberFormatter"; }

protected:
    QXHexNumberFormatter() = default;
};
