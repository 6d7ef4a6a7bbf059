#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <set>
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
#include "RemoteSessionUpdate.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"
#include "TlvCommon.h"
#include "config_entity_properties.pb.h"

namespace {

using namespace ZUNChannel;
using FenREL::L2App;
using FenREL::NewVirtualNetwork;
using FenREL::RemoteSessionUpdate;
using FenRELTest::Frame;
namespace l2 = com::corvid::zun::l2;
namespace config = com::corvid::zun::config;
using MappingItem = l2::L2UpdateMappingItemMsg;
using RoutingItem = l2::L2UpdateRoutingVtepItemMsg;

constexpr uint32_t kVni = 5001;
const std::string kController = "10.0.0.1";
const std::string kOther = "10.0.0.2";

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The session app's part: it owns the physical master session.
class SessionOwner : public ExtendedApp {
public:
    SessionOwner() : ExtendedApp(APP_ID_SESSION, 0, "Session") {}
    void HandleEvent(const boost::intrusive_ptr<Event>&) override {}
    void HandleMsg(const uint8_t*, uint32_t, const ConnKey&) override {}
};

MappingItem MacItem(uint64_t mac, MappingItem::Operation op = MappingItem::ADD)
{
    MappingItem item;
    item.set_op(op);
    item.mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
    item.mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0x0A000000u | static_cast<uint32_t>(mac & 0xFF));
    return item;
}

l2::L2MappingUpdateMsg* AddVniEntry(l2::L2UpdateMsg& msg, uint32_t vni, uint32_t switchId,
                                    MappingItem::Operation op = MappingItem::ADD)
{
    l2::L2MappingUpdateMsg* entry = msg.add_mapping_update();
    entry->mutable_vn_instance()->set_vni(vni);
    entry->mutable_vn_instance()->set_transport_switch_id(switchId);
    entry->add_items()->set_op(op);
    return entry;
}

l2::L2MappingUpdateMsg* AddMacs(l2::L2UpdateMsg& msg, uint32_t vni, const std::set<uint64_t>& adds,
                                const std::set<uint64_t>& dels = {})
{
    l2::L2MappingUpdateMsg* mapping = msg.add_mapping_update();
    mapping->set_type(l2::L2MappingUpdateMsg::VM_MAC);
    mapping->mutable_vn_instance()->set_vni(vni);
    for (uint64_t mac : adds) {
        *mapping->add_items() = MacItem(mac);
    }
    for (uint64_t mac : dels) {
        *mapping->add_items() = MacItem(mac, MappingItem::DEL);
    }
    return mapping;
}

// What a controller sends for a VNI: the full-sync mark first, then the MACs.
l2::L2UpdateMsg ControllerFullSync(uint32_t vni, const std::set<uint64_t>& macs)
{
    l2::L2UpdateMsg msg;
    AddVniEntry(msg, vni, 999);
    if (!macs.empty()) {
        AddMacs(msg, vni, macs);
    }
    return msg;
}

