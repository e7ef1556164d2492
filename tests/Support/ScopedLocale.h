// ScopedLocale.h - sets ICU's default locale for one test and puts the old one back.
#pragma once

#include "TestSupport.h"

#include <unicode/locid.h>

struct ScopedLocale {
    icu::Locale saved = icu::Locale::getDefault();
    explicit ScopedLocale(const char* name) { set(icu::Locale(name)); }
    ~ScopedLocale() { set(saved); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;
    static void set(const icu::Locale& locale) {
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(locale, status);
    }
};
