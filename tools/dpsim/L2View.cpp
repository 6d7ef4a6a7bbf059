#include "L2View.h"

#include <algorithm>
#include <cstdio>

namespace DpSim {

namespace l2 = com::corvid::zun::l2;

namespace {

// At most this many items of a type are listed one by one.
constexpr size_t kListedItems = 8;

// "VM_MAC 00:50:56:aa:00:01 at 192.168.0.2", from an item's key.
std::string ItemText(int32_t type, const std::string& key)
{
    L2View::L2UpdateMappingItemMsg item;
    item.ParseFromString(key);
    const std::string name = l2::L2MappingUpdateMsg::Type_IsValid(type)
                                 ? l2::L2MappingUpdateMsg::Type_Name(static_cast<l2::L2MappingUpdateMsg::Type>(type))
                                 : "type" + std::to_string(type);
    if (item.has_vm_mac()) {
        return name + " " + L2View::MacText(item.vm_mac().vm_mac().mac()) + " at " +
               L2View::Ipv4Text(item.vm_mac().vtep_ip().ipv4());
    }
    if (item.has_vm_ip()) {
        return name + " " + L2View::Ipv4Text(item.vm_ip().vm_ip().ipv4()) + " is " +
               L2View::MacText(item.vm_ip().vm_mac().mac());
    }
    if (item.has_vtep()) {
        return name + " " + L2View::Ipv4Text(item.vtep().vtep_ip().ipv4());
    }
    return name + " " + item.ShortDebugString();
}

}  // namespace

std::string L2View::MacText(uint64_t mac)
{
    char text[18];
    snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac >> 40 & 0xFF),
             static_cast<unsigned>(mac >> 32 & 0xFF), static_cast<unsigned>(mac >> 24 & 0xFF),
             static_cast<unsigned>(mac >> 16 & 0xFF), static_cast<unsigned>(mac >> 8 & 0xFF),
             static_cast<unsigned>(mac & 0xFF));
    return text;
}

std::string L2View::Ipv4Text(uint32_t ip)
{
    return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 0xFF) + "." + std::to_string(ip >> 8 & 0xFF) +
           "." + std::to_string(ip & 0xFF);
}

std::string L2View::ItemKey(const L2UpdateMappingItemMsg& item)
{
    // Fields serialise in the order of their numbers, so the operation
    // (field 1: tag 0x08, then a varint) leads and is cut off here, without
    // a copy of the item: a bench run passes a million items through here.
    std::string key = item.SerializeAsString();
    if (item.has_op()) {
        size_t end = 1;
        while (end < key.size() && (static_cast<uint8_t>(key[end]) & 0x80) != 0) {
            ++end;
        }
        key.erase(0, end + 1);
    }
    return key;
}

void L2View::Apply(const L2UpdateMsg& msg)
{
    for (const l2::L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        if (_countOnly) {
            Count(CountOf(mapping));
            continue;
        }
        const uint32_t vni = mapping.vn_instance().vni();
        if (!mapping.has_type()) {
            JoinOrLeave(vni, mapping.vn_instance().transport_switch_id(), mapping.items_size() > 0,
                        mapping.items_size() > 0 && mapping.items(0).op() == l2::L2UpdateMappingItemMsg::DEL);
            continue;
        }
        Vni& entry = EntryOf(vni, mapping.vn_instance().transport_switch_id());
        std::set<std::string>& items = entry.items[mapping.type()];
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            if (item.op() == l2::L2UpdateMappingItemMsg::DEL) {
                items.erase(ItemKey(item));
            } else {
                items.insert(ItemKey(item));
            }
        }
        if (items.empty()) {
            entry.items.erase(mapping.type());
        }
    }
    for (const l2::L2RoutingVtepUpdateMsg& update : msg.routing_vtep_update()) {
        std::set<std::string>& vteps = _routingDomains[update.routing_domain_id().SerializeAsString()];
        for (const l2::L2UpdateRoutingVtepItemMsg& item : update.items()) {
            if (item.op() == l2::L2UpdateRoutingVtepItemMsg::DEL) {
                vteps.erase(item.vtep().SerializeAsString());
            } else {
                vteps.insert(item.vtep().SerializeAsString());
            }
        }
        if (vteps.empty()) {
            _routingDomains.erase(update.routing_domain_id().SerializeAsString());
        }
    }
}

L2View::MappingCount L2View::CountOf(const l2::L2MappingUpdateMsg& mapping)
{
    MappingCount count;
    count.vni = mapping.vn_instance().vni();
    count.switchId = mapping.vn_instance().transport_switch_id();
    if (mapping.has_type()) {
        count.type = mapping.type();
    }
    for (const L2UpdateMappingItemMsg& item : mapping.items()) {
        ++(item.op() == l2::L2UpdateMappingItemMsg::DEL ? count.dels : count.adds);
    }
    count.firstIsDel = mapping.items_size() > 0 && mapping.items(0).op() == l2::L2UpdateMappingItemMsg::DEL;
    return count;
}