l2::L2UpdateMsg ControllerDelta(uint32_t vni, const std::set<uint64_t>& adds, const std::set<uint64_t>& dels = {})
{
    l2::L2UpdateMsg msg;
    AddMacs(msg, vni, adds, dels);
    return msg;
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

// A message of `type` to the L2 app as a controller frames it: the header, a
// zero byte and the protobuf.
Frame ControllerFrame(const l2::L2UpdateMsg& update, uint16_t type = 7)
{
    const std::string body = update.SerializeAsString();
    Frame frame(16 + body.size(), 0);
    CtrlMsg::WriteHeader(frame.data(), 0, 0xFFFFFFFF, type, static_cast<uint16_t>(frame.size()), APP_ID_L2);
    memcpy(frame.data() + 16, body.data(), body.size());
    return frame;
}

// The L2 app with the channel, the state cache and the domain manager around
// it. The physical master session to kController belongs to a stand-in of
// the session app; what the L2 app sends stays queued on its connection.
class L2AppTest : public FenRELTest::CpDomainFixture {
protected:
    void SetUp() override
    {
        CpDomainFixture::SetUp();
        ClearStateCache();
        FenREL::StateCache* cache = FenREL::StateCache::GetInstance();
        _l2Table = cache->GetL2Table();
        _sessions = cache->GetRemoteSessionTable();
        _app = new L2App();
        AppManager::Get()->RegisterApp(_app);
        _app->Start();
    }

    void TearDown() override
    {
        FenREL::StateCache::GetInstance()->GetConfigTable()->UnRegisterRemoteCacheObserver(_app.get());
        if (_session) {
            _session->RemoveUser();
            _session.reset();
        }
        _app->DeleteAllElems();
        _app.reset();
        CpDomainFixture::TearDown();
        // The cache outlives the test: leave it empty for the next one.
        ClearStateCache();
    }

    static void ClearStateCache()
    {
        FenREL::StateCache* cache = FenREL::StateCache::GetInstance();
        FenREL::StateCacheL2Table* table = cache->GetL2Table();
        l2::L2UpdateVtepMsg vtep;
        if (table->GetDRVtep(vtep)) {
            table->AtomicUpdateLocalL2Cache(LocalVtep(vtep, RoutingItem::DEL), false);
        }
        std::vector<uint32_t> vnis;
        table->ListVnis(FenREL::L2Side::Local, vnis);
        for (uint32_t vni : vnis) {
            l2::L2UpdateMsg leave;
            AddVniEntry(leave, vni, 0, MappingItem::DEL);
            table->AtomicUpdateLocalL2Cache(leave, false);
        }
        vnis.clear();
        table->ListVnis(FenREL::L2Side::Remote, vnis);
        for (uint32_t vni : vnis) {
            table->RemoveRemoteL2ForVni(vni);
        }
        std::vector<com::corvid::zun::UuidMsg> domains;
        table->ListRoutingDomains(domains);
        for (const auto& domain : domains) {
            table->RemoveRemoteL2ForRoutingDomain(domain);
        }
        cache->GetConfigTable()->AtomicUpdateRemoteCache(std::vector<config::ZunConfigDeltaMsg>(), true);
        std::vector<RemoteSessionUpdate> sessions;
        cache->GetRemoteSessionTable()->QuerySessions(sessions);
        for (const RemoteSessionUpdate& session : sessions) {
            cache->GetRemoteSessionTable()->RemoveSession(session.sessionType, session.index);
        }
    }

    static l2::L2UpdateMsg LocalVtep(const l2::L2UpdateVtepMsg& vtep, RoutingItem::Operation op)
    {
        l2::L2UpdateMsg msg;
        RoutingItem* item = msg.add_routing_vtep_update()->add_items();
        item->set_op(op);
        *item->mutable_vtep() = vtep;
        return msg;
    }

    void SessionUp()
    {
        if (!_session) {
            _session = new CtrlSession(ConnKey(kController, 0), new SessionOwner());
            _session->AddUser();
        }
        _session->OnConnReady();
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, false);
    }

    void SessionDown()
    {
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, true);
        _session->OnConnDown();
    }

    // The data path's report, through the local L2 table as in the agent.
    void Local(const l2::L2UpdateMsg& msg) { _l2Table->AtomicUpdateLocalL2Cache(msg, false); }
    void LocalJoin(uint32_t switchId, uint32_t vni)
    {
        l2::L2UpdateMsg msg;
        AddVniEntry(msg, vni, switchId);
        Local(msg);
    }
    // Straight to the app, as CPDomainManager hands it a local change.
    void Deliver(const l2::L2UpdateMsg& msg) { FenREL::CPDomainManager::Get()->ProcessLocalL2Update(msg); }
    void DeliverEntry(uint32_t switchId, uint32_t vni, MappingItem::Operation op)
    {
        l2::L2UpdateMsg msg;
        AddVniEntry(msg, vni, switchId, op);
        Deliver(msg);
    }

    void Receive(const Frame& frame, const std::string& from = kController)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ConnKey(from, 0));
    }
    void Receive(const l2::L2UpdateMsg& update, const std::string& from = kController)
    {
        Receive(ControllerFrame(update), from);
    }

    // The messages sent so far, reassembled from their frames and parsed.
    std::vector<l2::L2UpdateMsg> Sent()
    {
        std::vector<l2::L2UpdateMsg> updates;
        Frame stream;
        for (const Frame& frame : SentFrames(kController)) {
            stream.insert(stream.end(), frame.begin(), frame.end());
        }
        CtrlMsgReassembler reassembler;
        std::vector<CtrlMsgReassembler::Message> messages;
        EXPECT_EQ(CtrlMsgReassembler::Status::kNeedMore,
                  reassembler.Feed(stream.data(), stream.size(), 0xFFFF, &messages));
        for (const auto& message : messages) {
            EXPECT_EQ(7, CtrlMsg::Type(message.buffer.get()));
            EXPECT_EQ(APP_ID_L2, CtrlMsg::ProtocolId(message.buffer.get()));
            EXPECT_EQ(_session->GetSessionID(), CtrlMsg::SessionId(message.buffer.get()));
            EXPECT_EQ(0, message.buffer.get()[15]);
            updates.emplace_back();
            EXPECT_TRUE(updates.back().ParseFromArray(message.buffer.get() + 16, static_cast<int>(message.size - 16)));
        }
        return updates;
    }

    void ClearSent()
    {
        auto conn = CtrlConnPool::Get()->FindConn(ConnKey(kController, 0));
        ASSERT_TRUE(conn && conn->GetScheduler());
        conn->GetScheduler()->Drain();
    }

    std::set<uint64_t> RemoteMacs(uint32_t vni)
    {
        std::vector<std::string> values;
        std::set<uint64_t> macs;
        if (_l2Table->QueryL2Values(vni, l2::L2MappingUpdateMsg::VM_MAC, FenREL::L2Side::Remote, values)) {
            for (const std::string& value : values) {
                l2::L2UpdateVMMacMsg mac;
                EXPECT_TRUE(mac.ParseFromString(value));
                macs.insert(mac.vm_mac().mac());
            }
        }
        return macs;
    }

    // The entry of (L2_SESSION, vni): state and controller, or false.
    bool L2Session(uint32_t vni, RemoteSessionUpdate& out)
    {
        std::vector<RemoteSessionUpdate> sessions;
        _sessions->QuerySessions(sessions);
        for (const RemoteSessionUpdate& session : sessions) {
            if (session.sessionType == RemoteSessionUpdate::L2_SESSION && session.index == vni) {
                out = session;
                return true;
            }
        }
        return false;
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
        std::string text;
        for (const l2::L2UpdateMsg& update : Sent()) {
            text += text.empty() ? "" : " | ";
            std::string words;
            for (const auto& element : update.routing_vtep_update()) {
                for (const RoutingItem& item : element.items()) {
                    char word[48];
                    snprintf(word, sizeof(word), "%s%llx:%s", words.empty() ? "" : " ",
                             static_cast<unsigned long long>(element.routing_domain_id().left()),
                             item.op() == RoutingItem::ADD ? "ADD" : "DEL");
                    words += word;
                    if (item.has_vtep()) {
                        snprintf(word, sizeof(word), "@%x", item.vtep().vtep_ip().ipv4());
                        words += word;
                    }
                }
            }
            text += words;
        }
        ClearSent();
        return text;
    }

    FenREL::StateCacheL2Table* _l2Table = nullptr;
    FenREL::StateCacheRemoteSessionTable* _sessions = nullptr;
    boost::intrusive_ptr<L2App> _app;
    boost::intrusive_ptr<CtrlSession> _session;
};

