// ObjectModelTests.cpp - the platform's value objects and formatting; change announcements (dependent
// keys in order, observers added and removed by token, index sets); undo and redo over a small
// editable model whose edits register their own inverses, the way document objects use the undo manager.

#include "TestSupport.h"

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Format.h>
#include <qx/IndexSet.h>
#include <qx/Number.h>
#include <qx/NumberFormatter.h>
#include <qx/Observable.h>
#include <qx/UndoManager.h>
#include <qx/Set.h>
#include <qx/URL.h>
#include <qx/UUID.h>

#include <limits>
#include <stdexcept>

using namespace qx;

TEST(ObjectModelFormat, ObjectsAndPrintfConversionsMix) {
    auto s = str("abc");
    EXPECT_EQ(format("%@ (%d) %s %5.2f %% %lu", s, -43, "x", 3.14159, 7ul), "abc (-43) x  3.14 % 7");
    EXPECT_EQ(format("[%@]", Ref<Object>()), "[(null)]");
    EXPECT_EQ(format("%*d|%-3s|%.*s", 4, 7, "a", 2, "hello"), "   7|a  |he");
    EXPECT_EQ(format("%llu %lld %x %zu", 18446744073709551615ull, -9223372036854775807ll - 1, 255u, std::size_t{9}),
              "18446744073709551615 -9223372036854775808 ff 9");
    EXPECT_EQ(format("trailing %"), "trailing %");
    // Long output is not truncated.
    const std::string big(1000, 'x');
    EXPECT_EQ(format("%s|%@", big, str(big)), big + "|" + big);
}

TEST(ObjectModelContainers, DictionaryKeepsInsertionOrderIndexAndCopiedKeys) {
    auto d = Dictionary::create();
    for (int i = 0; i < 50; ++i) d->setObject(Number::withInt32(i), "k" + std::to_string(i));
    d->setObject(str("replaced"), "k3");
    d->removeObjectForKey("k0");
    d->removeObjectForKey("k10");
    ASSERT_EQ(d->count(), 48u);
    // Lookups after removals still find every key, and order is preserved.
    int expected = 1;
    for (const auto& [k, v] : *d) {
        if (expected == 10) ++expected;
        EXPECT_EQ(dyn_cast<String>(k)->utf8(), "k" + std::to_string(expected));
        ASSERT_TRUE(d->objectForKey(*k));
        ++expected;
    }
    EXPECT_EQ(d->get<String>("k3")->utf8(), "replaced");
    EXPECT_FALSE(d->objectForKey("k0"));
    d->setObject(nullptr, "k1");
    EXPECT_FALSE(d->objectForKey("k1"));
    // Keys need not be strings; a caller's mutable key is copied, so changing it
    // afterwards does not corrupt the table.
    d->setObject(str("one"), Number::withInt64(1));
    EXPECT_EQ(d->get<String>("1"), nullptr);
    EXPECT_EQ(dyn_cast<String>(d->objectForKey(*Number::withDouble(1.0)))->utf8(), "one");
    auto key = Data::withString("k");
    d->setObject(str("v"), key);
    key->appendByte('!');
    EXPECT_TRUE(d->objectForKey(*Data::withString("k")));
}

TEST(ObjectModelURL, PathsAreEscapedAndUnescaped) {
    const std::string path = "/tmp/a dir/na\xC3\xAFve%.txt";
    auto u = URL::fileURLWithPath(path);
    ASSERT_TRUE(u);
    EXPECT_TRUE(u->isFileURL());
    EXPECT_EQ(u->path(), path);
    EXPECT_EQ(u->lastPathComponent(), "na\xC3\xAFve%.txt");
    EXPECT_EQ(u->pathExtension(), "txt");
    EXPECT_EQ(u->absoluteString().find(' '), std::string::npos);
    EXPECT_EQ(u->URLByAppendingPathComponent("x")->path(), path + "/x");
    EXPECT_EQ(URL::fileURLWithPath(""), nullptr);
    EXPECT_EQ(URL::URLWithString("http://127.0.0.1:8080/files/a%20b.gz?x=1")->path(), "/files/a b.gz");
    EXPECT_EQ(URL::URLWithString("not a url"), nullptr);
}

