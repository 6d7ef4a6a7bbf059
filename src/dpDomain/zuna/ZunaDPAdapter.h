#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "DPAdapter.h"
#include "DataplaneLink.h"
#include "lcp_dp.pb.h"

namespace FenREL {

class ZunaDPLink;

// The adapter to the host's data-path agent: every change of the control
// plane goes out as one LcpDpMsg on a ZunaDPLink, and what the agent sends
// comes back into the local halves of the state cache or, for L3 and
// traceflow, to the control plane through the dispatcher.
//
// The full sync with the agent: once the control plane has its first
// configuration and the link is up, the whole remote picture goes out as one
// message. The agent's first message after each connection counts as its
// full sync, whatever it holds; the first of them opens the sessions to the
// controllers. A lost link ends the process (SIGTERM): the supervisor's
// restart begins both full syncs again.
//
// Threads: the control-plane entry points run under the global lock; the
// link's handlers on its read and timer threads. The flags are atomics.
//
// On a public-cloud gateway the messages go to the gateway adapter instead,
// which this build does not have: they are dropped there.
class ZunaDPAdapter final : public DPAdapter {
public:
    static constexpr const char* kDefaultPath = "/var/run/corvid/zun-agent/zuna_link";

    // `path` empty: the default, under $FENREL_ROOT. A path the socket
    // address cannot hold is cut to 107 bytes.
    ZunaDPAdapter(const std::string& path, bool isGw);
    ~ZunaDPAdapter();
    ZunaDPAdapter(const ZunaDPAdapter&) = delete;
    ZunaDPAdapter& operator=(const ZunaDPAdapter&) = delete;

    bool Init(DPDomainManager* manager) override;
    void CPDomainInitFullSyncDone() override;
    void RemoteConfigPropObserverImpl(const com::corvid::zun::config::CcpLcpZunConfigMsg& msg) override;
    void RemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& msg) override;
    void RemoteSessionUpdate(const std::vector<com::corvid::zun::lcp::CcpSessionStateMsg>& sessions) override;
    void CPMsgProcessorImpl(uint32_t type, const google::protobuf::Message& msg) override;

    // The link's handlers.
    void ReceiveHandler(const unsigned char* buffer, int length);
    void StatusHandler(DataplaneLink* link, DataplaneLink::LinkStatus status);
    bool LinkCheck(int fd);
    // One message of the agent, on the link's read thread.
    void DpPacketHandler(const com::corvid::zun::lcp::LcpDpMsg& msg);

    // Frames `msg` (null: a bare header) with `headerType` and queues it.
    bool SendMsg(uint8_t headerType, const com::corvid::zun::lcp::LcpDpMsg* msg);
    // The whole remote picture as one message.
    bool SendFullSync();

    const std::string& GetPath() const { return _path; }
    bool IsGw() const { return _isGw; }
    ZunaDPLink* GetLink() const { return _link.get(); }
    bool IsDPFullSyncDone() const { return _dpFullSyncDone; }
    bool IsDPInitFullSyncDone() const { return _dpInitFullSyncDone; }

private:
    // Sends `msg`, logging a failure.
    void Forward(uint8_t headerType, const com::corvid::zun::lcp::LcpDpMsg& msg);

    DPDomainManager* _manager = nullptr;
    std::string _path;
    boost::intrusive_ptr<ZunaDPLink> _link;
    std::atomic<bool> _cpFullSyncDone{false};
    std::atomic<bool> _dpFullSyncDone{false};
    std::atomic<bool> _dpInitFullSyncDone{false};
    const bool _isGw;
};

}  // namespace FenREL