TEST_F(L2AppTest, HelloFeatureIsTenBytesAndMaxPktLenFollowsThePool)
{
    uint8_t buffer[32] = {};
    ASSERT_EQ(10, _app->GetHelloFeatureLen());
    ASSERT_EQ(10, _app->WriteHelloFeature(buffer));
    EXPECT_EQ((Frame{0x00, 0x40, 0x00, 0x0A, 0x01, 0x00, 0x04, 0x00, 0x05, 0x02}), Frame(buffer, buffer + 10));
    EXPECT_EQ(4085, _app->GetHelloParams().maxPktLen);

    // The controller's answer of the same form, here with no data.
    EXPECT_TRUE(AppManager::Get()->ValidateHelloFeature(buffer, true, 0));
    FenREL::TlvCommon::PutBe16(buffer + 2, 5);
    CtrlConnPool::Get()->SetMaxPktLen(1000);
    AppManager::Get()->ApplyHelloFeature(buffer, 0);
    EXPECT_EQ(984, _app->GetHelloParams().maxPktLen);
}

TEST_F(L2AppTest, LocalStateReachesTheControllerOnlyOverTheSession)
{
    LocalJoin(7, kVni);
    l2::L2UpdateMsg delta;
    AddMacs(delta, kVni, {0xA1});
    {
        FenRELTest::LogCapture log;
        Local(delta);
        EXPECT_TRUE(Contains(log.Text(), "L2App: Session is not established"));
    }
    EXPECT_TRUE(SentFrames(kController).empty());

    // Session up: the whole local state in one update, marked as a full sync.
    {
        FenRELTest::LogCapture log;
        SessionUp();
        EXPECT_TRUE(Contains(log.Text(), "L2App: received session up from controller 10.0.0.1:0"));
    }
    std::vector<l2::L2UpdateMsg> sent = Sent();
    ASSERT_EQ(1u, sent.size());
    ASSERT_EQ(2, sent[0].mapping_update_size());
    EXPECT_FALSE(sent[0].mapping_update(0).has_type());
    EXPECT_EQ(MappingItem::ADD, sent[0].mapping_update(0).items(0).op());
    EXPECT_EQ(kVni, sent[0].mapping_update(0).vn_instance().vni());
    EXPECT_EQ(0xA1u, sent[0].mapping_update(1).items(0).vm_mac().vm_mac().mac());
    ClearSent();

    // A change goes out as it came; after the session, nothing is queued.
    delta.mutable_mapping_update(0)->mutable_items(0)->mutable_vm_mac()->mutable_vm_mac()->set_mac(0xA2);
    Local(delta);
    sent = Sent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(delta.SerializeAsString(), sent[0].SerializeAsString());
    SessionDown();
    ClearSent();
    delta.mutable_mapping_update(0)->mutable_items(0)->mutable_vm_mac()->mutable_vm_mac()->set_mac(0xA3);
    Local(delta);
    EXPECT_TRUE(SentFrames(kController).empty());
}

