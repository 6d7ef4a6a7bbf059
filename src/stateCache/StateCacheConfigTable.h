#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ConfigCache.h"
#include "ConfigCacheTraits.h"
#include "RefCounter.h"
#include "TableInstance.h"

namespace FenREL {

class SCConfigTableObserver;

// The configuration entities the controllers publish to this host (remote:
// logical switches, ports, routers, transport nodes, ...) and the run-time
// state entities its data path reports (local: VIFs, ToR switches). Each
// batch of deltas becomes the smallest list of per-property changes, which
// goes to the observers registered for the entity types concerned: one call
// per observer and batch.
//
// The config app writes the remote half, DPDomainManager the local half.
// Every operation runs under the global lock, which its callers hold; the
// table has no lock of its own.
class StateCacheConfigTable : public ZUNChannel::RefCounter<StateCacheConfigTable>,
                              public TableInstance<StateCacheConfigTable> {
public:
    using ZunStateDeltaMsg = com::corvid::zun::config::ZunStateDeltaMsg;
    using ZunConfigDeltaMsg = com::corvid::zun::config::ZunConfigDeltaMsg;
    using EntityStateMsg = com::corvid::zun::config::EntityStateMsg;
    using EntityPropertyMsg = com::corvid::zun::config::EntityPropertyMsg;
    using UuidMsg = com::corvid::zun::UuidMsg;

    // The process uses GetInstance(); tests make their own.
    StateCacheConfigTable();
    ~StateCacheConfigTable() override;

    // False, with a line, for a null observer or a pair that is registered.
    bool RegisterRemoteCacheObserver(int32_t entityType, SCConfigTableObserver* observer);
    bool RegisterLocalCacheObserver(int32_t entityType, SCConfigTableObserver* observer);
    // Removes the observer for every entity type.
    bool UnRegisterRemoteCacheObserver(SCConfigTableObserver* observer);
    // Local observers stay for the life of the process: this only refuses null.
    bool UnRegisterLocalCacheObserver(SCConfigTableObserver* observer);

    // One atomic update each: a batch of deltas, or with fullSync the whole
    // content, after which what it did not restate is removed. False when the
    // batch stopped part-way (a duplicate create or an unsupported operation):
    // what was applied stays and nobody is told.
    bool AtomicUpdateLocalCache(const std::vector<ZunStateDeltaMsg>& deltas, bool fullSync);
    bool AtomicUpdateLocalCache(const google::protobuf::RepeatedPtrField<ZunStateDeltaMsg>& deltas,
                                bool fullSync);
    bool AtomicUpdateRemoteCache(const std::vector<ZunConfigDeltaMsg>& deltas, bool fullSync);
    bool AtomicUpdateRemoteCache(const google::protobuf::RepeatedPtrField<ZunConfigDeltaMsg>& deltas,
                                 bool fullSync);

    // operation is DELETE_OP (1) or anything else for an insert.
    void UpdateLocalVifInfoTable(const std::vector<VifInfo>& records, int32_t operation, bool fullSync);
    // The logical ports (second strings) of the VIF info table, in its order.
    void ListVifLogicalPorts(std::vector<std::string>& ports) const;
    // The VIF name (third string) of the first record with that logical port.
    bool GetVifNameByLogicalPort(const std::string& port, std::string& vifName) const;

    bool GetLocalState(const std::string& entityId, uint32_t stateType, EntityStateMsg& value) const;
    bool GetRemoteProperty(const UuidMsg& entityId, uint32_t propertyType, EntityPropertyMsg& value) const;
    // True only if the switch's LS_VLAN property has its ls_vlan set.
    bool GetLogSwitchVlan(const UuidMsg& entityId, uint32_t& vlan) const;
    // Copies of all the items of an entity, the marker included.
    bool QueryRemoteEntity(const UuidMsg& entityId, std::vector<RemoteConfigItem>& items) const;
    // The same, each copy carrying the table's present remote version.
    bool QueryRemoteEntityProperties(const UuidMsg& entityId, std::vector<RemoteConfigItem>& items) const;
    // The whole cache in the order of entity ids: the image for a new
    // listener and the CLI. False if it is empty.
    bool QueryAllRemote(std::vector<RemoteConfigItem>& items) const;
    bool QueryAllLocal(std::vector<LocalConfigItem>& items) const;
    // The logical switch port whose LSP_ATTACHMENT has this vif_id.
    bool FindLogicalPortByAttachment(const std::string& attachmentId, UuidMsg& port) const;
    // Removes what the last remote full sync (or anything since) brought,
    // telling the observers: entities first, then their properties.
    void DeleteTransportNode();

    void DumpLocal() const;
    void DumpRemote() const;

    uint32_t GetLocalVersion() const { return _local.Version(); }
    uint32_t GetRemoteVersion() const { return _remote.Version(); }

private:
    struct VifInfoOrder {
        bool operator()(const VifInfo& a, const VifInfo& b) const { return a.vifId < b.vifId; }
    };
    using ObserverMap = std::multimap<int32_t, SCConfigTableObserver*>;

    static bool Register(ObserverMap& observers, int32_t entityType, SCConfigTableObserver* observer,
                         const char* nullText, const char* existsText);
    bool UpdateLocal(const std::vector<const ZunStateDeltaMsg*>& deltas, bool fullSync);
    bool UpdateRemote(const std::vector<const ZunConfigDeltaMsg*>& deltas, bool fullSync);

    ConfigCache<LocalConfigTraits> _local;
    std::set<VifInfo, VifInfoOrder> _vifInfo;
    ConfigCache<RemoteConfigTraits> _remote;
    ObserverMap _remoteObservers;
    ObserverMap _localObservers;
};

}  // namespace FenREL
