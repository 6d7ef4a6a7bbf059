#pragma once

#include <cstdint>
#include <vector>

#include "MsgSink.h"
#include "SCConfigTableObserver.h"
#include "SCL2TableObserver.h"
#include "SCRemoteSessionTableObserver.h"
#include "ccp_lcp_config.pb.h"
#include "ccp_lcp_l2.pb.h"
#include "lcp_dp.pb.h"

namespace google {
namespace protobuf {
class Message;
}  // namespace protobuf
}  // namespace google

namespace FenREL {

class CPDomainManager;
class DPAdapter;
class MsgDispatcher;
class StateCache;

// The data-plane end of the meeting point of the two domains. It hears the
// remote halves of the state cache (configuration, L2, controller sessions)
// and the dispatcher's messages for the data path, and hands them to the
// adapter; the adapter gives it the data path's local state, which it writes
// into the local halves of the cache, and the data path's uncached messages,
// which it dispatches to the control plane.
//
// The start-up handshake, on this side:
//
//   cpInitFullSyncDone false: remote changes stay in the cache, the adapter
//   hears nothing. CPDomainInitFullSyncDone: the flag is set and the adapter
//   reads the whole cache (ReadAllCPData) for its full sync; from then on it
//   gets every change. The data path's first message: DPDomainInitFullSyncDone
//   tells the control plane.
//
// Threads: the observer operations run on the cache writer's thread with the
// global lock held; Process on the dispatching thread, without a lock;
// LocalConfigUpdate and LocalL2Update on the link's read thread, and they
// take the global lock.
class DPDomainManager final : public SCConfigTableObserver,
                        public SCL2TableObserver,
                        public SCRemoteSessionTableObserver,
                        public MsgSink {
public:
    using CcpLcpZunConfigMsg = com::corvid::zun::config::CcpLcpZunConfigMsg;
    using ZunStateDeltaMsg = com::corvid::zun::config::ZunStateDeltaMsg;
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;
    using CcpSessionStateMsg = com::corvid::zun::lcp::CcpSessionStateMsg;

    // Makes the one manager if there is none, with `adapter` (not owned),
    // and registers it with the state cache, the dispatcher and the
    // CPDomainManager, which must exist.
    static DPDomainManager* Init(DPAdapter* adapter);
    // Asserts that Init ran.
    static DPDomainManager* GetInstance();
    // Unregisters and drops the manager; only tests do this.
    static void Destroy();

    void ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates) override;
    void ProcessLocalStateUpdate(const LocalStateUpdateList& updates) override;
    void ProcessRemoteL2Update(const L2UpdateMsg& delta) override;
    void ProcessLocalL2Update(const L2UpdateMsg& delta) override;
    void Process(uint32_t type, const uint8_t* data, uint32_t length) override;
    void ProcessRemoteSessionUpdate(const RemoteSessionUpdate& update) override;

    void CPDomainInitFullSyncDone();
    void DPDomainInitFullSyncDone();
    // Dispatches `msg` to the control plane as `type`; null does nothing.
    void SendMsgToCP(uint32_t type, const google::protobuf::Message* msg);
    // The data path's local state into the local halves of the cache.
    void LocalConfigUpdate(const std::vector<ZunStateDeltaMsg>& deltas, bool fullSync);
    void LocalL2Update(const L2UpdateMsg& msg, bool fullSync);
    // The whole remote picture, for a data path that needs a full sync.
    void ReadAllCPData(CcpLcpZunConfigMsg& config, L2UpdateMsg& l2, std::vector<CcpSessionStateMsg>& sessions);

    // A controller session as the data path is told of it.
    static CcpSessionStateMsg ToSessionStateMsg(const RemoteSessionUpdate& update);

private:
    explicit DPDomainManager(DPAdapter* adapter);
    void Register();
    void UnRegister();

    DPAdapter* _adapter;
    StateCache* _stateCache = nullptr;
    CPDomainManager* _cpDomainManager = nullptr;
    MsgDispatcher* _dispatcher = nullptr;
    bool _cpInitFullSyncDone = false;
};

}  // namespace FenREL
