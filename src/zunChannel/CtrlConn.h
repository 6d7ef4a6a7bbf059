#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <boost/intrusive_ptr.hpp>

#include "AsyncTimer.h"
#include "AsyncTcpSession.h"
#include "ConnConfig.h"
#include "ConnKey.h"
#include "CtrlMsgReassembler.h"
#include "MsgWriter.h"
#include "Uuid.h"

namespace ZUNChannel {

class MsgScheduler;

// One TCP or TLS connection to one controller: it connects, pins the peer's
// certificate, frames and reassembles messages, hands them to the application
// owning their protocolID, and reconnects for ever.
//
//   CONN_INIT --Start--> CONN_CONNECTING --TCP up / TLS verified--> CONN_CONNECTED
//   CONN_CONNECTING: an attempt on each timer; a failed one re-arms after 5 s.
//   CONN_CONNECTED --any failure, Reset--> CONN_CONNECTING (work item; retry after 1 s)
//   any but CONN_END --Stop--> CONN_END
//
// Every callback and timer takes the global lock first; so do the callers of
// SendMsg. Frames leave through the MsgScheduler, one write in flight.
class CtrlConn : public MsgWriter {
public:
    enum State { CONN_INIT = 0, CONN_CONNECTING = 1, CONN_CONNECTED = 2, CONN_END = 3 };

    static constexpr uint32_t kHelloSent = 0x01;
    static constexpr uint32_t kHelloReceived = 0x10;
    static constexpr uint32_t kReady = kHelloSent | kHelloReceived;
    static constexpr int32_t kReconnectDelayUs = 1000000;

    CtrlConn(const ConnKey& key, const ConnConfig& config, uint32_t retryIntervalSeconds);
    ~CtrlConn() override;

    void Start();
    void Stop();
    // Takes the message; fragments it to the frame limit and queues the frames.
    bool SendMsg(uint8_t* message);
    // From any error, the keep-alive or a configuration change: a connected
    // connection reconnects, through a work item off the I/O path.
    void Reset();

    // The scheduler's write: one frame at a time.
    bool WriteMsg(uint8_t* buffer, uint32_t size) override;

    // The controller list holds one share of the users while the controller
    // is in it. UnsetConfig clears the configuration and gives that share up
    // (only while held); SetConfig takes it back for a controller that returns
    // to the list.
    void SetConfig(const ConnConfig& config);
    void UnsetConfig();
    bool HoldsListShare() const { return _listShare; }
    const ConnConfig& GetConfig() const { return _config; }
    void SetControllerUuid(const UUID& uuid) { _controllerUuid = uuid; }
    const UUID& GetControllerUuid() const { return _controllerUuid; }
    void SetMsgRate(uint32_t rate);
    uint32_t GetMsgRate() const;
    State GetState() const { return _state; }
    static const char* StateName(State state);

    const ConnKey& GetKey() const { return _key; }
    uint32_t GetHelloFlags() const { return _helloFlags; }
    void SetHelloFlag(uint32_t flag) { _helloFlags |= flag; }
    bool IsReady() const { return _helloFlags == kReady; }
    uint32_t GetRxMsgCount() const { return _rxMsgCount; }
    uint16_t GetLocalPort() const { return static_cast<uint16_t>(_lastLocalPort); }
    const std::string& GetLocalAddr() const { return _lastLocalAddr; }
    const boost::intrusive_ptr<MsgScheduler>& GetScheduler() const { return _scheduler; }

    // Keep-alive bookkeeping of the core app's sweep.
    uint32_t& RxIdleTicks() { return _rxIdleTicks; }
    uint32_t& TxIdleTicks() { return _txIdleTicks; }

    int32_t AddUser() { return ++_users; }
    int32_t RemoveUser() { return --_users; }
    int32_t GetUsers() const { return _users; }

    // Completions and timers; public for the socket and timer templates.
    void OnRetryTimer();
    void OnConnect(const boost::system::error_code& error);
    void OnHandshake(const boost::system::error_code& error, bool peerVerified);
    void OnRead(const boost::system::error_code& error, size_t count);
    void OnWrite(const boost::system::error_code& error, size_t count);
    // The body of the reset work item.
    void DoReset();

private:
    using Session = AsyncTcpSession<CtrlConn>;

    void Transition(State to);
    void ConnectionUp();
    void IssueRead();
    void RetryLater(int32_t delayUs);
    void CloseSession();
    void FreeInFlight(bool sent);
    void SetStatus(const std::string& text);
    std::string PortText() const;

    ConnKey _key;
    ConnConfig _config;
    UUID _controllerUuid;
    uint32_t _retryIntervalSeconds;
    uint32_t _rxIdleTicks = 0;
    uint32_t _txIdleTicks = 0;
    std::shared_ptr<AsyncTimer<CtrlConn>> _retryTimer;
    // Replaced, not reset, when the stream is dropped: a read still pending on
    // the old socket keeps the old one, and the buffer it reads into, alive.
    std::shared_ptr<CtrlMsgReassembler> _reassembler;
    boost::intrusive_ptr<MsgScheduler> _scheduler;
    std::deque<uint8_t*> _inFlight;
    State _state = CONN_INIT;
    uint32_t _helloFlags = 0;
    uint32_t _rxMsgCount = 0;
    int32_t _users = 1;
    bool _listShare = true;  // one of `_users` is the controller list's
    uint32_t _lastLocalPort = 0;
    std::string _lastLocalAddr;
    std::shared_ptr<Session> _session;
};

}  // namespace ZUNChannel
