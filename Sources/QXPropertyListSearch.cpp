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

#include "Internal/QXHelperThreads.h"
#include "Internal/QXSearchPattern.h"
#include "Internal/QXStringSearch.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
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

// Find-all walks ranges of child lists. A large tree is cut into ranges
// first: the top of the tree is opened level by level, its nodes tested on
// the way, until there are enough ranges below it for the threads to share;
// each thread then takes the next untaken range (with its own pattern, whose
// caches are not shared), and the answer is the pieces joined in document
// order. Ranges are not equal in size, so many more are made than threads.
struct QXPropertyList::FindAll {
    struct Range {
        const qx::Array* list;
        std::size_t begin, end;
        bool dictionary;
    };
    // One piece of the answer, in document order: a node matched while the
    // tree was being cut, or the matches of a range.
    struct Piece {
        Ref match;
        Range range{};
        Nodes found;
    };

    QXPropertyListSearchScope scope;
    const MatchTypes& matchTypes;

    static constexpr std::size_t kRanges = 64;          // enough to share out unequal ranges
    static constexpr std::size_t kFanOut = 8;           // a long list is cut into this many
    static constexpr std::size_t kThreadedNodes = 1024; // fewer nodes left than this: one thread

    static const QXPropertyList* nodeAt(const qx::Array& list, std::size_t i) {
        const qx::Object* item = list[i].get();
        if (!item) return nullptr;
        return typeid(*item) == typeid(QXPropertyList) ? static_cast<const QXPropertyList*>(item)
                                                       : dynamic_cast<const QXPropertyList*>(item);
    }

    static const qx::Array* childrenOf(const QXPropertyList& node) {
        if (!isContainerCode(node._privateTypeCode)) return nullptr;
        return node._valueKind == ValueKind::Array ? static_cast<const qx::Array*>(node._privateValue.get())
                                                   : node.childList();
    }

    bool matches(const QXSearchPattern& pattern, const QXPropertyList& node, bool dictionary) const {
        return node.matchesSearchPattern(pattern, scope, matchTypes, dictionary);
    }

    std::vector<Piece> cut(const QXSearchPattern& pattern, const Range& whole) const;
    void walk(const QXSearchPattern& pattern, const Range& range, Nodes& found) const;
};

std::vector<QXPropertyList::FindAll::Piece> QXPropertyList::FindAll::cut(const QXSearchPattern& pattern,
                                                                         const Range& whole) const {
    std::vector<Piece> pieces(1);
    pieces[0].range = whole;
    for (bool opened = true; opened;) {
        const auto ranges = static_cast<std::size_t>(
            std::count_if(pieces.begin(), pieces.end(), [](const Piece& p) { return !p.match; }));
        if (ranges >= kRanges) break;
        opened = false;
        std::vector<Piece> next;
        for (auto& piece : pieces) {
            const Range r = piece.range;
            const std::size_t length = r.end - r.begin;
            if (piece.match || length == 0) {
                if (piece.match) next.push_back(std::move(piece));
                continue;
            }
            opened = true;
            if (length > 1) {
                const std::size_t parts = std::min(length, kFanOut);
                for (std::size_t k = 0; k < parts; ++k) {
                    Piece part;
                    part.range = {r.list, r.begin + length * k / parts, r.begin + length * (k + 1) / parts, r.dictionary};
                    next.push_back(std::move(part));
                }
                continue;
            }
            const QXPropertyList* node = nodeAt(*r.list, r.begin);
            if (!node) continue;  // a plain element of a list set as a value reads as no node
            if (matches(pattern, *node, r.dictionary)) {
                Piece found;
                found.match = std::static_pointer_cast<QXPropertyList>((*r.list)[r.begin]);
                next.push_back(std::move(found));
            }
            if (const qx::Array* children = childrenOf(*node)) {
                Piece below;
                below.range = {children, 0, children->count(), node->_privateTypeCode == QXPropertyListDictionaryType};
                next.push_back(std::move(below));
            }
        }
        pieces = std::move(next);
    }
    return pieces;
}

