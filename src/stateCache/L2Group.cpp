#include "L2Group.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "Assert.h"

namespace FenREL {

L2Entry* L2Entry::Create(uint32_t type, std::string_view value, uint64_t valueKey, uint32_t version,
                         uint32_t switchId, uint32_t hash)
{
    // Values are sub-messages of a control message, far below the limit.
    ASSERT(value.size() <= kMaxSize);
    void* memory = ::operator new(sizeof(L2Entry) + value.size());
    L2Entry* entry = new (memory) L2Entry();
    entry->valueKey = valueKey;
    entry->hash = hash;
    entry->version = version;
    entry->switchId = switchId;
    entry->size = static_cast<uint32_t>(value.size()) & kMaxSize;
    entry->type = type & 0xF;
    if (!value.empty()) {
        memcpy(entry + 1, value.data(), value.size());
    }
    return entry;
}

void L2Entry::Destroy(L2Entry* entry)
{
    entry->~L2Entry();
    ::operator delete(entry);
}

L2Group::~L2Group()
{
    for (L2Entry* head : _first) {
        for (L2Entry* entry = head; entry != nullptr;) {
            L2Entry* next = entry->next;
            L2Entry::Destroy(entry);
            entry = next;
        }
    }
}

L2Entry* L2Group::Insert(uint32_t hash, uint32_t type, std::string_view value, uint64_t valueKey, uint32_t version,
                         uint32_t switchId)
{
    // Types come from L2MappingUpdateMsg.Type, 1 to 4, and 0 for the VNI entry.
    ASSERT(type < kTypeCount);
    L2Entry* entry = L2Entry::Create(type, value, valueKey, version, switchId, hash);
    _index.Insert(entry);
    entry->prev = _last[type];
    if (_last[type] != nullptr) {
        _last[type]->next = entry;
    } else {
        _first[type] = entry;
    }
    _last[type] = entry;
    return entry;
}

void L2Group::Erase(L2Entry* entry)
{
    _index.Erase(entry);
    const uint32_t type = entry->type;
    (entry->prev != nullptr ? entry->prev->next : _first[type]) = entry->next;
    (entry->next != nullptr ? entry->next->prev : _last[type]) = entry->prev;
    L2Entry::Destroy(entry);
}

L2Entry* L2Group::First() const
{
    for (L2Entry* head : _first) {
        if (head != nullptr) {
            return head;
        }
    }
    return nullptr;
}

}  // namespace FenREL
