// PropertyListSearchTests.cpp - find-next and find-previous against a plain
// pre-order model on random trees, matching of one node by scope, options and
// types, and dates matched through their four display styles in two locales.
#include <gtest/gtest.h>

#include <QXFoundation/QXPropertyList.h>

#include "PropertyListTrees.h"
#include "ScopedLocale.h"

#include <qx/Date.h>

#include <cstdlib>

using namespace qx;
using PL = QXPropertyList;

namespace {

std::size_t position(const std::vector<PL::Ref>& order, const PL::Ref& node) {
    return static_cast<std::size_t>(std::find(order.begin(), order.end(), node) - order.begin());
}

} // namespace

// The model: in pre-order, forwards takes the first match at or after the
// start (after the start's whole subtree when not inclusive), backwards the
// last match before the start (up to the end of its subtree when inclusive).
TEST(PropertyListSearch, OrderMatchesPreOrderModel) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        auto tree = PL::propertyListWithUnwrappedValue(plisttree::randomTree(seed, 5));
        const auto all = plisttree::preOrder(tree);
        // Search inside a random container, so that climbing must stop at it.
        std::vector<PL::Ref> containers;
        for (const auto& n : all)
            if (n->isContainer()) containers.push_back(n);
        const PL::Ref root = seed % 3 ? tree : containers[rng() % containers.size()];
        const auto order = plisttree::preOrder(root);
        std::set<const PL*> matching;
        for (const auto& n : order)
            if (rng() % 3 == 0) matching.insert(n.get());
        const PL::Predicate test = [&matching](const PL::Ref& n) { return matching.count(n.get()) != 0; };
        auto subtreeEnd = [&order](std::size_t at) {
            std::size_t end = at + 1;
            while (end < order.size() && order[at]->hasDescendant(order[end])) ++end;
            return end;
        };
        for (std::size_t s = 0; s < order.size(); ++s) {
            for (int mode = 0; mode < 4; ++mode) {
                const bool backwards = mode & 1, inclusive = mode & 2;
                const PL::Ref start = s == 0 ? nullptr : order[s];
                PL::Ref expected;
                if (!backwards) {
                    const std::size_t from = s == 0 ? 1 : inclusive ? s : subtreeEnd(s);
                    for (std::size_t i = from; i < order.size() && !expected; ++i)
                        if (test(order[i])) expected = order[i];
                } else {
                    const std::size_t to = s == 0 ? order.size() : inclusive ? subtreeEnd(s) : s;
                    for (std::size_t i = to; i-- > 1 && !expected;)
                        if (test(order[i])) expected = order[i];
                }
                const PL::Ref found = root->nextChildMatchingPredicate(test, start, inclusive, backwards);
                ASSERT_EQ(found, expected) << "seed " << seed << " start " << s << " mode " << mode << " found at "
                                           << position(order, found);
            }
        }
        // A start outside the searched subtree finds nothing, whatever matches.
        if (root != tree) {
            EXPECT_EQ(root->nextChildMatchingPredicate([](const PL::Ref&) { return true; }, tree, false, false), nullptr);
        }
        auto stranger = PL::propertyListWithValue(str("alpha"));
        EXPECT_EQ(root->nextChildMatchingPredicate([](const PL::Ref&) { return true; }, stranger, true, false), nullptr);
    }
}

TEST(PropertyListSearch, FindNextLeavesTheStartSubtree) {
    auto root = PL::propertyListWithUnwrappedValue(std::make_shared<Array>(Array{str("a"), std::make_shared<Array>(Array{str("c")})}));
    const auto a = root->objectInChildrenAtIndex(0), b = root->objectInChildrenAtIndex(1);
    const PL::Predicate any = [](const PL::Ref&) { return true; };
    EXPECT_EQ(root->nextChildMatchingPredicate(any, nullptr, false, false), a);
    EXPECT_EQ(root->nextChildMatchingPredicate(any, a, false, false), b);
    EXPECT_EQ(root->nextChildMatchingPredicate(any, b, false, false), nullptr);
    EXPECT_EQ(root->nextChildMatchingPredicate(any, b->objectInChildrenAtIndex(0), false, true), b);
}

