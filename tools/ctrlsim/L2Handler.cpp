#include "L2Handler.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "ConfigHandler.h"
#include "ControllerSim.h"
#include "FrameHeader.h"

namespace CtrlSim {

namespace l2 = com::corvid::zun::l2;

namespace {

using MappingItem = l2::L2UpdateMappingItemMsg;
using RoutingItem = l2::L2UpdateRoutingVtepItemMsg;

constexpr uint8_t UpdateLeadByte = 0;

std::string UuidText(const com::corvid::zun::UuidMsg& id)
{
    char text[37];
    const uint64_t left = id.left();
    const uint64_t right = id.right();
    snprintf(text, sizeof(text), "%08" PRIx64 "-%04" PRIx64 "-%04" PRIx64 "-%04" PRIx64 "-%012" PRIx64, left >> 32,
             (left >> 16) & 0xFFFF, left & 0xFFFF, right >> 48, static_cast<uint64_t>(right & 0xFFFFFFFFFFFFull));
    return text;
}

// Removes `key` from `map` (a map or a set); the fault text when it was not there.
template <typename Container, typename Key>
void Remove(Container& container, const Key& key, const std::string& what, uint32_t vni,
            std::vector<std::string>& faults)
{
    if (container.erase(key) == 0) {
        faults.push_back("DEL of unknown " + what + " in VNI " + std::to_string(vni));
    }
}

// Applies the items of one typed mapping of the host to the VNI's view.
void ApplyMapping(const l2::L2MappingUpdateMsg& mapping, bool fullSync, L2Handler::VniView& view,
                  std::vector<std::string>& faults)
{
    const uint32_t vni = mapping.vn_instance().vni();
    // A DEL inside a full sync states nothing about the view: the full sync
    // has just replaced it.
    std::vector<std::string> ignored;
    std::vector<std::string>& delFaults = fullSync ? ignored : faults;
    for (const MappingItem& item : mapping.items()) {
        const bool add = item.op() != MappingItem::DEL;
        switch (mapping.type()) {
        case l2::L2MappingUpdateMsg::VM_MAC: {
            const uint64_t mac = item.vm_mac().vm_mac().mac();
            if (add) {
                view.macs[mac] = item.vm_mac().vtep_ip().ipv4();
            } else {
                Remove(view.macs, mac, "MAC " + L2Handler::MacText(mac), vni, delFaults);
            }
            break;
        }
        case l2::L2MappingUpdateMsg::VM_IP: {
            const uint32_t ip = item.vm_ip().vm_ip().ipv4();
            if (add) {
                view.ips[ip] = item.vm_ip().vm_mac().mac();
            } else {
                Remove(view.ips, ip, "IP " + L2Handler::IpText(ip), vni, delFaults);
            }
            break;
        }
        case l2::L2MappingUpdateMsg::VTEP: {
            const uint32_t vtep = item.vtep().vtep_ip().ipv4();
            if (add) {
                view.vteps.insert(vtep);
            } else {
                Remove(view.vteps, vtep, "VTEP " + L2Handler::IpText(vtep), vni, delFaults);
            }
            break;
        }
        default:
            // A VTEP change says what changed elsewhere; the view has no place for it.
            break;
        }
    }
}

}  // namespace

std::string L2Handler::HostState::ToString() const
{
    std::string text = "host updates " + std::to_string(updates.size()) + " full syncs " + std::to_string(fullSyncs) +
                       " joins " + std::to_string(joins.size()) + " leaves " + std::to_string(leaves.size()) +
                       " vnis " + std::to_string(view.vnis.size()) + " routing domains " +
                       std::to_string(view.routingVteps.size()) + "\n";
    for (const auto& [vni, entry] : view.vnis) {
        text += "vni " + std::to_string(vni) + " switches";
        for (uint32_t id : entry.switches) {
            text += " " + std::to_string(id);
        }
        text += " macs";
        for (const auto& [mac, vtep] : entry.macs) {
            text += " " + MacText(mac) + ">" + IpText(vtep);
        }
        text += " ips";
        for (const auto& [ip, mac] : entry.ips) {
            text += " " + IpText(ip) + ">" + MacText(mac);
        }
        text += " vteps";
        for (uint32_t vtep : entry.vteps) {
            text += " " + IpText(vtep);
        }
        text += "\n";
    }
    for (const auto& [domain, vteps] : view.routingVteps) {
        text += "routing domain " + domain + " vteps";
        for (uint32_t vtep : vteps) {
            text += " " + IpText(vtep);
        }
        text += "\n";
    }
    return text;
}

L2Handler::L2Handler(ControllerSim& sim) : _sim(sim) {}

std::string L2Handler::MacText(uint64_t mac)
{
    char text[18];
    snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>((mac >> 40) & 0xFF),
             static_cast<unsigned>((mac >> 32) & 0xFF), static_cast<unsigned>((mac >> 24) & 0xFF),
             static_cast<unsigned>((mac >> 16) & 0xFF), static_cast<unsigned>((mac >> 8) & 0xFF),
             static_cast<unsigned>(mac & 0xFF));
    return text;
}

