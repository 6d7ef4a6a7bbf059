#include "StateCacheL2Table.h"

#include <algorithm>

#include <google/protobuf/arena.h>
#include <google/protobuf/descriptor.h>

#include "AsyncTimer.h"
#include "Assert.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "Logger.h"
#include "SCL2TableObserver.h"

namespace FenREL {

namespace {

using com::corvid::zun::UuidMsg;
using com::corvid::zun::l2::L2MappingUpdateMsg;
using com::corvid::zun::l2::L2RoutingVtepUpdateMsg;
using com::corvid::zun::l2::L2UpdateMappingItemMsg;
using com::corvid::zun::l2::L2UpdateMsg;
using com::corvid::zun::l2::L2UpdateRoutingVtepItemMsg;
using com::corvid::zun::l2::L2UpdateVtepMsg;
using com::corvid::zun::l2::VnInstanceMsg;
using RemovalTimer = ZUNChannel::AsyncTimer<StateCacheL2Table>;

const char* const kMirrorFault = "errorCode:LCP00020";

// Every operation runs under the global lock: another thread holding it
// while we are here means that the caller broke the rule.
void AssertLockDiscipline()
{
    ASSERT(ZUNChannel::IsLockAvailable());
}

bool IsEmpty(const L2UpdateMsg& msg)
{
    return msg.mapping_update_size() == 0 && msg.routing_vtep_update_size() == 0;
}

L2UpdateMsg* NewDelta(google::protobuf::Arena& arena)
{
    return google::protobuf::Arena::CreateMessage<L2UpdateMsg>(&arena);
}

void SetInstance(L2MappingUpdateMsg& mapping, uint32_t type, uint32_t vni, uint32_t switchId)
{
    if (type != 0) {
        mapping.set_type(static_cast<L2MappingUpdateMsg::Type>(type));
    }
    mapping.mutable_vn_instance()->set_vni(vni);
    mapping.mutable_vn_instance()->set_transport_switch_id(switchId);
}

// The mapping of a type that this VNI's part of a delta is collecting into,
// begun when first needed.
L2MappingUpdateMsg* MappingFor(std::array<L2MappingUpdateMsg*, L2Group::kTypeCount>& mappings, L2UpdateMsg& delta,
                               uint32_t type, uint32_t vni, uint32_t switchId)
{
    L2MappingUpdateMsg*& mapping = mappings[type];
    if (mapping == nullptr) {
        mapping = delta.add_mapping_update();
        SetInstance(*mapping, type, vni, switchId);
    }
    return mapping;
}

// A routing domain's item: its VTEP, or nothing for the domain as such.
void FillVtepItem(L2UpdateRoutingVtepItemMsg& item, std::string_view value, bool add)
{
    item.set_op(add ? L2UpdateRoutingVtepItemMsg::ADD : L2UpdateRoutingVtepItemMsg::DEL);
    if (!value.empty()) {
        item.mutable_vtep()->ParseFromArray(value.data(), static_cast<int>(value.size()));
    }
}

std::string DomainText(std::string_view key)
{
    UuidMsg id;
    id.ParseFromArray(key.data(), static_cast<int>(key.size()));
    return id.ShortDebugString();
}

}  // namespace

StateCacheL2Table::StateCacheL2Table() : StateCacheL2Table(std::chrono::steady_clock::now, ZUNChannel::IoService::Get())
{
}

StateCacheL2Table::StateCacheL2Table(Clock clock, boost::asio::io_context* service) : _clock(std::move(clock))
{
    const google::protobuf::Descriptor* item = L2UpdateMappingItemMsg::descriptor();
    const std::map<uint32_t, const char*> names = {{L2MappingUpdateMsg::VM_IP, "vm_ip"},
                                                   {L2MappingUpdateMsg::VM_MAC, "vm_mac"},
                                                   {L2MappingUpdateMsg::VTEP, "vtep"},
                                                   {L2MappingUpdateMsg::VTEP_CHANGE, "vtep_change"}};
    for (const auto& [type, name] : names) {
        const google::protobuf::FieldDescriptor* field = item->FindFieldByName(name);
        // The schema is compiled in: a missing field is a build fault.
        ASSERT(field != nullptr && field->type() == google::protobuf::FieldDescriptor::TYPE_MESSAGE);
        _valueFields.emplace(type, field);
    }
    _removalTimer = RemovalTimer::Create(this, &StateCacheL2Table::L2RemoteCacheTimeout, RemovalTimer::OwnerRef::Weak,
                                         service);
}

StateCacheL2Table::~StateCacheL2Table()
{
    // The timer does not hold us; a firing after this must find it stopped.
    _removalTimer->Stop();
}

// ---- observers ----

namespace {

bool AddObserver(std::vector<SCL2TableObserver*>& observers, SCL2TableObserver* observer, const char* existsText)
{
    if (std::find(observers.begin(), observers.end(), observer) != observers.end()) {
        FLOG_VERBOSE(existsText);
        return false;
    }
    observers.push_back(observer);
    return true;
}

bool RemoveObserver(std::vector<SCL2TableObserver*>& observers, SCL2TableObserver* observer, const char* missingText)
{
    const auto found = std::find(observers.begin(), observers.end(), observer);
    if (found == observers.end()) {
        FLOG_VERBOSE(missingText);
        return false;
    }
    observers.erase(found);
    return true;
}

}  // namespace

bool StateCacheL2Table::RegisterLocalObserver(SCL2TableObserver* observer)
{
    return AddObserver(_localObservers, observer, "local l2 observer already exists!");
}

bool StateCacheL2Table::RegisterRemoteObserver(SCL2TableObserver* observer)
{
    return AddObserver(_remoteObservers, observer, "remote l2 observer already exists!");
}

bool StateCacheL2Table::UnRegisterLocalObserver(SCL2TableObserver* observer)
{
    return RemoveObserver(_localObservers, observer, "local l2 observer not exists!");
}

bool StateCacheL2Table::UnRegisterRemoteObserver(SCL2TableObserver* observer)
{
    return RemoveObserver(_remoteObservers, observer, "remote l2 observer not exists!");
}

void StateCacheL2Table::Notify(const std::vector<SCL2TableObserver*>& observers, bool remote, const L2UpdateMsg& delta)
{
    // An observer may register or unregister from its call.
    const std::vector<SCL2TableObserver*> called = observers;
    for (SCL2TableObserver* observer : called) {
        if (remote) {
            observer->ProcessRemoteL2Update(delta);
        } else {
            observer->ProcessLocalL2Update(delta);
        }
    }
}

// ---- values ----

const google::protobuf::FieldDescriptor* StateCacheL2Table::ValueField(uint32_t type) const
{
    const auto found = _valueFields.find(type);
    // Types come from the parsed enum; any other is a fault of ours.
    ASSERT(found != _valueFields.end());
    return found->second;
}

std::string_view StateCacheL2Table::ValueOf(const L2UpdateMappingItemMsg& item, uint32_t type)
{
    const google::protobuf::Message& value = item.GetReflection()->GetMessage(item, ValueField(type));
    _value.clear();
    value.AppendToString(&_value);
    return _value;
}

void StateCacheL2Table::HashValues(const L2MappingUpdateMsg& mapping, const L2Group& group)
{
    const uint32_t type = mapping.type();
    const google::protobuf::FieldDescriptor* field = ValueField(type);
    _values.clear();
    _valueEnds.clear();
    _valueHashes.clear();
    for (const L2UpdateMappingItemMsg& item : mapping.items()) {
        const size_t begin = _values.size();
        item.GetReflection()->GetMessage(item, field).AppendToString(&_values);
        _valueEnds.push_back(static_cast<uint32_t>(_values.size()));
        const uint32_t hash = L2Group::Hash(type, std::string_view(_values).substr(begin));
        _valueHashes.push_back(hash);
        group.Prefetch(hash);
    }
}

std::string_view StateCacheL2Table::HashedValue(int item) const
{
    const uint32_t begin = item == 0 ? 0 : _valueEnds[item - 1];
    return std::string_view(_values).substr(begin, _valueEnds[item] - begin);
}

uint64_t StateCacheL2Table::ValueKeyOf(const L2UpdateMappingItemMsg& item, uint32_t type) const
{
    switch (type) {
    case L2MappingUpdateMsg::VM_IP:
        return item.vm_ip().vm_ip().ipv4();
    case L2MappingUpdateMsg::VM_MAC:
        return item.vm_mac().vm_mac().mac();
    case L2MappingUpdateMsg::VTEP:
        return item.vtep().vtep_ip().ipv4();
    default:
        FLOG_VERBOSE("GetL2PropertyValueKeyFromString: invalid property type %1", type);
        return 0;
    }
}

void StateCacheL2Table::FillItem(L2UpdateMappingItemMsg& item, uint32_t type, std::string_view value, bool add) const
{
    item.set_op(add ? L2UpdateMappingItemMsg::ADD : L2UpdateMappingItemMsg::DEL);
    if (type != 0) {
        item.GetReflection()
            ->MutableMessage(&item, ValueField(type))
            ->ParseFromArray(value.data(), static_cast<int>(value.size()));
    }
}

bool StateCacheL2Table::GetL2PropertyValueKeyFromString(const std::string& value, uint32_t type, uint64_t& key)
{
    AssertLockDiscipline();
    L2UpdateMappingItemMsg item;
    if (!item.ParseFromString(value)) {
        FLOG_VERBOSE("GetL2PropertyValueKeyFromString: cannot parse the value of type %1", type);
        key = 0;
        return false;
    }
    key = ValueKeyOf(item, type);
    return type == L2MappingUpdateMsg::VM_IP || type == L2MappingUpdateMsg::VM_MAC ||
           type == L2MappingUpdateMsg::VTEP;
}

int64_t StateCacheL2Table::Now() const
{
    return std::chrono::duration_cast<std::chrono::microseconds>(_clock().time_since_epoch()).count();
}

void StateCacheL2Table::MirrorFault(L2Side side)
{
    if (side == L2Side::Local) {
        DumpLocal();
    } else {
        DumpRemote();
    }
    // We and the peer no longer agree on what it told us: the supervisor's
    // restart brings a fresh full sync from both sides.
    AssertFailed(__FILE__, __LINE__);
}

void StateCacheL2Table::StartRemovalTimer()
{
    _removalTimer->Start(kRemovalDelayMicroseconds);
}

bool StateCacheL2Table::IsRemovalTimerPending() const
{
    return _removalTimer->IsPending();
}

// ---- remote updates ----

void StateCacheL2Table::AtomicUpdateRemoteL2Cache(const L2UpdateMsg& msg, bool fullSync, bool deferRemoval)
{
    AssertLockDiscipline();
    google::protobuf::Arena arena;
    L2UpdateMsg& delta = *NewDelta(arena);
    bool mappingsAsTheyCame = false;
    if (msg.mapping_update_size() > 0) {
        mappingsAsTheyCame = VNIBaseAtomicUpdateRemoteL2CacheByZunL2(msg, delta, fullSync, deferRemoval);
    }
    if (msg.routing_vtep_update_size() > 0) {
        RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2(msg, delta, fullSync);
    }
    TellChanges(msg, mappingsAsTheyCame, delta, true);
}

void StateCacheL2Table::TellChanges(const L2UpdateMsg& msg, bool mappingsAsTheyCame, L2UpdateMsg& delta,
                                    bool remote)
{
    const std::vector<SCL2TableObserver*>& observers = remote ? _remoteObservers : _localObservers;
    if (mappingsAsTheyCame && msg.routing_vtep_update_size() == 0) {
        Notify(observers, remote, msg);
        return;
    }
    if (mappingsAsTheyCame) {
        delta.mutable_mapping_update()->MergeFrom(msg.mapping_update());
    }
    if (!IsEmpty(delta)) {
        Notify(observers, remote, delta);
    }
}

bool StateCacheL2Table::VNIBaseAtomicUpdateRemoteL2CacheByZunL2(const L2UpdateMsg& msg, L2UpdateMsg& delta,
                                                                bool fullSync, bool deferRemoval)
{
    if (msg.mapping_update_size() == 0) {
        FLOG_VERBOSE("VNIBaseAtomicUpdateRemoteL2CacheByZunL2 : empty msg");
        return false;
    }
    const VnInstanceMsg& instance = msg.mapping_update(0).vn_instance();
    const uint32_t vni = instance.vni();
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        // A controller speaks of one VNI per message.
        ASSERT(mapping.vn_instance().vni() == vni);
    }
    const auto found = _remote.vnis.find(vni);
    if (found == _remote.vnis.end()) {
        // The first message of a VNI is its whole content, full sync or not.
        CreateRemoteVni(msg, vni, instance.transport_switch_id());
        return true;
    }
    L2Group& group = found->second;
    const L2Entry* vniEntry = group.First(0);
    // A VNI is created with its entry, which holds the VNI's version.
    ASSERT(vniEntry != nullptr);
    const uint32_t version = vniEntry->version;
    FLOG_VERBOSE("VNI version: %1", version);
    bool asTheyCame = false;
    if (fullSync) {
        FullSyncRemoteVni(msg, vni, instance.transport_switch_id(), group, version + 1, deferRemoval, delta);
    } else {
        asTheyCame = DeltaRemoteVni(msg, group, version, delta);
    }
    if (group.Empty()) {
        _remote.vnis.erase(found);
    }
    return asTheyCame;
}

