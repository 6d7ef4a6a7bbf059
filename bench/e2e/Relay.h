#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <google/protobuf/arena.h>
#include <openssl/ssl.h>

#include "DataPathClient.h"
#include "lcp_dp.pb.h"

namespace FenRELBench {

// The floor that the agent is measured against on the road from a controller
// to the data path: the least a relay can do. It reads the controller's
// frames over TLS (15-byte header), joins fragments, parses each L2 update,
// wraps it in an LcpDpMsg and writes that with the data path's 6-byte header
// to the data path's socket. No hello, sessions, cache or logging.
//
// In Discard mode it counts whole messages and parses nothing, and there is
// no data path: the ceiling of the controller simulator and TLS.
//
// Threads: Start connects on the caller's thread, then one thread of its own
// reads and writes until Stop. Messages() and Error() may be called from any
// thread.
class Relay {
public:
    enum class Mode { Forward, Discard };

    // `socketBuffers`: the data path's socket buffers, 0 for the system's.
    explicit Relay(Mode mode, int socketBuffers = 0);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Connects to the controller (TLS, no certificate check) and, in Forward
    // mode, to the data path's socket, whose first message it leaves unread;
    // then starts the thread. Throws std::runtime_error.
    void Start(const std::string& address, uint16_t port, const std::string& dataPathSocket);
    // Ends the connections and the thread. Idempotent.
    void Stop();

    // Whole messages of the L2 channel taken from the controller.
    size_t Messages() const { return _messages.load(std::memory_order_relaxed); }
    // Why the thread stopped early; empty while all is well.
    std::string Error() const;
    // The CPU time of the relay's thread so far; between Start and Stop.
    double CpuSeconds();

private:
    void ReadFrames();
    // One whole message: header fields and body.
    void OnMessage(uint16_t type, uint16_t protocolId, const uint8_t* body, size_t size);
    // Frames `msg` and writes it whole.
    void WriteToDataPath(const com::corvid::zun::lcp::LcpDpMsg& msg);
    void Fail(const std::string& error);

    const Mode _mode;
    const int _socketBuffers;
    int _controllerFd = -1;
    std::unique_ptr<DataPathClient> _dataPath;
    SSL_CTX* _context = nullptr;
    SSL* _tls = nullptr;
    std::thread _thread;
    std::vector<uint8_t> _partial;  // fragments of the message in progress; the thread's own
    std::string _frame;             // the data-path frame being built; the thread's own
    google::protobuf::ArenaOptions _arenaBlocks;
    std::atomic<size_t> _messages{0};
    mutable std::mutex _errorMutex;
    std::string _error;  // guarded by _errorMutex
};

}  // namespace FenRELBench
