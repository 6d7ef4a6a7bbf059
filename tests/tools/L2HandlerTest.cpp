#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "L2Handler.h"

namespace CtrlSim {
namespace {

namespace l2 = com::corvid::zun::l2;
using Vm = L2Handler::Vm;

const Vm kVm1{0x005056000001ull, 0x0A010001, 0xC0A80002};
const Vm kVm2{0x005056000002ull, 0x0A010002, 0xC0A80003};

// A host's VNI entry: a join (ADD) or a leave.
l2::L2UpdateMsg Entry(uint32_t switchId, uint32_t vni, bool join)
{
    l2::L2UpdateMsg msg;
    auto* entry = msg.add_mapping_update();
    entry->mutable_vn_instance()->set_vni(vni);
    entry->mutable_vn_instance()->set_transport_switch_id(switchId);
    entry->add_items()->set_op(join ? l2::L2UpdateMappingItemMsg::ADD : l2::L2UpdateMappingItemMsg::DEL);
    return msg;
}

std::vector<std::string> Apply(L2Handler::HostState& state, const l2::L2UpdateMsg& msg)
{
    return L2Handler::ApplyHostUpdate(msg, state);
}

TEST(L2HandlerTest, FullSyncRestatesTheVnisItNamesAndDeltasChangeThem)
{
    L2Handler::HostState state;
    // The host's full sync has the shape of a controller's: entries, then VMs.
    l2::L2UpdateMsg fullSync = L2Handler::FullSyncOf(5001, {kVm1});
    fullSync.MergeFrom(L2Handler::FullSyncOf(5002, {kVm2}));
    EXPECT_TRUE(L2Handler::IsFullSync(fullSync));
    EXPECT_TRUE(Apply(state, fullSync).empty());
    EXPECT_EQ(1u, state.fullSyncs);
    ASSERT_EQ(2u, state.view.vnis.size());
    EXPECT_EQ(kVm1.vtep, state.view.vnis[5001].macs.at(kVm1.mac));
    EXPECT_EQ(kVm1.mac, state.view.vnis[5001].ips.at(kVm1.ip));

    // A join of a second switch restates 5001 with no VM; 5002 stands.
    EXPECT_TRUE(Apply(state, Entry(8, 5001, true)).empty());
    EXPECT_EQ((std::set<uint32_t>{0, 8}), state.view.vnis[5001].switches);
    EXPECT_TRUE(state.view.vnis[5001].macs.empty());
    EXPECT_EQ(1u, state.view.vnis[5002].macs.size());

    // Deltas: a DEL of what the view lacks is the host's fault.
    EXPECT_TRUE(Apply(state, L2Handler::DeltaOf(5002, {kVm1}, {kVm2})).empty());
    EXPECT_EQ(1u, state.view.vnis[5002].macs.count(kVm1.mac));
    const std::vector<std::string> faults = Apply(state, L2Handler::DeltaOf(5002, {}, {kVm2}));
    ASSERT_EQ(3u, faults.size());
    EXPECT_EQ("DEL of unknown MAC 00:50:56:00:00:02 in VNI 5002", faults[0]);

    // The last switch's leave ends the VNI.
    EXPECT_TRUE(Apply(state, Entry(0, 5002, false)).empty());
    EXPECT_EQ(0u, state.view.vnis.count(5002));
    EXPECT_EQ((std::vector<std::pair<uint32_t, uint32_t>>{{0, 5001}, {0, 5002}, {8, 5001}}), state.joins);
    EXPECT_EQ((std::vector<std::pair<uint32_t, uint32_t>>{{0, 5002}}), state.leaves);
}

TEST(L2HandlerTest, RoutingVtepsRestartAtTheMarkerAndGoWithTheirDels)
{
    L2Handler::HostState state;
    l2::L2UpdateMsg msg;
    auto* marker = msg.add_routing_vtep_update();
    marker->mutable_routing_domain_id()->set_left(1);
    marker->add_items()->set_op(l2::L2UpdateRoutingVtepItemMsg::ADD);
    auto* vtep = msg.add_routing_vtep_update();
    *vtep->mutable_routing_domain_id() = marker->routing_domain_id();
    auto* item = vtep->add_items();
    item->set_op(l2::L2UpdateRoutingVtepItemMsg::ADD);
    item->mutable_vtep()->mutable_vtep_ip()->set_ipv4(kVm1.vtep);
    EXPECT_TRUE(L2Handler::IsFullSync(msg));
    Apply(state, msg);
    const std::string domain = "00000000-0000-0001-0000-000000000000";
    EXPECT_EQ(std::set<uint32_t>{kVm1.vtep}, state.view.routingVteps.at(domain));
    EXPECT_NE(std::string::npos, state.ToString().find("routing domain " + domain + " vteps 192.168.0.2"));

    marker->mutable_items(0)->set_op(l2::L2UpdateRoutingVtepItemMsg::DEL);
    item->set_op(l2::L2UpdateRoutingVtepItemMsg::DEL);
    Apply(state, msg);
    EXPECT_TRUE(state.view.routingVteps.empty());
}

TEST(L2HandlerTest, AddressTexts)
{
    EXPECT_EQ("00:50:56:00:00:01", L2Handler::MacText(kVm1.mac));
    EXPECT_EQ(kVm1.mac, L2Handler::ParseMac("00:50:56:00:00:01"));
    EXPECT_FALSE(L2Handler::ParseMac("00:50:56:00:00"));
    EXPECT_FALSE(L2Handler::ParseMac("00:50:56:00:00:01x"));
    EXPECT_EQ("10.1.0.1", L2Handler::IpText(kVm1.ip));
    EXPECT_EQ(kVm1.ip, L2Handler::ParseIp("10.1.0.1"));
    EXPECT_FALSE(L2Handler::ParseIp("10.1.0"));
}

}  // namespace
}  // namespace CtrlSim
