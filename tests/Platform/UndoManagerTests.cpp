// Undo and redo over a small editable model whose edits register their own
// inverses, the way document objects use the undo manager.

#include "TestSupport.h"
#include <qx/UndoManager.h>

#include <stdexcept>

using namespace qx;

namespace {

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
