#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Frame.h"

namespace CtrlSim {

using SteadyTime = std::chrono::steady_clock::time_point;

// A frame from the agent, as recorded.
struct RecordedFrame : Frame {
    size_t connection = 0;  // index of the accepted connection, from 0
    SteadyTime received;
};

// A whole message from the agent, as recorded. `received` is the time of its
// last frame.
struct RecordedMessage : Message {
    size_t connection = 0;
    SteadyTime received;

    // "conn 0 recv type 1 proto 0 session 0xffffffff v1 frames 1 bodylen 21 body 80..."
    // (the body's hex cut after `maxBodyBytes`).
    std::string ToString(size_t maxBodyBytes = 64) const;
};

// A whole message the simulator queued for the agent, as a handler or a test
// gave it. `queued` is when it went into the connection's write queue, so the
// agent cannot have read it before.
struct SentMessage {
    size_t connection = 0;
    SteadyTime queued;
    uint16_t type = 0;
    uint16_t protocolId = 0;
    uint32_t sessionId = 0;
    Bytes body;

    bool Is(uint16_t msgType, uint16_t protocol) const { return type == msgType && protocolId == protocol; }
    // "conn 0 sent type 4 proto 257 session 0x00000001 bodylen 1 body 02" (the body's hex cut as above).
    std::string ToString(size_t maxBodyBytes = 64) const;
};

// One accepted TCP connection.
struct ConnectionRecord {
    size_t index = 0;
    uint16_t peerPort = 0;
    SteadyTime accepted;
    std::optional<SteadyTime> established;  // at accept for TCP, after the handshake for TLS
    std::optional<SteadyTime> closed;
    std::string closeReason;  // "closed by peer", "closed by simulator", "refused", ...

    bool IsOpen() const { return !closed.has_value(); }
    bool IsUp() const { return established.has_value() && !closed.has_value(); }
    std::string ToString() const;
};

// Something the agent sent that the protocol does not allow: a broken
// frame, a fragment of another message, a header field out of its values, a
// hello that does not parse.
struct Violation {
    size_t connection = 0;
    SteadyTime seen;
    std::string text;
};

// Everything recorded, each list in the order of events.
struct Recording {
    std::vector<ConnectionRecord> connections;
    std::vector<RecordedFrame> frames;
    std::vector<RecordedMessage> messages;
    std::vector<SentMessage> sent;
    std::vector<Violation> violations;

    // Several lines, one per connection, violation, message received and
    // message sent (the last `lastMessages` of each), for the failure text of
    // a test.
    std::string Summary(size_t lastMessages = 20) const;
};

}  // namespace CtrlSim
