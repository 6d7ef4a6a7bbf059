#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace FenREL {

struct L2Entry;

// The items of one L2 group by (type, value): an open-addressing hash table
// with linear probing and backward-shift deletion, kept between 1/8 and 3/4
// full. A slot holds the entry's 32-bit hash beside its pointer, so that a
// probe compares hashes in consecutive slots and only a full match touches
// an entry: a look-up that misses, and the insert after it, cost one cache
// miss. A hash is never 0, which marks an empty slot.
class L2EntryIndex {
public:
    static uint32_t Hash(uint32_t type, std::string_view value);

    L2Entry* Find(uint32_t hash, uint32_t type, std::string_view value) const;
    // The entry's hash is set, and no entry of the same type and value is in.
    void Insert(L2Entry* entry);
    void Erase(const L2Entry* entry);
    // Starts fetching the slot where a look-up of that hash begins.
    void Prefetch(uint32_t hash) const
    {
        if (_capacity != 0) {
            __builtin_prefetch(&_slots[hash & Mask()]);
        }
    }
    size_t Size() const { return _size; }

private:
    size_t Mask() const { return _capacity - 1; }
    void Rehash(size_t capacity);  // a power of two

    struct Slot {
        uint32_t hash;
        L2Entry* entry;
    };

    std::unique_ptr<Slot[]> _slots;
    size_t _capacity = 0;
    size_t _size = 0;
};

}  // namespace FenREL
