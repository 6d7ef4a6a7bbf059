#include "L2App.h"

#include <algorithm>
#include <cstdlib>

#include <google/protobuf/arena.h>

#include "Assert.h"
#include "CPDomainManager.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "L2CtrlMsg.h"
#include "Logger.h"
#include "RemoteSessionUpdate.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"
#include "Uuid.h"
#include "config_entity_properties.pb.h"

namespace FenREL {

using ZUNChannel::ConnKey;
using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlSession;
using ZUNChannel::IsLockAvailable;
namespace l2 = com::corvid::zun::l2;
namespace config = com::corvid::zun::config;

namespace {

using MappingItem = l2::L2UpdateMappingItemMsg;
using RoutingVtepItem = l2::L2UpdateRoutingVtepItemMsg;

// The arena's blocks for a received update: a delta of a hundred MACs takes
// some 15 KB of objects, so most take one block.
constexpr size_t kUpdateArenaBlock = 16 * 1024;

std::string UuidText(const com::corvid::zun::UuidMsg& id)
{
    return ZUNChannel::UUID::FromHalves(id.left(), id.right()).ToString();
}

std::string UuidText(const std::string& serialised)
{
    com::corvid::zun::UuidMsg id;
    id.ParseFromString(serialised);
    return UuidText(id);
}

std::string SessionStateText(uint32_t state)
{
    switch (state) {
    case CPDomainManager::CP_SESSION_UP:
        return "up";
    case CPDomainManager::CP_SESSION_DOWN:
        return "down";
    default:
        return std::to_string(state);
    }
}

// The two elements that state a routing domain's VTEP: the first with an item
// that holds only `op` (for ADD the full-sync marker), the second with `op`
// and the VTEP.
void AppendRoutingVteps(l2::L2UpdateMsg& msg, const com::corvid::zun::UuidMsg& domainId, RoutingVtepItem::Operation op,
                        const l2::L2UpdateVtepMsg& vtep)
{
    l2::L2RoutingVtepUpdateMsg* marker = msg.add_routing_vtep_update();
    *marker->mutable_routing_domain_id() = domainId;
    marker->add_items()->set_op(op);
    l2::L2RoutingVtepUpdateMsg* entry = msg.add_routing_vtep_update();
    *entry->mutable_routing_domain_id() = domainId;
    RoutingVtepItem* item = entry->add_items();
    item->set_op(op);
    *item->mutable_vtep() = vtep;
}

}  // namespace

L2App::L2App()
    : MultiControllerApp(ZUNChannel::APP_ID_L2, 0, "L2App"),
      _l2Table(StateCache::GetInstance()->GetL2Table()),
      _configTable(StateCache::GetInstance()->GetConfigTable()),
      _remoteSessionTable(StateCache::GetInstance()->GetRemoteSessionTable())
{
}

L2App::~L2App() = default;

void L2App::Start()
{
    ASSERT(IsLockAvailable());
    boost::intrusive_ptr<L2App> self(this);
    CPDomainManager::Get()->RegisterPhysicalMasterSessionObserver(
        GetKey(), [self](const boost::intrusive_ptr<CtrlSession>& session, uint32_t state) {
            self->ProcessSessionStatus(session, state);
        });
    _configTable->RegisterRemoteCacheObserver(config::LOG_SWITCH, this);
}

boost::intrusive_ptr<NewVirtualNetwork> L2App::FindVirtualNetwork(uint32_t vni) const
{
    const auto found = _virtualNetworks.find(vni);
    return found == _virtualNetworks.end() ? nullptr : found->second;
}

// ---- hello ----

uint16_t L2App::WriteFeatureData(uint8_t* buffer)
{
    ASSERT(IsLockAvailable());
    return L2HelloFeature::WriteFeatureData(buffer, _name);
}

bool L2App::CheckFeatureData(const uint8_t* tlv)
{
    ASSERT(IsLockAvailable());
    return L2HelloFeature::CheckFeatureData(tlv, _name);
}

void L2App::ApplyHelloFeature(const uint8_t* tlv)
{
    ASSERT(IsLockAvailable());
    _hello.ApplyHelloFeature(tlv, ZUNChannel::CtrlConnPool::Get()->GetMaxPktLen(), _name);
}

// ---- the master session and what the host sends ----

void L2App::ProcessSessionStatus(const boost::intrusive_ptr<CtrlSession>& session, uint32_t state)
{
    ASSERT(IsLockAvailable());
    FLOG_INFO("%1: received session %2 from controller %3", _name, SessionStateText(state),
              session ? session->GetKey().ToString() : std::string("null"));
    if (state == CPDomainManager::CP_SESSION_UP) {
        _session = session;
        SendLocalFullSync();
        for (const auto& entry : _virtualNetworks) {
            // Every VNI waits for the controller's full sync on a new session:
            // the down report, or no session before, reset them all.
            ASSERT(entry.second->GetFullSyncState() == NewVirtualNetwork::FULL_SYNC_PENDING);
            ASSERT(_session && _session->IsReady());
        }
    } else if (state == CPDomainManager::CP_SESSION_DOWN) {
        for (const auto& [vni, network] : _virtualNetworks) {
            network->SetFullSyncState(NewVirtualNetwork::FULL_SYNC_PENDING);
            _remoteSessionTable->UpdateSessionState(RemoteSessionUpdate::L2_SESSION, vni,
                                                    RemoteSessionUpdate::STATE_DOWN);
        }
        _session.reset();
    }
}

bool L2App::Send(uint8_t* message)
{
    return ZUNChannel::CtrlSession::SendOrReset(_session, message, _name, "LCP00405");
}

void L2App::SendLocalFullSync()
{
    L2UpdateMsg msg;
    _l2Table->ReadAllLocal(msg);
    l2::L2UpdateVtepMsg vtep;
    if (!_routingDomains.empty() && _l2Table->GetDRVtep(vtep)) {
        for (const auto& entry : _routingDomains) {
            AppendRoutingVteps(msg, entry.second.id, RoutingVtepItem::ADD, vtep);
        }
    }
    ZUNChannel::CtrlMsgFragmenter::Frames frames =
        L2CtrlMsg::UpdateFrames(_id, msg, ZUNChannel::CtrlConnPool::Get()->GetMaxPktLen());
    // A message that needs cutting always makes two fragments or more.
    if (frames.size() == 1) {
        if (!Send(frames.front().release())) {
            FLOG_ERROR("%1: failed to send update to controller", _name).AddTag("errorCode:LCP00404");
        }
        return;
    }
    for (ZUNChannel::CtrlMsgBuffer& frame : frames) {
        if (!Send(frame.release())) {
            FLOG_ERROR("%1: failed to send fragment update to controller", _name).AddTag("errorCode:LCP00404");
        }
    }
}

void L2App::ProcessLocalUpdate(const L2UpdateMsg& update)
{
    ASSERT(IsLockAvailable());
    L2UpdateMsg out;
    for (const l2::L2MappingUpdateMsg& mapping : update.mapping_update()) {
        *out.add_mapping_update() = mapping;
        if (!L2CtrlMsg::IsVniEntry(mapping)) {
            continue;
        }
        const bool join = L2CtrlMsg::IsVniEntryAdd(mapping, _name);
        const NewVirtualNetwork::Instance instance{mapping.vn_instance().transport_switch_id(),
                                                   mapping.vn_instance().vni()};
        FLOG_VERBOSE("%1: vni entry received, vni %2, op %3", _name, instance.vni, join ? "join" : "leave");
        if (join) {
            Join(instance);
        } else {
            Leave(instance);
        }
    }
    AddLocalRoutingVteps(update, out);
    if (!_session) {
        FLOG_INFO("%1: Session is not established", _name);
        return;
    }
    if (!Send(L2CtrlMsg::BuildUpdate(_id, out))) {
        FLOG_ERROR("%1: failed to send update to controller", _name).AddTag("errorCode:LCP00404");
    }
}

void L2App::Join(const NewVirtualNetwork::Instance& instance)
{
    boost::intrusive_ptr<NewVirtualNetwork>& network = _virtualNetworks[instance.vni];
    if (!network) {
        network = new NewVirtualNetwork(instance.vni);
    }
    if (!network->AddInstance(instance)) {
        FLOG_VERBOSE("%1: receive two Joins for switch %2 VNI %3, ignore the second Join message", _name,
                     instance.switchId, instance.vni);
    }
    _remoteSessionTable->UpdateSessionState(RemoteSessionUpdate::L2_SESSION, instance.vni,
                                            RemoteSessionUpdate::STATE_INIT);
}

void L2App::Leave(const NewVirtualNetwork::Instance& instance)
{
    const auto found = _virtualNetworks.find(instance.vni);
    if (found == _virtualNetworks.end()) {
        return;
    }
    boost::intrusive_ptr<NewVirtualNetwork> network = found->second;
    network->DelInstance(instance);
    network->SetFullSyncState(NewVirtualNetwork::FULL_SYNC_PENDING);
    // The VNI's remote state goes even while another switch keeps it joined.
    _remoteSessionTable->RemoveSession(RemoteSessionUpdate::L2_SESSION, instance.vni);
    _l2Table->RemoveRemoteL2ForVni(instance.vni);
    if (!network->HasInstances()) {
        _virtualNetworks.erase(found);
    }
}

void L2App::AddLocalRoutingVteps(const L2UpdateMsg& local, L2UpdateMsg& out)
{
    for (const l2::L2RoutingVtepUpdateMsg& element : local.routing_vtep_update()) {
        for (const auto& entry : _routingDomains) {
            l2::L2RoutingVtepUpdateMsg* target = out.add_routing_vtep_update();
            *target->mutable_routing_domain_id() = entry.second.id;
            if (!_routingVtepMarkerSent) {
                target->add_items()->set_op(RoutingVtepItem::ADD);
                target = out.add_routing_vtep_update();
                *target->mutable_routing_domain_id() = entry.second.id;
                _routingVtepMarkerSent = true;
            }
            for (const RoutingVtepItem& item : element.items()) {
                // The data path always names the VTEP it adds or removes.
                ASSERT(item.has_vtep());
                *target->add_items() = item;
            }
        }
    }
}

// ---- what a controller sends ----

void L2App::HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    const uint16_t type = CtrlMsg::Type(message);
    switch (type) {
    case L2CtrlMsg::kTypeUpdate:
        FLOG_INFO("%1: receive UPDATE from controller %2", _name, key);
        HandleUpdate(message, size, key);
        break;
    case L2CtrlMsg::kTypeNotification:
        FLOG_INFO("%1: receive NOTIFICATION from controller %2", _name, key);
        HandleNotification(message, size, key);
        break;
    default:
        FLOG_VERBOSE("%1: unknown message from controller (type %2)", _name, type);
        break;
    }
}

