// SequentialArchiver.cpp - the sequential archive: an ordered list of values.
#include <qx/KeyedArchiver.h>

#include "ArchiveServices.h"

#include <qx/Date.h>
#include <qx/Null.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <algorithm>

namespace qx {

namespace {

Ref<Dictionary> tagged(const char* tag, Ref<Object> value) {
    auto d = Dictionary::create();
    d->setObject(std::move(value), tag);
    return d;
}

} // namespace

// --- Writing ------------------------------------------------------------------------------

Ref<Data> SequentialArchiver::archivedDataWithRootObject(const Ref<Object>& root, bool binary, Ref<Error>* error) {
    const auto services = archivePropertyLists();
    if (!services.write) {
        if (error) *error = archiveError(4866, "No property-list services are installed for archiving.");
        return nullptr;
    }
    SequentialArchiver archiver;
    archiver.out_ = Array::create();
    archiver.encodeObject(root);
    if (archiver.failed_) {
        if (error) *error = archiveError(4866, "An object in the graph cannot be archived.");
        return nullptr;
    }
    return services.write(archiver.out_, binary, error);
}

Ref<Object> SequentialArchiver::encodeValue(const Ref<Object>& object) {
    if (!object) return tagged("$null", Number::withBool(true));
    if (dyn_cast<String>(object) || dyn_cast<Number>(object) || dyn_cast<Data>(object)) return object;
    // The XML form keeps whole seconds only; the seconds as a real keep the instant.
    if (auto date = dyn_cast<Date>(object)) return tagged("$date", Number::withDouble(date->timeIntervalSinceReferenceDate()));
    if (std::find(writing_.begin(), writing_.end(), object.get()) != writing_.end() ||
        writing_.size() >= kArchiveMaxDepth) {
        failed_ = true;
        return tagged("$null", Number::withBool(true));
    }
    writing_.push_back(object.get());
    Ref<Object> result;
    if (auto array = dyn_cast<Array>(object)) {
        auto items = Array::create();
        for (const auto& item : *array) items->addObject(encodeValue(item));
        result = tagged("$array", items);
    } else if (auto dictionary = dyn_cast<Dictionary>(object)) {
        auto entries = Dictionary::create();
        for (const auto& e : *dictionary) {
            auto key = dyn_cast<String>(e.first);
            if (!key) failed_ = true;
            else entries->setObject(encodeValue(e.second), key);
        }
        result = tagged("$dictionary", entries);
    } else if (dyn_cast<Null>(object)) {
        result = tagged("$nsnull", Number::withBool(true));
    } else if (const auto* coding = dynamic_cast<const Coding*>(object.get())) {
        Ref<Array> saved = std::move(out_);
        out_ = Array::create();
        coding->encodeWithCoder(*this);
        auto entry = tagged("$fields", out_);
        entry->setObject(str(object->className()), "$class");
        out_ = std::move(saved);
        result = entry;
    } else {
        failed_ = true;
        result = tagged("$null", Number::withBool(true));
    }
    writing_.pop_back();
    return result;
}

void SequentialArchiver::encodeObject(const Ref<Object>& object) {
    if (out_) out_->addObject(encodeValue(object));
}

void SequentialArchiver::encodeUInt64(std::uint64_t value) {
    if (out_) out_->addObject(Number::withUInt64(value));
}

void SequentialArchiver::encodeInt64(std::int64_t value, const std::string&) {
    if (out_) out_->addObject(Number::withInt64(value));
}

void SequentialArchiver::encodeDouble(double value, const std::string&) {
    if (out_) out_->addObject(Number::withDouble(value));
}

void SequentialArchiver::encodeBool(bool value, const std::string&) {
    if (out_) out_->addObject(Number::withBool(value));
}

// --- Reading ------------------------------------------------------------------------------

Ref<Object> SequentialArchiver::unarchiveObjectWithData(const Ref<Data>& data, Ref<Error>* error) {
    const auto services = archivePropertyLists();
    Ref<Error> readError;
    auto values = services.read && data ? dyn_cast<Array>(services.read(data, &readError)) : nullptr;
    if (!values || values->empty()) {
        if (error) *error = readError ? readError : archiveError(4864, "The data is not a sequential archive.");
        return nullptr;
    }
    SequentialArchiver unarchiver;
    unarchiver.in_.emplace_back(values, 0);
    return unarchiver.decodeObject();
}

Ref<Object> SequentialArchiver::nextValue() {
    if (in_.empty()) return nullptr;
    auto& [list, position] = in_.back();
    if (position >= list->count()) return nullptr;
    return (*list)[position++];
}

Ref<Object> SequentialArchiver::decodeValue(const Ref<Object>& value) {
    auto entry = dyn_cast<Dictionary>(value);
    if (!entry) return value;
    if (entry->objectForKey("$null")) return nullptr;
    if (entry->objectForKey("$nsnull")) return Null::null();
    if (auto time = entry->get<Number>("$date")) return Date::withTimeIntervalSinceReferenceDate(time->doubleValue());
    if (in_.size() >= kArchiveMaxDepth) return nullptr;
    if (auto items = entry->get<Array>("$array")) {
        auto array = Array::create();
        for (const auto& item : *items)
            if (auto v = decodeValue(item)) array->addObject(v);
        return array;
    }
    if (auto entries = entry->get<Dictionary>("$dictionary")) {
        auto dictionary = Dictionary::create();
        for (const auto& e : *entries)
            if (auto v = decodeValue(e.second)) dictionary->setObject(v, e.first);
        return dictionary;
    }
    auto name = entry->get<String>("$class");
    auto fields = entry->get<Array>("$fields");
    DecodingFunction decode;
    if (!name || !fields || !codingClass(name->utf8(), &decode, nullptr) || !decode) return nullptr;
    in_.emplace_back(fields, 0);
    Ref<Object> made = decode(*this);
    in_.pop_back();
    return made;
}

Ref<Object> SequentialArchiver::decodeObject() { return decodeValue(nextValue()); }

std::uint64_t SequentialArchiver::decodeUInt64() {
    auto n = dyn_cast<Number>(nextValue());
    return n ? n->uint64Value() : 0;
}

std::int64_t SequentialArchiver::decodeInt64(const std::string&) {
    auto n = dyn_cast<Number>(nextValue());
    return n ? n->int64Value() : 0;
}

double SequentialArchiver::decodeDouble(const std::string&) {
    auto n = dyn_cast<Number>(nextValue());
    return n ? n->doubleValue() : 0;
}

bool SequentialArchiver::decodeBool(const std::string&) {
    auto n = dyn_cast<Number>(nextValue());
    return n && n->boolValue();
}

bool SequentialArchiver::containsValue(const std::string&) {
    return !in_.empty() && in_.back().second < in_.back().first->count();
}

} // namespace qx
