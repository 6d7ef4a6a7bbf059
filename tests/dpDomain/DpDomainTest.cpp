#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "AppManager.h"
#include "CPDomainManager.h"
#include "DPDomainManager.h"
#include "DPPlatform.h"
#include "DataPathSim.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "MsgDispatcher.h"
#include "MsgSink.h"
#include "RemoteSessionUpdate.h"
#include "SCConfigTableObserver.h"
#include "SessionApp.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"
#include "StateCacheSweep.h"
#include "TempDir.h"
#include "WaitFor.h"
#include "WorkGroup.h"
#include "ZunaDPAdapter.h"
#include "ccp_lcp_l3.pb.h"

namespace FenRELTest {
namespace {

using namespace std::chrono_literals;
namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
using com::corvid::zun::lcp::CcpSessionStateMsg;
using com::corvid::zun::lcp::LcpDpMsg;
using DpSim::DataPathSim;
using FenREL::DPDomainManager;
using FenREL::MsgDispatcher;
using FenREL::RemoteSessionUpdate;
using FenREL::ZunaDPAdapter;

FenREL::StateCache& Cache()
{
    return *FenREL::StateCache::GetInstance();
}

// Counts the local VIF changes by whether `adapter` had yet told that the
// data path's full sync is done.
struct VifChangeCounter : public FenREL::SCConfigTableObserver {
    void ProcessRemotePropertyUpdate(const FenREL::RemotePropertyUpdateList&) override {}
    void ProcessLocalStateUpdate(const FenREL::LocalStateUpdateList& updates) override
    {
        const ZunaDPAdapter* watched = adapter.load();
        (watched != nullptr && watched->IsDPInitFullSyncDone() ? after : before) += static_cast<int>(updates.size());
    }
    std::atomic<const ZunaDPAdapter*> adapter{nullptr};
    std::atomic<int> before{0};
    std::atomic<int> after{0};
};

// Registered for the life of the process, as the config table keeps it.
VifChangeCounter* const g_vifs = new VifChangeCounter();

// Made once and kept: the work group, the state cache, an app manager with
// the session app (not started) and a started control-plane end.
class DpDomainEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ZUNChannel::WorkGroup::Get().Start(8);
        ZUNChannel::AppManager::Create();
        FenREL::SessionApp::Init(com::corvid::zun::ProductVersionMsg());
        FenREL::StateCache::Init();
        FenREL::CPDomainManager::Create()->Start(ZUNChannel::AppManager::Get());
        Cache().GetConfigTable()->RegisterLocalCacheObserver(config::VIF, g_vifs);
    }
};
testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new DpDomainEnvironment);

// Stands in for the control plane's sink of one dispatcher type while it lives.
class CpSinkStandIn : public FenREL::MsgSink {
public:
    explicit CpSinkStandIn(uint32_t type) : _type(type)
    {
        MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::CP_DOMAIN, type);
        MsgDispatcher::Get().RegisterSink(MsgDispatcher::CP_DOMAIN, type, this);
    }
    ~CpSinkStandIn()
    {
        MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::CP_DOMAIN, _type);
        MsgDispatcher::Get().RegisterSink(MsgDispatcher::CP_DOMAIN, _type, FenREL::CPDomainManager::Get());
    }
    void Process(uint32_t type, const uint8_t* data, uint32_t length) override
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _received.push_back(std::to_string(type) + ":" + std::string(reinterpret_cast<const char*>(data), length));
    }
    std::vector<std::string> Received()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _received;
    }

private:
    uint32_t _type;
    std::mutex _mutex;
    std::vector<std::string> _received;
};

com::corvid::zun::UuidMsg Uuid(uint64_t id)
{
    com::corvid::zun::UuidMsg uuid;
    uuid.set_left(id);
    uuid.set_right(~id);
    return uuid;
}

// A remote entity of `type`, with the VNI property when `vni` is set.
void AddRemoteEntity(uint64_t id, config::EntityType type, uint32_t vni = 0)
{
    config::ZunConfigDeltaMsg entity;
    entity.set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
    *entity.mutable_entity_id() = Uuid(id);
    entity.set_entity_type(type);
    std::vector<config::ZunConfigDeltaMsg> deltas{entity};
    if (vni != 0) {
        config::EntityPropertyMsg* property = entity.add_property();
        property->set_property_type(config::EntityPropertyMsg::LS_VNI);
        property->mutable_ls_vni()->set_vni(vni);
        deltas.push_back(entity);
    }
    ZUNChannel::GlobalLockGuard lock;
    Cache().GetConfigTable()->AtomicUpdateRemoteCache(deltas, false);
}

