#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "CPDomainManager.h"
#include "DPDomainManager.h"
#include "DPPlatform.h"
#include "DataPathSim.h"
#include "DpDomainFixture.h"
#include "GlobalLock.h"
#include "MsgDispatcher.h"
#include "RemoteSessionUpdate.h"
#include "StateCache.h"
#include "StateCacheL2Table.h"
#include "TempDir.h"
#include "WaitFor.h"
#include "ZunaDPAdapter.h"
#include "ZunaDPLink.h"
#include "ccp_lcp_l3.pb.h"
#include "dne_lcp.pb.h"
#include "edge_services_lcp.pb.h"
#include "firewall_lcp.pb.h"
#include "traceflow.pb.h"

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

constexpr uint32_t kVtepA = 0x0A000001;
constexpr uint32_t kVtepB = 0x0A000009;

l2::L2UpdateMappingItemMsg Vtep(uint32_t ip)
{
    l2::L2UpdateMappingItemMsg item;
    item.mutable_vtep()->mutable_vtep_ip()->set_ipv4(ip);
    return item;
}

// The agent's adapter on a real link to the simulated data-path agent, which
// sends its first message only when told.
class ZunaDPAdapterTest : public DpDomainFixture {
protected:
    void TearDown() override
    {
        // The adapter first: its link goes without telling anyone, where a
        // loss of the agent would end the process.
        _adapter.reset();
        DpDomainFixture::TearDown();
        _sim.reset();
    }

    void StartSim(const std::string& path)
    {
        _sim = std::make_unique<DataPathSim>(DataPathSim::Options{path, false});
        _sim->Start();
    }

    // The adapter and its manager, as the platform makes them; true if the
    // simulator took the link.
    bool StartAdapter(const std::string& path)
    {
        _adapter = std::make_unique<ZunaDPAdapter>(path, false);
        EXPECT_TRUE(_adapter->Init(DPDomainManager::Init(_adapter.get())));
        return _sim && _sim->WaitForAccepted(1, 5s);
    }

    void StartBoth()
    {
        StartSim(Path());
        ASSERT_TRUE(StartAdapter(Path()));
    }

    // The data path's first message, and the agent's handling of it.
    void FirstMessageFromTheDataPath(const LcpDpMsg& msg = LcpDpMsg())
    {
        ASSERT_TRUE(_sim->SendMessage(1, msg));
        ASSERT_TRUE(WaitFor([&] { return _adapter->IsDPInitFullSyncDone(); }, 5s, "the data path's full sync"));
    }

    std::vector<std::string> LocalL2Values(uint32_t vni, uint32_t type)
    {
        ZUNChannel::GlobalLockGuard lock;
        std::vector<std::string> values;
        FenREL::StateCache::GetInstance()->GetL2Table()->QueryL2Values(vni, type, FenREL::L2Side::Local, values);
        return values;
    }

    std::string Path() const { return _dir.File("zuna_link"); }

    TempDir _dir;
    std::unique_ptr<DataPathSim> _sim;
    std::unique_ptr<ZunaDPAdapter> _adapter;
};

TEST_F(ZunaDPAdapterTest, ControlPlaneFullSyncIsOneMessageAndDeltasFollow)
{
    AddRemoteSwitch(1, 5001);
    AddRemoteVtep(5001, kVtepA);
    SetRemoteSession(RemoteSessionUpdate::CONFIG_SESSION, 0, RemoteSessionUpdate::STATE_UP, "10.1.2.3");
    StartBoth();
    EXPECT_FALSE(_adapter->IsCPFullSyncDone());

    // The link came up before the first configuration: the full sync waits
    // for it, and is then the first message on the link.
    FenREL::CPDomainManager::Get()->CPDomainInitFullSyncDone();
    const auto fullSync = _sim->WaitForMessage(DataPathSim::IsFullSync(), 5s);
    ASSERT_TRUE(fullSync) << _sim->Summary();
    EXPECT_EQ(0u, fullSync->index);
    EXPECT_EQ(1, fullSync->headerType);
    EXPECT_EQ(0, fullSync->flags);
    EXPECT_TRUE(fullSync->msg.atomic_update_end());
    const auto view = _sim->View();
    EXPECT_EQ(5001u, view.Config().GetProperty(Uuid(1), config::EntityPropertyMsg::LS_VNI)->ls_vni().vni());
    EXPECT_EQ(1u, view.L2().ItemCount(5001, l2::L2MappingUpdateMsg::VTEP));
    ASSERT_TRUE(view.Session(CcpSessionStateMsg::CONFIG_SESSION, 0));
    EXPECT_EQ(CcpSessionStateMsg::SESSION_LINKUP, view.Session(CcpSessionStateMsg::CONFIG_SESSION, 0)->session_state());

    AddRemoteSwitch(2, 5002);
    AddRemoteVtep(5002, kVtepB);
    SetRemoteSession(RemoteSessionUpdate::L2_SESSION, 5002, RemoteSessionUpdate::STATE_DOWN, "10.1.2.4");
    EXPECT_TRUE(_sim->WaitForView(
        [](const DpSim::DataPathView& v) {
            const auto session = v.Session(CcpSessionStateMsg::L2_SESSION, 5002);
            return v.Config().HasEntity(Uuid(2)) && v.L2().HasItem(5002, l2::L2MappingUpdateMsg::VTEP, Vtep(kVtepB)) &&
                   session && session->session_state() == CcpSessionStateMsg::SESSION_LINKDOWN &&
                   session->controller_ip().ip().ipv4() == 0x0A010204;
        },
        5s))
        << _sim->Summary();
    const auto after = _sim->View();
    EXPECT_EQ(1u, after.FullSyncs());
    EXPECT_TRUE(after.Config().HasEntity(Uuid(1)));
}

