// Formatter.cpp - defaults shared by every formatter.
#include <qx/Formatter.h>

namespace qx {

Ref<AttributedString> Formatter::attributedStringForObjectValue(const Ref<Object>& object,
                                                                const Ref<Dictionary>& attributes) const {
    return AttributedString::create(stringForObjectValue(object), attributes);
}

bool Formatter::isPartialStringValid(Ref<String>*, Range*, const Ref<String>&, Range, Ref<String>*) const {
    return true;
}

} // namespace qx
