#include "SimConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>

namespace CtrlSim {

namespace {

std::string ReadFailure(const boost::system::error_code& error)
{
    if (error == boost::asio::error::eof || error == boost::asio::ssl::error::stream_truncated) {
        return "closed by peer";
    }
    if (error == boost::asio::error::connection_reset) {
        return "reset by peer";
    }
    return "read error: " + error.message();
}

}  // namespace

SimConnection::SimConnection(size_t index, Socket socket, boost::asio::ssl::context* tlsContext,
                             SimConnectionOwner& owner)
    : _index(index), _owner(owner)
{
    if (tlsContext != nullptr) {
        _tls = std::make_unique<TlsStream>(std::move(socket), *tlsContext);
    } else {
        _plain = std::make_unique<Socket>(std::move(socket));
    }
}

SimConnection::Socket& SimConnection::Lowest()
{
    return _tls ? _tls->next_layer() : *_plain;
}

void SimConnection::Start()
{
    if (!_tls) {
        Up();
        return;
    }
    auto self = shared_from_this();
    _tls->async_handshake(boost::asio::ssl::stream_base::server, [self](const boost::system::error_code& error) {
        if (self->_closed) {
            return;
        }
        if (error) {
            self->Close("TLS handshake failed: " + error.message());
            return;
        }
        self->Up();
    });
}

void SimConnection::Up()
{
    const auto now = std::chrono::steady_clock::now();
    _up = true;
    _lastSend = now;
    _owner.ConnectionUp(*this, now);
    if (_closed) {
        return;
    }
    WriteNext();
    ReadSome();
}

void SimConnection::ReadSome()
{
    auto self = shared_from_this();
    auto handler = [self](const boost::system::error_code& error, size_t size) { self->OnRead(error, size); };
    const auto buffer = boost::asio::buffer(_readBuffer);
    if (_tls) {
        _tls->async_read_some(buffer, handler);
    } else {
        _plain->async_read_some(buffer, handler);
    }
}

void SimConnection::OnRead(const boost::system::error_code& error, size_t size)
{
    if (_closed) {
        return;
    }
    if (error) {
        Close(ReadFailure(error));
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    std::vector<Frame> frames;
    const bool intact = _reader.Feed(_readBuffer.data(), size, frames);
    for (const Frame& frame : frames) {
        CheckFrameHeader(frame.header);
        _owner.FrameReceived(*this, frame, now);
        std::string complaint;
        std::optional<Message> msg = _assembler.Add(frame, &complaint);
        if (!complaint.empty()) {
            ReportViolation(complaint);
        }
        if (msg) {
            _owner.MessageReceived(*this, std::move(*msg), now);
        }
        if (_closed) {
            return;  // a handler closed it
        }
    }
    if (!intact) {
        ReportViolation(_reader.Error());
        Close("framing error: " + _reader.Error());
        return;
    }
    ReadSome();
}

void SimConnection::CheckFrameHeader(const FrameHeader& header)
{
    if (header.version != 1) {
        ReportViolation("frame with version " + std::to_string(header.version) + ": " + header.ToString());
    }
    if ((header.flags & ~FrameHeader::MoreFragmentsFlag) != 0) {
        ReportViolation("frame with reserved flag bits: " + header.ToString());
    }
}

void SimConnection::Send(const OutMessage& msg)
{
    if (_closed) {
        return;
    }
    _owner.MessageSent(_index, msg, std::chrono::steady_clock::now());
    for (Bytes& frame : MessageWriter::Frames(msg)) {
        SendRaw(std::move(frame));
    }
}

void SimConnection::SendRaw(Bytes bytes)
{
    if (_closed) {
        return;
    }
    _writeQueue.push_back(std::move(bytes));
    if (_up) {
        WriteNext();
    }
}

void SimConnection::WriteNext()
{
    if (_writing || _closed || _writeQueue.empty()) {
        return;
    }
    _writing = true;
    auto self = shared_from_this();
    auto handler = [self](const boost::system::error_code& error, size_t) { self->OnWrite(error); };
    // The deque keeps the front element in place while later ones are appended.
    const auto buffer = boost::asio::buffer(_writeQueue.front());
    if (_tls) {
        boost::asio::async_write(*_tls, buffer, handler);
    } else {
        boost::asio::async_write(*_plain, buffer, handler);
    }
}

void SimConnection::OnWrite(const boost::system::error_code& error)
{
    _writing = false;
    if (_closed) {
        return;
    }
    if (error) {
        Close("write error: " + error.message());
        return;
    }
    _writeQueue.pop_front();
    _lastSend = std::chrono::steady_clock::now();
    WriteNext();
}

void SimConnection::Close(const std::string& reason)
{
    End(reason, true);
}

void SimConnection::Abort(const std::string& reason)
{
    End(reason, false);
}

void SimConnection::End(const std::string& reason, bool orderly)
{
    if (_closed) {
        return;
    }
    _closed = true;
    for (const auto& timer : _timers) {
        timer->cancel();
    }
    _timers.clear();
    // The queue stays: a write still in flight refers to its front.
    boost::system::error_code ignored;
    if (orderly) {
        Lowest().shutdown(Socket::shutdown_both, ignored);
    } else {
        // No FIN: closing with a zero linger sends a reset.
        Lowest().set_option(Socket::linger(true, 0), ignored);
    }
    Lowest().close(ignored);
    _owner.ConnectionClosed(_index, reason, std::chrono::steady_clock::now());
}

void SimConnection::RunAfter(std::chrono::milliseconds delay, std::function<void()> action)
{
    if (_closed) {
        return;
    }
    auto timer = std::make_shared<boost::asio::steady_timer>(Lowest().get_executor(), delay);
    _timers.insert(timer);
    auto self = shared_from_this();
    timer->async_wait([self, timer, action = std::move(action)](const boost::system::error_code& error) {
        self->_timers.erase(timer);
        if (!error && !self->_closed) {
            action();
        }
    });
}

void SimConnection::ReportViolation(const std::string& text)
{
    _owner.ViolationSeen(_index, text, std::chrono::steady_clock::now());
}

}  // namespace CtrlSim