void L2App::HandleUpdate(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    if (!_session || _session->GetKey() != key) {
        FLOG_WARNING("%1: Session mismatching for controller %2, existing: %3 ", _name, key,
                     _session ? _session->GetKey().ToString() : std::string("null"));
        FLOG_WARNING("%1: failed to validate update message", _name);
        return;
    }
    // An update's small objects (four per item) come from one arena and go
    // with it at once, rather than one allocation and one free each.
    google::protobuf::ArenaOptions blocks;
    blocks.start_block_size = kUpdateArenaBlock;
    blocks.max_block_size = kUpdateArenaBlock;
    google::protobuf::Arena arena(blocks);
    L2UpdateMsg& update = *google::protobuf::Arena::CreateMessage<L2UpdateMsg>(&arena);
    uint32_t length = 0;
    if (!L2CtrlMsg::ParseUpdate(message, size, update, length)) {
        FLOG_ERROR("%1: Invalid update message received from %2 of length %3", _name, key, length)
            .AddTag("errorCode:LCP00409");
        return;
    }
    switch (ClassifyUpdate(update)) {
    case UpdateKind::Drop:
        break;
    case UpdateKind::FullSync:
        ApplyRemoteFullSync(update, key);
        break;
    case UpdateKind::Delta:
        FLOG_INFO("%1: L2 delta update message is :%2", _name, update.DebugString());
        _l2Table->AtomicUpdateRemoteL2Cache(update, false, false);
        break;
    }
}

