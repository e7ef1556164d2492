// PlistKeyPath.cpp - splitting, writing and following key paths.
#include "PlistKeyPath.h"

#include <algorithm>

namespace qxtool {

std::vector<std::string> splitKeyPath(const std::string& path) {
    std::vector<std::string> components;
    std::string current;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '\\' && i + 1 < path.size() && path[i + 1] == '.') {
            current += '.';
            ++i;
        } else if (path[i] == '.') {
            components.push_back(current);
            current.clear();
        } else {
            current += path[i];
        }
    }
    components.push_back(current);
    return components;
}

std::string keyPathOf(const QXPropertyList::Ref& node) {
    std::vector<std::string> components;
    for (auto n = node; n && n->parent(); n = n->parent()) {
        std::string component;
        if (n->parent()->typeCode() == QXPropertyListDictionaryType) {
            for (char c : n->key() ? n->key()->utf8() : std::string()) component += c == '.' ? std::string("\\.") : std::string(1, c);
        } else {
            component = n->key() ? n->key()->utf8() : std::string();
        }
        components.push_back(component);
    }
    std::reverse(components.begin(), components.end());
    std::string path;
    for (std::size_t i = 0; i < components.size(); ++i) path += (i ? "." : "") + components[i];
    return path;
}

bool parseIndex(const std::string& text, std::size_t* index) {
    if (text.empty() || text.size() > 18 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    *index = static_cast<std::size_t>(std::stoull(text));
    return true;
}

QXPropertyList::Ref childNamed(const QXPropertyList::Ref& parent, const std::string& component) {
    if (!parent) return nullptr;
    if (parent->typeCode() == QXPropertyListDictionaryType) return parent->childWithKey(qx::str(component));
    std::size_t index = 0;
    if (parent->typeCode() == QXPropertyListArrayType && parseIndex(component, &index))
        return parent->objectInChildrenAtIndex(index);
    return nullptr;
}

QXPropertyList::Ref resolveKeyPath(const QXPropertyList::Ref& root, const std::vector<std::string>& components) {
    QXPropertyList::Ref node = root;
    for (const auto& component : components)
        if (!(node = childNamed(node, component))) return nullptr;
    return node;
}

} // namespace qxtool
