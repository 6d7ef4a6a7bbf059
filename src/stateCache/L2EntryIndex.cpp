#include "L2EntryIndex.h"

#include <functional>

#include "Assert.h"
#include "L2Entry.h"

namespace FenREL {

namespace {
constexpr size_t kInitialCapacity = 8;
}  // namespace

uint32_t L2EntryIndex::Hash(uint32_t type, std::string_view value)
{
    const uint64_t bytes = std::hash<std::string_view>()(value);
    // The type only tells apart values that are otherwise equal; the slot
    // comes from the low bits, which the bytes decide.
    const uint64_t mixed = bytes ^ (static_cast<uint64_t>(type) * 0x9E3779B97F4A7C15ull);
    const uint32_t hash = static_cast<uint32_t>(mixed ^ (mixed >> 32));
    return hash != 0 ? hash : 1;
}

L2Entry* L2EntryIndex::Find(uint32_t hash, uint32_t type, std::string_view value) const
{
    if (_size == 0) {
        return nullptr;
    }
    for (size_t slot = hash & Mask(); _slots[slot].hash != 0; slot = (slot + 1) & Mask()) {
        if (_slots[slot].hash == hash) {
            L2Entry* entry = _slots[slot].entry;
            if (entry->type == type && entry->Value() == value) {
                return entry;
            }
        }
    }
    return nullptr;
}

void L2EntryIndex::Insert(L2Entry* entry)
{
    if ((_size + 1) * 4 > _capacity * 3) {
        Rehash(_capacity == 0 ? kInitialCapacity : _capacity * 2);
    }
    size_t slot = entry->hash & Mask();
    while (_slots[slot].hash != 0) {
        slot = (slot + 1) & Mask();
    }
    _slots[slot] = Slot{entry->hash, entry};
    ++_size;
}

void L2EntryIndex::Erase(const L2Entry* entry)
{
    size_t hole = entry->hash & Mask();
    while (_slots[hole].entry != entry) {
        // An entry that is not in its index is a bookkeeping fault of ours.
        ASSERT(_slots[hole].hash != 0);
        hole = (hole + 1) & Mask();
    }
    // Pull back every later entry of the run that may sit in the hole, so
    // that each stays reachable from its home slot.
    for (size_t next = (hole + 1) & Mask(); _slots[next].hash != 0; next = (next + 1) & Mask()) {
        const size_t home = _slots[next].hash & Mask();
        if (((next - home) & Mask()) >= ((next - hole) & Mask())) {
            _slots[hole] = _slots[next];
            hole = next;
        }
    }
    _slots[hole] = Slot{0, nullptr};
    --_size;
    if (_size == 0) {
        _slots.reset();
        _capacity = 0;
    } else if (_capacity > kInitialCapacity && _size * 8 < _capacity) {
        Rehash(_capacity / 2);
    }
}

void L2EntryIndex::Rehash(size_t capacity)
{
    std::unique_ptr<Slot[]> slots(new Slot[capacity]());
    const size_t mask = capacity - 1;
    for (size_t old = 0; old < _capacity; ++old) {
        if (_slots[old].hash != 0) {
            size_t slot = _slots[old].hash & mask;
            while (slots[slot].hash != 0) {
                slot = (slot + 1) & mask;
            }
            slots[slot] = _slots[old];
        }
    }
    _slots = std::move(slots);
    _capacity = capacity;
}

}  // namespace FenREL
