#pragma once

#include <cstdint>
#include <vector>

#include "ccp_lcp_config.pb.h"
#include "ccp_lcp_l2.pb.h"
#include "lcp_dp.pb.h"

namespace google {
namespace protobuf {
class Message;
}  // namespace protobuf
}  // namespace google

namespace FenREL {

class DPDomainManager;

// What DPDomainManager hands the state of the control plane to: whatever
// realises it on this host. The adapter is given remote changes only after
// the control plane's first complete configuration; before that it gets the
// whole picture once, through CPDomainInitFullSyncDone.
class DPAdapter {
public:
    // Connects to the data path; false if that could not be started.
    virtual bool Init(DPDomainManager* manager) = 0;
    // The control plane has its first configuration: time for a full sync.
    virtual void CPDomainInitFullSyncDone() = 0;
    // Remote entity properties that changed, as one ENTITY_PROPERTY message.
    virtual void RemoteConfigPropObserverImpl(const com::corvid::zun::config::CcpLcpZunConfigMsg& msg) = 0;
    virtual void RemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& msg) = 0;
    virtual void RemoteSessionUpdate(const std::vector<com::corvid::zun::lcp::CcpSessionStateMsg>& sessions) = 0;
    // An uncached message of dispatcher type `type` (1 traceflow, 2 L3,
    // 3 firewall, 4 encryption, 5 edge services).
    virtual void CPMsgProcessorImpl(uint32_t type, const google::protobuf::Message& msg) = 0;

protected:
    // The platform keeps its adapter for the life of the process.
    ~DPAdapter() = default;
};

}  // namespace FenREL