TEST_F(L2AppTest, LargeFullSyncGoesOutInFragmentsOfThePoolLimit)
{
    LocalJoin(7, kVni);
    std::set<uint64_t> macs;
    for (uint64_t mac = 1; mac <= 200; ++mac) {
        macs.insert(mac);
    }
    l2::L2UpdateMsg local;
    AddMacs(local, kVni, macs);
    Local(local);
    CtrlConnPool::Get()->SetMaxPktLen(200);
    SessionUp();

    const std::vector<Frame> frames = SentFrames(kController);
    ASSERT_GT(frames.size(), 2u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_LE(frames[i].size(), 200u);
        EXPECT_EQ(i + 1 < frames.size(), CtrlMsg::MoreFragments(frames[i].data())) << "frame " << i;
    }
    const std::vector<l2::L2UpdateMsg> sent = Sent();
    ASSERT_EQ(1u, sent.size());
    l2::L2UpdateMsg expected;
    ASSERT_TRUE(_l2Table->ReadAllLocal(expected));
    EXPECT_EQ(expected.SerializeAsString(), sent[0].SerializeAsString());
}

TEST_F(L2AppTest, TwoSwitchesShareTheVniAndALeaveClearsItsRemoteState)
{
    SessionUp();
    DeliverEntry(7, kVni, MappingItem::ADD);
    DeliverEntry(8, kVni, MappingItem::ADD);
    {
        FenRELTest::LogCapture log;
        DeliverEntry(8, kVni, MappingItem::ADD);
        EXPECT_TRUE(Contains(log.Text(), "L2App: receive two Joins for switch 8 VNI 5001, ignore the second Join"));
    }
    ASSERT_EQ(1u, _app->GetVirtualNetworks().size());
    auto network = _app->FindVirtualNetwork(kVni);
    ASSERT_TRUE(network);
    EXPECT_EQ(2u, network->GetInstances().size());
    EXPECT_TRUE(network->IsMcastProxy() && network->IsArpProxy());

    Receive(ControllerFullSync(kVni, {1, 2}));
    EXPECT_EQ((std::set<uint64_t>{1, 2}), RemoteMacs(kVni));
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_DONE, network->GetFullSyncState());

    DeliverEntry(7, kVni, MappingItem::DEL);
    RemoteSessionUpdate entry;
    EXPECT_FALSE(L2Session(kVni, entry));
    EXPECT_TRUE(RemoteMacs(kVni).empty());
    EXPECT_EQ(network, _app->FindVirtualNetwork(kVni));
    ASSERT_EQ(1u, network->GetInstances().size());
    EXPECT_EQ(8u, network->GetInstances().front().switchId);
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_PENDING, network->GetFullSyncState());

    DeliverEntry(8, kVni, MappingItem::DEL);
    EXPECT_FALSE(_app->FindVirtualNetwork(kVni));
    // An update in flight across the leave is dropped.
    FenRELTest::LogCapture log;
    Receive(ControllerDelta(kVni, {2}));
    EXPECT_TRUE(Contains(log.Text(), "L2App: receive update after vni leave, VNI 5001 \n")) << log.Text();
    EXPECT_TRUE(RemoteMacs(kVni).empty());
}

