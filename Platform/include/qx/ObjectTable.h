// ObjectTable.h - an insertion-ordered table of objects looked up by value.
//
// Shared by Dictionary (key -> value) and Set (key only). Lookup uses the
// keys' hash() and isEqual(); enumeration follows insertion order.
#pragma once

#include <qx/Object.h>

#include <cstdint>
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
    // keys); a linear scan beats hashing there. Past this size an index is
    // kept: open addressing over entries_, with no allocation per entry.
    static constexpr std::size_t kIndexThreshold = 12;
    void buildIndex();
    void indexEntry(std::size_t at);
    // The key's hash mixed with a per-process secret, so that keys read from
    // untrusted data cannot be chosen to collide in the index.
    static std::size_t slotHash(const Object& key);

    std::vector<Entry> entries_;
    // Empty, or a power-of-two number of slots, at least twice the entries:
    // 0 is a free slot, anything else an index into entries_ plus one.
    std::vector<std::uint32_t> slots_;
};

} // namespace qx::detail
