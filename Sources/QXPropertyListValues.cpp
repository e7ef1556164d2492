// QXPropertyListValues.cpp - type codes and names, values, text forms and the
// conversions a node makes when its type changes.
#include <QXFoundation/QXPropertyList.h>

#include <QXFoundation/QXUIDPropertyList.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/Date.h>
#include <qx/Format.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>

namespace {

constexpr std::array<const char*, 7> kTypeNames = {"String", "Number", "Boolean", "Array", "Dictionary", "Data", "Date"};

QXPropertyListType typeCodeOfValue(const qx::Ref<qx::Object>& value) {
    const qx::Object* v = value.get();
    if (dynamic_cast<const qx::String*>(v)) return QXPropertyListStringType;
    if (dynamic_cast<const qx::Data*>(v)) return QXPropertyListDataType;
    if (dynamic_cast<const qx::Date*>(v)) return QXPropertyListDateType;
    if (const auto* n = dynamic_cast<const qx::Number*>(v)) return n->isBoolean() ? QXPropertyListBooleanType : QXPropertyListNumberType;
    if (dynamic_cast<const qx::Array*>(v)) return QXPropertyListArrayType;
    if (dynamic_cast<const qx::Dictionary*>(v)) return QXPropertyListDictionaryType;
    return QXPropertyListUnknownType;
}

} // namespace

void QXPropertyList::storeValue(qx::Ref<qx::Object> value) {
    const qx::Object* plain = value.get();
    const std::type_info* type = plain ? &typeid(*plain) : nullptr;
    if (!type) {
        _valueKind = ValueKind::Other;
    } else if (*type == typeid(qx::String)) {
        _valueKind = ValueKind::String;
    } else if (*type == typeid(qx::Number)) {
        _valueKind = ValueKind::Number;
    } else if (*type == typeid(qx::Data)) {
        _valueKind = ValueKind::Data;
    } else if (*type == typeid(qx::Array)) {
        _valueKind = ValueKind::Array;
    } else if (*type == typeid(qx::Date)) {
        // Dates never change, so whether they can be shown as a calendar
        // date is known once.
        const double t = static_cast<const qx::Date*>(plain)->timeIntervalSince1970();
        _valueKind = std::isfinite(t * 1000.0) ? ValueKind::FiniteDate : ValueKind::Date;
    } else {
        _valueKind = ValueKind::Other;
    }
    _privateValue = std::move(value);
}

// --- Type codes and names ---------------------------------------------------------------------

qx::Ref<qx::String> QXPropertyList::type() const {
    if (_privateTypeCode >= 1 && _privateTypeCode <= 7)
        return QXFLocalizedString(kTypeNames[static_cast<std::size_t>(_privateTypeCode - 1)]);
    return objectTypeFromClassName();
}

void QXPropertyList::setType(const qx::Ref<qx::String>& type) {
    static constexpr std::array<std::pair<const char*, QXPropertyListType>, 6> names = {{
        {"String", QXPropertyListStringType},
        {"Number", QXPropertyListNumberType},
        {"Boolean", QXPropertyListBooleanType},
        {"Array", QXPropertyListArrayType},
        {"Dictionary", QXPropertyListDictionaryType},
        {"Date", QXPropertyListDateType},
    }};
    for (const auto& [name, code] : names)
        if (qx::isEqual(type, QXFLocalizedString(name))) return setTypeCode(code);
    setTypeCode(QXPropertyListDataType);
}

qx::Ref<qx::String> QXPropertyList::objectTypeFromClassName() const {
    auto current = value();
    if (!current) return nullptr;
    static constexpr std::array<std::string_view, 6> prefixes = {"NS", "CF", "QX", "Big", "Concrete", "Mutable"};
    std::string name = current->className();
    for (bool stripped = true; stripped;) {
        stripped = false;
        for (std::string_view prefix : prefixes)
            if (name.starts_with(prefix)) {
                name.erase(0, prefix.size());
                stripped = true;
            }
    }
    return qx::str(name);
}

