#pragma once

#include <cstddef>

#include "Peer.h"
#include "Recording.h"

namespace CtrlSim {

// One conversation of the simulated controller, registered by protocolID
// (and optionally type). Called on the simulator's I/O thread only; a
// handler whose settings are changed by tests guards them itself.
class MessageHandler {
public:
    virtual ~MessageHandler() = default;

    // A connection is up (after the TLS handshake, when there is one).
    virtual void OnConnected(Peer& /*peer*/) {}
    // A whole message of this handler's protocolID arrived on `peer`.
    virtual void OnMessage(Peer& peer, const RecordedMessage& msg) = 0;
    // A connection that was up has closed.
    virtual void OnClosed(size_t /*connection*/) {}
};

}  // namespace CtrlSim