class L2AppFullSyncMarkTest : public L2AppTest, public testing::WithParamInterface<int> {};

TEST_P(L2AppFullSyncMarkTest, OnlyTheFirstMappingMayMarkAFullSync)
{
    SessionUp();
    LocalJoin(7, kVni);
    Receive(ControllerFullSync(kVni, {1, 2, 3}));

    l2::L2UpdateMsg msg;
    AddMacs(msg, kVni, {2, 4});
    AddVniEntry(msg, kVni, 999);
    if (GetParam() == 0) {
        msg.mutable_mapping_update()->SwapElements(0, 1);
    }
    FenRELTest::LogCapture log;
    Receive(msg);
    if (GetParam() == 0) {
        // A full sync: what it leaves out goes, and the switch id is ours.
        EXPECT_EQ((std::set<uint64_t>{2, 4}), RemoteMacs(kVni));
        FenREL::L2CacheItem item;
        ASSERT_TRUE(_l2Table->QueryRemoteL2ByKey(kVni, l2::L2MappingUpdateMsg::VM_MAC, 4, item));
        EXPECT_EQ(7u, item.switchId);
        EXPECT_TRUE(Contains(log.Text(), "L2App: L2 full sync update message is :"));
    } else {
        EXPECT_TRUE(Contains(log.Text(), "errorCode=\"LCP00409\"] L2App: Invalid vni entry update message received "
                                         "from controller"))
            << log.Text();
        EXPECT_EQ((std::set<uint64_t>{1, 2, 3}), RemoteMacs(kVni));
    }
}

INSTANTIATE_TEST_SUITE_P(L2App, L2AppFullSyncMarkTest, testing::Values(0, 1));

TEST_F(L2AppTest, FragmentedFullSyncFromTheControllerIsAppliedWhole)
{
    SessionUp();
    DeliverEntry(7, kVni, MappingItem::ADD);
    std::set<uint64_t> macs;
    for (uint64_t mac = 1; mac <= 5000; ++mac) {
        macs.insert(mac);
    }
    const l2::L2UpdateMsg update = ControllerFullSync(kVni, macs);
    const std::string body = update.SerializeAsString();
    ASSERT_GT(body.size() + 16, 0xFFFFu);  // its header length cannot tell its size
    Frame stream;
    for (const CtrlMsgBuffer& frame : CtrlMsgFragmenter::FragmentBody(
             7, APP_ID_L2, 0, reinterpret_cast<const uint8_t*>(body.data()), body.size(), 4096)) {
        stream.insert(stream.end(), frame.get(), frame.get() + CtrlMsg::Length(frame.get()));
    }
    CtrlMsgReassembler reassembler;
    std::vector<CtrlMsgReassembler::Message> messages;
    reassembler.Feed(stream.data(), stream.size(), 4096, &messages);
    ASSERT_EQ(1u, messages.size());
    _app->HandleMsg(messages[0].buffer.get(), messages[0].size, ConnKey(kController, 0));
    EXPECT_EQ(macs, RemoteMacs(kVni));
}