l2::L2UpdateMappingItemMsg Vtep(uint32_t ip)
{
    l2::L2UpdateMappingItemMsg item;
    item.mutable_vtep()->mutable_vtep_ip()->set_ipv4(ip);
    return item;
}

// A joined VNI with one VTEP, in the remote L2 cache.
void AddRemoteVtep(uint32_t vni, uint32_t vtepIp)
{
    l2::L2UpdateMsg msg;
    l2::L2MappingUpdateMsg* join = msg.add_mapping_update();
    join->mutable_vn_instance()->set_vni(vni);
    join->mutable_vn_instance()->set_transport_switch_id(7);
    join->add_items()->set_op(l2::L2UpdateMappingItemMsg::ADD);
    l2::L2MappingUpdateMsg* vtep = msg.add_mapping_update();
    vtep->set_type(l2::L2MappingUpdateMsg::VTEP);
    *vtep->mutable_vn_instance() = join->vn_instance();
    l2::L2UpdateMappingItemMsg* item = vtep->add_items();
    *item = Vtep(vtepIp);
    item->set_op(l2::L2UpdateMappingItemMsg::ADD);
    ZUNChannel::GlobalLockGuard lock;
    Cache().GetL2Table()->AtomicUpdateRemoteL2Cache(msg, false, false);
}

void SetRemoteSession(int32_t type, uint32_t index, int32_t state, const std::string& ip)
{
    ZUNChannel::GlobalLockGuard lock;
    Cache().GetRemoteSessionTable()->UpdateSessionState(type, index, state);
    Cache().GetRemoteSessionTable()->UpdateControllerIp(type, index, ip);
}

config::ZunStateDeltaMsg Vif(const std::string& id, uint32_t ip)
{
    config::ZunStateDeltaMsg delta;
    delta.set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
    delta.set_entity_id(id);
    delta.set_entity_type(config::VIF);
    config::EntityStateMsg* state = delta.add_state();
    state->set_state_type(config::EntityStateMsg::VIF_IP);
    state->add_vif_ips()->set_ipv4(ip);
    return delta;
}

// The local state of a VIF's VIF_IP, or 0.
uint32_t LocalVifIp(const std::string& id)
{
    ZUNChannel::GlobalLockGuard lock;
    config::EntityStateMsg state;
    const bool found = Cache().GetConfigTable()->GetLocalState(id, config::EntityStateMsg::VIF_IP, state);
    return found && state.vif_ips_size() > 0 ? state.vif_ips(0).ipv4() : 0;
}

size_t LocalVteps(uint32_t vni)
{
    ZUNChannel::GlobalLockGuard lock;
    std::vector<std::string> values;
    Cache().GetL2Table()->QueryL2Values(vni, l2::L2MappingUpdateMsg::VTEP, FenREL::L2Side::Local, values);
    return values.size();
}

// The agent's adapter and its manager on a real link to the simulated data
// path, which sends its first message only when told.
class DpDomainTest : public testing::Test {
protected:
    void TearDown() override
    {
        // The counter must not look at an adapter that is gone.
        g_vifs->adapter = nullptr;
        // The adapter first: its link goes without telling anyone, where a
        // loss of the agent would end the process.
        _adapter.reset();
        DPDomainManager::Destroy();
        {
            ZUNChannel::GlobalLockGuard lock;
            SweepStateCache();
        }
        ZUNChannel::IoService::Get()->poll();
        ZUNChannel::IoService::Get()->restart();
        _sim.reset();
    }

    // The simulator, then the adapter as the platform makes it.
    void StartBoth(const std::string& simPath = "", const std::string& adapterPath = "")
    {
        _sim = std::make_unique<DataPathSim>(DataPathSim::Options{simPath.empty() ? Path() : simPath, false});
        _sim->Start();
        _adapter = std::make_unique<ZunaDPAdapter>(adapterPath.empty() ? Path() : adapterPath, false);
        EXPECT_TRUE(_adapter->Init(DPDomainManager::Init(_adapter.get())));
        ASSERT_TRUE(_sim->WaitForAccepted(1, 5s));
    }

