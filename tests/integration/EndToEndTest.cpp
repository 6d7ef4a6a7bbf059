#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AgentHarness.h"
#include "ProcessFootprint.h"
#include "WaitFor.h"
#include "ccp_lcp_config.pb.h"

// The whole story on loopback: controllers, the real daemon and the data
// path. The order of the start-up handshake is what the two simulators
// recorded.
namespace {

using namespace std::chrono_literals;
using FenRELTest::AgentHarness;
using FenRELTest::WaitFor;
namespace config = com::corvid::zun::config;
namespace lcp = com::corvid::zun::lcp;

constexpr uint32_t kVni = 5001;
constexpr auto kLong = 30s;

config::ZunConfigDeltaMsg LogicalSwitch(uint64_t id, uint32_t vni)
{
    config::ZunConfigDeltaMsg delta;
    delta.set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
    delta.mutable_entity_id()->set_left(0x1111);
    delta.mutable_entity_id()->set_right(id);
    delta.set_entity_type(config::LOG_SWITCH);
    auto* property = delta.add_property();
    property->set_property_type(config::EntityPropertyMsg::LS_VNI);
    property->mutable_ls_vni()->set_vni(vni);
    return delta;
}

DpSim::LocalState::Vif Vif(uint32_t ip, uint64_t mac)
{
    DpSim::LocalState::Vif vif;
    vif.ips.push_back(ip);
    vif.macs.push_back(mac);
    return vif;
}

bool IsOpen(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::SessionControl, 257) && !msg.body.empty() && msg.body[0] == 1;
}

bool IsHostFullSyncEnd(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::SessionControl, 256) && !msg.body.empty() && msg.body[0] == 4;
}

bool IsVifState(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::AppData, 256);
}

class EndToEndTest : public testing::Test {
protected:
    // One controller and a data path that speaks first only when told to.
    void StartAgent(size_t controllers = 1)
    {
        for (size_t i = 0; i < controllers; ++i) {
            auto& controller = _agent.AddController(static_cast<int>(i + 1));
            controller.Config().SetConfiguration({LogicalSwitch(1, kVni)});
        }
        _agent.WriteControllerInfo();
        _dataPath = &_agent.AddDataPath(false);
        _agent.Start(AgentHarness::FullConfig());
    }

    // Runs the handshake to the data path's full sync.
    void Handshake()
    {
        ASSERT_TRUE(_dataPath->WaitForAccepted(1, kLong)) << _agent.Daemon().Stdout();
        ASSERT_TRUE(_dataPath->SendFullSync());
        ASSERT_TRUE(_dataPath->WaitForMessage(DpSim::DataPathSim::IsFullSync(), kLong))
            << _dataPath->Summary() << _agent.Daemon().Stdout();
    }

    AgentHarness _agent;
    DpSim::DataPathSim* _dataPath = nullptr;
};

TEST_F(EndToEndTest, StartUpHandshakeRunsInTheOrderOfBothDomains)
{
    StartAgent();
    auto& controller = _agent.Controller(0);
    ASSERT_TRUE(_dataPath->WaitForAccepted(1, kLong)) << _agent.Daemon().Stdout();
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Session: connection 127.0.0.1:0 is ready", kLong));
    // Link and connection are up, but the data path has not spoken: nothing
    // went to it, and no Open went to the controller.
    EXPECT_TRUE(_dataPath->Messages().empty());
    EXPECT_FALSE(controller.WaitForMessage(IsOpen, 0ms));

    ASSERT_EQ("", _dataPath->SetVif("vif-1", Vif(0x0A000001, 0x005056000001)));
    ASSERT_TRUE(_dataPath->SendFullSync());
    const auto open = controller.WaitForMessage(IsOpen, kLong);
    ASSERT_TRUE(open) << controller.Summary();
    const auto vifs = controller.WaitForMessage(IsVifState, kLong);
    const auto hostEnd = controller.WaitForMessage(IsHostFullSyncEnd, kLong);
    ASSERT_TRUE(vifs && hostEnd) << controller.Summary();
    const auto fullSync = _dataPath->WaitForMessage(DpSim::DataPathSim::IsFullSync(), kLong);
    ASSERT_TRUE(fullSync) << _dataPath->Summary() << _agent.Daemon().Stdout();

    // Open, the host's VIF state, its FullSync End, and only after the
    // controller's configuration the data path's full sync.
    EXPECT_LT(open->received, vifs->received);
    EXPECT_LT(vifs->received, hostEnd->received);
    EXPECT_LT(hostEnd->received, fullSync->received);
    EXPECT_EQ(1, fullSync->headerType);
    EXPECT_EQ(0u, fullSync->index) << "the first message to the data path is its full sync";
    ASSERT_EQ(1, fullSync->msg.remote_config_update_size()) << fullSync->ToString();
    EXPECT_EQ(kVni, fullSync->msg.remote_config_update(0).property(0).ls_vni().vni());
    bool sessionUp = false;
    for (const auto& session : fullSync->msg.session_state()) {
        sessionUp |= session.session_type() == lcp::CcpSessionStateMsg::CONFIG_SESSION &&
                     session.session_state() == lcp::CcpSessionStateMsg::SESSION_LINKUP;
    }
    EXPECT_TRUE(sessionUp) << fullSync->ToString();
    EXPECT_EQ(1u, controller.Config().State().view.count("vif-1")) << controller.Config().State().ToString();
    EXPECT_TRUE(controller.Violations().empty()) << controller.Summary();
    EXPECT_TRUE(_dataPath->Violations().empty()) << _dataPath->Summary();
}

