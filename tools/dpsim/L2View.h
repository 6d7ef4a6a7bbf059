#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "ccp_lcp_l2.pb.h"

namespace DpSim {

// L2 forwarding state as one side of the link holds it: per VNI whether it is
// joined and its items by mapping type, per routing domain its VTEPs.
//
// An update applies item by item: ADD inserts, DEL removes. A mapping without
// a type joins (ADD) or leaves (DEL, with all its items) a VNI. Items are
// kept as their serialised bytes without the operation, so that an ADD and a
// DEL of the same value meet.
class L2View {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;
    using L2UpdateMappingItemMsg = com::corvid::zun::l2::L2UpdateMappingItemMsg;

    void Apply(const L2UpdateMsg& msg);
    void Clear();
    // Counting only: the items of a VNI are counted by type (ADD one more,
    // DEL one less) and not kept, so that millions of them cost little.
    // HasItem, ToFullMessage and the listing of Describe then know no items.
    // For load runs; set before the first Apply.
    void SetCountOnly(bool on) { _countOnly = on; }

    bool HasVni(uint32_t vni) const { return _vnis.count(vni) > 0; }
    size_t VniCount() const { return _vnis.size(); }
    bool HasItem(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item) const;
    size_t ItemCount(uint32_t vni, int32_t type) const;
    size_t RoutingDomainVtepCount(const com::corvid::zun::UuidMsg& domain) const;
    // Everything as one message of ADDs: per VNI a mapping without a type,
    // then one per type; per routing domain one update.
    L2UpdateMsg ToFullMessage() const;
    // One line per VNI and routing domain; under each VNI its first few
    // items of each type, one per line.
    std::string Describe() const;

    // The identity of an item: its bytes without the operation.
    static std::string ItemKey(const L2UpdateMappingItemMsg& item);
    // "00:50:56:00:00:01"; dotted IPv4 of a host-order address.
    static std::string MacText(uint64_t mac);
    static std::string Ipv4Text(uint32_t ip);

private:
    struct Vni {
        uint32_t switchId = 0;
        std::map<int32_t, std::set<std::string>> items;  // by mapping type
        std::map<int32_t, size_t> counts;                // by mapping type, when counting only
    };

    // Counts the items of `mapping` into `entry`.
    static void Count(const com::corvid::zun::l2::L2MappingUpdateMsg& mapping, Vni& entry);

    bool _countOnly = false;

    std::map<uint32_t, Vni> _vnis;
    std::map<std::string, std::set<std::string>> _routingDomains;  // serialised id -> serialised VTEPs
};

}  // namespace DpSim