void QXPropertyList::setAppropriateTypeCode() {
    const QXPropertyListType old = _privateTypeCode;
    registerInverse([old](QXPropertyList& node) { node.privateSetTypeCode(old); });
    announceWill("appropriateTypeCode");
    _privateTypeCode = typeCodeOfValue(_privateValue);
    announceDid("appropriateTypeCode");
}

void QXPropertyList::setTypeCode(QXPropertyListType typeCode) {
    qx::Ref<qx::Object> converted;
    switch (typeCode) {
    case QXPropertyListStringType: converted = stringRepresentationForConversion(); break;
    case QXPropertyListNumberType: converted = numberValue(); break;
    case QXPropertyListBooleanType: converted = qx::Number::withBool(boolValue()); break;
    case QXPropertyListDataType: converted = dataValue(); break;
    case QXPropertyListDateType: converted = dateValue(); break;
    default: break;
    }
    const auto told = children().value_or(Nodes{});
    const auto tell = [&told](bool prior) {
        for (const auto& child : told)
            if (child) prior ? child->willChangeValueForKey("isKeyEditable") : child->didChangeValueForKey("isKeyEditable");
    };
    tell(true);
    const bool wasContainer = isContainer();
    privateSetValue(nullptr);
    privateSetTypeCode(typeCode);
    if (isContainer())
        setChildren(wasContainer ? told : Nodes{});
    else
        setValue(converted);
    tell(false);
}

// --- Values ----------------------------------------------------------------------------------------

qx::Ref<qx::Object> QXPropertyList::value() const {
    if (isContainer())
        return qx::str(qx::format(QXFLocalizedString("%lu objects")->utf8().c_str(),
                                  static_cast<unsigned long>(countOfChildren())));
    return _privateValue;
}

void QXPropertyList::setValue(const qx::Ref<qx::Object>& value) {
    if (isContainer()) return;
    privateSetValue(value ? value->copy() : nullptr);
    setAppropriateTypeCode();
}

qx::Ref<qx::String> QXPropertyList::stringRepresentationForConversion() const {
    auto plain = unwrappedPropertyList();
    if (qx::dyn_cast<qx::Array>(plain) || qx::dyn_cast<qx::Dictionary>(plain)) return QXFLocalizedString("NEW_OBJECT");
    return QXPropertyListSerialization::stringRepresentationOfPropertyList(plain);
}

qx::Ref<qx::String> QXPropertyList::stringValue() const {
    auto current = value();
    if (!current) return qx::str("(null)");
    if (qx::dyn_cast<qx::Date>(current)) {
        qx::Ref<qx::Error> error;
        if (auto text = QXPropertyListSerialization::stringRepresentationOfPropertyList(current, &error)) return text;
        return qx::str(error ? error->localizedDescription() : std::string());
    }
    return qx::str(description());
}

void QXPropertyList::setStringValue(const qx::Ref<qx::String>& text) {
    if (!text || qx::isEqual(text, stringValue())) return;
    qx::Ref<qx::Object> parsed;
    switch (_privateTypeCode) {
    case QXPropertyListStringType: parsed = QXPropertyListSerialization::stringWithStringValue(*text); break;
    case QXPropertyListNumberType: parsed = QXPropertyListSerialization::numberWithStringValue(*text); break;
    case QXPropertyListDataType: parsed = QXPropertyListSerialization::dataWithStringValue(*text); break;
    case QXPropertyListDateType: parsed = QXPropertyListSerialization::dateWithStringValue(*text); break;
    default: return;
    }
    if (parsed) setValue(parsed);
}

bool QXPropertyList::boolValue() const {
    if (_privateTypeCode == QXPropertyListBooleanType)
        if (auto n = qx::dyn_cast<qx::Number>(_privateValue)) return n->boolValue();
    auto text = stringRepresentationForConversion();
    auto parsed = text ? QXPropertyListSerialization::booleanWithStringValue(*text) : nullptr;
    return parsed && parsed->boolValue();
}

