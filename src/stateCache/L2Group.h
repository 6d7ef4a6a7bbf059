#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "L2Entry.h"
#include "L2EntryIndex.h"

namespace FenREL {

// The items of one VNI, or of one routing domain, of an L2 cache. They are
// walked by type (0, the VNI entry, to 4) and within a type in the order
// they were inserted; found by (type, value) through a hash index. Everything
// a full sync, a query or a removal of the VNI does stays inside its group.
//
// No lock of its own: the table's callers hold the global lock.
class L2Group {
public:
    static constexpr uint32_t kTypeCount = 5;

    L2Group() = default;
    ~L2Group();
    L2Group(const L2Group&) = delete;
    L2Group& operator=(const L2Group&) = delete;

    // A value's hash, for a look-up followed by an insert to hash it once.
    static uint32_t Hash(uint32_t type, std::string_view value) { return L2EntryIndex::Hash(type, value); }

    L2Entry* Find(uint32_t hash, uint32_t type, std::string_view value) const
    {
        return _index.Find(hash, type, value);
    }
    L2Entry* Find(uint32_t type, std::string_view value) const { return Find(Hash(type, value), type, value); }
    void Prefetch(uint32_t hash) const { _index.Prefetch(hash); }
    // No item of that type and value may be in the group.
    L2Entry* Insert(uint32_t hash, uint32_t type, std::string_view value, uint64_t valueKey, uint32_t version,
                    uint32_t switchId);
    L2Entry* Insert(uint32_t type, std::string_view value, uint64_t valueKey, uint32_t version, uint32_t switchId)
    {
        return Insert(Hash(type, value), type, value, valueKey, version, switchId);
    }
    void Erase(L2Entry* entry);

    L2Entry* First(uint32_t type) const { return _first[type]; }
    // The first item in walk order, or null.
    L2Entry* First() const;
    size_t Size() const { return _index.Size(); }
    bool Empty() const { return _index.Size() == 0; }

    // Calls visit(entry) for each item in walk order; visit may erase the
    // item it was given, and no other.
    template <typename Visit>
    void ForEach(Visit visit)
    {
        for (L2Entry* head : _first) {
            for (L2Entry* entry = head; entry != nullptr;) {
                L2Entry* next = entry->next;
                visit(entry);
                entry = next;
            }
        }
    }
    template <typename Visit>
    void ForEach(Visit visit) const
    {
        for (const L2Entry* head : _first) {
            for (const L2Entry* entry = head; entry != nullptr; entry = entry->next) {
                visit(entry);
            }
        }
    }

private:
    std::array<L2Entry*, kTypeCount> _first{};
    std::array<L2Entry*, kTypeCount> _last{};
    L2EntryIndex _index;
};

}  // namespace FenREL