TEST_F(L2AppTest, RoutingDomainFullSyncReplacesItsVteps)
{
    SessionUp();
    const auto domain = Uuid(1, 0xD1);
    l2::L2UpdateMsg fullSync;
    fullSync.add_routing_vtep_update()->add_items()->set_op(RoutingItem::ADD);
    RoutingItem* item = fullSync.add_routing_vtep_update()->add_items();
    item->set_op(RoutingItem::ADD);
    *item->mutable_vtep() = Vtep(0x0B000001);
    for (auto& element : *fullSync.mutable_routing_vtep_update()) {
        *element.mutable_routing_domain_id() = domain;
    }
    {
        FenRELTest::LogCapture log;
        Receive(fullSync);
        EXPECT_TRUE(Contains(log.Text(), "L2App: receive update after routing domain delete, routing domain ID is "
                                         "00000000-0000-0001-0000-0000000000d1 \n"))
            << log.Text();
    }
    std::vector<com::corvid::zun::UuidMsg> domains;
    _l2Table->ListRoutingDomains(domains);
    EXPECT_TRUE(domains.empty());

    SetSwitchDomains({{1, &domain}});
    ASSERT_EQ(1u, _app->GetRoutingDomains().size());
    {
        FenRELTest::LogCapture log;
        Receive(fullSync);
        EXPECT_TRUE(Contains(log.Text(), "L2App: Session for VNI 0 not found"));
    }
    *fullSync.mutable_routing_vtep_update(1)->mutable_items(0)->mutable_vtep() = Vtep(0x0B000002);
    Receive(fullSync);
    std::vector<l2::L2UpdateVtepMsg> vteps;
    ASSERT_TRUE(_l2Table->QueryRoutingDomainVteps(domain, vteps));
    std::set<uint32_t> ips;
    for (const auto& vtep : vteps) {
        if (vtep.has_vtep_ip()) {
            ips.insert(vtep.vtep_ip().ipv4());
        }
    }
    EXPECT_EQ((std::set<uint32_t>{0x0B000002}), ips);
}

TEST_F(L2AppTest, RemoteSessionEntryFollowsJoinFullSyncDownAndLeave)
{
    LocalJoin(7, kVni);
    RemoteSessionUpdate entry;
    ASSERT_TRUE(L2Session(kVni, entry));
    EXPECT_EQ(RemoteSessionUpdate::STATE_INIT, entry.sessionState);
    EXPECT_EQ("", entry.controllerIp);

    SessionUp();
    Receive(ControllerFullSync(kVni, {1}));
    ASSERT_TRUE(L2Session(kVni, entry));
    EXPECT_EQ(RemoteSessionUpdate::STATE_UP, entry.sessionState);
    EXPECT_EQ(kController, entry.controllerIp);

    SessionDown();
    ASSERT_TRUE(L2Session(kVni, entry));
    EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, entry.sessionState);
    EXPECT_EQ(NewVirtualNetwork::FULL_SYNC_PENDING, _app->FindVirtualNetwork(kVni)->GetFullSyncState());
    EXPECT_FALSE(_app->GetSession());

    // A new session leaves the VNI down until the controller's next full sync.
    SessionUp();
    ASSERT_TRUE(L2Session(kVni, entry));
    EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, entry.sessionState);
    Receive(ControllerFullSync(kVni, {1}));
    ASSERT_TRUE(L2Session(kVni, entry));
    EXPECT_EQ(RemoteSessionUpdate::STATE_UP, entry.sessionState);

    l2::L2UpdateMsg leave;
    AddVniEntry(leave, kVni, 7, MappingItem::DEL);
    Local(leave);
    EXPECT_FALSE(L2Session(kVni, entry));
}

TEST_F(L2AppTest, UpdatesAreTakenOnlyFromTheMasterSessionsConnection)
{
    DeliverEntry(7, kVni, MappingItem::ADD);
    {
        FenRELTest::LogCapture log;
        Receive(ControllerFullSync(kVni, {1}));
        EXPECT_TRUE(Contains(log.Text(), "L2App: Session mismatching for controller 10.0.0.1:0, existing: null \n"));
        EXPECT_TRUE(Contains(log.Text(), "L2App: failed to validate update message"));
    }
    SessionUp();
    {
        FenRELTest::LogCapture log;
        Receive(ControllerFullSync(kVni, {1}), kOther);
        EXPECT_TRUE(Contains(log.Text(), "L2App: Session mismatching for controller 10.0.0.2:0, existing: "
                                         "10.0.0.1:0 \n"));
    }
    EXPECT_TRUE(RemoteMacs(kVni).empty());

    // A delta for a VNI before any full sync is applied at once.
    Receive(ControllerDelta(kVni, {5}));
    EXPECT_EQ((std::set<uint64_t>{5}), RemoteMacs(kVni));
}

