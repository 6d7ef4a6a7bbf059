#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ccp_lcp_config.pb.h"
#include "core_types.pb.h"

namespace FenREL {

// One change of a config cache as its observers get it. A type of 0 with a
// null value is a change of the entity as such (created, or gone); a delete
// carries the value that was cached. The value is shared by every list the
// update is in, so it is never modified after it was made.
template <typename Id, typename Value>
struct ConfigCacheUpdate {
    int32_t entityType = 0;
    Id entityId;
    int32_t operation = 0;  // DELETE_OP = 1, UPDATE_OP = 2, as in the delta messages
    uint32_t type = 0;      // state or property type; 0 for the entity as such
    std::shared_ptr<const Value> value;
};

using LocalStateUpdate = ConfigCacheUpdate<std::string, com::corvid::zun::config::EntityStateMsg>;
using RemotePropertyUpdate =
    ConfigCacheUpdate<com::corvid::zun::UuidMsg, com::corvid::zun::config::EntityPropertyMsg>;
using LocalStateUpdateList = std::vector<LocalStateUpdate>;
using RemotePropertyUpdateList = std::vector<RemotePropertyUpdate>;

// A copy of one cached item, as the queries give it.
template <typename Value>
struct ConfigCacheItem {
    std::string entityId;  // local: the id as the data path gave it; remote: the serialised UuidMsg
    int32_t entityType = 0;
    uint32_t type = 0;                    // 0 for the entity marker
    std::shared_ptr<const Value> value;   // null for the entity marker
    uint32_t version = 0;
};

using LocalConfigItem = ConfigCacheItem<com::corvid::zun::config::EntityStateMsg>;
using RemoteConfigItem = ConfigCacheItem<com::corvid::zun::config::EntityPropertyMsg>;

// A record of the VIF info table, kept ordered and unique by its first string.
// The CLI lists the logical ports and looks a VIF name up by its port.
struct VifInfo {
    std::string vifId;
    std::string logicalPortId;
    std::string vifName;
};

}  // namespace FenREL
