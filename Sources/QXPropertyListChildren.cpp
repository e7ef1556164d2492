// QXPropertyListChildren.cpp - the child list of tree nodes, unique keys, and
// the private primitives that register their inverses for undo.
#include <QXFoundation/QXPropertyList.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXFoundationPrivate.h"

#include <algorithm>

// --- Undo ------------------------------------------------------------------------------------

void QXPropertyList::registerInverseWith(const qx::Ref<qx::UndoManager>& manager,
                                         std::function<void(QXPropertyList& node)> inverse) {
    manager->registerUndoWithTarget<QXPropertyList>(self(), std::move(inverse));
}

void QXPropertyList::privateSetTypeCode(QXPropertyListType typeCode) {
    const QXPropertyListType old = _privateTypeCode;
    registerInverse([old](QXPropertyList& node) { node.privateSetTypeCode(old); });
    announceWill("privateTypeCode");
    _privateTypeCode = typeCode;
    announceDid("privateTypeCode");
}

void QXPropertyList::registerRestore(const qx::Ref<qx::Object>& old) {
    if (!undoManager()) return;
    // A list of nodes goes back through privateSetChildren, which reattaches
    // its members: undoing the edits that emptied it has detached them.
    if (auto list = qx::dyn_cast<qx::Array>(old)) {
        Nodes nodes;
        for (const auto& item : *list) nodes.push_back(qx::dyn_cast<QXPropertyList>(item));
        if (std::all_of(nodes.begin(), nodes.end(), [](const Ref& n) { return n != nullptr; })) {
            registerInverse([nodes](QXPropertyList& node) { node.privateSetChildren(nodes); });
            return;
        }
    }
    registerInverse([old](QXPropertyList& node) { node.privateSetValue(old); });
}

void QXPropertyList::privateSetValue(const qx::Ref<qx::Object>& value) {
    registerRestore(_privateValue);
    announceWill("privateValue");
    storeValue(value);
    announceDid("privateValue");
}

void QXPropertyList::privateSetChildren(const Nodes& children) {
    registerRestore(_privateValue);
    auto list = std::make_shared<qx::Array>();
    list->reserve(children.size());
    for (const auto& child : children) list->addObject(child);
    announceWill("privateValue");
    storeValue(std::move(list));
    announceDid("privateValue");
    // Attaching finds each node already in the list, so none is added twice.
    const Ref me = self();
    for (std::size_t i = 0; i < children.size(); ++i)
        if (children[i]) children[i]->setParentExpectingIndex(me, i);
}

// --- Reading the child list ---------------------------------------------------------------------

qx::Ref<qx::Array> QXPropertyList::privateChildren() const {
    if (!isContainer()) return nullptr;
    return qx::dyn_cast<qx::Array>(_privateValue);
}

std::optional<QXPropertyList::Nodes> QXPropertyList::children() const {
    const auto list = privateChildren();
    if (!list) return std::nullopt;
    Nodes nodes;
    nodes.reserve(list->count());
    for (const auto& item : *list) nodes.push_back(qx::dyn_cast<QXPropertyList>(item));
    return nodes;
}

// Walking a large tree reads the child list at every node: a plain pointer
// spares the reference counting of privateChildren.
const qx::Array* QXPropertyList::childList() const {
    return isContainer() ? dynamic_cast<const qx::Array*>(_privateValue.get()) : nullptr;
}

std::size_t QXPropertyList::countOfChildren() const {
    const qx::Array* list = childList();
    return list ? list->count() : 0;
}

QXPropertyList::Ref QXPropertyList::objectInChildrenAtIndex(std::size_t index) const {
    const qx::Array* list = childList();
    if (!list || index >= list->count()) return nullptr;
    return qx::dyn_cast<QXPropertyList>((*list)[index]);
}

void QXPropertyList::getChildren(Ref* buffer, std::size_t location, std::size_t count) const {
    const auto list = privateChildren();
    if (!list || !buffer) return;
    for (std::size_t i = 0; i < count && location + i < list->count(); ++i)
        buffer[i] = qx::dyn_cast<QXPropertyList>((*list)[location + i]);
}

std::size_t QXPropertyList::indexOfChild(const QXPropertyList* child) const {
    const qx::Array* list = childList();
    if (!list || !child) return NotFound;
    for (std::size_t i = 0; i < list->count(); ++i)
        if ((*list)[i].get() == static_cast<const qx::Object*>(child)) return i;
    return NotFound;
}

QXPropertyList::Ref QXPropertyList::childWithKey(const qx::Ref<qx::String>& key) const {
    const auto list = privateChildren();
    if (!list) return nullptr;
    for (const auto& item : *list)
        if (auto child = qx::dyn_cast<QXPropertyList>(item); child && qx::isEqual(child->key(), key)) return child;
    return nullptr;
}

bool QXPropertyList::hasDescendant(const Ref& node) const {
    const auto list = privateChildren();
    if (!list || !node) return false;
    for (const auto& item : *list)
        if (item == node) return true;
    for (const auto& item : *list)
        if (auto child = qx::dyn_cast<QXPropertyList>(item); child && child->hasDescendant(node)) return true;
    return false;
}

// --- Editing the child list ---------------------------------------------------------------------

