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
using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

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

// The controller's view of a host: a full sync restates the VNIs it names,
// joins and deltas change them, and a DEL of what the view lacks is the host's fault.
TEST(L2HandlerTest, FullSyncRestatesTheVnisItNamesAndDeltasChangeThem)
{
    L2Handler::HostState state;
    l2::L2UpdateMsg fullSync = L2Handler::FullSyncOf(5001, {kVm1});
    fullSync.MergeFrom(L2Handler::FullSyncOf(5002, {kVm2}));
    EXPECT_TRUE(L2Handler::IsFullSync(fullSync));
    EXPECT_TRUE(L2Handler::ApplyHostUpdate(fullSync, state).empty());
    EXPECT_EQ(1u, state.fullSyncs);
    EXPECT_EQ(kVm1.vtep, state.view.vnis[5001].macs.at(kVm1.mac));
    EXPECT_EQ(kVm1.mac, state.view.vnis[5001].ips.at(kVm1.ip));

    // A second switch's join restates 5001 with no VM; 5002 stands.
    EXPECT_TRUE(L2Handler::ApplyHostUpdate(Entry(8, 5001, true), state).empty());
    EXPECT_EQ((std::set<uint32_t>{0, 8}), state.view.vnis[5001].switches);
    EXPECT_TRUE(state.view.vnis[5001].macs.empty());
    EXPECT_EQ(1u, state.view.vnis[5002].macs.size());

    EXPECT_TRUE(L2Handler::ApplyHostUpdate(L2Handler::DeltaOf(5002, {kVm1}, {kVm2}), state).empty());
    EXPECT_EQ(1u, state.view.vnis[5002].macs.count(kVm1.mac));
    const std::vector<std::string> faults = L2Handler::ApplyHostUpdate(L2Handler::DeltaOf(5002, {}, {kVm2}), state);
    ASSERT_EQ(3u, faults.size());
    EXPECT_EQ("DEL of unknown MAC 00:50:56:00:00:02 in VNI 5002", faults[0]);

    // The last switch's leave ends the VNI.
    EXPECT_TRUE(L2Handler::ApplyHostUpdate(Entry(0, 5002, false), state).empty());
    EXPECT_EQ(0u, state.view.vnis.count(5002));
    EXPECT_EQ((Pairs{{0, 5001}, {0, 5002}, {8, 5001}}), state.joins);
    EXPECT_EQ((Pairs{{0, 5002}}), state.leaves);
}

}  // namespace
}  // namespace CtrlSim
