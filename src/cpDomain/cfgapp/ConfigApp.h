#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include <boost/intrusive_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "CPLocalStateSink.h"
#include "ConfigCacheRecords.h"
#include "CtrlSession.h"
#include "ExtendedApp.h"
#include "ccp_lcp_config.pb.h"

namespace FenREL {

class StateCacheConfigTable;

// The host's config channel. It rides on the physical master session that the
// session app established, and on each session up runs the full sync both ways,
// always in this order:
//
//   host -> controller   VIF state of this host (ENTITY_STATE), possibly cut in fragments
//   host -> controller   FullSync End
//   controller -> host   configuration deltas (ENTITY_PROPERTY), queued
//   controller -> host   FullSync End: the queue replaces the remote cache
//
// After that, local VIF changes and configuration deltas flow one by one. The
// first FullSync End in the life of the process also releases the data path.
//
// Messages, protocolID 0x0100:
//
//   0        15     16
//   +--------+------+---------------------------------------------------+
//   | header | 0x04 | (empty ConfigSessionMsg)     type 4, FullSync End |
//   +--------+------+---------------------------------------------------+
//   | header | 0x00 | CcpLcpZunConfigMsg           type 7, update       |
//   +--------+------+---------------------------------------------------+
//
// Everything runs under the global lock (asserted at each entry point);
// _pendingMutex is an inner lock that guards _pendingDeltas alone.
class ConfigApp : public ZUNChannel::ExtendedApp, public CPLocalStateSink {
public:
    using ZunConfigDeltaMsg = com::corvid::zun::config::ZunConfigDeltaMsg;

    static constexpr uint8_t kControlFullSyncEnd = 4;
    // Header, then the control type or the lead byte of an update.
    static constexpr size_t kPayloadOffset = 16;

    // Creates and registers the one instance, over the state cache's config table.
    static void Init();
    // The same over a table of the caller's (tests).
    static void Init(const boost::intrusive_ptr<StateCacheConfigTable>& configTable);
    static boost::intrusive_ptr<ConfigApp> Instance();
    // Drops the instance (tests).
    static void Destroy();

    ~ConfigApp() override;

    void Start() override;
    void Stop() override {}
    void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& /*event*/) override {}
    void HandleMsg(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key) override;

    virtual void ProcessFullSyncStart() {}
    // The controller's FullSync End: the queued deltas become the remote cache.
    virtual void ProcessFullSyncEnd();
    // The host's half: all local VIF state, then our FullSync End.
    virtual void SendFullSync();

    // The physical master session went up (state 0) or down (1).
    void ProcessSessionStatus(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, uint32_t state);
    // A local VIF delta, once the data path's initial sync is over. Dropped
    // while the session is down: the next full sync restates everything.
    void SendLocalState(const LocalStateUpdateList& updates) override;

    // Sends a finished control message over the config session, stamped with
    // its id; takes the message. A failed send resets the connection.
    static bool SendMsg(uint8_t* message);
    // An update message (type 7) of `protocolId`: the header, a zero byte,
    // then `payloadLength` zero bytes for the caller to fill. The header's
    // `length` is the real length cut to 16 bits, as the channel's peers
    // expect; nothing here compares it with the frame limit.
    static uint8_t* NewUpdateMsg(uint16_t protocolId, size_t payloadLength);

    const boost::intrusive_ptr<ZUNChannel::CtrlSession>& GetSession() const { return _session; }
    size_t GetPendingDeltaCount() const;

private:
    explicit ConfigApp(const boost::intrusive_ptr<StateCacheConfigTable>& configTable);

    void HandleSessionControl(const uint8_t* message, const ZUNChannel::ConnKey& key);
    void HandleUpdate(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key);
    bool IsFromSession(const ZUNChannel::ConnKey& key) const;
    bool SessionReady() const { return _session && _session->IsReady(); }
    // Our session's connection, or "NULL".
    std::string CurrentConnText() const;
    void LocalVifs(LocalStateUpdateList& vifs) const;
    com::corvid::zun::config::CcpLcpZunConfigMsg BuildEntityState(const LocalStateUpdateList& updates,
                                                                  bool logStateless) const;
    bool Send(uint8_t* message);

    bool _fullSyncDone = false;
    std::deque<ZunConfigDeltaMsg> _pendingDeltas;
    mutable boost::mutex _pendingMutex;  // guards _pendingDeltas
    boost::intrusive_ptr<StateCacheConfigTable> _configTable;
    bool _dpInitialFullSyncDone = false;
    boost::intrusive_ptr<ZUNChannel::CtrlSession> _session;
};

}  // namespace FenREL