void StateCacheL2Table::CreateRemoteVni(const L2UpdateMsg& msg, uint32_t vni, uint32_t switchId)
{
    FLOG_VERBOSE("VNI creation: %1", vni);
    const auto group = _remote.vnis.try_emplace(vni).first;
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        if (!mapping.has_type()) {
            // The VNI entry comes as a mapping without type that ADDs.
            ASSERT(mapping.items_size() > 0 && mapping.items(0).op() == L2UpdateMappingItemMsg::ADD);
            if (group->second.First(0) == nullptr) {
                group->second.Insert(0, std::string_view(), 0, 0, switchId);
            }
            continue;
        }
        const uint32_t type = mapping.type();
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            // A VNI begins with what it has; removing from it contradicts that.
            ASSERT(item.op() == L2UpdateMappingItemMsg::ADD);
            FLOG_VERBOSE("add property: %1", item.ShortDebugString());
            const std::string_view value = ValueOf(item, type);
            if (group->second.Find(type, value) == nullptr) {
                group->second.Insert(type, value, ValueKeyOf(item, type), 0, switchId);
            }
        }
    }
    if (group->second.Empty()) {
        _remote.vnis.erase(group);
    }
}

void StateCacheL2Table::FullSyncRemoteVni(const L2UpdateMsg& msg, uint32_t vni, uint32_t switchId, L2Group& group,
                                          uint32_t version, bool deferRemoval, L2UpdateMsg& delta)
{
    FLOG_VERBOSE("VNI fullSync: %1, version is %2", vni, version);
    DeltaMappings mappings{};
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        if (!mapping.has_type()) {
            L2Entry* vniEntry = group.First(0);
            vniEntry->version = version;
            vniEntry->removalTime = L2Entry::kNotStale;
            continue;
        }
        const uint32_t type = mapping.type();
        HashValues(mapping, group);
        for (int i = 0; i < mapping.items_size(); ++i) {
            const L2UpdateMappingItemMsg& item = mapping.items(i);
            const std::string_view value = HashedValue(i);
            const uint32_t hash = _valueHashes[i];
            if (L2Entry* entry = group.Find(hash, type, value)) {
                entry->version = version;
                entry->removalTime = L2Entry::kNotStale;
                continue;
            }
            // A full sync states what there is; it cannot remove what is not there.
            ASSERT(item.op() == L2UpdateMappingItemMsg::ADD);
            FLOG_VERBOSE("add property: %1", item.ShortDebugString());
            group.Insert(hash, type, value, ValueKeyOf(item, type), version, switchId);
            MappingFor(mappings, delta, type, vni, mapping.vn_instance().transport_switch_id())
                ->add_items()
                ->CopyFrom(item);
        }
    }
    // What the full sync did not restate still has the version before it.
    const int64_t now = Now();
    bool marked = false;
    group.ForEach([&](L2Entry* entry) {
        if (entry->version != version - 1) {
            return;
        }
        if (deferRemoval) {
            FLOG_INFO("timeout L2 fullSync removal item vni %1, pType %2", vni, entry->type);
            entry->removalTime = now;
            marked = true;
            return;
        }
        FillItem(*MappingFor(mappings, delta, entry->type, vni, switchId)->add_items(), entry->type, entry->Value(),
                 false);
        FLOG_INFO("remote L2 fullSync removal item vni %1", vni);
        group.Erase(entry);
    });
    if (marked) {
        StartRemovalTimer();
        FLOG_VERBOSE("remote L2 trigger timer");
    }
}

