// QXPropertyListCoding.cpp - archiving of tree nodes.
//
// Keyed archives hold "TypeCode" (integer), "Value" (the children of a
// container, else the value) and "Key" (only under a dictionary parent);
// sequential archives the type code as an unsigned 64-bit number, the value
// and the key, in that order.
#include <QXFoundation/QXPropertyList.h>

namespace {

// Registered when the library loads, so that unarchiving finds the class.
[[maybe_unused]] const bool registered = [] {
    qx::registerCodingClass("QXPropertyList", {"QXPropertyList", "NSObject"},
                            [](qx::Coder& coder) -> qx::Ref<qx::Object> { return QXPropertyList::initWithCoder(coder); });
    return true;
}();

} // namespace

void QXPropertyList::encodeWithCoder(qx::Coder& coder) const {
    (void)registered;
    const qx::Ref<qx::Object> value = isContainer() ? qx::Ref<qx::Object>(privateChildren()) : _privateValue;
    const qx::Ref<qx::Object> key = parentIsDictionary() ? qx::Ref<qx::Object>(_privateKey) : nullptr;
    if (coder.allowsKeyedCoding()) {
        coder.encodeInt64(_privateTypeCode, "TypeCode");
        coder.encodeObject(value, "Value");
        coder.encodeObject(key, "Key");
    } else {
        coder.encodeUInt64(static_cast<std::uint64_t>(_privateTypeCode));
        coder.encodeObject(value);
        coder.encodeObject(key);
    }
}

QXPropertyList::Ref QXPropertyList::initWithCoder(qx::Coder& coder) {
    QXPropertyListType code;
    qx::Ref<qx::Object> value, key;
    if (coder.allowsKeyedCoding()) {
        code = coder.decodeInt64("TypeCode");
        value = coder.decodeObject("Value");
        key = coder.decodeObject("Key");
    } else {
        code = static_cast<QXPropertyListType>(coder.decodeUInt64());
        value = coder.decodeObject();
        key = coder.decodeObject();
    }
    Ref node = makeNode();
    node->_privateTypeCode = code;
    if (node->isContainer()) {
        Nodes children;
        if (auto list = qx::dyn_cast<qx::Array>(value))
            for (const auto& item : *list)
                if (auto child = qx::dyn_cast<QXPropertyList>(item)) children.push_back(child);
        node->setChildren(children);
    } else {
        node->setValue(value);
    }
    node->setKey(qx::dyn_cast<qx::String>(key));
    node->startWatchingMutations();
    return node;
}
