// PropertyListTests.cpp - the editable tree: undo and redo of random edits
// against recorded states, the unique-name rule, type conversions, the child
// list's edge cases, announcements, mutation checks and class clusters.
#include <gtest/gtest.h>

#include <QXFoundation/QXClassCluster.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXPropertyList.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include "PropertyListTrees.h"
#include "TestSupport.h"

#include <qx/Date.h>

#include <cmath>

using namespace qx;
using PL = QXPropertyList;
using PLS = QXPropertyListSerialization;

namespace {

const std::string kNew = "New item";

// Every node of the tree in pre-order, the root first.
void collect(const PL::Ref& node, std::vector<PL::Ref>& out) {
    out.push_back(node);
    for (std::size_t i = 0; i < node->countOfChildren(); ++i) collect(node->objectInChildrenAtIndex(i), out);
}

// The tree's shape as the unwrapped value cannot show it: type codes and stored keys in pre-order.
std::string shape(const PL::Ref& node) {
    std::string out = std::to_string(node->typeCode()) + ":" + describe(node->privateKey().get()) + "(";
    for (std::size_t i = 0; i < node->countOfChildren(); ++i) out += shape(node->objectInChildrenAtIndex(i));
    return out + ")";
}

std::vector<std::string> keysOf(const PL::Ref& node) {
    std::vector<std::string> keys;
    for (const auto& child : node->children().value_or(PL::Nodes{})) keys.push_back(child->key()->utf8());
    return keys;
}

PL::Ref leaf(const char* key, Ref<Object> value) {
    auto node = PL::propertyListWithValue(std::move(value));
    node->setKey(str(key));
    return node;
}

} // namespace

// One random public edit per undo group; every group undone must give back
// the state recorded before it, and redone the state after it.
TEST(PropertyListUndo, RandomEditsUndoAndRedoToRecordedStates) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&rng](std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(rng() % n); };
        auto root = PL::propertyListWithUnwrappedValue(plisttree::randomTree(seed));
        auto undo = UndoManager::create();
        root->setUndoManager(undo);
        using State = std::pair<Ref<Object>, std::string>;
        auto state = [&root] { return State(root->unwrappedPropertyList(), shape(root)); };
        auto same = [](const State& a, const State& b) { return qx::isEqual(a.first, b.first) && a.second == b.second; };
        std::vector<State> states{state()};
        for (int step = 0; step < 25; ++step) {
            std::vector<PL::Ref> nodes;
            collect(root, nodes);
            PL::Ref node = nodes[pick(nodes.size())];
            PL::Ref parent = node->parent();
            undo->beginUndoGrouping();
            switch (pick(7)) {
            case 0: node->setValue(plisttree::randomValue(rng, 0)); break;
            case 1: node->setTypeCode(static_cast<QXPropertyListType>(1 + pick(7))); break;
            case 2:  // as an editor does: only where the key is shown as editable
                if (node->isKeyEditable()) node->setKey(str(plisttree::kWords[pick(4)]));
                break;
            case 3:
                node->insertChild(PL::propertyListWithUnwrappedValue(plisttree::randomValue(rng, 2)),
                                  pick(node->countOfChildren() + 2));
                break;
            case 4:
                if (parent) parent->removeChild(node);
                break;
            case 5:
                if (parent) parent->moveChild(node, pick(parent->countOfChildren() + 1));
                break;
            default:
                node->addChildReplacingIfNecessary(leaf(plisttree::kWords[pick(4)], str("added")), pick(2) == 1);
                break;
            }
            undo->setActionName(std::to_string(step));
            undo->endUndoGrouping();
            states.push_back(state());
        }
        // Each group is named after its edit, so an edit that changed the tree
        // without registering anything shows as a state that undo cannot reach.
        while (undo->canUndo()) {
            const std::size_t n = std::stoul(undo->undoActionName());
            ASSERT_TRUE(same(state(), states[n + 1])) << "seed " << seed << " step " << n;
            undo->undo();
            ASSERT_TRUE(same(state(), states[n])) << "seed " << seed << " undo " << n << "\n" << state().second << "\n" << states[n].second;
        }
        ASSERT_TRUE(same(state(), states.front())) << "seed " << seed;
        while (undo->canRedo()) {
            const std::size_t n = std::stoul(undo->redoActionName());
            undo->redo();
            ASSERT_TRUE(same(state(), states[n + 1])) << "seed " << seed << " redo " << n;
        }
        ASSERT_TRUE(same(state(), states.back())) << "seed " << seed;
    }
}

