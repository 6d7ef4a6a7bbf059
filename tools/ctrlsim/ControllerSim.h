#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include "ConfigHandler.h"
#include "CoreHandler.h"
#include "L2Handler.h"
#include "MessageHandler.h"
#include "MessageWriter.h"
#include "Recording.h"
#include "SessionHandler.h"
#include "SimConnectionOwner.h"
#include "TraceflowHandler.h"

namespace CtrlSim {

class SimConnection;

// A stand-in for one central controller: it listens on a local address,
// accepts the agent's connections (plain TCP or TLS), records every frame
// and message it receives, and lets registered handlers answer. The handler
// of protocolID 0 (CoreHandler) does the hello and the keep-alives.
//
// Threads: the simulator runs its own I/O thread, the only one that touches
// sockets and calls handlers. The public operations may be called from any
// other thread: the control ones run on the I/O thread and wait for it; the
// queries copy the records under _recordMutex; the waits sleep on a
// condition variable signalled at every new record.
class ControllerSim : private SimConnectionOwner {
public:
    struct Options {
        std::string address = "127.0.0.1";
        uint16_t port = 0;      // 0: a free port, which Port() then tells
        std::string keyFile;    // both set: TLS server; both empty: plain TCP
        std::string certFile;
    };

    enum class AcceptMode {
        Accept,        // take new connections
        CloseAtOnce,   // accept and close each new connection straight away
        NotListening,  // close the listening socket (the port is bound again on return to another mode)
    };

    using MessagePredicate = std::function<bool(const RecordedMessage&)>;
    using EventLog = std::function<void(const std::string& line)>;

    ControllerSim();
    explicit ControllerSim(Options options);
    ~ControllerSim() override;
    ControllerSim(const ControllerSim&) = delete;
    ControllerSim& operator=(const ControllerSim&) = delete;

    // Binds, listens and starts the I/O thread. Throws std::runtime_error
    // (bad address, port in use, unreadable key or certificate). Once only.
    void Start();
    // Closes every connection and the listening socket, ends the I/O thread.
    // Idempotent; also done by the destructor. Not from a handler.
    void Stop();

    uint16_t Port() const { return _port; }
    const std::string& Address() const { return _options.address; }
    bool IsTls() const { return !_options.certFile.empty(); }

    // Hello and keep-alive settings.
    CoreHandler& Core() { return *_core; }
    // The config channel (256) and traceflow (1026), registered at construction.
    ConfigHandler& Config() { return *_config; }
    TraceflowHandler& Traceflow() { return *_traceflow; }
    // The L2 channel (64), registered at construction.
    L2Handler& L2() { return *_l2; }
    SessionHandler& Session() { return *_session; }
    // A handler for every message of `protocolId`, or only for those of
    // `type`; the one for the exact type wins. Replaces an earlier one of the
    // same key. The CoreHandler is registered for protocolID 0 at construction.
    void RegisterHandler(uint16_t protocolId, std::shared_ptr<MessageHandler> handler,
                         std::optional<uint16_t> type = std::nullopt);
    // One line per event: "conn 0 accepted from 127.0.0.1:40000", "conn 0 up",
    // "conn 0 recv type ...", "conn 0 violation ...", "conn 0 closed (<reason>)",
    // "conn 1 refused from ...". Called on the I/O thread.
    void SetEventLog(EventLog log);

    // Control. `connection` defaults to the current one: the newest
    // connection that is up. False when there is no such connection, or the
    // simulator is not running. The bytes go out in the order of the calls.
    // SendMessage throws as MessageWriter::Frames does, in the caller.
    bool SendMessage(const OutMessage& msg, std::optional<size_t> connection = std::nullopt);
    bool SendRaw(const Bytes& bytes, std::optional<size_t> connection = std::nullopt);
    bool SendHello(std::optional<size_t> connection = std::nullopt);
    // Closes at once; what is still queued is dropped. `reset`: with a TCP
    // reset instead of the orderly shutdown.
    bool CloseConnection(std::optional<size_t> connection = std::nullopt, bool reset = false);
    void SetAcceptMode(AcceptMode mode);
    std::optional<size_t> CurrentConnection() const;

