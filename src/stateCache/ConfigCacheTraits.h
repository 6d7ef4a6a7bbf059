#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "ConfigCacheRecords.h"

namespace FenREL {

class SCConfigTableObserver;

// What differs between the local and the remote config cache; ConfigCache
// does the rest once.

struct LocalConfigTraits {
    using Delta = com::corvid::zun::config::ZunStateDeltaMsg;
    using Value = com::corvid::zun::config::EntityStateMsg;
    using Update = LocalStateUpdate;

    // A sweep tells the states of an entity before the entity.
    static constexpr bool kMarkersFirstInSweep = false;
    static const char* const kDumpHeader;
    static const char* const kDumpLine;

    static const google::protobuf::RepeatedPtrField<Value>& Values(const Delta& delta) { return delta.state(); }
    static uint32_t TypeOf(const Value& value) { return value.state_type(); }
    // Entity type 0 from the data path is a fault of ours or of the data path.
    static bool AcceptEntity(const Delta& delta);
    static bool AcceptValue(const Value& value);
    static std::string_view Key(const Delta& delta, std::string& scratch);
    static void SetId(const Delta& delta, Update& update) { update.entityId = delta.entity_id(); }
    static void SetIdFromKey(std::string_view key, Update& update) { update.entityId.assign(key); }
    static std::string IdText(std::string_view key) { return std::string(key); }
    static void Notify(SCConfigTableObserver* observer, const LocalStateUpdateList& updates);
};

struct RemoteConfigTraits {
    using Delta = com::corvid::zun::config::ZunConfigDeltaMsg;
    using Value = com::corvid::zun::config::EntityPropertyMsg;
    using Update = RemotePropertyUpdate;

    // A sweep tells the entities before their properties.
    static constexpr bool kMarkersFirstInSweep = true;
    static const char* const kDumpHeader;
    static const char* const kDumpLine;

    static const google::protobuf::RepeatedPtrField<Value>& Values(const Delta& delta)
    {
        return delta.property();
    }
    static uint32_t TypeOf(const Value& value) { return value.property_type(); }
    // An invalid entity or property from a controller is skipped with a line.
    static bool AcceptEntity(const Delta& delta);
    static bool AcceptValue(const Value& value);
    // The serialised UuidMsg; a missing id is keyed as its default value.
    static std::string_view Key(const Delta& delta, std::string& scratch);
    static void SetId(const Delta& delta, Update& update) { update.entityId = delta.entity_id(); }
    static void SetIdFromKey(std::string_view key, Update& update);
    static std::string IdText(std::string_view key);
    static void Notify(SCConfigTableObserver* observer, const RemotePropertyUpdateList& updates);
};

}  // namespace FenREL
