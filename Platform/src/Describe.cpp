// Describe.cpp - the nested text form of container descriptions.
#include "Describe.h"

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Set.h>

namespace qx::detail {

namespace {

void indent(std::string& out, int depth) { out.append(static_cast<std::size_t>(depth) * 4, ' '); }

bool needsQuotes(const std::string& s) {
    if (s.empty()) return true;
    for (unsigned char c : s)
        if (!(std::isalnum(c) || c == '_' || c == '.' || c == '/' || c == '$' || c == ':' || c == '-')) return true;
    return false;
}

void appendString(std::string& out, const std::string& s) {
    if (!needsQuotes(s)) { out += s; return; }
    out += '"';
    for (char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    out += '"';
}

} // namespace

void appendDescription(std::string& out, const Object* object, int depth) {
    if (!object) { out += "(null)"; return; }
    if (const auto* s = dynamic_cast<const String*>(object)) { appendString(out, s->utf8()); return; }
    const std::vector<Ref<Object>>* items = nullptr;
    std::vector<Ref<Object>> setItems;
    if (const auto* a = dynamic_cast<const Array*>(object)) items = &a->items();
    if (const auto* st = dynamic_cast<const Set*>(object)) { setItems = st->allObjects(); items = &setItems; }
    if (items) {
        if (dynamic_cast<const Set*>(object)) out += "{(";
        else out += "(";
        out += '\n';
        for (std::size_t i = 0; i < items->size(); ++i) {
            indent(out, depth + 1);
            appendDescription(out, (*items)[i].get(), depth + 1);
            if (i + 1 < items->size()) out += ',';
            out += '\n';
        }
        indent(out, depth);
        out += dynamic_cast<const Set*>(object) ? ")}" : ")";
        return;
    }
    if (const auto* d = dynamic_cast<const Dictionary*>(object)) {
        out += "{\n";
        for (const auto& [k, v] : *d) {
            indent(out, depth + 1);
            appendDescription(out, k.get(), depth + 1);
            out += " = ";
            appendDescription(out, v.get(), depth + 1);
            out += ";\n";
        }
        indent(out, depth);
        out += '}';
        return;
    }
    out += object->description();
}

} // namespace qx::detail
