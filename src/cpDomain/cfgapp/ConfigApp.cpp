#include "ConfigApp.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include "AppManager.h"
#include "Assert.h"
#include "CPDomainManager.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "config_entity_properties.pb.h"

namespace FenREL {

using ZUNChannel::ConnKey;
using ZUNChannel::CtrlMsg;
using ZUNChannel::IsLockAvailable;
namespace config = com::corvid::zun::config;

namespace {

boost::intrusive_ptr<ConfigApp> s_configApp;
constexpr uint8_t kUpdateLeadByte = 0;

}  // namespace

ConfigApp::ConfigApp(const boost::intrusive_ptr<StateCacheConfigTable>& configTable)
    : ExtendedApp(ZUNChannel::APP_ID_CONFIG, 0, "Config"), _configTable(configTable)
{
}

ConfigApp::~ConfigApp() = default;

void ConfigApp::Init()
{
    Init(StateCache::GetInstance()->GetConfigTable());
}

void ConfigApp::Init(const boost::intrusive_ptr<StateCacheConfigTable>& configTable)
{
    ASSERT(!s_configApp);
    s_configApp.reset(new ConfigApp(configTable));
    ZUNChannel::AppManager::Get()->RegisterApp(s_configApp);
}

boost::intrusive_ptr<ConfigApp> ConfigApp::Instance()
{
    ASSERT(s_configApp);
    return s_configApp;
}

void ConfigApp::Destroy()
{
    s_configApp.reset();
}

void ConfigApp::Start()
{
    ZUNChannel::GlobalLockGuard lock;
    boost::intrusive_ptr<ConfigApp> self(this);
    CPDomainManager::Get()->RegisterPhysicalMasterSessionObserver(
        GetKey(), [self](const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, uint32_t state) {
            self->ProcessSessionStatus(session, state);
        });
}

size_t ConfigApp::GetPendingDeltaCount() const
{
    boost::lock_guard<boost::mutex> lock(_pendingMutex);
    return _pendingDeltas.size();
}

std::string ConfigApp::CurrentConnText() const
{
    return _session ? _session->GetKey().ToString() : std::string("NULL");
}

bool ConfigApp::IsFromSession(const ConnKey& key) const
{
    return _session && _session->GetKey() == key;
}

void ConfigApp::ProcessSessionStatus(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, uint32_t state)
{
    ASSERT(IsLockAvailable());
    if (state != CPDomainManager::CP_SESSION_UP && state != CPDomainManager::CP_SESSION_DOWN) {
        return;
    }
    const bool up = state == CPDomainManager::CP_SESSION_UP;
    FLOG_INFO("%1: received session %2 from controller %3", _name, up ? "UP" : "DOWN", ZUNChannel::CtrlSession::ToString(session));
    if (up) {
        _session = session;
        SendFullSync();
        return;
    }
    // The queue stays: deltas of a broken full sync are applied with the next one.
    _fullSyncDone = false;
    _session.reset();
}

void ConfigApp::LocalVifs(LocalStateUpdateList& vifs) const
{
    std::vector<LocalConfigItem> items;
    _configTable->QueryAllLocal(items);
    for (LocalConfigItem& item : items) {
        if (item.entityType != config::VIF) {
            continue;
        }
        LocalStateUpdate vif;
        vif.entityType = item.entityType;
        vif.entityId = std::move(item.entityId);
        vif.operation = config::ZunStateDeltaMsg::UPDATE_OP;
        vif.type = item.type;
        vif.value = std::move(item.value);
        vifs.push_back(std::move(vif));
    }
}

config::CcpLcpZunConfigMsg ConfigApp::BuildEntityState(const LocalStateUpdateList& updates, bool logStateless) const
{
    config::CcpLcpZunConfigMsg update;
    update.set_type(config::CcpLcpZunConfigMsg::ENTITY_STATE);
    for (const LocalStateUpdate& vif : updates) {
        config::ZunStateDeltaMsg* state = update.add_entity_state();
        state->set_operation(static_cast<config::ZunStateDeltaMsg::Operation>(vif.operation));
        state->set_entity_id(vif.entityId);
        state->set_entity_type(config::VIF);
        if (vif.value) {
            *state->add_state() = *vif.value;
        } else if (logStateless) {
            FLOG_INFO("%1: VIFs connected, id is %2", _name, vif.entityId);
        }
    }
    return update;
}

void ConfigApp::SendFullSync()
{
    ASSERT(IsLockAvailable());
    LocalStateUpdateList vifs;
    LocalVifs(vifs);
    if (vifs.empty()) {
        FLOG_INFO("%1: no VIFs connected", _name);
    } else {
        const config::CcpLcpZunConfigMsg update = BuildEntityState(vifs, true);
        const size_t size = update.ByteSizeLong();
        std::vector<uint8_t> payload(size);
        const uint8_t* end = update.SerializeWithCachedSizesToArray(payload.data());
        // The fragments are cut by this size: it must be what was written.
        ASSERT(static_cast<size_t>(end - payload.data()) == size);
        // Built whole before the first goes out, so nothing sent from this
        // thread can come between them.
        ZUNChannel::CtrlMsgFragmenter::Frames frames = ZUNChannel::CtrlMsgFragmenter::FragmentBody(
            CtrlMsg::kTypeData, _id, kUpdateLeadByte, payload.data(), size,
            ZUNChannel::CtrlConnPool::Get()->GetMaxPktLen());
        bool sent = false;
        for (ZUNChannel::CtrlMsgBuffer& frame : frames) {
            sent = Send(frame.release());
            if (!sent) {
                FLOG_ERROR("%1: VIF full sync message failed to sent to ccp", _name).AddTag("errorCode:LCP00501");
            }
        }
        if (sent) {
            FLOG_INFO("%1: VIF full sync message sent to ccp", _name);
        }
    }
    FLOG_VERBOSE("%1: Sending full sync end message to %2", _name, ZUNChannel::CtrlSession::ToString(_session));
    // An empty ConfigSessionMsg serialises to nothing: the message ends at the control type.
    uint8_t* end = CtrlMsg::New(CtrlMsg::kTypeSessionControl, _id, 1);
    end[CtrlMsg::kHeaderSize] = kControlFullSyncEnd;
    if (!Send(end)) {
        FLOG_ERROR("%1: fail to send Session Control FullSync message to %2", _name, ZUNChannel::CtrlSession::ToString(_session))
            .AddTag("errorCode:LCP00501");
    }
}

void ConfigApp::HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    switch (CtrlMsg::Type(message)) {
    case CtrlMsg::kTypeSessionControl:
        HandleSessionControl(message, key);
        break;
    case CtrlMsg::kTypeData:
        FLOG_VERBOSE("%1: Recvd UPDATE message from %2", _name, key);
        HandleUpdate(message, size, key);
        break;
    default:
        FLOG_VERBOSE("%1: Recvd unknown message type %2 from %3", _name, CtrlMsg::Type(message), key);
        break;
    }
}

