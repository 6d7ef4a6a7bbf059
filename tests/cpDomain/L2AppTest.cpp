#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CpDomainFixture.h"
#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "CtrlMsgReassembler.h"
#include "CtrlSession.h"
#include "L2App.h"
#include "LogCapture.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheSweep.h"
#include "config_entity_properties.pb.h"

namespace {

using namespace ZUNChannel;
using FenREL::L2App;
using FenREL::NewVirtualNetwork;
using FenREL::RemoteSessionUpdate;
using FenRELTest::Frame;
using FenRELTest::Contains;
using FenRELTest::Message;
namespace l2 = com::corvid::zun::l2;
namespace config = com::corvid::zun::config;
using MappingItem = l2::L2UpdateMappingItemMsg;
using RoutingItem = l2::L2UpdateRoutingVtepItemMsg;

constexpr uint32_t kVni = 5001;

// A VNI entry: a join or leave from the host, a full-sync mark from a controller.
l2::L2UpdateMsg VniEntry(uint32_t vni, uint32_t switchId, MappingItem::Operation op = MappingItem::ADD,
                         l2::L2UpdateMsg msg = {})
{
    l2::L2MappingUpdateMsg* entry = msg.add_mapping_update();
    entry->mutable_vn_instance()->set_vni(vni);
    entry->mutable_vn_instance()->set_transport_switch_id(switchId);
    entry->add_items()->set_op(op);
    return msg;
}

// `msg` with one VM_MAC mapping more; a controller's delta when `msg` is empty.
l2::L2UpdateMsg Macs(uint32_t vni, const std::set<uint64_t>& adds, const std::set<uint64_t>& dels = {},
                     l2::L2UpdateMsg msg = {})
{
    l2::L2MappingUpdateMsg* mapping = msg.add_mapping_update();
    mapping->set_type(l2::L2MappingUpdateMsg::VM_MAC);
    mapping->mutable_vn_instance()->set_vni(vni);
    for (const auto& [macs, op] : {std::make_pair(&adds, MappingItem::ADD), std::make_pair(&dels, MappingItem::DEL)}) {
        for (uint64_t mac : *macs) {
            MappingItem* item = mapping->add_items();
            item->set_op(op);
            item->mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
            item->mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0x0A000000u | static_cast<uint32_t>(mac & 0xFF));
        }
    }
    return msg;
}

// What a controller sends for a VNI: the full-sync mark first, then the MACs.
l2::L2UpdateMsg ControllerFullSync(uint32_t vni, const std::set<uint64_t>& macs)
{
    return macs.empty() ? VniEntry(vni, 999) : Macs(vni, macs, {}, VniEntry(vni, 999));
}

std::set<uint64_t> Range(uint64_t last)
{
    std::set<uint64_t> macs;
    for (uint64_t mac = 1; mac <= last; ++mac) {
        macs.insert(mac);
    }
    return macs;
}

com::corvid::zun::UuidMsg Uuid(uint64_t left, uint64_t right)
{
    com::corvid::zun::UuidMsg id;
    id.set_left(left);
    id.set_right(right);
    return id;
}

l2::L2UpdateVtepMsg Vtep(uint32_t ip)
{
    l2::L2UpdateVtepMsg vtep;
    vtep.mutable_vtep_ip()->set_ipv4(ip);
    return vtep;
}

// An update as a controller frames it: the header, a zero byte and the protobuf.
Frame ControllerFrame(const l2::L2UpdateMsg& update)
{
    return Message(7, APP_ID_L2, 0xFFFFFFFF, '\0' + update.SerializeAsString());
}

