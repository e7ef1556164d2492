// KeyedArchiver.h - object graphs to archives and back.
//
// The keyed form is the standard keyed-archive property list: a dictionary
// with "$archiver" ("NSKeyedArchiver"), "$version" (100000), "$top"
// ({"root": UID}) and "$objects", whose entry 0 is "$null" (nothing) and
// whose other entries are the archived objects, each once, referring to one
// another by UID. Strings, numbers and data are entries as they are; dates,
// arrays, dictionaries, nulls and classes that archive themselves (Coding)
// are dictionaries whose "$class" UID names a class dictionary ("$classname",
// "$classes"). Shared objects stay shared and cycles are kept. Other
// platforms' unarchivers read the plain kinds of these archives.
//
// The sequential form is a property-list array: the values written, in
// order. Strings, numbers, booleans and data are themselves; a date is
// {"$date": seconds since 2001 as a real}; nothing is {"$null": true}, a null
// {"$nsnull": true}; an array is {"$array": [...]}, a dictionary
// {"$dictionary": {...}} (string keys); an object of a registered class
// {"$class": name, "$fields": [...]} with the fields its encodeWithCoder
// wrote. Objects are written each time they appear (no sharing), so a cycle
// cannot be written and fails.
//
// Platform/ has no property-list serialiser or UID kind of its own: the
// library that provides them installs them with setArchivePropertyLists
// when it loads. Archives are untrusted input: decoding bounds its depth,
// answers a cycle it cannot rebuild with nothing, and fails cleanly on any
// structure it does not expect. Each archiver or unarchiver serves one call
// on one thread.
#pragma once

#include <qx/Array.h>
#include <qx/Coder.h>
#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/Number.h>

#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

namespace qx {

/// The property-list services archives need.
struct ArchivePropertyLists {
    /// A UID value referring to an entry of "$objects".
    std::function<Ref<Object>(std::uint64_t index)> makeUID;
    /// True when value is a UID; then *index holds it.
    std::function<bool(const Ref<Object>& value, std::uint64_t* index)> readUID;
    /// Serialises a property list (binary or XML).
    std::function<Ref<Data>(const Ref<Object>& plist, bool binary, Ref<Error>* error)> write;
    /// Reads a property list of any format.
    std::function<Ref<Object>(const Ref<Data>& data, Ref<Error>* error)> read;
};

void setArchivePropertyLists(ArchivePropertyLists services);

/// Containers an archive may nest while it is decoded; deeper archives fail.
inline constexpr unsigned kArchiveMaxDepth = 512;

class KeyedArchiver final : public Coder {
public:
    /// The archive of root, serialised; nothing (and *error, NSCocoaErrorDomain
    /// 4866) when an object cannot be archived or serialisation fails.
    static Ref<Data> archivedDataWithRootObject(const Ref<Object>& root, bool binary = true, Ref<Error>* error = nullptr);
    /// The archive as a property list.
    static Ref<Dictionary> archiveWithRootObject(const Ref<Object>& root, Ref<Error>* error = nullptr);

    bool allowsKeyedCoding() const override { return true; }
    void encodeObject(const Ref<Object>& object, const std::string& key) override;
    void encodeInt64(std::int64_t value, const std::string& key) override;
    void encodeDouble(double value, const std::string& key) override;
    void encodeBool(bool value, const std::string& key) override;
    Ref<Object> decodeObject(const std::string&) override { return nullptr; }
    std::int64_t decodeInt64(const std::string&) override { return 0; }
    double decodeDouble(const std::string&) override { return 0; }
    bool decodeBool(const std::string&) override { return false; }
    bool containsValue(const std::string& key) override;
    void encodeObject(const Ref<Object>& object) override;
    void encodeUInt64(std::uint64_t value) override;
    Ref<Object> decodeObject() override { return nullptr; }
    std::uint64_t decodeUInt64() override { return 0; }

private:
    KeyedArchiver() = default;
    Ref<Object> uidFor(const Ref<Object>& object);
    Ref<Object> classUID(const std::string& name, const std::vector<std::string>& classes);
    std::string nextSequentialKey();

