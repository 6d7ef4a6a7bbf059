#pragma once

#include <cstddef>

#include "Bytes.h"
#include "FrameHeader.h"

namespace CtrlSim {

// One frame as it came off the stream.
struct Frame {
    FrameHeader header;
    Bytes raw;  // the whole frame, header included
};

// One whole message: a single frame, or the fragments joined.
struct Message {
    FrameHeader header;     // the first frame's header, as received
    Bytes body;             // the bodies of all its frames, in order
    Bytes raw;              // all its frames as received, back to back
    size_t frameCount = 0;

    bool Is(uint16_t type, uint16_t protocolId) const
    {
        return header.type == type && header.protocolId == protocolId;
    }
};

}  // namespace CtrlSim
