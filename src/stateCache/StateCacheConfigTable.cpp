#include "StateCacheConfigTable.h"

#include <cstring>

#include "Logger.h"
#include "SCConfigTableObserver.h"

namespace FenREL {

namespace {

using com::corvid::zun::UuidMsg;
using com::corvid::zun::config::EntityPropertyMsg;
using com::corvid::zun::config::EntityStateMsg;
using com::corvid::zun::config::ZunConfigDeltaMsg;
using com::corvid::zun::config::ZunStateDeltaMsg;

template <typename Delta, typename Range>
std::vector<const Delta*> Pointers(const Range& deltas)
{
    std::vector<const Delta*> pointers;
    pointers.reserve(static_cast<size_t>(deltas.size()));
    for (const Delta& delta : deltas) {
        pointers.push_back(&delta);
    }
    return pointers;
}

// Each observer gets one call with the updates of the entity types it
// registered for, in their order; observers are called in the order of their
// addresses, which means nothing. An observer that takes every update gets
// the list itself rather than a copy.
template <typename Traits>
void Notify(const std::multimap<int32_t, SCConfigTableObserver*>& observers,
            const std::vector<typename Traits::Update>& updates)
{
    if (updates.empty()) {
        return;
    }
    std::map<SCConfigTableObserver*, std::vector<const typename Traits::Update*>> lists;
    for (const auto& update : updates) {
        const auto range = observers.equal_range(update.entityType);
        for (auto entry = range.first; entry != range.second; ++entry) {
            lists[entry->second].push_back(&update);
        }
    }
    for (const auto& [observer, list] : lists) {
        if (list.size() == updates.size()) {
            Traits::Notify(observer, updates);
            continue;
        }
        std::vector<typename Traits::Update> own;
        own.reserve(list.size());
        for (const auto* update : list) {
            own.push_back(*update);
        }
        Traits::Notify(observer, own);
    }
}

std::string SerialisedId(const UuidMsg& id)
{
    return id.SerializeAsString();
}

}  // namespace

StateCacheConfigTable::StateCacheConfigTable() = default;

StateCacheConfigTable::~StateCacheConfigTable() = default;

bool StateCacheConfigTable::Register(ObserverMap& observers, int32_t entityType, SCConfigTableObserver* observer,
                                     const char* nullText, const char* existsText)
{
    if (observer == nullptr) {
        FLOG_VERBOSE(nullText);
        return false;
    }
    const auto range = observers.equal_range(entityType);
    for (auto entry = range.first; entry != range.second; ++entry) {
        if (entry->second == observer) {
            FLOG_VERBOSE(existsText, entityType);
            return false;
        }
    }
    observers.emplace(entityType, observer);
    return true;
}

bool StateCacheConfigTable::RegisterRemoteCacheObserver(int32_t entityType, SCConfigTableObserver* observer)
{
    return Register(_remoteObservers, entityType, observer, "In RegisterRemoteCacheObserver, observer is NULL!",
                    "In RegisterRemoteCacheObserver, observer exist for entityType %1 !");
}

bool StateCacheConfigTable::RegisterLocalCacheObserver(int32_t entityType, SCConfigTableObserver* observer)
{
    return Register(_localObservers, entityType, observer, "In RegisterLocalCacheObserver, observer is NULL!",
                    "In RegisterLocalCacheObserver, observer exist for entityType %1 !");
}

bool StateCacheConfigTable::UnRegisterRemoteCacheObserver(SCConfigTableObserver* observer)
{
    if (observer == nullptr) {
        FLOG_VERBOSE("In UnRegisterRemoteCacheObserver, observer is NULL!");
        return false;
    }
    for (auto entry = _remoteObservers.begin(); entry != _remoteObservers.end();) {
        entry = entry->second == observer ? _remoteObservers.erase(entry) : std::next(entry);
    }
    return true;
}

bool StateCacheConfigTable::UnRegisterLocalCacheObserver(SCConfigTableObserver* observer)
{
    if (observer == nullptr) {
        FLOG_VERBOSE("In UnRegisterLocalCacheObserver, observer is NULL!");
        return false;
    }
    // Deliberately keeps the observer: local observers live as long as the
    // process, and a late local update must still reach them.
    return true;
}

bool StateCacheConfigTable::AtomicUpdateLocalCache(const std::vector<ZunStateDeltaMsg>& deltas, bool fullSync)
{
    return UpdateLocal(Pointers<ZunStateDeltaMsg>(deltas), fullSync);
}

bool StateCacheConfigTable::AtomicUpdateLocalCache(
    const google::protobuf::RepeatedPtrField<ZunStateDeltaMsg>& deltas, bool fullSync)
{
    return UpdateLocal(Pointers<ZunStateDeltaMsg>(deltas), fullSync);
}

bool StateCacheConfigTable::AtomicUpdateRemoteCache(const std::vector<ZunConfigDeltaMsg>& deltas, bool fullSync)
{
    return UpdateRemote(Pointers<ZunConfigDeltaMsg>(deltas), fullSync);
}

bool StateCacheConfigTable::AtomicUpdateRemoteCache(
    const google::protobuf::RepeatedPtrField<ZunConfigDeltaMsg>& deltas, bool fullSync)
{
    return UpdateRemote(Pointers<ZunConfigDeltaMsg>(deltas), fullSync);
}

bool StateCacheConfigTable::UpdateLocal(const std::vector<const ZunStateDeltaMsg*>& deltas, bool fullSync)
{
    LocalStateUpdateList updates;
    if (!_local.AtomicUpdate(deltas, fullSync, updates)) {
        return false;
    }
    Notify<LocalConfigTraits>(_localObservers, updates);
    return true;
}

bool StateCacheConfigTable::UpdateRemote(const std::vector<const ZunConfigDeltaMsg*>& deltas, bool fullSync)
{
    RemotePropertyUpdateList updates;
    if (!_remote.AtomicUpdate(deltas, fullSync, updates)) {
        return false;
    }
    Notify<RemoteConfigTraits>(_remoteObservers, updates);
    return true;
}

void StateCacheConfigTable::UpdateLocalVifInfoTable(const std::vector<VifInfo>& records, int32_t operation,
                                                    bool fullSync)
{
    if (!fullSync) {
        for (const VifInfo& record : records) {
            if (operation == ZunStateDeltaMsg::DELETE_OP) {
                _vifInfo.erase(record);
            } else {
                _vifInfo.insert(record);
            }
        }
        return;
    }
    if (operation == ZunStateDeltaMsg::DELETE_OP) {
        FLOG_VERBOSE(
            "In StateCacheConfigTable::UpdateLocalVifInfoTable, operation should be UPDATE for fullsync.");
        return;
    }
    _vifInfo.clear();
    _vifInfo.insert(records.begin(), records.end());
}

void StateCacheConfigTable::ListVifLogicalPorts(std::vector<std::string>& ports) const
{
    for (const VifInfo& record : _vifInfo) {
        ports.push_back(record.logicalPortId);
    }
}

bool StateCacheConfigTable::GetVifNameByLogicalPort(const std::string& port, std::string& vifName) const
{
    for (const VifInfo& record : _vifInfo) {
        if (record.logicalPortId == port) {
            vifName = record.vifName;
            return true;
        }
    }
    return false;
}

bool StateCacheConfigTable::GetLocalState(const std::string& entityId, uint32_t stateType,
                                          EntityStateMsg& value) const
{
    switch (_local.Find(entityId, stateType, value)) {
    case ConfigCache<LocalConfigTraits>::Lookup::Found:
        return true;
    case ConfigCache<LocalConfigTraits>::Lookup::NoEntity:
        FLOG_VERBOSE("state does not exist: %1, %2", entityId, stateType);
        return false;
    case ConfigCache<LocalConfigTraits>::Lookup::NoValue:
        FLOG_VERBOSE("entity exists, but state does not exist: %1, %2", entityId, stateType);
        return false;
    }
    return false;
}

bool StateCacheConfigTable::GetRemoteProperty(const UuidMsg& entityId, uint32_t propertyType,
                                              EntityPropertyMsg& value) const
{
    switch (_remote.Find(SerialisedId(entityId), propertyType, value)) {
    case ConfigCache<RemoteConfigTraits>::Lookup::Found:
        return true;
    case ConfigCache<RemoteConfigTraits>::Lookup::NoEntity:
        FLOG_VERBOSE("property does not exist: %1, %2 with type: %3", entityId.left(), entityId.right(),
                     propertyType);
        return false;
    case ConfigCache<RemoteConfigTraits>::Lookup::NoValue:
        FLOG_VERBOSE("entity exists, but property does not exist: %1, %2, %3", entityId.left(),
                     entityId.right(), propertyType);
        return false;
    }
    return false;
}

bool StateCacheConfigTable::GetLogSwitchVlan(const UuidMsg& entityId, uint32_t& vlan) const
{
    EntityPropertyMsg value;
    if (!GetRemoteProperty(entityId, EntityPropertyMsg::LS_VLAN, value) || !value.has_ls_vlan()) {
        return false;
    }
    vlan = value.ls_vlan().vlan_id();
    return true;
}

bool StateCacheConfigTable::QueryRemoteEntity(const UuidMsg& entityId, std::vector<RemoteConfigItem>& items) const
{
    if (!_remote.QueryEntity(SerialisedId(entityId), items)) {
        FLOG_VERBOSE("entity does not exist: %1", entityId.ShortDebugString());
        return false;
    }
    return true;
}

bool StateCacheConfigTable::QueryRemoteEntityProperties(const UuidMsg& entityId,
                                                        std::vector<RemoteConfigItem>& items) const
{
    FLOG_VERBOSE("Query entity [%1] property from remote StateCache", entityId.ShortDebugString());
    const size_t first = items.size();
    if (!QueryRemoteEntity(entityId, items)) {
        return false;
    }
    for (size_t i = first; i < items.size(); ++i) {
        items[i].version = _remote.Version();
    }
    return true;
}

bool StateCacheConfigTable::QueryAllRemote(std::vector<RemoteConfigItem>& items) const
{
    const size_t before = items.size();
    _remote.QueryAll(items);
    return items.size() != before;
}

bool StateCacheConfigTable::QueryAllLocal(std::vector<LocalConfigItem>& items) const
{
    const size_t before = items.size();
    _local.QueryAll(items);
    return items.size() != before;
}

bool StateCacheConfigTable::FindLogicalPortByAttachment(const std::string& attachmentId, UuidMsg& port) const
{
    return _remote.FindIf([&](std::string_view key, int32_t entityType, uint32_t type, std::string_view bytes) {
        if (entityType != com::corvid::zun::config::LOG_SWITCH_PORT || type != EntityPropertyMsg::LSP_ATTACHMENT) {
            return false;
        }
        // The id stands verbatim in the serialised value: only a value that
        // holds it is worth parsing.
        if (!attachmentId.empty() && bytes.find(attachmentId) == std::string_view::npos) {
            return false;
        }
        EntityPropertyMsg value;
        value.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
        if (value.lsp_attachment().vif_attachment().vif_id() != attachmentId) {
            return false;
        }
        port.ParseFromArray(key.data(), static_cast<int>(key.size()));
        return true;
    });
}

void StateCacheConfigTable::DeleteTransportNode()
{
    FLOG_INFO("Deleting transport node");
    RemotePropertyUpdateList updates;
    _remote.Sweep(_remote.Version(), updates);
    Notify<RemoteConfigTraits>(_remoteObservers, updates);
}

void StateCacheConfigTable::DumpLocal() const
{
    _local.Dump();
}

void StateCacheConfigTable::DumpRemote() const
{
    _remote.Dump();
}

}  // namespace FenREL