TEST(PropertyListNames, UniqueNameRule) {
    const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> cases = {
        {"a", {}, "a"},
        {kNew, {kNew}, kNew + " - 1"},
        {kNew, {kNew, kNew + " - 1"}, kNew + " - 2"},
        {kNew + " - 1", {kNew, kNew + " - 1"}, kNew + " - 1 - 1"},
        {"a - b", {"a - b"}, "a"},             // a digitless suffix is dropped
        {"a - b", {"a - b", "a"}, "a - 1"},
        {"a - b2", {"a - b2"}, "a - b2 - 1"},  // any digit keeps the whole name
        {"x - \xD9\xA3", {"x - \xD9\xA3"}, "x - \xD9\xA3 - 1"},  // also a non-ASCII digit
        {"a - ", {"a - "}, "a -  - 1"},        // an empty suffix too
        {"a-b", {"a-b"}, "a-b - 1"},
    };
    for (const auto& [name, taken, expected] : cases)
        EXPECT_EQ(PLS::uniqueNameBasedOnName(String(name), taken)->utf8(), expected) << name;

    auto dict = PL::dictionaryPropertyListWithContents();
    for (int i = 0; i < 3; ++i) PL::propertyListWithParent(dict);
    EXPECT_EQ(keysOf(dict), (std::vector<std::string>{kNew, kNew + " - 1", kNew + " - 2"}));
}

TEST(PropertyListValues, TypeConversions) {
    const auto yes = Number::withBool(true);
    struct Case { Ref<Object> from; QXPropertyListType to; Ref<Object> expected; };
    const std::vector<Case> cases = {
        {str("42"), QXPropertyListNumberType, Number::withInt64(42)},
        {str("forty"), QXPropertyListNumberType, Number::withInt64(0)},
        {str("YES"), QXPropertyListBooleanType, yes},
        {str("0"), QXPropertyListBooleanType, Number::withBool(false)},
        {Number::withInt64(7), QXPropertyListStringType, str("7")},
        {yes, QXPropertyListStringType, str("Yes")},
        {yes, QXPropertyListNumberType, Number::withInt64(1)},
        {str("hi"), QXPropertyListDataType, Data::withString("hi")},
        {Data::withString("hi"), QXPropertyListStringType, str("hi")},
        {str("hi"), QXPropertyListArrayType, Array::create()},
        {str("hi"), QXPropertyListDictionaryType, Dictionary::create()},
        {Array::create(), QXPropertyListStringType, str(kNew)},
    };
    for (const auto& c : cases) {
        auto node = PL::propertyListWithUnwrappedValue(c.from);
        node->setTypeCode(c.to);
        EXPECT_EQ(node->typeCode(), c.to) << c.from->description();
        EXPECT_TRUE(qx::isEqual(node->unwrappedPropertyList(), c.expected))
            << c.from->description() << " -> " << describe(node->unwrappedPropertyList().get());
    }
    // Text that is no date becomes the current date and time.
    auto node = PL::propertyListWithValue(str("not a date"));
    node->setTypeCode(QXPropertyListDateType);
    auto date = dyn_cast<Date>(node->value());
    ASSERT_TRUE(date);
    EXPECT_LT(std::fabs(date->timeIntervalSinceReferenceDate() - Date::now()->timeIntervalSinceReferenceDate()), 60);
    // A container changing to the other container kind keeps its children.
    auto array = PL::propertyListWithUnwrappedValue(std::make_shared<Array>(Array{str("a"), str("b")}));
    array->setTypeCode(QXPropertyListDictionaryType);
    EXPECT_EQ(keysOf(array), (std::vector<std::string>{kNew, kNew + " - 1"}));
    array->setType(str("Array"));
    EXPECT_TRUE(qx::isEqual(array->unwrappedPropertyList(), std::make_shared<Array>(Array{str("a"), str("b")})));
}

