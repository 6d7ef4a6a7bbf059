#include "SessionApp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/rand.h>

#include <stdexcept>

#include "AppManager.h"
#include "Assert.h"
#include "CPDomainManager.h"
#include "Configuration.h"
#include "CtrlConnEvent.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "RemoteSessionUpdate.h"
#include "ShardingMgr.h"
#include "StateCache.h"
#include "StateCacheRemoteSessionTable.h"
#include "ccp_lcp_config.pb.h"

namespace FenREL {

using ZUNChannel::ConnKey;
using ZUNChannel::CtrlMsg;
using ZUNChannel::IsLockAvailable;
using namespace com::corvid::zun;

namespace {

boost::intrusive_ptr<SessionApp> s_sessionApp;
constexpr size_t kControlTypeOffset = CtrlMsg::kHeaderSize;
constexpr size_t kPayloadOffset = CtrlMsg::kHeaderSize + 1;

std::string IpText(uint32_t hostOrder)
{
    struct in_addr addr;
    addr.s_addr = htonl(hostOrder);
    return inet_ntoa(addr);
}

}  // namespace

SessionApp::SessionApp(const ProductVersionMsg& productVersion)
    : ExtendedApp(ZUNChannel::APP_ID_SESSION, 0, "Session"), _productVersion(productVersion)
{
}

void SessionApp::Init(const ProductVersionMsg& productVersion)
{
    ASSERT(!s_sessionApp);
    s_sessionApp.reset(new SessionApp(productVersion));
    ZUNChannel::AppManager::Get()->RegisterApp(s_sessionApp);
}

boost::intrusive_ptr<SessionApp> SessionApp::Instance()
{
    ASSERT(s_sessionApp);
    return s_sessionApp;
}

void SessionApp::Destroy()
{
    if (s_sessionApp) {
        s_sessionApp->Stop();
        // The session holds the app: give both up.
        if (s_sessionApp->_session) {
            s_sessionApp->_session->RemoveUser();
            s_sessionApp->_session.reset();
        }
    }
    s_sessionApp.reset();
}

const char* SessionApp::StateText(uint32_t state)
{
    static const char* const kTexts[] = {"INIT", "OPEN", "OPEN_ACK", "READY"};
    return state < 4 ? kTexts[state] : "";
}

const char* SessionApp::ControlText(uint8_t type)
{
    static const char* const kTexts[] = {"", "Open", "Open ACK", "Close", "FullSync End"};
    return type < 5 ? kTexts[type] : "";
}

void SessionApp::Start()
{
    ZUNChannel::GlobalLockGuard lock;
    SelectConnection();
    _remoteSessionTable = StateCache::GetInstance()->GetRemoteSessionTable();
}

void SessionApp::Stop()
{
    CancelTimer();
}

void SessionApp::CancelTimer()
{
    if (_timer) {
        _timer->Cancel();
        _timer.reset();
    }
}

void SessionApp::UpdateTable(int32_t state)
{
    if (_remoteSessionTable != nullptr) {
        _remoteSessionTable->UpdateSessionState(RemoteSessionUpdate::CONFIG_SESSION, 0, state);
    }
}

void SessionApp::ReportToDomain(bool down)
{
    CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, down);
}

void SessionApp::FillControllerList()
{
    std::vector<ZUNChannel::ConnConfig> list;
    ZUNChannel::Configuration::GetConnList(list);
    _controllerList.clear();
    for (const ZUNChannel::ConnConfig& entry : list) {
        _controllerList.emplace_back(entry.server, _instance, "");
    }
}

void SessionApp::SelectConnection()
{
    ASSERT(IsLockAvailable());
    if (_session) {
        return;
    }
    if (_controllerList.empty()) {
        // A candidate being tried is always in the list.
        ASSERT(_masterIndex == kNoIndex);
        FillControllerList();
        if (_controllerList.empty()) {
            return;
        }
    }
    if (_masterIndex == kNoIndex) {
        // Hosts spread over the cluster instead of all starting at its first entry.
        uint8_t random[2] = {0, 0};
        RAND_bytes(random, sizeof(random));
        const uint16_t draw = static_cast<uint16_t>((random[0] << 8) | random[1]);
        _masterIndex = draw % _controllerList.size();
    }
    if (_masterIndex >= _controllerList.size()) {
        throw std::out_of_range("SessionApp: controller index out of range");
    }
    CreateSession(_controllerList[_masterIndex].server);
    FLOG_VERBOSE("%1: Select a session connection %2", _name, _session->GetKey());
    StartConnecting();
}