    testing::AssertionResult WaitForDataPathFullSync()
    {
        return WaitFor([&] { return _adapter->IsDPInitFullSyncDone(); }, 5s, "the data path's full sync");
    }

    std::string Path() const { return _dir.File("zuna_link"); }

    TempDir _dir;
    std::unique_ptr<DataPathSim> _sim;
    std::unique_ptr<ZunaDPAdapter> _adapter;
};

TEST_F(DpDomainTest, ControlPlaneFullSyncWaitsForTheFirstConfigurationAndDeltasFollow)
{
    AddRemoteEntity(1, config::LOG_SWITCH, 5001);
    SetRemoteSession(RemoteSessionUpdate::CONFIG_SESSION, 0, RemoteSessionUpdate::STATE_UP, "10.1.2.3");
    StartBoth();
    AddRemoteEntity(3, config::LOG_SWITCH, 5003);
    AddRemoteVtep(5001, 0x0A000001);
    SetRemoteSession(RemoteSessionUpdate::L3_SESSION, 77, RemoteSessionUpdate::STATE_UP, "");

    // The link came up before the first configuration: nothing went yet, and
    // the full sync is then the first message on the link.
    FenREL::CPDomainManager::Get()->CPDomainInitFullSyncDone();
    ASSERT_TRUE(_sim->WaitForMessageCount(1, 5s)) << _sim->Summary();
    const DpSim::ReceivedMessage fullSync = _sim->Messages()[0];
    EXPECT_EQ(1, fullSync.headerType);
    EXPECT_EQ(0, fullSync.flags);
    EXPECT_TRUE(fullSync.msg.atomic_update_end());
    // Both switches, each as an entity and its property; both sessions; the L2 state.
    EXPECT_EQ(4, fullSync.msg.remote_config_update_size());
    EXPECT_EQ(2, fullSync.msg.session_state_size());
    EXPECT_TRUE(fullSync.msg.has_l2_update());
    const auto view = _sim->View();
    EXPECT_EQ(5001u, view.Config().GetProperty(Uuid(1), config::EntityPropertyMsg::LS_VNI)->ls_vni().vni());
    EXPECT_EQ(5003u, view.Config().GetProperty(Uuid(3), config::EntityPropertyMsg::LS_VNI)->ls_vni().vni());
    EXPECT_EQ(1u, view.L2().ItemCount(5001, l2::L2MappingUpdateMsg::VTEP));
    EXPECT_EQ("session_type: CONFIG_SESSION session_state: SESSION_LINKUP controller_ip { ip { ipv4: 167838211 } }",
              view.Session(CcpSessionStateMsg::CONFIG_SESSION, 0).value_or(CcpSessionStateMsg()).ShortDebugString());
    EXPECT_EQ("session_type: L3_SESSION vdr_id: 77 session_state: SESSION_LINKUP controller_ip { ip { ipv4: 0 } }",
              view.Session(CcpSessionStateMsg::L3_SESSION, 77).value_or(CcpSessionStateMsg()).ShortDebugString());

    // From now on each change goes as it happens; entity types the data path
    // does not realise stay behind.
    AddRemoteEntity(9, config::RULE);
    AddRemoteEntity(2, config::LOG_SWITCH, 5002);
    AddRemoteVtep(5002, 0x0A000009);
    SetRemoteSession(RemoteSessionUpdate::L2_SESSION, 5002, RemoteSessionUpdate::STATE_DOWN, "10.1.2.4");
    EXPECT_TRUE(_sim->WaitForView(
        [](const DpSim::DataPathView& v) {
            const auto session = v.Session(CcpSessionStateMsg::L2_SESSION, 5002);
            return v.Config().HasEntity(Uuid(2)) &&
                   v.L2().HasItem(5002, l2::L2MappingUpdateMsg::VTEP, Vtep(0x0A000009)) && session &&
                   session->session_state() == CcpSessionStateMsg::SESSION_LINKDOWN &&
                   session->controller_ip().ip().ipv4() == 0x0A010204;
        },
        5s))
        << _sim->Summary();
    const auto after = _sim->View();
    EXPECT_EQ(1u, after.FullSyncs());
    EXPECT_TRUE(after.Config().HasEntity(Uuid(1)));
    EXPECT_FALSE(after.Config().HasEntity(Uuid(9)));
}