TEST_F(EndToEndTest, SilentDataPathKeepsTheSessionClosed)
{
    StartAgent();
    ASSERT_TRUE(_dataPath->WaitForAccepted(1, kLong));
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Session: connection 127.0.0.1:0 is ready", kLong));
    EXPECT_FALSE(_agent.Controller(0).WaitForMessage(IsOpen, 3s));
    EXPECT_TRUE(_dataPath->Messages().empty());
}

TEST_F(EndToEndTest, StateFlowsBothWaysAfterTheHandshake)
{
    StartAgent();
    Handshake();
    auto& controller = _agent.Controller(0);

    // Road of a message: the data path joins a VNI, the controller's L2 state
    // for it reaches the data path.
    DpSim::LocalState::L2UpdateMappingItemMsg vtep;
    vtep.set_op(DpSim::LocalState::L2UpdateMappingItemMsg::ADD);
    vtep.mutable_vtep()->mutable_vtep_ip()->set_ipv4(0xC0A80001);
    ASSERT_EQ("", _dataPath->AddL2(kVni, 3, vtep));
    ASSERT_TRUE(controller.L2().WaitUntil([](const CtrlSim::L2Handler::HostState& s) { return !s.joins.empty(); },
                                          kLong))
        << controller.L2().State().ToString();
    ASSERT_TRUE(controller.L2().PushFullSync(kVni, {}));
    const CtrlSim::L2Handler::Vm vm{0x005056AA0001, 0x0A000063, 0xC0A80002};
    const auto delta = CtrlSim::L2Handler::DeltaOf(kVni, {vm}, {});
    ASSERT_TRUE(controller.L2().Push(delta));
    const auto l2 = _dataPath->WaitForMessage(
        [](const DpSim::ReceivedMessage& msg) {
            return msg.msg.has_l2_update() && msg.msg.l2_update().mapping_update_size() > 0 &&
                   msg.msg.l2_update().mapping_update(0).items_size() > 0 &&
                   msg.msg.l2_update().mapping_update(0).items(0).has_vm_mac();
        },
        kLong);
    ASSERT_TRUE(l2) << _dataPath->Summary() << _agent.Daemon().Stdout();
    // The data path gets the controller's delta as it was sent.
    auto expected = delta;
    for (auto& mapping : *expected.mutable_mapping_update()) {
        mapping.mutable_vn_instance()->clear_transport_switch_id();
    }
    auto got = l2->msg.l2_update();
    for (auto& mapping : *got.mutable_mapping_update()) {
        mapping.mutable_vn_instance()->clear_transport_switch_id();
    }
    EXPECT_EQ(expected.SerializeAsString(), got.SerializeAsString())
        << expected.DebugString() << " vs " << got.DebugString();

    // Road back: a VIF seen by the data path reaches the controller.
    ASSERT_EQ("", _dataPath->SetVif("vif-9", Vif(0x0A000009, 0x005056000009)));
    EXPECT_TRUE(controller.Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.view.count("vif-9") == 1; }, kLong))
        << controller.Config().State().ToString();
}

TEST_F(EndToEndTest, TraceflowPassesBothWays)
{
    StartAgent();
    Handshake();
    auto& controller = _agent.Controller(0);
    ASSERT_TRUE(controller.Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.fullSyncEnds > 0; }, kLong));

    com::corvid::zun::traceflow::TraceflowMsg packetOut;
    packetOut.mutable_packet_out()->set_packet("probe");
    const std::string bytes = packetOut.SerializeAsString();
    ASSERT_TRUE(controller.Traceflow().SendPacketOut(CtrlSim::Bytes(bytes.begin(), bytes.end())));
    const auto out = _dataPath->WaitForMessage(
        [](const DpSim::ReceivedMessage& msg) { return msg.msg.has_traceflow_update(); }, kLong);
    ASSERT_TRUE(out) << _dataPath->Summary();
    EXPECT_EQ("probe", out->msg.traceflow_update().packet_out().packet());

    lcp::LcpDpMsg observation;
    observation.mutable_traceflow_update()->mutable_packet_in()->mutable_observation()->set_timestamp(42);
    ASSERT_TRUE(_dataPath->SendMessage(1, observation));
    ASSERT_TRUE(controller.Traceflow().WaitForObservations(1, kLong)) << _agent.Daemon().Stdout();
}

