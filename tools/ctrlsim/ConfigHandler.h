#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Bytes.h"
#include "MessageHandler.h"
#include "WatchedState.h"
#include "ccp_lcp_config.pb.h"

namespace CtrlSim {

class ControllerSim;

// The controller's side of the config channel, protocolID 256. At each
// session the host states its VIFs and ends its full sync:
//
//   host:       type 7 [0x00, CcpLcpZunConfigMsg ENTITY_STATE]   (none when it has no VIF)
//   host:       type 4 [0x04]                                    FullSync End, 16 bytes
//   controller: type 7 [0x00, CcpLcpZunConfigMsg ENTITY_PROPERTY] (configuration)
//   controller: type 4 [0x04]                                    FullSync End, with the host's session id
//
// and then sends VIF changes one message at a time. The handler keeps the
// controller's view of the host's VIFs: what a session states before its
// FullSync End replaces the view, what follows changes it. With auto-answer
// on (the default) it answers the host's FullSync End with the configuration
// set here (none at first) and its own FullSync End. Anything else the host
// sends on this channel is a violation.
class ConfigHandler : public MessageHandler {
public:
    using ZunConfigDeltaMsg = com::corvid::zun::config::ZunConfigDeltaMsg;
    using CcpLcpZunConfigMsg = com::corvid::zun::config::CcpLcpZunConfigMsg;
    using EntityStateMsg = com::corvid::zun::config::EntityStateMsg;

    static constexpr uint16_t ProtocolId = 256;
    static constexpr uint8_t FullSyncEnd = 4;

    // The VIFs as the controller knows them: id, then the states by type.
    using VifView = std::map<std::string, std::map<uint32_t, EntityStateMsg>>;

    // One ENTITY_STATE message of the host.
    struct HostUpdate {
        size_t connection = 0;
        uint32_t sessionId = 0;
        size_t frames = 0;
        bool inFullSync = false;  // sent before the host's FullSync End of its session
        CcpLcpZunConfigMsg msg;
    };

    struct HostState {
        std::vector<HostUpdate> updates;
        size_t fullSyncEnds = 0;               // the host's FullSync End messages
        std::optional<size_t> connection;      // of the host's last message
        std::optional<uint32_t> sessionId;     // of the host's last message
        bool inFullSync = false;               // the session's full sync has not ended yet
        VifView pending;                       // what the current full sync has stated so far
        VifView view;                          // after the last full sync and the changes since

        // "host full syncs 1 updates 2 session 3 vifs 2", then a line per VIF.
        std::string ToString() const;
    };

    explicit ConfigHandler(ControllerSim& sim);

    void SetAutoAnswer(bool on);
    // What auto-answer sends before its FullSync End; nothing when empty.
    void SetConfiguration(std::vector<ZunConfigDeltaMsg> configuration);

    // Sends `msg` (type ENTITY_PROPERTY unless it says otherwise) as an update
    // on the host's config connection; false when there is none that is up.
    bool Push(const CcpLcpZunConfigMsg& msg);
    // The same with the bytes after the lead byte as they stand.
    bool PushPayload(const Bytes& payload);
    // Our FullSync End, with the host's last session id unless one is given.
    bool SendFullSyncEnd(std::optional<uint32_t> sessionId = std::nullopt);

    HostState State() const { return _state.Copy(); }
    bool WaitUntil(const std::function<bool(const HostState&)>& condition, std::chrono::milliseconds timeout) const
    {
        return _state.WaitUntil(condition, timeout);
    }

    // The largest frame the agent takes: what our hello told it, 4096 without;
    // 0 (no cutting) for a limit that leaves no room for a body.
    static size_t AgentFrameLimit(ControllerSim& sim);
    // Applies the VIF changes of an ENTITY_STATE message to `view`.
    static void ApplyVifChanges(const CcpLcpZunConfigMsg& msg, VifView& view);

    void OnMessage(Peer& peer, const RecordedMessage& msg) override;
    void OnClosed(size_t connection) override;

private:
    // Sends to the host's config connection, or on `peer` when given, with
    // the host's session id unless one is given.
    bool SendToHost(uint16_t type, Bytes body, std::optional<uint32_t> sessionId, Peer* peer = nullptr);
    static Bytes UpdateBody(const CcpLcpZunConfigMsg& msg);
    void OnSessionControl(Peer& peer, const RecordedMessage& msg);
    void OnUpdate(Peer& peer, const RecordedMessage& msg);
    // A new session of the host starts its full sync afresh.
    static void FollowSession(HostState& state, const RecordedMessage& msg);

    ControllerSim& _sim;
    WatchedState<HostState> _state;
    // Settings, guarded by their own lock apart from the record.
    mutable std::mutex _settingsMutex;
    bool _autoAnswer = true;
    std::vector<ZunConfigDeltaMsg> _configuration;
};

}  // namespace CtrlSim
