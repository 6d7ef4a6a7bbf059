#include "DPDomainManager.h"

#include <arpa/inet.h>

#include <string>

#include "Assert.h"
#include "CPDomainManager.h"
#include "DPAdapter.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MsgDispatcher.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"
#include "ccp_lcp_l3.pb.h"
#include "dne_lcp.pb.h"
#include "edge_services_lcp.pb.h"
#include "firewall_lcp.pb.h"
#include "traceflow.pb.h"

namespace FenREL {

namespace {

namespace config = com::corvid::zun::config;
using com::corvid::zun::lcp::CcpSessionStateMsg;

DPDomainManager* s_dpDomainManager = nullptr;

// The remote entities the data path realises.
const config::EntityType kRemoteEntityTypes[] = {
    config::LOG_SWITCH,     config::LOG_SWITCH_PORT,
    config::LOG_ROUTER,     config::LOG_ROUTER_PORT,
    config::TRANSPORT_NODE, config::LOG_SERVICE_ROUTER_CLUSTER,
    config::PORT_MIRROR_SESSION, config::IPFIX_CONFIG,
};

// The dispatcher types this end takes, in the order of registration.
const uint32_t kSinkTypes[] = {
    MsgDispatcher::DP_MSG_TRACEFLOW, MsgDispatcher::DP_MSG_L3, MsgDispatcher::DP_MSG_FIREWALL,
    MsgDispatcher::DP_MSG_EDGE_SERVICES, MsgDispatcher::DP_MSG_ENCRYPTION,
};

// Parses a dispatched message of `type` and hands it to the adapter; a
// message that does not parse is dropped with a line.
template <typename Msg>
void ParseAndPass(DPAdapter* adapter, uint32_t type, const uint8_t* data, uint32_t length)
{
    Msg msg;
    if (!msg.ParseFromArray(data, static_cast<int>(length))) {
        FLOG_ERROR("DPDomainManager dropped dispatched msg of type %1: %2 bytes do not parse", type, length);
        return;
    }
    adapter->CPMsgProcessorImpl(type, msg);
}

}  // namespace

DPDomainManager* DPDomainManager::Init(DPAdapter* adapter)
{
    if (s_dpDomainManager == nullptr) {
        s_dpDomainManager = new DPDomainManager(adapter);
        s_dpDomainManager->Register();
    }
    return s_dpDomainManager;
}

DPDomainManager* DPDomainManager::GetInstance()
{
    ASSERT(s_dpDomainManager != nullptr);
    return s_dpDomainManager;
}

void DPDomainManager::Destroy()
{
    if (s_dpDomainManager != nullptr) {
        s_dpDomainManager->UnRegister();
        delete s_dpDomainManager;
        s_dpDomainManager = nullptr;
    }
}

DPDomainManager::DPDomainManager(DPAdapter* adapter) : _adapter(adapter) {}

void DPDomainManager::Register()
{
    _stateCache = StateCache::GetInstance();
    for (const config::EntityType type : kRemoteEntityTypes) {
        _stateCache->GetConfigTable()->RegisterRemoteCacheObserver(type, this);
    }
    _stateCache->GetL2Table()->RegisterRemoteObserver(this);
    _stateCache->GetRemoteSessionTable()->RegisterObserver(this);
    _dispatcher = &MsgDispatcher::Get();
    for (const uint32_t type : kSinkTypes) {
        _dispatcher->RegisterSink(MsgDispatcher::DP_DOMAIN, type, this);
    }
    // The control plane's end tells us of its first configuration without
    // depending on this library.
    _cpDomainManager = CPDomainManager::Get();
    _cpDomainManager->SetCPFullSyncListener([this] { CPDomainInitFullSyncDone(); });
}

void DPDomainManager::UnRegister()
{
    _stateCache->GetConfigTable()->UnRegisterRemoteCacheObserver(this);
    _stateCache->GetL2Table()->UnRegisterRemoteObserver(this);
    _stateCache->GetRemoteSessionTable()->UnRegisterObserver(this);
    for (const uint32_t type : kSinkTypes) {
        _dispatcher->UnRegisterSink(MsgDispatcher::DP_DOMAIN, type);
    }
    _cpDomainManager->SetCPFullSyncListener(nullptr);
}

void DPDomainManager::ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates)
{
    if (!_cpInitFullSyncDone) {
        return;  // it stands in the cache, and goes with the full sync
    }
    CcpLcpZunConfigMsg msg;
    msg.set_type(CcpLcpZunConfigMsg::ENTITY_PROPERTY);
    for (const RemotePropertyUpdate& update : updates) {
        config::ZunConfigDeltaMsg* delta = msg.add_entity_property();
        delta->set_operation(static_cast<config::ZunConfigDeltaMsg::Operation>(update.operation));
        *delta->mutable_entity_id() = update.entityId;
        delta->set_entity_type(static_cast<config::EntityType>(update.entityType));
        if (update.value) {
            *delta->add_property() = *update.value;
        }
    }
    FLOG_VERBOSE("DPDomainManager receive remote config delta update %1", msg.ShortDebugString());
    _adapter->RemoteConfigPropObserverImpl(msg);
}

