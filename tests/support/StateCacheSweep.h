#pragma once

#include <cstdint>
#include <vector>

#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"

namespace FenRELTest {

// Empties the process's state cache, which outlives each test, through the
// tables' own operations (an empty L2 full sync leaves the local VNIs be, so
// each is left). The caller holds the global lock.
inline void SweepStateCache()
{
    namespace l2 = com::corvid::zun::l2;
    FenREL::StateCache* cache = FenREL::StateCache::GetInstance();
    FenREL::StateCacheL2Table* table = cache->GetL2Table();
    l2::L2UpdateVtepMsg vtep;
    if (table->GetDRVtep(vtep)) {
        l2::L2UpdateMsg removal;
        l2::L2UpdateRoutingVtepItemMsg* item = removal.add_routing_vtep_update()->add_items();
        item->set_op(l2::L2UpdateRoutingVtepItemMsg::DEL);
        *item->mutable_vtep() = vtep;
        table->AtomicUpdateLocalL2Cache(removal, false);
    }
    std::vector<uint32_t> vnis;
    table->ListVnis(FenREL::L2Side::Local, vnis);
    for (uint32_t vni : vnis) {
        l2::L2UpdateMsg leave;
        l2::L2MappingUpdateMsg* entry = leave.add_mapping_update();
        entry->mutable_vn_instance()->set_vni(vni);
        entry->add_items()->set_op(l2::L2UpdateMappingItemMsg::DEL);
        table->AtomicUpdateLocalL2Cache(leave, false);
    }
    vnis.clear();
    table->ListVnis(FenREL::L2Side::Remote, vnis);
    for (uint32_t vni : vnis) {
        table->RemoveRemoteL2ForVni(vni);
    }
    std::vector<com::corvid::zun::UuidMsg> domains;
    table->ListRoutingDomains(domains);
    for (const auto& domain : domains) {
        table->RemoveRemoteL2ForRoutingDomain(domain);
    }
    cache->GetConfigTable()->AtomicUpdateRemoteCache(std::vector<com::corvid::zun::config::ZunConfigDeltaMsg>(), true);
    cache->GetConfigTable()->AtomicUpdateLocalCache(std::vector<com::corvid::zun::config::ZunStateDeltaMsg>(), true);
    std::vector<FenREL::RemoteSessionUpdate> sessions;
    cache->GetRemoteSessionTable()->QuerySessions(sessions);
    for (const FenREL::RemoteSessionUpdate& session : sessions) {
        cache->GetRemoteSessionTable()->RemoveSession(session.sessionType, session.index);
    }
}

}  // namespace FenRELTest