TEST(PropertyListSearch, MatchingOneNode) {
    ScopedLocale locale("en_US");
    auto dict = Dictionary::create();
    dict->setObject(str("Caf\xC3\xA9 Menu"), "Title");
    dict->setObject(Number::withInt64(2024), "year");
    dict->setObject(Data::withString("hello"), "blob");
    dict->setObject(str("\xEF\xBC\xA1\xEF\xBC\xA2\xEF\xBC\xA3"), "wide");  // fullwidth ABC
    dict->setObject(std::make_shared<Array>(Array{str("year")}), "list");
    auto root = PL::propertyListWithUnwrappedValue(dict);
    auto node = [&root](const char* key) { return root->childWithKey(str(key)); };
    const std::optional<std::set<QXPropertyListType>> all;
    struct Case {
        const char* key;
        const char* text;
        QXPropertyListSearchScope scope;
        QXStringCompareOptions options;
        bool expected;
    };
    const std::vector<Case> cases = {
        {"Title", "menu", 2, 0, false},
        {"Title", "menu", 2, QXCaseInsensitiveSearch, true},
        {"Title", "Cafe", 2, 0, false},
        {"Title", "Cafe", 2, QXDiacriticInsensitiveSearch, true},
        {"Title", "cafe", 2, QXDiacriticInsensitiveSearch, false},  // case still counts
        {"Title", "Caf\x65\xCC\x81", 2, 0, true},                      // canonically equal
        {"Title", "Caf\x65\xCC\x81", 2, QXLiteralSearch, false},
        {"Title", "Menu", 2, QXAnchoredSearch, false},
        {"Title", "Menu", 2, QXAnchoredSearch | QXBackwardsSearch, true},
        {"Title", "caf\xC3\x89", 2, QXLiteralSearch | QXCaseInsensitiveSearch | QXAnchoredSearch, true},
        {"Title", "MENU", 2, QXLiteralSearch | QXCaseInsensitiveSearch | QXAnchoredSearch, false},
        {"Title", "itl", 1, 0, true},
        {"Title", "itl", 2, 0, false},
        {"wide", "ABC", 2, 0, false},
        {"wide", "ABC", 2, QXWidthInsensitiveSearch, true},
        {"year", "02", 2, 0, true},
        {"blob", "ell", 2, 0, true},
        {"blob", "ell", 2, QXAnchoredSearch, false},
        {"blob", "he", 2, QXAnchoredSearch, true},
        {"blob", "lo", 2, QXAnchoredSearch | QXBackwardsSearch, true},
        {"list", "objects", 2, 0, false},  // containers never match on their value
    };
    for (const auto& c : cases)
        EXPECT_EQ(node(c.key)->containsSearchString(str(c.text), c.scope, c.options, all), c.expected)
            << c.key << " / " << c.text << " / " << c.options;
    {
        ScopedLocale posix("en_US_POSIX");  // what an environment without a language gives
        EXPECT_TRUE(node("Title")->containsSearchString(str("menu"), 2, QXCaseInsensitiveSearch, all));
    }
    const auto inArray = node("list")->objectInChildrenAtIndex(0);
    EXPECT_FALSE(inArray->containsSearchString(str("0"), QXPropertyListSearchKeys, 0, all));
    EXPECT_FALSE(node("year")->containsSearchString(str("2024"), 2, 0, std::set<QXPropertyListType>{1}));
    EXPECT_EQ(root->nextChildContainingString(str("YEAR"), nullptr, false, 3, QXCaseInsensitiveSearch | QXBackwardsSearch, all),
              inArray);
}