TEST(PropertyListChildren, KeysPlacesAndReplacement) {
    auto dict = PL::dictionaryPropertyListWithContents({leaf("a", str("old"))});
    dict->addChild(leaf("a", str("new")));
    EXPECT_EQ(dict->countOfChildren(), 1u);
    EXPECT_EQ(describe(dict->childWithKey(str("a"))->value().get()), "new");
    dict->addChildReplacingIfNecessary(leaf("a", str("kept")), false);
    EXPECT_EQ(keysOf(dict), (std::vector<std::string>{"a", "a - 1"}));

    auto array = PL::arrayPropertyListWithContents();
    auto x = leaf("x", str("x")), y = leaf("y", str("y")), z = leaf("z", str("z"));
    array->insertChildren({x, y, z}, 0);
    EXPECT_EQ(array->objectInChildrenAtIndex(0), z);
    EXPECT_EQ(array->objectInChildrenAtIndex(2), x);
    EXPECT_EQ(y->key()->utf8(), "1");
    EXPECT_EQ(y->indexPath(), std::vector<std::size_t>{1});
    auto empty = PL::dictionaryPropertyListWithContents();
    empty->addChild(y);  // leaves the array: a fresh key, as array children hold none
    EXPECT_EQ(keysOf(empty), std::vector<std::string>{kNew});
    EXPECT_EQ(array->countOfChildren(), 2u);
    EXPECT_TRUE(empty->hasDescendant(y));
    EXPECT_FALSE(array->hasDescendant(y));

    array->setValue(str("ignored"));
    EXPECT_EQ(array->typeCode(), QXPropertyListArrayType);
    auto uid = PL::propertyListWithValue(QXUIDPropertyList::initWithInt64Value(3));
    EXPECT_EQ(uid->typeCode(), QXPropertyListUnknownType);
    EXPECT_EQ(uid->type()->utf8(), "UIDPropertyList");

    auto copy = std::static_pointer_cast<PL>(empty->copy());
    EXPECT_TRUE(qx::isEqual(copy->unwrappedPropertyList(), empty->unwrappedPropertyList()));
    EXPECT_NE(copy->objectInChildrenAtIndex(0), y);
}

TEST(PropertyListChildren, ValidateKey) {
    auto dict = PL::dictionaryPropertyListWithContents({leaf("a", str("1")), leaf("b", str("2"))});
    auto b = dict->childWithKey(str("b"));
    Ref<Object> key = str("c");
    EXPECT_TRUE(b->validateKey(&key));
    Ref<Error> error;
    key = str("a");
    EXPECT_FALSE(b->validateKey(&key, &error));
    EXPECT_TRUE(qxtest::isError(error, QXErrorDomain, 1));
    EXPECT_EQ(error->localizedDescription(), "The key \xE2\x80\x9C" "a\xE2\x80\x9D already exists.");
    key = Number::withInt64(1);
    EXPECT_FALSE(b->validateKey(&key, &error));
    EXPECT_EQ(error->localizedDescription(), "The key is not valid.");
}

TEST(PropertyListObserving, DependentKeysAndPerIndexChildren) {
    auto node = PL::arrayPropertyListWithContents();
    std::vector<std::string> heard;
    std::vector<std::size_t> inserted;
    for (const char* key : {"count", "value", "isLeaf", "appropriateTypeCode", "stringValue"})
        node->addObserver(key, [&heard](Observable&, const std::string& k, const Observable::Change&) { heard.push_back(k); });
    node->addObserver("children", [&inserted](Observable&, const std::string&, const Observable::Change& change) {
        if (change.kind == Observable::ChangeKind::Insertion) inserted.push_back(change.indexes->firstIndex());
    }, true);
    const auto before = node->mutations();
    node->insertChild(PL::propertyListWithValue(str("a")), 5);
    // Announced first at the index asked for, then where the child went.
    EXPECT_EQ(inserted, (std::vector<std::size_t>{5, 0}));
    EXPECT_NE(std::find(heard.begin(), heard.end(), "count"), heard.end());
    EXPECT_GT(node->mutations(), before);

    heard.clear();
    auto child = node->objectInChildrenAtIndex(0);
    int keyEditable = 0;
    child->addObserver("isKeyEditable", [&keyEditable](Observable&, const std::string&, const Observable::Change&) { ++keyEditable; });
    node->setTypeCode(QXPropertyListDictionaryType);
    EXPECT_EQ(keyEditable, 1);
    EXPECT_NE(std::find(heard.begin(), heard.end(), "isLeaf"), heard.end());
    heard.clear();
    child->addObserver("appropriateTypeCode", [&heard](Observable&, const std::string& k, const Observable::Change&) { heard.push_back(k); });
    child->setValue(Number::withInt64(1));
    EXPECT_EQ(heard, std::vector<std::string>{"appropriateTypeCode"});
}

