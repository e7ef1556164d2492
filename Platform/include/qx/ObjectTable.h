// ObjectTable.h - an insertion-ordered table of objects looked up by value.
//
// Shared by Dictionary (key -> value) and Set (key only). Lookup uses the
// keys' hash() and isEqual(); enumeration follows insertion order.
#pragma once

#include <qx/Object.h>

#include <unordered_map>
#include <utility>
#include <vector>

namespace qx::detail {

class ObjectTable {
public:
    using Entry = std::pair<Ref<Object>, Ref<Object>>;

    std::size_t count() const { return entries_.size(); }
    const std::vector<Entry>& entries() const { return entries_; }
    /// Index of the entry whose key isEqual to key, or npos.
    std::size_t find(const Object& key) const;
    /// Replaces the value of an equal key in place, else appends.
    void set(Ref<Object> key, Ref<Object> value);
    bool remove(const Object& key);
    void clear();
    void reserve(std::size_t n);

    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

private:
    // Most tables are small (property-list dictionaries hold a handful of
    // keys); a linear scan beats hashing there and saves a node per entry.
    // The hash index is built once a table grows past this size.
    static constexpr std::size_t kIndexThreshold = 12;
    void buildIndex();

    struct KeyHash {
        // The key's hash mixed with a per-process secret, so that keys read
        // from untrusted data cannot be chosen to share one bucket.
        std::size_t operator()(const Object* k) const;
    };
    struct KeyEq {
        bool operator()(const Object* a, const Object* b) const { return a->isEqual(*b); }
    };
    std::vector<Entry> entries_;
    std::unordered_map<const Object*, std::size_t, KeyHash, KeyEq> index_;
};

} // namespace qx::detail
