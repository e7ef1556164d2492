// QXPropertyList.cpp - construction, structure and identity, change
// announcements and mutation counting, and copying of tree nodes.
//
// Values and conversions are in QXPropertyListValues.cpp, the child list and
// the undoable primitives in QXPropertyListChildren.cpp, searching in
// QXPropertyListSearch.cpp and archiving in QXPropertyListCoding.cpp.
#include <QXFoundation/QXPropertyList.h>

#include <QXFoundation/QXError.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/Assert.h>

#include <algorithm>
#include <deque>

const char* const QXPropertyListDidChangeNotification = "QXPropertyListDidChangeNotification";

namespace {

// Which property depends on which: the left-hand key is announced whenever
// one on the right is.
const std::vector<std::pair<std::string, std::vector<std::string>>>& dependencyDeclarations() {
    static const std::vector<std::pair<std::string, std::vector<std::string>>> declarations = {
        {"count", {"countOfChildren"}},
        {"countOfChildren", {"children", "isContainer", "privateValue"}},
        {"children", {"isContainer", "privateValue"}},
        {"isLeaf", {"isContainer"}},
        {"isContainer", {"typeCode"}},
        {"isValueEditable", {"typeCode"}},
        {"type", {"typeCode"}},
        {"typeCode", {"privateTypeCode"}},
        {"value", {"privateValue", "isContainer", "count"}},
        {"stringValue", {"value", "typeCode", "description"}},
        {"description", {"value"}},
        {"boolValue", {"value"}},
        {"dataValue", {"value"}},
        {"dateValue", {"value"}},
        {"intValue", {"value"}},
        {"integerValue", {"value"}},
        {"numberValue", {"value"}},
    };
    return declarations;
}

const qx::Observable::DependentsTable& dependents() {
    static const qx::Observable::DependentsTable table = [] {
        qx::Observable::DependentsTable t;
        for (const auto& [key, affecting] : dependencyDeclarations())
            for (const auto& a : affecting) t[a].push_back(key);
        return t;
    }();
    return table;
}

// The keys whose announcement reaches "children", "value" or "privateValue",
// the properties a node watches to count its own mutations.
bool countsAsMutation(std::string_view key) {
    static const std::set<std::string, std::less<>> keys = [] {
        const std::set<std::string> watched{"children", "value", "privateValue"};
        std::set<std::string, std::less<>> result;
        for (const auto& [from, unused] : dependents()) {
            (void)unused;
            std::deque<std::string> queue{from};
            std::set<std::string> seen{from};
            while (!queue.empty()) {
                const std::string k = queue.front();
                queue.pop_front();
                if (watched.count(k)) {
                    result.insert(from);
                    break;
                }
                auto it = dependents().find(k);
                if (it == dependents().end()) continue;
                for (const auto& d : it->second)
                    if (seen.insert(d).second) queue.push_back(d);
            }
        }
        result.insert(watched.begin(), watched.end());
        return result;
    }();
    return keys.find(key) != keys.end();
}

} // namespace

// --- Construction ---------------------------------------------------------------------

QXPropertyList::Ref QXPropertyList::propertyList() {
    Ref node = makeNode();
    node->_privateTypeCode = QXPropertyListDictionaryType;
    node->storeValue(qx::Array::create());
    node->startWatchingMutations();
    return node;
}

QXPropertyList::Ref QXPropertyList::propertyListWithValue(const qx::Ref<qx::Object>& value) {
    Ref node = makeNode();
    node->setValue(value);
    node->startWatchingMutations();
    return node;
}

QXPropertyList::Ref QXPropertyList::propertyListWithParent(const Ref& parent) {
    Ref node = propertyListWithValue(parent ? qx::Ref<qx::Object>(parent->uniqueKey()) : nullptr);
    node->setParent(parent);
    return node;
}

QXPropertyList::Ref QXPropertyList::arrayPropertyListWithContents(const Nodes& contents) {
    Ref node = makeNode();
    node->_privateTypeCode = QXPropertyListArrayType;
    node->setChildren(contents);
    node->startWatchingMutations();
    return node;
}

QXPropertyList::Ref QXPropertyList::dictionaryPropertyListWithContents(const Nodes& contents) {
    Ref node = makeNode();
    node->_privateTypeCode = QXPropertyListDictionaryType;
    node->setChildren(contents);
    node->startWatchingMutations();
    return node;
}

