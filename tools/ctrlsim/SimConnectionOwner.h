#pragma once

#include <cstddef>
#include <string>

#include "Frame.h"
#include "MessageWriter.h"
#include "Recording.h"

namespace CtrlSim {

class SimConnection;

// What a SimConnection tells the simulator that owns it; called on the I/O thread.
class SimConnectionOwner {
public:
    virtual ~SimConnectionOwner() = default;

    virtual void ConnectionUp(SimConnection& connection, SteadyTime when) = 0;
    virtual void FrameReceived(SimConnection& connection, const Frame& frame, SteadyTime when) = 0;
    virtual void MessageReceived(SimConnection& connection, Message&& msg, SteadyTime when) = 0;
    // `msg` went into the write queue of an open connection.
    virtual void MessageSent(size_t connection, const OutMessage& msg, SteadyTime when) = 0;
    virtual void ViolationSeen(size_t connection, const std::string& text, SteadyTime when) = 0;
    // Called once, whatever closed it.
    virtual void ConnectionClosed(size_t connection, const std::string& reason, SteadyTime when) = 0;
};

}  // namespace CtrlSim