TEST_F(L2AppTest, MessagesThatAreOnlyLogged)
{
    SessionUp();
    ClearSent();
    const Frame notification = {0x01, 0xBA, 0xDB, 0xEE, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x08, 0x00,
                                0x17, 0x00, 0x40, 0x00, 0x01, 0x00, 0x02, 0x00, 0x00, 0x13, 0x89};
    auto withPair = [&notification](uint8_t error, uint8_t sub) {
        Frame frame = notification;
        frame[16] = error;
        frame[18] = sub;
        return frame;
    };
    struct Case {
        Frame frame;
        std::string from;
        std::string line;
    };
    Frame badUpdate = ControllerFrame(l2::L2UpdateMsg());
    badUpdate.insert(badUpdate.end(), {0xFF, 0xFF});
    const std::vector<Case> cases = {
        {notification, kController, "L2App: notification from controller for invalid VNI 5001"},
        {notification, kOther, "L2App: failed to validate notification message"},
        {withPair(2, 2), kController, "errorCode=\"LCP00409\"] L2App: error/sub:2/2 need handler"},
        {withPair(1, 1), kController, "errorCode=\"LCP00409\"] L2App: error/sub 1/1 need handler"},
        {Frame(notification.begin(), notification.end() - 1), kController,
         "errorCode=\"LCP00409\"] L2App: Invalid notification message received from 10.0.0.1:0 of length 22"},
        {ControllerFrame(l2::L2UpdateMsg(), 4), kController, "L2App: unknown message from controller (type 4)"},
        {badUpdate, kController,
         "errorCode=\"LCP00409\"] L2App: Invalid update message received from 10.0.0.1:0 of length 2"},
    };
    for (const Case& c : cases) {
        FenRELTest::LogCapture log;
        Receive(c.frame, c.from);
        EXPECT_TRUE(Contains(log.Text(), c.line)) << log.Text();
    }
    EXPECT_TRUE(SentFrames(kController).empty());
}

TEST_F(L2AppTest, RoutingDomainsFollowTheSwitchesAndAnnounceTheHostVtep)
{
    const auto d1 = Uuid(1, 0xD1);
    const auto d2 = Uuid(2, 0xD2);
    const auto zero = Uuid(0, 0);
    const auto d3 = Uuid(3, 0xD3);
    Local(LocalVtep(Vtep(0xC000001), RoutingItem::ADD));
    SessionUp();
    ClearSent();

    FenRELTest::LogCapture log;
    SetSwitchDomains({{1, &d1}});
    EXPECT_EQ("1:ADD 1:ADD@c000001", TakeRouting());
    EXPECT_TRUE(_app->IsRoutingVtepMarkerSent());
    SetSwitchDomains({{2, &d1}});
    EXPECT_EQ("", TakeRouting());
    // Switch 1 moves to d2; d1 keeps switch 2.
    SetSwitchDomains({{1, &d2}});
    EXPECT_EQ("2:ADD 2:ADD@c000001", TakeRouting());

    // The controller's VTEPs of d1 go with the domain.
    l2::L2UpdateMsg remote;
    *remote.add_routing_vtep_update()->mutable_routing_domain_id() = d1;
    remote.mutable_routing_vtep_update(0)->add_items()->set_op(RoutingItem::ADD);
    Receive(remote);
    SetSwitchDomains({{2, nullptr}});
    EXPECT_EQ("1:DEL 1:DEL@c000001", TakeRouting());
    EXPECT_EQ(1u, _app->GetRoutingDomains().count(d2.SerializeAsString()));
    EXPECT_EQ(1u, _app->GetRoutingDomains().size());
    std::vector<com::corvid::zun::UuidMsg> domains;
    _l2Table->ListRoutingDomains(domains);
    EXPECT_TRUE(domains.empty());

    // A switch without a domain ends the batch: switch 4 is not attached.
    SetSwitchDomains({{3, &zero}, {4, &d3}});
    EXPECT_EQ(1u, _app->GetRoutingDomains().size());

    const std::string& text = log.Text();
    EXPECT_TRUE(Contains(text, "Add a new routingDomain ID 00000000-0000-0001-0000-0000000000d1"));
    EXPECT_TRUE(Contains(text, "Attach LS 00000000-0000-0015-0000-000000000002 to routingDomainID "
                               "00000000-0000-0001-0000-0000000000d1"));
    EXPECT_TRUE(Contains(text, "Detach LS 00000000-0000-0015-0000-000000000001 from routingDomainID "
                               "00000000-0000-0001-0000-0000000000d1"));
    EXPECT_TRUE(Contains(text, "Delete the routingDomain ID 00000000-0000-0001-0000-0000000000d1"));
}