// The messages in `frames` (each frame whole), reassembled under `max`.
std::vector<CtrlMsgReassembler::Message> Reassemble(const std::vector<Frame>& frames, uint16_t max)
{
    Frame stream;
    for (const Frame& frame : frames) {
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    CtrlMsgReassembler reassembler;
    std::vector<CtrlMsgReassembler::Message> messages;
    EXPECT_EQ(CtrlMsgReassembler::Status::kNeedMore, reassembler.Feed(stream.data(), stream.size(), max, &messages));
    return messages;
}

// The L2 app with the channel, the state cache and the domain manager around
// it. The physical master session to kServer belongs to a stand-in of
// the session app; what the L2 app sends stays queued on its connection.
class L2AppTest : public FenRELTest::CpDomainFixture {
protected:
    void SetUp() override
    {
        CpDomainFixture::SetUp();
        FenRELTest::SweepStateCache();
        _l2Table = FenREL::StateCache::GetInstance()->GetL2Table();
        _app = new L2App();
        AppManager::Get()->RegisterApp(_app);
        _app->Start();
    }

    void TearDown() override
    {
        FenREL::StateCache::GetInstance()->GetConfigTable()->UnRegisterRemoteCacheObserver(_app.get());
        _app->DeleteAllElems();
        _app.reset();
        CpDomainFixture::TearDown();
        FenRELTest::SweepStateCache();
    }

    static l2::L2UpdateMsg LocalVtep(const l2::L2UpdateVtepMsg& vtep, RoutingItem::Operation op)
    {
        l2::L2UpdateMsg msg;
        RoutingItem* item = msg.add_routing_vtep_update()->add_items();
        item->set_op(op);
        *item->mutable_vtep() = vtep;
        return msg;
    }

    // The data path's report, through the local L2 table as in the agent.
    void Local(const l2::L2UpdateMsg& msg) { _l2Table->AtomicUpdateLocalL2Cache(msg, false); }
    // Straight to the app, as CPDomainManager hands it a local change.
    void Deliver(const l2::L2UpdateMsg& msg) { FenREL::CPDomainManager::Get()->ProcessLocalL2Update(msg); }

    void Receive(const Frame& frame, const std::string& from = kServer)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ConnKey(from, 0));
    }
    void Receive(const l2::L2UpdateMsg& update, const std::string& from = kServer)
    {
        Receive(ControllerFrame(update), from);
    }
    // As fragments of at most `max` bytes, handed over as the channel reassembles them.
    void ReceiveInFragments(const l2::L2UpdateMsg& update, uint16_t max)
    {
        const std::string body = update.SerializeAsString();
        std::vector<Frame> frames;
        for (const CtrlMsgBuffer& frame : CtrlMsgFragmenter::FragmentBody(
                 7, APP_ID_L2, 0, reinterpret_cast<const uint8_t*>(body.data()), body.size(), max)) {
            frames.emplace_back(frame.get(), frame.get() + CtrlMsg::Length(frame.get()));
        }
        const auto messages = Reassemble(frames, max);
        ASSERT_EQ(1u, messages.size());
        _app->HandleMsg(messages[0].buffer.get(), messages[0].size, ConnKey(kServer, 0));
    }

    // The messages sent since the last call, parsed.
    std::vector<l2::L2UpdateMsg> TakeSent()
    {
        std::vector<l2::L2UpdateMsg> updates;
        for (const auto& message : Reassemble(TakeFrames(), 0xFFFF)) {
            EXPECT_EQ(7, CtrlMsg::Type(message.buffer.get()));
            EXPECT_EQ(APP_ID_L2, CtrlMsg::ProtocolId(message.buffer.get()));
            EXPECT_EQ(SessionId(), CtrlMsg::SessionId(message.buffer.get()));
            EXPECT_EQ(0, message.buffer.get()[15]);
            EXPECT_TRUE(updates.emplace_back().ParseFromArray(message.buffer.get() + 16,
                                                              static_cast<int>(message.size - 16)));
        }
        return updates;
    }

    std::set<uint64_t> RemoteMacs(uint32_t vni)
    {
        std::vector<std::string> values;
        std::set<uint64_t> macs;
        _l2Table->QueryL2Values(vni, l2::L2MappingUpdateMsg::VM_MAC, FenREL::L2Side::Remote, values);
        for (const std::string& value : values) {
            l2::L2UpdateVMMacMsg mac;
            EXPECT_TRUE(mac.ParseFromString(value));
            macs.insert(mac.vm_mac().mac());
        }
        return macs;
    }

    static int32_t L2SessionState(uint32_t vni)
    {
        const auto session = RemoteSession(RemoteSessionUpdate::L2_SESSION, vni);
        return session ? session->sessionState : -1;
    }

    // Logical switches' routing domains in one batch, as the controller
    // publishes them; a null domain deletes the property.
    void SetSwitchDomains(const std::vector<std::pair<uint64_t, const com::corvid::zun::UuidMsg*>>& batch)
    {
        std::vector<config::ZunConfigDeltaMsg> deltas;
        for (const auto& [ls, domain] : batch) {
            config::ZunConfigDeltaMsg& delta = deltas.emplace_back();
            delta.set_operation(domain ? config::ZunConfigDeltaMsg::UPDATE_OP : config::ZunConfigDeltaMsg::DELETE_OP);
            *delta.mutable_entity_id() = Uuid(0x15, ls);
            delta.set_entity_type(config::LOG_SWITCH);
            config::EntityPropertyMsg* property = delta.add_property();
            property->set_property_type(config::EntityPropertyMsg::LS_ROUTING_DOMAIN_ID);
            if (domain) {
                *property->mutable_ls_routing_domain_id() = *domain;
            }
        }
        FenREL::StateCache::GetInstance()->GetConfigTable()->AtomicUpdateRemoteCache(deltas, false);
    }

    // The routing VTEP items sent since the last look, one word per item:
    // "<domain's left half>:<op>[@<VTEP in hex>]", messages apart by " | ".
    std::string TakeRouting()
    {
        std::ostringstream text;
        text << std::hex;
        for (const l2::L2UpdateMsg& update : TakeSent()) {
            const char* gap = text.tellp() > 0 ? " | " : "";
            for (const auto& element : update.routing_vtep_update()) {
                for (const RoutingItem& item : element.items()) {
                    text << gap << element.routing_domain_id().left()
                         << (item.op() == RoutingItem::ADD ? ":ADD" : ":DEL");
                    if (item.has_vtep()) {
                        text << '@' << item.vtep().vtep_ip().ipv4();
                    }
                    gap = " ";
                }
            }
        }
        return text.str();
    }

    FenREL::StateCacheL2Table* _l2Table = nullptr;
    boost::intrusive_ptr<L2App> _app;
};

