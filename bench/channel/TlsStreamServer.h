#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>

namespace FenRELBench {

// The sending end of the inbound benchmarks: a TLS server on 127.0.0.1 that
// takes one peer, writes `greeting` to it once the handshake is done,
// discards whatever the peer sends, and on request writes a pre-built buffer
// a number of times, without copying it. The agent's channel and the plain
// TLS reader each get a server of this class, so both see the same sender.
//
// Threads: its own I/O thread does all socket work; Stream and WaitForPeer
// may be called from any other thread (the peer flag under _mutex).
class TlsStreamServer {
public:
    TlsStreamServer(const std::string& keyFile, const std::string& certFile, std::vector<uint8_t> greeting);
    ~TlsStreamServer();
    TlsStreamServer(const TlsStreamServer&) = delete;
    TlsStreamServer& operator=(const TlsStreamServer&) = delete;

    uint16_t Port() const { return _port; }
    // A peer is connected and its handshake done.
    bool WaitForPeer(std::chrono::milliseconds timeout);
    // Writes `bytes` `times` times to the peer, after what is queued already,
    // and returns at once; `bytes` must stay unchanged until they are written.
    void Stream(const std::vector<uint8_t>& bytes, size_t times);

private:
    using TlsSocket = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

    void AcceptOne();
    void Discard();
    void WriteNext();

    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
    boost::asio::ssl::context _tls;
    boost::asio::ip::tcp::acceptor _acceptor;
    uint16_t _port = 0;
    const std::vector<uint8_t> _greeting;

    // On the I/O thread only.
    std::unique_ptr<TlsSocket> _peer;
    bool _up = false;  // handshake done
    std::deque<const std::vector<uint8_t>*> _writes;
    bool _writing = false;
    std::vector<uint8_t> _discard;

    std::mutex _mutex;
    std::condition_variable _peerUp;
    bool _hasPeer = false;  // guarded by _mutex

    std::thread _thread;
};

}  // namespace FenRELBench
