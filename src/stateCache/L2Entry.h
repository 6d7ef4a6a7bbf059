#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace FenREL {

// One cached L2 item: a VNI entry, a VM IP, VM MAC, VTEP or VTEP change of a
// VNI, or a VTEP of a routing domain. Its VNI or routing domain is the group
// (L2Group) it lives in. The value, the serialised sub-message, is stored
// right behind the fields in the same allocation, so an item costs one
// allocation of about fifty bytes plus its value.
struct L2Entry {
    static constexpr int64_t kNotStale = std::numeric_limits<int64_t>::min();
    static constexpr uint32_t kMaxSize = (1u << 28) - 1;

    static L2Entry* Create(uint32_t type, std::string_view value, uint64_t valueKey, uint32_t version,
                           uint32_t switchId, uint32_t hash);
    static void Destroy(L2Entry* entry);

    std::string_view Value() const { return std::string_view(reinterpret_cast<const char*>(this + 1), size); }
    bool IsStale() const { return removalTime != kNotStale; }

    L2Entry* prev = nullptr;  // the group's list of this type, in the order of insertion
    L2Entry* next = nullptr;
    uint64_t valueKey = 0;
    int64_t removalTime = kNotStale;  // microseconds on the table's clock
    uint32_t hash = 0;                // of (type, value), for the group's index
    uint32_t version = 0;
    uint32_t switchId = 0;
    uint32_t size : 28;
    uint32_t type : 4;

private:
    L2Entry() : size(0), type(0) {}
    ~L2Entry() = default;
};

}  // namespace FenREL