TEST_F(ZunaDPAdapterTest, DataPathFirstMessageIsCachedAsItsFullSyncBeforeTheHandshakeGoesOn)
{
    StartBoth();
    ZunaDPAdapter* adapter = _adapter.get();
    LocalVifRecorder::Get().SetProbe([adapter] { return adapter->IsDPInitFullSyncDone(); });
    _sim->SetVif("vif-a", DpSim::LocalState::Vif{{0x0A000002}, {0x001122334455}});
    ASSERT_TRUE(_sim->AddL2(6001, l2::L2MappingUpdateMsg::VTEP, Vtep(kVtepA)).empty());
    ASSERT_TRUE(_sim->SendFullSync());

    ASSERT_TRUE(WaitFor([&] { return adapter->IsDPInitFullSyncDone(); }, 5s, "the data path's full sync"));
    EXPECT_TRUE(adapter->IsDPFullSyncDone());
    EXPECT_TRUE(FenREL::CPDomainManager::Get()->IsDPFullSyncDone());
    EXPECT_EQ(0x0A000002u, LocalVifIp("vif-a"));
    EXPECT_EQ(1u, LocalL2Values(6001, l2::L2MappingUpdateMsg::VTEP).size());
    // The VIF reached the cache, and its observers, before the control
    // plane was told that the data path's full sync is done.
    const auto changes = LocalVifRecorder::Get().Take();
    ASSERT_FALSE(changes.empty());
    for (const auto& change : changes) {
        EXPECT_EQ("vif-a", change.entityId);
        EXPECT_FALSE(change.probe);
    }

    // What follows is a delta: vif-a stays.
    _sim->SetVif("vif-b", DpSim::LocalState::Vif{{0x0A000003}, {}});
    ASSERT_TRUE(WaitFor([&] { return LocalVifIp("vif-b") == 0x0A000003u; }, 5s, "vif-b in the local cache"));
    EXPECT_EQ(0x0A000002u, LocalVifIp("vif-a"));
    ASSERT_TRUE(_sim->DeleteL2(6001, l2::L2MappingUpdateMsg::VTEP, Vtep(kVtepA)).empty());
    EXPECT_TRUE(WaitFor([&] { return LocalL2Values(6001, l2::L2MappingUpdateMsg::VTEP).empty(); }, 5s,
                        "the local VTEP to go"));
}

TEST_F(ZunaDPAdapterTest, EmptyFirstMessageStillCountsAsTheFullSync)
{
    StartBoth();
    FirstMessageFromTheDataPath();
    EXPECT_TRUE(_adapter->IsDPFullSyncDone());
    EXPECT_TRUE(FenREL::CPDomainManager::Get()->IsDPFullSyncDone());
}

TEST_F(ZunaDPAdapterTest, EmptyDeltaInLocalConfigUpdateNeverReachesTheCache)
{
    StartBoth();
    LcpDpMsg msg;
    // An empty delta has entity type 0, on which the local cache would stop
    // the process.
    msg.add_local_config_update();
    *msg.add_local_config_update() = Vif("vif-c", 0x0A000004);
    FirstMessageFromTheDataPath(msg);
    EXPECT_EQ(0x0A000004u, LocalVifIp("vif-c"));
}

TEST_F(ZunaDPAdapterTest, UncachedMessagesGoOutUnderTheirHeaderTypes)
{
    StartBoth();
    com::corvid::zun::l3::L3UpdateMsg l3;
    l3.add_cfg_msg()->set_router_id(42);
    struct Case {
        uint32_t dispatchType;
        std::string bytes;
        uint8_t headerType;
        bool (*carries)(const LcpDpMsg&);
    };
    const std::vector<Case> cases = {
        {MsgDispatcher::DP_MSG_TRACEFLOW, "", 1, [](const LcpDpMsg& m) { return m.has_traceflow_update(); }},
        {MsgDispatcher::DP_MSG_L3, l3.SerializeAsString(), 1,
         [](const LcpDpMsg& m) { return m.l3_update().cfg_msg_size() == 1 && m.l3_update().cfg_msg(0).router_id() == 42; }},
        {MsgDispatcher::DP_MSG_FIREWALL, "", 2, [](const LcpDpMsg& m) { return m.has_dfw_update(); }},
        {MsgDispatcher::DP_MSG_ENCRYPTION, "", 3, [](const LcpDpMsg& m) { return m.has_dne_update(); }},
        {MsgDispatcher::DP_MSG_EDGE_SERVICES, "", 4, [](const LcpDpMsg& m) { return m.has_service_update(); }},
    };
    for (const Case& c : cases) {
        MsgDispatcher::Get().Dispatch(MsgDispatcher::DP_DOMAIN, c.dispatchType,
                                      reinterpret_cast<const uint8_t*>(c.bytes.data()),
                                      static_cast<uint32_t>(c.bytes.size()));
    }
    ASSERT_TRUE(_sim->WaitForMessageCount(cases.size(), 5s)) << _sim->Summary();
    const auto messages = _sim->Messages();
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("dispatcher type " + std::to_string(cases[i].dispatchType));
        EXPECT_EQ(cases[i].headerType, messages[i].headerType);
        EXPECT_TRUE(messages[i].msg.atomic_update_end());
        EXPECT_TRUE(cases[i].carries(messages[i].msg)) << messages[i].msg.DebugString();
    }
}

