#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
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
    // Counting only: the items of a VNI are counted by type (a mapping
    // update's ADDs add to the count and its DELs take away, never below
    // zero) and not kept, so that millions of them cost little. HasItem,
    // ToFullMessage and the listing of Describe then know no items. For load
    // runs; set before the first Apply.
    void SetCountOnly(bool on) { _countOnly = on; }

    // A mapping update as counting sees it.
    struct MappingCount {
        uint32_t vni = 0;
        uint32_t switchId = 0;
        std::optional<int32_t> type;  // none: the VNI's own entry, a join or a leave
        size_t adds = 0;
        size_t dels = 0;
        bool firstIsDel = false;  // the first item's operation, which joins or leaves
    };
    static MappingCount CountOf(const com::corvid::zun::l2::L2MappingUpdateMsg& mapping);
    // Applies one mapping update when counting only, as Apply would.
    void Count(const MappingCount& mapping);

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

    // A mapping without a type: joins or leaves the VNI, unless it has no items.
    void JoinOrLeave(uint32_t vni, uint32_t switchId, bool hasItems, bool leave);
    // The VNI's entry, made on first use with `switchId`.
    Vni& EntryOf(uint32_t vni, uint32_t switchId);

    bool _countOnly = false;

    std::map<uint32_t, Vni> _vnis;
    std::map<std::string, std::set<std::string>> _routingDomains;  // serialised id -> serialised VTEPs
};

}  // namespace DpSim
