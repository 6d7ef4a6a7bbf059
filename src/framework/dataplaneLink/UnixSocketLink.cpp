#include "UnixSocketLink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "Assert.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MemAlloc.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

namespace FenREL {

namespace {

constexpr const char* kFamily = "AF_UNIX";

}  // namespace

// One connected descriptor, closed when the last of its users lets go: the
// link drops it on disconnect, a loop that is still in a call on it holds it
// until the call returns. So a descriptor number is never reused under a loop.
class UnixSocketLink::Socket {
public:
    Socket(int fd, const char* closeErrorCode) : fd(fd), _closeErrorCode(closeErrorCode) {}
    ~Socket()
    {
        while (close(fd) != 0 && errno == EINTR) {
            FLOG_ERROR("Could not close netlink connection: %1, retry", strerror(errno)).AddTag(_closeErrorCode);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    const int fd;

private:
    const char* _closeErrorCode;
};

UnixSocketLink::UnixSocketLink(const Profile& profile, const std::string& path, ReceiveHandler receiveHandler,
                               StatusHandler statusHandler, LinkCheck linkCheck)
    : DataplaneLink(path, std::move(receiveHandler), std::move(statusHandler), std::move(linkCheck)),
      _profile(profile)
{
}

UnixSocketLink::~UnixSocketLink() = default;

bool UnixSocketLink::Open()
{
    {
        std::lock_guard<std::recursive_mutex> lock(_lock);
        if (_stopped) {
            return false;
        }
    }
    Connect();
    ArmNewTimer();
    const boost::intrusive_ptr<UnixSocketLink> self(this);
    if (!_readRunning.exchange(true)) {
        ++_runningLoops;
        ZUNChannel::WorkGroup::Get().Post(
            std::make_shared<ZUNChannel::WorkItemImpl<UnixSocketLink>>(self, &UnixSocketLink::ReadLoop));
    }
    if (!_writeRunning.exchange(true)) {
        ++_runningLoops;
        ZUNChannel::WorkGroup::Get().Post(
            std::make_shared<ZUNChannel::WorkItemImpl<UnixSocketLink>>(self, &UnixSocketLink::WriteLoop));
    }
    return true;
}

void UnixSocketLink::Close()
{
    ZUNChannel::GlobalLockGuard global;
    if (_timer) {
        _timer->Stop();
        _timer.reset();
    }
    Disconnect();
}

void UnixSocketLink::Reopen()
{
    ArmNewTimer();
    FLOG_VERBOSE(_profile.reopenText);
}

bool UnixSocketLink::Send(uint8_t* buffer, uint32_t /*length*/)
{
    // The write loop takes the length from the header.
    if (buffer == nullptr || !_queue.Put(buffer)) {
        FLOG_ERROR(_profile.queueFailText).AddTag("errorCode:LCP00008");
        return false;
    }
    return true;
}

void UnixSocketLink::Stop()
{
    {
        std::lock_guard<std::recursive_mutex> lock(_lock);
        _stopped = true;
    }
    _readRunning = false;
    _writeRunning = false;
    _queue.Close();
    WakeLoops();
    Close();
    std::unique_lock<std::mutex> idle(_idleMutex);
    _loopEnded.wait(idle, [this] { return _runningLoops == 0; });
}

void UnixSocketLink::OnTimer()
{
    ZUNChannel::GlobalLockGuard global;
    {
        std::lock_guard<std::recursive_mutex> lock(_lock);
        if (_socket && _linkCheck && !_linkCheck(_socket->fd)) {
            Disconnect();
        }
        Connect();
    }
    if (_timer) {
        _timer->Start(kReconnectIntervalMicroseconds);
    }
}

int UnixSocketLink::GetFd()
{
    std::lock_guard<std::recursive_mutex> lock(_lock);
    return _socket ? _socket->fd : -1;
}

void UnixSocketLink::Connect()
{
    ZUNChannel::GlobalLockGuard global;
    std::lock_guard<std::recursive_mutex> lock(_lock);
    if (_stopped) {
        return;
    }
    if (_connected && _socket) {
        FLOG_TRIVIA("Connection of %1 is OK", _path);
        return;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        LogSocketFailure(errno);
        return;
    }
    // A longer path would be cut by the kernel and name another socket.
    ASSERT(_path.size() <= kMaxPathLength);
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, _path.data(), _path.size());
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd);
        _socket.reset();
        _connected = false;
        FLOG_ERROR(_profile.connectErrorText, kFamily, _path, strerror(error)).AddTag(_profile.connectErrorCode);
        return;
    }
    FLOG_VERBOSE("connected to %1 socket %2", kFamily, _path);