void QXPropertyList::FindAll::walk(const QXSearchPattern& pattern, const Range& range, Nodes& found) const {
    // Pre-order with an explicit stack of child lists: deep trees cannot
    // exhaust the call stack, and no node is copied unless it matches. The
    // walk is bound by memory latency (a node and its value lie in two
    // places), so the nodes a few places ahead in the list, and then their
    // values and keys, are fetched while the current one is tested; values
    // the pattern rules out by their kind are not.
    constexpr std::size_t kNodesAhead = 6, kFieldsAhead = 3;
    auto fetchFields = [&pattern](const Range& level, std::size_t i) {
        if (i >= level.end) return;
        const qx::Object* item = (*level.list)[i].get();
        if (!item || typeid(*item) != typeid(QXPropertyList)) return;
        const auto* node = static_cast<const QXPropertyList*>(item);
        __builtin_prefetch(node->_privateKey.get());  // cheap when keys are shared, as they mostly are
        const ValueKind kind = node->_valueKind;
        if ((kind == ValueKind::Number && pattern.rulesOutNumbers()) ||
            (kind == ValueKind::FiniteDate && pattern.rulesOutFiniteDates()))
            return;
        __builtin_prefetch(node->_privateValue.get());
    };
    // The class pointer and the fields lie close together at the start of a
    // node, so fetching the start and one line on brings both (a prefetch
    // never faults, so the element need not be known to be a node).
    auto fetchNode = [](const Range& level, std::size_t i) {
        if (i >= level.end) return;
        const char* item = reinterpret_cast<const char*>((*level.list)[i].get());
        __builtin_prefetch(item);
        __builtin_prefetch(item + 64);
    };
    std::vector<Range> stack;
    auto enter = [&stack, &fetchNode](const Range& level) {
        for (std::size_t i = level.begin; i < level.begin + kNodesAhead; ++i) fetchNode(level, i);
        stack.push_back(level);
    };
    enter(range);
    while (!stack.empty()) {
        Range& level = stack.back();
        if (level.begin == level.end) {
            stack.pop_back();
            continue;
        }
        const std::size_t at = level.begin++;
        const Range here = level;  // enter() may move the stack
        fetchNode(here, at + kNodesAhead);
        fetchFields(here, at + kFieldsAhead);
        const QXPropertyList* node = nodeAt(*here.list, at);
        if (!node) continue;
        if (matches(pattern, *node, here.dictionary))
            found.push_back(std::static_pointer_cast<QXPropertyList>((*here.list)[at]));
        if (const qx::Array* children = childrenOf(*node))
            enter({children, 0, children->count(), node->_privateTypeCode == QXPropertyListDictionaryType});
    }
}

QXPropertyList::Nodes QXPropertyList::allChildrenContainingString(const qx::Ref<qx::String>& text,
                                                                  QXPropertyListSearchScope scope,
                                                                  QXStringCompareOptions options,
                                                                  const MatchTypes& matchTypes) const {
    Nodes found;
    const qx::Array* list = childList();
    if (!text || !list) return found;
    const QXSearchPattern pattern(text->utf8(), options);
    const FindAll search{scope, matchTypes};
    const bool dictionary = _privateTypeCode == QXPropertyListDictionaryType;
    std::vector<FindAll::Piece> pieces = search.cut(pattern, {list, 0, list->count(), dictionary});

    std::vector<FindAll::Piece*> ranges;
    std::size_t left = 0;
    for (auto& piece : pieces)
        if (!piece.match) {
            ranges.push_back(&piece);
            left += piece.range.end - piece.range.begin;
        }
    std::atomic<std::size_t> next{0};
    auto work = [&search, &ranges, &next](const QXSearchPattern& mine) {
        for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < ranges.size();)
            search.walk(mine, ranges[i]->range, ranges[i]->found);
    };
    if (left < FindAll::kThreadedNodes) {
        work(pattern);
    } else {
        // Each thread tests with a pattern of its own (its caches are not shared).
        const std::string needle = text->utf8();
        std::mutex failed;
        std::exception_ptr failure;
        const std::function<void()> job = [&] {
            try {
                const QXSearchPattern mine(needle, options);
                work(mine);
            } catch (...) {
                std::lock_guard<std::mutex> lock(failed);
                if (!failure) failure = std::current_exception();
                next.store(ranges.size());  // the others stop at their next range
            }
        };
        QXHelperThreads::shared().run(job);
        if (failure) std::rethrow_exception(failure);
    }

    for (auto& piece : pieces) {
        if (piece.match) {
            found.push_back(std::move(piece.match));
        } else {
            found.insert(found.end(), std::make_move_iterator(piece.found.begin()), std::make_move_iterator(piece.found.end()));
        }
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
