#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "AsyncTimer.h"
#include "DataplaneLink.h"
#include "DataplaneMsgQueue.h"

namespace FenREL {

// A data-plane link over a unix stream socket that it connects itself. The
// links to the kernel module and to the data-path agent share all of it and
// differ only in their framing and log texts, which a Profile gives.
//
// Threads: a read loop and a write loop run as work items on the WorkGroup
// for as long as the link lives (until Stop); the reconnect timer fires on an
// I/O thread every five seconds. _lock (of DataplaneLink) guards _socket and
// the connect and disconnect, and the status handler runs under it. Lock
// order: the global lock, then _lock. Open, Close and the timer's rounds take
// both; a loop that finds the socket broken takes _lock alone, so that it can
// report LinkDown even while another thread holds the global lock waiting for
// room in the queue. A status handler must therefore not take the global
// lock on LinkDown.
//
//   closed --Connect ok (Open, timer): LinkUp--> connected
//   connected --read/write failure, link check false, Close: LinkDown--> closed
//
// While closed, the loops wait; the queue keeps what is sent meanwhile and the
// next connection delivers it.
class UnixSocketLink : public DataplaneLink {
public:
    static constexpr int32_t kReconnectIntervalMicroseconds = 5000000;
    static constexpr int kPollTimeoutMilliseconds = 1000;
    static constexpr int kSocketBufferBytes = 4096;
    // sun_path holds 108 bytes; the path must leave room for its terminator.
    static constexpr size_t kMaxPathLength = 107;

    // What sets one kind of link apart from the other. Texts are the
    // system's own log lines; a null text means the case has none of its own.
    struct Profile {
        uint32_t headerSize;
        // The length of a received message from its header; asserts that the
        // header can be a message's.
        uint32_t (*receivedLength)(const uint8_t* header);
        // The length of a queued message from its header.
        uint32_t (*queuedLength)(const uint8_t* header);
        // EINTR on the header's recv: read again, or give up as on an error.
        bool headerRetriesOnEintr;
        const char* headerClosedText;  // level 2 with recvErrorCode; null: recvErrorText
        const char* bodyClosedText;    // level 5; null: recvErrorText
        const char* recvErrorText;     // "... %1: recv error: %2:%3", path, errno, text
        const char* recvErrorCode;
        const char* pollErrorText;
        const char* pollErrorCode;
        const char* connectErrorText;  // %1 "AF_UNIX", %2 path, %3 error text
        const char* connectErrorCode;
        const char* bufferErrorCode;
        const char* closeErrorCode;
        const char* receivedText;  // %1 path, %2 bytes
        const char* takenText;
        const char* sendingText;  // %1 bytes
        const char* linkDownText;
        int linkDownLevel;
        const char* linkDownCode;  // null: none
        const char* queueFailText;
        const char* reopenText;
    };

    ~UnixSocketLink() override;

    // Connects at once, whatever the result, arms the reconnect timer and
    // starts the two loops. True, unless the link was stopped.
    bool Open() override;
    // Drops the timer and disconnects; the loops go on.
    void Close() override;
    // Arms a new reconnect timer; a connection that is up stays up.
    void Reopen() override;
    // Queues `buffer`, waiting while the queue is full. False, with the buffer
    // freed, once the queue is closed (or for a null buffer).
    bool Send(uint8_t* buffer, uint32_t length) override;

    // Gives the link up for good: closes the queue (what it holds is freed
    // with the link), drops the timer, closes the socket and waits for the
    // loops to end. No handler runs once it returns, and none hears of the
    // close. Not from the link's own threads or handlers, nor under the
    // global lock (a loop may be waiting for it).
    void Stop();

    // One round of the reconnect timer: ask the link check about an open
    // descriptor and disconnect on false, connect if closed, and arm the next
    // round. Public so that a round can be run without waiting for it.
    void OnTimer();

    bool IsConnected() const { return _connected.load(); }
    // The descriptor, -1 when closed.
    int GetFd();
    size_t QueuedMessages() const { return _queue.Size(); }
    size_t BlockedSenders() const { return _queue.BlockedPutters(); }
    // Read and write loops still running.
    int RunningLoops() const { return _runningLoops.load(); }

protected:
    UnixSocketLink(const Profile& profile, const std::string& path, ReceiveHandler receiveHandler,
                   StatusHandler statusHandler, LinkCheck linkCheck);

    // socket() failed with `error`; the texts differ in their arguments.
    virtual void LogSocketFailure(int error) const = 0;

private:
    class Socket;
    using SocketPtr = std::shared_ptr<Socket>;

    void Connect();
    void Disconnect();
    // Disconnects only if `socket` is still the link's: a loop that failed on
    // a socket the link has already let go must not drop its successor.
    void DisconnectIfCurrent(const SocketPtr& socket);
    bool IsCurrent(const SocketPtr& socket);
    SocketPtr CurrentSocket();
    void ArmNewTimer();
    void WakeLoops();
    // The connected socket; waits while there is none. Null once `running`
    // is cleared.
    SocketPtr WaitForConnection(const std::atomic<bool>& running);

    void ReadLoop();
    void WriteLoop();
    void LoopEnded();
    void ReadMessage(const SocketPtr& socket);
    // Reads `length` bytes; false once the socket has failed (logged, and
    // disconnected).
    bool Receive(const SocketPtr& socket, uint8_t* buffer, size_t length, bool header);
    void SendMessage(const uint8_t* msg, uint32_t length);

    const Profile& _profile;
    SocketPtr _socket;  // guarded by _lock; null while closed
    std::atomic<bool> _connected{false};
    std::atomic<bool> _readRunning{false};
    std::atomic<bool> _writeRunning{false};
    bool _stopped = false;  // guarded by _lock
    std::atomic<int> _runningLoops{0};
    DataplaneMsgQueue _queue;
    std::shared_ptr<ZUNChannel::AsyncTimer<UnixSocketLink>> _timer;  // guarded by the global lock

    // The loops' wait for a connection, signalled by Connect and Stop, and
    // Stop's wait for the loops, signalled as each ends.
    std::mutex _idleMutex;
    std::condition_variable _idleWake;
    std::condition_variable _loopEnded;
};

}  // namespace FenREL
