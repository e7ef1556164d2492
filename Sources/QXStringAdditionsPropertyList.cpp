// QXStringAdditionsPropertyList.cpp - the string category's property-list text operations.
#include <QXFoundation/QXStringAdditions.h>

#include <QXFoundation/QXPropertyListSerialization.h>

#include <cstdio>
#include <string>

namespace QXStringAdditions {

qx::Ref<qx::String> stringByEscapingSpecialCharacters(const qx::String& self) {
    std::string out;
    const std::string& utf8 = self.utf8();
    out.reserve(utf8.size() + 2);
    auto escapeUnit = [&out](char16_t u) {
        switch (u) {
        case u'\\': out += "\\\\"; return;
        case u'"': out += "\\\""; return;
        case u'\r': out += "\\r"; return;
        case u'\n': out += "\\n"; return;
        case u'\t': out += "\\t"; return;
        default: break;
        }
        if (u >= 0x20 && u < 0x7F) {
            out.push_back(static_cast<char>(u));
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\U%04x", static_cast<unsigned>(u));
            out += buf;
        }
    };
    if (self.isASCII()) {
        for (char c : utf8) escapeUnit(static_cast<char16_t>(static_cast<unsigned char>(c)));
    } else {
        for (char16_t u : self.utf16()) escapeUnit(u);
    }
    // Everything is printable ASCII now, so letters and digits are the ASCII ones.
    bool bare = !out.empty();
    for (char c : out) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) {
            bare = false;
            break;
        }
    }
    if (!bare) out = '"' + out + '"';
    return std::make_shared<qx::String>(std::move(out));
}

qx::Ref<qx::String> stringWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error) {
    auto data = QXPropertyListSerialization::oldStylePlistDataWithItem(plist, error);
    if (!data) return nullptr;
    return qx::str(data->view());
}

qx::Ref<qx::String> initWithPropertyList(const qx::Ref<qx::Object>& plist, qx::Ref<qx::Error>* error) {
    return stringWithPropertyList(plist, error);
}

} // namespace QXStringAdditions
