#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace FenREL {

// A copy of one item of an L2 cache, as the queries give it.
struct L2CacheItem {
    enum Kind : int32_t { VNI_ITEM = 0, ROUTING_DOMAIN_ITEM = 1 };

    int32_t kind = VNI_ITEM;
    std::string routingDomain;  // serialised UuidMsg; empty for a VNI item
    uint32_t vni = 0;
    uint32_t switchId = 0;
    uint32_t propertyType = 0;  // L2MappingUpdateMsg.Type, 0 for the VNI entry and a routing domain's items
    std::string value;          // the serialised sub-message; empty for the VNI entry
    uint64_t valueKey = 0;      // the IPv4 address or MAC the value is known by, or 0
    uint32_t version = 0;
    // When a full sync found the item stale; empty while it is not.
    std::optional<std::chrono::steady_clock::time_point> removalTime;
};

// Which of the two L2 caches a query reads.
enum class L2Side { Local, Remote };

}  // namespace FenREL
