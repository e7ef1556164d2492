// QXClassCluster.h - lets an abstract base hand out private concrete classes.
//
// QXCreateClassCluster(cls, initializer, callback) makes creating an object of
// exactly cls through that initializer run callback instead, so that a public
// abstract class can answer with instances of private subclasses. Subclasses
// of cls are created normally, because the registry is keyed by the exact
// class. No class of this library registers itself here; it is offered to the
// host application.
//
// A C++ class cannot have its allocation replaced at run time, so the base's
// factory asks the registry first:
//
//   static qx::Ref<Shape> initWithSides(int sides) {
//       if (auto made = QXClassClusterCreate<Shape>("initWithSides", sides)) return made;
//       ...  // not registered: make a Shape (or, in a subclass, that subclass)
//   }
//   QXCreateClassCluster<Shape, int>("initWithSides", [](int n) { return makeConcreteShape(n); });
//
// How this maps to the steps of the runtime version:
//  1. one process-wide table from factory class to its one shared factory: the
//     registry below, made on first use and never freed (strong entries);
//  2. a factory class "QXClassClusterFactory_<class>" with the primitive
//     "QXClassCluster_Primitive_<initializer>" whose body is the callback: an
//     entry for the class holding, per initializer name, the callback with the
//     initializer's signature (the argument types are checked when called);
//  3. its sharedInstance: QXClassClusterFactory(cls), the entry itself;
//  4. forwarding of the initializer to the primitive, returning the object the
//     callback built: QXClassClusterCreate; any other initializer is not
//     forwarded (it answers nothing, and the base creates normally);
//  5. registering the factory and its one instance: QXCreateClassCluster;
//  6. allocation of exactly that class returning the factory: the exact-type
//     key, so a subclass's factory (asking for its own type) is not redirected.
#pragma once

#include <qx/Object.h>

#include <any>
#include <functional>
#include <string>
#include <typeindex>

/// The shared factory of one class: its primitives by initializer name.
class QXClassClusterFactory {
public:
    virtual ~QXClassClusterFactory() = default;
    /// The primitive for initializer, or nothing.
    virtual const std::any* primitive(const std::string& initializer) const = 0;
    /// "QXClassClusterFactory_<class name>".
    virtual const std::string& name() const = 0;
};

/// Registers callback (a std::function<qx::Ref<qx::Object>(Args...)>, held
/// in the any) as the primitive of cls for initializer, replacing an earlier one.
/// className names the class in the factory's name.
void QXCreateClassCluster(std::type_index cls, const std::string& className, const std::string& initializer,
                          std::any callback);
/// The shared factory of exactly cls, or nothing when none was registered.
const QXClassClusterFactory* QXClassClusterFactoryForClass(std::type_index cls);

/// Typed form: callback builds a concrete Class from the initializer's arguments.
template <class Class, class... Args>
void QXCreateClassCluster(const std::string& initializer, std::function<qx::Ref<Class>(Args...)> callback) {
    std::function<qx::Ref<qx::Object>(Args...)> primitive = [callback = std::move(callback)](Args... args) {
        return qx::Ref<qx::Object>(callback(std::forward<Args>(args)...));
    };
    QXCreateClassCluster(typeid(Class), typeid(Class).name(), initializer, std::any(std::move(primitive)));
}

/// What creating exactly Class through initializer gives: the callback's
/// object, or nothing when Class has no primitive for it (or one of other
/// argument types), in which case the caller creates normally.
template <class Class, class... Args> qx::Ref<Class> QXClassClusterCreate(const std::string& initializer, Args... args) {
    const QXClassClusterFactory* factory = QXClassClusterFactoryForClass(typeid(Class));
    if (!factory) return nullptr;
    const std::any* primitive = factory->primitive(initializer);
    if (!primitive) return nullptr;
    const auto* call = std::any_cast<std::function<qx::Ref<qx::Object>(Args...)>>(primitive);
    if (!call || !*call) return nullptr;
    return qx::dyn_cast<Class>((*call)(std::forward<Args>(args)...));
}
