// KeyedArchiver.cpp - the keyed archive: writing and reading "$objects" by UID.
#include <qx/KeyedArchiver.h>

#include "ArchiveServices.h"

#include <qx/Date.h>
#include <qx/Null.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <mutex>

namespace qx {

namespace {

std::mutex& servicesMutex() {
    static std::mutex mutex;
    return mutex;
}

ArchivePropertyLists& servicesSlot() {
    static ArchivePropertyLists services;
    return services;
}

const std::vector<std::string> kArrayClasses{"NSMutableArray", "NSArray", "NSObject"};
const std::vector<std::string> kDictionaryClasses{"NSMutableDictionary", "NSDictionary", "NSObject"};
const std::vector<std::string> kDateClasses{"NSDate", "NSObject"};
const std::vector<std::string> kNullClasses{"NSNull", "NSObject"};

} // namespace

ArchivePropertyLists archivePropertyLists() {
    std::lock_guard<std::mutex> lock(servicesMutex());
    return servicesSlot();
}

void setArchivePropertyLists(ArchivePropertyLists services) {
    std::lock_guard<std::mutex> lock(servicesMutex());
    servicesSlot() = std::move(services);
}

Ref<Error> archiveError(std::int64_t code, const std::string& reason) {
    auto info = Dictionary::create();
    info->setObject(str(reason), NSLocalizedDescriptionKey);
    return Error::create(NSCocoaErrorDomain, code, info);
}

// --- Writing ------------------------------------------------------------------------------

Ref<Dictionary> KeyedArchiver::archiveWithRootObject(const Ref<Object>& root, Ref<Error>* error) {
    const auto services = archivePropertyLists();
    if (!services.makeUID) {
        if (error) *error = archiveError(4866, "No property-list services are installed for archiving.");
        return nullptr;
    }
    KeyedArchiver archiver;
    archiver.objects_.push_back(str("$null"));
    auto top = Dictionary::create();
    top->setObject(archiver.uidFor(root), "root");
    if (archiver.failed_) {
        if (error) *error = archiveError(4866, "An object in the graph cannot be archived.");
        return nullptr;
    }
    auto archive = Dictionary::create();
    archive->setObject(str("NSKeyedArchiver"), "$archiver");
    archive->setObject(Number::withInt64(100000), "$version");
    archive->setObject(top, "$top");
    archive->setObject(std::make_shared<Array>(std::move(archiver.objects_)), "$objects");
    return archive;
}

Ref<Data> KeyedArchiver::archivedDataWithRootObject(const Ref<Object>& root, bool binary, Ref<Error>* error) {
    auto archive = archiveWithRootObject(root, error);
    if (!archive) return nullptr;
    return archivePropertyLists().write(archive, binary, error);
}

Ref<Object> KeyedArchiver::classUID(const std::string& name, const std::vector<std::string>& classes) {
    const auto services = archivePropertyLists();
    auto it = classes_.find(name);
    if (it == classes_.end()) {
        auto entry = Dictionary::create();
        entry->setObject(str(name), "$classname");
        auto chain = Array::create();
        for (const auto& c : classes) chain->addObject(str(c));
        entry->setObject(chain, "$classes");
        objects_.push_back(entry);
        it = classes_.emplace(name, objects_.size() - 1).first;
    }
    return services.makeUID(it->second);
}

// Each object gets its number before its contents are written, so that a
// cycle refers back to it instead of recursing.
Ref<Object> KeyedArchiver::uidFor(const Ref<Object>& object) {
    const auto services = archivePropertyLists();
    if (!object) return services.makeUID(0);
    if (auto it = numbers_.find(object.get()); it != numbers_.end()) return services.makeUID(it->second);
    const std::uint64_t number = objects_.size();
    numbers_.emplace(object.get(), number);
    retained_.push_back(object);
    if (dyn_cast<String>(object) || dyn_cast<Number>(object) || dyn_cast<Data>(object)) {
        objects_.push_back(object);
        return services.makeUID(number);
    }
    objects_.push_back(nullptr);
    auto entry = Dictionary::create();
    if (auto date = dyn_cast<Date>(object)) {
        entry->setObject(Number::withDouble(date->timeIntervalSinceReferenceDate()), "NS.time");
        entry->setObject(classUID("NSDate", kDateClasses), "$class");
    } else if (auto array = dyn_cast<Array>(object)) {
        auto items = Array::create();
        for (const auto& item : *array) items->addObject(uidFor(item));
        entry->setObject(items, "NS.objects");
        entry->setObject(classUID("NSMutableArray", kArrayClasses), "$class");
    } else if (auto dictionary = dyn_cast<Dictionary>(object)) {
        auto keys = Array::create(), values = Array::create();
        for (const auto& e : *dictionary) {
            keys->addObject(uidFor(e.first));
            values->addObject(uidFor(e.second));
        }
        entry->setObject(keys, "NS.keys");
        entry->setObject(values, "NS.objects");
        entry->setObject(classUID("NSMutableDictionary", kDictionaryClasses), "$class");
    } else if (dyn_cast<Null>(object)) {
        entry->setObject(classUID("NSNull", kNullClasses), "$class");
    } else if (const auto* coding = dynamic_cast<const Coding*>(object.get())) {
        std::vector<std::string> classes;
        if (!codingClass(object->className(), nullptr, &classes)) classes = {object->className(), "NSObject"};
        Ref<Dictionary> saved = std::move(current_);
        const std::size_t savedSequence = sequence_;
        current_ = entry;
        sequence_ = 0;
        coding->encodeWithCoder(*this);
        current_ = std::move(saved);
        sequence_ = savedSequence;
        entry->setObject(classUID(object->className(), classes), "$class");
    } else {
        failed_ = true;
    }
    objects_[number] = entry;
    return services.makeUID(number);
}

void KeyedArchiver::encodeObject(const Ref<Object>& object, const std::string& key) {
    if (current_) current_->setObject(uidFor(object), key);
}

void KeyedArchiver::encodeInt64(std::int64_t value, const std::string& key) {
    if (current_) current_->setObject(Number::withInt64(value), key);
}

void KeyedArchiver::encodeDouble(double value, const std::string& key) {
    if (current_) current_->setObject(Number::withDouble(value), key);
}

void KeyedArchiver::encodeBool(bool value, const std::string& key) {
    if (current_) current_->setObject(Number::withBool(value), key);
}

bool KeyedArchiver::containsValue(const std::string& key) { return current_ && current_->objectForKey(key); }

std::string KeyedArchiver::nextSequentialKey() { return "$" + std::to_string(sequence_++); }

void KeyedArchiver::encodeObject(const Ref<Object>& object) { encodeObject(object, nextSequentialKey()); }

void KeyedArchiver::encodeUInt64(std::uint64_t value) {
    if (current_) current_->setObject(Number::withUInt64(value), nextSequentialKey());
}

// --- Reading ------------------------------------------------------------------------------

Ref<Object> KeyedUnarchiver::unarchiveObjectWithData(const Ref<Data>& data, Ref<Error>* error) {
    const auto services = archivePropertyLists();
    if (!services.read || !data) {
        if (error) *error = archiveError(4864, "The data is not a keyed archive.");
        return nullptr;
    }
    Ref<Error> readError;
    auto archive = dyn_cast<Dictionary>(services.read(data, &readError));
    if (!archive) {
        if (error) *error = readError ? readError : archiveError(4864, "The data is not a keyed archive.");
        return nullptr;
    }
    return unarchiveObjectWithArchive(archive, error);
}

Ref<Object> KeyedUnarchiver::unarchiveObjectWithArchive(const Ref<Dictionary>& archive, Ref<Error>* error) {
    auto fail = [error](const char* reason) -> Ref<Object> {
        if (error) *error = archiveError(4864, reason);
        return nullptr;
    };
    const auto services = archivePropertyLists();
    if (!archive || !services.readUID) return fail("The data is not a keyed archive.");
    auto objects = archive->get<Array>("$objects");
    auto top = archive->get<Dictionary>("$top");
    auto version = archive->get<Number>("$version");
    if (!objects || !top || !version || version->int64Value() != 100000)
        return fail("The data is not a keyed archive.");
    auto rootRef = top->objectForKey("root");
    std::uint64_t index = 0;
    if (!rootRef || !services.readUID(rootRef, &index) || index >= objects->count())
        return fail("The archive has no root object.");
    KeyedUnarchiver unarchiver(objects);
    unarchiver.inProgress_.assign(objects->count(), false);
    auto root = unarchiver.decodeIndex(index);
    if (!root && index != 0) return fail("The archive's root object cannot be decoded.");
    return root;
}

Ref<Object> KeyedUnarchiver::decodeValue(const Ref<Object>& value) {
    std::uint64_t index = 0;
    if (value && archivePropertyLists().readUID(value, &index)) return decodeIndex(index);
    return value;
}

Ref<Object> KeyedUnarchiver::decodeIndex(std::uint64_t index) {
    if (index == 0 || index >= objects_->count()) return nullptr;
    if (auto it = decoded_.find(index); it != decoded_.end()) return it->second;
    // A cycle back into an object still being decoded cannot be rebuilt by
    // decoding functions that make their object at the end.
    if (inProgress_[index] || depth_ >= kArchiveMaxDepth) return nullptr;
    const Ref<Object>& entry = (*objects_)[index];
    Ref<Object> result;
    if (auto dictionary = dyn_cast<Dictionary>(entry)) {
        inProgress_[index] = true;
        ++depth_;
        result = decodeDictionaryEntry(*dictionary);
        --depth_;
        inProgress_[index] = false;
    } else if (!dyn_cast<Array>(entry)) {
        result = entry;
    }
    decoded_[index] = result;
    return result;
}

Ref<Object> KeyedUnarchiver::decodeDictionaryEntry(const Dictionary& entry) {
    std::uint64_t classIndex = 0;
    auto classRef = entry.objectForKey("$class");
    if (!classRef || !archivePropertyLists().readUID(classRef, &classIndex) || classIndex >= objects_->count())
        return nullptr;
    auto classEntry = dyn_cast<Dictionary>((*objects_)[classIndex]);
    auto name = classEntry ? classEntry->get<String>("$classname") : nullptr;
    if (!name) return nullptr;
    const std::string& n = name->utf8();
    if (n == "NSDate") {
        auto time = entry.get<Number>("NS.time");
        return time ? Date::withTimeIntervalSinceReferenceDate(time->doubleValue()) : nullptr;
    }
    if (n == "NSNull") return Null::null();
    if (n == "NSArray" || n == "NSMutableArray" || n == "NSSet" || n == "NSMutableSet") {
        auto items = entry.get<Array>("NS.objects");
        if (!items) return nullptr;
        auto array = Array::create();
        for (const auto& item : *items)
            if (auto v = decodeValue(item)) array->addObject(v);
        return array;
    }
    if (n == "NSDictionary" || n == "NSMutableDictionary") {
        auto keys = entry.get<Array>("NS.keys");
        auto values = entry.get<Array>("NS.objects");
        if (!keys || !values || keys->count() != values->count()) return nullptr;
        auto dictionary = Dictionary::create();
        for (std::size_t i = 0; i < keys->count(); ++i) {
            auto k = decodeValue((*keys)[i]);
            auto v = decodeValue((*values)[i]);
            if (k && v) dictionary->setObject(v, k);
        }
        return dictionary;
    }
    if (n == "NSString" || n == "NSMutableString") return entry.get<String>("NS.string");
    if (n == "NSData" || n == "NSMutableData") return entry.get<Data>("NS.bytes");
    // A class this process knows, found by its name or an ancestor's.
    std::vector<std::string> chain{n};
    if (auto classes = classEntry->get<Array>("$classes"))
        for (const auto& c : *classes)
            if (auto s = dyn_cast<String>(c)) chain.push_back(s->utf8());
    for (const auto& candidate : chain) {
        DecodingFunction decode;
        if (!codingClass(candidate, &decode, nullptr) || !decode) continue;
        Ref<Dictionary> saved = std::move(current_);
        const std::size_t savedSequence = sequence_;
        current_ = std::make_shared<Dictionary>(entry);
        sequence_ = 0;
        Ref<Object> made = decode(*this);
        current_ = std::move(saved);
        sequence_ = savedSequence;
        return made;
    }
    return nullptr;
}

Ref<Object> KeyedUnarchiver::decodeObject(const std::string& key) {
    return current_ ? decodeValue(current_->objectForKey(key)) : nullptr;
}

Ref<Number> KeyedUnarchiver::number(const std::string& key) { return current_ ? current_->get<Number>(key) : nullptr; }

std::int64_t KeyedUnarchiver::decodeInt64(const std::string& key) {
    auto n = number(key);
    return n ? n->int64Value() : 0;
}

double KeyedUnarchiver::decodeDouble(const std::string& key) {
    auto n = number(key);
    return n ? n->doubleValue() : 0;
}

bool KeyedUnarchiver::decodeBool(const std::string& key) {
    auto n = number(key);
    return n && n->boolValue();
}

bool KeyedUnarchiver::containsValue(const std::string& key) { return current_ && current_->objectForKey(key); }

Ref<Object> KeyedUnarchiver::decodeObject() { return decodeObject("$" + std::to_string(sequence_++)); }

std::uint64_t KeyedUnarchiver::decodeUInt64() {
    auto n = number("$" + std::to_string(sequence_++));
    return n ? n->uint64Value() : 0;
}

} // namespace qx
