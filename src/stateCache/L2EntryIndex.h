#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace FenREL {

struct L2Entry;

// The items of one L2 group by (type, value): an open-addressing hash table
// of entry pointers with linear probing and backward-shift deletion, so it
// costs one pointer per slot and never leaves tombstones. Kept at most 3/4
// full.
class L2EntryIndex {
public:
    static uint32_t Hash(uint32_t type, std::string_view value);

    L2Entry* Find(uint32_t hash, uint32_t type, std::string_view value) const;
    // The entry's hash is set, and no entry of the same type and value is in.
    void Insert(L2Entry* entry);
    void Erase(const L2Entry* entry);
    size_t Size() const { return _size; }

private:
    size_t Mask() const { return _slots.size() - 1; }
    void Rehash(size_t slots);  // a power of two

    std::vector<L2Entry*> _slots;
    size_t _size = 0;
};

}  // namespace FenREL
