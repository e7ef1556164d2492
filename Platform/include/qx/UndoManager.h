// UndoManager.h - records inverse actions in groups and replays them.
//
// An edit registers the call that would reverse it (its inverse) with a
// target. Registrations are collected in groups: explicitly between
// beginUndoGrouping and endUndoGrouping (which nest; inner groups merge into
// the outer one), and otherwise each registration made outside any group
// is a group of its own. undo() takes the newest group and calls its
// inverses newest first; what they register meanwhile becomes one group on
// the redo stack, and redo() does the same the other way round. A new
// registration that is neither an undo's nor a redo's clears the redo stack.
//
// Targets are held weakly: an inverse whose target has gone is skipped.
// Not safe for concurrent use; inverses run on the thread calling undo/redo.
#pragma once

#include <qx/Object.h>

#include <cstddef>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace qx {

class UndoManager final : public Object {
public:
    using Action = std::function<void()>;

    static Ref<UndoManager> create();

    /// Registers inverse for target (any object identity; used only by
    /// removeAllActionsWithTarget). Ignored while registration is disabled.
    void registerUndo(const void* target, Action inverse);
    /// Registers handler to be called with target, if target still exists.
    /// (T comes from target alone, so handler may be any callable.)
    template <class T>
    void registerUndoWithTarget(const Ref<T>& target, std::type_identity_t<std::function<void(T&)>> handler) {
        if (!target || !handler) return;
        registerUndo(target.get(), [weak = WeakRef<T>(target), handler = std::move(handler)] {
            if (auto strong = weak.lock()) handler(*strong);
        });
    }

    void beginUndoGrouping();
    /// Closes the innermost open group; false when none is open.
    bool endUndoGrouping();
    int groupingLevel() const { return static_cast<int>(open_.size()); }

    /// Reverses the newest group. An open top-level group is closed first;
    /// with nested groups open, or nothing to undo, does nothing and returns
    /// false. If an inverse throws, the rest of that group is dropped, what
    /// was registered so far becomes the redo group and the exception passes.
    bool undo();
    bool redo();
    bool canUndo() const;
    bool canRedo() const { return !redoStack_.empty(); }
    bool isUndoing() const { return undoing_; }
    bool isRedoing() const { return redoing_; }

    void removeAllActions();
    /// Drops every inverse registered for target; groups left empty go.
    void removeAllActionsWithTarget(const void* target);

    /// Names the group being collected (or the newest undo group when none is).
    void setActionName(std::string name);
    std::string undoActionName() const;
    std::string redoActionName() const;

    /// Oldest groups are dropped beyond this many; 0 means no limit.
    void setLevelsOfUndo(std::size_t levels);
    std::size_t levelsOfUndo() const { return levels_; }

    void disableUndoRegistration() { ++disabled_; }
    void enableUndoRegistration() {
        if (disabled_ > 0) --disabled_;
    }
    bool isUndoRegistrationEnabled() const { return disabled_ == 0; }

    std::string className() const override { return "UndoManager"; }

    UndoManager() = default;

private:
    struct Entry {
        const void* target;
        Action inverse;
    };
    struct Group {
        std::vector<Entry> entries;
        std::string name;
    };

    void closeTopLevel(Group group);
    void trim(std::vector<Group>& stack) const;
    bool replay(std::vector<Group>& from, bool undoing);

    std::vector<Group> undoStack_;  // newest last
    std::vector<Group> redoStack_;  // newest last
    std::vector<Group> open_;       // open groups, innermost last
    std::size_t levels_ = 0;
    int disabled_ = 0;
    bool undoing_ = false;
    bool redoing_ = false;
};

} // namespace qx
