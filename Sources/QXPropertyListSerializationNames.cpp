// QXPropertyListSerializationNames.cpp - unique names among taken ones.
#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Format.h>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <unordered_set>

namespace {

bool containsDecimalDigit(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    for (int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c >= 0 && u_isdigit(c)) return true;
    }
    return false;
}

} // namespace

qx::Ref<qx::String> QXPropertyListSerialization::uniqueNameBasedOnName(const qx::String& name,
                                                                       const std::vector<std::string>& names,
                                                                       const std::string& separator) {
    const std::unordered_set<std::string> taken(names.begin(), names.end());
    if (!taken.count(name.utf8())) return qx::str(name.utf8());
    std::string base = name.utf8();
    if (!separator.empty()) {
        const std::size_t at = base.rfind(separator);
        if (at != std::string::npos) {
            const std::string_view after = std::string_view(base).substr(at + separator.size());
            if (!after.empty() && !containsDecimalDigit(after)) base.erase(at);
        }
    }
    if (!taken.count(base)) return qx::str(base);
    for (int n = 1;; ++n) {
        std::string candidate = qx::format("%@%@%d", qx::str(base), qx::str(separator), n);
        if (!taken.count(candidate)) return qx::str(candidate);
    }
}