void DPDomainManager::ProcessLocalStateUpdate(const LocalStateUpdateList& /*updates*/)
{
}

void DPDomainManager::ProcessRemoteL2Update(const L2UpdateMsg& delta)
{
    if (!_cpInitFullSyncDone) {
        return;
    }
    FLOG_VERBOSE("DPDomainManager receive l2 delta update, l2Props is %1", delta.ShortDebugString());
    _adapter->RemoteL2Update(delta);
}

void DPDomainManager::ProcessLocalL2Update(const L2UpdateMsg& /*delta*/)
{
}

void DPDomainManager::ProcessRemoteSessionUpdate(const RemoteSessionUpdate& update)
{
    if (!_cpInitFullSyncDone) {
        return;
    }
    const std::vector<CcpSessionStateMsg> sessions{ToSessionStateMsg(update)};
    FLOG_VERBOSE("DPDomainManager receive remote session update %1", sessions.front().ShortDebugString());
    _adapter->RemoteSessionUpdate(sessions);
}

void DPDomainManager::Process(uint32_t type, const uint8_t* data, uint32_t length)
{
    FLOG_VERBOSE("DPDomainManager receive dispatched msg, type is %1", type);
    switch (type) {
    case MsgDispatcher::DP_MSG_TRACEFLOW:
        ParseAndPass<com::corvid::zun::traceflow::TraceflowMsg>(_adapter, type, data, length);
        break;
    case MsgDispatcher::DP_MSG_L3:
        ParseAndPass<com::corvid::zun::l3::L3UpdateMsg>(_adapter, type, data, length);
        break;
    case MsgDispatcher::DP_MSG_FIREWALL:
        ParseAndPass<com::corvid::zun::firewall::LcpFirewallUpdateMsg>(_adapter, type, data, length);
        break;
    case MsgDispatcher::DP_MSG_ENCRYPTION:
        ParseAndPass<com::corvid::zun::dne::LcpDneUpdateMsg>(_adapter, type, data, length);
        break;
    case MsgDispatcher::DP_MSG_EDGE_SERVICES:
        ParseAndPass<com::corvid::zun::service::LcpEdgeServicesUpdateMsg>(_adapter, type, data, length);
        break;
    default:
        break;
    }
}

void DPDomainManager::CPDomainInitFullSyncDone()
{
    FLOG_VERBOSE("DPDomainManager receive CPDomain initial fullSync done event");
    _cpInitFullSyncDone = true;
    _adapter->CPDomainInitFullSyncDone();
}

void DPDomainManager::DPDomainInitFullSyncDone()
{
    FLOG_VERBOSE("DPDomainManager receive DPDomain initial fullSync done event");
    _cpDomainManager->DPDomainInitFullSyncDone();
}

