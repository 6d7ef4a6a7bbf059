#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "L2CacheItem.h"
#include "L2Group.h"
#include "RefCounter.h"
#include "TableInstance.h"
#include "ccp_lcp_l2.pb.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace google {
namespace protobuf {
class FieldDescriptor;
}  // namespace protobuf
}  // namespace google

namespace ZUNChannel {
template <typename T>
class AsyncTimer;
}  // namespace ZUNChannel

namespace FenREL {

class SCL2TableObserver;

// The L2 forwarding state of the logical switches on this host: the VM IPs,
// VM MACs and VTEPs of each VNI, and the VTEPs of each routing domain. The
// remote cache is what the controllers said, the local cache what this host's
// data path learned. Each L2UpdateMsg is applied atomically, and what really
// changed leaves again as one L2UpdateMsg to the observers of that side.
//
// Both caches mirror a peer's state: a message that contradicts the mirror (a
// DEL of what is not there, a second add of a VNI entry) is logged with
// "errorCode:LCP00020", the cache is dumped to the log, and the process stops.
// A remote item that a full sync with deferred removal left out stays ten
// minutes before the removal timer takes it.
//
// Threads: every operation but the registrations asserts that the global
// lock is free or held by the caller, and runs under it. The removal timer's
// call-back takes the lock itself. The timer holds the table weakly: the
// table stops it when it goes.
class StateCacheL2Table : public ZUNChannel::RefCounter<StateCacheL2Table>,
                          public TableInstance<StateCacheL2Table> {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;
    using L2UpdateMappingItemMsg = com::corvid::zun::l2::L2UpdateMappingItemMsg;
    using L2UpdateVtepMsg = com::corvid::zun::l2::L2UpdateVtepMsg;
    using UuidMsg = com::corvid::zun::UuidMsg;
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // Removal of stale remote items: the delay, and the age at which the
    // timer takes an item (the delay and a millisecond).
    static constexpr int32_t kRemovalDelayMicroseconds = 600000000;
    static constexpr int64_t kRemovalAgeMicroseconds = 600001000;

    // The process uses GetInstance(), with the steady clock and the process's
    // I/O service; tests pass a clock they advance and a service of their own.
    StateCacheL2Table();
    StateCacheL2Table(Clock clock, boost::asio::io_context* service);
    ~StateCacheL2Table() override;

    StateCacheL2Table(const StateCacheL2Table&) = delete;
    StateCacheL2Table& operator=(const StateCacheL2Table&) = delete;

    // False, with a line, if already registered (or not registered).
    bool RegisterLocalObserver(SCL2TableObserver* observer);
    bool RegisterRemoteObserver(SCL2TableObserver* observer);
    bool UnRegisterLocalObserver(SCL2TableObserver* observer);
    bool UnRegisterRemoteObserver(SCL2TableObserver* observer);

    // A message from a controller: the mappings of one VNI and/or the VTEPs
    // of one routing domain. With fullSync it restates the VNI (or domain);
    // what it leaves out goes at once, or with deferRemoval is marked stale
    // and goes ten minutes later unless re-added or CancelL2Timeout'ed.
    void AtomicUpdateRemoteL2Cache(const L2UpdateMsg& msg, bool fullSync, bool deferRemoval);
    // A message from the data path: mappings of any VNIs and the DR VTEP.
    // A full sync restates every VNI.
    void AtomicUpdateLocalL2Cache(const L2UpdateMsg& msg, bool fullSync);

    // Remove all remote items of a VNI or routing domain and tell the
    // observers, whatever the versions. False if there are none.
    bool RemoveRemoteL2ForVni(uint32_t vni);
    bool RemoveRemoteL2ForRoutingDomain(const UuidMsg& id);
    // Rescues the stale items of a VNI. False if it has none at all.
    bool CancelL2Timeout(uint32_t vni);
    // The timer's call-back: removes the remote items stale for the removal
    // age, and re-arms itself while younger ones remain.
    void L2RemoteCacheTimeout();

    // All items of a VNI as one message of ADD items, one mapping per type.
    bool QueryLocalL2FullCacheByVNI(uint32_t vni, L2UpdateMsg& msg);
    bool QueryRemoteL2FullCacheByVNI(uint32_t vni, L2UpdateMsg& msg);
    // The remote item of a VNI and type whose IPv4 address or MAC is valueKey.
    bool QueryRemoteL2ByKey(uint32_t vni, uint32_t type, uint64_t valueKey, L2CacheItem& item);
    // The values (serialised sub-messages) or the items of a VNI and type.
    bool QueryL2Values(uint32_t vni, uint32_t type, L2Side side, std::vector<std::string>& values);
    bool QueryL2Items(uint32_t vni, uint32_t type, L2Side side, std::vector<L2UpdateMappingItemMsg>& items);
    // The switch id of the first local item of that VNI and type.
    bool GetLocalSwitchId(uint32_t vni, uint32_t type, uint32_t& switchId);
    // The whole cache as one message of ADD items: the image for a new
    // listener. False if the cache is empty.
    bool ReadAllRemote(L2UpdateMsg& msg);
    bool ReadAllLocal(L2UpdateMsg& msg);
    // Every item with its version and removal time, in walk order: for the CLI.
    void QueryAllL2Items(L2Side side, std::vector<L2CacheItem>& items);
    bool QueryRoutingDomainVteps(const UuidMsg& id, std::vector<L2UpdateVtepMsg>& vteps);
    void ListRoutingDomains(std::vector<UuidMsg>& ids);
    void ListVnis(L2Side side, std::vector<uint32_t>& vnis);
    // The VTEP of this host that the data path gave for distributed routing.
    bool GetDRVtep(L2UpdateVtepMsg& vtep);
    // The key of a serialised L2UpdateMappingItemMsg of that type; 0, with a
    // line, for a type that has none.
    bool GetL2PropertyValueKeyFromString(const std::string& value, uint32_t type, uint64_t& key);

    void DumpLocal();
    void DumpRemote();

    // Whether the removal timer is armed, for the agent's diagnostics.
    bool IsRemovalTimerPending() const;

private:
    struct Cache {
        std::map<uint32_t, L2Group> vnis;
        std::map<std::string, L2Group, std::less<>> domains;
    };
    // The delta's mappings by type, for one VNI.
    using DeltaMappings = std::array<com::corvid::zun::l2::L2MappingUpdateMsg*, L2Group::kTypeCount>;

    // The VNI parts return true when what changed is exactly the message's
    // mappings as they came (a VNI's first message, a delta in which every
    // item changed, a local delta); they then add nothing to `delta`, and
    // the message itself goes to the observers, uncopied.
    bool VNIBaseAtomicUpdateRemoteL2CacheByZunL2(const L2UpdateMsg& msg, L2UpdateMsg& delta, bool fullSync,
                                                 bool deferRemoval);
    void RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2(const L2UpdateMsg& msg, L2UpdateMsg& delta,
                                                           bool fullSync);
    bool VNIBaseAtomicUpdateLocalL2CacheByZunL2(const L2UpdateMsg& msg, bool fullSync, L2UpdateMsg& delta);
    void RoutingDomainBaseAtomicUpdateLocalL2CacheByZunL2(const L2UpdateMsg& msg, bool fullSync,
                                                          L2UpdateMsg& delta);
    // Tells the observers of one side what changed: the delta, or the
    // message's mappings when they are what changed.
    void TellChanges(const L2UpdateMsg& msg, bool mappingsAsTheyCame, L2UpdateMsg& delta, bool remote);

    void CreateRemoteVni(const L2UpdateMsg& msg, uint32_t vni, uint32_t switchId);
    void FullSyncRemoteVni(const L2UpdateMsg& msg, uint32_t vni, uint32_t switchId, L2Group& group,
                           uint32_t version, bool deferRemoval, L2UpdateMsg& delta);
    bool DeltaRemoteVni(const L2UpdateMsg& msg, L2Group& group, uint32_t version, L2UpdateMsg& delta);
    void DeltaLocalVni(const L2UpdateMsg& msg);
    void FullSyncLocalVnis(const L2UpdateMsg& msg, L2UpdateMsg& delta);

    // The value of an item of a type: its sub-message, serialised into _value.
    std::string_view ValueOf(const L2UpdateMappingItemMsg& item, uint32_t type);
    // The values of all the items of a mapping and their hashes, made before
    // any look-up so that the group's index is fetched from memory for all
    // of them at once: a large VNI's index does not fit in the caches.
    void HashValues(const com::corvid::zun::l2::L2MappingUpdateMsg& mapping, const L2Group& group);
    std::string_view HashedValue(int item) const;
    const google::protobuf::FieldDescriptor* ValueField(uint32_t type) const;
    uint64_t ValueKeyOf(const L2UpdateMappingItemMsg& item, uint32_t type) const;
    // An ADD or DEL item that carries a cached value.
    void FillItem(L2UpdateMappingItemMsg& item, uint32_t type, std::string_view value, bool add) const;
    L2CacheItem CopyOut(int32_t kind, uint32_t vni, const std::string& domain, const L2Entry& entry) const;
    void ReadAll(const Cache& cache, bool withVniEntryItem, L2UpdateMsg& msg) const;
    // All items of a VNI as ADDs; false, with a line, if it has none.
    bool QueryFullByVni(const Cache& cache, uint32_t vni, bool withVniEntryItem, L2UpdateMsg& msg) const;
    // The first item of a VNI and type; null, with a line, if there is none.
    const L2Entry* FirstOfType(const Cache& cache, uint32_t vni, uint32_t type) const;
    void Notify(const std::vector<SCL2TableObserver*>& observers, bool remote, const L2UpdateMsg& delta);
    // The reaction to a message that contradicts a mirror; the line is
    // already written. Dumps the cache concerned and stops the process.
    [[noreturn]] void MirrorFault(L2Side side);
    void StartRemovalTimer();
    int64_t Now() const;
    Cache& CacheOf(L2Side side) { return side == L2Side::Local ? _local : _remote; }

    Cache _local;
    Cache _remote;
    L2UpdateVtepMsg _drVtep;
    std::vector<SCL2TableObserver*> _localObservers;
    std::vector<SCL2TableObserver*> _remoteObservers;
    std::shared_ptr<ZUNChannel::AsyncTimer<StateCacheL2Table>> _removalTimer;
    // One full-sync version for every local VNI; each remote VNI keeps its
    // own in its VNI entry, and each routing domain in its items.
    uint32_t _localVersion = 0;
    Clock _clock;
    // From type to the field of L2UpdateMappingItemMsg that holds its value.
    std::map<uint32_t, const google::protobuf::FieldDescriptor*> _valueFields;
    std::string _value;         // scratch for the serialised value under look-up
    std::string _values;        // scratch of HashValues: the values one after another,
    std::vector<uint32_t> _valueEnds;  // where each ends,
    std::vector<uint32_t> _valueHashes;  // and the hash of each
    std::vector<char> _changed;  // scratch: which items of a remote delta changed
};

}  // namespace FenREL