std::optional<uint64_t> L2Handler::ParseMac(const std::string& text)
{
    unsigned bytes[6];
    char end = 0;
    if (sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
               &bytes[5], &end) != 6) {
        return std::nullopt;
    }
    uint64_t mac = 0;
    for (unsigned byte : bytes) {
        mac = (mac << 8) | byte;
    }
    return mac;
}

std::string L2Handler::IpText(uint32_t ip)
{
    struct in_addr addr;
    addr.s_addr = htonl(ip);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &addr, text, sizeof(text));
}

std::optional<uint32_t> L2Handler::ParseIp(const std::string& text)
{
    struct in_addr addr;
    if (inet_pton(AF_INET, text.c_str(), &addr) != 1) {
        return std::nullopt;
    }
    return ntohl(addr.s_addr);
}

L2Handler::L2UpdateMsg L2Handler::FullSyncOf(uint32_t vni, const std::vector<Vm>& vms)
{
    L2UpdateMsg update;
    l2::L2MappingUpdateMsg* mark = update.add_mapping_update();
    mark->mutable_vn_instance()->set_vni(vni);
    mark->add_items()->set_op(MappingItem::ADD);
    const L2UpdateMsg changes = DeltaOf(vni, vms, {});
    update.MergeFrom(changes);
    return update;
}

L2Handler::L2UpdateMsg L2Handler::DeltaOf(uint32_t vni, const std::vector<Vm>& adds, const std::vector<Vm>& removes)
{
    L2UpdateMsg update;
    if (adds.empty() && removes.empty()) {
        return update;
    }
    auto mapping = [&update, vni](l2::L2MappingUpdateMsg::Type type) {
        l2::L2MappingUpdateMsg* added = update.add_mapping_update();
        added->set_type(type);
        added->mutable_vn_instance()->set_vni(vni);
        return added;
    };
    l2::L2MappingUpdateMsg* macs = mapping(l2::L2MappingUpdateMsg::VM_MAC);
    l2::L2MappingUpdateMsg* ips = mapping(l2::L2MappingUpdateMsg::VM_IP);
    l2::L2MappingUpdateMsg* vteps = mapping(l2::L2MappingUpdateMsg::VTEP);
    for (const auto& [list, op] : {std::make_pair(&adds, MappingItem::ADD), std::make_pair(&removes, MappingItem::DEL)}) {
        for (const Vm& vm : *list) {
            MappingItem* mac = macs->add_items();
            mac->set_op(op);
            mac->mutable_vm_mac()->mutable_vm_mac()->set_mac(vm.mac);
            mac->mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(vm.vtep);
            MappingItem* ip = ips->add_items();
            ip->set_op(op);
            ip->mutable_vm_ip()->mutable_vm_ip()->set_ipv4(vm.ip);
            ip->mutable_vm_ip()->mutable_vm_mac()->set_mac(vm.mac);
            MappingItem* vtep = vteps->add_items();
            vtep->set_op(op);
            vtep->mutable_vtep()->mutable_vtep_ip()->set_ipv4(vm.vtep);
        }
    }
    return update;
}

bool L2Handler::PushFullSync(uint32_t vni, const std::vector<Vm>& vms, size_t frameLimit)
{
    return Push(FullSyncOf(vni, vms), frameLimit);
}

bool L2Handler::PushDelta(uint32_t vni, const std::vector<Vm>& adds, const std::vector<Vm>& removes,
                          size_t frameLimit)
{
    return Push(DeltaOf(vni, adds, removes), frameLimit);
}

bool L2Handler::Push(const L2UpdateMsg& update, size_t frameLimit)
{
    const std::string bytes = update.SerializeAsString();
    Bytes body{UpdateLeadByte};
    body.insert(body.end(), bytes.begin(), bytes.end());
    return SendToHost(MsgType::AppData, std::move(body), frameLimit);
}

bool L2Handler::SendNotification(uint16_t error, uint16_t sub, uint32_t vni)
{
    Bytes body;
    Append16(body, error);
    Append16(body, sub);
    Append32(body, vni);
    return SendToHost(Notification, std::move(body), 0);
}

bool L2Handler::SendToHost(uint16_t type, Bytes body, size_t frameLimit)
{
    const auto [connection, sessionId] =
        _state.Read([](const HostState& state) { return std::make_pair(state.connection, state.sessionId); });
    OutMessage msg;
    msg.type = type;
    msg.protocolId = ProtocolId;
    msg.body = std::move(body);
    msg.sessionId = sessionId.value_or(FrameHeader::NoSession);
    msg.frameLimit = frameLimit != 0 ? frameLimit : ConfigHandler::AgentFrameLimit(_sim);
    return _sim.SendMessage(msg, connection);
}

