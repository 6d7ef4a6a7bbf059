#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "Hello.h"
#include "MessageHandler.h"

namespace CtrlSim {

// When the simulated controller sends its hello.
enum class HelloMode {
    Answer,     // in answer to each hello of the agent
    SendFirst,  // as soon as the connection is up, and not in answer
    Silent,     // never by itself (SendHello still works)
};

// The conversation of protocolID 0: the hello and the keep-alives.
//
// It answers the agent's hello with its own (by HelloMode), and sends the
// keep-alive whenever the connection has been silent for a whole period. It
// checks what the agent sends on protocolID 0: a hello that parses with bit 7
// of helloFlags set, keep-alives of the exact 15 bytes, no other type.
//
// Settings are guarded by _mutex: tests change them from their own thread
// while the I/O thread reads them.
class CoreHandler : public MessageHandler, public std::enable_shared_from_this<CoreHandler> {
public:
    CoreHandler();

    void SetHello(const Hello& hello);
    Hello GetHello() const;
    void SetHelloMode(HelloMode mode);
    // Off: no keep-alive goes out until it is on again.
    void SetKeepAliveEnabled(bool enabled);
    // The silence after which a keep-alive goes out. Unset, it follows the
    // KeepAlive Interval of our hello (10 s without one). At least 10 ms.
    void SetKeepAlivePeriod(std::optional<std::chrono::milliseconds> period);
    std::chrono::milliseconds KeepAlivePeriod() const;

    // Sends our hello on `peer` now, whatever the mode.
    void SendHello(Peer& peer);

    void OnConnected(Peer& peer) override;
    void OnMessage(Peer& peer, const RecordedMessage& msg) override;

private:
    void CheckSilence(Peer& peer);
    void CheckAgentHello(Peer& peer, const RecordedMessage& msg);

    mutable std::mutex _mutex;
    Hello _hello;
    HelloMode _helloMode = HelloMode::Answer;
    bool _keepAliveEnabled = true;
    std::optional<std::chrono::milliseconds> _keepAlivePeriod;
};

}  // namespace CtrlSim
