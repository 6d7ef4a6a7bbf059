#pragma once

#include <array>
#include <deque>
#include <memory>
#include <set>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include "FrameReader.h"
#include "MessageAssembler.h"
#include "Peer.h"
#include "SimConnectionOwner.h"

namespace CtrlSim {

// One accepted connection of the agent: the TLS server handshake when there
// is a context, then reading frames into messages and writing what the
// handlers queue, one write at a time.
//
// Everything runs on the simulator's I/O thread; every asynchronous
// operation holds a shared reference, and after Close the completions only
// end. No exception leaves a completion handler.
class SimConnection : public Peer, public std::enable_shared_from_this<SimConnection> {
public:
    using Socket = boost::asio::ip::tcp::socket;
    using TlsStream = boost::asio::ssl::stream<Socket>;

    // `tlsContext` null: plain TCP. The owner and the context outlive the connection.
    SimConnection(size_t index, Socket socket, boost::asio::ssl::context* tlsContext, SimConnectionOwner& owner);

    // Starts the handshake, or the reading at once without TLS.
    void Start();
    bool IsUp() const { return _up && !_closed; }

    size_t Index() const override { return _index; }
    bool IsOpen() const override { return !_closed; }
    void Send(const OutMessage& msg) override;
    void SendRaw(Bytes bytes) override;
    void Close(const std::string& reason) override;
    // Closes with a TCP reset instead of the orderly shutdown.
    void Abort(const std::string& reason);
    std::chrono::steady_clock::time_point LastSendTime() const override { return _lastSend; }
    void RunAfter(std::chrono::milliseconds delay, std::function<void()> action) override;
    void ReportViolation(const std::string& text) override;

private:
    Socket& Lowest();
    void End(const std::string& reason, bool orderly);
    void Up();
    void ReadSome();
    void OnRead(const boost::system::error_code& error, size_t size);
    void CheckFrameHeader(const FrameHeader& header);
    void WriteNext();
    void OnWrite(const boost::system::error_code& error);

    const size_t _index;
    SimConnectionOwner& _owner;
    std::unique_ptr<Socket> _plain;   // set without TLS
    std::unique_ptr<TlsStream> _tls;  // set with TLS
    FrameReader _reader;
    MessageAssembler _assembler;
    std::array<uint8_t, 16384> _readBuffer{};
    std::deque<Bytes> _writeQueue;
    bool _writing = false;
    bool _up = false;
    bool _closed = false;
    std::chrono::steady_clock::time_point _lastSend;
    std::set<std::shared_ptr<boost::asio::steady_timer>> _timers;
};

}  // namespace CtrlSim