// Find-all against each node asked on its own, in document order or its
// reverse, with a match's descendants included.
TEST(PropertyListSearch, FindAllMatchesEachNodeInOrder) {
    ScopedLocale locale("en_US");
    const std::optional<std::set<QXPropertyListType>> all, strings = std::set<QXPropertyListType>{QXPropertyListStringType};
    for (unsigned seed = 1; seed <= 30; ++seed) {
        auto tree = PL::propertyListWithUnwrappedValue(plisttree::randomTree(seed, 5));
        PL::Ref root = tree;
        for (const auto& n : plisttree::preOrder(tree))
            if (seed % 3 == 0 && n != tree && n->isContainer()) root = n;
        auto order = plisttree::preOrder(root);
        order.erase(order.begin());
        for (const char* text : {"a", "Al", "et", "1", "Jan", "AM", "caf\xC3\xA9", "x1 "})
            for (std::uint64_t options : {0, 1, 4, 2, 1 | 8 | 4})
                for (QXPropertyListSearchScope scope : {1, 2, 3}) {
                    const auto& types = seed % 2 ? all : strings;
                    std::vector<PL::Ref> expected;
                    for (const auto& n : order)
                        if (n->containsSearchString(str(text), scope, options, types)) expected.push_back(n);
                    if (options & QXBackwardsSearch) std::reverse(expected.begin(), expected.end());
                    ASSERT_EQ(root->allChildrenContainingString(str(text), scope, options, types), expected)
                        << "seed " << seed << " text " << text << " options " << options << " scope " << scope;
                }
    }
}

// A tree large enough to be cut into ranges and walked on several threads:
// the pieces must join in document order, matches found while cutting it
// (nodes near the top) included.
TEST(PropertyListSearch, FindAllOfALargeTreeKeepsDocumentOrder) {
    ScopedLocale locale("en_US");
    std::mt19937 rng(7);
    auto top = Array::create();
    for (int i = 0; i < 3000; ++i) top->addObject(plisttree::randomValue(rng, 4));
    auto dict = Dictionary::create();
    dict->setObject(top, "alpha list");
    dict->setObject(str("zeta"), "x1");
    auto root = PL::propertyListWithUnwrappedValue(std::make_shared<Array>(Array{dict, str("alpha"), top}));
    auto order = plisttree::preOrder(root);
    order.erase(order.begin());
    for (const char* text : {"a", "x1", "et"})
        for (std::uint64_t options : {0, 4, 1 | 4}) {
            std::vector<PL::Ref> expected;
            for (const auto& n : order)
                if (n->containsSearchString(str(text), 3, options, std::nullopt)) expected.push_back(n);
            if (options & QXBackwardsSearch) std::reverse(expected.begin(), expected.end());
            ASSERT_EQ(root->allChildrenContainingString(str(text), 3, options, std::nullopt), expected)
                << "text " << text << " options " << options;
        }
}

// 2024-01-03 12:00 UTC is a Wednesday in every time zone from -11 to +11 hours.
TEST(PropertyListSearch, DatesMatchAnyDisplayStyle) {
    const char* savedTZ = std::getenv("TZ");
    const std::string saved = savedTZ ? savedTZ : "";
    setenv("TZ", "UTC", 1);
    auto node = PL::propertyListWithValue(Date::withTimeIntervalSince1970(1704283200));
    auto root = PL::propertyListWithUnwrappedValue(std::make_shared<Array>(Array{Date::withTimeIntervalSince1970(1704283200)}));
    const std::optional<std::set<QXPropertyListType>> all;
    for (const auto& [locale, weekday, other] : std::vector<std::tuple<const char*, const char*, const char*>>{
             {"en_US", "Wednesday", "Mittwoch"}, {"de_DE", "Mittwoch", "Wednesday"}}) {
        ScopedLocale scoped(locale);
        EXPECT_TRUE(node->containsSearchString(str(weekday), QXPropertyListSearchValues, 0, all)) << locale;
        EXPECT_FALSE(node->containsSearchString(str(other), QXPropertyListSearchValues, 0, all)) << locale;
        // The other styles' alphabets rule the weekday out; the full one must still be shown.
        EXPECT_EQ(root->allChildrenContainingString(str(weekday), QXPropertyListSearchValues, 0, all).size(), 1u) << locale;
        EXPECT_TRUE(root->allChildrenContainingString(str(other), QXPropertyListSearchValues, 0, all).empty()) << locale;
        // Only the full style shows the weekday.
        EXPECT_EQ(node->stringValue()->utf8().find(weekday), std::string::npos) << locale;
    }
    if (savedTZ)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
}
