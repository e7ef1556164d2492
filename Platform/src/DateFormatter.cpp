// DateFormatter.cpp - ICU date formats behind a lock.
#include <qx/DateFormatter.h>

#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>

namespace qx {

struct DateFormatter::Format {
    std::unique_ptr<icu::DateFormat> icu;
};

namespace {

icu::DateFormat::EStyle icuStyle(DateFormatter::Style style) {
    switch (style) {
    case DateFormatter::Style::None: return icu::DateFormat::kNone;
    case DateFormatter::Style::Short: return icu::DateFormat::kShort;
    case DateFormatter::Style::Medium: return icu::DateFormat::kMedium;
    case DateFormatter::Style::Long: return icu::DateFormat::kLong;
    case DateFormatter::Style::Full: return icu::DateFormat::kFull;
    }
    return icu::DateFormat::kNone;
}

constexpr double kMillisecondsPerSecond = 1000.0;

} // namespace

DateFormatter::DateFormatter(Style dateStyle, Style timeStyle, std::string localeName,
                             std::unique_ptr<Format> format)
    : dateStyle_(dateStyle), timeStyle_(timeStyle), localeName_(std::move(localeName)), format_(std::move(format)) {}

DateFormatter::~DateFormatter() = default;

Ref<DateFormatter> DateFormatter::create(Style dateStyle, Style timeStyle, const std::string& localeName) {
    const icu::Locale locale = localeName.empty() ? icu::Locale::getDefault() : icu::Locale(localeName.c_str());
    std::unique_ptr<Format> format;
    if (dateStyle != Style::None || timeStyle != Style::None) {
        std::unique_ptr<icu::DateFormat> icuFormat(
            icu::DateFormat::createDateTimeInstance(icuStyle(dateStyle), icuStyle(timeStyle), locale));
        // The zone is read from the environment now, so that a changed TZ is
        // seen by formatters made afterwards (ICU caches its default zone).
        if (icuFormat) {
            icuFormat->adoptTimeZone(icu::TimeZone::detectHostTimeZone());
            format = std::make_unique<Format>(Format{std::move(icuFormat)});
        }
    }
    return std::make_shared<DateFormatter>(dateStyle, timeStyle, locale.getName(), std::move(format));
}

Ref<String> DateFormatter::stringForObjectValue(const Ref<Object>& object) const {
    auto date = dyn_cast<Date>(object);
    if (!date || !format_) return date ? str("") : nullptr;
    const double ms = date->timeIntervalSince1970() * kMillisecondsPerSecond;
    if (!std::isfinite(ms)) return str(date->description());
    icu::UnicodeString text;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        format_->icu->format(ms, text);
    }
    std::string utf8;
    text.toUTF8String(utf8);
    return str(utf8);
}

Ref<Date> DateFormatter::dateFromString(const String& string) const {
    if (!format_) return nullptr;
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(string.utf8());
    UErrorCode status = U_ZERO_ERROR;
    UDate ms;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ms = format_->icu->parse(text, status);
    }
    if (U_FAILURE(status)) return nullptr;
    return Date::withTimeIntervalSince1970(ms / kMillisecondsPerSecond);
}

bool DateFormatter::getObjectValue(Ref<Object>* object, const Ref<String>& string,
                                   Ref<String>* errorDescription) const {
    auto date = string ? dateFromString(*string) : nullptr;
    if (!date) {
        if (errorDescription) *errorDescription = str("Invalid date");
        return false;
    }
    if (object) *object = date;
    return true;
}

} // namespace qx