bool StateCacheL2Table::DeltaRemoteVni(const L2UpdateMsg& msg, L2Group& group, uint32_t version, L2UpdateMsg& delta)
{
    const uint32_t switchId = msg.mapping_update(0).vn_instance().transport_switch_id();
    FLOG_VERBOSE("VNI delta update: %1", msg.mapping_update(0).vn_instance().vni());
    // First apply, noting which items changed; then tell those.
    _changed.clear();
    bool everyMappingChanged = true;
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        // A delta changes the properties of a VNI, never the VNI itself.
        ASSERT(mapping.has_type());
        const uint32_t type = mapping.type();
        bool mappingChanged = false;
        HashValues(mapping, group);
        for (int i = 0; i < mapping.items_size(); ++i) {
            const L2UpdateMappingItemMsg& item = mapping.items(i);
            const std::string_view value = HashedValue(i);
            const uint32_t hash = _valueHashes[i];
            L2Entry* entry = group.Find(hash, type, value);
            bool changed = true;
            if (item.op() == L2UpdateMappingItemMsg::DEL) {
                if (entry == nullptr) {
                    FLOG_ERROR("VNIBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing                      "
                               "property: update msg received is %1",
                               msg.ShortDebugString())
                        .AddTag(kMirrorFault);
                    MirrorFault(L2Side::Remote);
                }
                FLOG_VERBOSE("remove property: %1", item.ShortDebugString());
                group.Erase(entry);
            } else if (entry == nullptr) {
                FLOG_VERBOSE("add property: %1", item.ShortDebugString());
                group.Insert(hash, type, value, ValueKeyOf(item, type), version, switchId);
            } else {
                // Re-adding what is there rescues it from a pending removal,
                // and changes nothing the observers know.
                FLOG_VERBOSE("delta update existing property: %1", item.ShortDebugString());
                entry->version = version;
                entry->removalTime = L2Entry::kNotStale;
                changed = false;
            }
            _changed.push_back(changed ? 1 : 0);
            mappingChanged = mappingChanged || changed;
        }
        everyMappingChanged = everyMappingChanged && mappingChanged;
    }
    if (everyMappingChanged && std::find(_changed.begin(), _changed.end(), 0) == _changed.end()) {
        return true;
    }
    size_t next = 0;
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        L2MappingUpdateMsg* told = nullptr;
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            if (_changed[next++] == 0) {
                continue;
            }
            if (told == nullptr) {
                told = delta.add_mapping_update();
                told->set_type(mapping.type());
                told->mutable_vn_instance()->CopyFrom(mapping.vn_instance());
            }
            told->add_items()->CopyFrom(item);
        }
    }
    return false;
}