namespace {

// Declares dependencies the way an outline node does: count from
// countOfChildren, that from children and privateValue, and so on.
class Node final : public Observable {
public:
    Node() {
        setKeysAffectingKey("count", {"countOfChildren"});
        setKeysAffectingKey("countOfChildren", {"children", "privateValue"});
        setKeysAffectingKey("children", {"privateValue"});
        setKeysAffectingKey("value", {"privateValue", "count"});
    }
};

struct Log {
    std::vector<std::string> lines;
    Observable::Observer observer() {
        return [this](Observable&, const std::string& key, const Observable::Change& change) {
            std::string line = (change.isPrior ? "will " : "did ") + key;
            if (change.indexes) line += " " + std::to_string(static_cast<int>(change.kind)) + change.indexes->description();
            lines.push_back(line);
        };
    }
};

class List final : public Object {
public:
    explicit List(Ref<UndoManager> undo) : undo_(std::move(undo)) {}
    std::vector<std::string> items;
    std::vector<bool> seenUndoing, seenRedoing;

    void insert(std::size_t index, const std::string& item) {
        record();
        undo_->registerUndoWithTarget(self(), [index](List& l) { l.remove(index); });
        items.insert(items.begin() + static_cast<std::ptrdiff_t>(index), item);
    }
    void remove(std::size_t index) {
        record();
        std::string old = items[index];
        undo_->registerUndoWithTarget<List>(self(), [index, old](List& l) { l.insert(index, old); });
        items.erase(items.begin() + static_cast<std::ptrdiff_t>(index));
    }

private:
    Ref<List> self() { return std::static_pointer_cast<List>(shared_from_this()); }
    void record() {
        seenUndoing.push_back(undo_->isUndoing());
        seenRedoing.push_back(undo_->isRedoing());
    }
    Ref<UndoManager> undo_;
};

using Items = std::vector<std::string>;

} // namespace

TEST(Observable, DependentKeysHearOfChangesNearestFirstAndOnlyOnce) {
    auto node = std::make_shared<Node>();
    Log log;
    for (const char* key : {"value", "count", "children", "countOfChildren", "privateValue", "unrelated"})
        node->addObserver(key, log.observer(), true);

    node->willChangeValueForKey("privateValue");
    node->didChangeValueForKey("privateValue");
    const std::vector<std::string> order{"privateValue", "countOfChildren", "children", "value", "count"};
    std::vector<std::string> expected;
    for (const char* phase : {"will ", "did "})
        for (const auto& k : order) expected.push_back(phase + k);
    EXPECT_EQ(log.lines, expected);
    EXPECT_EQ(node->keysAnnouncedForChangeOfKey("privateValue"), order);

    // "value" is reached both directly and through "count": told once.
    log.lines.clear();
    node->didChangeValueForKey("countOfChildren");
    EXPECT_EQ(log.lines, (std::vector<std::string>{"did countOfChildren", "did count", "did value"}));

    // A cycle is followed once round.
    node->setKeysAffectingKey("a", {"b"});
    node->setKeysAffectingKey("b", {"a"});
    node->addObserver("a", log.observer());
    node->addObserver("b", log.observer());
    log.lines.clear();
    node->didChangeValueForKey("a");
    EXPECT_EQ(log.lines, (std::vector<std::string>{"did a", "did b"}));
}

TEST(Observable, ObserversComeAndGoByTokenAlsoFromInsideAnAnnouncement) {
    auto node = std::make_shared<Node>();
    int first = 0, second = 0, late = 0;
    Observable::Token secondToken = 0, lateToken = 0;
    const auto firstToken = node->addObserver("k", [&](Observable& object, const std::string&, const Observable::Change&) {
        ++first;
        object.removeObserver(secondToken);  // the next observer is gone already
        if (!lateToken) lateToken = object.addObserver("k", [&](Observable&, const std::string&, const Observable::Change&) { ++late; });
    });
    secondToken = node->addObserver("k", [&](Observable&, const std::string&, const Observable::Change&) { ++second; });
    EXPECT_NE(firstToken, 0u);
    EXPECT_EQ(node->addObserver("k", nullptr), 0u);

    node->didChangeValueForKey("k");
    EXPECT_EQ(std::vector<int>({first, second, late}), std::vector<int>({1, 0, 0}));  // late: from the next one on
    node->didChangeValueForKey("k");
    EXPECT_EQ(late, 1);
    EXPECT_FALSE(node->removeObserver(secondToken));
    EXPECT_TRUE(node->removeObserver(firstToken) && node->removeObserver(lateToken));
    node->didChangeValueForKey("k");
    EXPECT_EQ(first + late, 3);
}

