#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "CPLocalL2Sink.h"
#include "CtrlSession.h"
#include "L2HelloFeature.h"
#include "MultiControllerApp.h"
#include "NewVirtualNetwork.h"
#include "SCConfigTableObserver.h"
#include "ccp_lcp_l2.pb.h"
#include "core_types.pb.h"

namespace FenREL {

class StateCacheConfigTable;
class StateCacheL2Table;
class StateCacheRemoteSessionTable;

// The layer-2 mappings between this host and the controllers (protocolID
// 0x0040): which VNIs the host has joined, its VM MACs and IPs, its VTEP, and
// the VTEPs of the routing domains of its logical switches. Everything runs
// over the one physical master session that the session app opened; there is
// no per-VNI session and no sharding (no sharding element is ever made).
//
// A full sync is one update, or one fragmented update, that marks itself:
//
//   first mapping_update without type, items[0].op ADD    full sync of its VNIs
//   first routing_vtep_update's first item without vtep   full sync of the routing VTEPs
//
// From the host a mapping without type is a join (ADD) or a leave. Session up
// sends the host's whole L2 state as a full sync; local changes go out as
// deltas while there is a session and are otherwise dropped, since the next
// full sync covers them. Nothing sent is acknowledged.
//
// Updates from a controller are accepted only on the master session's
// connection and only for joined VNIs and known routing domains: a message in
// flight across a leave is dropped. They go to the L2 table, deltas at once.
//
// Routing domains follow the LS_ROUTING_DOMAIN_ID of the remote logical
// switches: a domain exists while one switch names it, and its appearance and
// end are announced with the host's VTEP.
//
// Threads: every entry point runs under the global lock and asserts it.
class L2App : public ZUNChannel::MultiControllerApp, public SCConfigTableObserver, public CPLocalL2Sink {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;
    using UuidMsg = com::corvid::zun::UuidMsg;

    struct RoutingDomain {
        UuidMsg id;
        std::vector<std::string> switches;  // serialised logical switch ids
    };

    // Takes the tables of the state cache, which must exist.
    L2App();
    ~L2App() override;

    // Follows the physical master session and the logical switches.
    void Start() override;
    void HandleMsg(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key) override;

    uint16_t WriteFeatureData(uint8_t* buffer) override;
    uint16_t GetHelloFeatureLen() override { return L2HelloFeature::kFeatureLen; }
    bool CheckFeatureData(const uint8_t* tlv) override;
    void ApplyHelloFeature(const uint8_t* tlv) override;

    // The LS_ROUTING_DOMAIN_ID of logical switches.
    void ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates) override;
    void ProcessLocalStateUpdate(const LocalStateUpdateList& /*updates*/) override {}
    // From CPDomainManager: a change of the local L2 cache.
    void ProcessLocalL2Update(const L2UpdateMsg& update) override { ProcessLocalUpdate(update); }

    // The physical master session went up (0) or down (1).
    void ProcessSessionStatus(const boost::intrusive_ptr<ZUNChannel::CtrlSession>& session, uint32_t state);
    // Joins, leaves and local deltas, sent on to the controller.
    void ProcessLocalUpdate(const L2UpdateMsg& update);
    void DumpRoutingDomains() const;

    const std::map<uint32_t, boost::intrusive_ptr<NewVirtualNetwork>>& GetVirtualNetworks() const
    {
        return _virtualNetworks;
    }
    boost::intrusive_ptr<NewVirtualNetwork> FindVirtualNetwork(uint32_t vni) const;
    const std::map<std::string, RoutingDomain>& GetRoutingDomains() const { return _routingDomains; }

private:
    void SendLocalFullSync();
    // On the master session, stamped; a failed send resets the connection.
    bool Send(uint8_t* message);
    void Join(const NewVirtualNetwork::Instance& instance);
    void Leave(const NewVirtualNetwork::Instance& instance);
    void AddLocalRoutingVteps(const L2UpdateMsg& local, L2UpdateMsg& out);

    enum class UpdateKind { Drop, Delta, FullSync };

    void HandleUpdate(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key);
    // What an update from a controller is; writes the local switch ids into it.
    UpdateKind ClassifyUpdate(L2UpdateMsg& update);
    void ApplyRemoteFullSync(const L2UpdateMsg& update, const ZUNChannel::ConnKey& key);
    void HandleNotification(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key);

    void AttachSwitch(const std::string& ls, const UuidMsg& domainId);
    void DetachSwitch(const std::string& ls, const std::string& domain);
    void SendRoutingDomainUpdate(const UuidMsg& domainId, bool add);

    boost::intrusive_ptr<StateCacheL2Table> _l2Table;
    L2HelloFeature _hello;
    boost::intrusive_ptr<StateCacheConfigTable> _configTable;
    boost::intrusive_ptr<StateCacheRemoteSessionTable> _remoteSessionTable;
    // The physical master session; null while it is down.
    boost::intrusive_ptr<ZUNChannel::CtrlSession> _session;
    // At most one per VNI.
    std::map<uint32_t, boost::intrusive_ptr<NewVirtualNetwork>> _virtualNetworks;
    // By serialised routing domain id.
    std::map<std::string, RoutingDomain> _routingDomains;
    // Serialised logical switch id to serialised routing domain id.
    std::map<std::string, std::string> _switchRoutingDomain;
    // The local-delta path announces the routing VTEP full-sync marker once
    // in the life of the process; the full-sync path writes it every time.
    bool _routingVtepMarkerSent = false;
};

}  // namespace FenREL
