// AttributedString.cpp - text with one set of attributes.
#include <qx/AttributedString.h>

namespace qx {

AttributedString::AttributedString(Ref<String> string, Ref<Dictionary> attributes)
    : string_(std::move(string)), attributes_(attributes ? std::move(attributes) : Dictionary::create()) {}

Ref<AttributedString> AttributedString::create(Ref<String> string, Ref<Dictionary> attributes) {
    if (!string) return nullptr;
    return std::make_shared<AttributedString>(std::move(string), std::move(attributes));
}

std::string AttributedString::description() const { return string_->utf8() + attributes_->description(); }

bool AttributedString::isEqual(const Object& other) const {
    const auto* a = dynamic_cast<const AttributedString*>(&other);
    return a && string_->isEqual(*a->string_) && attributes_->isEqual(*a->attributes_);
}

} // namespace qx