    std::vector<Ref<Object>> objects_;
    std::unordered_map<const Object*, std::uint64_t> numbers_;
    std::map<std::string, std::uint64_t> classes_;
    Ref<Dictionary> current_;
    std::size_t sequence_ = 0;
    std::vector<Ref<Object>> retained_;  // keeps archived objects' addresses unique until the end
    bool failed_ = false;
};

class KeyedUnarchiver final : public Coder {
public:
    /// The root object of archive data; nothing (and *error, NSCocoaErrorDomain
    /// 4864) when the data is no keyed archive or its root cannot be decoded.
    static Ref<Object> unarchiveObjectWithData(const Ref<Data>& data, Ref<Error>* error = nullptr);
    static Ref<Object> unarchiveObjectWithArchive(const Ref<Dictionary>& archive, Ref<Error>* error = nullptr);

    bool allowsKeyedCoding() const override { return true; }
    void encodeObject(const Ref<Object>&, const std::string&) override {}
    void encodeInt64(std::int64_t, const std::string&) override {}
    void encodeDouble(double, const std::string&) override {}
    void encodeBool(bool, const std::string&) override {}
    Ref<Object> decodeObject(const std::string& key) override;
    std::int64_t decodeInt64(const std::string& key) override;
    double decodeDouble(const std::string& key) override;
    bool decodeBool(const std::string& key) override;
    bool containsValue(const std::string& key) override;
    void encodeObject(const Ref<Object>&) override {}
    void encodeUInt64(std::uint64_t) override {}
    Ref<Object> decodeObject() override;
    std::uint64_t decodeUInt64() override;

private:
    explicit KeyedUnarchiver(Ref<Array> objects) : objects_(std::move(objects)) {}
    Ref<Object> decodeValue(const Ref<Object>& value);
    Ref<Object> decodeIndex(std::uint64_t index);
    Ref<Object> decodeDictionaryEntry(const Dictionary& entry);
    Ref<Number> number(const std::string& key);

    Ref<Array> objects_;
    std::unordered_map<std::uint64_t, Ref<Object>> decoded_;
    std::vector<bool> inProgress_;
    Ref<Dictionary> current_;
    std::size_t sequence_ = 0;
    unsigned depth_ = 0;
};

class SequentialArchiver final : public Coder {
public:
    /// The sequential archive of root; nothing (and *error, NSCocoaErrorDomain
    /// 4866) for a cycle, an object that cannot be archived, or a failed write.
    static Ref<Data> archivedDataWithRootObject(const Ref<Object>& root, bool binary = true, Ref<Error>* error = nullptr);
    /// The first value of a sequential archive; nothing (and *error, 4864) when unreadable.
    static Ref<Object> unarchiveObjectWithData(const Ref<Data>& data, Ref<Error>* error = nullptr);

    bool allowsKeyedCoding() const override { return false; }
    void encodeObject(const Ref<Object>& object, const std::string&) override { encodeObject(object); }
    void encodeInt64(std::int64_t value, const std::string&) override;
    void encodeDouble(double value, const std::string&) override;
    void encodeBool(bool value, const std::string&) override;
    Ref<Object> decodeObject(const std::string&) override { return decodeObject(); }
    std::int64_t decodeInt64(const std::string&) override;
    double decodeDouble(const std::string&) override;
    bool decodeBool(const std::string&) override;
    bool containsValue(const std::string&) override;
    void encodeObject(const Ref<Object>& object) override;
    void encodeUInt64(std::uint64_t value) override;
    Ref<Object> decodeObject() override;
    std::uint64_t decodeUInt64() override;

private:
    SequentialArchiver() = default;
    Ref<Object> encodeValue(const Ref<Object>& object);
    Ref<Object> decodeValue(const Ref<Object>& value);
    Ref<Object> nextValue();

    Ref<Array> out_;                                      // writing: the values of the object being written
    std::vector<const Object*> writing_;                  // the objects being written, to refuse cycles
    std::vector<std::pair<Ref<Array>, std::size_t>> in_;  // reading: lists being read and their positions
    bool failed_ = false;
};

} // namespace qx
