#pragma once

#include <cstddef>
#include <string>

namespace FenRELBench {

// The agent's end of the data path's unix socket, for the runs that stand in
// for the agent: connects, and writes whole buffers, blocking while the data
// path is behind. The data path's first message is left unread.
class DataPathClient {
public:
    // Throws std::runtime_error when the socket cannot be reached.
    // `socketBuffers`: when not 0, the send and receive buffer sizes to ask
    // for, as the agent's own link does; otherwise the system's.
    explicit DataPathClient(const std::string& path, int socketBuffers = 0);
    ~DataPathClient();
    DataPathClient(const DataPathClient&) = delete;
    DataPathClient& operator=(const DataPathClient&) = delete;

    // False, with errno set, when the connection failed.
    bool Write(const void* data, size_t size);
    // Makes a blocked Write return; for Stop from another thread.
    void Shutdown();

private:
    int _fd = -1;
};

}  // namespace FenRELBench
