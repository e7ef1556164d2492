// AttributedString.h - text with one set of attributes over its whole length.
//
// Formatters hand text to a user interface together with display attributes
// (font, colour, ...). The attributes are an opaque dictionary to this class:
// it neither reads nor checks them.
#pragma once

#include <qx/Dictionary.h>
#include <qx/String.h>

namespace qx {

class AttributedString final : public Object {
public:
    AttributedString(Ref<String> string, Ref<Dictionary> attributes);
    /// Nothing when string is nothing; no attributes become an empty dictionary.
    static Ref<AttributedString> create(Ref<String> string, Ref<Dictionary> attributes = nullptr);

    const Ref<String>& string() const { return string_; }
    /// The attributes of every character; never nothing.
    const Ref<Dictionary>& attributes() const { return attributes_; }
    /// Length in UTF-16 code units, like the text's.
    std::size_t length() const { return string_->length(); }

    std::string className() const override { return "AttributedString"; }
    std::string description() const override;
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return string_->hash(); }

private:
    Ref<String> string_;
    Ref<Dictionary> attributes_;
};

} // namespace qx