QXPropertyList::Ref QXPropertyList::propertyListWithData(const qx::Ref<qx::Data>& data, QXPropertyListFormat* format,
                                                         qx::Ref<qx::Error>* error) {
    auto plist = QXPropertyListSerialization::propertyListWithData(data, format, error);
    if (!plist) return nullptr;
    return propertyListWithUnwrappedValue(plist);
}

qx::Ref<qx::Data> QXPropertyList::dataOfFormat(QXPropertyListFormat format, qx::Ref<qx::Error>* error) const {
    return QXPropertyListSerialization::dataWithPropertyList(unwrappedPropertyList(), format, error);
}

QXPropertyList::~QXPropertyList() { stopWatchingMutations(); }

QXPropertyList::Ref QXPropertyList::makeNode() { return std::make_shared<QXPropertyList>(Allocation{}); }

QXPropertyList::Ref QXPropertyList::makeNodeOfSameClass() const { return makeNode(); }

QXPropertyList::Ref QXPropertyList::self() const {
    return std::static_pointer_cast<QXPropertyList>(std::const_pointer_cast<qx::Object>(shared_from_this()));
}

// --- Structure and identity ----------------------------------------------------------------

void QXPropertyList::setParent(const Ref& parent) { setParentExpectingIndex(parent, NotFound); }

void QXPropertyList::setParentExpectingIndex(const Ref& parent, std::size_t index) {
    Ref old = _privateParent.lock();
    if (old && old != parent) old->removeChild(self());
    announceWill("parent");
    _privateParent = parent;
    announceDid("parent");
    if (!parent) return;
    const qx::Array* list = parent->childList();
    const bool atIndex = list && index < list->count() && (*list)[index].get() == static_cast<const qx::Object*>(this);
    if (!atIndex && parent->indexOfChild(this) == NotFound) parent->addChild(self());
}

qx::Ref<qx::UndoManager> QXPropertyList::undoManager() const {
    for (const QXPropertyList* node = this; node;) {
        if (node->_privateUndoManager) return node->_privateUndoManager;
        Ref up = node->_privateParent.lock();
        node = up.get();
        // The parent is owned by its own parent or the caller for as long as
        // this node is reachable from it, so the raw pointer stays valid.
    }
    return nullptr;
}

bool QXPropertyList::parentIsDictionary() const {
    Ref p = _privateParent.lock();
    return p && p->_privateTypeCode == QXPropertyListDictionaryType;
}

bool QXPropertyList::parentIsArray() const {
    Ref p = _privateParent.lock();
    return p && p->_privateTypeCode == QXPropertyListArrayType;
}

qx::Ref<qx::String> QXPropertyList::key() const {
    Ref p = _privateParent.lock();
    if (!p || p->_privateTypeCode == QXPropertyListDictionaryType) return _privateKey;
    if (p->_privateTypeCode == QXPropertyListArrayType)
        return qx::str(qx::format("%lu", static_cast<unsigned long>(p->indexOfChild(this))));
    return nullptr;
}

void QXPropertyList::setKey(const qx::Ref<qx::String>& key) {
    if (qx::isEqual(key, _privateKey)) return;
    if (Ref p = _privateParent.lock(); p && p->_privateTypeCode == QXPropertyListDictionaryType) {
        Nodes taken;
        if (const auto& list = p->privateChildren())
            for (const auto& item : *list) {
                auto child = qx::dyn_cast<QXPropertyList>(item);
                if (child && child.get() != this && qx::isEqual(child->key(), key)) taken.push_back(child);
            }
        p->removeChildren(taken);
    }
    qx::Ref<qx::String> old = _privateKey;
    registerInverse([old](QXPropertyList& node) { node.setKey(old); });
    announceWill("key");
    _privateKey = key;
    announceDid("key");
}

bool QXPropertyList::isKeyEditable() const { return parentIsDictionary(); }

bool QXPropertyList::isValueEditable() const {
    switch (_privateTypeCode) {
    case QXPropertyListStringType:
    case QXPropertyListNumberType:
    case QXPropertyListDataType:
    case QXPropertyListDateType: return true;
    default: return false;
    }
}

