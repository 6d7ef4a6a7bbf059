#include "L2EntryIndex.h"

#include <functional>

#include "Assert.h"
#include "L2Entry.h"

namespace FenREL {

namespace {
constexpr size_t kInitialSlots = 8;
}  // namespace

uint32_t L2EntryIndex::Hash(uint32_t type, std::string_view value)
{
    const size_t h = std::hash<std::string_view>()(value);
    // The type only picks among a handful of otherwise equal values; mixing
    // it into the high bits keeps the low bits (the slot) from the bytes.
    const uint64_t mixed = (static_cast<uint64_t>(h) ^ (static_cast<uint64_t>(type) * 0x9E3779B97F4A7C15ull));
    return static_cast<uint32_t>(mixed ^ (mixed >> 32));
}

L2Entry* L2EntryIndex::Find(uint32_t hash, uint32_t type, std::string_view value) const
{
    if (_size == 0) {
        return nullptr;
    }
    for (size_t slot = hash & Mask();; slot = (slot + 1) & Mask()) {
        L2Entry* entry = _slots[slot];
        if (entry == nullptr) {
            return nullptr;
        }
        if (entry->hash == hash && entry->type == type && entry->Value() == value) {
            return entry;
        }
    }
}

void L2EntryIndex::Insert(L2Entry* entry)
{
    if ((_size + 1) * 4 > _slots.size() * 3) {
        Rehash(_slots.empty() ? kInitialSlots : _slots.size() * 2);
    }
    size_t slot = entry->hash & Mask();
    while (_slots[slot] != nullptr) {
        slot = (slot + 1) & Mask();
    }
    _slots[slot] = entry;
    ++_size;
}

void L2EntryIndex::Erase(const L2Entry* entry)
{
    size_t hole = entry->hash & Mask();
    while (_slots[hole] != entry) {
        // An entry that is not in its index is a bookkeeping fault of ours.
        ASSERT(_slots[hole] != nullptr);
        hole = (hole + 1) & Mask();
    }
    // Pull back every later entry of the run that may sit in the hole, so
    // that each stays reachable from its home slot.
    for (size_t next = (hole + 1) & Mask(); _slots[next] != nullptr; next = (next + 1) & Mask()) {
        const size_t home = _slots[next]->hash & Mask();
        if (((next - home) & Mask()) >= ((next - hole) & Mask())) {
            _slots[hole] = _slots[next];
            hole = next;
        }
    }
    _slots[hole] = nullptr;
    --_size;
    if (_size == 0) {
        std::vector<L2Entry*>().swap(_slots);
    } else if (_slots.size() > kInitialSlots && _size * 8 < _slots.size()) {
        Rehash(_slots.size() / 2);
    }
}

void L2EntryIndex::Rehash(size_t slots)
{
    std::vector<L2Entry*> old(slots, nullptr);
    old.swap(_slots);
    for (L2Entry* entry : old) {
        if (entry != nullptr) {
            size_t slot = entry->hash & Mask();
            while (_slots[slot] != nullptr) {
                slot = (slot + 1) & Mask();
            }
            _slots[slot] = entry;
        }
    }
}

}  // namespace FenREL
