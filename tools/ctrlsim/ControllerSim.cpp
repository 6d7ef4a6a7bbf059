#include "ControllerSim.h"

#include <openssl/ssl.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cstdio>
#include <future>
#include <stdexcept>

#include "SimConnection.h"

namespace CtrlSim {

namespace {

constexpr int32_t AnyType = -1;

std::unique_ptr<boost::asio::ssl::context> MakeTlsContext(const std::string& keyFile, const std::string& certFile)
{
    namespace ssl = boost::asio::ssl;
    auto context = std::make_unique<ssl::context>(ssl::context::tls_server);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                         ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_verify_mode(ssl::verify_none);  // the agent's certificate is not ours to check
    try {
        context->use_certificate_chain_file(certFile);
    } catch (const boost::system::system_error& e) {
        throw std::runtime_error("cannot use certificate " + certFile + ": " + e.what());
    }
    try {
        context->use_private_key_file(keyFile, ssl::context::pem);
    } catch (const boost::system::system_error& e) {
        throw std::runtime_error("cannot use private key " + keyFile + ": " + e.what());
    }
    return context;
}

}  // namespace

ControllerSim::ControllerSim() : ControllerSim(Options()) {}

ControllerSim::ControllerSim(Options options)
    : _options(std::move(options)),
      _core(std::make_shared<CoreHandler>()),
      _config(std::make_shared<ConfigHandler>(*this)),
      _traceflow(std::make_shared<TraceflowHandler>(*this)),
      _l2(std::make_shared<L2Handler>(*this)),
      _session(std::make_shared<SessionHandler>(_options.address)),
      _work(boost::asio::make_work_guard(_io)),
      _acceptor(_io)
{
    RegisterHandler(CoreProtocolId, _core);
    RegisterHandler(ConfigHandler::ProtocolId, _config);
    RegisterHandler(TraceflowHandler::ProtocolId, _traceflow);
    RegisterHandler(L2Handler::ProtocolId, _l2);
    RegisterHandler(SessionHandler::ProtocolId, _session);
}

ControllerSim::~ControllerSim()
{
    Stop();
}

void ControllerSim::Start()
{
    std::lock_guard<std::mutex> control(_controlMutex);
    if (_started) {
        throw std::logic_error("ControllerSim started twice");
    }
    _started = true;
    if (_options.keyFile.empty() != _options.certFile.empty()) {
        throw std::runtime_error("TLS needs both a key file and a certificate file");
    }
    if (!_options.certFile.empty()) {
        _tlsContext = MakeTlsContext(_options.keyFile, _options.certFile);
    }
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(_options.address, error);
    if (error) {
        throw std::runtime_error("bad listening address " + _options.address + ": " + error.message());
    }
    _endpoint = boost::asio::ip::tcp::endpoint(address, _options.port);
    try {
        Listen();
    } catch (const boost::system::system_error& e) {
        throw std::runtime_error("cannot listen on " + _options.address + ":" + std::to_string(_options.port) +
                                 ": " + e.what());
    }
    _endpoint = _acceptor.local_endpoint();  // keeps the port when listening again
    _port = _endpoint.port();
    _running = true;
    _thread = std::thread([this] {
        _ioThreadId = std::this_thread::get_id();
        RunIoThread();
    });
}

void ControllerSim::RunIoThread()
{
    // A handler that throws loses its own action, not the simulator.
    for (;;) {
        try {
            _io.run();
            return;
        } catch (const std::exception& e) {
            fprintf(stderr, "ctrlsim: exception on the I/O thread: %s\n", e.what());
        }
    }
}

void ControllerSim::Stop()
{
    if (std::this_thread::get_id() == _ioThreadId) {
        throw std::logic_error("ControllerSim::Stop called on its own I/O thread");
    }
    std::lock_guard<std::mutex> control(_controlMutex);
    if (!_running) {
        return;
    }
    PostAndWait([this] {
        boost::system::error_code ignored;
        _acceptor.close(ignored);
        // Close works on a copy: each close takes its entry out of _live.
        const auto live = _live;
        for (const auto& entry : live) {
            entry.second->Close("simulator stopped");
        }
    });
    _running = false;
    _work.reset();
    _io.stop();
    _thread.join();
}

void ControllerSim::Listen()
{
    _acceptor.open(_endpoint.protocol());
    _acceptor.set_option(boost::asio::ip::tcp::acceptor::reuse_address(true));
    _acceptor.bind(_endpoint);
    _acceptor.listen();
    AcceptNext();
}

void ControllerSim::AcceptNext()
{
    _acceptor.async_accept([this](const boost::system::error_code& error, boost::asio::ip::tcp::socket socket) {
        OnAccept(error, std::move(socket));
    });
}

void ControllerSim::OnAccept(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket)
{
    if (error == boost::asio::error::operation_aborted || !_acceptor.is_open()) {
        return;  // stopped listening
    }
    if (error) {
        Log("accept failed: " + error.message());
        AcceptNext();
        return;
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    const size_t index = _nextIndex++;
    boost::system::error_code ignored;
    // Answers go out at once: with Nagle's algorithm a second small message
    // (the master controller after the Open ACK) waits for the agent's
    // delayed acknowledgement, some 40 ms.
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    const auto remote = socket.remote_endpoint(ignored);
    const std::string from = remote.address().to_string() + ":" + std::to_string(remote.port());
    ConnectionRecord record;
    record.index = index;
    record.peerPort = remote.port();
    record.accepted = now;

    if (_acceptMode == AcceptMode::CloseAtOnce) {
        socket.close(ignored);
        record.closed = now;
        record.closeReason = "refused";
        Record([&](Recording& r) { r.connections.push_back(record); });
        Log("conn " + std::to_string(index) + " refused from " + from);
    } else {
        Record([&](Recording& r) { r.connections.push_back(record); });
        Log("conn " + std::to_string(index) + " accepted from " + from);
        SimConnectionOwner& owner = *this;
        auto connection = std::make_shared<SimConnection>(index, std::move(socket), _tlsContext.get(), owner);
        _live[index] = connection;
        connection->Start();
    }
    AcceptNext();
}

template <typename Change>
void ControllerSim::Record(Change change)
{
    {
        std::lock_guard<std::mutex> lock(_recordMutex);
        change(_recording);
    }
    _recordChanged.notify_all();
}

void ControllerSim::ConnectionUp(SimConnection& connection, SteadyTime when)
{
    Record([&](Recording& r) { r.connections[connection.Index()].established = when; });
    Log("conn " + std::to_string(connection.Index()) + " up");
    for (const auto& handler : AllHandlers()) {
        handler->OnConnected(connection);
        if (!connection.IsOpen()) {
            return;
        }
    }
}

void ControllerSim::FrameReceived(SimConnection& connection, const Frame& frame, SteadyTime when)
{
    RecordedFrame recorded;
    static_cast<Frame&>(recorded) = frame;
    recorded.connection = connection.Index();
    recorded.received = when;
    Record([&](Recording& r) { r.frames.push_back(std::move(recorded)); });
}

void ControllerSim::MessageReceived(SimConnection& connection, Message&& msg, SteadyTime when)
{
    RecordedMessage recorded;
    static_cast<Message&>(recorded) = std::move(msg);
    recorded.connection = connection.Index();
    recorded.received = when;
    Record([&](Recording& r) { r.messages.push_back(recorded); });
    Log(recorded.ToString());
    const auto handler = FindHandler(recorded.header.protocolId, recorded.header.type);
    if (handler) {
        handler->OnMessage(connection, recorded);
    }
}

void ControllerSim::MessageSent(size_t connection, const OutMessage& msg, SteadyTime when)
{
    SentMessage sent{connection, when, msg.type, msg.protocolId, msg.sessionId, msg.body};
    Record([&](Recording& r) { r.sent.push_back(std::move(sent)); });
}

void ControllerSim::ViolationSeen(size_t connection, const std::string& text, SteadyTime when)
{
    Record([&](Recording& r) { r.violations.push_back(Violation{connection, when, text}); });
    Log("conn " + std::to_string(connection) + " violation " + text);
}

void ControllerSim::ConnectionClosed(size_t connection, const std::string& reason, SteadyTime when)
{
    bool wasUp = false;
    Record([&](Recording& r) {
        ConnectionRecord& record = r.connections[connection];
        wasUp = record.established.has_value();
        record.closed = when;
        record.closeReason = reason;
    });
    Log("conn " + std::to_string(connection) + " closed (" + reason + ")");
    // The connection is in the middle of its Close: let it finish before it goes.
    boost::asio::post(_io, [this, connection] { _live.erase(connection); });
    if (wasUp) {
        for (const auto& handler : AllHandlers()) {
            handler->OnClosed(connection);
        }
    }
}

void ControllerSim::RegisterHandler(uint16_t protocolId, std::shared_ptr<MessageHandler> handler,
                                    std::optional<uint16_t> type)
{
    std::lock_guard<std::mutex> lock(_handlerMutex);
    _handlers[HandlerKey(protocolId, type ? int32_t(*type) : AnyType)] = std::move(handler);
}

void ControllerSim::SetEventLog(EventLog log)
{
    std::lock_guard<std::mutex> lock(_handlerMutex);
    _eventLog = std::move(log);
}

std::shared_ptr<MessageHandler> ControllerSim::FindHandler(uint16_t protocolId, uint16_t type) const
{
    std::lock_guard<std::mutex> lock(_handlerMutex);
    auto found = _handlers.find(HandlerKey(protocolId, type));
    if (found == _handlers.end()) {
        found = _handlers.find(HandlerKey(protocolId, AnyType));
    }
    return found == _handlers.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<MessageHandler>> ControllerSim::AllHandlers() const
{
    std::lock_guard<std::mutex> lock(_handlerMutex);
    std::vector<std::shared_ptr<MessageHandler>> all;
    for (const auto& entry : _handlers) {
        if (std::find(all.begin(), all.end(), entry.second) == all.end()) {
            all.push_back(entry.second);
        }
    }
    return all;
}

void ControllerSim::Log(const std::string& line) const
{
    EventLog log;
    {
        std::lock_guard<std::mutex> lock(_handlerMutex);
        log = _eventLog;
    }
    if (log) {
        log(line);
    }
}

bool ControllerSim::RunOnIo(const std::function<void()>& action)
{
    if (std::this_thread::get_id() == _ioThreadId) {
        action();
        return true;
    }
    std::lock_guard<std::mutex> control(_controlMutex);
    return PostAndWait(action);
}

bool ControllerSim::PostAndWait(const std::function<void()>& action)
{
    if (!_running) {
        return false;
    }
    std::promise<void> done;
    boost::asio::post(_io, [&] {
        try {
            action();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    done.get_future().get();
    return true;
}

std::shared_ptr<SimConnection> ControllerSim::FindUp(std::optional<size_t> connection) const
{
    if (connection) {
        const auto found = _live.find(*connection);
        return found != _live.end() && found->second->IsUp() ? found->second : nullptr;
    }
    for (auto it = _live.rbegin(); it != _live.rend(); ++it) {
        if (it->second->IsUp()) {
            return it->second;
        }
    }
    return nullptr;
}

bool ControllerSim::SendMessage(const OutMessage& msg, std::optional<size_t> connection)
{
    // Built here, so that a message the header cannot express throws in the caller.
    const std::vector<Bytes> frames = MessageWriter::Frames(msg);
    bool sent = false;
    RunOnIo([&] {
        if (const auto target = FindUp(connection)) {
            MessageSent(target->Index(), msg, std::chrono::steady_clock::now());
            for (const Bytes& frame : frames) {
                target->SendRaw(frame);
            }
            sent = true;
        }
    });
    return sent;
}

bool ControllerSim::SendRaw(const Bytes& bytes, std::optional<size_t> connection)
{
    bool sent = false;
    RunOnIo([&] {
        if (const auto target = FindUp(connection)) {
            target->SendRaw(bytes);
            sent = true;
        }
    });
    return sent;
}

bool ControllerSim::SendHello(std::optional<size_t> connection)
{
    bool sent = false;
    RunOnIo([&] {
        if (const auto target = FindUp(connection)) {
            _core->SendHello(*target);
            sent = true;
        }
    });
    return sent;
}

bool ControllerSim::CloseConnection(std::optional<size_t> connection, bool reset)
{
    bool closed = false;
    RunOnIo([&] {
        if (const auto target = FindUp(connection)) {
            if (reset) {
                target->Abort("reset by simulator");
            } else {
                target->Close("closed by simulator");
            }
            closed = true;
        }
    });
    return closed;
}

void ControllerSim::SetAcceptMode(AcceptMode mode)
{
    RunOnIo([&] {
        _acceptMode = mode;
        if (mode == AcceptMode::NotListening) {
            boost::system::error_code ignored;
            _acceptor.close(ignored);
        } else if (!_acceptor.is_open()) {
            Listen();
        }
    });
}

std::optional<size_t> ControllerSim::CurrentConnection() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    for (auto it = _recording.connections.rbegin(); it != _recording.connections.rend(); ++it) {
        if (it->IsUp()) {
            return it->index;
        }
    }
    return std::nullopt;
}

Recording ControllerSim::Snapshot() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording;
}

std::vector<RecordedMessage> ControllerSim::Messages() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.messages;
}

std::vector<SentMessage> ControllerSim::Sent() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.sent;
}

std::vector<RecordedFrame> ControllerSim::Frames() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.frames;
}

std::vector<ConnectionRecord> ControllerSim::Connections() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.connections;
}