TEST_F(L2AppTest, LocalVtepChangeCarriesTheMarkerOnceAndFullSyncsAlways)
{
    const auto d1 = Uuid(1, 0xD1);
    const auto d2 = Uuid(2, 0xD2);
    // Domains known before the host has a VTEP: nothing is announced.
    SetSwitchDomains({{1, &d1}, {2, &d2}});
    EXPECT_FALSE(_app->IsRoutingVtepMarkerSent());
    SessionUp();
    ClearSent();

    Local(LocalVtep(Vtep(0xC000001), RoutingItem::ADD));
    EXPECT_EQ("1:ADD 1:ADD@c000001 2:ADD@c000001", TakeRouting());
    Local(LocalVtep(Vtep(0xC000002), RoutingItem::ADD));
    EXPECT_EQ("1:ADD@c000002 2:ADD@c000002", TakeRouting());
    SessionDown();
    ClearSent();
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

// Whatever mix of full syncs and deltas the controller sends for a VNI, in
// whatever frames, the remote table ends as the last full sync plus the deltas
// after it.
TEST_F(L2AppTest, RandomFullSyncsAndDeltasLeaveTheLastFullSyncPlusLaterDeltas)
{
    const char* fixed = getenv("FENREL_TEST_SEED");
    const uint32_t seed = fixed ? static_cast<uint32_t>(strtoul(fixed, nullptr, 10)) : std::random_device()();
    std::cout << "seed " << seed << " (FENREL_TEST_SEED to repeat)" << std::endl;
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto chance = [&random](int percent) { return static_cast<int>(random() % 100) < percent; };

    SessionUp();
    DeliverEntry(7, kVni, MappingItem::ADD);
    std::set<uint64_t> model;
    bool synced = false;
    for (int step = 0; step < 150; ++step) {
        l2::L2UpdateMsg msg;
        if (!synced || chance(15)) {
            std::set<uint64_t> macs;
            for (uint64_t mac = 1; mac <= 30; ++mac) {
                if (chance(40)) {
                    macs.insert(mac);
                }
            }
            msg = ControllerFullSync(kVni, macs);
            model = macs;
            synced = true;
        } else {
            std::set<uint64_t> adds;
            std::set<uint64_t> dels;
            for (uint64_t mac = 1; mac <= 30; ++mac) {
                if (!chance(15)) {
                    continue;
                }
                if (model.count(mac) != 0 && chance(60)) {
                    dels.insert(mac);
                } else {
                    adds.insert(mac);  // an ADD of a present MAC changes nothing
                }
            }
            if (adds.empty() && dels.empty()) {
                continue;
            }
            msg = ControllerDelta(kVni, adds, dels);
            for (uint64_t mac : dels) {
                model.erase(mac);
            }
            model.insert(adds.begin(), adds.end());
        }
        const std::string body = msg.SerializeAsString();
        const uint16_t max = static_cast<uint16_t>(16 + random() % 300);
        Frame stream;
        for (const CtrlMsgBuffer& frame : CtrlMsgFragmenter::FragmentBody(
                 7, APP_ID_L2, 0, reinterpret_cast<const uint8_t*>(body.data()), body.size(), max)) {
            stream.insert(stream.end(), frame.get(), frame.get() + CtrlMsg::Length(frame.get()));
        }
        CtrlMsgReassembler reassembler;
        std::vector<CtrlMsgReassembler::Message> messages;
        reassembler.Feed(stream.data(), stream.size(), max, &messages);
        ASSERT_EQ(1u, messages.size());
        _app->HandleMsg(messages[0].buffer.get(), messages[0].size, ConnKey(kController, 0));
        ASSERT_EQ(model, RemoteMacs(kVni)) << "after step " << step;
    }
}

}  // namespace
