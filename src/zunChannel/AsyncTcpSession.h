#pragma once

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/connect.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/intrusive_ptr.hpp>

#include "Logger.h"

namespace ZUNChannel {

// The socket under one connection of T (a controller connection, a key
// manager session): TCP, optionally TLS on top, and four completion members
// of T: connect, handshake, read, write.
//
// The peer is verified by pinning only: after the handshake its certificate
// must equal the expected one (X509_cmp), with no chain, name or expiry check.
//
// Every socket operation runs on the session's strand, so a TLS stream never
// sees two of its operations at once however many threads run the I/O
// service; a caller on another thread (holding its own lock) only queues the
// operation. Each operation holds shared references to the session and to
// its owner, so a completion after Close() is safe: it reports the aborted
// operation, which the owner ignores.
template <typename T>
class AsyncTcpSession : public std::enable_shared_from_this<AsyncTcpSession<T>> {
public:
    using ConnectCallback = void (T::*)(const boost::system::error_code&);
    // `peerVerified`: the pinned certificate matched (false also when the
    // handshake itself failed).
    using HandshakeCallback = void (T::*)(const boost::system::error_code&, bool peerVerified);
    using IoCallback = void (T::*)(const boost::system::error_code&, size_t);

    struct Callbacks {
        ConnectCallback onConnect;
        HandshakeCallback onHandshake;
        IoCallback onRead;
        IoCallback onWrite;
    };

    // `sslContext` null: plain TCP. `expectedCert` is copied.
    AsyncTcpSession(boost::asio::io_context& service, T* owner, Callbacks callbacks,
                    const std::shared_ptr<boost::asio::ssl::context>& sslContext, const X509* expectedCert)
        : _strand(boost::asio::make_strand(service)),
          _socket(_strand),
          _sslContext(sslContext),
          _owner(owner),
          _callbacks(callbacks)
    {
        if (_sslContext) {
            _stream = std::make_unique<boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>>(_socket,
                                                                                                 *_sslContext);
        }
        if (expectedCert != nullptr) {
            _expectedCert = X509_dup(const_cast<X509*>(expectedCert));
        }
    }

    ~AsyncTcpSession() { X509_free(_expectedCert); }

    AsyncTcpSession(const AsyncTcpSession&) = delete;
    AsyncTcpSession& operator=(const AsyncTcpSession&) = delete;

    bool IsSsl() const { return _stream != nullptr; }
    bool IsClosed() const { return _closed; }

