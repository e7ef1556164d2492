// DateFormatter.h - dates to text and back in a locale's styles.
//
// A formatter is made for one locale and one time zone (the process's local
// zone when it was made) and keeps them. Safe to use from several threads at
// once.
#pragma once

#include <qx/Date.h>
#include <qx/Formatter.h>

#include <memory>
#include <mutex>
#include <string>

namespace qx {

class DateFormatter final : public Formatter {
public:
    enum class Style { None, Short, Medium, Long, Full };

    /// A formatter with these styles for the locale named localeName (an ICU
    /// locale ID; empty: the current default locale) in the local time zone.
    /// Both styles None give a formatter that formats nothing and parses nothing.
    static Ref<DateFormatter> create(Style dateStyle, Style timeStyle, const std::string& localeName = {});

    const std::string& localeName() const { return localeName_; }
    Style dateStyle() const { return dateStyle_; }
    Style timeStyle() const { return timeStyle_; }

    /// The text of a date; nothing for other objects.
    Ref<String> stringForObjectValue(const Ref<Object>& object) const override;
    /// The date a text stands for; nothing when the text is not a date in this formatter's styles.
    Ref<Date> dateFromString(const String& string) const;
    bool getObjectValue(Ref<Object>* object, const Ref<String>& string,
                        Ref<String>* errorDescription = nullptr) const override;

    std::string className() const override { return "DateFormatter"; }

    struct Format;  // the ICU format
    DateFormatter(Style dateStyle, Style timeStyle, std::string localeName, std::unique_ptr<Format> format);
    ~DateFormatter() override;

private:
    Style dateStyle_, timeStyle_;
    std::string localeName_;
    mutable std::mutex mutex_;  // ICU's formats are not safe to share between threads
    std::unique_ptr<Format> format_;
};

} // namespace qx