void SessionApp::CreateSession(const std::string& controller)
{
    _session = new ZUNChannel::CtrlSession(ConnKey(controller, _instance, ""), this);
    ++_sessionSerial;
}

void SessionApp::StartConnecting()
{
    _session->AddUser();
    CancelTimer();
    _timer = ZUNChannel::AsyncTimer<SessionApp>::Create(this, &SessionApp::OnConnectTimeout, _sessionSerial);
    _timer->Start(kConnectTimeoutUs);
}

void SessionApp::OnConnectTimeout(int64_t sessionSerial)
{
    ZUNChannel::GlobalLockGuard lock;
    if (!_session || sessionSerial != _sessionSerial) {
        return;
    }
    if (_session->IsReady()) {
        // A ready session has emptied its candidate list.
        ASSERT(_controllerList.empty());
        return;
    }
    FLOG_WARNING("%1: session connection %2 is timeout", _name, _session->GetKey());
    UpdateTable(RemoteSessionUpdate::STATE_DOWN);
    ZUNChannel::CtrlConnPool::Get()->SetConnStatus(_controllerList.at(_masterIndex), "connection_refused");
    _session->RemoveUser();
    _controllerList.erase(_controllerList.begin() + _masterIndex);
    _masterIndex = kNoIndex;
    _session.reset();
    SelectConnection();
}

void SessionApp::OnRetryTimer()
{
    ZUNChannel::GlobalLockGuard lock;
    SelectConnection();
}

void SessionApp::HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& event)
{
    ASSERT(IsLockAvailable());
    switch (event->GetCategory()) {
    case ZUNChannel::Event::CTRL_CONN_EVENT: {
        const auto* conn = static_cast<const ZUNChannel::CtrlConnEvent*>(event.get());
        if (conn->IsConnLost()) {
            OnConnDown(conn->GetConnKey());
        } else {
            OnConnReady(conn->GetConnKey());
        }
        break;
    }
    case ZUNChannel::Event::SUPPORT_EVENT:
        ZUNChannel::ShardingMgr::Get()->Dump();
        break;
    default:
        FLOG_VERBOSE("%1: session app doesn't care about event %2", _name, event->GetCategory());
        break;
    }
}

void SessionApp::OnConnReady(const ConnKey& key)
{
    if (!_session || _session->GetKey() != key) {
        return;
    }
    FLOG_VERBOSE("%1: connection %2 is ready", _name, key);
    ASSERT(!_session->IsReady());
    CancelTimer();
    _session->OnConnReady();
    _controllerList.clear();
    _masterIndex = kNoIndex;
    if (_dpInitialSyncDone) {
        TryOpenSession();
    }
    uint16_t port = 0;
    ZUNChannel::CtrlConnPool::Get()->GetLocalAddr(key, _localAddress, port);
}

void SessionApp::OnConnDown(const ConnKey& key)
{
    if (!_session || _session->GetKey() != key) {
        return;
    }
    FLOG_VERBOSE("%1: session connection %2 is down", _name, key);
    if (_sessionState == READY) {
        ReportToDomain(true);
    }
    CancelTimer();
    _session->RemoveUser();
    _session.reset();
    FLOG_VERBOSE("%1: session state transmits from %2 to INIT", _name, StateText(_sessionState));
    _sessionState = INIT;
    UpdateTable(RemoteSessionUpdate::STATE_DOWN);
    _localAddress.clear();
    if (!_controllerList.empty()) {
        ASSERT(_masterIndex != kNoIndex);
        _controllerList.erase(_controllerList.begin() + _masterIndex);
        _masterIndex = kNoIndex;
        if (!_controllerList.empty()) {
            SelectConnection();
            return;
        }
    }
    _timer = ZUNChannel::AsyncTimer<SessionApp>::Create(this, &SessionApp::OnRetryTimer);
    _timer->Start(kRetryDelayUs);
}

void SessionApp::ProcessDPInitialSyncDone()
{
    ZUNChannel::GlobalLockGuard lock;
    _dpInitialSyncDone = true;
    FLOG_VERBOSE("%1: ProcessDPInitialSyncDone, sessionState is %2", _name, static_cast<uint32_t>(_sessionState));
    TryOpenSession();
}