    // Copies of the records.
    Recording Snapshot() const;
    std::vector<RecordedMessage> Messages() const;
    // What went out through SendMessage and the handlers, in the order queued
    // (raw bytes and keep-alives are not among them).
    std::vector<SentMessage> Sent() const;
    std::vector<RecordedFrame> Frames() const;
    std::vector<ConnectionRecord> Connections() const;
    std::vector<Violation> Violations() const;
    size_t AcceptedCount() const;
    size_t MessageCount() const;
    std::string Summary() const;

    // Waits until `condition` holds on the records, at most `timeout`; true
    // when it held. `condition` runs under the records' lock: it must not call
    // the simulator.
    bool WaitUntil(const std::function<bool(const Recording&)>& condition, std::chrono::milliseconds timeout) const;
    // The first message from index `fromIndex` on that matches.
    std::optional<RecordedMessage> WaitForMessage(const MessagePredicate& match, std::chrono::milliseconds timeout,
                                                  size_t fromIndex = 0) const;
    // At least `count` matching messages in all.
    bool WaitForMessageCount(const MessagePredicate& match, size_t count, std::chrono::milliseconds timeout) const;
    // At least `count` connections accepted in all.
    bool WaitForAccepted(size_t count, std::chrono::milliseconds timeout) const;
    // Connection `index` is up (TLS handshake done) / has closed.
    bool WaitForUp(size_t index, std::chrono::milliseconds timeout) const;
    bool WaitForClosed(size_t index, std::chrono::milliseconds timeout) const;

    static MessagePredicate MessageOf(uint16_t type, uint16_t protocolId);

private:
    using HandlerKey = std::pair<uint16_t, int32_t>;  // protocolID, type or -1 for any

    // SimConnectionOwner, on the I/O thread.
    void ConnectionUp(SimConnection& connection, SteadyTime when) override;
    void FrameReceived(SimConnection& connection, const Frame& frame, SteadyTime when) override;
    void MessageReceived(SimConnection& connection, Message&& msg, SteadyTime when) override;
    void MessageSent(size_t connection, const OutMessage& msg, SteadyTime when) override;
    void ViolationSeen(size_t connection, const std::string& text, SteadyTime when) override;
    void ConnectionClosed(size_t connection, const std::string& reason, SteadyTime when) override;

    // Runs `action` on the I/O thread and waits; exceptions come back to the
    // caller. False when not running. Inline when called on the I/O thread.
    bool RunOnIo(const std::function<void()>& action);
    bool PostAndWait(const std::function<void()>& action);  // caller holds _controlMutex
    void RunIoThread();
    void Listen();
    void AcceptNext();
    void OnAccept(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket);
    std::shared_ptr<SimConnection> FindUp(std::optional<size_t> connection) const;
    std::shared_ptr<MessageHandler> FindHandler(uint16_t protocolId, uint16_t type) const;
    std::vector<std::shared_ptr<MessageHandler>> AllHandlers() const;
    void Log(const std::string& line) const;
    template <typename Change>
    void Record(Change change);

    const Options _options;
    uint16_t _port = 0;
    std::shared_ptr<CoreHandler> _core;
    std::shared_ptr<ConfigHandler> _config;
    std::shared_ptr<TraceflowHandler> _traceflow;
    std::shared_ptr<L2Handler> _l2;
    std::shared_ptr<SessionHandler> _session;

    // Control: Start, Stop and the posting of actions are serialised.
    std::mutex _controlMutex;
    bool _started = false;
    bool _running = false;
    std::atomic<std::thread::id> _ioThreadId{};

    // The I/O side, touched only on the I/O thread once running. The
    // io_context comes first, so it goes last.
    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
    std::unique_ptr<boost::asio::ssl::context> _tlsContext;
    boost::asio::ip::tcp::acceptor _acceptor;
    boost::asio::ip::tcp::endpoint _endpoint;
    AcceptMode _acceptMode = AcceptMode::Accept;
    size_t _nextIndex = 0;
    std::map<size_t, std::shared_ptr<SimConnection>> _live;
    std::thread _thread;

    // Guarded by _handlerMutex.
    mutable std::mutex _handlerMutex;
    std::map<HandlerKey, std::shared_ptr<MessageHandler>> _handlers;
    EventLog _eventLog;

    // Guarded by _recordMutex; _recordChanged is signalled at every change.
    mutable std::mutex _recordMutex;
    mutable std::condition_variable _recordChanged;
    Recording _recording;
};

}  // namespace CtrlSim