TEST_F(EndToEndTest, MasterControllerMoveRunsTheFullSyncAgainThere)
{
    StartAgent(2);
    Handshake();
    CtrlSim::ControllerSim* first = _agent.SessionController();
    ASSERT_TRUE(first);
    CtrlSim::ControllerSim& second = first == &_agent.Controller(0) ? _agent.Controller(1) : _agent.Controller(0);
    ASSERT_TRUE(first->Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.fullSyncEnds > 0; }, kLong));

    ASSERT_TRUE(_agent.MoveSession(*first, second, kLong)) << _agent.Daemon().Stdout();
    EXPECT_TRUE(_agent.Daemon().WaitForStdout(
        "Session: Changing master controller from " + first->Address() + " to " + second.Address(), kLong));
    // The data path hears the session move to the new controller.
    EXPECT_TRUE(_dataPath->WaitForView(
        [&](const DpSim::DataPathView& view) {
            auto session = view.Session(lcp::CcpSessionStateMsg::CONFIG_SESSION, 0);
            return session && session->session_state() == lcp::CcpSessionStateMsg::SESSION_LINKUP &&
                   session->controller_ip().ip().ipv4() == (127u << 24 | (second.Address() == "127.0.0.1" ? 1 : 2));
        },
        kLong))
        << _dataPath->Summary();
}

TEST_F(EndToEndTest, LosingTheDataPathEndsTheDaemonAndARestartResynchronises)
{
    StartAgent();
    Handshake();
    _dataPath->SetAutoFullSync(true);
    ASSERT_TRUE(_dataPath->CloseConnection());
    int status = 0;
    ASSERT_TRUE(_agent.Daemon().WaitExit(kLong, status));
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGTERM, WTERMSIG(status));

    // What a supervisor does: start it again.
    _agent.Restart();
    ASSERT_TRUE(_dataPath->WaitForAccepted(2, kLong));
    EXPECT_TRUE(_dataPath->WaitForView([](const DpSim::DataPathView& view) { return view.FullSyncs() >= 2; }, kLong))
        << _dataPath->Summary() << _agent.Daemon().Stdout();
}

TEST_F(EndToEndTest, HundredSessionFlapsLeaveTheDataPathInStepAndNoLeftovers)
{
    StartAgent(2);
    Handshake();
    CtrlSim::ControllerSim* current = _agent.SessionController();
    ASSERT_TRUE(current);
    ASSERT_TRUE(current->Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.fullSyncEnds > 0; }, kLong));
    const pid_t pid = _agent.Daemon().Pid();
    const auto before = FenRELTest::ProcessFootprint::Of(pid);

    // Each flap moves the session to the other controller: teardown, Open,
    // full syncs both ways.
    for (int flap = 0; flap < 100; ++flap) {
        CtrlSim::ControllerSim& next = current == &_agent.Controller(0) ? _agent.Controller(1) : _agent.Controller(0);
        ASSERT_TRUE(_agent.MoveSession(*current, next, kLong)) << "flap " << flap;
        current = &next;
    }
    // The data path's picture equals what the controllers configured, and
    // the session it knows is the last master's.
    EXPECT_TRUE(_dataPath->WaitForView(
        [&](const DpSim::DataPathView& view) {
            auto session = view.Session(lcp::CcpSessionStateMsg::CONFIG_SESSION, 0);
            return view.Config().EntityCount() == 1 && session &&
                   session->session_state() == lcp::CcpSessionStateMsg::SESSION_LINKUP &&
                   session->controller_ip().ip().ipv4() ==
                       (127u << 24 | (current->Address() == "127.0.0.1" ? 1 : 2));
        },
        kLong))
        << _dataPath->Summary();
    com::corvid::zun::UuidMsg id;
    id.set_left(0x1111);
    id.set_right(1);
    const auto vni = _dataPath->View().Config().GetProperty(id, config::EntityPropertyMsg::LS_VNI);
    ASSERT_TRUE(vni);
    EXPECT_EQ(kVni, vni->ls_vni().vni());
    EXPECT_TRUE(_agent.Daemon().IsRunning());
    EXPECT_TRUE(before.GrowsAtMost(FenRELTest::ProcessFootprint::Of(pid), 2, 8 * 1024));
}

}  // namespace