void SessionApp::TryOpenSession()
{
    if (!_session || !_session->IsReady()) {
        FLOG_VERBOSE("%1: control session is not ready, delay full sync with controller", _name);
        return;
    }
    if (!SendControl(CONTROL_OPEN)) {
        FLOG_ERROR("%1: fail to send session control open message to %2", _name, _session->GetKey())
            .AddTag("errorCode:LCP00604");
        return;
    }
    ASSERT(_sessionState == INIT);
    _sessionState = OPEN;
    UpdateTable(RemoteSessionUpdate::STATE_INIT);
    FLOG_VERBOSE("%1: session state transmits from INIT to OPEN", _name);
}

bool SessionApp::SendControl(ControlType type)
{
    config::ConfigSessionMsg body;
    *body.mutable_product_version() = _productVersion;
    const size_t size = body.ByteSizeLong();
    uint8_t* message = CtrlMsg::New(CtrlMsg::kTypeSessionControl, _id, size + 1);
    message[kControlTypeOffset] = type;
    body.SerializeToArray(message + kPayloadOffset, static_cast<int>(size));
    FLOG_INFO("%1: send session control(%2) message via %3", _name, ControlText(type), ZUNChannel::CtrlSession::ToString(_session));
    return ZUNChannel::CtrlSession::SendOrReset(_session, message, _name, "LCP00604");
}