void DPDomainManager::SendMsgToCP(uint32_t type, const google::protobuf::Message* msg)
{
    FLOG_VERBOSE("DPDomainManager SendMsgToCP, type is %1", type);
    if (msg == nullptr) {
        return;
    }
    const std::string bytes = msg->SerializeAsString();
    _dispatcher->Dispatch(MsgDispatcher::CP_DOMAIN, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()));
}

void DPDomainManager::LocalConfigUpdate(const std::vector<ZunStateDeltaMsg>& deltas, bool fullSync)
{
    ZUNChannel::GlobalLockGuard lock;
    FLOG_VERBOSE("DPDomainManager receive local config update msg");
    _stateCache->GetConfigTable()->AtomicUpdateLocalCache(deltas, fullSync);
}

void DPDomainManager::LocalL2Update(const L2UpdateMsg& msg, bool fullSync)
{
    ZUNChannel::GlobalLockGuard lock;
    FLOG_VERBOSE("DPDomainManager receive local l2 update msg");
    _stateCache->GetL2Table()->AtomicUpdateLocalL2Cache(msg, fullSync);
}

void DPDomainManager::ReadAllCPData(CcpLcpZunConfigMsg& config, L2UpdateMsg& l2,
                                    std::vector<CcpSessionStateMsg>& sessions)
{
    std::vector<RemoteConfigItem> items;
    if (_stateCache->GetConfigTable()->QueryAllRemote(items) && !items.empty()) {
        config.set_type(CcpLcpZunConfigMsg::ENTITY_PROPERTY);
        for (const RemoteConfigItem& item : items) {
            config::ZunConfigDeltaMsg* delta = config.add_entity_property();
            delta->set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
            delta->mutable_entity_id()->ParseFromString(item.entityId);
            delta->set_entity_type(static_cast<config::EntityType>(item.entityType));
            if (item.value) {
                config::EntityPropertyMsg* property = delta->add_property();
                *property = *item.value;
                property->set_property_type(static_cast<config::EntityPropertyMsg::PropertyType>(item.type));
            }
        }
    } else {
        FLOG_VERBOSE("DPDomainManager ReadAllCPData no config cache msg");
    }

    if (!_stateCache->GetL2Table()->ReadAllRemote(l2)) {
        FLOG_VERBOSE("DPDomainManager ReadAllCPData no l2 cache msg");
    }

    sessions.clear();
    std::vector<RemoteSessionUpdate> records;
    _stateCache->GetRemoteSessionTable()->QuerySessions(records);
    for (const RemoteSessionUpdate& record : records) {
        sessions.push_back(ToSessionStateMsg(record));
    }
}

CcpSessionStateMsg DPDomainManager::ToSessionStateMsg(const RemoteSessionUpdate& update)
{
    CcpSessionStateMsg msg;
    bool known = true;
    switch (update.sessionType) {
    case RemoteSessionUpdate::CONFIG_SESSION:
        msg.set_session_type(CcpSessionStateMsg::CONFIG_SESSION);
        break;
    case RemoteSessionUpdate::L2_SESSION:
        msg.set_session_type(CcpSessionStateMsg::L2_SESSION);
        msg.set_vni(update.index);
        break;
    case RemoteSessionUpdate::L3_SESSION:
        msg.set_session_type(CcpSessionStateMsg::L3_SESSION);
        msg.set_vdr_id(update.index);
        break;
    default:
        known = false;
        break;
    }
    if (known) {
        msg.set_session_state(update.sessionState == RemoteSessionUpdate::STATE_UP ? CcpSessionStateMsg::SESSION_LINKUP
                                                                                   : CcpSessionStateMsg::SESSION_LINKDOWN);
    }
    // An address that does not parse (none yet) goes as 0.
    in_addr address{};
    inet_aton(update.controllerIp.c_str(), &address);
    msg.mutable_controller_ip()->mutable_ip()->set_ipv4(ntohl(address.s_addr));
    return msg;
}

}  // namespace FenREL
