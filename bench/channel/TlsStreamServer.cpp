#include "TlsStreamServer.h"

#include <openssl/ssl.h>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

namespace FenRELBench {

namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;

TlsStreamServer::TlsStreamServer(const std::string& keyFile, const std::string& certFile,
                                 std::vector<uint8_t> greeting)
    : _work(boost::asio::make_work_guard(_io)),
      _tls(ssl::context::tls_server),
      _acceptor(_io, tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0)),
      _greeting(std::move(greeting)),
      _discard(16 * 1024)
{
    SSL_CTX_set_min_proto_version(_tls.native_handle(), TLS1_2_VERSION);
    _tls.use_certificate_chain_file(certFile);
    _tls.use_private_key_file(keyFile, ssl::context::pem);
    _port = _acceptor.local_endpoint().port();
    AcceptOne();
    _thread = std::thread([this] { _io.run(); });
}

TlsStreamServer::~TlsStreamServer()
{
    _work.reset();
    _io.stop();
    _thread.join();
}

void TlsStreamServer::AcceptOne()
{
    _acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
        if (error) {
            return;
        }
        socket.set_option(tcp::no_delay(true));
        _peer = std::make_unique<TlsSocket>(std::move(socket), _tls);
        _peer->async_handshake(ssl::stream_base::server, [this](const boost::system::error_code& failed) {
            if (failed) {
                return;
            }
            if (!_greeting.empty()) {
                _writes.push_back(&_greeting);
            }
            _up = true;
            WriteNext();
            Discard();
            {
                std::lock_guard<std::mutex> lock(_mutex);
                _hasPeer = true;
            }
            _peerUp.notify_all();
        });
    });
}

void TlsStreamServer::Discard()
{
    _peer->async_read_some(boost::asio::buffer(_discard), [this](const boost::system::error_code& error, size_t) {
        if (!error) {
            Discard();
        }
    });
}

void TlsStreamServer::WriteNext()
{
    if (_writing || _writes.empty() || !_up) {
        return;
    }
    _writing = true;
    boost::asio::async_write(*_peer, boost::asio::buffer(*_writes.front()),
                             [this](const boost::system::error_code& error, size_t) {
                                 if (error) {
                                     return;
                                 }
                                 _writing = false;
                                 _writes.pop_front();
                                 WriteNext();
                             });
}

bool TlsStreamServer::WaitForPeer(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(_mutex);
    return _peerUp.wait_for(lock, timeout, [this] { return _hasPeer; });
}

void TlsStreamServer::Stream(const std::vector<uint8_t>& bytes, size_t times)
{
    boost::asio::post(_io, [this, &bytes, times] {
        for (size_t i = 0; i < times; ++i) {
            _writes.push_back(&bytes);
        }
        WriteNext();
    });
}

}  // namespace FenRELBench
