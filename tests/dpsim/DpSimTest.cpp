#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "DataPathView.h"
#include "DpFrame.h"
#include "L2WireCounter.h"
#include "LocalState.h"

namespace DpSim {
namespace {

namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
using com::corvid::zun::lcp::CcpSessionStateMsg;
using com::corvid::zun::lcp::LcpDpMsg;

com::corvid::zun::UuidMsg Uuid(uint64_t id)
{
    com::corvid::zun::UuidMsg uuid;
    uuid.set_left(id);
    uuid.set_right(id);
    return uuid;
}

// A logical switch's update or removal; with `vni`, of its LS_VNI property only.
config::ZunConfigDeltaMsg Delta(uint64_t id, bool remove, std::optional<uint32_t> vni = std::nullopt)
{
    config::ZunConfigDeltaMsg delta;
    delta.set_operation(remove ? config::ZunConfigDeltaMsg::DELETE_OP : config::ZunConfigDeltaMsg::UPDATE_OP);
    *delta.mutable_entity_id() = Uuid(id);
    delta.set_entity_type(config::LOG_SWITCH);
    if (vni) {
        config::EntityPropertyMsg* property = delta.add_property();
        property->set_property_type(config::EntityPropertyMsg::LS_VNI);
        property->mutable_ls_vni()->set_vni(*vni);
    }
    return delta;
}

l2::L2UpdateMappingItemMsg Vtep(uint32_t ip)
{
    l2::L2UpdateMappingItemMsg item;
    item.mutable_vtep()->mutable_vtep_ip()->set_ipv4(ip);
    return item;
}

TEST(DpFrameReaderTest, SameFramesWhateverTheSplitAndAStopAtALengthBelowSix)
{
    Bytes stream = DpFrame::Encode(1, "first");
    const Bytes second = DpFrame::Encode(4, "", 0x80);
    stream.insert(stream.end(), second.begin(), second.end());
    for (size_t chunk : {stream.size(), size_t{1}, size_t{4}}) {
        SCOPED_TRACE("chunks of " + std::to_string(chunk));
        DpFrameReader reader;
        std::vector<DpFrame> frames;
        for (size_t at = 0; at < stream.size(); at += chunk) {
            reader.Feed(stream.data() + at, std::min(chunk, stream.size() - at));
            while (auto frame = reader.Next()) {
                frames.push_back(*frame);
            }
        }
        ASSERT_EQ(2u, frames.size());
        EXPECT_EQ("first", std::string(frames[0].body.begin(), frames[0].body.end()));
        EXPECT_EQ(11u, frames[0].length);
        EXPECT_EQ(4, frames[1].type);
        EXPECT_EQ(0x80, frames[1].flags);
        EXPECT_TRUE(frames[1].body.empty());
    }

    DpFrameReader reader;
    const Bytes bad = {0, 1, 0, 0, 0, 5};
    reader.Feed(bad.data(), bad.size());
    const Bytes good = DpFrame::Encode(1, "after");
    reader.Feed(good.data(), good.size());
    EXPECT_FALSE(reader.Next());
    EXPECT_EQ("length 5 below the header's 6 bytes", reader.Fault());
}

// A full sync replaces the view, sessions included; a delta changes it.
TEST(DataPathViewTest, FullSyncReplacesAndDeltasApply)
{
    DataPathView view;
    LcpDpMsg msg;
    *msg.add_remote_config_update() = Delta(1, false, 5001);
    *msg.add_remote_config_update() = Delta(2, false);
    CcpSessionStateMsg* session = msg.add_session_state();
    session->set_session_type(CcpSessionStateMsg::L2_SESSION);
    session->set_vni(5001);
    view.Apply(msg, true);
    EXPECT_EQ(2u, view.Config().EntityCount());

    *msg.mutable_remote_config_update(0) = Delta(1, true, 0);  // the property goes
    *msg.mutable_remote_config_update(1) = Delta(2, true);     // the entity goes
    session->set_session_state(CcpSessionStateMsg::SESSION_LINKUP);
    view.Apply(msg, false);
    EXPECT_TRUE(view.Config().HasEntity(Uuid(1)));
    EXPECT_FALSE(view.Config().GetProperty(Uuid(1), config::EntityPropertyMsg::LS_VNI));
    EXPECT_FALSE(view.Config().HasEntity(Uuid(2)));
    EXPECT_EQ(CcpSessionStateMsg::SESSION_LINKUP, view.Session(CcpSessionStateMsg::L2_SESSION, 5001)->session_state());

    LcpDpMsg second;
    *second.add_remote_config_update() = Delta(3, false);
    view.Apply(second, true);
    EXPECT_EQ(1u, view.Config().EntityCount());
    EXPECT_TRUE(view.Sessions().empty());
    EXPECT_EQ(2u, view.FullSyncs());
    EXPECT_EQ(1u, view.Deltas());
}

// What the simulated data path says of its own changes: a first item joins
// its VNI in the same message, a new VIF is created before its states, and
// the view built from those messages follows.
TEST(LocalStateTest, ChangesComeAsTheAgentExpectsThemAndTheViewFollows)
{
    const auto vtep = l2::L2MappingUpdateMsg::VTEP;
    LocalState local;
    LcpDpMsg msg;
    L2View view;
    ASSERT_EQ("", local.AddL2(5001, vtep, Vtep(1), msg));
    ASSERT_EQ(2, msg.l2_update().mapping_update_size());
    EXPECT_FALSE(msg.l2_update().mapping_update(0).has_type());
    view.Apply(msg.l2_update());
    ASSERT_EQ("", local.AddL2(5001, vtep, Vtep(2), msg));
    EXPECT_EQ(1, msg.l2_update().mapping_update_size());
    view.Apply(msg.l2_update());
    EXPECT_NE("", local.DeleteL2(5001, vtep, Vtep(3), msg));
    ASSERT_EQ("", local.DeleteL2(5001, vtep, Vtep(1), msg));
    view.Apply(msg.l2_update());
    EXPECT_FALSE(view.HasItem(5001, vtep, Vtep(1)));
    L2View rebuilt;  // the whole picture rebuilds the same view
    rebuilt.Apply(view.ToFullMessage());
    EXPECT_EQ(view.Describe(), rebuilt.Describe());
    ASSERT_EQ("", local.LeaveVni(5001, msg));
    view.Apply(msg.l2_update());
    EXPECT_FALSE(view.HasVni(5001));

    const LcpDpMsg created = local.SetVif("vif-1", LocalState::Vif{{1}, {2}});
    ASSERT_EQ(2, created.local_config_update_size());
    EXPECT_EQ(0, created.local_config_update(0).state_size());
    EXPECT_EQ(2, created.local_config_update(1).state_size());
    EXPECT_EQ(1, local.SetVif("vif-1", LocalState::Vif{{3}, {}}).local_config_update_size());
    const auto removal = local.RemoveVif("vif-1");
    ASSERT_TRUE(removal);
    ASSERT_EQ(1, removal->local_config_update_size());
    EXPECT_EQ(config::ZunStateDeltaMsg::DELETE_OP, removal->local_config_update(0).operation());
    EXPECT_FALSE(local.RemoveVif("vif-1"));

    local.SetVif("vif-4", LocalState::Vif{{4}, {}});
    const LcpDpMsg full = local.FullSyncMessage();
    EXPECT_TRUE(full.atomic_update_end());
    ASSERT_EQ(2, full.local_config_update_size());
    EXPECT_EQ(4u, full.local_config_update(1).state(0).vif_ips(0).ipv4());
}

TEST(L2ViewTest, DescribeListsTheFirstItemsOfEachTypeReadably)
{
    L2View view;
    l2::L2UpdateMsg msg;
    l2::L2MappingUpdateMsg* macs = msg.add_mapping_update();
    macs->set_type(l2::L2MappingUpdateMsg::VM_MAC);
    macs->mutable_vn_instance()->set_vni(5001);
    for (uint64_t i = 0; i < 10; ++i) {
        macs->add_items()->mutable_vm_mac()->mutable_vm_mac()->set_mac(0x005056AA0000 + i);
        macs->mutable_items(i)->mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0xC0A80002);
    }
    view.Apply(msg);
    const std::string text = view.Describe();
    EXPECT_NE(std::string::npos, text.find("vni 5001 switch 0 type2=10\n")) << text;
    EXPECT_NE(std::string::npos, text.find("  VM_MAC 00:50:56:aa:00:00 at 192.168.0.2\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("00:50:56:aa:00:08")) << text;
    EXPECT_NE(std::string::npos, text.find("  ... 2 more\n")) << text;
}

// Counting from the bytes gives the view that counting the parsed message
// gives, and leaves to the parser what it is not made for.
TEST(L2WireCounterTest, CountsAsTheParsedMessageCountsAndRefusesTheRest)
{
    LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    msg.add_session_state()->set_vni(5001);
    l2::L2UpdateMsg& update = *msg.mutable_l2_update();
    auto mapping = [&](uint32_t vni, std::optional<int> type, std::vector<int> ops) {
        l2::L2MappingUpdateMsg* added = update.add_mapping_update();
        added->mutable_vn_instance()->set_vni(vni);
        added->mutable_vn_instance()->set_transport_switch_id(vni + 1);
        if (type) {
            added->set_type(static_cast<l2::L2MappingUpdateMsg::Type>(*type));
        }
        for (size_t i = 0; i < ops.size(); ++i) {
            l2::L2UpdateMappingItemMsg* item = added->add_items();
            if (ops[i] != 0) {  // 0: no operation, which reads as ADD
                item->set_op(static_cast<l2::L2UpdateMappingItemMsg::Operation>(ops[i]));
            }
            item->mutable_vm_mac()->mutable_vm_mac()->set_mac(i);
        }
    };
    mapping(5001, std::nullopt, {1});                 // join
    mapping(5001, l2::L2MappingUpdateMsg::VM_MAC, {1, 0, 1, 2});
    mapping(5002, l2::L2MappingUpdateMsg::VTEP, {1});  // no join first
    mapping(5003, std::nullopt, {1});
    mapping(5003, std::nullopt, {2, 1});              // leave
    mapping(5004, l2::L2MappingUpdateMsg::VM_IP, {2});
    // Unknown numbers of type and op, which the parser sets aside.
    l2::L2MappingUpdateMsg* unknown = update.add_mapping_update();
    unknown->mutable_vn_instance()->set_vni(5005);
    unknown->mutable_unknown_fields()->AddVarint(1, 9);
    unknown->add_items()->mutable_unknown_fields()->AddVarint(1, 7);
    std::string bytes = msg.SerializeAsString();

    L2WireCounter counter;
    ASSERT_TRUE(counter.Read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    EXPECT_TRUE(counter.HasL2());
    LcpDpMsg rest;
    ASSERT_TRUE(rest.ParseFromString(counter.Rest()));
    EXPECT_FALSE(rest.has_l2_update());
    EXPECT_TRUE(rest.atomic_update_end());
    EXPECT_EQ(1, rest.session_state_size());
    DataPathView fromBytes;
    fromBytes.SetL2CountOnly(true);
    fromBytes.Apply(rest, false, counter.Mappings());
    DataPathView parsed;
    parsed.SetL2CountOnly(true);
    parsed.Apply(msg, false);
    EXPECT_EQ(parsed.Describe(), fromBytes.Describe());
    EXPECT_EQ(2u, fromBytes.L2().ItemCount(5001, l2::L2MappingUpdateMsg::VM_MAC));
    EXPECT_FALSE(fromBytes.L2().HasVni(5003));
    EXPECT_TRUE(fromBytes.L2().HasVni(5005));  // no type: a join

    update.add_routing_vtep_update()->add_items()->set_op(l2::L2UpdateRoutingVtepItemMsg::ADD);
    bytes = msg.SerializeAsString();
    EXPECT_FALSE(counter.Read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    update.clear_routing_vtep_update();
    bytes = msg.SerializeAsString();
    EXPECT_FALSE(counter.Read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size() - 1));
}

}  // namespace
}  // namespace DpSim
