// NumberFormatter.h - numbers to text and back in a locale's conventions.
//
// The default settings: integers as plain digits, reals in their shortest
// exact decimal form, both without grouping; the locale decides the decimal
// separator. Parsing accepts the locale's grouping separators and decimal
// separator. Safe to use from several threads at once.
#pragma once

#include <qx/Formatter.h>
#include <qx/Number.h>

#include <string>

namespace qx {

class NumberFormatter final : public Formatter {
public:
    /// A formatter for the locale named localeName (an ICU locale ID); the
    /// empty name is the current default locale.
    static Ref<NumberFormatter> create(const std::string& localeName = {});

    /// The locale this formatter was made for (its ICU name).
    const std::string& localeName() const { return localeName_; }
    Ref<String> decimalSeparator() const { return decimal_; }
    Ref<String> currencyDecimalSeparator() const { return currencyDecimal_; }
    Ref<String> groupingSeparator() const { return grouping_; }

    Ref<String> stringForObjectValue(const Ref<Object>& object) const override;
    /// The number a whole text stands for: an integer when it has no decimal
    /// separator or exponent, else a real.
    bool getObjectValue(Ref<Object>* object, const Ref<String>& string,
                        Ref<String>* errorDescription = nullptr) const override;

    std::string className() const override { return "NumberFormatter"; }

    NumberFormatter(std::string localeName, Ref<String> decimal, Ref<String> currencyDecimal, Ref<String> grouping)
        : localeName_(std::move(localeName)), decimal_(std::move(decimal)), currencyDecimal_(std::move(currencyDecimal)),
          grouping_(std::move(grouping)) {}

private:
    std::string localeName_;
    Ref<String> decimal_, currencyDecimal_, grouping_;
};

} // namespace qx