TEST_F(L2AppTest, LocalStateGoesOutOnlyOverTheSessionTheFullSyncInFragments)
{
    Local(Macs(kVni, Range(200), {}, VniEntry(kVni, 7)));
    EXPECT_TRUE(SentFrames(kServer).empty());  // no session: dropped

    CtrlConnPool::Get()->SetMaxPktLen(200);
    SessionUp();
    const std::vector<Frame> frames = SentFrames(kServer);
    ASSERT_GT(frames.size(), 2u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_LE(frames[i].size(), 200u);
        EXPECT_EQ(i + 1 < frames.size(), CtrlMsg::MoreFragments(frames[i].data())) << "frame " << i;
    }
    std::vector<l2::L2UpdateMsg> sent = TakeSent();
    ASSERT_EQ(1u, sent.size());
    l2::L2UpdateMsg expected;
    ASSERT_TRUE(_l2Table->ReadAllLocal(expected));
    EXPECT_EQ(expected.SerializeAsString(), sent[0].SerializeAsString());
    EXPECT_FALSE(sent[0].mapping_update(0).has_type());  // led by the join: a full sync

    // A change goes out as it came; after the session, nothing is queued.
    const l2::L2UpdateMsg delta = Macs(kVni, {0xA2});
    Local(delta);
    sent = TakeSent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(delta.SerializeAsString(), sent[0].SerializeAsString());
    SessionDown();
    TakeSent();
    Local(Macs(kVni, {0xA3}));
    EXPECT_TRUE(SentFrames(kServer).empty());
}

