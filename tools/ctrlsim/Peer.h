#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "Bytes.h"
#include "MessageWriter.h"

namespace CtrlSim {

// One connection of the agent, as a handler sees it. Every call runs on the
// simulator's I/O thread, which is the only thread that calls handlers.
class Peer {
public:
    virtual ~Peer() = default;

    // Index of the connection, from 0 in the order of acceptance.
    virtual size_t Index() const = 0;
    virtual bool IsOpen() const = 0;

    // Queues the frames of `msg` (MessageWriter::Frames, which may throw).
    // Nothing is sent on a closed connection.
    virtual void Send(const OutMessage& msg) = 0;
    // Queues bytes as they stand.
    virtual void SendRaw(Bytes bytes) = 0;
    virtual void Close(const std::string& reason) = 0;

    // When the last write finished; the time the connection came up before any.
    virtual std::chrono::steady_clock::time_point LastSendTime() const = 0;
    // Runs `action` after `delay` on the I/O thread, unless the connection
    // has closed by then.
    virtual void RunAfter(std::chrono::milliseconds delay, std::function<void()> action) = 0;
    // Records a fault of the agent on this connection.
    virtual void ReportViolation(const std::string& text) = 0;
};

}  // namespace CtrlSim
