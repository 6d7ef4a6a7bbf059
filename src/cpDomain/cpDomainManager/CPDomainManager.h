#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include <boost/intrusive_ptr.hpp>

#include "AppKey.h"
#include "AppManager.h"
#include "CtrlSession.h"
#include "MsgSink.h"
#include "SCConfigTableObserver.h"
#include "SCL2TableObserver.h"

namespace FenREL {

// The control-plane end of the meeting point of the two domains. It hears
// the local halves of the state cache (VIF state, local L2) and passes them to
// the apps that report to the controllers, takes the data path's uncached
// messages (traceflow, router) from the dispatcher, and runs the control side
// of the start-up handshake:
//
//   config app's first complete update -> CPDomainInitFullSyncDone -> the data
//   path gets its full sync; the data path's first message ->
//   DPDomainInitFullSyncDone -> the session app may open, local changes flow.
//
// Neither flag ever goes back. It also tells the apps that registered for it
// when the physical master session goes up or down.
class CPDomainManager final : public SCConfigTableObserver, public SCL2TableObserver, public MsgSink {
public:
    enum CPSessionState : uint32_t { CP_SESSION_UP = 0, CP_SESSION_DOWN = 1 };
    using SessionObserver =
        std::function<void(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, uint32_t state)>;

    static CPDomainManager* Create();
    static CPDomainManager* Get();
    static void Destroy();

    // Registers with the state cache and the dispatcher; Stop undoes it and
    // forgets the apps (the config table keeps its local observers for good).
    void Start(const boost::intrusive_ptr<ZUNChannel::AppManager>& appManager);
    void Stop();

    void ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates) override;
    void ProcessLocalStateUpdate(const LocalStateUpdateList& updates) override;
    void ProcessRemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& delta) override;
    void ProcessLocalL2Update(const com::corvid::zun::l2::L2UpdateMsg& delta) override;
    void Process(uint32_t type, const uint8_t* data, uint32_t length) override;

    void CPDomainInitFullSyncDone();
    void DPDomainInitFullSyncDone();
    // What CPDomainInitFullSyncDone tells the data-plane end; set by it.
    void SetCPFullSyncListener(std::function<void()> listener) { _cpFullSyncListener = std::move(listener); }

    void RegisterPhysicalMasterSessionObserver(const ZUNChannel::AppKey& key, SessionObserver observer);
    void NotifyPhysicalMasterSessionChange(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, bool down);

    bool IsDPFullSyncDone() const { return _dpFullSyncDone; }
    bool IsCPFullSyncDone() const { return _cpFullSyncDone; }

private:
    CPDomainManager() = default;

    boost::intrusive_ptr<ZUNChannel::AppManager> _appManager;
    bool _dpFullSyncDone = false;
    bool _cpFullSyncDone = false;
    std::map<ZUNChannel::AppKey, SessionObserver> _sessionObservers;
    std::function<void()> _cpFullSyncListener;
};

}  // namespace FenREL
