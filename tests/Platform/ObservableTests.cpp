// Change announcements: dependent keys in order, observers added and
// removed by token, index sets.

#include "TestSupport.h"
#include <qx/IndexSet.h>
#include <qx/Observable.h>

#include <limits>

using namespace qx;

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
