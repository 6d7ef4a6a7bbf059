#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "L2View.h"
#include "lcp_dp.pb.h"

namespace DpSim {

// What the simulated data path has seen on its host and reports to the
// agent: VIFs with their addresses, and local L2 state. Each change gives
// the delta message that tells it; FullSyncMessage tells it all, as the
// first message of a connection does.
//
// The changes are built so that the agent's local caches accept them: a new
// VIF is created before its states are set, a VNI is joined before its first
// item, and what is not there is never deleted (the agent would stop on it).
class LocalState {
public:
    using LcpDpMsg = com::corvid::zun::lcp::LcpDpMsg;
    using L2UpdateMappingItemMsg = com::corvid::zun::l2::L2UpdateMappingItemMsg;

    struct Vif {
        std::vector<uint32_t> ips;   // IPv4, host order
        std::vector<uint64_t> macs;  // the six bytes in the low 48 bits, first byte highest
    };

    LcpDpMsg SetVif(const std::string& id, const Vif& vif);
    // Nullopt for a VIF that is not there.
    std::optional<LcpDpMsg> RemoveVif(const std::string& id);

    // `type` is that of L2MappingUpdateMsg (1 VM_IP, 2 VM_MAC, 3 VTEP).
    // Adding joins the VNI first when needed. Returns an error text, or ""
    // with the message in `out`.
    std::string AddL2(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item, LcpDpMsg& out);
    std::string DeleteL2(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item, LcpDpMsg& out);
    std::string LeaveVni(uint32_t vni, LcpDpMsg& out);

    LcpDpMsg FullSyncMessage() const;

    const std::map<std::string, Vif>& Vifs() const { return _vifs; }
    const L2View& L2() const { return _l2; }

private:
    std::map<std::string, Vif> _vifs;
    L2View _l2;
};

}  // namespace DpSim
