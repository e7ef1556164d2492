// Observable.h - change announcements per key, per index for to-many keys.
//
// An object that derives from Observable announces its own changes: it calls
// willChange…(key) before changing a property and didChange…(key) after.
// Observers, added per key, are called on the announcing thread: at the
// did-change, and also at the will-change when added with prior set.
//
// To-many keys (ordered lists) announce changes per index set: insertion,
// removal or replacement at given indexes.
//
// Dependent keys: setKeysAffectingKey(k, {a, b}) says that k's value is
// derived from a and b, so an announcement for a also reaches k's observers
// (as a plain setting), and so on transitively; a cycle among declarations
// is followed once round. Within one announcement the changed key comes
// first, then the keys that depend on it, nearest first and in the order
// the dependencies were declared. The will- and the did-change use the same
// order.
//
// Observers may be added and removed from any thread, also from inside an
// observer. Each announcement goes to the observers present when it reaches
// their key, except those that an earlier observer of the same announcement
// removed.
#pragma once

#include <qx/IndexSet.h>
#include <qx/Object.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qx {

class Observable : public Object {
public:
    enum class ChangeKind { Setting = 1, Insertion = 2, Removal = 3, Replacement = 4 };

    struct Change {
        ChangeKind kind = ChangeKind::Setting;
        Ref<IndexSet> indexes;  // for insertion, removal and replacement
        bool isPrior = false;   // true at the will-change
    };

    using Token = std::uint64_t;
    using DependentsTable = std::map<std::string, std::vector<std::string>>;
    using Observer = std::function<void(Observable& object, const std::string& key, const Change& change)>;

    /// Observes key; returns a token for removeObserver (never 0).
    Token addObserver(const std::string& key, Observer observer, bool prior = false);
    /// False when the token is unknown (never given, or removed before).
    bool removeObserver(Token token);
    /// True while at least one observer is registered, on any key. A cheap
    /// check that lets an object skip preparing an announcement nobody hears.
    bool hasObservers() const {
        const State* state = existingState();
        return state && state->count.load(std::memory_order_acquire) != 0;
    }

    void willChangeValueForKey(const std::string& key);
    void didChangeValueForKey(const std::string& key);
    void willChange(ChangeKind kind, const Ref<IndexSet>& indexes, const std::string& key);
    void didChange(ChangeKind kind, const Ref<IndexSet>& indexes, const std::string& key);

    /// Declares that key depends on each of affecting (added to earlier
    /// declarations for key).
    void setKeysAffectingKey(const std::string& key, const std::vector<std::string>& affecting);
    /// The keys announced for a change of key, in announcement order
    /// (key first).
    std::vector<std::string> keysAnnouncedForChangeOfKey(const std::string& key) const;

    std::string className() const override { return "Observable"; }

protected:
    /// Dependencies a whole class declares once (key -> the keys that depend
    /// on it), consulted before the object's own declarations. A class with
    /// many small instances returns one shared table here instead of having
    /// every instance repeat setKeysAffectingKey.
    virtual const DependentsTable* classDependents() const { return nullptr; }

    Observable() = default;
    Observable(const Observable&) : Object() {}  // a copy starts with no observers
    ~Observable() override;

private:
    struct Entry {
        Token token;
        std::string key;
        Observer observer;
        bool prior;
        std::shared_ptr<std::atomic<bool>> live;
    };
    // Observers and the object's own dependencies. Most objects never get
    // either (every node of a large tree, say), so an object holds only a
    // pointer, set the first time something is registered: the object stays
    // small and a walk over many of them touches less memory.
    struct State {
        std::mutex mutex;
        std::vector<Entry> observers;         // in order added
        DependentsTable dependents;           // key -> keys depending on it
        Token nextToken = 1;
        std::atomic<std::size_t> count{0};    // observers.size(), readable without the lock
    };

    void announce(const std::string& key, const Change& change);
    /// The state, made on first use (several threads may race to make it).
    State& state();
    State* existingState() const { return state_.load(std::memory_order_acquire); }

    std::atomic<State*> state_{nullptr};
};

} // namespace qx