    const int size = kSocketBufferBytes;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0) {
        FLOG_VERBOSE("%1 send buffer set to %2 bytes", kFamily, size);
    } else {
        FLOG_ERROR("Could not set %1 send buffer size: %2", kFamily, strerror(errno))
            .AddTag(_profile.bufferErrorCode);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == 0) {
        FLOG_VERBOSE("%1 receive buffer set to %2 bytes", kFamily, size);
    } else {
        FLOG_ERROR("Could not set %1 receive buffer size: %2", kFamily, strerror(errno))
            .AddTag(_profile.bufferErrorCode);
    }

    _socket = std::make_shared<Socket>(fd, _profile.closeErrorCode);
    _connected = true;
    WakeLoops();
    if (_statusHandler) {
        _statusHandler(this, LinkUp);
    }
}

void UnixSocketLink::Disconnect()
{
    std::lock_guard<std::recursive_mutex> lock(_lock);
    if (!_connected) {
        return;
    }
    // Wakes a loop blocked on the socket; the descriptor itself is closed
    // when that loop lets go of it.
    shutdown(_socket->fd, SHUT_RDWR);
    _socket.reset();
    _connected = false;
    if (_statusHandler && !_stopped) {
        _statusHandler(this, LinkDown);
    }
}

void UnixSocketLink::DisconnectIfCurrent(const SocketPtr& socket)
{
    std::lock_guard<std::recursive_mutex> lock(_lock);
    if (socket == _socket) {
        Disconnect();
    }
}

bool UnixSocketLink::IsCurrent(const SocketPtr& socket)
{
    std::lock_guard<std::recursive_mutex> lock(_lock);
    return socket == _socket;
}

UnixSocketLink::SocketPtr UnixSocketLink::CurrentSocket()
{
    std::lock_guard<std::recursive_mutex> lock(_lock);
    return _socket;
}

void UnixSocketLink::ArmNewTimer()
{
    ZUNChannel::GlobalLockGuard global;
    if (_timer) {
        _timer->Stop();
    }
    _timer = ZUNChannel::AsyncTimer<UnixSocketLink>::Create(this, &UnixSocketLink::OnTimer);
    _timer->Start(kReconnectIntervalMicroseconds);
}

void UnixSocketLink::WakeLoops()
{
    // Taken so that a loop between its check and its wait cannot miss this.
    { std::lock_guard<std::mutex> idle(_idleMutex); }
    _idleWake.notify_all();
}

UnixSocketLink::SocketPtr UnixSocketLink::WaitForConnection(const std::atomic<bool>& running)
{
    while (running) {
        if (SocketPtr socket = CurrentSocket()) {
            return socket;
        }
        // The five-second sleep of a closed link, cut short by a connect.
        std::unique_lock<std::mutex> idle(_idleMutex);
        _idleWake.wait_for(idle, std::chrono::microseconds(kReconnectIntervalMicroseconds),
                           [&] { return !running || _connected; });
    }
    return nullptr;
}

void UnixSocketLink::ReadLoop()
{
    while (SocketPtr socket = WaitForConnection(_readRunning)) {
        pollfd request{socket->fd, POLLIN, 0};
        const int ready = poll(&request, 1, kPollTimeoutMilliseconds);
        if (ready == 0) {
            continue;
        }
        if (ready < 0 && errno != EINTR) {
            const int error = errno;
            if (IsCurrent(socket)) {
                FLOG_ERROR(_profile.pollErrorText, _path, error, strerror(error)).AddTag(_profile.pollErrorCode);
                DisconnectIfCurrent(socket);
            }
            continue;
        }
        if (request.revents == 0) {
            continue;
        }
        ReadMessage(socket);
    }
    LoopEnded();
}