void QXPropertyList::addChildReplacingIfNecessary(const Ref& child, bool replace) {
    if (!isContainer() || !child) return;
    if (_privateTypeCode == QXPropertyListDictionaryType) {
        Ref parent = child->parent();
        qx::Ref<qx::String> key;
        bool tookKey = false;
        if (parent && child->key() && parent->_privateTypeCode != QXPropertyListArrayType) {
            key = child->key();
            tookKey = true;
        } else if (parent) {
            child->setKey(uniqueKey());
        } else {
            key = child->_privateKey;
            tookKey = true;
        }
        if (tookKey && replace)
            if (Ref existing = childWithKey(key)) removeChild(existing);
    }
    insertChild(child, countOfChildren());
}

void QXPropertyList::addChildrenReplacingIfNecessary(const Nodes& children, bool replace) {
    for (const auto& child : children) addChildReplacingIfNecessary(child, replace);
}

void QXPropertyList::insertChildren(const Nodes& children, std::size_t index) {
    for (const auto& child : children) insertChild(child, index);
}

void QXPropertyList::insertObjectInChildrenAtIndex(const Ref& child, std::size_t index) {
    if (!isContainer() || !child) return;
    announceChildren(true, true, index);
    if (!qx::dyn_cast<qx::Array>(_privateValue)) setChildren({});
    const auto list = privateChildren();
    index = std::min(index, list->count());
    Ref node = child;
    if (indexOfChild(child.get()) != NotFound) node = std::static_pointer_cast<QXPropertyList>(child->copy());
    if (_privateTypeCode == QXPropertyListDictionaryType) {
        Ref parent = node->parent();
        if (parent && !node->_privateKey) {
            node->setKey(uniqueKey());
        } else {
            // Under an array the node's key would be its index; the key it
            // was given for this dictionary is the stored one.
            const bool useKey = parent && parent->_privateTypeCode != QXPropertyListArrayType;
            node->setKey(uniqueKeyWithExistingKey(useKey ? node->key() : node->_privateKey));
        }
    } else {
        node->setKey(nullptr);
    }
    registerInverse([index](QXPropertyList& n) { n.removeObjectFromChildrenAtIndex(index); });
    list->insertObject(node, index);
    node->setParentExpectingIndex(self(), index);
    announceChildren(true, false, index);
}

void QXPropertyList::removeObjectFromChildrenAtIndex(std::size_t index) {
    if (!isContainer() || index == NotFound) return;
    const auto list = privateChildren();
    if (!list || index >= list->count()) return;
    qx::Ref<qx::Object> item = (*list)[index];
    Ref node = qx::dyn_cast<QXPropertyList>(item);
    if (node)
        registerInverse([node, index](QXPropertyList& n) { n.insertObjectInChildrenAtIndex(node, index); });
    else
        registerInverse([item, index](QXPropertyList& n) {
            if (const auto l = n.privateChildren()) l->insertObject(item, std::min(index, l->count()));
        });
    announceChildren(false, true, index);
    list->removeObjectAtIndex(index);
    if (node) {
        node->announceWill("parent");
        node->_privateParent.reset();
        node->announceDid("parent");
    }
    announceChildren(false, false, index);
}

void QXPropertyList::removeChild(const Ref& child) {
    const std::size_t index = indexOfChild(child.get());
    if (index != NotFound) removeObjectFromChildrenAtIndex(index);
}

void QXPropertyList::removeChildren(const Nodes& children) {
    for (const auto& child : children) removeChild(child);
}

void QXPropertyList::moveChild(const Ref& child, std::size_t index) {
    if (_privateTypeCode != QXPropertyListArrayType || !child) return;
    Ref keep = child;
    removeChild(keep);
    insertChild(keep, index);
}

void QXPropertyList::moveChildAtIndex(std::size_t from, std::size_t to) {
    if (Ref child = objectInChildrenAtIndex(from)) moveChild(child, to);
}

void QXPropertyList::setChildren(const Nodes& children) {
    if (!isContainer()) return;
    privateSetChildren({});
    for (const auto& child : children) addChild(child);
}

// --- Unique keys -----------------------------------------------------------------------------------

qx::Ref<qx::String> QXPropertyList::uniqueKeyWithExistingKey(const qx::Ref<qx::String>& key) const {
    const qx::Ref<qx::String> wanted = key ? key : QXFLocalizedString("NEW_OBJECT");
    std::vector<std::string> taken;
    if (const auto list = privateChildren()) {
        taken.reserve(list->count());
        for (const auto& item : *list)
            if (auto child = qx::dyn_cast<QXPropertyList>(item))
                if (auto k = child->key()) taken.push_back(k->utf8());
    }
    return QXPropertyListSerialization::uniqueNameBasedOnName(*wanted, taken);
}

bool QXPropertyList::validateKey(qx::Ref<qx::Object>* key, qx::Ref<qx::Error>* error) const {
    auto text = key ? qx::dyn_cast<qx::String>(*key) : nullptr;
    if (!text) {
        if (error)
            *error = QXGenerateError(QXErrorDomain, 1, nullptr, nullptr, nullptr, QXFLocalizedString("INVALID_KEY"));
        return false;
    }
    if (Ref parent = _privateParent.lock(); parent && parent->childWithKey(text)) {
        if (error)
            *error = QXGenerateError(QXErrorDomain, 1, nullptr, nullptr, nullptr, QXFLocalizedString("ALREADY_EXISTS"),
                                     text);
        return false;
    }
    return true;
}
