// QXPropertyListSearch.cpp - find-next and find-previous over a tree.
//
// Document order is pre-order; backwards is its exact reverse. A search stays
// inside the subtree of the node it is asked on, never returns that node, and
// never wraps around. Forwards, a start node that is not inclusive is left
// together with its whole subtree (find-next goes on with its next sibling):
// callers that want every match walk the tree themselves.
#include <QXFoundation/QXPropertyList.h>

#include "Internal/QXStringSearch.h"

#include <qx/DateFormatter.h>

#include <unicode/locid.h>

#include <array>
#include <cstdlib>
#include <map>

namespace {

// The four styles a date is shown in, for the current locale and time zone
// setting; made once per thread and again when either changes.
const std::array<qx::Ref<qx::DateFormatter>, 4>& dateFormatters() {
    thread_local std::array<qx::Ref<qx::DateFormatter>, 4> formatters;
    thread_local std::string madeFor;
    const char* tz = std::getenv("TZ");
    const std::string now = std::string(icu::Locale::getDefault().getName()) + (tz ? std::string("|") + tz : "");
    if (!formatters[0] || madeFor != now) {
        using Style = qx::DateFormatter::Style;
        const Style styles[] = {Style::Full, Style::Long, Style::Medium, Style::Short};
        for (std::size_t i = 0; i < 4; ++i) formatters[i] = qx::DateFormatter::create(styles[i], styles[i]);
        madeFor = now;
    }
    return formatters;
}

} // namespace

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
        for (const auto& formatter : dateFormatters())
            if (auto shown = formatter->stringForObjectValue(date))
                if (QXStringSearch::contains(shown->utf8(), text->utf8(), options)) return true;
        return false;
    }
    default: return false;
    }
}

QXPropertyList::Ref QXPropertyList::nextChildContainingString(const qx::Ref<qx::String>& text, const Ref& start,
                                                              bool inclusive, QXPropertyListSearchScope scope,
                                                              QXStringCompareOptions options,
                                                              const MatchTypes& matchTypes) const {
    Predicate test = [&text, scope, options, &matchTypes](const Ref& node) {
        return node->containsSearchString(text, scope, options, matchTypes);
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