L2App::UpdateKind L2App::ClassifyUpdate(L2UpdateMsg& update)
{
    if (update.mapping_update_size() > 0) {
        UpdateKind kind = UpdateKind::Delta;
        for (int i = 0; i < update.mapping_update_size(); ++i) {
            l2::L2MappingUpdateMsg* mapping = update.mutable_mapping_update(i);
            const uint32_t vni = mapping->vn_instance().vni();
            if (!FindVirtualNetwork(vni)) {
                FLOG_VERBOSE("%1: receive update after vni leave, VNI %2 ", _name, vni);
                return UpdateKind::Drop;
            }
            uint32_t switchId = 0;
            if (_l2Table->GetLocalSwitchId(vni, 0, switchId)) {
                mapping->mutable_vn_instance()->set_transport_switch_id(switchId);
            }
            if (L2CtrlMsg::IsVniEntry(*mapping) && L2CtrlMsg::IsVniEntryAdd(*mapping, _name)) {
                if (i != 0) {
                    FLOG_ERROR("%1: Invalid vni entry update message received from controller", _name)
                        .AddTag("errorCode:LCP00409");
                    return UpdateKind::Drop;
                }
                kind = UpdateKind::FullSync;
            }
        }
        return kind;
    }
    if (update.routing_vtep_update_size() > 0) {
        const l2::L2RoutingVtepUpdateMsg& first = update.routing_vtep_update(0);
        if (_routingDomains.count(first.routing_domain_id().SerializeAsString()) == 0) {
            FLOG_VERBOSE("%1: receive update after routing domain delete, routing domain ID is %2 ", _name,
                         UuidText(first.routing_domain_id()));
            return UpdateKind::Drop;
        }
        if (first.items_size() > 0 && !first.items(0).has_vtep()) {
            return UpdateKind::FullSync;
        }
    }
    return UpdateKind::Delta;
}