qx::Ref<qx::Number> QXPropertyList::numberValue() const {
    if (_privateTypeCode == QXPropertyListNumberType)
        if (auto n = qx::dyn_cast<qx::Number>(_privateValue)) return n;
    auto text = stringRepresentationForConversion();
    auto parsed = text ? QXPropertyListSerialization::numberWithStringValue(*text) : nullptr;
    return parsed ? parsed : qx::Number::withInt64(0);
}

std::int32_t QXPropertyList::intValue() const { return static_cast<std::int32_t>(numberValue()->int64Value()); }

std::int64_t QXPropertyList::integerValue() const { return numberValue()->int64Value(); }

qx::Ref<qx::Data> QXPropertyList::dataValue() const {
    if (_privateTypeCode == QXPropertyListDataType)
        if (auto d = qx::dyn_cast<qx::Data>(_privateValue)) return d;
    auto text = stringRepresentationForConversion();
    return qx::Data::withString(text ? text->utf8() : std::string());
}

qx::Ref<qx::Date> QXPropertyList::dateValue() const {
    if (_privateTypeCode == QXPropertyListDateType)
        if (auto d = qx::dyn_cast<qx::Date>(_privateValue)) return d;
    auto text = stringRepresentationForConversion();
    auto parsed = text ? QXPropertyListSerialization::dateWithStringValue(*text) : nullptr;
    return parsed ? parsed : qx::Date::now();
}

// The typed setters store the code and the value through the primitives, so
// each is undone like any other edit.
void QXPropertyList::setBoolValue(bool value) {
    privateSetTypeCode(QXPropertyListBooleanType);
    privateSetValue(qx::Number::withBool(value));
}

void QXPropertyList::setNumberValue(const qx::Ref<qx::Number>& value) {
    privateSetTypeCode(QXPropertyListNumberType);
    privateSetValue(value);
}

void QXPropertyList::setIntValue(std::int32_t value) { setNumberValue(qx::Number::withInt32(value)); }

void QXPropertyList::setIntegerValue(std::int64_t value) { setNumberValue(qx::Number::withInt64(value)); }

void QXPropertyList::setDataValue(const qx::Ref<qx::Data>& value) {
    privateSetTypeCode(QXPropertyListDataType);
    privateSetValue(value ? value->copy() : nullptr);
}

void QXPropertyList::setDateValue(const qx::Ref<qx::Date>& value) {
    privateSetTypeCode(QXPropertyListDateType);
    privateSetValue(value);
}

// --- Plain values in and out ----------------------------------------------------------------------

// Files often repeat the same few keys in every dictionary, each its own
// string object; one object per text makes the tree smaller and lets a
// search that has tested a key once know the answer by its address. A table
// of fixed size keeps the texts seen last, so memory stays bounded whatever
// the file.
struct QXPropertyList::SharedKeys {
    std::array<qx::Ref<qx::String>, 1024> slots;

    qx::Ref<qx::String> share(qx::Ref<qx::String> key) {
        const qx::Object& object = *key;
        if (typeid(object) != typeid(qx::String)) return key;
        const std::string& text = key->utf8();
        qx::Ref<qx::String>& slot = slots[std::hash<std::string>()(text) % slots.size()];
        if (slot && slot->utf8() == text) return slot;
        slot = key;
        return key;
    }
};

QXPropertyList::Ref QXPropertyList::propertyListWithUnwrappedValue(const qx::Ref<qx::Object>& value) {
    auto keys = std::make_unique<SharedKeys>();
    return makeUnwrapped(value, *keys);
}

QXPropertyList::Ref QXPropertyList::makeUnwrapped(const qx::Ref<qx::Object>& value, SharedKeys& keys) {
    Ref node = makeNode();
    node->adoptUnwrappedValue(value, keys);
    node->startWatchingMutations();
    return node;
}