void ConfigApp::HandleSessionControl(const uint8_t* message, const ConnKey& key)
{
    if (!IsFromSession(key)) {
        FLOG_WARNING("%1: session ctrl msg from controller %2 is skipped, current connection is %3", _name, key,
                     CurrentConnText());
        return;
    }
    // Length asserts a whole header: a shorter one contradicts the framing.
    if (CtrlMsg::Length(message) == CtrlMsg::kHeaderSize) {
        FLOG_ERROR("%1: Invalid Session Control message received from %2", _name, key).AddTag("errorCode:LCP00504");
        return;
    }
    if (CtrlMsg::SessionId(message) != _session->GetSessionID()) {
        FLOG_WARNING("%1: Session Control message is not from the curent session, current: %2, received: %3", _name,
                     _session->GetSessionID(), CtrlMsg::SessionId(message));
        return;
    }
    // The controller sends nothing but FullSync End on this channel.
    ASSERT(message[CtrlMsg::kHeaderSize] == kControlFullSyncEnd);
    FLOG_VERBOSE("%1: Recvd Session FullSync End message from %2", _name, key);
    ProcessFullSyncEnd();
}

void ConfigApp::ProcessFullSyncEnd()
{
    ASSERT(IsLockAvailable());
    if (!SessionReady()) {
        FLOG_ERROR("%1: Invalid Session FullSync End message from %2, session is not ready now", _name,
                   CurrentConnText())
            .AddTag("errorCode:LCP00503");
        return;
    }
    std::vector<ZunConfigDeltaMsg> deltas;
    {
        boost::lock_guard<boost::mutex> lock(_pendingMutex);
        deltas.assign(std::make_move_iterator(_pendingDeltas.begin()), std::make_move_iterator(_pendingDeltas.end()));
        _pendingDeltas.clear();
    }
    // A full replacement: what the queue does not restate leaves the cache.
    _configTable->AtomicUpdateRemoteCache(deltas, true);
    if (!_dpInitialFullSyncDone) {
        CPDomainManager::Get()->CPDomainInitFullSyncDone();
        _dpInitialFullSyncDone = true;
        FLOG_VERBOSE("%1: Done dataplane initial full sync after CCP full sync is done", _name);
    }
    _fullSyncDone = true;
}

