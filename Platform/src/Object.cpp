// Object.cpp - the root object and the helpers every kind shares.
#include <qx/Object.h>

namespace qx {

std::string Object::description() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%p", static_cast<const void*>(this));
    std::string out = "<";
    out.append(className()).append(": ").append(buf).append(">");
    return out;
}

Ref<Object> Object::copy() const {
    return std::const_pointer_cast<Object>(shared_from_this());
}

bool isEqual(const Object* a, const Object* b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->isEqual(*b);
}

std::string describe(const Object* object) {
    return object ? object->description() : std::string("(null)");
}

} // namespace qx