void L2App::ApplyRemoteFullSync(const L2UpdateMsg& update, const ConnKey& key)
{
    FLOG_INFO("%1: L2 full sync update message is :%2", _name, update.DebugString());
    _l2Table->AtomicUpdateRemoteL2Cache(update, true, false);
    // A routing-domain full sync names no VNI.
    const int count = update.mapping_update_size();
    const uint32_t vni = count > 0 ? update.mapping_update(count - 1).vn_instance().vni() : 0;
    boost::intrusive_ptr<NewVirtualNetwork> network = count > 0 ? FindVirtualNetwork(vni) : nullptr;
    if (!network) {
        FLOG_VERBOSE("%1: Session for VNI %2 not found", _name, vni);
        return;
    }
    network->SetFullSyncState(NewVirtualNetwork::FULL_SYNC_DONE);
    _remoteSessionTable->UpdateSessionState(RemoteSessionUpdate::L2_SESSION, vni, RemoteSessionUpdate::STATE_UP);
    _remoteSessionTable->UpdateControllerIp(RemoteSessionUpdate::L2_SESSION, vni, key.server);
}

void L2App::HandleNotification(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    L2CtrlMsg::Notification notification;
    if (!L2CtrlMsg::ParseNotification(message, size, notification)) {
        FLOG_ERROR("%1: Invalid notification message received from %2 of length %3", _name, key, size)
            .AddTag("errorCode:LCP00409");
        return;
    }
    if (!L2CtrlMsg::AcceptNotification(_name, notification, {L2CtrlMsg::kSubInvalidVni})) {
        return;
    }
    if (_session && _session->GetKey() == key) {
        FLOG_VERBOSE("%1: notification from controller for invalid VNI %2", _name, notification.vni);
    } else {
        FLOG_WARNING("%1: failed to validate notification message", _name);
    }
}

// ---- routing domains ----