void StateCacheL2Table::RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2(const L2UpdateMsg& msg, L2UpdateMsg& delta,
                                                                          bool fullSync)
{
    if (msg.routing_vtep_update_size() == 0) {
        FLOG_VERBOSE("RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2 : empty msg");
        return;
    }
    const UuidMsg& id = msg.routing_vtep_update(0).routing_domain_id();
    const std::string key = id.SerializeAsString();
    for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
        // A controller speaks of one routing domain per message.
        ASSERT(update.routing_domain_id().SerializeAsString() == key);
    }
    const auto found = _remote.domains.find(key);
    if (found == _remote.domains.end()) {
        FLOG_VERBOSE("Routing domain creation: %1", id.ShortDebugString());
        const auto group = _remote.domains.try_emplace(key).first;
        for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
            for (const L2UpdateRoutingVtepItemMsg& item : update.items()) {
                // A domain begins with what it has; removing from it contradicts that.
                ASSERT(item.op() == L2UpdateRoutingVtepItemMsg::ADD);
                const std::string value = item.vtep().SerializeAsString();
                if (group->second.Find(0, value) == nullptr) {
                    group->second.Insert(0, value, 0, 0, 0);
                }
            }
        }
        delta.mutable_routing_vtep_update()->MergeFrom(msg.routing_vtep_update());
        if (group->second.Empty()) {
            _remote.domains.erase(group);
        }
        return;
    }
    L2Group& group = found->second;
    uint32_t version = group.First()->version;
    FLOG_VERBOSE("Routing domain version: %1", version);
    L2RoutingVtepUpdateMsg* changed = nullptr;
    const auto changedItem = [&]() {
        if (changed == nullptr) {
            changed = delta.add_routing_vtep_update();
            changed->mutable_routing_domain_id()->CopyFrom(id);
        }
        return changed->add_items();
    };
    if (fullSync) {
        ++version;
        FLOG_VERBOSE("RoutingDomain fullSync: %1, version is %2", id.ShortDebugString(), version);
        for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
            for (const L2UpdateRoutingVtepItemMsg& item : update.items()) {
                const std::string value = item.vtep().SerializeAsString();
                if (L2Entry* entry = group.Find(0, value)) {
                    entry->version = version;
                    continue;
                }
                // A full sync states what there is; it cannot remove what is not there.
                ASSERT(item.op() == L2UpdateRoutingVtepItemMsg::ADD);
                group.Insert(0, value, 0, version, 0);
                changedItem()->CopyFrom(item);
            }
        }
        group.ForEach([&](L2Entry* entry) {
            if (entry->version == version - 1) {
                FillVtepItem(*changedItem(), entry->Value(), false);
                FLOG_INFO("remote L2 fullSync removal item routing %1", id.ShortDebugString());
                group.Erase(entry);
            }
        });
    } else {
        FLOG_VERBOSE("Routing domain delta update: %1", id.ShortDebugString());
        for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
            for (const L2UpdateRoutingVtepItemMsg& item : update.items()) {
                const std::string value = item.vtep().SerializeAsString();
                L2Entry* entry = group.Find(0, value);
                if (item.op() == L2UpdateRoutingVtepItemMsg::DEL) {
                    if (entry == nullptr) {
                        FLOG_ERROR("RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing                       "
                                   "property: update msg received is %1",
                                   msg.ShortDebugString())
                            .AddTag(kMirrorFault);
                        MirrorFault(L2Side::Remote);
                    }
                    group.Erase(entry);
                } else if (entry == nullptr) {
                    group.Insert(0, value, 0, version, 0);
                } else {
                    continue;
                }
                changedItem()->CopyFrom(item);
            }
        }
    }
    if (group.Empty()) {
        _remote.domains.erase(found);
    }
}

// ---- local updates ----