void ConfigApp::HandleUpdate(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    if (!IsFromSession(key)) {
        FLOG_WARNING("%1: update msg from controller %2 is skipped, current connection is %3", _name, key,
                     CurrentConnText());
        return;
    }
    if (size <= CtrlMsg::kHeaderSize) {
        FLOG_ERROR("%1: Invalid Sharding Update message payload from %2", _name, key).AddTag("errorCode:LCP00504");
        return;
    }
    config::CcpLcpZunConfigMsg update;
    if (size > kPayloadOffset &&
        !update.ParseFromArray(message + kPayloadOffset, static_cast<int>(size - kPayloadOffset))) {
        FLOG_ERROR("%1: fail to parse update message from %2", _name, key).AddTag("errorCode:LCP00504");
        return;
    }
    // The controller sends nothing but configuration on this channel.
    ASSERT(update.type() == config::CcpLcpZunConfigMsg::ENTITY_PROPERTY);
    FLOG_VERBOSE("%1: receive protobuf update from controller %2", _name, key);
    for (const ZunConfigDeltaMsg& delta : update.entity_property()) {
        if (_fullSyncDone) {
            _configTable->AtomicUpdateRemoteCache(std::vector<ZunConfigDeltaMsg>{delta}, false);
        } else {
            boost::lock_guard<boost::mutex> lock(_pendingMutex);
            _pendingDeltas.push_back(delta);
        }
    }
}

void ConfigApp::SendLocalState(const LocalStateUpdateList& updates)
{
    ASSERT(IsLockAvailable());
    if (!SessionReady()) {
        FLOG_WARNING("%1: Cannot send local state update to CCP, session is not ready now", _name);
        return;
    }
    const config::CcpLcpZunConfigMsg update = BuildEntityState(updates, false);
    const size_t size = update.ByteSizeLong();
    uint8_t* message = NewUpdateMsg(_id, size);
    update.SerializeWithCachedSizesToArray(message + kPayloadOffset);
    if (!Send(message)) {
        FLOG_ERROR("%1: Local state Update message failed to sent to ccp", _name).AddTag("errorCode:LCP00501");
        return;
    }
    FLOG_VERBOSE("%1: Local state Update message sent to ccp", _name);
}

uint8_t* ConfigApp::NewUpdateMsg(uint16_t protocolId, size_t payloadLength)
{
    const size_t length = kPayloadOffset + payloadLength;
    uint8_t* message = CtrlMsg::AllocBuffer(length);
    memset(message, 0, length);
    CtrlMsg::WriteHeader(message, 0, CtrlMsg::kUnstampedSessionId, CtrlMsg::kTypeData,
                         static_cast<uint16_t>(length), protocolId);
    message[CtrlMsg::kHeaderSize] = kUpdateLeadByte;
    return message;
}

bool ConfigApp::SendMsg(uint8_t* message)
{
    ASSERT(IsLockAvailable());
    if (!s_configApp) {
        free(message);
        FLOG_ERROR("%1: Session is not ready", "Config").AddTag("errorCode:LCP00503");
        return false;
    }
    return s_configApp->Send(message);
}

bool ConfigApp::Send(uint8_t* message)
{
    return ZUNChannel::CtrlSession::SendOrReset(_session, message, _name, "LCP00503");
}

}  // namespace FenREL
