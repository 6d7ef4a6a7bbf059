#include "StateCacheTestSupport.h"

#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "LogLevel.h"

namespace FenRELTest {

int Count(LogCapture& log, const std::string& text)
{
    std::istringstream lines(log.Text());
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

void LogToStderr(int level)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    FenREL::g_logLevel.store(level);
    FenREL::g_logToConsole.store(true);
}

L2UpdateMappingItemMsg MacItem(uint64_t mac, uint32_t vtepIp, L2UpdateMappingItemMsg::Operation op)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
    item.mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(vtepIp);
    return item;
}

L2UpdateMappingItemMsg IpItem(uint32_t ip, uint64_t mac, L2UpdateMappingItemMsg::Operation op)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vm_ip()->mutable_vm_ip()->set_ipv4(ip);
    item.mutable_vm_ip()->mutable_vm_mac()->set_mac(mac);
    return item;
}

L2UpdateMappingItemMsg VtepItem(uint32_t ip, L2UpdateMappingItemMsg::Operation op)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vtep()->CopyFrom(Vtep(ip));
    return item;
}

L2UpdateMappingItemMsg VtepChangeItem(uint32_t oldIp, uint32_t newIp, L2UpdateMappingItemMsg::Operation op)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vtep_change()->mutable_old_vtep_ip()->set_ipv4(oldIp);
    item.mutable_vtep_change()->mutable_new_vtep_ip()->set_ipv4(newIp);
    return item;
}

UuidMsg Uuid(uint64_t left, uint64_t right)
{
    UuidMsg id;
    id.set_left(left);
    id.set_right(right);
    return id;
}

L2UpdateVtepMsg Vtep(uint32_t ip)
{
    L2UpdateVtepMsg vtep;
    vtep.mutable_vtep_ip()->set_ipv4(ip);
    vtep.mutable_vtep_mac()->set_mac(0x020000000000ull | ip);
    return vtep;
}

L2Msg& L2Msg::Entry(uint32_t vni, L2UpdateMappingItemMsg::Operation op, uint32_t switchId)
{
    L2MappingUpdateMsg* mapping = _msg.add_mapping_update();
    mapping->mutable_vn_instance()->set_vni(vni);
    mapping->mutable_vn_instance()->set_transport_switch_id(switchId);
    mapping->add_items()->set_op(op);
    return *this;
}

L2Msg& L2Msg::Mapping(uint32_t vni, uint32_t type, std::vector<L2UpdateMappingItemMsg> items, uint32_t switchId)
{
    L2MappingUpdateMsg* mapping = _msg.add_mapping_update();
    mapping->set_type(static_cast<L2MappingUpdateMsg::Type>(type));
    mapping->mutable_vn_instance()->set_vni(vni);
    mapping->mutable_vn_instance()->set_transport_switch_id(switchId);
    for (L2UpdateMappingItemMsg& item : items) {
        mapping->add_items()->Swap(&item);
    }
    return *this;
}

L2Msg& L2Msg::Routing(const UuidMsg* domain, std::vector<std::pair<uint32_t, bool>> ipAndAdd)
{
    auto* update = _msg.add_routing_vtep_update();
    if (domain != nullptr) {
        update->mutable_routing_domain_id()->CopyFrom(*domain);
    }
    for (const auto& [ip, add] : ipAndAdd) {
        auto* item = update->add_items();
        item->set_op(add ? com::corvid::zun::l2::L2UpdateRoutingVtepItemMsg::ADD
                         : com::corvid::zun::l2::L2UpdateRoutingVtepItemMsg::DEL);
        if (ip != 0) {
            item->mutable_vtep()->CopyFrom(Vtep(ip));
        }
    }
    return *this;
}

std::string VniKey(uint32_t vni)
{
    return "vni " + std::to_string(vni);
}

std::vector<L2Change> Changes(const L2UpdateMsg& msg)
{
    std::vector<L2Change> changes;
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        const uint32_t type = mapping.has_type() ? mapping.type() : 0;
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            std::string value;
            switch (type) {
            case VM_IP:
                value = item.vm_ip().SerializeAsString();
                break;
            case VM_MAC:
                value = item.vm_mac().SerializeAsString();
                break;
            case VTEP:
                value = item.vtep().SerializeAsString();
                break;
            case VTEP_CHANGE:
                value = item.vtep_change().SerializeAsString();
                break;
            default:
                break;
            }
            changes.emplace_back(VniKey(mapping.vn_instance().vni()), type, item.op(), value);
        }
    }
    for (const auto& update : msg.routing_vtep_update()) {
        for (const auto& item : update.items()) {
            changes.emplace_back(update.routing_domain_id().SerializeAsString(), 10, item.op(),
                                 item.vtep().SerializeAsString());
        }
    }
    return changes;
}

}  // namespace FenRELTest
