// PlistOutput.cpp - what the tool prints on standard output.
#include "PlistOutput.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hdiutil {

bool printText(const std::string& text, std::string& reason) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        reason = std::string("standard output: ") + std::strerror(errno ? errno : EIO);
        return false;
    }
    return true;
}

bool printPropertyList(const qx::Ref<qx::Object>& plist, std::string& reason) {
    qx::Ref<qx::Error> error;
    auto data = QXPropertyListSerialization::dataWithPropertyList(plist, QXPropertyListXMLFormat_v1_0, &error);
    if (!data) {
        reason = error ? error->localizedDescription() : "the property list cannot be written";
        return false;
    }
    return printText(std::string(data->view()), reason);
}

std::string entitiesText(const qx::Ref<qx::Array>& entities) {
    std::string text;
    for (std::size_t i = 0; entities && i < entities->count(); ++i) {
        auto e = qx::dyn_cast<qx::Dictionary>(entities->objectAtIndex(i));
        if (!e) continue;
        const auto field = [&](const char* key) {
            auto value = e->get<qx::String>(key);
            return value ? value->utf8() : std::string();
        };
        char line[1024];
        std::snprintf(line, sizeof line, "%-16s\t%-32s\t%s\n", field("dev-entry").c_str(), field("content-hint").c_str(),
                      field("mount-point").c_str());
        text += line;
    }
    return text;
}

std::string dictionaryText(const qx::Ref<qx::Object>& plist, int depth) {
    std::string text;
    const std::string indent(static_cast<std::size_t>(depth) * 4, ' ');
    const auto value = [&](const qx::Ref<qx::Object>& object, const std::string& label) {
        if (qx::dyn_cast<qx::Dictionary>(object) || qx::dyn_cast<qx::Array>(object))
            text += indent + label + ":\n" + dictionaryText(object, depth + 1);
        else if (auto number = qx::dyn_cast<qx::Number>(object); number && number->isBoolean())
            text += indent + label + ": " + (number->boolValue() ? "true" : "false") + "\n";
        else
            text += indent + label + ": " + (object ? object->description() : std::string()) + "\n";
    };
    if (auto dictionary = qx::dyn_cast<qx::Dictionary>(plist)) {
        for (const auto& key : dictionary->allKeys()) value(dictionary->objectForKey(*key), key->description());
    } else if (auto array = qx::dyn_cast<qx::Array>(plist)) {
        for (std::size_t i = 0; i < array->count(); ++i) value(array->objectAtIndex(i), std::to_string(i));
    }
    return text;
}

} // namespace hdiutil