// A tree loaded from values is filled without announcing (nobody can observe
// a node before it exists); observers added afterwards hear every change,
// per index for the child list, and stop hearing once removed.
TEST(PropertyListObserving, LoadedTreeAnnouncesToLaterObservers) {
    auto dict = Dictionary::create();
    dict->setObject(std::make_shared<Array>(Array{str("a"), str("b"), str("c")}), "list");
    dict->setObject(str("x"), "name");
    auto root = PL::propertyListWithUnwrappedValue(dict);
    const auto list = root->childWithKey(str("list")), name = root->childWithKey(str("name"));
    const auto last = list->objectInChildrenAtIndex(2);
    EXPECT_EQ(last->parent(), list);
    EXPECT_EQ(last->key()->utf8(), "2");
    EXPECT_EQ(last->indexPath(), (std::vector<std::size_t>{list->indexPath()[0], 2}));

    std::vector<std::string> heard;
    const auto token = name->addObserver("stringValue", [&heard](Observable&, const std::string& k, const Observable::Change&) {
        heard.push_back(k);
    });
    std::vector<std::pair<bool, std::size_t>> removals;  // (prior, index)
    list->addObserver("children", [&removals](Observable&, const std::string&, const Observable::Change& change) {
        if (change.kind == Observable::ChangeKind::Removal) removals.emplace_back(change.isPrior, change.indexes->firstIndex());
    }, true);
    name->setValue(str("y"));
    EXPECT_EQ(heard, std::vector<std::string>{"stringValue"});
    list->removeObjectFromChildrenAtIndex(1);
    EXPECT_EQ(removals, (std::vector<std::pair<bool, std::size_t>>{{true, 1}, {false, 1}}));
    EXPECT_EQ(last->key()->utf8(), "1");

    EXPECT_TRUE(name->removeObserver(token));
    EXPECT_FALSE(name->hasObservers());
    name->setValue(str("z"));
    EXPECT_EQ(heard.size(), 1u);
}

TEST(PropertyListObservingDeathTest, ChangeDuringIterationStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto node = PL::propertyListWithUnwrappedValue(std::make_shared<Array>(Array{str("a"), str("b")}));
    EXPECT_DEATH(node->forEachChild([&node](const PL::Ref& child, bool&) { node->removeChild(child); }),
                 "mutated while being enumerated");
}

namespace {

struct Shape : Object {
    static Ref<Shape> initWithSides(int sides) {
        if (auto made = QXClassClusterCreate<Shape>("initWithSides", sides)) return made;
        return std::make_shared<Shape>();
    }
    std::string className() const override { return "Shape"; }
};
struct Square final : Shape {
    std::string className() const override { return "Square"; }
};
struct Round : Shape {
    static Ref<Round> initWithSides(int sides) {
        if (auto made = QXClassClusterCreate<Round>("initWithSides", sides)) return made;
        return std::make_shared<Round>();
    }
    std::string className() const override { return "Round"; }
};

} // namespace

TEST(ClassCluster, ExactClassIsRedirectedSubclassesAreNot) {
    EXPECT_EQ(Shape::initWithSides(4)->className(), "Shape");
    int calls = 0;
    QXCreateClassCluster<Shape, int>("initWithSides", std::function<Ref<Shape>(int)>([&calls](int sides) -> Ref<Shape> {
        ++calls;
        return sides == 4 ? std::make_shared<Square>() : nullptr;
    }));
    EXPECT_EQ(Shape::initWithSides(4)->className(), "Square");
    EXPECT_EQ(Round::initWithSides(4)->className(), "Round");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(QXClassClusterFactoryForClass(typeid(Shape))->name().rfind("QXClassClusterFactory_", 0), 0u);
}