    // The address must be a dotted IPv4 literal: no name is looked up.
    bool AsyncConnect(const std::string& address, uint16_t port)
    {
        if (_closed) {
            FLOG_ERROR("socket %1 is already closed", static_cast<const void*>(this)).AddTag("errorCode:LCP00101");
            return false;
        }
        struct in_addr parsed;
        if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
            FLOG_ERROR("Connect to host failed, ip: %1, port: %2, error: %3", address, port, "invalid IPv4 address")
                .AddTag("errorCode:LCP00102");
            return false;
        }
        const boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::address_v4(ntohl(parsed.s_addr)), port);
        auto self = this->shared_from_this();
        boost::intrusive_ptr<T> owner(_owner);
        boost::asio::dispatch(_strand, [self, owner, endpoint] {
            self->_socket.async_connect(endpoint, [self, owner](boost::system::error_code error) {
                if (self->_closed) {
                    error = boost::asio::error::operation_aborted;
                    FLOG_ERROR("OnConnectCallback: socket %1 is already closed",
                               static_cast<const void*>(self.get()))
                        .AddTag("errorCode:LCP00101");
                } else if (error) {
                    FLOG_WARNING("socket async connect callback failed. Error code: %1, %2", error.value(),
                                 error.message());
                } else {
                    // Frames go out as they are written: with Nagle's algorithm a
                    // second small message (FullSync End after the VIF state) waits
                    // some 40 ms for the controller's delayed acknowledgement.
                    boost::system::error_code ignored;
                    self->_socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
                }
                ((*owner).*(self->_callbacks.onConnect))(error);
            });
        });
        return true;
    }

    // Starts the TLS client handshake; false when nothing can be pinned.
    bool DoSSLHandShake()
    {
        if (_closed) {
            FLOG_ERROR("DoSSLHandShake: socket %1 is already closed", static_cast<const void*>(this))
                .AddTag("errorCode:LCP00101");
            return false;
        }
        if (_expectedCert == nullptr || !_stream) {
            FLOG_ERROR("certificate is empty").AddTag("errorCode:LCP00106");
            return false;
        }
        auto self = this->shared_from_this();
        boost::intrusive_ptr<T> owner(_owner);
        boost::asio::dispatch(_strand, [self, owner] {
            self->_stream->async_handshake(
                boost::asio::ssl::stream_base::client, [self, owner](boost::system::error_code error) {
                    bool verified = false;
                    if (self->_closed) {
                        error = boost::asio::error::operation_aborted;
                        FLOG_ERROR("OnHandshakeCallback: socket %1 is already closed",
                                   static_cast<const void*>(self.get()))
                            .AddTag("errorCode:LCP00101");
                    } else if (error) {
                        FLOG_WARNING("socket async handshake callback failed. Error: %1, %2", error.value(),
                                     error.message());
                    } else {
                        verified = self->PeerMatchesPin();
                    }
                    ((*owner).*(self->_callbacks.onHandshake))(error, verified);
                });
        });
        return true;
    }

    // Reads at most `size` bytes into `buffer`; `keep` holds the buffer's
    // owner until the read has completed, even after Close().
    bool Read(uint8_t* buffer, size_t size, std::shared_ptr<void> keep)
    {
        if (_closed) {
            FLOG_ERROR("Read: socket %1 is already closed", static_cast<const void*>(this)).AddTag("errorCode:LCP00101");
            return false;
        }
        auto self = this->shared_from_this();
        boost::intrusive_ptr<T> owner(_owner);
        boost::asio::dispatch(_strand, [self, owner, buffer, size, keep] {
            auto done = [self, owner, keep](boost::system::error_code error, size_t count) {
                if (self->_closed) {
                    error = boost::asio::error::operation_aborted;
                    FLOG_ERROR("OnReadCallback: socket %1 is already closed", static_cast<const void*>(self.get()))
                        .AddTag("errorCode:LCP00101");
                } else if (error) {
                    FLOG_ERROR("socket async read callback failed. Error code: %1, %2", error.value(),
                               error.message())
                        .AddTag("errorCode:LCP00109");
                }
                ((*owner).*(self->_callbacks.onRead))(error, count);
            };
            if (self->_stream) {
                self->_stream->async_read_some(boost::asio::buffer(buffer, size), done);
            } else {
                self->_socket.async_read_some(boost::asio::buffer(buffer, size), done);
            }
        });
        return true;
    }

    // Writes the whole buffer, which must stay valid until the write completes
    // (the owner, held by the operation, frees it in its write callback).
    bool Write(const uint8_t* buffer, size_t size)
    {
        if (_closed) {
            FLOG_ERROR("Write: socket %1 is already closed", static_cast<const void*>(this))
                .AddTag("errorCode:LCP00101");
            return false;
        }
        auto self = this->shared_from_this();
        boost::intrusive_ptr<T> owner(_owner);
        boost::asio::dispatch(_strand, [self, owner, buffer, size] {
            auto done = [self, owner](boost::system::error_code error, size_t count) {
                if (self->_closed) {
                    error = boost::asio::error::operation_aborted;
                    FLOG_ERROR("OnWriteCallback: socket %1 is already closed", static_cast<const void*>(self.get()))
                        .AddTag("errorCode:LCP00101");
                } else if (error) {
                    FLOG_ERROR("socket async write callback failed. Error code: %1, %2", error.value(),
                               error.message())
                        .AddTag("errorCode:LCP00110");
                }
                ((*owner).*(self->_callbacks.onWrite))(error, count);
            };
            if (self->_stream) {
                boost::asio::async_write(*self->_stream, boost::asio::buffer(buffer, size), done);
            } else {
                boost::asio::async_write(self->_socket, boost::asio::buffer(buffer, size), done);
            }
        });
        return true;
    }

    // Marks the session closed and aborts its operations; their completions
    // still arrive, with the aborted-operation code.
    void Close()
    {
        _closed = true;
        auto self = this->shared_from_this();
        boost::asio::dispatch(_strand, [self] {
            boost::system::error_code error;
            self->_socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, error);
            error.clear();
            self->_socket.close(error);
            if (error) {
                FLOG_ERROR("close socket failed: %1 ", error.message()).AddTag("errorCode:LCP00103");
            }
        });
    }

    // The local end of the socket, for the logs; false when it has none.
    bool GetLocalEndpoint(std::string& address, uint16_t& port)
    {
        boost::system::error_code error;
        const auto endpoint = _socket.local_endpoint(error);
        if (error) {
            FLOG_ERROR("get socket port failed: %1, %2 ", error.value(), error.message()).AddTag("errorCode:LCP00104");
            FLOG_ERROR("get socket addr failed: %1, %2 ", error.value(), error.message()).AddTag("errorCode:LCP00104");
            return false;
        }
        port = endpoint.port();
        address = endpoint.address().to_string();
        FLOG_INFO("get socket port successfully: %1", port);
        FLOG_INFO("get socket addr successfully: %1", address);
        return true;
    }

private:
    bool PeerMatchesPin()
    {
        X509* peer = SSL_get1_peer_certificate(_stream->native_handle());
        const bool equal = peer != nullptr && _expectedCert != nullptr && X509_cmp(peer, _expectedCert) == 0;
        X509_free(peer);
        if (equal) {
            FLOG_INFO("certificate verifying successfully");
        } else {
            FLOG_ERROR("certificate verifying failed").AddTag("errorCode:LCP00107");
        }
        return equal;
    }

    boost::asio::strand<boost::asio::io_context::executor_type> _strand;
    boost::asio::ip::tcp::socket _socket;
    std::shared_ptr<boost::asio::ssl::context> _sslContext;
    std::unique_ptr<boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>> _stream;
    X509* _expectedCert = nullptr;
    T* _owner;
    Callbacks _callbacks;
    std::atomic<bool> _closed{false};  // set by the owner, read on the strand
};

}  // namespace ZUNChannel
