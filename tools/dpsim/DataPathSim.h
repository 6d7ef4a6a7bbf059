#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "DataPathView.h"
#include "DpFrame.h"
#include "L2WireCounter.h"
#include "LocalState.h"
#include "lcp_dp.pb.h"

namespace DpSim {

using SteadyTime = std::chrono::steady_clock::time_point;

// A message from the agent, as recorded.
struct ReceivedMessage {
    size_t index = 0;       // in the order of receipt, from 0
    size_t connection = 0;  // index of the accepted connection, from 0
    SteadyTime received;
    uint8_t flags = 0;
    uint8_t headerType = 0;
    uint32_t length = 0;    // the header's length, header included
    bool parsed = false;    // the body is an LcpDpMsg
    bool fullSync = false;  // the first message of its connection
    // When counting L2 items only, an l2_update of mapping updates is left
    // empty here: its items were counted into the view from the bytes.
    com::corvid::zun::lcp::LcpDpMsg msg;

    // "conn 0 recv type 1 len 42 fullsync config 3 l2 sessions 1 end"
    std::string ToString() const;
};

// A stand-in for the host's data-path agent. It listens on a unix socket,
// takes the agent's link (a new connection replaces the one before), records
// every message the agent sends and rebuilds from them what the data path
// would know (DataPathView). It reports local state of its own: VIFs and
// local L2, as deltas and as the first message of a connection, which the
// agent takes as the data path's full sync whatever it holds. That first
// message goes out at accept time unless auto full sync is off.
//
// Threads: one thread of its own accepts and reads. Every public operation
// may be called from any other thread: records, view and local state are
// guarded by _mutex, and sends are serialised by _sendMutex (taken before
// _mutex). The waits sleep on a condition variable signalled at each change.
class DataPathSim {
public:
    static constexpr const char* kDefaultPath = "/var/run/corvid/zun-agent/zuna_link";

    struct Options {
        std::string path;           // the socket; its directories are made
        bool autoFullSync = true;   // send the first message at accept
        bool countL2Only = false;   // the view counts L2 items and keeps none (load runs)
    };

    using MessagePredicate = std::function<bool(const ReceivedMessage&)>;
    using EventLog = std::function<void(const std::string& line)>;

    explicit DataPathSim(Options options);
    ~DataPathSim();
    DataPathSim(const DataPathSim&) = delete;
    DataPathSim& operator=(const DataPathSim&) = delete;

    // Listens and starts the thread; throws std::runtime_error. Once only.
    void Start();
    // Closes the connection and the socket, ends the thread. Idempotent.
    void Stop();
    const std::string& Path() const { return _options.path; }

    // "conn 0 accepted", "conn 0 recv ...", "conn 0 sent ...", "conn 0 closed
    // (<reason>)", "conn 0 violation ...". Called on the calling thread of a
    // send or on the simulator's own.
    void SetEventLog(EventLog log);

    // Sending; false without a connection.
    void SetAutoFullSync(bool on);
    bool SendFullSync();
    // Changes of local state: an error text when refused, "" when made. A
    // change made is sent as a delta once this connection's first message
    // has gone out; before that (or without a connection) it is kept for
    // the first message, which holds all local state.
    std::string SetVif(const std::string& id, const LocalState::Vif& vif);
    std::string RemoveVif(const std::string& id);
    std::string AddL2(uint32_t vni, int32_t type, const LocalState::L2UpdateMappingItemMsg& item);
    std::string DeleteL2(uint32_t vni, int32_t type, const LocalState::L2UpdateMappingItemMsg& item);
    std::string LeaveVni(uint32_t vni);
    bool SendMessage(uint8_t headerType, const com::corvid::zun::lcp::LcpDpMsg& msg);
    bool SendRaw(const Bytes& bytes);
    // Closes the connection; the agent sees the end of its link.
    bool CloseConnection();

    // Copies of the records.
    std::vector<ReceivedMessage> Messages() const;
    DataPathView View() const;
    size_t AcceptedCount() const;
    bool IsConnected() const;
    // Whether this connection's first message (the full sync) went out.
    bool FirstMessageSent() const;
    std::vector<std::string> Violations() const;
    std::string Summary() const;

    // Waits, each at most `timeout`; true when the condition held.
    bool WaitForAccepted(size_t count, std::chrono::milliseconds timeout) const;
    // The connection of index `connection` has ended.
    bool WaitForClosed(size_t connection, std::chrono::milliseconds timeout) const;
    // The first message from index `fromIndex` on that matches.
    std::optional<ReceivedMessage> WaitForMessage(const MessagePredicate& match, std::chrono::milliseconds timeout,
                                                  size_t fromIndex = 0) const;
    bool WaitForMessageCount(size_t count, std::chrono::milliseconds timeout) const;
    // `condition` runs under the lock: it must not call the simulator.
    bool WaitForView(const std::function<bool(const DataPathView&)>& condition,
                     std::chrono::milliseconds timeout) const;

    static MessagePredicate IsFullSync();
    static MessagePredicate HeaderTypeIs(uint8_t type);

private:
    void Run();
    void Accept();
    void ReadConnection();
    // The caller holds _mutex, and notifies the waiters after a batch.
    void Record(const DpFrame& frame);
    // Closes the connection with `reason`; takes _sendMutex, so not from a send.
    void CloseCurrent(const std::string& reason);
    // Send on the current connection; the caller holds _sendMutex.
    bool SendLocked(uint8_t headerType, const com::corvid::zun::lcp::LcpDpMsg& msg);
    bool SendRawLocked(const Bytes& bytes);
    bool SendFullSyncLocked();
    // The caller holds _mutex.
    void Log(const std::string& line) const;
    // Applies a change of local state under the locks and sends its delta
    // when the first message has gone out.
    std::string ChangeLocal(const std::function<std::string(LocalState&, com::corvid::zun::lcp::LcpDpMsg&)>& change);
    template <typename Condition>
    bool WaitUntil(Condition condition, std::chrono::milliseconds timeout) const;

    const Options _options;
    int _listenFd = -1;
    int _wakePipe[2] = {-1, -1};
    std::thread _thread;
    bool _started = false;

    std::mutex _sendMutex;
    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    // Guarded by _mutex.
    int _connFd = -1;
    size_t _accepted = 0;
    size_t _currentConnection = 0;
    std::vector<bool> _closed;  // by connection
    bool _firstSent = false;
    bool _firstReceived = false;
    bool _closing = false;  // CloseConnection asked for the end being read
    bool _autoFullSync;
    DpFrameReader _reader;
    L2WireCounter _counter;  // used by Record only
    std::vector<ReceivedMessage> _messages;
    std::vector<std::string> _violations;
    DataPathView _view;
    LocalState _local;
    EventLog _eventLog;
};

}  // namespace DpSim