bool L2Handler::IsFullSync(const L2UpdateMsg& update)
{
    if (update.mapping_update_size() > 0) {
        const l2::L2MappingUpdateMsg& first = update.mapping_update(0);
        return !first.has_type() && (first.items_size() == 0 || first.items(0).op() == MappingItem::ADD);
    }
    return update.routing_vtep_update_size() > 0 && update.routing_vtep_update(0).items_size() > 0 &&
           !update.routing_vtep_update(0).items(0).has_vtep();
}

std::vector<std::string> L2Handler::ApplyHostUpdate(const L2UpdateMsg& update, HostState& state)
{
    std::vector<std::string> faults;
    const bool fullSync = IsFullSync(update);
    if (fullSync) {
        // A full sync restates the mappings of the VNIs it names; the other
        // VNIs, and the switches that joined, stand.
        ++state.fullSyncs;
        for (const l2::L2MappingUpdateMsg& mapping : update.mapping_update()) {
            VniView& view = state.view.vnis[mapping.vn_instance().vni()];
            view.macs.clear();
            view.ips.clear();
            view.vteps.clear();
        }
    }
    for (const l2::L2MappingUpdateMsg& mapping : update.mapping_update()) {
        const uint32_t vni = mapping.vn_instance().vni();
        if (mapping.has_type()) {
            ApplyMapping(mapping, fullSync, state.view.vnis[vni], faults);
            continue;
        }
        // The VNI itself: a join, or a leave.
        const std::pair<uint32_t, uint32_t> instance(mapping.vn_instance().transport_switch_id(), vni);
        if (mapping.items_size() == 0 || mapping.items(0).op() == MappingItem::ADD) {
            state.view.vnis[vni].switches.insert(instance.first);
            state.joins.push_back(instance);
            continue;
        }
        state.leaves.push_back(instance);
        const auto found = state.view.vnis.find(vni);
        if (found != state.view.vnis.end()) {
            found->second.switches.erase(instance.first);
            if (found->second.switches.empty()) {
                state.view.vnis.erase(found);
            }
        }
    }
    for (const l2::L2RoutingVtepUpdateMsg& element : update.routing_vtep_update()) {
        const std::string domain = UuidText(element.routing_domain_id());
        for (const RoutingItem& item : element.items()) {
            if (!item.has_vtep()) {
                // An ADD without a VTEP restates the domain's VTEPs from here.
                if (item.op() == RoutingItem::ADD) {
                    state.view.routingVteps[domain].clear();
                }
                continue;
            }
            const uint32_t vtep = item.vtep().vtep_ip().ipv4();
            if (item.op() != RoutingItem::DEL) {
                state.view.routingVteps[domain].insert(vtep);
                continue;
            }
            const auto found = state.view.routingVteps.find(domain);
            if (found != state.view.routingVteps.end()) {
                found->second.erase(vtep);
                if (found->second.empty()) {
                    state.view.routingVteps.erase(found);
                }
            }
        }
    }
    return faults;
}

void L2Handler::OnMessage(Peer& peer, const RecordedMessage& msg)
{
    if (msg.header.type != MsgType::AppData) {
        peer.ReportViolation("l2: message type " + std::to_string(msg.header.type) + " from the host");
        return;
    }
    if (msg.header.sessionId == FrameHeader::NoSession) {
        peer.ReportViolation("l2: update without a session id");
        return;
    }
    L2UpdateMsg update;
    if (msg.body.empty() || msg.body[0] != UpdateLeadByte) {
        peer.ReportViolation("l2: update without its zero lead byte");
        return;
    }
    if (!update.ParseFromArray(msg.body.data() + 1, static_cast<int>(msg.body.size() - 1))) {
        peer.ReportViolation("l2: update does not parse");
        return;
    }
    const std::vector<std::string> faults = _state.Update([&](HostState& state) {
        // A new session of the host states everything again.
        if (state.connection != msg.connection || state.sessionId != msg.header.sessionId) {
            state.connection = msg.connection;
            state.sessionId = msg.header.sessionId;
            state.view = View();
        }
        std::vector<std::string> found = ApplyHostUpdate(update, state);
        state.updates.push_back(
            HostUpdate{msg.connection, msg.header.sessionId, msg.frameCount, IsFullSync(update), std::move(update)});
        return found;
    });
    for (const std::string& fault : faults) {
        peer.ReportViolation("l2: " + fault);
    }
}

void L2Handler::OnClosed(size_t connection)
{
    // The view stays for inspection until the host's next session.
    _state.Update([connection](HostState& state) {
        if (state.connection == connection) {
            state.connection.reset();
            state.sessionId.reset();
        }
    });
}

}  // namespace CtrlSim
