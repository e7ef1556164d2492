// QXPropertyListSearch.cpp - find-next and find-previous over a tree.
//
// Document order is pre-order; backwards is its exact reverse. A search stays
// inside the subtree of the node it is asked on, never returns that node, and
// never wraps around. Forwards, a start node that is not inclusive is left
// together with its whole subtree (find-next goes on with its next sibling),
// so every match is had from allChildrenContainingString instead.
//
// containsSearchString asks the Unicode machinery for each node; the
// searches that test many nodes compile their text once (QXSearchPattern),
// which gives the same answers with far less work per node.
#include <QXFoundation/QXPropertyList.h>

#include "Internal/QXSearchPattern.h"
#include "Internal/QXStringSearch.h"

#include <algorithm>
#include <typeinfo>
#include <vector>

bool QXPropertyList::containsSearchString(const qx::Ref<qx::String>& text, QXPropertyListSearchScope scope,
                                          QXStringCompareOptions options, const MatchTypes& matchTypes) const {
    if (!text) return false;
    if (matchTypes && !matchTypes->count(_privateTypeCode)) return false;
    // Under a dictionary the key is the stored one (key() would lock the parent again).
    if ((scope & QXPropertyListSearchKeys) && _privateKey && parentIsDictionary() &&
        QXStringSearch::contains(_privateKey->utf8(), text->utf8(), options))
        return true;
    if (!(scope & QXPropertyListSearchValues)) return false;
    switch (_privateTypeCode) {
    case QXPropertyListStringType:
        // A string's text is its own description; spares a copy per node.
        if (const auto* string = dynamic_cast<const qx::String*>(_privateValue.get()))
            return QXStringSearch::contains(string->utf8(), text->utf8(), options);
        [[fallthrough]];
    case QXPropertyListNumberType:
    case QXPropertyListBooleanType: return QXStringSearch::contains(stringValue()->utf8(), text->utf8(), options);
    case QXPropertyListDataType: {
        auto data = dataValue();
        return data && QXStringSearch::dataContains(*data, text->utf8(), static_cast<unsigned>((options >> 2) & 3));
    }
    case QXPropertyListDateType: {
        auto date = dateValue();
        for (const auto& formatter : QXSearchPattern::dateFormatters())
            if (auto shown = formatter->stringForObjectValue(date))
                if (QXStringSearch::contains(shown->utf8(), text->utf8(), options)) return true;
        return false;
    }
    default: return false;
    }
}

bool QXPropertyList::matchesSearchPattern(const QXSearchPattern& pattern, QXPropertyListSearchScope scope,
                                          const MatchTypes& matchTypes, bool underDictionary) const {
    if (matchTypes && !matchTypes->count(_privateTypeCode)) return false;
    if ((scope & QXPropertyListSearchKeys) && _privateKey && underDictionary && pattern.matchesKey(*_privateKey))
        return true;
    if (!(scope & QXPropertyListSearchValues)) return false;
    // Values of the kind the type code promises are read in place, and not
    // at all when the pattern rules their kind out; anything else takes the
    // conversions containsSearchString takes.
    const qx::Object* value = _privateValue.get();
    switch (_privateTypeCode) {
    case QXPropertyListStringType:
        if (_valueKind == ValueKind::String) return pattern.matchesText(static_cast<const qx::String*>(value)->utf8());
        [[fallthrough]];
    case QXPropertyListNumberType:
    case QXPropertyListBooleanType:
        if (_valueKind == ValueKind::Number)
            return !pattern.rulesOutNumbers() && pattern.matchesNumber(*static_cast<const qx::Number*>(value));
        return pattern.matchesText(stringValue()->utf8());
    case QXPropertyListDataType: {
        if (_valueKind == ValueKind::Data) return pattern.matchesData(*static_cast<const qx::Data*>(value));
        auto data = dataValue();
        return data && pattern.matchesData(*data);
    }
    case QXPropertyListDateType:
        if (_valueKind == ValueKind::FiniteDate && pattern.rulesOutFiniteDates()) return false;
        return pattern.matchesDate(dateValue());
    default: return false;
    }
}