void StateCacheL2Table::AtomicUpdateLocalL2Cache(const L2UpdateMsg& msg, bool fullSync)
{
    AssertLockDiscipline();
    google::protobuf::Arena arena;
    L2UpdateMsg& delta = *NewDelta(arena);
    bool mappingsAsTheyCame = false;
    if (msg.mapping_update_size() > 0) {
        mappingsAsTheyCame = VNIBaseAtomicUpdateLocalL2CacheByZunL2(msg, fullSync, delta);
    }
    if (msg.routing_vtep_update_size() > 0) {
        RoutingDomainBaseAtomicUpdateLocalL2CacheByZunL2(msg, fullSync, delta);
    }
    TellChanges(msg, mappingsAsTheyCame, delta, false);
}

bool StateCacheL2Table::VNIBaseAtomicUpdateLocalL2CacheByZunL2(const L2UpdateMsg& msg, bool fullSync,
                                                               L2UpdateMsg& delta)
{
    if (msg.mapping_update_size() == 0 && !fullSync) {
        FLOG_VERBOSE("VNIBaseAtomicUpdateLocalL2CacheByZunL2 : empty msg");
        return false;
    }
    if (fullSync) {
        FullSyncLocalVnis(msg, delta);
        return false;
    }
    DeltaLocalVni(msg);
    // The data path's delta is exact: it goes on as it came.
    return true;
}

void StateCacheL2Table::DeltaLocalVni(const L2UpdateMsg& msg)
{
    FLOG_VERBOSE("delta update: %1", msg.ShortDebugString());
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        const uint32_t vni = mapping.vn_instance().vni();
        const uint32_t switchId = mapping.vn_instance().transport_switch_id();
        auto found = _local.vnis.find(vni);
        if (!mapping.has_type()) {
            // The data path joins or leaves a VNI with a mapping without type
            // whose first item says which.
            ASSERT(mapping.items_size() > 0);
            const bool present = found != _local.vnis.end() && found->second.First(0) != nullptr;
            if (mapping.items(0).op() == L2UpdateMappingItemMsg::ADD) {
                FLOG_VERBOSE("add vni entry: %1", vni);
                if (present) {
                    FLOG_ERROR("add duplicated vni entry: %1", vni).AddTag(kMirrorFault);
                    MirrorFault(L2Side::Local);
                }
                _local.vnis.try_emplace(vni).first->second.Insert(0, std::string_view(), 0, _localVersion, switchId);
            } else {
                if (!present) {
                    FLOG_ERROR("leave non-existing vni entry: %1", vni).AddTag(kMirrorFault);
                    MirrorFault(L2Side::Local);
                }
                found->second.ForEach([vni](const L2Entry*) { FLOG_VERBOSE("remove vni entry: %1", vni); });
                _local.vnis.erase(found);
            }
            continue;
        }
        const uint32_t type = mapping.type();
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            const std::string_view value = ValueOf(item, type);
            L2Entry* entry = found != _local.vnis.end() ? found->second.Find(type, value) : nullptr;
            if (item.op() == L2UpdateMappingItemMsg::DEL) {
                if (entry == nullptr) {
                    FLOG_ERROR("delete non-existing vni entry: %1", item.ShortDebugString()).AddTag(kMirrorFault);
                    MirrorFault(L2Side::Local);
                }
                FLOG_VERBOSE("remove property: %1", item.ShortDebugString());
                found->second.Erase(entry);
                if (found->second.Empty()) {
                    _local.vnis.erase(found);
                    found = _local.vnis.end();
                }
            } else if (entry == nullptr) {
                FLOG_VERBOSE("add property: %1", item.ShortDebugString());
                found = _local.vnis.try_emplace(vni).first;
                found->second.Insert(type, value, ValueKeyOf(item, type), _localVersion, switchId);
            }
        }
    }
}

void StateCacheL2Table::FullSyncLocalVnis(const L2UpdateMsg& msg, L2UpdateMsg& delta)
{
    ++_localVersion;
    FLOG_VERBOSE("local l2 fullSync version is %1", _localVersion);
    std::map<uint32_t, DeltaMappings> mappings;  // by VNI
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        const uint32_t vni = mapping.vn_instance().vni();
        const uint32_t switchId = mapping.vn_instance().transport_switch_id();
        L2Group& group = _local.vnis.try_emplace(vni).first->second;
        if (!mapping.has_type()) {
            // A full sync states what there is, the VNI entry with an ADD.
            ASSERT(mapping.items_size() > 0 && mapping.items(0).op() == L2UpdateMappingItemMsg::ADD);
            if (L2Entry* vniEntry = group.First(0)) {
                vniEntry->version = _localVersion;
            } else {
                group.Insert(0, std::string_view(), 0, _localVersion, switchId);
                MappingFor(mappings[vni], delta, 0, vni, switchId)->add_items()->set_op(L2UpdateMappingItemMsg::ADD);
            }
            continue;
        }
        const uint32_t type = mapping.type();
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            const std::string_view value = ValueOf(item, type);
            if (L2Entry* entry = group.Find(type, value)) {
                entry->version = _localVersion;
                continue;
            }
            ASSERT(item.op() == L2UpdateMappingItemMsg::ADD);
            group.Insert(type, value, ValueKeyOf(item, type), _localVersion, switchId);
            MappingFor(mappings[vni], delta, type, vni, switchId)->add_items()->CopyFrom(item);
        }
    }
    // Whatever the data path did not restate is gone, in every VNI.
    for (auto vni = _local.vnis.begin(); vni != _local.vnis.end();) {
        vni->second.ForEach([&](L2Entry* entry) {
            if (entry->version == _localVersion - 1) {
                FillItem(*MappingFor(mappings[vni->first], delta, entry->type, vni->first, entry->switchId)->add_items(),
                         entry->type, entry->Value(), false);
                vni->second.Erase(entry);
            }
        });
        vni = vni->second.Empty() ? _local.vnis.erase(vni) : std::next(vni);
    }
}