std::vector<std::size_t> QXPropertyList::indexPath() const {
    std::vector<std::size_t> path;
    const QXPropertyList* node = this;
    Ref up = node->_privateParent.lock();
    while (up) {
        path.push_back(up->indexOfChild(node));
        node = up.get();
        up = node->_privateParent.lock();
    }
    std::reverse(path.begin(), path.end());
    return path;
}

std::string QXPropertyList::description() const { return qx::describe(value().get()); }

int QXPropertyList::compare(const qx::Ref<qx::Object>& other) const {
    auto node = qx::dyn_cast<QXPropertyList>(other);
    if (!node) return 1;
    auto mine = key(), theirs = node->key();
    const bool mineEmpty = !mine || mine->empty(), theirsEmpty = !theirs || theirs->empty();
    if (mineEmpty && theirsEmpty) return 0;
    if (mineEmpty) return -1;
    if (theirsEmpty) return 1;
    const int order = mine->localizedCaseInsensitiveNumericCompare(*theirs);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

qx::Ref<qx::Object> QXPropertyList::copy() const {
    Ref node = makeNodeOfSameClass();
    node->_privateKey = _privateKey;
    node->_privateTypeCode = _privateTypeCode;
    if (isContainer()) {
        Nodes copies;
        if (const auto list = privateChildren())
            for (const auto& item : *list)
                if (auto child = qx::dyn_cast<QXPropertyList>(item))
                    copies.push_back(std::static_pointer_cast<QXPropertyList>(child->copy()));
        node->setChildren(copies);
    } else {
        node->setValue(_privateValue);
    }
    node->startWatchingMutations();
    return node;
}

// --- Announcements and mutation counting ---------------------------------------------------

const qx::Observable::DependentsTable* QXPropertyList::classDependents() const { return &dependents(); }

// The node counts its own changes directly at each announcement, which has
// the effect of observing "children", "value" and "privateValue" without
// keeping three observers alive on every node of a large tree.
void QXPropertyList::announceWill(std::string_view key) {
    if (hasObservers()) willChangeValueForKey(std::string(key));
}

void QXPropertyList::announceDid(std::string_view key) {
    if (_isWatchingMutations && countsAsMutation(key)) ++_mutations;
    if (hasObservers()) didChangeValueForKey(std::string(key));
}

void QXPropertyList::announceChildren(bool insertion, bool prior, std::size_t index) {
    if (!hasObservers()) {
        if (!prior && _isWatchingMutations) ++_mutations;
        return;
    }
    const auto kind = insertion ? ChangeKind::Insertion : ChangeKind::Removal;
    auto indexes = qx::IndexSet::create(index);
    if (prior) {
        willChange(kind, indexes, "children");
    } else {
        if (_isWatchingMutations) ++_mutations;
        didChange(kind, indexes, "children");
    }
}

void QXPropertyList::startWatchingMutations() { _isWatchingMutations = true; }

void QXPropertyList::stopWatchingMutations() {
    if (_isWatchingMutations) _isWatchingMutations = false;
}

void QXPropertyList::forEachChild(const std::function<void(const Ref& child, bool& stop)>& body) const {
    const std::size_t n = countOfChildren();
    auto indexes = qx::IndexSet::createWithRange(0, n);
    enumerateObjectsAtIndexes(indexes, false, [&body](const Ref& child, std::size_t, bool& stop) { body(child, stop); });
}

void QXPropertyList::enumerateObjectsAtIndexes(
    const qx::Ref<qx::IndexSet>& indexes, bool reverse,
    const std::function<void(const Ref& child, std::size_t index, bool& stop)>& body) const {
    if (!indexes || !body) return;
    std::vector<std::size_t> order = indexes->indexes();
    if (reverse) std::reverse(order.begin(), order.end());
    const std::uint64_t before = _mutations;
    bool stop = false;
    for (std::size_t index : order) {
        QX_ASSERT_AT(_mutations == before, "collection was not mutated while being enumerated", __FILE__, __LINE__);
        if (index >= countOfChildren()) break;
        body(objectInChildrenAtIndex(index), index, stop);
        if (stop) break;
    }
    QX_ASSERT_AT(_mutations == before, "collection was not mutated while being enumerated", __FILE__, __LINE__);
}
