#pragma once

#include <string>
#include <utility>
#include <vector>

#include "StateCacheConfigTable.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {

// What a test needs of one side of the config table, so that what both
// sides share is checked on both. Entity n has the first entity type when
// n is even and the second when it is odd; a value is (type, payload), the
// payload picking the value.
using ConfigValue = std::pair<uint32_t, uint32_t>;

struct LocalSide {
    using Delta = com::corvid::zun::config::ZunStateDeltaMsg;
    using Value = com::corvid::zun::config::EntityStateMsg;
    using Update = FenREL::LocalStateUpdate;
    using Item = FenREL::LocalConfigItem;
    static constexpr int32_t kUpdate = Delta::UPDATE_OP;
    static constexpr int32_t kDelete = Delta::DELETE_OP;
    static constexpr int32_t kEntityTypes[] = {com::corvid::zun::config::VIF, com::corvid::zun::config::TOR};
    static constexpr uint32_t kTypes[] = {Value::VIF_IP, Value::VIF_MAC, Value::TOR_PHYSICAL_SWITCH};

    static std::string Key(uint32_t entity) { return "vif-" + std::to_string(entity); }
    static std::string Key(const std::string& id) { return id; }
    static Delta Make(int32_t op, uint32_t entity, std::vector<ConfigValue> values = {}, int32_t entityType = -1)
    {
        Delta delta;
        delta.set_operation(static_cast<Delta::Operation>(op));
        delta.set_entity_id(Key(entity));
        delta.set_entity_type(static_cast<com::corvid::zun::config::EntityType>(
            entityType >= 0 ? entityType : kEntityTypes[entity % 2]));
        for (const auto& [type, payload] : values) {
            Value* state = delta.add_state();
            state->set_state_type(static_cast<Value::StateType>(type));
            state->add_vif_ips()->set_ipv4(payload);
        }
        return delta;
    }
    static Delta FromItem(const Item& item)
    {
        Delta delta;
        delta.set_operation(Delta::UPDATE_OP);
        delta.set_entity_id(item.entityId);
        delta.set_entity_type(static_cast<com::corvid::zun::config::EntityType>(item.entityType));
        if (item.value != nullptr) {
            delta.add_state()->CopyFrom(*item.value);
        }
        return delta;
    }
    static uint32_t PayloadOf(const Update& update) { return update.value->vif_ips(0).ipv4(); }
    static bool Apply(FenREL::StateCacheConfigTable& table, const std::vector<Delta>& deltas, bool fullSync)
    {
        return table.AtomicUpdateLocalCache(deltas, fullSync);
    }
    static void Register(FenREL::StateCacheConfigTable& table, FenREL::SCConfigTableObserver* observer)
    {
        for (int32_t type : kEntityTypes) {
            table.RegisterLocalCacheObserver(type, observer);
        }
    }
    static std::vector<FenREL::LocalStateUpdateList>& Told(ConfigRecorder& observer) { return observer.local; }
    static std::vector<Item> QueryAll(const FenREL::StateCacheConfigTable& table)
    {
        std::vector<Item> items;
        table.QueryAllLocal(items);
        return items;
    }
    static uint32_t Version(const FenREL::StateCacheConfigTable& table) { return table.GetLocalVersion(); }
};

struct RemoteSide {
    using Delta = com::corvid::zun::config::ZunConfigDeltaMsg;
    using Value = com::corvid::zun::config::EntityPropertyMsg;
    using Update = FenREL::RemotePropertyUpdate;
    using Item = FenREL::RemoteConfigItem;
    static constexpr int32_t kUpdate = Delta::UPDATE_OP;
    static constexpr int32_t kDelete = Delta::DELETE_OP;
    static constexpr int32_t kEntityTypes[] = {com::corvid::zun::config::LOG_SWITCH,
                                               com::corvid::zun::config::LOG_ROUTER};
    static constexpr uint32_t kTypes[] = {Value::LS_VNI, Value::LS_VLAN, Value::LR_ROUTER_ID};

    static std::string Key(uint32_t entity) { return Uuid(0xabc, entity).SerializeAsString(); }
    static std::string Key(const UuidMsg& id) { return id.SerializeAsString(); }
    static Value Property(uint32_t type, uint32_t payload)
    {
        Value property;
        property.set_property_type(static_cast<Value::PropertyType>(type));
        if (type == Value::LS_VLAN) {
            property.mutable_ls_vlan()->set_vlan_id(payload);
        } else if (type == Value::LR_ROUTER_ID) {
            property.set_lr_router_id(payload);
        } else {
            property.mutable_ls_vni()->set_vni(payload);
        }
        return property;
    }
    static Delta Make(int32_t op, uint32_t entity, std::vector<ConfigValue> values = {}, int32_t entityType = -1)
    {
        Delta delta;
        delta.set_operation(static_cast<Delta::Operation>(op));
        delta.mutable_entity_id()->CopyFrom(Uuid(0xabc, entity));
        delta.set_entity_type(static_cast<com::corvid::zun::config::EntityType>(
            entityType >= 0 ? entityType : kEntityTypes[entity % 2]));
        for (const auto& [type, payload] : values) {
            delta.add_property()->CopyFrom(Property(type, payload));
        }
        return delta;
    }
    static Delta FromItem(const Item& item)
    {
        Delta delta;
        delta.set_operation(Delta::UPDATE_OP);
        delta.mutable_entity_id()->ParseFromString(item.entityId);
        delta.set_entity_type(static_cast<com::corvid::zun::config::EntityType>(item.entityType));
        if (item.value != nullptr) {
            delta.add_property()->CopyFrom(*item.value);
        }
        return delta;
    }
    static uint32_t PayloadOf(const Update& update)
    {
        const Value& value = *update.value;
        return value.has_ls_vlan() ? value.ls_vlan().vlan_id() : value.has_ls_vni() ? value.ls_vni().vni()
                                                                                  : value.lr_router_id();
    }
    static bool Apply(FenREL::StateCacheConfigTable& table, const std::vector<Delta>& deltas, bool fullSync)
    {
        return table.AtomicUpdateRemoteCache(deltas, fullSync);
    }
    static void Register(FenREL::StateCacheConfigTable& table, FenREL::SCConfigTableObserver* observer)
    {
        for (int32_t type : kEntityTypes) {
            table.RegisterRemoteCacheObserver(type, observer);
        }
    }
    static std::vector<FenREL::RemotePropertyUpdateList>& Told(ConfigRecorder& observer) { return observer.remote; }
    static std::vector<Item> QueryAll(const FenREL::StateCacheConfigTable& table)
    {
        std::vector<Item> items;
        table.QueryAllRemote(items);
        return items;
    }
    static uint32_t Version(const FenREL::StateCacheConfigTable& table) { return table.GetRemoteVersion(); }
};

}  // namespace FenRELTest
