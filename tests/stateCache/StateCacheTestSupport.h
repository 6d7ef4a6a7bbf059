#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
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

// The number of lines the capture holds that contain `text`.
int Count(LogCapture& log, const std::string& text);

// For a death test's statement: the log goes to standard error, where the
// death test looks, from `level` on.
void LogToStderr(int level);

// Items of each type, made from small numbers.
L2UpdateMappingItemMsg MacItem(uint64_t mac, uint32_t vtepIp = 0x0a000001, L2UpdateMappingItemMsg::Operation op = ADD);
L2UpdateMappingItemMsg IpItem(uint32_t ip, uint64_t mac, L2UpdateMappingItemMsg::Operation op = ADD);
L2UpdateMappingItemMsg VtepItem(uint32_t ip, L2UpdateMappingItemMsg::Operation op = ADD);
L2UpdateMappingItemMsg VtepChangeItem(uint32_t oldIp, uint32_t newIp, L2UpdateMappingItemMsg::Operation op = ADD);
UuidMsg Uuid(uint64_t left, uint64_t right);
L2UpdateVtepMsg Vtep(uint32_t ip);

// Builds an L2UpdateMsg mapping by mapping.
class L2Msg {
public:
    // The VNI entry: a mapping without type and one item.
    L2Msg& Entry(uint32_t vni, L2UpdateMappingItemMsg::Operation op = ADD, uint32_t switchId = 7);
    L2Msg& Mapping(uint32_t vni, uint32_t type, std::vector<L2UpdateMappingItemMsg> items, uint32_t switchId = 7);
    // A routing domain's VTEPs; ip 0 stands for an item without VTEP.
    L2Msg& Routing(const UuidMsg* domain, std::vector<std::pair<uint32_t, bool>> ipAndAdd);
    operator const L2UpdateMsg&() const { return _msg; }
    const L2UpdateMsg& Msg() const { return _msg; }

private:
    L2UpdateMsg _msg;
};

// What a delta says, item by item, so that two deltas or a delta and a
// cache can be compared: (vni, type, op, serialised value) for mappings,
// (domain, 10, op, serialised VTEP) for routing domains.
using L2Change = std::tuple<std::string, uint32_t, int, std::string>;
std::vector<L2Change> Changes(const L2UpdateMsg& msg);
std::string VniKey(uint32_t vni);

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
