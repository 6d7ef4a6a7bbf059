#include "DataPathClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace FenRELBench {

DataPathClient::DataPathClient(const std::string& path, int socketBuffers)
{
    _fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (_fd < 0 || connect(_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const std::string error = strerror(errno);
        if (_fd >= 0) {
            close(_fd);
        }
        throw std::runtime_error("cannot connect to " + path + ": " + error);
    }
    if (socketBuffers > 0) {
        setsockopt(_fd, SOL_SOCKET, SO_SNDBUF, &socketBuffers, sizeof(socketBuffers));
        setsockopt(_fd, SOL_SOCKET, SO_RCVBUF, &socketBuffers, sizeof(socketBuffers));
    }
}

DataPathClient::~DataPathClient()
{
    close(_fd);
}

bool DataPathClient::Write(const void* data, size_t size)
{
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = send(_fd, bytes, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void DataPathClient::Shutdown()
{
    shutdown(_fd, SHUT_RDWR);
}

}  // namespace FenRELBench
