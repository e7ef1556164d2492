// Observable.cpp - observer lists and the dependency walk.
#include <qx/Observable.h>

#include <algorithm>
#include <deque>
#include <set>

namespace qx {

Observable::~Observable() { delete state_.load(std::memory_order_acquire); }

Observable::State& Observable::state() {
    if (State* state = existingState()) return *state;
    auto made = std::make_unique<State>();
    State* expected = nullptr;
    if (state_.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel, std::memory_order_acquire))
        return *made.release();
    return *expected;  // another thread made it first
}

Observable::Token Observable::addObserver(const std::string& key, Observer observer, bool prior) {
    if (!observer) return 0;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const Token token = s.nextToken++;
    s.observers.push_back({token, key, std::move(observer), prior, std::make_shared<std::atomic<bool>>(true)});
    s.count.store(s.observers.size(), std::memory_order_release);
    return token;
}

bool Observable::removeObserver(Token token) {
    State* s = existingState();
    if (!s) return false;
    std::shared_ptr<std::atomic<bool>> live;
    Observer dropped;  // released outside the lock
    {
        std::lock_guard<std::mutex> lock(s->mutex);
        auto it = std::find_if(s->observers.begin(), s->observers.end(), [&](const Entry& e) { return e.token == token; });
        if (it == s->observers.end()) return false;
        live = it->live;
        dropped = std::move(it->observer);
        s->observers.erase(it);
        s->count.store(s->observers.size(), std::memory_order_release);
    }
    live->store(false, std::memory_order_release);
    return true;
}

void Observable::setKeysAffectingKey(const std::string& key, const std::vector<std::string>& affecting) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (const auto& a : affecting) {
        auto& list = s.dependents[a];
        if (a != key && std::find(list.begin(), list.end(), key) == list.end()) list.push_back(key);
    }
}

std::vector<std::string> Observable::keysAnnouncedForChangeOfKey(const std::string& key) const {
    State* s = existingState();
    std::unique_lock<std::mutex> lock;
    if (s) lock = std::unique_lock<std::mutex>(s->mutex);
    // Breadth first: nearest dependents first; each key once, so cycles end.
    std::vector<std::string> order{key};
    std::set<std::string> seen{key};
    const DependentsTable* shared = classDependents();
    const DependentsTable* own = s ? &s->dependents : nullptr;
    for (std::size_t i = 0; i < order.size(); ++i) {
        for (const DependentsTable* table : {shared, own}) {
            if (!table) continue;
            auto it = table->find(order[i]);
            if (it == table->end()) continue;
            for (const auto& d : it->second)
                if (seen.insert(d).second) order.push_back(d);
        }
    }
    return order;
}

void Observable::announce(const std::string& key, const Change& change) {
    // Most objects are never observed (every node of a large tree, say): an
    // observer added concurrently with this check could not have been
    // ordered before the announcement anyway.
    if (!hasObservers()) return;
    const auto keys = keysAnnouncedForChangeOfKey(key);
    State& s = *existingState();  // hasObservers() saw it
    Change derived;
    derived.isPrior = change.isPrior;
    for (const auto& k : keys) {
        std::vector<Entry> targets;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            for (const auto& e : s.observers)
                if (e.key == k && (!change.isPrior || e.prior)) targets.push_back(e);
        }
        for (const auto& e : targets) {
            // Removed by an earlier observer of this same announcement.
            if (!e.live->load(std::memory_order_acquire)) continue;
            e.observer(*this, k, k == key ? change : derived);
        }
    }
}

void Observable::willChangeValueForKey(const std::string& key) { announce(key, Change{ChangeKind::Setting, nullptr, true}); }

void Observable::didChangeValueForKey(const std::string& key) { announce(key, Change{ChangeKind::Setting, nullptr, false}); }

void Observable::willChange(ChangeKind kind, const Ref<IndexSet>& indexes, const std::string& key) {
    announce(key, Change{kind, indexes, true});
}

void Observable::didChange(ChangeKind kind, const Ref<IndexSet>& indexes, const std::string& key) {
    announce(key, Change{kind, indexes, false});
}

} // namespace qx