TEST(IndexSet, RangesMergeSplitAndNeverWrap) {
    IndexSet set;
    set.addRange(10, 5);  // 10-14
    set.addIndex(16);
    EXPECT_EQ(set.description(), "(10-14 16)");
    set.addIndex(15);  // bridges the gap
    EXPECT_EQ(set.description(), "(10-16)");
    set.addRange(0, 2);
    set.addRange(1, 0);
    EXPECT_EQ(set.count(), 9u);
    set.removeRange(12, 2);
    EXPECT_EQ(set.indexes(), (std::vector<std::size_t>{0, 1, 10, 11, 14, 15, 16}));
    EXPECT_TRUE(set.contains(11) && !set.contains(12) && !set.contains(2));
    EXPECT_EQ(set.lastIndex(), 16u);

    const auto max = std::numeric_limits<std::size_t>::max();
    IndexSet huge;
    huge.addRange(max - 3, 100);
    EXPECT_EQ(huge.count(), 3u);
    EXPECT_TRUE(huge.contains(max - 1));
    huge.removeRange(0, max);
    EXPECT_TRUE(huge.empty());
}

TEST(ObjectModelIdentity, NumbersUUIDsAndSetsCompareByContent) {
    EXPECT_TRUE(Number::withInt8(3)->isEqual(*Number::withDouble(3.0)));
    EXPECT_EQ(Number::withInt8(3)->hash(), Number::withDouble(3.0)->hash());
    EXPECT_TRUE(Number::withBool(true)->isEqual(*Number::withInt32(1)));
    // All ones as unsigned is not -1.
    EXPECT_FALSE(Number::withUInt64(std::numeric_limits<std::uint64_t>::max())->isEqual(*Number::withInt64(-1)));
    EXPECT_LT(Number::withInt64(-1)->compare(*Number::withUInt64(1ull << 63)), 0);
    EXPECT_FALSE(Number::withDouble(0.5)->isEqual(*Number::withInt64(0)));
    auto u = UUID::create();
    auto same = UUID::withString(u->UUIDString());
    EXPECT_TRUE(same && same->isEqual(*u) && same->hash() == u->hash() && !UUID::create()->isEqual(*u));
    EXPECT_EQ(UUID::withString("e621e1f8-c36c-495a-93fc-0c247a3e6e5F")->UUIDString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    for (const char* bad : {"", "e621e1f8-c36c-495a-93fc-0c247a3e6e5", "e621e1f8xc36c-495a-93fc-0c247a3e6e5f", "g621e1f8-c36c-495a-93fc-0c247a3e6e5f"})
        EXPECT_FALSE(UUID::withString(bad)) << bad;
    auto set = Set::create(), other = Set::create();
    for (const char* s : {"a", "b"}) set->addObject(str(s)), other->addObject(str(s));
    EXPECT_TRUE(set->isEqual(*other) && set->copy()->isEqual(*set) && !set->isEqual(*Array::create()));
}

// Typed numbers read with the locale's separators; a no-break-space grouping is also typed as a plain space.
TEST(NumberFormatterParsing, LocaleSeparatorsKindsAndRefusals) {
    const std::tuple<const char*, const char*, const char*> rows[] = {  // locale, text, value ("" refused)
        {"en_US", "1,234", "1234"}, {"en_US", "+1.5", "1.5"}, {"en_US", "2E3", "2000"}, {"de_DE", "1.234,5", "1234.5"},
        {"fr_FR", "1 234", "1234"}, {"en_US", "12x", ""}, {"en_US", "", ""}, {"en_US", "9223372036854775808", "9223372036854775808"}};
    for (const auto& [locale, text, value] : rows) {
        Ref<Object> out;
        Ref<String> why;  // what a refusal says
        const bool ok = NumberFormatter::create(locale)->getObjectValue(&out, str(text), &why);
        EXPECT_EQ(ok ? out->description() : why->utf8(), *value ? value : "Invalid number") << locale << " " << text;
    }
}

TEST(UndoManager, LooseRegistrationsAreGroupsExplicitGroupsNestAndRedoReplaysThem) {
    auto undo = UndoManager::create();
    auto list = std::make_shared<List>(undo);
    list->insert(0, "a");
    list->insert(1, "b");
    undo->beginUndoGrouping();
    list->insert(2, "c");
    undo->beginUndoGrouping();
    list->remove(0);
    list->insert(0, "z");
    EXPECT_TRUE(undo->endUndoGrouping());
    undo->setActionName("Edit");
    EXPECT_TRUE(undo->endUndoGrouping());
    EXPECT_FALSE(undo->endUndoGrouping());
    undo->beginUndoGrouping();  // an empty group leaves nothing to undo
    undo->endUndoGrouping();
    EXPECT_EQ(list->items, (Items{"z", "b", "c"}));
    EXPECT_EQ(undo->undoActionName(), "Edit");

    ASSERT_TRUE(undo->undo());  // the whole outer group, newest first
    EXPECT_EQ(list->items, (Items{"a", "b"}));
    EXPECT_EQ(undo->redoActionName(), "Edit");
    ASSERT_TRUE(undo->undo() && undo->undo());
    EXPECT_TRUE(list->items.empty());
    EXPECT_FALSE(undo->canUndo() || undo->undo());

    // Inverses registered while undoing land on the redo stack and the other way round.
    list->seenUndoing.clear();
    list->seenRedoing.clear();
    ASSERT_TRUE(undo->redo() && undo->redo() && undo->redo());
    EXPECT_EQ(list->items, (Items{"z", "b", "c"}));
    EXPECT_EQ(list->seenRedoing, std::vector<bool>(list->seenRedoing.size(), true));
    EXPECT_FALSE(undo->canRedo() || undo->isRedoing());
    ASSERT_TRUE(undo->undo());  // a redone group undoes as one again
    EXPECT_EQ(list->items, (Items{"a", "b"}));
    EXPECT_EQ(list->seenUndoing.back(), true);
    list->insert(0, "new");  // a fresh edit makes the undone future unreachable
    EXPECT_FALSE(undo->canRedo());
}

TEST(UndoManager, RemovalByTargetAndVanishedTargets) {
    auto undo = UndoManager::create();
    auto first = std::make_shared<List>(undo);
    auto second = std::make_shared<List>(undo);
    first->insert(0, "1a");
    undo->beginUndoGrouping();
    first->insert(1, "1b");
    second->insert(0, "2a");
    undo->endUndoGrouping();
    second->insert(1, "2b");

    undo->removeAllActionsWithTarget(second.get());
    ASSERT_TRUE(undo->undo());  // the mixed group, now only first's part
    EXPECT_EQ(first->items, (Items{"1a"}));
    EXPECT_EQ(second->items, (Items{"2a", "2b"}));
    ASSERT_TRUE(undo->undo());
    EXPECT_FALSE(undo->canUndo());  // second's own group went entirely

    // An inverse whose target has gone is skipped, not called.
    auto third = std::make_shared<List>(undo);
    third->insert(0, "x");
    third.reset();
    EXPECT_TRUE(undo->undo());
    EXPECT_FALSE(undo->canRedo());
}

TEST(UndoManager, OpenGroupsLimitsDisablingAndThrowingInverses) {
    auto undo = UndoManager::create();
    auto list = std::make_shared<List>(undo);
    undo->beginUndoGrouping();
    list->insert(0, "a");
    EXPECT_TRUE(undo->canUndo());
    EXPECT_TRUE(undo->undo());  // closes the open top-level group first
    EXPECT_TRUE(list->items.empty() && undo->groupingLevel() == 0);

    undo->beginUndoGrouping();
    undo->beginUndoGrouping();
    list->insert(0, "b");
    EXPECT_FALSE(undo->undo());  // nested groups open
    undo->endUndoGrouping();
    undo->endUndoGrouping();

    undo->setLevelsOfUndo(2);
    for (int i = 0; i < 5; ++i) list->insert(0, std::to_string(i));
    EXPECT_TRUE(undo->undo() && undo->undo());
    EXPECT_FALSE(undo->undo());
    EXPECT_EQ(list->items.size(), 4u);

    undo->disableUndoRegistration();
    list->insert(0, "untracked");
    undo->enableUndoRegistration();
    EXPECT_FALSE(undo->canUndo());

    undo->registerUndo(nullptr, [] { throw std::runtime_error("inverse failed"); });
    EXPECT_THROW(undo->undo(), std::runtime_error);
    EXPECT_TRUE(!undo->isUndoing() && undo->groupingLevel() == 0);
    list->insert(0, "after");
    EXPECT_TRUE(undo->undo());
}