QXPropertyList::Nodes QXPropertyList::allChildrenContainingString(const qx::Ref<qx::String>& text,
                                                                  QXPropertyListSearchScope scope,
                                                                  QXStringCompareOptions options,
                                                                  const MatchTypes& matchTypes) const {
    Nodes found;
    if (!text) return found;
    const QXSearchPattern pattern(text->utf8(), options);
    // Pre-order with an explicit stack of child lists: deep trees cannot
    // exhaust the call stack, and no node is copied unless it matches. The
    // walk is bound by memory latency (a node and its value lie in two
    // places), so the nodes a few places ahead in the list, and then their
    // values, are fetched while the current one is tested.
    struct Level {
        const qx::Array* list;
        std::size_t next;
        bool dictionary;
    };
    constexpr std::size_t kNodesAhead = 6, kFieldsAhead = 3;
    auto nodeAt = [](const qx::Array& list, std::size_t i) -> const QXPropertyList* {
        const qx::Object* item = list[i].get();
        if (!item) return nullptr;
        return typeid(*item) == typeid(QXPropertyList) ? static_cast<const QXPropertyList*>(item)
                                                       : dynamic_cast<const QXPropertyList*>(item);
    };
    // The pattern keeps its answer per key object, so a shared key is read
    // once per search.
    auto fetchFields = [&pattern](const qx::Array& list, std::size_t i) {
        if (i >= list.count()) return;
        const qx::Object* item = list[i].get();
        if (!item || typeid(*item) != typeid(QXPropertyList)) return;
        const auto* node = static_cast<const QXPropertyList*>(item);
        __builtin_prefetch(node->_privateKey.get());  // cheap when keys are shared, as they mostly are
        const ValueKind kind = node->_valueKind;
        if ((kind == ValueKind::Number && pattern.rulesOutNumbers()) ||
            (kind == ValueKind::FiniteDate && pattern.rulesOutFiniteDates()))
            return;  // a value that will not be read
        __builtin_prefetch(node->_privateValue.get());
    };
    // Where a node's fields lie from the start of its object, so that an
    // element can be fetched before its class is known (a prefetch never faults).
    const std::ptrdiff_t fieldsOffset = reinterpret_cast<const char*>(&_privateTypeCode) -
                                        reinterpret_cast<const char*>(static_cast<const qx::Object*>(this));
    auto fetchNode = [fieldsOffset](const qx::Array& list, std::size_t i) {
        if (i >= list.count()) return;
        const char* item = reinterpret_cast<const char*>(list[i].get());
        __builtin_prefetch(item);  // the class, read first
        __builtin_prefetch(item + fieldsOffset);
    };
    std::vector<Level> stack;
    auto enter = [&stack, &fetchNode](const qx::Array* list, bool dictionary) {
        for (std::size_t i = 0; i < kNodesAhead; ++i) fetchNode(*list, i);
        stack.push_back({list, 0, dictionary});
    };
    if (const qx::Array* list = childList()) enter(list, _privateTypeCode == QXPropertyListDictionaryType);
    while (!stack.empty()) {
        Level& level = stack.back();
        const qx::Array& list = *level.list;
        if (level.next == list.count()) {
            stack.pop_back();
            continue;
        }
        const std::size_t at = level.next++;
        const bool dictionary = level.dictionary;
        fetchNode(list, at + kNodesAhead);
        fetchFields(list, at + kFieldsAhead);
        const QXPropertyList* node = nodeAt(list, at);
        if (!node) continue;  // a plain element of a list set as a value reads as no node
        if (node->matchesSearchPattern(pattern, scope, matchTypes, dictionary))
            found.push_back(std::static_pointer_cast<QXPropertyList>(list[at]));
        if (!isContainerCode(node->_privateTypeCode)) continue;
        const qx::Array* children = node->_valueKind == ValueKind::Array
                                        ? static_cast<const qx::Array*>(node->_privateValue.get())
                                        : node->childList();
        if (children)
            enter(children, node->_privateTypeCode == QXPropertyListDictionaryType);
    }
    if (options & QXBackwardsSearch) std::reverse(found.begin(), found.end());
    return found;
}

QXPropertyList::Ref QXPropertyList::nextChildContainingString(const qx::Ref<qx::String>& text, const Ref& start,
                                                              bool inclusive, QXPropertyListSearchScope scope,
                                                              QXStringCompareOptions options,
                                                              const MatchTypes& matchTypes) const {
    if (!text) return nullptr;
    const QXSearchPattern pattern(text->utf8(), options);
    Predicate test = [&pattern, scope, &matchTypes](const Ref& node) {
        return node->matchesSearchPattern(pattern, scope, matchTypes, node->parentIsDictionary());
    };
    return nextChildMatchingPredicate(test, start, inclusive, (options & QXBackwardsSearch) != 0);
}

QXPropertyList::Ref QXPropertyList::nextChildMatchingPredicate(const Predicate& test, const Ref& start, bool inclusive,
                                                               bool backwards) const {
    Ref from = start.get() == this ? nullptr : start;
    Ref parent;
    std::size_t index;
    if (!from) {
        parent = self();
        index = backwards ? countOfChildren() - 1 : 0;  // no children: wraps to NotFound
    } else {
        if (!hasDescendant(from)) return nullptr;
        parent = from->parent();
        index = parent->indexOfChild(from.get());
        if (!inclusive) index = backwards ? (index == 0 ? NotFound : index - 1) : index + 1;
    }
    return nextChildMatchingPredicateFromParent(test, parent, index, backwards, true);
}

QXPropertyList::Ref QXPropertyList::nextChildMatchingPredicateFromParent(const Predicate& test, const Ref& parent,
                                                                         std::size_t index, bool backwards,
                                                                         bool climbUpTree) const {
    if (!parent) return nullptr;
    const std::size_t n = parent->countOfChildren();
    if ((backwards && index != NotFound) || (!backwards && index < n)) {
        if (backwards) {
            for (std::size_t i = std::min(index, n - 1); n > 0; --i) {
                if (Ref found = searchPropertyList(parent->objectInChildrenAtIndex(i), test, true)) return found;
                if (i == 0) break;
            }
        } else {
            for (std::size_t i = index; i < n; ++i)
                if (Ref found = searchPropertyList(parent->objectInChildrenAtIndex(i), test, false)) return found;
        }
    }
    if (!climbUpTree || parent.get() == this) return nullptr;
    if (backwards && test(parent)) return parent;
    Ref grand = parent->parent();
    if (!grand) return nullptr;
    const std::size_t at = grand->indexOfChild(parent.get());
    const std::size_t next = backwards ? (at == 0 ? NotFound : at - 1) : at + 1;
    return nextChildMatchingPredicateFromParent(test, grand, next, backwards, true);
}

QXPropertyList::Ref QXPropertyList::searchPropertyList(const Ref& node, const Predicate& test, bool backwards) {
    if (!node) return nullptr;
    if (!backwards && test(node)) return node;
    const std::size_t n = node->countOfChildren();
    if (backwards) {
        for (std::size_t i = n; i-- > 0;)
            if (Ref found = searchPropertyList(node->objectInChildrenAtIndex(i), test, true)) return found;
        return test(node) ? node : nullptr;
    }
    for (std::size_t i = 0; i < n; ++i)
        if (Ref found = searchPropertyList(node->objectInChildrenAtIndex(i), test, false)) return found;
    return nullptr;
}