// A VNI's remote state and its entry in the remote session table, from the
// first join over full syncs, a lost session and two switches to the last leave.
TEST_F(L2AppTest, VniFollowsJoinsFullSyncsTheSessionAndLeaves)
{
    Deliver(VniEntry(kVni, 7));
    EXPECT_EQ(RemoteSessionUpdate::STATE_INIT, L2SessionState(kVni));
    Receive(ControllerFullSync(kVni, {1}));  // no session: not taken
    SessionUp();
    Receive(ControllerFullSync(kVni, {1}), "10.0.0.2");  // not the session's connection
    EXPECT_EQ(RemoteSessionUpdate::STATE_INIT, L2SessionState(kVni));
    EXPECT_TRUE(RemoteMacs(kVni).empty());

    Deliver(VniEntry(kVni, 8));
    Deliver(VniEntry(kVni, 8));  // a second join of the same switch is ignored
    ASSERT_EQ(1u, _app->GetVirtualNetworks().size());
    const auto network = _app->FindVirtualNetwork(kVni);
    EXPECT_EQ(2u, network->GetInstances().size());
    Receive(ControllerFullSync(kVni, {1, 2}));
    EXPECT_EQ((std::set<uint64_t>{1, 2}), RemoteMacs(kVni));
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_DONE, network->GetFullSyncState());
    EXPECT_EQ(RemoteSessionUpdate::STATE_UP, L2SessionState(kVni));
    EXPECT_EQ(kServer, RemoteSession(RemoteSessionUpdate::L2_SESSION, kVni)->controllerIp);

    SessionDown();
    EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, L2SessionState(kVni));
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_PENDING, network->GetFullSyncState());
    // A new session leaves the VNI down until the controller's next full sync;
    // a delta before it is applied at once.
    SessionUp();
    Receive(Macs(kVni, {5}));
    EXPECT_EQ((std::set<uint64_t>{1, 2, 5}), RemoteMacs(kVni));
    EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, L2SessionState(kVni));
    Receive(ControllerFullSync(kVni, {1}));
    EXPECT_EQ(RemoteSessionUpdate::STATE_UP, L2SessionState(kVni));

    // One switch leaves: the VNI stays with the other, its remote state goes.
    Deliver(VniEntry(kVni, 7, MappingItem::DEL));
    EXPECT_EQ(-1, L2SessionState(kVni));
    EXPECT_TRUE(RemoteMacs(kVni).empty());
    EXPECT_EQ(network, _app->FindVirtualNetwork(kVni));
    ASSERT_EQ(1u, network->GetInstances().size());
    EXPECT_EQ(8u, network->GetInstances().front().switchId);
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_PENDING, network->GetFullSyncState());
    Deliver(VniEntry(kVni, 8, MappingItem::DEL));
    EXPECT_FALSE(_app->FindVirtualNetwork(kVni));
    Receive(Macs(kVni, {2}));  // in flight across the leave: dropped
    EXPECT_TRUE(RemoteMacs(kVni).empty());
}

class L2AppFullSyncMarkTest : public L2AppTest, public testing::WithParamInterface<bool> {};

TEST_P(L2AppFullSyncMarkTest, OnlyTheFirstMappingMayMarkAFullSync)
{
    const bool markFirst = GetParam();
    SessionUp();
    Local(VniEntry(kVni, 7));  // through the local table, which gives the switch id
    Receive(ControllerFullSync(kVni, {1, 2, 3}));

    l2::L2UpdateMsg msg = VniEntry(kVni, 999, MappingItem::ADD, Macs(kVni, {2, 4}));
    if (markFirst) {
        msg.mutable_mapping_update()->SwapElements(0, 1);
    }
    FenRELTest::LogCapture log;
    Receive(msg);
    const std::string text = log.Text();
    if (markFirst) {
        // A full sync: what it leaves out goes, and the switch id is ours.
        EXPECT_EQ((std::set<uint64_t>{2, 4}), RemoteMacs(kVni));
        FenREL::L2CacheItem item;
        ASSERT_TRUE(_l2Table->QueryRemoteL2ByKey(kVni, l2::L2MappingUpdateMsg::VM_MAC, 4, item));
        EXPECT_EQ(7u, item.switchId);
    } else {
        EXPECT_TRUE(Contains(text, "errorCode=\"LCP00409\"] L2App: Invalid vni entry update message received from "
                                   "controller"))
            << text;
        EXPECT_EQ((std::set<uint64_t>{1, 2, 3}), RemoteMacs(kVni));
    }
}

INSTANTIATE_TEST_SUITE_P(L2App, L2AppFullSyncMarkTest, testing::Bool());

TEST_F(L2AppTest, FragmentedFullSyncFromTheControllerIsAppliedWhole)
{
    SessionUp();
    Deliver(VniEntry(kVni, 7));
    const l2::L2UpdateMsg update = ControllerFullSync(kVni, Range(5000));
    ASSERT_GT(update.ByteSizeLong() + 16, 0xFFFFu);  // its header length cannot tell its size
    ReceiveInFragments(update, 4096);
    EXPECT_EQ(Range(5000), RemoteMacs(kVni));
}

