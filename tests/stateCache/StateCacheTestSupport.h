#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "LogLevel.h"
#include "SCConfigTableObserver.h"
#include "SCL2TableObserver.h"
#include "ccp_lcp_l2.pb.h"

namespace FenRELTest {

using com::corvid::zun::UuidMsg;
using com::corvid::zun::l2::L2MappingUpdateMsg;
using com::corvid::zun::l2::L2UpdateMappingItemMsg;
using com::corvid::zun::l2::L2UpdateMsg;
using com::corvid::zun::l2::L2UpdateVtepMsg;

constexpr auto ADD = L2UpdateMappingItemMsg::ADD;
constexpr auto DEL = L2UpdateMappingItemMsg::DEL;
constexpr uint32_t VNI_ENTRY = 0;
constexpr uint32_t VM_IP = L2MappingUpdateMsg::VM_IP;
constexpr uint32_t VM_MAC = L2MappingUpdateMsg::VM_MAC;
constexpr uint32_t VTEP = L2MappingUpdateMsg::VTEP;
constexpr uint32_t VTEP_CHANGE = L2MappingUpdateMsg::VTEP_CHANGE;
constexpr uint32_t ROUTING = 10;  // the type a routing domain's VTEP has in an L2Change

// The number of lines the capture holds that contain `text`.
inline int Count(LogCapture& log, const std::string& text)
{
    std::istringstream lines(log.Text());
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

// For a death test's statement: the log goes to standard error, where the
// death test looks, from `level` on.
inline void LogToStderr(int level)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    FenREL::g_logLevel.store(level);
    FenREL::g_logToConsole.store(true);
}

inline UuidMsg Uuid(uint64_t left, uint64_t right)
{
    UuidMsg id;
    id.set_left(left);
    id.set_right(right);
    return id;
}

inline L2UpdateVtepMsg Vtep(uint32_t ip)
{
    L2UpdateVtepMsg vtep;
    vtep.mutable_vtep_ip()->set_ipv4(ip);
    vtep.mutable_vtep_mac()->set_mac(0x020000000000ull | ip);
    return vtep;
}

// Items of each type, made from small numbers.
inline L2UpdateMappingItemMsg MacItem(uint64_t mac, uint32_t vtepIp = 0x0a000001, L2UpdateMappingItemMsg::Operation op = ADD)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
    item.mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(vtepIp);
    return item;
}

inline L2UpdateMappingItemMsg IpItem(uint32_t ip, uint64_t mac, L2UpdateMappingItemMsg::Operation op = ADD)
{
    L2UpdateMappingItemMsg item;
    item.set_op(op);
    item.mutable_vm_ip()->mutable_vm_ip()->set_ipv4(ip);
    item.mutable_vm_ip()->mutable_vm_mac()->set_mac(mac);
    return item;
}

inline L2UpdateMappingItemMsg VtepItem(uint32_t ip)
{
    L2UpdateMappingItemMsg item;
    item.set_op(ADD);
    item.mutable_vtep()->CopyFrom(Vtep(ip));
    return item;
}

// The field of an item that carries a value of `type`.
inline const google::protobuf::FieldDescriptor* ValueField(uint32_t type)
{
    return L2UpdateMappingItemMsg::descriptor()->FindFieldByNumber(10 + static_cast<int>(type));
}

// The serialised value of an item of `type` (none for the VNI entry), as the cache keeps it.
inline std::string ValueOf(const L2UpdateMappingItemMsg& item, uint32_t type)
{
    return type == VNI_ENTRY ? std::string() : item.GetReflection()->GetMessage(item, ValueField(type)).SerializeAsString();
}

inline std::string Mac(uint64_t mac)
{
    return ValueOf(MacItem(mac), VM_MAC);
}

// Builds an L2UpdateMsg mapping by mapping.
class L2Msg {
public:
    // The VNI entry: a mapping without type and one item.
    L2Msg& Entry(uint32_t vni, L2UpdateMappingItemMsg::Operation op = ADD) { return Mapping(vni, VNI_ENTRY, {}, op); }
    L2Msg& Mapping(uint32_t vni, uint32_t type, std::vector<L2UpdateMappingItemMsg> items,
                   L2UpdateMappingItemMsg::Operation entryOp = ADD)
    {
        L2MappingUpdateMsg* mapping = _msg.add_mapping_update();
        if (type == VNI_ENTRY) {
            mapping->add_items()->set_op(entryOp);
        } else {
            mapping->set_type(static_cast<L2MappingUpdateMsg::Type>(type));
        }
        mapping->mutable_vn_instance()->set_vni(vni);
        mapping->mutable_vn_instance()->set_transport_switch_id(7);
        for (L2UpdateMappingItemMsg& item : items) {
            mapping->add_items()->Swap(&item);
        }
        return *this;
    }
    // A routing domain's VTEPs; ip 0 stands for an item without VTEP.
    L2Msg& Routing(const UuidMsg* domain, std::vector<std::pair<uint32_t, bool>> ipAndAdd)
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
    operator const L2UpdateMsg&() const { return _msg; }

private:
    L2UpdateMsg _msg;
};

inline std::string VniKey(uint32_t vni)
{
    return "vni " + std::to_string(vni);
}

// What a delta says, item by item, so that two deltas or a delta and a
// cache can be compared: (vni, type, op, serialised value) for mappings,
// (domain, ROUTING, op, serialised VTEP) for routing domains.
using L2Change = std::tuple<std::string, uint32_t, int, std::string>;

inline std::vector<L2Change> Changes(const L2UpdateMsg& msg)
{
    std::vector<L2Change> changes;
    for (const L2MappingUpdateMsg& mapping : msg.mapping_update()) {
        const uint32_t type = mapping.has_type() ? static_cast<uint32_t>(mapping.type()) : VNI_ENTRY;
        for (const L2UpdateMappingItemMsg& item : mapping.items()) {
            changes.emplace_back(VniKey(mapping.vn_instance().vni()), type, item.op(), ValueOf(item, type));
        }
    }
    for (const auto& update : msg.routing_vtep_update()) {
        for (const auto& item : update.items()) {
            changes.emplace_back(update.routing_domain_id().SerializeAsString(), ROUTING, item.op(),
                                 item.vtep().SerializeAsString());
        }
    }
    return changes;
}

// An observer of both L2 sides that keeps what it was told.
class L2Recorder : public FenREL::SCL2TableObserver {
public:
    void ProcessRemoteL2Update(const L2UpdateMsg& delta) override { remote.push_back(delta); }
    void ProcessLocalL2Update(const L2UpdateMsg& delta) override { local.push_back(delta); }

    std::vector<L2UpdateMsg> remote;
    std::vector<L2UpdateMsg> local;
};

// An observer of both config sides that keeps what it was told.
class ConfigRecorder : public FenREL::SCConfigTableObserver {
public:
    void ProcessRemotePropertyUpdate(const FenREL::RemotePropertyUpdateList& updates) override
    {
        remote.push_back(updates);
    }
    void ProcessLocalStateUpdate(const FenREL::LocalStateUpdateList& updates) override { local.push_back(updates); }

    std::vector<FenREL::RemotePropertyUpdateList> remote;
    std::vector<FenREL::LocalStateUpdateList> local;
};

// A clock a test moves by hand.
class FakeClock {
public:
    std::chrono::steady_clock::time_point Now() const { return _now; }
    void Advance(std::chrono::microseconds by) { _now += by; }

private:
    std::chrono::steady_clock::time_point _now{std::chrono::hours(1000)};
};

}  // namespace FenRELTest
