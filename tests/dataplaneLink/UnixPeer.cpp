#include "UnixPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace FenRELTest {

namespace {

using Clock = std::chrono::steady_clock;

// Waits for `events` on `fd` until `deadline`; false on time-out.
bool PollUntil(int fd, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd request{fd, events, 0};
        const int ready = poll(&request, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

}  // namespace

UnixPeer::UnixPeer(const std::string& path) : _path(path)
{
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("path too long: " + path);
    }
    memcpy(address.sun_path, path.data(), path.size());
    _listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (_listenFd < 0 || bind(_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(_listenFd, 8) != 0) {
        const std::string error = strerror(errno);
        if (_listenFd >= 0) {
            close(_listenFd);
        }
        throw std::runtime_error("cannot listen on " + path + ": " + error);
    }
}

UnixPeer::~UnixPeer()
{
    CloseConnection();
    close(_listenFd);
    unlink(_path.c_str());
}

bool UnixPeer::Accept(std::chrono::milliseconds timeout)
{
    if (!PollUntil(_listenFd, POLLIN, Clock::now() + timeout)) {
        return false;
    }
    CloseConnection();
    _fd = accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    return _fd >= 0;
}

bool UnixPeer::Write(const Bytes& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

std::optional<Bytes> UnixPeer::Read(size_t size, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    Bytes bytes(size);
    size_t done = 0;
    while (done < size) {
        if (!PollUntil(_fd, POLLIN, deadline)) {
            return std::nullopt;
        }
        const ssize_t got = recv(_fd, bytes.data() + done, size - done, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return std::nullopt;
        }
        done += static_cast<size_t>(got);
    }
    return bytes;
}

std::optional<Bytes> UnixPeer::ReadFrame(size_t headerSize, size_t lengthBytes, std::chrono::milliseconds timeout)
{
    std::optional<Bytes> frame = Read(headerSize, timeout);
    if (!frame) {
        return std::nullopt;
    }
    size_t length = 0;
    for (size_t i = 0; i < lengthBytes; ++i) {
        length = (length << 8) | (*frame)[2 + i];
    }
    if (length < headerSize) {
        return std::nullopt;
    }
    const std::optional<Bytes> body = Read(length - headerSize, timeout);
    if (!body) {
        return std::nullopt;
    }
    frame->insert(frame->end(), body->begin(), body->end());
    return frame;
}

bool UnixPeer::WaitForEof(std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (!PollUntil(_fd, POLLIN, deadline)) {
            return false;
        }
        uint8_t byte;
        const ssize_t got = recv(_fd, &byte, 1, 0);
        if (got == 0) {
            return true;
        }
        if (got < 0 && errno != EINTR) {
            return false;
        }
    }
}

void UnixPeer::CloseConnection()
{
    if (_fd >= 0) {
        close(_fd);
        _fd = -1;
    }
}

Bytes ZunaFrame(uint8_t type, const std::string& body, uint8_t flags)
{
    const uint32_t length = static_cast<uint32_t>(body.size() + 6);
    Bytes frame = {flags,
                   type,
                   static_cast<uint8_t>(length >> 24),
                   static_cast<uint8_t>(length >> 16),
                   static_cast<uint8_t>(length >> 8),
                   static_cast<uint8_t>(length)};
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

Bytes KrnFrame(uint16_t type, const std::string& body)
{
    const uint16_t length = static_cast<uint16_t>(body.size() + 4);
    Bytes frame = {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type), static_cast<uint8_t>(length >> 8),
                   static_cast<uint8_t>(length)};
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

uint8_t* MallocCopy(const Bytes& bytes)
{
    auto* buffer = static_cast<uint8_t*>(malloc(bytes.empty() ? 1 : bytes.size()));
    memcpy(buffer, bytes.data(), bytes.size());
    return buffer;
}

}  // namespace FenRELTest
