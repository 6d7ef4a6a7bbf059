#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Bytes.h"
#include "FrameHeader.h"

namespace CtrlSim {

// A message to send to the agent.
struct OutMessage {
    uint16_t type = MsgType::AppData;
    uint16_t protocolId = 0;
    Bytes body;
    uint32_t sessionId = FrameHeader::NoSession;
    uint8_t version = 1;
    // Largest frame, header included; 0 sends the message as one frame.
    size_t frameLimit = 0;
};

// Turns messages into frames. Plain functions of their input.
class MessageWriter {
public:
    // The frames of `msg`. With a `frameLimit` that the message exceeds, the
    // body is cut into chunks of `frameLimit - 15` bytes, each in a frame of
    // its own, with bit 7 of `flags` set on every frame but the last.
    // Throws std::invalid_argument for a `frameLimit` of 15 or less, or when a
    // frame would not fit the 16-bit `length`.
    static std::vector<Bytes> Frames(const OutMessage& msg);

    // The keep-alive: 01 BA DB EE 00 FF FF FF FF 00 02 00 0F 00 00.
    static Bytes KeepAlive();
};

}  // namespace CtrlSim