void StateCacheL2Table::RoutingDomainBaseAtomicUpdateLocalL2CacheByZunL2(const L2UpdateMsg& msg, bool fullSync,
                                                                         L2UpdateMsg& delta)
{
    for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
        // The data path has one DR VTEP, of no routing domain.
        ASSERT(!update.has_routing_domain_id());
    }
    if (msg.routing_vtep_update_size() == 0) {
        // A full sync always restates the DR VTEP.
        ASSERT(!fullSync);
        FLOG_VERBOSE("RoutingDomainBaseAtomicUpdateLocalL2CacheByZunL2 : empty msg");
        return;
    }
    if (fullSync) {
        // ... as exactly one VTEP.
        ASSERT(msg.routing_vtep_update_size() == 1);
        const L2RoutingVtepUpdateMsg& update = msg.routing_vtep_update(0);
        ASSERT(update.items_size() == 1 && update.items(0).op() == L2UpdateRoutingVtepItemMsg::ADD);
        const L2UpdateVtepMsg& vtep = update.items(0).vtep();
        if (vtep.SerializeAsString() == _drVtep.SerializeAsString()) {
            return;
        }
        L2RoutingVtepUpdateMsg* changed = delta.add_routing_vtep_update();
        L2UpdateRoutingVtepItemMsg* removed = changed->add_items();
        removed->set_op(L2UpdateRoutingVtepItemMsg::DEL);
        removed->mutable_vtep()->CopyFrom(_drVtep);
        L2UpdateRoutingVtepItemMsg* added = changed->add_items();
        added->set_op(L2UpdateRoutingVtepItemMsg::ADD);
        added->mutable_vtep()->CopyFrom(vtep);
        _drVtep.CopyFrom(vtep);
        return;
    }
    for (const L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
        for (const L2UpdateRoutingVtepItemMsg& item : update.items()) {
            const bool held = item.vtep().SerializeAsString() == _drVtep.SerializeAsString();
            if (item.op() == L2UpdateRoutingVtepItemMsg::DEL) {
                if (!held) {
                    FLOG_ERROR("delete no-existing DR VTEP: %1, local is %2", item.vtep().ShortDebugString(),
                               _drVtep.ShortDebugString())
                        .AddTag(kMirrorFault);
                    MirrorFault(L2Side::Local);
                }
                _drVtep.Clear();
            } else {
                if (held) {
                    FLOG_ERROR("add existing DR VTEP: %1, local is %2", item.vtep().ShortDebugString(),
                               _drVtep.ShortDebugString())
                        .AddTag(kMirrorFault);
                    MirrorFault(L2Side::Local);
                }
                // A second host VTEP replaces the first without a DEL.
                _drVtep.CopyFrom(item.vtep());
            }
        }
    }
    delta.mutable_routing_vtep_update()->MergeFrom(msg.routing_vtep_update());
}

// ---- removal ----

bool StateCacheL2Table::RemoveRemoteL2ForVni(uint32_t vni)
{
    AssertLockDiscipline();
    FLOG_VERBOSE("Remove remote L2 forwarding table for VNI %1", vni);
    const auto found = _remote.vnis.find(vni);
    if (found == _remote.vnis.end()) {
        FLOG_VERBOSE("property does not exist for vni : %1", vni);
        return false;
    }
    google::protobuf::Arena arena;
    L2UpdateMsg& gone = *NewDelta(arena);
    found->second.ForEach([&](const L2Entry* entry) {
        if (entry->type != 0) {
            L2MappingUpdateMsg* mapping = gone.add_mapping_update();
            SetInstance(*mapping, entry->type, vni, entry->switchId);
            FillItem(*mapping->add_items(), entry->type, entry->Value(), false);
        }
    });
    // Then the VNI itself.
    const L2Entry* first = found->second.First();
    L2MappingUpdateMsg* last = gone.add_mapping_update();
    SetInstance(*last, 0, vni, first->switchId);
    last->add_items()->set_op(L2UpdateMappingItemMsg::DEL);
    _remote.vnis.erase(found);
    Notify(_remoteObservers, true, gone);
    return true;
}

bool StateCacheL2Table::RemoveRemoteL2ForRoutingDomain(const UuidMsg& id)
{
    AssertLockDiscipline();
    FLOG_VERBOSE("Remove remote L2 forwarding table for routing domain ID %1", id.ShortDebugString());
    const auto found = _remote.domains.find(id.SerializeAsString());
    if (found == _remote.domains.end()) {
        FLOG_VERBOSE("property does not exist for routing domain ID : %1", id.ShortDebugString());
        return false;
    }
    google::protobuf::Arena arena;
    L2UpdateMsg& gone = *NewDelta(arena);
    found->second.ForEach([&](const L2Entry* entry) {
        if (entry->size != 0) {
            L2RoutingVtepUpdateMsg* update = gone.add_routing_vtep_update();
            update->mutable_routing_domain_id()->CopyFrom(id);
            FillVtepItem(*update->add_items(), entry->Value(), false);
        }
    });
    // Then the domain itself.
    L2RoutingVtepUpdateMsg* last = gone.add_routing_vtep_update();
    last->mutable_routing_domain_id()->CopyFrom(id);
    last->add_items()->set_op(L2UpdateRoutingVtepItemMsg::DEL);
    _remote.domains.erase(found);
    Notify(_remoteObservers, true, gone);
    return true;
}

bool StateCacheL2Table::CancelL2Timeout(uint32_t vni)
{
    AssertLockDiscipline();
    FLOG_INFO("Cancel L2 timeout for VNI %1", vni);
    const auto found = _remote.vnis.find(vni);
    if (found == _remote.vnis.end()) {
        FLOG_INFO("Cancel L2 timeout for non-existing vni : %1", vni);
        return false;
    }
    found->second.ForEach([](L2Entry* entry) { entry->removalTime = L2Entry::kNotStale; });
    return true;
}

