#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Bytes.h"
#include "MessageHandler.h"
#include "WatchedState.h"

namespace CtrlSim {

class ControllerSim;

// The controller's side of traceflow, protocolID 1026: the host reports the
// observations of its data path, and the controller sends packet-out
// requests, both as type 7 [0x00, TraceflowMsg]. The host sends them over its
// config session, whose id they carry. Anything else from the host is a
// violation.
class TraceflowHandler : public MessageHandler {
public:
    static constexpr uint16_t ProtocolId = 1026;

    struct Observation {
        size_t connection = 0;
        uint32_t sessionId = 0;
        Bytes payload;         // after the lead byte
        bool parses = false;   // as a TraceflowMsg
    };

    explicit TraceflowHandler(ControllerSim& sim);

    std::vector<Observation> Observations() const { return _observations.Copy(); }
    bool WaitForObservations(size_t count, std::chrono::milliseconds timeout) const;

    // Sends a packet-out whose payload (a TraceflowMsg) is `payload` as it
    // stands, on `connection`, or else where the last observation came from,
    // or else the current connection; false when that is not up.
    bool SendPacketOut(const Bytes& payload, std::optional<size_t> connection = std::nullopt);

    void OnMessage(Peer& peer, const RecordedMessage& msg) override;

private:
    ControllerSim& _sim;
    WatchedState<std::vector<Observation>> _observations;
};

}  // namespace CtrlSim
