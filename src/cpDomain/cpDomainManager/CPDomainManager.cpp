#include "CPDomainManager.h"

#include "Assert.h"
#include "CPDataPathMsgSink.h"
#include "CPLocalL2Sink.h"
#include "CPLocalStateSink.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MsgDispatcher.h"
#include "SessionApp.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "config_entity_properties.pb.h"

namespace FenREL {

namespace {

CPDomainManager* s_cpDomainManager = nullptr;

template <typename Sink>
Sink* FindApp(const boost::intrusive_ptr<ZUNChannel::AppManager>& manager, uint16_t id)
{
    if (!manager) {
        return nullptr;
    }
    return dynamic_cast<Sink*>(manager->FindApp(id, 0).get());
}

}  // namespace

CPDomainManager* CPDomainManager::Create()
{
    if (s_cpDomainManager == nullptr) {
        s_cpDomainManager = new CPDomainManager();
    }
    return s_cpDomainManager;
}

CPDomainManager* CPDomainManager::Get()
{
    ASSERT(s_cpDomainManager != nullptr);
    return s_cpDomainManager;
}

void CPDomainManager::Destroy()
{
    delete s_cpDomainManager;
    s_cpDomainManager = nullptr;
}

void CPDomainManager::Start(const boost::intrusive_ptr<ZUNChannel::AppManager>& appManager)
{
    _appManager = appManager;
    StateCache* cache = StateCache::GetInstance();
    cache->GetConfigTable()->RegisterLocalCacheObserver(com::corvid::zun::config::VIF, this);
    cache->GetL2Table()->RegisterLocalObserver(this);
    MsgDispatcher::Get().RegisterSink(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, this);
    FLOG_VERBOSE("CPDomainManager startup");
    MsgDispatcher::Get().RegisterSink(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_L3, this);
}

void CPDomainManager::Stop()
{
    _sessionObservers.clear();
    _appManager.reset();
    StateCache* cache = StateCache::GetInstance();
    cache->GetConfigTable()->UnRegisterLocalCacheObserver(this);
    cache->GetL2Table()->UnRegisterLocalObserver(this);
    MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW);
    MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_L3);
}

void CPDomainManager::ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& /*updates*/)
{
}

void CPDomainManager::ProcessLocalStateUpdate(const LocalStateUpdateList& updates)
{
    if (!_dpFullSyncDone) {
        // The data path's initial state reaches the controllers in the config
        // app's full sync instead.
        FLOG_VERBOSE("CPDomainManager receive local update before fullSync");
        return;
    }
    FLOG_VERBOSE("CPDomainManager receive local config delta update");
    if (auto* sink = FindApp<CPLocalStateSink>(_appManager, ZUNChannel::APP_ID_CONFIG)) {
        sink->SendLocalState(updates);
    }
}

void CPDomainManager::ProcessRemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& /*delta*/)
{
}

void CPDomainManager::ProcessLocalL2Update(const com::corvid::zun::l2::L2UpdateMsg& delta)
{
    FLOG_VERBOSE("CPDomainManager receive local l2 atomic update");
    if (auto* sink = FindApp<CPLocalL2Sink>(_appManager, ZUNChannel::APP_ID_L2)) {
        sink->ProcessLocalL2Update(delta);
    }
}

void CPDomainManager::Process(uint32_t type, const uint8_t* data, uint32_t length)
{
    ZUNChannel::GlobalLockGuard lock;
    FLOG_VERBOSE("CPDomainManager Process, type is %1", type);
    uint16_t appId = 0;
    if (type == MsgDispatcher::DP_MSG_TRACEFLOW) {
        appId = ZUNChannel::APP_ID_TRACEFLOW;
    } else if (type == MsgDispatcher::DP_MSG_L3) {
        appId = ZUNChannel::APP_ID_VDRB;
    } else {
        FLOG_VERBOSE("CPDomainManager unsupported type");
        return;
    }
    if (auto* sink = FindApp<CPDataPathMsgSink>(_appManager, appId)) {
        sink->ProcessDataPathMsg(type, data, length);
    }
}

void CPDomainManager::CPDomainInitFullSyncDone()
{
    FLOG_VERBOSE("CPDomainManager receive first config atomic update, CPDomainInitFullSync is done");
    if (_cpFullSyncListener) {
        _cpFullSyncListener();
    }
    _cpFullSyncDone = true;
}

void CPDomainManager::DPDomainInitFullSyncDone()
{
    ZUNChannel::GlobalLockGuard lock;
    FLOG_VERBOSE("CPDomainManager receive DPDomainInitFullSync done event");
    ASSERT(_appManager);
    auto* sessionApp = dynamic_cast<SessionApp*>(_appManager->FindApp(ZUNChannel::APP_ID_SESSION, 0).get());
    // The handshake cannot finish without the session app that opens the sessions.
    ASSERT(sessionApp != nullptr);
    sessionApp->ProcessDPInitialSyncDone();
    _dpFullSyncDone = true;
}

void CPDomainManager::RegisterPhysicalMasterSessionObserver(const ZUNChannel::AppKey& key, SessionObserver observer)
{
    ZUNChannel::GlobalLockGuard lock;
    FLOG_VERBOSE("Register app %1 for physical master session change",
                 std::to_string(key.id) + " : " + std::to_string(key.instance));
    _sessionObservers.emplace(key, std::move(observer));
}

void CPDomainManager::NotifyPhysicalMasterSessionChange(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session,
                                                        bool down)
{
    ASSERT(ZUNChannel::IsLockAvailable());
    const uint32_t instance = session ? session->GetKey().instance : 0;
    FLOG_VERBOSE("Get physical master session status change to %1 for app %2", down ? "down" : "up", instance);
    for (auto& entry : _sessionObservers) {
        if (entry.first.instance == instance) {
            entry.second(session, down ? CP_SESSION_DOWN : CP_SESSION_UP);
        }
    }
}

}  // namespace FenREL