std::vector<Violation> ControllerSim::Violations() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.violations;
}

size_t ControllerSim::AcceptedCount() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.connections.size();
}

size_t ControllerSim::MessageCount() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.messages.size();
}

std::string ControllerSim::Summary() const
{
    std::lock_guard<std::mutex> lock(_recordMutex);
    return _recording.Summary();
}

bool ControllerSim::WaitUntil(const std::function<bool(const Recording&)>& condition,
                              std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(_recordMutex);
    return _recordChanged.wait_for(lock, timeout, [&] { return condition(_recording); });
}

std::optional<RecordedMessage> ControllerSim::WaitForMessage(const MessagePredicate& match,
                                                             std::chrono::milliseconds timeout, size_t fromIndex) const
{
    std::optional<RecordedMessage> found;
    size_t next = fromIndex;
    WaitUntil(
        [&](const Recording& r) {
            for (; next < r.messages.size(); ++next) {
                if (match(r.messages[next])) {
                    found = r.messages[next];
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

bool ControllerSim::WaitForMessageCount(const MessagePredicate& match, size_t count,
                                        std::chrono::milliseconds timeout) const
{
    return WaitUntil(
        [&](const Recording& r) {
            return static_cast<size_t>(std::count_if(r.messages.begin(), r.messages.end(), match)) >= count;
        },
        timeout);
}

bool ControllerSim::WaitForAccepted(size_t count, std::chrono::milliseconds timeout) const
{
    return WaitUntil([&](const Recording& r) { return r.connections.size() >= count; }, timeout);
}

bool ControllerSim::WaitForUp(size_t index, std::chrono::milliseconds timeout) const
{
    return WaitUntil(
        [&](const Recording& r) { return index < r.connections.size() && r.connections[index].established; },
        timeout);
}

bool ControllerSim::WaitForClosed(size_t index, std::chrono::milliseconds timeout) const
{
    return WaitUntil([&](const Recording& r) { return index < r.connections.size() && r.connections[index].closed; },
                     timeout);
}

ControllerSim::MessagePredicate ControllerSim::MessageOf(uint16_t type, uint16_t protocolId)
{
    return [type, protocolId](const RecordedMessage& msg) { return msg.Is(type, protocolId); };
}

}  // namespace CtrlSim
