#include "LocalState.h"

namespace DpSim {

namespace {

namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;

void AddVifDeltas(LocalState::LcpDpMsg& msg, const std::string& id, const LocalState::Vif& vif, bool create)
{
    if (create) {
        config::ZunStateDeltaMsg* entity = msg.add_local_config_update();
        entity->set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
        entity->set_entity_id(id);
        entity->set_entity_type(config::VIF);
    }
    config::ZunStateDeltaMsg* states = msg.add_local_config_update();
    states->set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
    states->set_entity_id(id);
    states->set_entity_type(config::VIF);
    config::EntityStateMsg* ips = states->add_state();
    ips->set_state_type(config::EntityStateMsg::VIF_IP);
    for (const uint32_t ip : vif.ips) {
        ips->add_vif_ips()->set_ipv4(ip);
    }
    config::EntityStateMsg* macs = states->add_state();
    macs->set_state_type(config::EntityStateMsg::VIF_MAC);
    for (const uint64_t mac : vif.macs) {
        macs->add_vif_macs()->set_mac(mac);
    }
}

l2::L2MappingUpdateMsg* AddMapping(LocalState::LcpDpMsg& msg, uint32_t vni)
{
    l2::L2MappingUpdateMsg* mapping = msg.mutable_l2_update()->add_mapping_update();
    mapping->mutable_vn_instance()->set_vni(vni);
    mapping->mutable_vn_instance()->set_transport_switch_id(0);
    return mapping;
}

}  // namespace

LocalState::LcpDpMsg LocalState::SetVif(const std::string& id, const Vif& vif)
{
    LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    AddVifDeltas(msg, id, vif, _vifs.count(id) == 0);
    _vifs[id] = vif;
    return msg;
}

std::optional<LocalState::LcpDpMsg> LocalState::RemoveVif(const std::string& id)
{
    if (_vifs.erase(id) == 0) {
        return std::nullopt;
    }
    LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    config::ZunStateDeltaMsg* entity = msg.add_local_config_update();
    entity->set_operation(config::ZunStateDeltaMsg::DELETE_OP);
    entity->set_entity_id(id);
    entity->set_entity_type(config::VIF);
    return msg;
}

std::string LocalState::AddL2(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item, LcpDpMsg& out)
{
    out.Clear();
    out.set_atomic_update_end(true);
    if (!_l2.HasVni(vni)) {
        AddMapping(out, vni)->add_items()->set_op(l2::L2UpdateMappingItemMsg::ADD);
    }
    l2::L2MappingUpdateMsg* mapping = AddMapping(out, vni);
    mapping->set_type(static_cast<l2::L2MappingUpdateMsg::Type>(type));
    L2UpdateMappingItemMsg* added = mapping->add_items();
    *added = item;
    added->set_op(l2::L2UpdateMappingItemMsg::ADD);
    _l2.Apply(out.l2_update());
    return "";
}

std::string LocalState::DeleteL2(uint32_t vni, int32_t type, const L2UpdateMappingItemMsg& item, LcpDpMsg& out)
{
    if (!_l2.HasItem(vni, type, item)) {
        return "no such item on vni " + std::to_string(vni);
    }
    out.Clear();
    out.set_atomic_update_end(true);
    l2::L2MappingUpdateMsg* mapping = AddMapping(out, vni);
    mapping->set_type(static_cast<l2::L2MappingUpdateMsg::Type>(type));
    L2UpdateMappingItemMsg* deleted = mapping->add_items();
    *deleted = item;
    deleted->set_op(l2::L2UpdateMappingItemMsg::DEL);
    _l2.Apply(out.l2_update());
    return "";
}

std::string LocalState::LeaveVni(uint32_t vni, LcpDpMsg& out)
{
    if (!_l2.HasVni(vni)) {
        return "vni " + std::to_string(vni) + " is not joined";
    }
    out.Clear();
    out.set_atomic_update_end(true);
    AddMapping(out, vni)->add_items()->set_op(l2::L2UpdateMappingItemMsg::DEL);
    _l2.Apply(out.l2_update());
    return "";
}

LocalState::LcpDpMsg LocalState::FullSyncMessage() const
{
    LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    for (const auto& [id, vif] : _vifs) {
        AddVifDeltas(msg, id, vif, true);
    }
    *msg.mutable_l2_update() = _l2.ToFullMessage();
    return msg;
}

}  // namespace DpSim
