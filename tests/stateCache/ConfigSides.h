#pragma once

#include <string>
#include <utility>
#include <vector>

#include "StateCacheConfigTable.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {

namespace config = com::corvid::zun::config;
using FenREL::StateCacheConfigTable;

// What a test needs of one side of the config table, so that what both sides
// share is checked on both. Entity n has the first entity type when n is even
// and the second when it is odd; a value is (type, payload), the payload
// picking the value.
using ConfigValue = std::pair<uint32_t, uint32_t>;

template <typename Side, typename DeltaMsg, typename ItemT, typename UpdateT>
struct ConfigSide {
    using Delta = DeltaMsg;
    using Item = ItemT;
    using Update = UpdateT;
    static constexpr int32_t kUpdate = Delta::UPDATE_OP;
    static constexpr int32_t kDelete = Delta::DELETE_OP;

    static Delta Make(int32_t op, uint32_t entity, std::vector<ConfigValue> values = {}, int32_t entityType = -1)
    {
        Delta delta = Entity(op, Side::Key(entity), entityType >= 0 ? entityType : Side::kEntityTypes[entity % 2]);
        for (const auto& [type, payload] : values) {
            Side::AddValue(delta, Side::Value(type, payload));
        }
        return delta;
    }
    // An update that restates one cached item.
    static Delta FromItem(const Item& item)
    {
        Delta delta = Entity(kUpdate, item.entityId, item.entityType);
        if (item.value != nullptr) {
            Side::AddValue(delta, *item.value);
        }
        return delta;
    }
    static std::vector<Item> QueryAll(const StateCacheConfigTable& table)
    {
        std::vector<Item> items;
        Side::Query(table, items);
        return items;
    }

private:
    static Delta Entity(int32_t op, const std::string& key, int32_t entityType)
    {
        Delta delta;
        delta.set_operation(static_cast<typename Delta::Operation>(op));
        Side::SetId(delta, key);
        delta.set_entity_type(static_cast<config::EntityType>(entityType));
        return delta;
    }
};

struct LocalSide : ConfigSide<LocalSide, config::ZunStateDeltaMsg, FenREL::LocalConfigItem, FenREL::LocalStateUpdate> {
    static constexpr int32_t kEntityTypes[] = {config::VIF, config::TOR};
    static constexpr uint32_t kTypes[] = {config::EntityStateMsg::VIF_IP, config::EntityStateMsg::VIF_MAC,
                                          config::EntityStateMsg::TOR_PHYSICAL_SWITCH};

    static std::string Key(uint32_t entity) { return "vif-" + std::to_string(entity); }
    static std::string Key(const std::string& id) { return id; }
    static void SetId(Delta& delta, const std::string& key) { delta.set_entity_id(key); }
    static config::EntityStateMsg Value(uint32_t type, uint32_t payload)
    {
        config::EntityStateMsg state;
        state.set_state_type(static_cast<config::EntityStateMsg::StateType>(type));
        state.add_vif_ips()->set_ipv4(payload);
        return state;
    }
    static void AddValue(Delta& delta, const config::EntityStateMsg& value) { delta.add_state()->CopyFrom(value); }
    static bool Apply(StateCacheConfigTable& table, const std::vector<Delta>& deltas, bool fullSync)
    {
        return table.AtomicUpdateLocalCache(deltas, fullSync);
    }
    static void Register(StateCacheConfigTable& table, FenREL::SCConfigTableObserver* observer)
    {
        table.RegisterLocalCacheObserver(kEntityTypes[0], observer);
        table.RegisterLocalCacheObserver(kEntityTypes[1], observer);
    }
    static void Query(const StateCacheConfigTable& table, std::vector<Item>& items) { table.QueryAllLocal(items); }
    static auto& Told(ConfigRecorder& observer) { return observer.local; }
    static uint32_t Version(const StateCacheConfigTable& table) { return table.GetLocalVersion(); }
};

struct RemoteSide
    : ConfigSide<RemoteSide, config::ZunConfigDeltaMsg, FenREL::RemoteConfigItem, FenREL::RemotePropertyUpdate> {
    static constexpr int32_t kEntityTypes[] = {config::LOG_SWITCH, config::LOG_ROUTER};
    static constexpr uint32_t kTypes[] = {config::EntityPropertyMsg::LS_VNI, config::EntityPropertyMsg::LS_VLAN,
                                          config::EntityPropertyMsg::LR_ROUTER_ID};

    static std::string Key(uint32_t entity) { return Uuid(0xabc, entity).SerializeAsString(); }
    static std::string Key(const UuidMsg& id) { return id.SerializeAsString(); }
    static void SetId(Delta& delta, const std::string& key) { delta.mutable_entity_id()->ParseFromString(key); }
    static config::EntityPropertyMsg Value(uint32_t type, uint32_t payload)
    {
        config::EntityPropertyMsg property;
        property.set_property_type(static_cast<config::EntityPropertyMsg::PropertyType>(type));
        if (type == config::EntityPropertyMsg::LS_VLAN) {
            property.mutable_ls_vlan()->set_vlan_id(payload);
        } else if (type == config::EntityPropertyMsg::LR_ROUTER_ID) {
            property.set_lr_router_id(payload);
        } else {
            property.mutable_ls_vni()->set_vni(payload);
        }
        return property;
    }
    static void AddValue(Delta& delta, const config::EntityPropertyMsg& value) { delta.add_property()->CopyFrom(value); }
    static bool Apply(StateCacheConfigTable& table, const std::vector<Delta>& deltas, bool fullSync)
    {
        return table.AtomicUpdateRemoteCache(deltas, fullSync);
    }
    static void Register(StateCacheConfigTable& table, FenREL::SCConfigTableObserver* observer)
    {
        table.RegisterRemoteCacheObserver(kEntityTypes[0], observer);
        table.RegisterRemoteCacheObserver(kEntityTypes[1], observer);
    }
    static void Query(const StateCacheConfigTable& table, std::vector<Item>& items) { table.QueryAllRemote(items); }
    static auto& Told(ConfigRecorder& observer) { return observer.remote; }
    static uint32_t Version(const StateCacheConfigTable& table) { return table.GetRemoteVersion(); }
};

}  // namespace FenRELTest