void L2App::ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates)
{
    ASSERT(IsLockAvailable());
    for (const RemotePropertyUpdate& update : updates) {
        if (update.type != config::EntityPropertyMsg::LS_ROUTING_DOMAIN_ID) {
            continue;
        }
        // The table gives every property change its value, a delete the one it held.
        ASSERT(update.value != nullptr);
        const UuidMsg& domainId = update.value->ls_routing_domain_id();
        const std::string domain = domainId.SerializeAsString();
        const std::string ls = update.entityId.SerializeAsString();
        const bool zero = domainId.left() == 0 && domainId.right() == 0;
        const bool remove = update.operation == config::ZunConfigDeltaMsg::DELETE_OP;
        const auto found = _switchRoutingDomain.find(ls);
        if (found != _switchRoutingDomain.end()) {
            const std::string stored = found->second;
            _switchRoutingDomain.erase(found);
            DetachSwitch(ls, stored);
            if (!remove && !zero) {
                _switchRoutingDomain.emplace(ls, domain);
                AttachSwitch(ls, domainId);
            }
        } else if (remove) {
            // A switch that was never attached: the domain cannot hold it.
            DetachSwitch(ls, domain);
        } else if (zero) {
            // A switch without a domain ends the whole batch, as wanted.
            return;
        } else {
            _switchRoutingDomain.emplace(ls, domain);
            AttachSwitch(ls, domainId);
        }
    }
}

void L2App::AttachSwitch(const std::string& ls, const UuidMsg& domainId)
{
    const auto [found, created] = _routingDomains.try_emplace(domainId.SerializeAsString());
    RoutingDomain& domain = found->second;
    if (created) {
        domain.id = domainId;
        domain.switches.push_back(ls);
        SendRoutingDomainUpdate(domainId, true);
        FLOG_INFO("Add a new routingDomain ID %1", UuidText(domainId));
        return;
    }
    // switchRoutingDomain holds one domain per switch.
    ASSERT(std::find(domain.switches.begin(), domain.switches.end(), ls) == domain.switches.end());
    domain.switches.push_back(ls);
    FLOG_INFO("Attach LS %1 to routingDomainID %2", UuidText(ls), UuidText(domainId));
}

void L2App::DetachSwitch(const std::string& ls, const std::string& domainKey)
{
    const auto found = _routingDomains.find(domainKey);
    // Only a switch that switchRoutingDomain placed in the domain is detached.
    ASSERT(found != _routingDomains.end());
    std::vector<std::string>& switches = found->second.switches;
    const auto member = std::find(switches.begin(), switches.end(), ls);
    ASSERT(member != switches.end());
    switches.erase(member);
    const UuidMsg domainId = found->second.id;
    FLOG_INFO("Detach LS %1 from routingDomainID %2", UuidText(ls), UuidText(domainId));
    if (!switches.empty()) {
        return;
    }
    SendRoutingDomainUpdate(domainId, false);
    _routingDomains.erase(found);
    _l2Table->RemoveRemoteL2ForRoutingDomain(domainId);
    FLOG_INFO("Delete the routingDomain ID %1", UuidText(domainId));
}

void L2App::SendRoutingDomainUpdate(const UuidMsg& domainId, bool add)
{
    l2::L2UpdateVtepMsg vtep;
    if (!_l2Table->GetDRVtep(vtep)) {
        return;
    }
    L2UpdateMsg msg;
    AppendRoutingVteps(msg, domainId, add ? RoutingVtepItem::ADD : RoutingVtepItem::DEL, vtep);
    if (add) {
        _routingVtepMarkerSent = true;
    }
    if (!Send(L2CtrlMsg::BuildUpdate(_id, msg))) {
        FLOG_ERROR("%1: failed to send routing domain(ID %2) update to controller", _name, UuidText(domainId))
            .AddTag("errorCode:LCP00404");
    }
}

void L2App::DumpRoutingDomains() const
{
    FLOG_VERBOSE("Dump routing domain objects");
    for (const auto& entry : _routingDomains) {
        FLOG_VERBOSE("RoutingDomainID: %1", UuidText(entry.second.id));
        for (const std::string& ls : entry.second.switches) {
            FLOG_VERBOSE("Logical switch UUID: %1", UuidText(ls));
        }
    }
}

}  // namespace FenREL
