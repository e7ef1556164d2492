// Coder.h - the archiving interface objects encode themselves through.
//
// A coder is keyed (values stored under names, read back by name in any
// order) or sequential (values read back in the order written); an object
// asks allowsKeyedCoding() and uses the matching calls. A keyed coder also
// takes the sequential calls (it files them under "$0", "$1", ... in order),
// and a sequential coder takes the keyed ones in order, ignoring the names,
// so either kind of object can be written by either coder.
//
// Objects of the plain kinds (String, Number, Data, Date, Array, Dictionary,
// Null) are archived by the coders themselves. Any other class archives by
// deriving from Coding and registering a decoding function under its class
// name; decoding an archive that names a class without one yields nothing.
#pragma once

#include <qx/Object.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qx {

class Coder {
public:
    virtual ~Coder() = default;
    virtual bool allowsKeyedCoding() const = 0;

    // Keyed form.
    virtual void encodeObject(const Ref<Object>& object, const std::string& key) = 0;
    virtual void encodeInt64(std::int64_t value, const std::string& key) = 0;
    virtual void encodeDouble(double value, const std::string& key) = 0;
    virtual void encodeBool(bool value, const std::string& key) = 0;
    /// The object under key, or nothing.
    virtual Ref<Object> decodeObject(const std::string& key) = 0;
    /// The number under key, or 0 / false when there is none.
    virtual std::int64_t decodeInt64(const std::string& key) = 0;
    virtual double decodeDouble(const std::string& key) = 0;
    virtual bool decodeBool(const std::string& key) = 0;
    virtual bool containsValue(const std::string& key) = 0;

    // Sequential form.
    virtual void encodeObject(const Ref<Object>& object) = 0;
    virtual void encodeUInt64(std::uint64_t value) = 0;
    /// The next object (nothing when the archive has run out).
    virtual Ref<Object> decodeObject() = 0;
    virtual std::uint64_t decodeUInt64() = 0;
};

/// An object that archives itself.
class Coding {
public:
    virtual ~Coding() = default;
    virtual void encodeWithCoder(Coder& coder) const = 0;
};

/// Makes an object of a registered class from a coder positioned on its fields.
using DecodingFunction = std::function<Ref<Object>(Coder& coder)>;

/// Registers decode for objects whose className() is className. classes is
/// the class chain written to keyed archives, most derived first (className
/// itself is put in front when missing). A later registration replaces an
/// earlier one. Thread-safe.
void registerCodingClass(const std::string& className, std::vector<std::string> classes, DecodingFunction decode);
/// The decoding function and class chain for className; false when none is registered.
bool codingClass(const std::string& className, DecodingFunction* decode, std::vector<std::string>* classes);

} // namespace qx
