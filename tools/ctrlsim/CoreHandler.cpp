#include "CoreHandler.h"

#include <algorithm>

namespace CtrlSim {

namespace {

constexpr std::chrono::milliseconds DefaultKeepAlivePeriod{10000};
// A period of 0 (a hello may announce it) would make the check spin.
constexpr std::chrono::milliseconds MinKeepAlivePeriod{10};

}  // namespace

CoreHandler::CoreHandler() : _hello(Hello::ControllerDefault()) {}

void CoreHandler::SetHello(const Hello& hello)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _hello = hello;
}

Hello CoreHandler::GetHello() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _hello;
}

void CoreHandler::SetHelloMode(HelloMode mode)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _helloMode = mode;
}

void CoreHandler::SetKeepAliveEnabled(bool enabled)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _keepAliveEnabled = enabled;
}

void CoreHandler::SetKeepAlivePeriod(std::optional<std::chrono::milliseconds> period)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _keepAlivePeriod = period;
}

std::chrono::milliseconds CoreHandler::KeepAlivePeriod() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    std::chrono::milliseconds period = DefaultKeepAlivePeriod;
    if (_keepAlivePeriod) {
        period = *_keepAlivePeriod;
    } else if (_hello.keepAliveInterval) {
        period = std::chrono::seconds(*_hello.keepAliveInterval);
    }
    return std::max(period, MinKeepAlivePeriod);
}

void CoreHandler::SendHello(Peer& peer)
{
    peer.Send(GetHello().ToMessage());
}

void CoreHandler::OnConnected(Peer& peer)
{
    bool sendFirst = false;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        sendFirst = _helloMode == HelloMode::SendFirst;
    }
    if (sendFirst) {
        SendHello(peer);
    }
    auto self = shared_from_this();
    peer.RunAfter(KeepAlivePeriod(), [self, &peer] { self->CheckSilence(peer); });
}

void CoreHandler::CheckSilence(Peer& peer)
{
    const std::chrono::milliseconds period = KeepAlivePeriod();
    bool enabled = false;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        enabled = _keepAliveEnabled;
    }
    const auto silence = std::chrono::steady_clock::now() - peer.LastSendTime();
    std::chrono::milliseconds next = period;
    if (silence < period) {
        next = std::chrono::duration_cast<std::chrono::milliseconds>(period - silence) + std::chrono::milliseconds(1);
    } else if (enabled) {
        peer.SendRaw(MessageWriter::KeepAlive());
    }
    auto self = shared_from_this();
    peer.RunAfter(next, [self, &peer] { self->CheckSilence(peer); });
}

void CoreHandler::OnMessage(Peer& peer, const RecordedMessage& msg)
{
    switch (msg.header.type) {
    case MsgType::Hello: {
        CheckAgentHello(peer, msg);
        bool answer = false;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            answer = _helloMode == HelloMode::Answer;
        }
        if (answer) {
            SendHello(peer);
        }
        break;
    }
    case MsgType::KeepAlive:
        if (msg.raw != MessageWriter::KeepAlive()) {
            peer.ReportViolation("keep-alive is not the 15 fixed bytes");
        }
        break;
    default:
        peer.ReportViolation("unknown core message type " + std::to_string(msg.header.type));
        break;
    }
}

void CoreHandler::CheckAgentHello(Peer& peer, const RecordedMessage& msg)
{
    std::string error;
    const std::optional<Hello> hello = Hello::Decode(msg, &error);
    if (!hello) {
        peer.ReportViolation("hello does not parse: " + error);
    } else if ((hello->helloFlags & Hello::StrictVersion) == 0) {
        peer.ReportViolation("hello without the strict version flag");
    }
}

}  // namespace CtrlSim