void SessionApp::HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    switch (CtrlMsg::Type(message)) {
    case CtrlMsg::kTypeSessionControl:
        HandleSessionControl(message, size, key);
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

void SessionApp::HandleSessionControl(const uint8_t* message, uint32_t /*size*/, const ConnKey& key)
{
    if (CtrlMsg::Length(message) == CtrlMsg::kHeaderSize) {
        FLOG_ERROR("%1: Invalid Session Control message received from %2", _name, key).AddTag("errorCode:LCP00602");
        return;
    }
    const uint32_t current = _session ? _session->GetSessionID() : 0;
    if (CtrlMsg::SessionId(message) != current) {
        FLOG_WARNING("%1: Session Control message is not from the curent session, current: %2, received: %3", _name,
                     current, CtrlMsg::SessionId(message));
        return;
    }
    const uint8_t type = message[kControlTypeOffset];
    switch (type) {
    case CONTROL_OPEN:
        FLOG_INFO("%1: Recvd Session Open message from %2, ignore", _name, key);
        break;
    case CONTROL_OPEN_ACK:
        FLOG_INFO("%1: Recvd Session Open ACK message from %2", _name, key);
        if (_sessionState == OPEN) {
            _sessionState = OPEN_ACK;
            FLOG_VERBOSE("%1, Session state transmits from OPEN to OPEN_ACK", _name);
        } else {
            FLOG_ERROR("%1: Invalid Session Open ACK message from %2, session is not opened now", _name, key)
                .AddTag("errorCode:LCP00602");
        }
        break;
    case CONTROL_CLOSE:
        FLOG_INFO("%1: Recvd Session Close message from %2, ignore", _name, key);
        break;
    default:
        FLOG_ERROR("%1: Invalid Session Control message type %2 from %3", _name, type, key)
            .AddTag("errorCode:LCP00602");
        break;
    }
}

void SessionApp::HandleUpdate(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    if (_sessionState != OPEN_ACK && _sessionState != READY) {
        FLOG_WARNING("%1: Session is not ready, not allow to receive update messages from %2", _name, key);
        return;
    }
    if (size <= CtrlMsg::kHeaderSize) {
        FLOG_ERROR("%1: Invalid Sharding Update message payload from %2", _name, key).AddTag("errorCode:LCP00605");
        return;
    }
    config::CcpLcpZunConfigMsg update;
    if (size > kPayloadOffset) {
        // A message that does not parse keeps the defaults of what was read.
        update.ParseFromArray(message + kPayloadOffset, static_cast<int>(size - kPayloadOffset));
    }
    if (update.type() != config::CcpLcpZunConfigMsg::SHARDING_REVOCATION && (!_session || _session->GetKey() != key)) {
        FLOG_ERROR("%1: update msg from controller %2 is skipped, current connection is %3", _name, key,
                   _session ? _session->GetKey().ToString() : std::string("NULL"))
            .AddTag("errorCode:LCP00605");
        return;
    }
    std::vector<boost::intrusive_ptr<ZUNChannel::ShardingSegment>> segments;
    switch (update.type()) {
    case config::CcpLcpZunConfigMsg::MASTER_CONTROLLER:
        FLOG_INFO("%1: receive master controller update from controller %2", _name, key);
        HandleMasterController(IpText(update.master_controller().ip().ipv4()), key);
        break;
    case config::CcpLcpZunConfigMsg::SHARDING_ASSIGNMENT:
        FLOG_INFO("%1: receive sharding segment update from controller %2", _name, key);
        for (const auto& assignment : update.sharding_assignment().assignments()) {
            const std::string controller = IpText(assignment.controller().ip().ipv4());
            for (const auto& segment : assignment.segments()) {
                FLOG_INFO("%1: Sharding Segment Update message: server %2 startSliceId %3 numSlices %4", _name,
                          controller, segment.start_slice_id(), segment.num_slices());
                segments.push_back(
                    new ZUNChannel::ShardingSegment(controller, segment.start_slice_id(), segment.num_slices()));
            }
        }
        ZUNChannel::ShardingMgr::Get()->UpdateSegments(segments);
        ZUNChannel::AppManager::Get()->UpdateSharding(segments, key.server, kShardingAssign);
        break;
    case config::CcpLcpZunConfigMsg::SHARDING_REVOCATION:
        FLOG_INFO("%1: receive sharding invalid slices update from controller %2", _name, key);
        for (const auto& segment : update.sharding_revocation().segments()) {
            FLOG_INFO("%1: Sharding Invalid Slices Update message: server %2 startSliceId %3 numSlices %4", _name,
                      key.server, segment.start_slice_id(), segment.num_slices());
            segments.push_back(
                new ZUNChannel::ShardingSegment(key.server, segment.start_slice_id(), segment.num_slices()));
        }
        if (segments.empty()) {
            return;
        }
        // The slice table keeps the old owner until an assignment replaces it.
        ZUNChannel::AppManager::Get()->UpdateSharding(segments, key.server, kShardingRevoke);
        break;
    default:
        FLOG_VERBOSE("%1: invalid config update message type %2 received from controller %3", _name,
                     static_cast<int>(update.type()), key);
        break;
    }
}

void SessionApp::HandleMasterController(const std::string& master, const ConnKey& key)
{
    if (master == key.server) {
        FLOG_INFO("%1: master controller %2 is not changed", _name, master);
        if (_sessionState != OPEN_ACK) {
            return;
        }
        _sessionState = READY;
        ReportToDomain(false);
        UpdateTable(RemoteSessionUpdate::STATE_UP);
        if (_remoteSessionTable != nullptr) {
            _remoteSessionTable->UpdateControllerIp(RemoteSessionUpdate::CONFIG_SESSION, 0, key.server);
        }
        return;
    }
    FLOG_INFO("%1: Changing master controller from %2 to %3", _name, key.server, master);
    if (_sessionState == READY) {
        ReportToDomain(true);
    }
    CancelTimer();
    if (_session) {
        _session->RemoveUser();
        _session.reset();
    }
    _sessionState = INIT;
    _masterIndex = kNoIndex;
    FillControllerList();
    if (_controllerList.empty()) {
        FLOG_WARNING("%1: Get empty controller list", _name);
        return;
    }
    for (uint32_t i = 0; i < _controllerList.size(); ++i) {
        if (_controllerList[i].server == master) {
            _masterIndex = i;
            CreateSession(master);
            StartConnecting();
            return;
        }
    }
    FLOG_ERROR("%1: Did not find master %2 in config list", _name, master).AddTag("errorCode:LCP00601");
    SelectConnection();
}

void SessionApp::ReceiveControllerList(const std::vector<ZUNChannel::ConnConfig>& list)
{
    ASSERT(IsLockAvailable());
    FLOG_INFO("%1: Receive new controller cfg list (#num %2)", _name, list.size());
    if (!_session) {
        _controllerList.clear();
        _masterIndex = kNoIndex;
        SelectConnection();
        return;
    }
    ZUNChannel::ConnConfig current;
    if (ZUNChannel::CtrlConnPool::Get()->GetConfig(_session->GetKey(), current)) {
        for (uint32_t i = 0; i < list.size(); ++i) {
            if (!list[i].SameAs(current)) {
                continue;
            }
            FLOG_INFO("%1: Controller %2 is not changed", _name, _session->GetKey());
            if (_session->IsReady()) {
                return;
            }
            // The reloaded list is trusted to keep the order of `list`.
            FillControllerList();
            _masterIndex = i;
            return;
        }
    }
    FLOG_INFO("%1: Controller %2 is changed or removed", _name, _session->GetKey());
    _controllerList.clear();
    _masterIndex = kNoIndex;
    // The same road as a real disconnection, which every other app sees too.
    ZUNChannel::AppManager::Get()->PostEvent(new ZUNChannel::CtrlConnEvent(_session->GetKey(), true));
}

}  // namespace FenREL