TEST_F(ZunaDPAdapterTest, L3AndTraceflowFromTheDataPathGoToTheControlPlane)
{
    CpSinkStandIn traceflowSink(MsgDispatcher::DP_MSG_TRACEFLOW);
    CpSinkStandIn l3Sink(MsgDispatcher::DP_MSG_L3);
    StartBoth();
    FirstMessageFromTheDataPath();
    LcpDpMsg msg;
    msg.mutable_l3_update()->add_cfg_msg()->set_router_id(9);
    msg.mutable_traceflow_update();
    ASSERT_TRUE(_sim->SendMessage(1, msg));
    ASSERT_TRUE(WaitFor([&] { return !traceflowSink.Received().empty(); }, 5s, "the traceflow message"));
    EXPECT_EQ(std::vector<std::string>{"2:" + msg.l3_update().SerializeAsString()}, l3Sink.Received());
    EXPECT_EQ(std::vector<std::string>{"1:"}, traceflowSink.Received());
}

TEST_F(ZunaDPAdapterTest, SocketPathDefaultsUnderTheRootAndIsCutTo107Bytes)
{
    setenv("FENREL_ROOT", _dir.Path().c_str(), 1);
    EXPECT_EQ(_dir.Path() + "/var/run/corvid/zun-agent/zuna_link", ZunaDPAdapter("", false).GetPath());
    unsetenv("FENREL_ROOT");

    const std::string longPath = _dir.Path() + "/" + std::string(200 - _dir.Path().size() - 1, 'z');
    const std::string cut = longPath.substr(0, 107);
    StartSim(cut);
    ASSERT_TRUE(StartAdapter(longPath));
    EXPECT_EQ(cut, _adapter->GetPath());
}

TEST_F(ZunaDPAdapterTest, GatewayOpensNoLinkAndDropsWhatItSends)
{
    _adapter = std::make_unique<ZunaDPAdapter>(Path(), true);
    EXPECT_FALSE(_adapter->Init(DPDomainManager::Init(_adapter.get())));
    EXPECT_EQ(nullptr, _adapter->GetLink());
    const LcpDpMsg msg;
    EXPECT_TRUE(_adapter->SendMsg(1, &msg));
}

TEST_F(ZunaDPAdapterTest, LinkCheckTellsAnIdlePeerFromAClosedOne)
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

// The process ends by SIGTERM on every loss of the agent's link.
using ZunaDPAdapterDeathTest = ZunaDPAdapterTest;

TEST_F(ZunaDPAdapterDeathTest, LossOfTheLinkEndsTheProcess)
{
    EXPECT_EXIT(
        {
            StartBoth();
            _sim->CloseConnection();
            WaitFor([] { return false; }, 10s, "the end of the process");
        },
        testing::KilledBySignal(SIGTERM), "");
}

TEST_F(ZunaDPAdapterDeathTest, LinkCheckOnAnOrderlyCloseEndsTheProcess)
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

// The platform can be made once per process: each case runs in a child that
// reports by its exit code.
using DPPlatformTest = DpDomainFixture;

TEST_F(DPPlatformTest, ReadsItsKeysFromTheMainConfiguration)
{
    TempDir dir;
    const std::string path = dir.File("agent.sock");
    EXPECT_EXIT(
        {
            DataPathSim sim(DataPathSim::Options{path, false});
            sim.Start();
            boost::property_tree::ptree tree;
            tree.put("config.fenrel.zunagentLink.path", path);
            const bool opened = FenREL::DPPlatform::Init(tree);
            const bool ok = opened && FenREL::DPPlatform::GetAdapter()->GetPath() == path &&
                            !FenREL::DPPlatform::GetAdapter()->IsGw() && sim.WaitForAccepted(1, 5s);
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            boost::property_tree::ptree tree;
            tree.put("config.fenrel.is_gw", "true");
            const bool opened = FenREL::DPPlatform::Init(tree);
            _exit(!opened && FenREL::DPPlatform::GetAdapter()->IsGw() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace FenRELTest