TEST_F(DpDomainTest, DataPathFirstMessageIsCachedAsItsFullSyncBeforeTheHandshakeGoesOn)
{
    StartBoth();
    DPDomainManager::GetInstance()->LocalConfigUpdate({Vif("vif-stale", 0x0A000005)}, false);
    ZunaDPAdapter* adapter = _adapter.get();
    g_vifs->before = 0;
    g_vifs->after = 0;
    g_vifs->adapter = adapter;
    _sim->SetVif("vif-a", DpSim::LocalState::Vif{{0x0A000002}, {0x001122334455}});
    ASSERT_TRUE(_sim->AddL2(6001, l2::L2MappingUpdateMsg::VTEP, Vtep(0x0A000001)).empty());
    ASSERT_TRUE(_sim->SendFullSync());

    ASSERT_TRUE(WaitForDataPathFullSync());
    EXPECT_TRUE(adapter->IsDPFullSyncDone());
    EXPECT_TRUE(FenREL::CPDomainManager::Get()->IsDPFullSyncDone());
    EXPECT_EQ(0x0A000002u, LocalVifIp("vif-a"));
    EXPECT_EQ(0u, LocalVifIp("vif-stale"));
    EXPECT_EQ(1u, LocalVteps(6001));
    // The cache, and its observers, had the VIFs before the control plane
    // was told that the data path's full sync is done.
    EXPECT_GE(g_vifs->before, 2);
    EXPECT_EQ(0, g_vifs->after);

    // What follows is a delta: vif-a stays.
    _sim->SetVif("vif-b", DpSim::LocalState::Vif{{0x0A000003}, {}});
    ASSERT_TRUE(WaitFor([&] { return LocalVifIp("vif-b") == 0x0A000003u; }, 5s, "vif-b in the local cache"));
    EXPECT_EQ(0x0A000002u, LocalVifIp("vif-a"));
    ASSERT_TRUE(_sim->DeleteL2(6001, l2::L2MappingUpdateMsg::VTEP, Vtep(0x0A000001)).empty());
    EXPECT_TRUE(WaitFor([&] { return LocalVteps(6001) == 0; }, 5s, "the local VTEP to go"));
}

TEST_F(DpDomainTest, DataPathMessagesSkipEmptyDeltasAndPassL3AndTraceflowToTheControlPlane)
{
    CpSinkStandIn traceflowSink(MsgDispatcher::DP_MSG_TRACEFLOW);
    CpSinkStandIn l3Sink(MsgDispatcher::DP_MSG_L3);
    StartBoth();
    // An empty delta has entity type 0, on which the local cache would stop
    // the process.
    LcpDpMsg first;
    first.add_local_config_update();
    *first.add_local_config_update() = Vif("vif-c", 0x0A000004);
    ASSERT_TRUE(_sim->SendMessage(1, first));
    ASSERT_TRUE(WaitForDataPathFullSync());
    EXPECT_EQ(0x0A000004u, LocalVifIp("vif-c"));

    LcpDpMsg msg;
    msg.mutable_l3_update()->add_cfg_msg()->set_router_id(9);
    msg.mutable_traceflow_update();
    ASSERT_TRUE(_sim->SendMessage(1, msg));
    ASSERT_TRUE(WaitFor([&] { return !traceflowSink.Received().empty(); }, 5s, "the traceflow message"));
    EXPECT_EQ(std::vector<std::string>{"1:"}, traceflowSink.Received());
    EXPECT_EQ(std::vector<std::string>{"2:" + msg.l3_update().SerializeAsString()}, l3Sink.Received());
}

