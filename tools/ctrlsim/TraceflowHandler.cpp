#include "TraceflowHandler.h"

#include <algorithm>

#include "ConfigHandler.h"
#include "ControllerSim.h"
#include "FrameHeader.h"
#include "traceflow.pb.h"

namespace CtrlSim {

TraceflowHandler::TraceflowHandler(ControllerSim& sim) : _sim(sim) {}

bool TraceflowHandler::WaitForObservations(size_t count, std::chrono::milliseconds timeout) const
{
    return _observations.WaitUntil([count](const std::vector<Observation>& seen) { return seen.size() >= count; },
                                   timeout);
}

bool TraceflowHandler::SendPacketOut(const Bytes& payload, std::optional<size_t> connection)
{
    OutMessage msg;
    msg.type = MsgType::AppData;
    msg.protocolId = ProtocolId;
    msg.body.assign(1 + payload.size(), 0);
    std::copy(payload.begin(), payload.end(), msg.body.begin() + 1);
    msg.frameLimit = ConfigHandler::AgentFrameLimit(_sim);
    _observations.Read([&](const std::vector<Observation>& seen) {
        if (!seen.empty()) {
            msg.sessionId = seen.back().sessionId;
            connection = connection.value_or(seen.back().connection);
        }
    });
    return _sim.SendMessage(msg, connection);
}

void TraceflowHandler::OnMessage(Peer& peer, const RecordedMessage& msg)
{
    if (msg.header.type != MsgType::AppData) {
        peer.ReportViolation("traceflow: message type " + std::to_string(msg.header.type) + " instead of 7");
        return;
    }
    if (msg.body.empty() || msg.body[0] != 0) {
        peer.ReportViolation("traceflow: observation without its zero lead byte");
        return;
    }
    if (msg.header.sessionId == FrameHeader::NoSession) {
        peer.ReportViolation("traceflow: observation outside the config session");
        return;
    }
    Observation observation;
    observation.connection = msg.connection;
    observation.sessionId = msg.header.sessionId;
    observation.payload.assign(msg.body.begin() + 1, msg.body.end());
    com::corvid::zun::traceflow::TraceflowMsg parsed;
    observation.parses =
        parsed.ParseFromArray(observation.payload.data(), static_cast<int>(observation.payload.size()));
    _observations.Update([&](std::vector<Observation>& seen) { seen.push_back(std::move(observation)); });
}

}  // namespace CtrlSim
