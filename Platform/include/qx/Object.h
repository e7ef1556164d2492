// Object.h - the root of the reference-counted object model.
//
// Every value the library hands around (strings, numbers, containers, errors,
// URLs) is a qx::Object held by qx::Ref (a shared_ptr). "Nothing" is a null Ref.
// Kinds are tested at run time with qx::dyn_cast.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace qx {

template <class T> using Ref = std::shared_ptr<T>;
template <class T> using WeakRef = std::weak_ptr<T>;

class Object : public std::enable_shared_from_this<Object> {
public:
    virtual ~Object() = default;

    /// The name of the dynamic class, for messages and descriptions.
    virtual std::string className() const { return "Object"; }
    /// A human-readable description; containers describe their contents.
    virtual std::string description() const;
    /// Value equality; the root compares identity.
    virtual bool isEqual(const Object& other) const { return this == &other; }
    /// Consistent with isEqual: equal objects hash equally.
    virtual std::size_t hash() const { return std::hash<const void*>()(this); }
    /// A copy "when set": immutable values return themselves, editable ones a
    /// new object (containers copy shallowly).
    virtual Ref<Object> copy() const;

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;
};

/// The object as T, or null when it is nothing or of another kind.
template <class T, class U> Ref<T> dyn_cast(const Ref<U>& ref) {
    return std::dynamic_pointer_cast<T>(ref);
}
template <class T, class U> T* dyn_cast(U* ptr) { return dynamic_cast<T*>(ptr); }
template <class T, class U> const T* dyn_cast(const U* ptr) { return dynamic_cast<const T*>(ptr); }

/// True when both are nothing, or both are objects that are isEqual.
bool isEqual(const Object* a, const Object* b);
inline bool isEqual(const Ref<Object>& a, const Ref<Object>& b) { return isEqual(a.get(), b.get()); }

/// The description of an object, or "(null)" for nothing.
std::string describe(const Object* object);

} // namespace qx