TEST_F(DpDomainTest, DispatchedMessagesGoOutUnderTheirHeaderTypesAndOthersAreDropped)
{
    StartBoth();
    com::corvid::zun::l3::L3UpdateMsg l3;
    l3.add_cfg_msg()->set_router_id(42);
    const std::string l3Bytes = l3.SerializeAsString();
    auto dispatch = [](uint32_t type, const std::string& bytes) {
        MsgDispatcher::Get().Dispatch(MsgDispatcher::DP_DOMAIN, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                                      static_cast<uint32_t>(bytes.size()));
    };
    // A type without sink, the same by a direct call, and bytes that do not
    // parse: none of them reaches the link.
    dispatch(6, l3Bytes);
    DPDomainManager::GetInstance()->Process(6, reinterpret_cast<const uint8_t*>(l3Bytes.data()),
                                            static_cast<uint32_t>(l3Bytes.size()));
    dispatch(MsgDispatcher::DP_MSG_TRACEFLOW, "\xff\xff\xff");

    for (const uint32_t type : {MsgDispatcher::DP_MSG_TRACEFLOW, MsgDispatcher::DP_MSG_FIREWALL,
                                MsgDispatcher::DP_MSG_ENCRYPTION, MsgDispatcher::DP_MSG_EDGE_SERVICES}) {
        dispatch(type, "");
    }
    dispatch(MsgDispatcher::DP_MSG_L3, l3Bytes);
    ASSERT_TRUE(_sim->WaitForMessageCount(5, 5s)) << _sim->Summary();
    std::vector<std::string> sent;
    for (const auto& message : _sim->Messages()) {
        sent.push_back(std::to_string(message.headerType) + " " + message.msg.ShortDebugString());
    }
    EXPECT_EQ((std::vector<std::string>{"1 atomic_update_end: true traceflow_update { }",
                                        "2 atomic_update_end: true dfw_update { }",
                                        "3 atomic_update_end: true dne_update { }",
                                        "4 atomic_update_end: true service_update { }",
                                        "1 atomic_update_end: true l3_update { cfg_msg { router_id: 42 } }"}),
              sent);
}

TEST_F(DpDomainTest, SocketPathDefaultsUnderTheRootAndIsCutTo107Bytes)
{
    setenv("FENREL_ROOT", _dir.Path().c_str(), 1);
    EXPECT_EQ(_dir.Path() + "/var/run/corvid/zun-agent/zuna_link", ZunaDPAdapter("", false).GetPath());
    unsetenv("FENREL_ROOT");
    const std::string longPath = _dir.Path() + "/" + std::string(200 - _dir.Path().size() - 1, 'z');
    StartBoth(longPath.substr(0, 107), longPath);
    EXPECT_EQ(longPath.substr(0, 107), _adapter->GetPath());
}

TEST_F(DpDomainTest, LinkCheckTellsAnIdlePeerFromNone)
{
    ZunaDPAdapter adapter(Path(), false);
    EXPECT_FALSE(adapter.LinkCheck(-1));
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    EXPECT_TRUE(adapter.LinkCheck(pair[0]));
    // Pending bytes are only peeked at.
    ASSERT_EQ(1, write(pair[1], "x", 1));
    EXPECT_TRUE(adapter.LinkCheck(pair[0]));
    close(pair[0]);
    close(pair[1]);
}

// The process ends by SIGTERM on every loss of the agent's link; the end
// to end test sees the daemon go when the data path closes its side.
using DpDomainDeathTest = DpDomainTest;

TEST_F(DpDomainDeathTest, OrderlyCloseSeenByLinkCheckEndsTheProcess)
{
    EXPECT_EXIT(
        {
            int pair[2];
            socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
            close(pair[1]);
            ZunaDPAdapter(Path(), false).LinkCheck(pair[0]);
            WaitFor([] { return false; }, 10s, "the end of the process");
        },
        testing::KilledBySignal(SIGTERM), "");
}

// The platform is made once per process, so in a child. The agent link's
// path key is read by every integration test's daemon.
TEST_F(DpDomainDeathTest, PlatformOnAGatewayOpensNoLinkAndDropsWhatItSends)
{
    EXPECT_EXIT(
        {
            boost::property_tree::ptree tree;
            tree.put("config.fenrel.is_gw", "true");
            const bool opened = FenREL::DPPlatform::Init(tree);
            ZunaDPAdapter* adapter = FenREL::DPPlatform::GetAdapter();
            const LcpDpMsg msg;
            _exit(!opened && adapter->IsGw() && adapter->GetLink() == nullptr && adapter->SendMsg(1, &msg) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace FenRELTest
