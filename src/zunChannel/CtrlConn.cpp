#include "CtrlConn.h"

#include <cstdlib>

#include "AppManager.h"
#include "Assert.h"
#include "CoreApp.h"
#include "CtrlConnEvent.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "Logger.h"
#include "MsgScheduler.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

namespace ZUNChannel {

namespace {

constexpr int32_t kMicrosPerSecond = 1000000;

bool IsPeerShutdown(const boost::system::error_code& error)
{
    return error == boost::asio::error::eof || error == boost::asio::ssl::error::stream_truncated;
}

}  // namespace

CtrlConn::CtrlConn(const ConnKey& key, const ConnConfig& config, uint32_t retryIntervalSeconds)
    : _key(key),
      _config(config),
      _retryIntervalSeconds(retryIntervalSeconds),
      _reassembler(std::make_shared<CtrlMsgReassembler>())
{
}

CtrlConn::~CtrlConn()
{
    FreeInFlight(false);
}

const char* CtrlConn::StateName(State state)
{
    static const char* const kNames[] = {"CONN_INIT", "CONN_CONNECTING", "CONN_CONNECTED", "CONN_END"};
    // A state outside the table is memory corruption, not a state.
    ASSERT(state >= CONN_INIT && state <= CONN_END);
    return kNames[state];
}

void CtrlConn::Transition(State to)
{
    FLOG_INFO("Connection %1: Transition from %2 to %3", _key, StateName(_state), StateName(to));
    // Every transition is a change: a repeated one means two paths think they own it.
    ASSERT(_state != to);
    _state = to;
}

std::string CtrlConn::PortText() const
{
    return std::to_string(_lastLocalPort);
}

void CtrlConn::SetStatus(const std::string& text)
{
    CtrlConnPool::Get()->SetConnStatus(_key, text);
}

void CtrlConn::Start()
{
    _scheduler = MsgScheduler::Create(this);
    _retryTimer = AsyncTimer<CtrlConn>::Create(this, &CtrlConn::OnRetryTimer);
    Transition(CONN_CONNECTING);
    _retryTimer->Start(kReconnectDelayUs);
}

void CtrlConn::Stop()
{
    ASSERT(_state != CONN_END);
    Transition(CONN_END);
    if (_retryTimer) {
        _retryTimer->Stop();
        _retryTimer.reset();
    }
    if (_scheduler) {
        _scheduler->Stop();
        _scheduler.reset();
    }
    CloseSession();
    _reassembler = std::make_shared<CtrlMsgReassembler>();
    // A buffer still being written is freed by the write's completion.
}

void CtrlConn::SetConfig(const ConnConfig& config)
{
    _config = config;
    if (!_listShare) {
        _listShare = true;
        AddUser();
    }
}

void CtrlConn::UnsetConfig()
{
    // A second share given up would take one of an application's.
    ASSERT(_listShare);
    _config = ConnConfig();
    _listShare = false;
    RemoveUser();
}

void CtrlConn::SetMsgRate(uint32_t rate)
{
    if (_scheduler) {
        _scheduler->SetMsgRate(rate);
    }
}

uint32_t CtrlConn::GetMsgRate() const
{
    return _scheduler ? _scheduler->GetMsgRate() : 0;
}

void CtrlConn::RetryLater(int32_t delayUs)
{
    if (_retryTimer) {
        _retryTimer->Start(delayUs);
    }
}

void CtrlConn::CloseSession()
{
    if (_session) {
        _session->Close();
        _session.reset();
    }
}

void CtrlConn::OnRetryTimer()
{
    GlobalLockGuard lock;
    if (_state == CONN_END) {
        FLOG_TRIVIA("connection %1 is destroyed", _key);
        return;
    }
    ASSERT(_state == CONN_CONNECTING);
    CloseSession();
    // Without a context the socket stays plain; the connect completion then
    // reports why TLS cannot be set up.
    std::shared_ptr<boost::asio::ssl::context> context;
    if (_config.sslEnabled) {
        context = CtrlConnPool::Get()->GetSslContext();
    }
    _session = std::make_shared<Session>(
        *IoService::Get(), this,
        Session::Callbacks{&CtrlConn::OnConnect, &CtrlConn::OnHandshake, &CtrlConn::OnRead, &CtrlConn::OnWrite},
        context, _config.certificate);
    if (_session->AsyncConnect(_config.server, static_cast<uint16_t>(_config.port))) {
        FLOG_VERBOSE("TCP connection started: %1:%2", _config.server, _config.port);
        return;
    }
    FLOG_VERBOSE("cannot connect to the server, ip %1, port %2!", _config.server, _config.port);
    SetStatus("connection_refused");
    _session.reset();
    RetryLater(static_cast<int32_t>(_retryIntervalSeconds) * kMicrosPerSecond);
}

void CtrlConn::OnConnect(const boost::system::error_code& error)
{
    GlobalLockGuard lock;
    if (error == boost::asio::error::operation_aborted) {
        return;
    }
    if (_state == CONN_END) {
        FLOG_TRIVIA("connection disabled after socket created: %1.", _key);
        return;
    }
    ASSERT(_state == CONN_CONNECTING);
    const bool noHostCert = _config.sslEnabled && !CtrlConnPool::Get()->GetSslContext();
    const bool noControllerCert = _config.sslEnabled && _config.certificate == nullptr;
    if (error || noHostCert || noControllerCert) {
        if (noHostCert) {
            FLOG_ERROR("Host certificate does not exist, need to restart fenrel to create local certificate")
                .AddTag("errorCode:LCP00023");
            SetStatus("incomplete_host_cert");
        } else if (noControllerCert) {
            SetStatus("incomplete_controller_cert");
        } else {
            SetStatus("connection_refused");
        }
        CloseSession();
        RetryLater(static_cast<int32_t>(_retryIntervalSeconds) * kMicrosPerSecond);
        FLOG_VERBOSE("TCP connection retry: %1.", _key);
        return;
    }
    uint16_t port = 0;
    if (_session->GetLocalEndpoint(_lastLocalAddr, port)) {
        _lastLocalPort = port;
    }
    FLOG_INFO("TCP connection established: %1, local addr: %2:%3", _key, _lastLocalAddr, _lastLocalPort);
    if (_config.sslEnabled) {
        if (!_session->DoSSLHandShake()) {
            CloseSession();
            RetryLater(static_cast<int32_t>(_retryIntervalSeconds) * kMicrosPerSecond);
            FLOG_VERBOSE("TCP connection retry: %1.", _key);
        }
        return;
    }
    ConnectionUp();
}

void CtrlConn::OnHandshake(const boost::system::error_code& error, bool peerVerified)
{
    GlobalLockGuard lock;
    if (error == boost::asio::error::operation_aborted) {
        return;
    }
    if (_state == CONN_END) {
        FLOG_TRIVIA("connection disabled after socket created: %1.", _key);
        return;
    }
    if (!error && peerVerified) {
        ConnectionUp();
        return;
    }
    CloseSession();
    RetryLater(static_cast<int32_t>(_retryIntervalSeconds) * kMicrosPerSecond);
    FLOG_VERBOSE("TCP connection retry: %1.", _key);
    SetStatus(error ? "controller_rejected_host_cert" : "host_rejected_controller_cert");
}

void CtrlConn::ConnectionUp()
{
    _scheduler->SetTxOngoing(false);
    _scheduler->Enable(true);
    Transition(CONN_CONNECTED);
    SetStatus("");
    CoreApp::Get()->SendHello(_key);
    IssueRead();
}

void CtrlConn::IssueRead()
{
    if (_state != CONN_CONNECTED || !_session) {
        FLOG_TRIVIA("Skip async read: connection %1 is in %2 state", _key, StateName(_state));
        return;
    }
    const CtrlMsgReassembler::ReadTarget target = _reassembler->NextRead();
    if (!_session->Read(target.data, target.size, _reassembler)) {
        FLOG_ERROR("%1: Exception when issuing async read", _key).AddTag("errorCode:LCP00016");
        Reset();
    }
}

void CtrlConn::OnRead(const boost::system::error_code& error, size_t count)
{
    GlobalLockGuard lock;
    if (error == boost::asio::error::operation_aborted) {
        return;
    }
    if (_state != CONN_CONNECTED) {
        FLOG_VERBOSE("Skip scheduled async read callback: connection %1 is in %2 state", _key, StateName(_state));
        return;
    }
    if ((error && IsPeerShutdown(error)) || (!error && count == 0)) {
        FLOG_ERROR("Async read callback failed, connection %1 was shutdown by peer.", _key)
            .AddTag("errorCode:LCP00016");
        SetStatus("other_error: receiving message failed");
        Reset();
        return;
    }
    if (error) {
        FLOG_ERROR("Async read failed on connection %1: error = %2", _key, error.message())
            .AddTag("errorCode:LCP00016");
        SetStatus("other_ssl_error: " + error.message());
        Reset();
        return;
    }
    CtrlMsgReassembler::Message message;
    const CtrlMsgReassembler::Status status =
        _reassembler->Commit(count, CtrlConnPool::Get()->GetMaxPktLen(), &message);
    if (status == CtrlMsgReassembler::Status::kWrongLength || status == CtrlMsgReassembler::Status::kWrongMarker) {
        _reassembler->LogBadMessage(_key.ToString());
        SetStatus(std::string("other_error") + _reassembler->StatusSuffix());
        Reset();
        return;
    }
    if (status == CtrlMsgReassembler::Status::kMessage) {
        _rxIdleTicks = 0;
        const uint8_t* msg = message.buffer.get();
        const uint16_t protocolId = CtrlMsg::ProtocolId(msg);
        FLOG_TRIVIA("get a message from controller type %1 len %2 protocolID %3 from source port %4",
                    CtrlMsg::Type(msg), message.size, protocolId, _lastLocalPort);
        boost::intrusive_ptr<CtrlConn> keepAlive(this);
        boost::intrusive_ptr<App> app = AppManager::Get()->FindApp(protocolId, _key.instance);
        if (app) {
            app->HandleMsg(msg, message.size, _key);
        }
        ++_rxMsgCount;
    }
    IssueRead();
}

bool CtrlConn::WriteMsg(uint8_t* buffer, uint32_t size)
{
    if (_state != CONN_CONNECTED || !_session) {
        FLOG_ERROR("Failed to send message because connection %1 is down", _key).AddTag("errorCode:LCP00018");
        free(buffer);
        return false;
    }
    if (!_session->Write(buffer, size)) {
        FLOG_ERROR("%1: Exception when issuing async write", _key).AddTag("errorCode:LCP00016");
        free(buffer);
        Reset();
        return false;
    }
    _inFlight.push_back(buffer);
    _scheduler->SetTxOngoing(true);
    return true;
}

void CtrlConn::FreeInFlight(bool sent)
{
    for (uint8_t* buffer : _inFlight) {
        if (sent) {
            FLOG_TRIVIA("Send a message (type %1 len %2) to controller %3:%4, from source port %5",
                        CtrlMsg::Type(buffer), CtrlMsg::Length(buffer), _config.server, _config.port,
                        _lastLocalPort);
        }
        free(buffer);
    }
    _inFlight.clear();
}

void CtrlConn::OnWrite(const boost::system::error_code& error, size_t /*count*/)
{
    GlobalLockGuard lock;
    FreeInFlight(!error);
    if (error == boost::asio::error::operation_aborted) {
        return;
    }
    if (_state != CONN_CONNECTED) {
        FLOG_VERBOSE("Skip scheduled async write callback: connection %1 is in %2 state", _key, StateName(_state));
        return;
    }
    _scheduler->SetTxOngoing(false);
    if (!error) {
        _txIdleTicks = 0;
        _scheduler->Kick();
        return;
    }
    FLOG_ERROR("%1: Async write failed: error = %2", _key, error.message()).AddTag("errorCode:LCP00016");
    SetStatus("other_ssl_error: " + error.message());
    Reset();
}

bool CtrlConn::SendMsg(uint8_t* message)
{
    ASSERT(IsLockAvailable());
    CtrlMsgFragmenter::Frames frames =
        CtrlMsgFragmenter::Fragment(CtrlMsgBuffer(message), CtrlConnPool::Get()->GetMaxPktLen());
    for (CtrlMsgBuffer& frame : frames) {
        if (!_scheduler || !_scheduler->Enqueue(frame.get())) {
            // The refused frame and the ones behind it are freed with `frames`.
            FLOG_TRIVIA("Failed to send message in connection %1", _key);
            return false;
        }
        frame.release();
        _scheduler->Kick();
    }
    return true;
}

void CtrlConn::Reset()
{
    FLOG_VERBOSE("Connection Reset: %1!", _key);
    if (_state != CONN_CONNECTED) {
        return;
    }
    FLOG_ERROR("Connection error with controller %1 on source port %2, triggering reconnect", _key, PortText())
        .AddTag("errorCode:LCP00016");
    WorkGroup::Get().Post(std::make_shared<WorkItemImpl<CtrlConn>>(this, &CtrlConn::DoReset));
}

void CtrlConn::DoReset()
{
    GlobalLockGuard lock;
    if (_state != CONN_CONNECTED) {
        return;
    }
    Transition(CONN_CONNECTING);
    _helloFlags = 0;
    _rxIdleTicks = 0;
    _txIdleTicks = 0;
    _scheduler->Enable(false);
    _scheduler->Drain();
    _reassembler = std::make_shared<CtrlMsgReassembler>();
    AppManager::Get()->PostEvent(new CtrlConnEvent(_key, true));
    CloseSession();
    RetryLater(kReconnectDelayUs);
}

}  // namespace ZUNChannel
