// UndoManager.cpp - two stacks of inverse groups.
#include <qx/UndoManager.h>

#include <algorithm>

namespace qx {

Ref<UndoManager> UndoManager::create() { return std::make_shared<UndoManager>(); }

void UndoManager::registerUndo(const void* target, Action inverse) {
    if (!inverse || disabled_ > 0) return;
    if (!undoing_ && !redoing_) redoStack_.clear();
    if (open_.empty()) {
        Group group;
        group.entries.push_back({target, std::move(inverse)});
        closeTopLevel(std::move(group));
        return;
    }
    open_.back().entries.push_back({target, std::move(inverse)});
}

void UndoManager::beginUndoGrouping() { open_.emplace_back(); }

bool UndoManager::endUndoGrouping() {
    if (open_.empty()) return false;
    Group group = std::move(open_.back());
    open_.pop_back();
    if (!open_.empty()) {
        // Inner groups merge into the outer one; replaying the whole newest
        // first reverses the inner one in the same order.
        auto& outer = open_.back();
        outer.entries.insert(outer.entries.end(), std::make_move_iterator(group.entries.begin()),
                             std::make_move_iterator(group.entries.end()));
        if (outer.name.empty()) outer.name = std::move(group.name);
        return true;
    }
    closeTopLevel(std::move(group));
    return true;
}

void UndoManager::closeTopLevel(Group group) {
    // An empty group would make an undo that does nothing.
    if (group.entries.empty()) return;
    auto& stack = undoing_ ? redoStack_ : undoStack_;
    stack.push_back(std::move(group));
    trim(stack);
}

void UndoManager::trim(std::vector<Group>& stack) const {
    if (levels_ == 0 || stack.size() <= levels_) return;
    stack.erase(stack.begin(), stack.begin() + static_cast<std::ptrdiff_t>(stack.size() - levels_));
}

bool UndoManager::canUndo() const {
    if (!undoStack_.empty()) return true;
    return open_.size() == 1 && !open_.front().entries.empty();
}

bool UndoManager::undo() {
    if (open_.size() > 1) return false;
    if (open_.size() == 1) endUndoGrouping();
    return replay(undoStack_, true);
}

bool UndoManager::redo() {
    if (!open_.empty()) return false;
    return replay(redoStack_, false);
}

bool UndoManager::replay(std::vector<Group>& from, bool undoing) {
    if (from.empty() || undoing_ || redoing_) return false;
    Group group = std::move(from.back());
    from.pop_back();

    // Registrations made by the inverses gather in one group that lands on
    // the other stack, under the same name.
    struct Scope {
        UndoManager& manager;
        bool undoing;
        std::string name;
        ~Scope() {
            Group collected = std::move(manager.open_.back());
            manager.open_.pop_back();
            if (collected.name.empty()) collected.name = std::move(name);
            manager.closeTopLevel(std::move(collected));
            (undoing ? manager.undoing_ : manager.redoing_) = false;
        }
    };
    (undoing ? undoing_ : redoing_) = true;
    open_.emplace_back();
    Scope scope{*this, undoing, group.name};
    for (auto it = group.entries.rbegin(); it != group.entries.rend(); ++it) {
        Action inverse = std::move(it->inverse);
        inverse();
    }
    return true;
}

void UndoManager::removeAllActions() {
    undoStack_.clear();
    redoStack_.clear();
    if (!undoing_ && !redoing_) open_.clear();
}

void UndoManager::removeAllActionsWithTarget(const void* target) {
    auto strip = [&](std::vector<Group>& groups, bool dropEmpty) {
        for (auto& g : groups) std::erase_if(g.entries, [&](const Entry& e) { return e.target == target; });
        if (dropEmpty) std::erase_if(groups, [](const Group& g) { return g.entries.empty(); });
    };
    strip(undoStack_, true);
    strip(redoStack_, true);
    strip(open_, false);  // open groups stay open, even when emptied
}

void UndoManager::setActionName(std::string name) {
    if (!open_.empty())
        open_.back().name = std::move(name);
    else if (!undoStack_.empty())
        undoStack_.back().name = std::move(name);
}

std::string UndoManager::undoActionName() const { return undoStack_.empty() ? std::string() : undoStack_.back().name; }

std::string UndoManager::redoActionName() const { return redoStack_.empty() ? std::string() : redoStack_.back().name; }

void UndoManager::setLevelsOfUndo(std::size_t levels) {
    levels_ = levels;
    trim(undoStack_);
    trim(redoStack_);
}

} // namespace qx
