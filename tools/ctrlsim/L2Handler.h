#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Bytes.h"
#include "MessageHandler.h"
#include "WatchedState.h"
#include "ccp_lcp_l2.pb.h"

namespace CtrlSim {

class ControllerSim;

// The controller's side of the L2 channel, protocolID 64. It runs on the
// host's physical master session, with no session control of its own:
//
//   host:       type 7 [0x00, L2UpdateMsg]   at each session a full sync of everything
//                                            (first mapping without type, first item ADD),
//                                            then joins, leaves and changes as they come
//   controller: type 7 [0x00, L2UpdateMsg]   a VNI's full sync (the same mark) or a delta
//   controller: type 8 [error 16, sub 16, VNI 32]   notification
//
// Either side may cut an update into fragments. Nothing is answered. The
// handler keeps the controller's view of the host: per VNI the transport
// switches that joined and the host's VM MACs (with their VTEP), VM IPs (with
// their MAC) and VTEPs; per routing domain the host's VTEPs. A new session of
// the host starts the view afresh; a full sync (a join is one too) restates
// the mappings of the VNIs it names, and the rest changes them. A DEL of what the view lacks, a
// routing VTEP item without its marker, or any other message type is a
// violation of the host.
class L2Handler : public MessageHandler {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;

    static constexpr uint16_t ProtocolId = 64;
    static constexpr uint16_t Notification = 8;

    struct VniView {
        std::set<uint32_t> switches;         // transport switch ids of the joins
        std::map<uint64_t, uint32_t> macs;   // VM MAC to VTEP IP (0 when not given)
        std::map<uint32_t, uint64_t> ips;    // VM IP to VM MAC
        std::set<uint32_t> vteps;            // VTEP IPs

        bool operator==(const VniView& other) const
        {
            return switches == other.switches && macs == other.macs && ips == other.ips && vteps == other.vteps;
        }
    };

    // The view: VNIs, and routing domains by their UUID text.
    struct View {
        std::map<uint32_t, VniView> vnis;
        std::map<std::string, std::set<uint32_t>> routingVteps;
    };

    // One update of the host.
    struct HostUpdate {
        size_t connection = 0;
        uint32_t sessionId = 0;
        size_t frames = 0;
        bool fullSync = false;
        L2UpdateMsg msg;
    };

    struct HostState {
        std::vector<HostUpdate> updates;
        size_t fullSyncs = 0;
        // (switch, VNI) of each VNI entry the host sent, in order: ADD (a join,
        // and every VNI of a full sync), and DEL.
        std::vector<std::pair<uint32_t, uint32_t>> joins;
        std::vector<std::pair<uint32_t, uint32_t>> leaves;
        std::optional<size_t> connection;   // of the host's last update
        std::optional<uint32_t> sessionId;  // of the host's last update
        View view;

        // "host updates 3 full syncs 1 joins 1 leaves 0 vnis 1 routing domains 0",
        // then a line per VNI and per routing domain.
        std::string ToString() const;
    };

    // One VM of a VNI as the controller states it: a VM_MAC item (MAC and
    // VTEP), a VM_IP item (IP and MAC) and a VTEP item.
    struct Vm {
        uint64_t mac = 0;
        uint32_t ip = 0;    // host order
        uint32_t vtep = 0;  // host order
    };

    explicit L2Handler(ControllerSim& sim);

    // A full sync of `vni` that states `vms` (the VNI's mark first), or a
    // delta that adds and removes them, to the host's connection. A
    // `frameLimit` cuts the message into frames of at most that many bytes;
    // 0 sends one frame. False when the host's connection is not up.
    bool PushFullSync(uint32_t vni, const std::vector<Vm>& vms, size_t frameLimit = 0);
    bool PushDelta(uint32_t vni, const std::vector<Vm>& adds, const std::vector<Vm>& removes,
                   size_t frameLimit = 0);
    // Any update, as it stands.
    bool Push(const L2UpdateMsg& update, size_t frameLimit = 0);
    bool SendNotification(uint16_t error, uint16_t sub, uint32_t vni);

    HostState State() const { return _state.Copy(); }
    bool WaitUntil(const std::function<bool(const HostState&)>& condition, std::chrono::milliseconds timeout) const
    {
        return _state.WaitUntil(condition, timeout);
    }

    // The messages a controller sends.
    static L2UpdateMsg FullSyncOf(uint32_t vni, const std::vector<Vm>& vms);
    static L2UpdateMsg DeltaOf(uint32_t vni, const std::vector<Vm>& adds, const std::vector<Vm>& removes);
    // Applies an update of the host to the state; returns what the host did
    // wrong, one text per fault.
    static std::vector<std::string> ApplyHostUpdate(const L2UpdateMsg& update, HostState& state);
    static bool IsFullSync(const L2UpdateMsg& update);

    // "00:50:56:00:00:01" and dotted IPv4 (host order), both ways.
    static std::string MacText(uint64_t mac);
    static std::optional<uint64_t> ParseMac(const std::string& text);
    static std::string IpText(uint32_t ip);
    static std::optional<uint32_t> ParseIp(const std::string& text);

    void OnMessage(Peer& peer, const RecordedMessage& msg) override;
    void OnClosed(size_t connection) override;

private:
    bool SendToHost(uint16_t type, Bytes body, size_t frameLimit);

    ControllerSim& _sim;
    WatchedState<HostState> _state;
};

}  // namespace CtrlSim