void StateCacheL2Table::L2RemoteCacheTimeout()
{
    FLOG_INFO("L2RemoteCacheTimeout triggered");
    ZUNChannel::GlobalLockGuard lock;
    const int64_t now = Now();
    bool youngLeft = false;
    google::protobuf::Arena arena;
    L2UpdateMsg& gone = *NewDelta(arena);
    // Only VNI items are ever marked stale.
    for (auto vni = _remote.vnis.begin(); vni != _remote.vnis.end();) {
        vni->second.ForEach([&](L2Entry* entry) {
            if (!entry->IsStale()) {
                return;
            }
            if (now - entry->removalTime < kRemovalAgeMicroseconds) {
                youngLeft = true;
                return;
            }
            FLOG_INFO("remote L2 properties is timeout-ed vni %1, pType is %2", vni->first, entry->type);
            L2MappingUpdateMsg* mapping = gone.add_mapping_update();
            SetInstance(*mapping, entry->type, vni->first, entry->switchId);
            L2UpdateMappingItemMsg* item = mapping->add_items();
            FillItem(*item, entry->type, entry->Value(), false);
            if (entry->type != 0) {
                FLOG_INFO("L2 remove timeout-ed properties vni %1, pType is %2, msg is %3", vni->first, entry->type,
                          item->ShortDebugString());
            }
            vni->second.Erase(entry);
        });
        vni = vni->second.Empty() ? _remote.vnis.erase(vni) : std::next(vni);
    }
    if (gone.mapping_update_size() > 0) {
        Notify(_remoteObservers, true, gone);
    }
    if (youngLeft) {
        StartRemovalTimer();
    }
}

// ---- queries ----

bool StateCacheL2Table::QueryFullByVni(const Cache& cache, uint32_t vni, bool withVniEntryItem,
                                       L2UpdateMsg& msg) const
{
    const auto found = cache.vnis.find(vni);
    if (found == cache.vnis.end()) {
        FLOG_VERBOSE("property does not exist: vni : %1", vni);
        return false;
    }
    DeltaMappings mappings{};
    found->second.ForEach([&](const L2Entry* entry) {
        L2MappingUpdateMsg* mapping = MappingFor(mappings, msg, entry->type, vni, entry->switchId);
        if (entry->type != 0) {
            FillItem(*mapping->add_items(), entry->type, entry->Value(), true);
        } else if (withVniEntryItem) {
            mapping->add_items()->set_op(L2UpdateMappingItemMsg::ADD);
        }
    });
    return true;
}

bool StateCacheL2Table::QueryLocalL2FullCacheByVNI(uint32_t vni, L2UpdateMsg& msg)
{
    AssertLockDiscipline();
    if (!QueryFullByVni(_local, vni, true, msg)) {
        return false;
    }
    FLOG_VERBOSE("StateCacheL2Table::QueryLocalL2FullCacheByVNI vni: %1, msg: %2, msg size: %3", vni,
                 msg.ShortDebugString(), msg.ByteSizeLong());
    return true;
}

bool StateCacheL2Table::QueryRemoteL2FullCacheByVNI(uint32_t vni, L2UpdateMsg& msg)
{
    AssertLockDiscipline();
    return QueryFullByVni(_remote, vni, false, msg);
}

bool StateCacheL2Table::QueryRemoteL2ByKey(uint32_t vni, uint32_t type, uint64_t valueKey, L2CacheItem& item)
{
    AssertLockDiscipline();
    const auto found = _remote.vnis.find(vni);
    if (found != _remote.vnis.end() && type < L2Group::kTypeCount) {
        for (const L2Entry* entry = found->second.First(type); entry != nullptr; entry = entry->next) {
            if (entry->valueKey == valueKey) {
                item = CopyOut(L2CacheItem::VNI_ITEM, vni, std::string(), *entry);
                return true;
            }
        }
    }
    FLOG_VERBOSE("property does not exist: vni : %1 , type: %2, valueKey: %3", vni, type, valueKey);
    return false;
}

const L2Entry* StateCacheL2Table::FirstOfType(const Cache& cache, uint32_t vni, uint32_t type) const
{
    const auto found = cache.vnis.find(vni);
    const L2Entry* first =
        found != cache.vnis.end() && type < L2Group::kTypeCount ? found->second.First(type) : nullptr;
    if (first == nullptr) {
        FLOG_VERBOSE("property does not exist: vni : %1 , type: %2", vni, type);
    }
    return first;
}

bool StateCacheL2Table::QueryL2Values(uint32_t vni, uint32_t type, L2Side side, std::vector<std::string>& values)
{
    AssertLockDiscipline();
    const L2Entry* first = FirstOfType(CacheOf(side), vni, type);
    for (const L2Entry* entry = first; entry != nullptr; entry = entry->next) {
        values.emplace_back(entry->Value());
    }
    return first != nullptr;
}

bool StateCacheL2Table::QueryL2Items(uint32_t vni, uint32_t type, L2Side side,
                                     std::vector<L2UpdateMappingItemMsg>& items)
{
    AssertLockDiscipline();
    const L2Entry* first = FirstOfType(CacheOf(side), vni, type);
    for (const L2Entry* entry = first; entry != nullptr; entry = entry->next) {
        items.emplace_back();
        FillItem(items.back(), type, entry->Value(), true);
    }
    return first != nullptr;
}

bool StateCacheL2Table::GetLocalSwitchId(uint32_t vni, uint32_t type, uint32_t& switchId)
{
    AssertLockDiscipline();
    const L2Entry* first = FirstOfType(_local, vni, type);
    if (first != nullptr) {
        switchId = first->switchId;
    }
    return first != nullptr;
}

