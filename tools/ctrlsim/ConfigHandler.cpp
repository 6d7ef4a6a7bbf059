#include "ConfigHandler.h"

#include <algorithm>
#include <utility>

#include "ControllerSim.h"
#include "FrameHeader.h"
#include "Hex.h"
#include "config_entity_properties.pb.h"

namespace CtrlSim {

namespace config = com::corvid::zun::config;

namespace {

constexpr uint8_t UpdateLeadByte = 0;
// The agent's frame limit until a hello says otherwise.
constexpr size_t DefaultMaxPktLen = 4096;

// What is wrong with an ENTITY_STATE message of the host, or "".
std::string CheckHostUpdate(const config::CcpLcpZunConfigMsg& update)
{
    if (update.type() != config::CcpLcpZunConfigMsg::ENTITY_STATE) {
        return "update of type " + std::to_string(update.type()) + " instead of ENTITY_STATE";
    }
    for (const config::ZunStateDeltaMsg& vif : update.entity_state()) {
        if (vif.entity_type() != config::VIF) {
            return "entity " + vif.entity_id() + " of type " + std::to_string(vif.entity_type()) + " is not a VIF";
        }
        if (vif.state_size() > 1) {
            return "VIF " + vif.entity_id() + " with " + std::to_string(vif.state_size()) + " states in one element";
        }
    }
    return "";
}

}  // namespace

std::string ConfigHandler::HostState::ToString() const
{
    std::string text = "host full syncs " + std::to_string(fullSyncEnds) + " updates " +
                       std::to_string(updates.size()) + " session " +
                       (sessionId ? std::to_string(*sessionId) : std::string("none")) + " vifs " +
                       std::to_string(view.size()) + "\n";
    for (const auto& [id, states] : view) {
        text += "vif " + id;
        for (const auto& entry : states) {
            text += " {" + entry.second.ShortDebugString() + "}";
        }
        text += "\n";
    }
    return text;
}

ConfigHandler::ConfigHandler(ControllerSim& sim) : _sim(sim) {}

void ConfigHandler::SetAutoAnswer(bool on)
{
    std::lock_guard<std::mutex> lock(_settingsMutex);
    _autoAnswer = on;
}

void ConfigHandler::SetConfiguration(std::vector<ZunConfigDeltaMsg> configuration)
{
    std::lock_guard<std::mutex> lock(_settingsMutex);
    _configuration = std::move(configuration);
}

Bytes ConfigHandler::UpdateBody(const CcpLcpZunConfigMsg& msg)
{
    CcpLcpZunConfigMsg update = msg;
    if (!update.has_type()) {
        update.set_type(CcpLcpZunConfigMsg::ENTITY_PROPERTY);
    }
    const std::string bytes = update.SerializeAsString();
    Bytes body(1 + bytes.size(), UpdateLeadByte);
    std::copy(bytes.begin(), bytes.end(), body.begin() + 1);
    return body;
}

bool ConfigHandler::Push(const CcpLcpZunConfigMsg& msg)
{
    return SendToHost(MsgType::AppData, UpdateBody(msg), std::nullopt);
}

bool ConfigHandler::PushPayload(const Bytes& payload)
{
    Bytes body(1 + payload.size(), UpdateLeadByte);
    std::copy(payload.begin(), payload.end(), body.begin() + 1);
    return SendToHost(MsgType::AppData, std::move(body), std::nullopt);
}

bool ConfigHandler::SendFullSyncEnd(std::optional<uint32_t> sessionId)
{
    return SendToHost(MsgType::SessionControl, Bytes{FullSyncEnd}, sessionId);
}

bool ConfigHandler::SendToHost(uint16_t type, Bytes body, std::optional<uint32_t> sessionId, Peer* peer)
{
    const auto [connection, hostSession] =
        _state.Read([](const HostState& state) { return std::make_pair(state.connection, state.sessionId); });
    OutMessage msg;
    msg.type = type;
    msg.protocolId = ProtocolId;
    msg.body = std::move(body);
    msg.sessionId = sessionId.value_or(hostSession.value_or(FrameHeader::NoSession));
    msg.frameLimit = AgentFrameLimit(_sim);
    if (peer != nullptr) {
        peer->Send(msg);
        return peer->IsOpen();
    }
    return _sim.SendMessage(msg, connection);
}

size_t ConfigHandler::AgentFrameLimit(ControllerSim& sim)
{
    const size_t limit = sim.Core().GetHello().maxPktLen.value_or(DefaultMaxPktLen);
    return limit > FrameHeader::Size ? limit : 0;
}

void ConfigHandler::ApplyVifChanges(const CcpLcpZunConfigMsg& msg, VifView& view)
{
    for (const config::ZunStateDeltaMsg& vif : msg.entity_state()) {
        const bool remove = vif.operation() == config::ZunStateDeltaMsg::DELETE_OP;
        if (vif.state_size() == 0) {
            if (remove) {
                view.erase(vif.entity_id());
            } else {
                view[vif.entity_id()];
            }
            continue;
        }
        const EntityStateMsg& state = vif.state(0);
        if (!remove) {
            view[vif.entity_id()][state.state_type()] = state;
        } else if (auto it = view.find(vif.entity_id()); it != view.end()) {
            it->second.erase(state.state_type());
        }
    }
}

void ConfigHandler::FollowSession(HostState& state, const RecordedMessage& msg)
{
    if (state.connection != msg.connection || state.sessionId != msg.header.sessionId) {
        state.connection = msg.connection;
        state.sessionId = msg.header.sessionId;
        state.inFullSync = true;
        state.pending.clear();
    }
}

void ConfigHandler::OnMessage(Peer& peer, const RecordedMessage& msg)
{
    if (msg.header.sessionId == FrameHeader::NoSession) {
        peer.ReportViolation("config: message without a session id");
        return;
    }
    switch (msg.header.type) {
    case MsgType::SessionControl:
        OnSessionControl(peer, msg);
        break;
    case MsgType::AppData:
        OnUpdate(peer, msg);
        break;
    default:
        peer.ReportViolation("config: unknown message type " + std::to_string(msg.header.type));
        break;
    }
}

void ConfigHandler::OnSessionControl(Peer& peer, const RecordedMessage& msg)
{
    // The control type, then an empty ConfigSessionMsg.
    if (msg.body != Bytes{FullSyncEnd}) {
        peer.ReportViolation("config: session control other than a bare FullSync End: " + ToHex(msg.body));
        return;
    }
    const bool repeated = _state.Update([&](HostState& state) {
        ++state.fullSyncEnds;
        FollowSession(state, msg);
        if (!state.inFullSync) {
            return true;
        }
        state.view = std::move(state.pending);
        state.pending.clear();
        state.inFullSync = false;
        return false;
    });
    if (repeated) {
        peer.ReportViolation("config: second FullSync End in session " + std::to_string(msg.header.sessionId));
        return;
    }
    std::vector<ZunConfigDeltaMsg> configuration;
    {
        std::lock_guard<std::mutex> lock(_settingsMutex);
        if (!_autoAnswer) {
            return;
        }
        configuration = _configuration;
    }
    // On the connection and with the session id of the FullSync End answered.
    if (!configuration.empty()) {
        CcpLcpZunConfigMsg update;
        for (ZunConfigDeltaMsg& delta : configuration) {
            *update.add_entity_property() = std::move(delta);
        }
        SendToHost(MsgType::AppData, UpdateBody(update), msg.header.sessionId, &peer);
    }
    SendToHost(MsgType::SessionControl, Bytes{FullSyncEnd}, msg.header.sessionId, &peer);
}

void ConfigHandler::OnUpdate(Peer& peer, const RecordedMessage& msg)
{
    CcpLcpZunConfigMsg update;
    std::string problem;
    if (msg.body.empty() || msg.body[0] != UpdateLeadByte) {
        problem = "update without its zero lead byte";
    } else if (!update.ParseFromArray(msg.body.data() + 1, static_cast<int>(msg.body.size() - 1))) {
        problem = "update does not parse";
    } else {
        problem = CheckHostUpdate(update);
    }
    if (!problem.empty()) {
        peer.ReportViolation("config: " + problem);
        return;
    }
    _state.Update([&](HostState& state) {
        FollowSession(state, msg);
        ApplyVifChanges(update, state.inFullSync ? state.pending : state.view);
        state.updates.push_back(
            HostUpdate{msg.connection, msg.header.sessionId, msg.frameCount, state.inFullSync, std::move(update)});
    });
}

void ConfigHandler::OnClosed(size_t connection)
{
    // The next session starts afresh even if the agent restarted and its ids with it.
    _state.Update([&](HostState& state) {
        if (state.connection == connection) {
            state.connection.reset();
            state.sessionId.reset();
            state.inFullSync = false;
            state.pending.clear();
        }
    });
}

}  // namespace CtrlSim