void UnixSocketLink::ReadMessage(const SocketPtr& socket)
{
    uint8_t header[8];
    if (!Receive(socket, header, _profile.headerSize, true)) {
        return;
    }
    const uint32_t length = _profile.receivedLength(header);
    uint8_t* msg = MemAlloc::Buffer(length);
    memcpy(msg, header, _profile.headerSize);
    if (!Receive(socket, msg + _profile.headerSize, length - _profile.headerSize, false)) {
        free(msg);
        return;
    }
    FLOG_VERBOSE(_profile.receivedText, _path, length);
    if (_receiveHandler) {
        _receiveHandler(msg, static_cast<int>(length));
    }
    free(msg);
}

bool UnixSocketLink::Receive(const SocketPtr& socket, uint8_t* buffer, size_t length, bool header)
{
    size_t done = 0;
    while (done < length) {
        errno = 0;
        const ssize_t got = recv(socket->fd, buffer + done, length - done, 0);
        if (got > 0) {
            done += static_cast<size_t>(got);
            continue;
        }
        const int error = errno;
        if (got < 0 && error == EINTR && (!header || _profile.headerRetriesOnEintr)) {
            continue;
        }
        // A socket the link has let go was shut down by us: nothing to report.
        if (!IsCurrent(socket)) {
            return false;
        }
        const char* closedText = header ? _profile.headerClosedText : _profile.bodyClosedText;
        if (got == 0 && closedText != nullptr) {
            if (header) {
                FLOG_ERROR(closedText, _path).AddTag(_profile.recvErrorCode);
            } else {
                FLOG_VERBOSE(closedText, _path);
            }
        } else {
            FLOG_ERROR(_profile.recvErrorText, _path, error, strerror(error)).AddTag(_profile.recvErrorCode);
        }
        DisconnectIfCurrent(socket);
        return false;
    }
    return true;
}

void UnixSocketLink::WriteLoop()
{
    while (WaitForConnection(_writeRunning)) {
        uint8_t* msg = _queue.Take();
        if (msg == nullptr) {
            break;  // closed by Stop
        }
        FLOG_VERBOSE(_profile.takenText);
        SendMessage(msg, _profile.queuedLength(msg));
        free(msg);
    }
    LoopEnded();
}

void UnixSocketLink::LoopEnded()
{
    std::lock_guard<std::mutex> idle(_idleMutex);
    --_runningLoops;
    _loopEnded.notify_all();
}

void UnixSocketLink::SendMessage(const uint8_t* msg, uint32_t length)
{
    // The take may have waited: send on the link's socket of now.
    const SocketPtr socket = CurrentSocket();
    // Each round sends `remaining - sent` bytes from `sent`: after a partial
    // send the next round is shorter than the rest. A blocking stream socket
    // does not send part of a message of this size; should it happen all the
    // same, the stream is no longer framed, and a round with nothing left to
    // send counts as a failed link.
    int64_t remaining = length;
    int64_t sent = 0;
    while (remaining > 0) {
        const int64_t count = remaining - sent;
        FLOG_VERBOSE(_profile.sendingText, count);
        ssize_t result = -1;
        int error = EBADF;
        if (socket && count > 0) {
            result = send(socket->fd, msg + sent, static_cast<size_t>(count), MSG_NOSIGNAL);
            error = errno;
        }
        if (result < 0 && error == EINTR) {
            continue;
        }
        if (result < 0 || count <= 0) {
            if (_profile.linkDownCode != nullptr) {
                FLOG(_profile.linkDownLevel, _profile.linkDownText).AddTag(_profile.linkDownCode);
            } else {
                FLOG(_profile.linkDownLevel, _profile.linkDownText);
            }
            DisconnectIfCurrent(socket);
            return;
        }
        remaining -= result;
        sent += result;
    }
}

}  // namespace FenREL