void StateCacheL2Table::ReadAll(const Cache& cache, bool withVniEntryItem, L2UpdateMsg& msg) const
{
    for (const auto& vni : cache.vnis) {
        QueryFullByVni(cache, vni.first, withVniEntryItem, msg);  // found: it is there
    }
    for (const auto& [key, group] : cache.domains) {
        L2RoutingVtepUpdateMsg* update = msg.add_routing_vtep_update();
        update->mutable_routing_domain_id()->ParseFromArray(key.data(), static_cast<int>(key.size()));
        group.ForEach([update](const L2Entry* entry) { FillVtepItem(*update->add_items(), entry->Value(), true); });
    }
}

bool StateCacheL2Table::ReadAllRemote(L2UpdateMsg& msg)
{
    AssertLockDiscipline();
    ReadAll(_remote, true, msg);
    return !IsEmpty(msg);
}

bool StateCacheL2Table::ReadAllLocal(L2UpdateMsg& msg)
{
    AssertLockDiscipline();
    ReadAll(_local, true, msg);
    return !IsEmpty(msg);
}

L2CacheItem StateCacheL2Table::CopyOut(int32_t kind, uint32_t vni, const std::string& domain,
                                       const L2Entry& entry) const
{
    L2CacheItem item;
    item.kind = kind;
    item.routingDomain = domain;
    item.vni = vni;
    item.switchId = entry.switchId;
    item.propertyType = entry.type;
    item.value.assign(entry.Value());
    item.valueKey = entry.valueKey;
    item.version = entry.version;
    if (entry.IsStale()) {
        item.removalTime = std::chrono::steady_clock::time_point(std::chrono::microseconds(entry.removalTime));
    }
    return item;
}

void StateCacheL2Table::QueryAllL2Items(L2Side side, std::vector<L2CacheItem>& items)
{
    AssertLockDiscipline();
    const Cache& cache = CacheOf(side);
    for (const auto& [vni, group] : cache.vnis) {
        group.ForEach([&, vni = vni](const L2Entry* entry) {
            items.push_back(CopyOut(L2CacheItem::VNI_ITEM, vni, std::string(), *entry));
        });
    }
    for (const auto& [key, group] : cache.domains) {
        group.ForEach([&, key = key](const L2Entry* entry) {
            items.push_back(CopyOut(L2CacheItem::ROUTING_DOMAIN_ITEM, 0, key, *entry));
        });
    }
}

bool StateCacheL2Table::QueryRoutingDomainVteps(const UuidMsg& id, std::vector<L2UpdateVtepMsg>& vteps)
{
    AssertLockDiscipline();
    const auto found = _remote.domains.find(id.SerializeAsString());
    if (found == _remote.domains.end()) {
        FLOG_VERBOSE("property does not exist: routing domain : %1", id.ShortDebugString());
        return false;
    }
    found->second.ForEach([&](const L2Entry* entry) {
        if (entry->size != 0) {
            vteps.emplace_back();
            vteps.back().ParseFromArray(entry->Value().data(), static_cast<int>(entry->size));
        }
    });
    return true;
}

void StateCacheL2Table::ListRoutingDomains(std::vector<UuidMsg>& ids)
{
    AssertLockDiscipline();
    for (const auto& domain : _remote.domains) {
        ids.emplace_back();
        ids.back().ParseFromString(domain.first);
    }
}

void StateCacheL2Table::ListVnis(L2Side side, std::vector<uint32_t>& vnis)
{
    AssertLockDiscipline();
    for (const auto& vni : CacheOf(side).vnis) {
        vnis.push_back(vni.first);
    }
}

bool StateCacheL2Table::GetDRVtep(L2UpdateVtepMsg& vtep)
{
    AssertLockDiscipline();
    if (_drVtep.ByteSizeLong() == 0) {
        return false;
    }
    vtep.CopyFrom(_drVtep);
    return true;
}

// ---- dumps ----

void StateCacheL2Table::DumpLocal()
{
    AssertLockDiscipline();
    FLOG_VERBOSE("Dump L2 local StateCache");
    // The data path has no routing domains, only its DR VTEP.
    ASSERT(_local.domains.empty());
    if (LogLevelEnabled(LOGLEVEL_VERBOSE)) {
        for (const auto& [vni, group] : _local.vnis) {
            group.ForEach([&, vni = vni](const L2Entry* entry) {
                L2UpdateMappingItemMsg item;
                FillItem(item, entry->type, entry->Value(), true);
                FLOG_VERBOSE(
                    "vni is : %1, switchId : %2, PropertyType is %3,FullsyncVersion is %4, PropertyValueKey is %5, "
                    "PropertyValue is %6",
                    vni, entry->switchId, entry->type, entry->version, entry->valueKey,
                    entry->type == 0 ? std::string() : item.ShortDebugString());
            });
        }
    }
    FLOG_VERBOSE("DR VTEP is : %1", _drVtep.ShortDebugString());
}

void StateCacheL2Table::DumpRemote()
{
    AssertLockDiscipline();
    FLOG_VERBOSE("Dump L2 remote StateCache");
    if (!LogLevelEnabled(LOGLEVEL_VERBOSE)) {
        return;
    }
    for (const auto& [vni, group] : _remote.vnis) {
        group.ForEach([&, vni = vni](const L2Entry* entry) {
            L2UpdateMappingItemMsg item;
            FillItem(item, entry->type, entry->Value(), true);
            FLOG_VERBOSE(
                "vni is : %1, PropertyType is %2,FullsyncVersion is %3, PropertyValueKey is %4, PropertyValue is %5",
                vni, entry->type, entry->version, entry->valueKey,
                entry->type == 0 ? std::string() : item.ShortDebugString());
        });
    }
    for (const auto& [key, group] : _remote.domains) {
        const std::string id = DomainText(key);
        group.ForEach([&](const L2Entry* entry) {
            L2UpdateVtepMsg vtep;
            vtep.ParseFromArray(entry->Value().data(), static_cast<int>(entry->size));
            FLOG_VERBOSE("routingDomain is : %1, FullsyncVersion is %2, PropertyValue is %3", id, entry->version,
                         vtep.ShortDebugString());
        });
    }
}

}  // namespace FenREL