// Containers are attached in one step (privateSetChildren) rather than child
// by child: a source dictionary's keys are unique already, so the per-child
// key search would only make loading quadratic.
void QXPropertyList::loadUnwrappedValue(const qx::Ref<qx::Object>& value) {
    if (auto array = qx::dyn_cast<qx::Array>(value)) {
        Nodes nodes;
        nodes.reserve(array->count());
        auto keys = std::make_unique<SharedKeys>();
        for (const auto& item : *array) nodes.push_back(makeUnwrapped(item, *keys));
        privateSetTypeCode(QXPropertyListArrayType);
        privateSetChildren(nodes);
        return;
    }
    if (auto dictionary = qx::dyn_cast<qx::Dictionary>(value)) {
        Nodes nodes;
        nodes.reserve(dictionary->count());
        auto keys = std::make_unique<SharedKeys>();
        for (const auto& entry : *dictionary) {
            Ref child = makeUnwrapped(entry.second, *keys);
            auto key = qx::dyn_cast<qx::String>(entry.first);
            child->setKey(key ? key : qx::str(qx::describe(entry.first.get())));
            nodes.push_back(child);
        }
        privateSetTypeCode(QXPropertyListDictionaryType);
        privateSetChildren(nodes);
        return;
    }
    // A container turns into a leaf first, so that setValue takes the value.
    if (isContainer()) {
        privateSetValue(nullptr);
        privateSetTypeCode(QXPropertyListUnknownType);
    }
    setValue(value);
}

// Stores directly what loadUnwrappedValue would store through the primitives
// (their announcements and inverses reach nobody on a node this new), which
// is most of the cost of turning a large file into a tree.
void QXPropertyList::adoptUnwrappedValue(const qx::Ref<qx::Object>& value, SharedKeys& keys) {
    const qx::Object* plain = value.get();
    if (const auto* array = dynamic_cast<const qx::Array*>(plain)) {
        auto list = std::make_shared<qx::Array>();
        list->reserve(array->count());
        const Ref me = self();
        for (const auto& item : *array) {
            Ref child = makeUnwrapped(item, keys);
            child->_privateParent = me;
            list->addObject(std::move(child));
        }
        _privateTypeCode = QXPropertyListArrayType;
        storeValue(std::move(list));
        return;
    }
    if (const auto* dictionary = dynamic_cast<const qx::Dictionary*>(plain)) {
        auto list = std::make_shared<qx::Array>();
        list->reserve(dictionary->count());
        const Ref me = self();
        for (const auto& entry : *dictionary) {
            Ref child = makeUnwrapped(entry.second, keys);
            auto key = qx::dyn_cast<qx::String>(entry.first);
            child->_privateKey = key ? keys.share(std::move(key)) : qx::str(qx::describe(entry.first.get()));
            child->_privateParent = me;
            list->addObject(std::move(child));
        }
        _privateTypeCode = QXPropertyListDictionaryType;
        storeValue(std::move(list));
        return;
    }
    storeValue(value ? value->copy() : nullptr);
    _privateTypeCode = typeCodeOfValue(_privateValue);
}

qx::Ref<qx::Object> QXPropertyList::unwrappedPropertyList() const {
    const auto list = privateChildren();
    if (_privateTypeCode == QXPropertyListDictionaryType) {
        if (!list) return _privateValue ? _privateValue : qx::Dictionary::create();
        auto result = qx::Dictionary::create();
        result->reserve(list->count());
        for (const auto& item : *list) {
            auto child = qx::dyn_cast<QXPropertyList>(item);
            if (!child) continue;
            if (auto key = child->key()) result->setObject(child->unwrappedPropertyList(), key);
        }
        return result;
    }
    if (_privateTypeCode == QXPropertyListArrayType) {
        if (!list) return _privateValue ? _privateValue : qx::Array::create();
        auto result = qx::Array::create();
        result->reserve(list->count());
        for (const auto& item : *list) {
            auto child = qx::dyn_cast<QXPropertyList>(item);
            result->addObject(child ? child->unwrappedPropertyList() : item);
        }
        return result;
    }
    return value();
}
