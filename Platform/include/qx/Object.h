// Object.h - the root of the reference-counted object model.
//
// Every value the library hands around (strings, numbers, containers, errors,
// URLs) is a qx::Object held by qx::Ref (a shared_ptr). "Nothing" is a null Ref.
// Kinds are tested at run time with qx::dyn_cast.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

namespace qx {

template <class T> using Ref = std::shared_ptr<T>;
template <class T> using WeakRef = std::weak_ptr<T>;

/// The value classes an object's tag names. Those classes are final, so the
/// tag alone says an object is one of them: dyn_cast to them is a compare
/// and a static cast, where other classes need the run-time type system.
enum class ObjectKind : std::uint8_t { Other, String, Number, Date, Data, Array, Dictionary, Set, Null };

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

    /// The tag set by the value classes' constructors (Other for the rest).
    ObjectKind objectKind() const { return kind_; }

protected:
    Object() = default;
    explicit Object(ObjectKind kind) : kind_(kind) {}
    Object(const Object&) = default;
    Object& operator=(const Object&) { return *this; }  // an object keeps its kind

private:
    ObjectKind kind_ = ObjectKind::Other;
};

namespace detail {
// T is a tagged value class (it names its kind as T::kKind) that U can be cast down to.
template <class T, class U>
concept TaggedCast = requires { std::remove_cv_t<T>::kKind; } && std::is_base_of_v<std::remove_cv_t<U>, std::remove_cv_t<T>>;
} // namespace detail

/// The object as T, or null when it is nothing or of another kind.
template <class T, class U> Ref<T> dyn_cast(const Ref<U>& ref) {
    if constexpr (detail::TaggedCast<T, U>) {
        if (ref && ref->objectKind() == std::remove_cv_t<T>::kKind) return std::static_pointer_cast<T>(ref);
        return nullptr;
    } else {
        return std::dynamic_pointer_cast<T>(ref);
    }
}
template <class T, class U> T* dyn_cast(U* ptr) {
    if constexpr (detail::TaggedCast<T, U>)
        return ptr && ptr->objectKind() == std::remove_cv_t<T>::kKind ? static_cast<T*>(ptr) : nullptr;
    else
        return dynamic_cast<T*>(ptr);
}
template <class T, class U> const T* dyn_cast(const U* ptr) {
    if constexpr (detail::TaggedCast<T, U>)
        return ptr && ptr->objectKind() == std::remove_cv_t<T>::kKind ? static_cast<const T*>(ptr) : nullptr;
    else
        return dynamic_cast<const T*>(ptr);
}

/// True when both are nothing, or both are objects that are isEqual.
bool isEqual(const Object* a, const Object* b);
inline bool isEqual(const Ref<Object>& a, const Ref<Object>& b) { return isEqual(a.get(), b.get()); }

/// The description of an object, or "(null)" for nothing.
std::string describe(const Object* object);

} // namespace qx
