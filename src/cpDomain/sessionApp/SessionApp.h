#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "AsyncTimer.h"
#include "ConnConfig.h"
#include "ConnKey.h"
#include "CtrlSession.h"
#include "ExtendedApp.h"
#include "core_types.pb.h"

namespace FenREL {

class StateCacheRemoteSessionTable;

// The host's one control session, the config session. It picks a controller
// of the cluster at random, runs the handshake with it
//
//   INIT --Open sent--> OPEN --Open ACK--> OPEN_ACK --MASTER_CONTROLLER (this one)--> READY
//
// follows it to the master controller the cluster names, and passes the
// sharding table on. Every other app starts from what it reports: the
// physical master session up or down, and the shards.
//
// The Open waits for the data path's initial sync. All entry points run
// under the global lock (asserted); timers and Start take it themselves.
//
// Session control message, type 4, protocolID 0x0101:
//
//   0        15             16
//   +--------+--------------+------------------------------+
//   | header | control type | ConfigSessionMsg (version)   |
//   +--------+--------------+------------------------------+
//
// control types: 1 Open, 2 Open ACK, 3 Close, 4 FullSync End.
class SessionApp : public ZUNChannel::ExtendedApp {
public:
    enum SessionState : uint32_t { INIT = 0, OPEN = 1, OPEN_ACK = 2, READY = 3 };
    enum ControlType : uint8_t { CONTROL_OPEN = 1, CONTROL_OPEN_ACK = 2, CONTROL_CLOSE = 3, CONTROL_FULL_SYNC_END = 4 };

    static constexpr uint32_t kNoIndex = 0xFFFFFFFF;
    static constexpr int32_t kConnectTimeoutUs = 15000000;
    static constexpr int32_t kRetryDelayUs = 5000000;
    // What the multi-controller apps are told a sharding update is.
    static constexpr uint32_t kShardingAssign = 0;
    static constexpr uint32_t kShardingRevoke = 1;

    // Creates and registers the one instance.
    static void Init(const com::corvid::zun::ProductVersionMsg& productVersion);
    static boost::intrusive_ptr<SessionApp> Instance();
    static void Destroy();

    void Start() override;
    void Stop() override;
    void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& event) override;
    void HandleMsg(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key) override;

    // The controller list was read or changed.
    void ReceiveControllerList(const std::vector<ZUNChannel::ConnConfig>& list);
    // The data path has taken its initial full sync: the Open may go out.
    void ProcessDPInitialSyncDone();

    // Texts of the session states and control types; "" for an unknown value.
    static const char* StateText(uint32_t state);
    static const char* ControlText(uint8_t type);

    SessionState GetSessionState() const { return _sessionState; }
    const boost::intrusive_ptr<ZUNChannel::CtrlSession>& GetSession() const { return _session; }
    const std::string& GetLocalAddress() const { return _localAddress; }

    // Timer callbacks.
    void OnConnectTimeout(int64_t sessionSerial);
    void OnRetryTimer();

private:
    explicit SessionApp(const com::corvid::zun::ProductVersionMsg& productVersion);

    void SelectConnection();
    // A new session to `controller`, with a serial of its own.
    void CreateSession(const std::string& controller);
    // Takes the connection of the new session and arms its time-out.
    void StartConnecting();
    void FillControllerList();
    void OnConnReady(const ZUNChannel::ConnKey& key);
    void OnConnDown(const ZUNChannel::ConnKey& key);
    void TryOpenSession();
    bool SendControl(ControlType type);
    void HandleSessionControl(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key);
    void HandleUpdate(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key);
    void HandleMasterController(const std::string& master, const ZUNChannel::ConnKey& key);
    void UpdateTable(int32_t state);
    void ReportToDomain(bool down);
    void CancelTimer();

    std::vector<ZUNChannel::ConnKey> _controllerList;
    uint32_t _masterIndex = kNoIndex;
    boost::intrusive_ptr<ZUNChannel::CtrlSession> _session;
    // Each session gets a serial, so that a time-out queued for an older one is told apart.
    int64_t _sessionSerial = 0;
    std::shared_ptr<ZUNChannel::AsyncTimer<SessionApp>> _timer;
    SessionState _sessionState = INIT;
    bool _dpInitialSyncDone = false;
    StateCacheRemoteSessionTable* _remoteSessionTable = nullptr;
    std::string _localAddress;
    com::corvid::zun::ProductVersionMsg _productVersion;
};

}  // namespace FenREL
