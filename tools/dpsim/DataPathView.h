#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ConfigView.h"
#include "L2View.h"
#include "lcp_dp.pb.h"

namespace DpSim {

// What the data path knows of the control plane, rebuilt from the messages
// the agent sent: a full sync replaces it all, every other message applies
// as a delta. Messages that are not state (L3, traceflow, firewall,
// encryption, edge services) are only counted.
class DataPathView {
public:
    using CcpSessionStateMsg = com::corvid::zun::lcp::CcpSessionStateMsg;
    // Session type, then the VNI or router id (0 for the config session).
    using SessionKey = std::pair<int32_t, uint32_t>;

    // `countedL2`: when counting L2 items only, the mapping updates of the
    // message's L2 update as read from its bytes (L2WireCounter), in place of
    // the l2_update that was left out of `msg`.
    void Apply(const com::corvid::zun::lcp::LcpDpMsg& msg, bool fullSync,
               const std::vector<L2View::MappingCount>& countedL2 = {});
    // L2 items counted, not kept (L2View::SetCountOnly).
    void SetL2CountOnly(bool on) { _l2.SetCountOnly(on); }

    const ConfigView& Config() const { return _config; }
    const L2View& L2() const { return _l2; }
    const std::map<SessionKey, CcpSessionStateMsg>& Sessions() const { return _sessions; }
    std::optional<CcpSessionStateMsg> Session(int32_t type, uint32_t index) const;

    size_t FullSyncs() const { return _fullSyncs; }
    size_t Deltas() const { return _deltas; }
    size_t L3Updates() const { return _l3Updates; }
    size_t TraceflowUpdates() const { return _traceflowUpdates; }
    size_t DfwUpdates() const { return _dfwUpdates; }
    size_t DneUpdates() const { return _dneUpdates; }
    size_t ServiceUpdates() const { return _serviceUpdates; }

    static SessionKey KeyOf(const CcpSessionStateMsg& session);
    // The lines of every part, for the operator and a test's failure text.
    std::string Describe() const;

private:
    ConfigView _config;
    L2View _l2;
    std::map<SessionKey, CcpSessionStateMsg> _sessions;
    size_t _fullSyncs = 0;
    size_t _deltas = 0;
    size_t _l3Updates = 0;
    size_t _traceflowUpdates = 0;
    size_t _dfwUpdates = 0;
    size_t _dneUpdates = 0;
    size_t _serviceUpdates = 0;
};

}  // namespace DpSim