TEST_F(L2AppTest, BrokenUpdateOrNotificationIsOnlyLogged)
{
    SessionUp();
    TakeSent();
    Frame badUpdate = ControllerFrame(l2::L2UpdateMsg());
    badUpdate.insert(badUpdate.end(), {0xFF, 0xFF});
    const Frame shortNotification = Message(8, APP_ID_L2, 0xFFFFFFFF, std::string("\0\1\0\2\0\0\x13", 7));
    for (const auto& [frame, line] : std::vector<std::pair<Frame, std::string>>{
             {badUpdate, "Invalid update message received from 10.0.0.1:0 of length 2"},
             {shortNotification, "Invalid notification message received from 10.0.0.1:0 of length 22"}}) {
        FenRELTest::LogCapture log;
        Receive(frame);
        EXPECT_TRUE(Contains(log.Text(), "errorCode=\"LCP00409\"] L2App: " + line)) << log.Text();
    }
    EXPECT_TRUE(SentFrames().empty());
}

// A routing domain lives while one logical switch names it; its start and
// end are announced with the host's VTEP, the first announcement carrying
// the marker, as every local full sync does.
TEST_F(L2AppTest, RoutingDomainsFollowTheSwitchesAndAnnounceTheHostVtep)
{
    const auto d1 = Uuid(1, 0xD1);
    const auto d2 = Uuid(2, 0xD2);
    const auto d3 = Uuid(3, 0xD3);
    const auto zero = Uuid(0, 0);
    SetSwitchDomains({{1, &d1}, {2, &d2}});  // before the host has a VTEP: nothing to announce
    SessionUp();
    TakeSent();
    Local(LocalVtep(Vtep(0xC000001), RoutingItem::ADD));
    EXPECT_EQ("1:ADD 1:ADD@c000001 2:ADD@c000001", TakeRouting());
    Local(LocalVtep(Vtep(0xC000002), RoutingItem::ADD));
    EXPECT_EQ("1:ADD@c000002 2:ADD@c000002", TakeRouting());

    SetSwitchDomains({{3, &d3}});
    EXPECT_EQ("3:ADD 3:ADD@c000002", TakeRouting());
    SetSwitchDomains({{4, &d3}});
    EXPECT_EQ("", TakeRouting());
    SetSwitchDomains({{3, &d1}});  // switch 3 moves to d1; d3 keeps switch 4
    EXPECT_EQ("", TakeRouting());

    // A routing-domain full sync replaces the domain's VTEPs.
    l2::L2UpdateMsg remote;
    for (uint32_t ip : {0u, 0x0B000001u}) {
        l2::L2RoutingVtepUpdateMsg* element = remote.add_routing_vtep_update();
        *element->mutable_routing_domain_id() = d3;
        RoutingItem* item = element->add_items();
        item->set_op(RoutingItem::ADD);
        if (ip != 0) {
            *item->mutable_vtep() = Vtep(ip);
        }
    }
    Receive(remote);
    *remote.mutable_routing_vtep_update(1)->mutable_items(0)->mutable_vtep() = Vtep(0x0B000002);
    Receive(remote);
    std::vector<l2::L2UpdateVtepMsg> vteps;
    ASSERT_TRUE(_l2Table->QueryRoutingDomainVteps(d3, vteps));
    std::set<uint32_t> ips;
    for (const auto& vtep : vteps) {
        if (vtep.has_vtep_ip()) {
            ips.insert(vtep.vtep_ip().ipv4());
        }
    }
    EXPECT_EQ((std::set<uint32_t>{0x0B000002}), ips);

    // The domain's end takes its VTEPs; what comes for it afterwards is dropped.
    SetSwitchDomains({{4, nullptr}});
    EXPECT_EQ("3:DEL 3:DEL@c000002", TakeRouting());
    EXPECT_EQ(0u, _app->GetRoutingDomains().count(d3.SerializeAsString()));
    Receive(remote);
    std::vector<com::corvid::zun::UuidMsg> domains;
    _l2Table->ListRoutingDomains(domains);
    EXPECT_TRUE(domains.empty());

    // A switch without a domain ends the batch: switch 6 is not attached.
    SetSwitchDomains({{5, &zero}, {6, &d3}});
    EXPECT_EQ(2u, _app->GetRoutingDomains().size());

    SessionDown();
    TakeSent();
    SessionUp();
    EXPECT_EQ("1:ADD 1:ADD@c000002 2:ADD 2:ADD@c000002", TakeRouting());
}

TEST_F(L2AppTest, LocalVtepWithoutAddressIsFatal)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto d1 = Uuid(1, 0xD1);
    SetSwitchDomains({{1, &d1}});
    l2::L2UpdateMsg msg;
    msg.add_routing_vtep_update()->add_items()->set_op(RoutingItem::ADD);
    EXPECT_DEATH(Deliver(msg), "ASSERT");
}

}  // namespace
