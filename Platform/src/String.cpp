// String.cpp - UTF-8 strings with UTF-16 views and collation through ICU.
#include <qx/String.h>

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/ucol.h>
#include <unicode/ustring.h>

#include <memory>

namespace qx {

namespace {

std::string utf16ToUTF8(const char16_t* units, std::size_t count) {
    std::string out;
    // ICU counts in 32-bit lengths; longer text than that is not decoded.
    if (count == 0 || count > static_cast<std::size_t>(INT32_MAX / 3)) return out;
    out.resize(count * 3);
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &written,
                       reinterpret_cast<const UChar*>(units), static_cast<int32_t>(count), 0xFFFD,
                       nullptr, &status);
    if (U_FAILURE(status)) return {};
    out.resize(static_cast<std::size_t>(written));
    return out;
}

// A collator per thread: ICU collators are cheap to compare with but their
// creation is not, and per-thread instances need no locking. It is made again
// when the default locale changes, so that a comparison always follows the
// locale in force when it is called.
icu::Collator* standardCollator() {
    struct Cache {
        std::string localeName;
        std::unique_ptr<icu::Collator> collator;
    };
    thread_local Cache cache;
    icu::Locale locale = icu::Locale::getDefault();
    if (cache.collator && cache.localeName == locale.getName()) return cache.collator.get();
    cache.localeName = locale.getName();
    // Under the C/POSIX locale ICU picks en_US_POSIX, whose collation is
    // plain code-point order; a user comparing names wants the root rules.
    if (std::string_view(locale.getVariant()) == "POSIX") locale = icu::Locale::getRoot();
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> c(icu::Collator::createInstance(locale, status));
    if (U_FAILURE(status) || !c) {
        status = U_ZERO_ERROR;
        c.reset(icu::Collator::createInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status)) c.reset();
    }
    if (c) {
        status = U_ZERO_ERROR;
        c->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
        c->setStrength(icu::Collator::SECONDARY);  // ignore case, keep accents
    }
    cache.collator = std::move(c);
    return cache.collator.get();
}

} // namespace

Ref<String> String::withUTF16(const char16_t* units, std::size_t count) {
    return std::make_shared<String>(utf16ToUTF8(units, count));
}

Ref<String> String::withUTF16BigEndian(const unsigned char* bytes, std::size_t count) {
    std::u16string units(count, u'\0');
    for (std::size_t i = 0; i < count; ++i)
        units[i] = static_cast<char16_t>((bytes[2 * i] << 8) | bytes[2 * i + 1]);
    return withUTF16(units.data(), units.size());
}

std::u16string String::utf16() const {
    std::u16string out;
    // ICU counts in 32-bit lengths; text beyond that reads as empty rather
    // than being cut somewhere in the middle.
    if (utf8_.empty() || utf8_.size() > static_cast<std::size_t>(INT32_MAX / 2)) return out;
    out.resize(utf8_.size());
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(reinterpret_cast<UChar*>(out.data()), static_cast<int32_t>(out.size()), &written,
                         utf8_.data(), static_cast<int32_t>(utf8_.size()), 0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) return {};
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::size_t String::length() const {
    if (isASCII()) return utf8_.size();
    std::size_t n = 0;
    for (std::size_t i = 0; i < utf8_.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(utf8_[i]);
        if ((c & 0xC0) != 0x80) n += (c >= 0xF0) ? 2 : 1;  // 4-byte sequences are surrogate pairs
    }
    return n;
}

bool String::isASCII() const {
    for (char c : utf8_)
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    return true;
}

int String::localizedCaseInsensitiveNumericCompare(const String& other) const {
    if (icu::Collator* c = standardCollator()) {
        UErrorCode status = U_ZERO_ERROR;
        const UCollationResult r = c->compareUTF8(utf8_, other.utf8_, status);
        if (U_SUCCESS(status)) return r == UCOL_LESS ? -1 : (r == UCOL_GREATER ? 1 : 0);
    }
    const int raw = utf8_.compare(other.utf8_);
    return raw < 0 ? -1 : (raw > 0 ? 1 : 0);
}

int String::localizedStandardCompare(const String& other) const {
    const int collated = localizedCaseInsensitiveNumericCompare(other);
    if (collated != 0) return collated;
    // Equal under collation (e.g. differing only in case): fall back to the
    // bytes so that the order is total and stable.
    const int raw = utf8_.compare(other.utf8_);
    return raw < 0 ? -1 : (raw > 0 ? 1 : 0);
}

bool String::isEqual(const Object& other) const {
    const auto* s = dyn_cast<String>(&other);
    return s && s->utf8_ == utf8_;
}

Ref<Object> String::copy() const { return Object::copy(); }

} // namespace qx