void L2View::Count(const MappingCount& mapping)
{
    if (!mapping.type) {
        JoinOrLeave(mapping.vni, mapping.switchId, mapping.adds + mapping.dels > 0, mapping.firstIsDel);
        return;
    }
    size_t& count = EntryOf(mapping.vni, mapping.switchId).counts[*mapping.type];
    count += mapping.adds;
    count -= std::min(count, mapping.dels);
}

void L2View::JoinOrLeave(uint32_t vni, uint32_t switchId, bool hasItems, bool leave)
{
    if (!hasItems) {
        return;
    }
    if (leave) {
        _vnis.erase(vni);
    } else {
        _vnis[vni].switchId = switchId;
    }
}

L2View::Vni& L2View::EntryOf(uint32_t vni, uint32_t switchId)
{
    auto [found, created] = _vnis.try_emplace(vni);
    if (created) {
        found->second.switchId = switchId;
    }
    return found->second;
}

void L2View::Clear()
{
    _vnis.clear();
    _routingDomains.clear();
}

bool L2View::HasItem(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item) const
{
    auto it = _vnis.find(vni);
    if (it == _vnis.end()) {
        return false;
    }
    auto items = it->second.items.find(type);
    return items != it->second.items.end() && items->second.count(ItemKey(item)) > 0;
}

size_t L2View::ItemCount(uint32_t vni, int32_t type) const
{
    auto it = _vnis.find(vni);
    if (it == _vnis.end()) {
        return 0;
    }
    if (_countOnly) {
        auto count = it->second.counts.find(type);
        return count == it->second.counts.end() ? 0 : count->second;
    }
    auto items = it->second.items.find(type);
    return items == it->second.items.end() ? 0 : items->second.size();
}

size_t L2View::RoutingDomainVtepCount(const com::corvid::zun::UuidMsg& domain) const
{
    auto it = _routingDomains.find(domain.SerializeAsString());
    return it == _routingDomains.end() ? 0 : it->second.size();
}

L2View::L2UpdateMsg L2View::ToFullMessage() const
{
    L2UpdateMsg msg;
    for (const auto& [vni, entry] : _vnis) {
        l2::L2MappingUpdateMsg* join = msg.add_mapping_update();
        join->mutable_vn_instance()->set_vni(vni);
        join->mutable_vn_instance()->set_transport_switch_id(entry.switchId);
        join->add_items()->set_op(l2::L2UpdateMappingItemMsg::ADD);
        for (const auto& [type, items] : entry.items) {
            l2::L2MappingUpdateMsg* mapping = msg.add_mapping_update();
            mapping->set_type(static_cast<l2::L2MappingUpdateMsg::Type>(type));
            *mapping->mutable_vn_instance() = join->vn_instance();
            for (const std::string& key : items) {
                L2UpdateMappingItemMsg* item = mapping->add_items();
                item->ParseFromString(key);
                item->set_op(l2::L2UpdateMappingItemMsg::ADD);
            }
        }
    }
    for (const auto& [domain, vteps] : _routingDomains) {
        l2::L2RoutingVtepUpdateMsg* update = msg.add_routing_vtep_update();
        update->mutable_routing_domain_id()->ParseFromString(domain);
        for (const std::string& vtep : vteps) {
            l2::L2UpdateRoutingVtepItemMsg* item = update->add_items();
            item->set_op(l2::L2UpdateRoutingVtepItemMsg::ADD);
            item->mutable_vtep()->ParseFromString(vtep);
        }
    }
    return msg;
}

std::string L2View::Describe() const
{
    std::string text;
    for (const auto& [vni, entry] : _vnis) {
        text += "vni " + std::to_string(vni) + " switch " + std::to_string(entry.switchId);
        for (const auto& [type, items] : entry.items) {
            text += " type" + std::to_string(type) + "=" + std::to_string(items.size());
        }
        for (const auto& [type, count] : entry.counts) {
            text += " type" + std::to_string(type) + "=" + std::to_string(count) + " (counted)";
        }
        text += "\n";
        for (const auto& [type, items] : entry.items) {
            size_t listed = 0;
            for (const std::string& key : items) {
                if (listed++ == kListedItems) {
                    text += "  ... " + std::to_string(items.size() - kListedItems) + " more\n";
                    break;
                }
                text += "  " + ItemText(type, key) + "\n";
            }
        }
    }
    for (const auto& [domain, vteps] : _routingDomains) {
        com::corvid::zun::UuidMsg id;
        id.ParseFromString(domain);
        text += "routing domain " + id.ShortDebugString() + " vteps " + std::to_string(vteps.size()) + "\n";
    }
    return text;
}

}  // namespace DpSim
