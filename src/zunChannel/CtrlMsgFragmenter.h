#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "CtrlMsg.h"

namespace ZUNChannel {

// Cuts messages into frames that fit the channel's frame limit, `maxPktLen`
// (header included, negotiated by the hello, both directions).
//
// Each frame carries the message's sessionID, type and protocolID, a `length`
// of its own, and flags bit 7 on every frame but the last. The fragments have
// no header of their own beyond that: the body is simply cut in chunks of
// maxPktLen - 15 bytes, and the receiver concatenates them.
//
// Plain functions of their arguments; callable from any thread.
class CtrlMsgFragmenter {
public:
    using Frames = std::vector<CtrlMsgBuffer>;

    // Takes a built message. When its `length` fits `maxPktLen` the result is
    // the message itself; otherwise its frames in order, and the message is
    // freed. Either way the caller owns what is returned.
    static Frames Fragment(CtrlMsgBuffer msg, uint16_t maxPktLen);

    // For payloads that a 16-bit `length` cannot hold (an application's full
    // sync): the frames of one message whose body is `leadByte` followed by
    // `payload`, the lead byte in the first frame only, sessionID unstamped.
    static Frames FragmentBody(uint16_t type, uint16_t protocolId, uint8_t leadByte, const uint8_t* payload,
                               size_t payloadLength, uint16_t maxPktLen);
};

}  // namespace ZUNChannel
