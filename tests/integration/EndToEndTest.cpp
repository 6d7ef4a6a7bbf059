#include <arpa/inet.h>
#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AgentHarness.h"
#include "ConfigView.h"
#include "L2View.h"
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

using SteadyTime = std::chrono::steady_clock::time_point;

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

// The same as a controller creates it: the entity, then its VNI.
std::vector<config::ZunConfigDeltaMsg> CreatedSwitch(uint64_t id, uint32_t vni)
{
    config::ZunConfigDeltaMsg entity = LogicalSwitch(id, vni);
    entity.clear_property();
    return {entity, LogicalSwitch(id, vni)};
}

DpSim::LocalState::Vif Vif(uint32_t ip, uint64_t mac)
{
    DpSim::LocalState::Vif vif;
    vif.ips.push_back(ip);
    vif.macs.push_back(mac);
    return vif;
}

bool IsHostFullSyncEnd(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::SessionControl, 256) && !msg.body.empty() && msg.body[0] == 4;
}

bool IsVifState(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::AppData, 256);
}

// What the controller sent: a session control message of `protocolId` and
// control `type`, and an update of the session channel of `updateType`.
bool IsControl(const CtrlSim::SentMessage& msg, uint16_t protocolId, uint8_t type)
{
    return msg.Is(CtrlSim::MsgType::SessionControl, protocolId) && !msg.body.empty() && msg.body[0] == type;
}

bool IsSessionUpdate(const CtrlSim::SentMessage& msg, config::CcpLcpZunConfigMsg::Type updateType)
{
    config::CcpLcpZunConfigMsg update;
    return msg.Is(CtrlSim::MsgType::AppData, 257) && !msg.body.empty() &&
           update.ParseFromArray(msg.body.data() + 1, static_cast<int>(msg.body.size() - 1)) &&
           update.type() == updateType;
}

// Configuration and sessions together: the data path's full sync, which no
// delta carries.
bool CarriesFullSync(const DpSim::ReceivedMessage& msg)
{
    return msg.msg.remote_config_update_size() > 0 && msg.msg.session_state_size() > 0;
}

size_t FullSyncCount(const std::vector<DpSim::ReceivedMessage>& messages)
{
    return static_cast<size_t>(std::count_if(messages.begin(), messages.end(), CarriesFullSync));
}

// The data path's L2 state as one message, without the transport switch ids
// that the agent fills in.
std::string L2Text(const DpSim::L2View& view)
{
    auto full = view.ToFullMessage();
    for (auto& mapping : *full.mutable_mapping_update()) {
        mapping.mutable_vn_instance()->clear_transport_switch_id();
    }
    return full.ShortDebugString();
}

// What the controller stated in the host's session `sessionId` on
// connection `connection`: the configuration and the L2 state its full syncs
// and deltas make, as the data path's views would hold them.
struct ControllerState {
    std::string config;
    std::string l2;
};

ControllerState StateSentIn(const CtrlSim::ControllerSim& controller, size_t connection, uint32_t sessionId)
{
    DpSim::ConfigView configView;
    DpSim::L2View l2View;
    for (const CtrlSim::SentMessage& msg : controller.Sent()) {
        if (msg.connection != connection || msg.sessionId != sessionId || msg.type != CtrlSim::MsgType::AppData ||
            msg.body.empty()) {
            continue;
        }
        const void* payload = msg.body.data() + 1;
        const int size = static_cast<int>(msg.body.size() - 1);
        if (msg.protocolId == CtrlSim::ConfigHandler::ProtocolId) {
            config::CcpLcpZunConfigMsg update;
            EXPECT_TRUE(update.ParseFromArray(payload, size));
            for (const auto& delta : update.entity_property()) {
                configView.Apply(delta);
            }
        } else if (msg.protocolId == CtrlSim::L2Handler::ProtocolId) {
            CtrlSim::L2Handler::L2UpdateMsg update;
            EXPECT_TRUE(update.ParseFromArray(payload, size));
            l2View.Apply(update);
        }
    }
    return {configView.Describe(), L2Text(l2View)};
}

// The controller knows exactly `vifs`, each with its address and MAC.
bool KnowsVifs(const CtrlSim::ConfigHandler::VifView& view, const std::map<std::string, DpSim::LocalState::Vif>& vifs)
{
    if (view.size() != vifs.size()) {
        return false;
    }
    for (const auto& [id, vif] : vifs) {
        const auto found = view.find(id);
        if (found == view.end()) {
            return false;
        }
        const auto ip = found->second.find(config::EntityStateMsg::VIF_IP);
        const auto mac = found->second.find(config::EntityStateMsg::VIF_MAC);
        if (ip == found->second.end() || mac == found->second.end() || ip->second.vif_ips_size() != 1 ||
            ip->second.vif_ips(0).ipv4() != vif.ips.at(0) || mac->second.vif_macs_size() != 1 ||
            mac->second.vif_macs(0).mac() != vif.macs.at(0)) {
            return false;
        }
    }
    return true;
}

// The data path holds the config session up with the controller at `address`.
bool SessionUpWith(const DpSim::DataPathView& view, const std::string& address)
{
    const auto session = view.Session(lcp::CcpSessionStateMsg::CONFIG_SESSION, 0);
    return session && session->session_state() == lcp::CcpSessionStateMsg::SESSION_LINKUP &&
           session->controller_ip().ip().ipv4() == ntohl(inet_addr(address.c_str()));
}

class EndToEndTest : public testing::Test {
protected:
    // Controllers with one logical switch each, `prepare`d before the daemon
    // starts, and a data path that speaks first only when told to.
    void StartAgent(size_t controllers = 1, const std::function<void(CtrlSim::ControllerSim&)>& prepare = nullptr)
    {
        for (size_t i = 0; i < controllers; ++i) {
            auto& controller = _agent.AddController(static_cast<int>(i + 1));
            controller.Config().SetConfiguration({LogicalSwitch(1, kVni)});
            if (prepare) {
                prepare(controller);
            }
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
    // The test plays the controller's side of the session and the config channels.
    StartAgent(1, [](CtrlSim::ControllerSim& controller) {
        controller.Session().SetAutoAnswer(false);
        controller.Session().SetSharding(0, {{controller.Address(), 0, 1}});
        controller.Config().SetAutoAnswer(false);
    });
    auto& controller = _agent.Controller(0);
    ASSERT_TRUE(_dataPath->WaitForAccepted(1, kLong)) << _agent.Daemon().Stdout();
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Session: connection 127.0.0.1:0 is ready", kLong));

    // The data path speaks first.
    ASSERT_EQ("", _dataPath->SetVif("vif-1", Vif(0x0A000001, 0x005056000001)));
    const SteadyTime dataPathSpoke = std::chrono::steady_clock::now();
    ASSERT_TRUE(_dataPath->SendFullSync());
    const auto open = controller.WaitForMessage(AgentHarness::IsOpen, kLong);
    ASSERT_TRUE(open) << controller.Summary() << _agent.Daemon().Stdout();
    ASSERT_TRUE(dataPathSpoke <= open->received) << "the Open went out before the data path spoke";

    // Open ACK; the sharding, taken in OPEN_ACK already; then MASTER_CONTROLLER,
    // which alone makes the session READY.
    ASSERT_TRUE(controller.SendMessage(CtrlSim::SessionHandler::Ack(open->header.sessionId)));
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Session, Session state transmits from OPEN to OPEN_ACK", kLong));
    const auto sharding = controller.Session().ShardingUpdate();
    ASSERT_TRUE(sharding && controller.SendMessage(*sharding));
    ASSERT_TRUE(controller.SendMessage(
        CtrlSim::SessionHandler::MasterUpdate(controller.Address(), open->header.sessionId)));
    const auto hostEnd = controller.WaitForMessage(IsHostFullSyncEnd, kLong);
    ASSERT_TRUE(hostEnd) << controller.Summary() << _agent.Daemon().Stdout();

    // The controller's configuration, and its FullSync End only once the host
    // has taken the configuration in: the data path must not see it before.
    config::CcpLcpZunConfigMsg configuration;
    *configuration.add_entity_property() = LogicalSwitch(1, kVni);
    ASSERT_TRUE(controller.Config().Push(configuration));
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Config: receive protobuf update from controller", kLong));
    ASSERT_TRUE(controller.Config().SendFullSyncEnd());
    const auto fullSync = _dataPath->WaitForMessage(DpSim::DataPathSim::IsFullSync(), kLong);
    ASSERT_TRUE(fullSync) << _dataPath->Summary() << _agent.Daemon().Stdout();
    // What comes later is a delta, queued behind anything the handshake sent.
    config::CcpLcpZunConfigMsg later;
    *later.add_entity_property() = LogicalSwitch(2, kVni + 1);
    ASSERT_TRUE(controller.Config().Push(later));
    com::corvid::zun::UuidMsg second;
    second.set_left(0x1111);
    second.set_right(2);
    ASSERT_TRUE(_dataPath->WaitForView(
        [&](const DpSim::DataPathView& view) { return view.Config().HasEntity(second); }, kLong))
        << _dataPath->Summary();

    // Both simulators' records, in one order.
    const std::vector<CtrlSim::SentMessage> sent = controller.Sent();
    const std::vector<CtrlSim::RecordedMessage> received = controller.Messages();
    auto sentAt = [&](const std::function<bool(const CtrlSim::SentMessage&)>& match) -> std::optional<SteadyTime> {
        const auto found = std::find_if(sent.begin(), sent.end(), match);
        return found == sent.end() ? std::nullopt : std::optional<SteadyTime>(found->queued);
    };
    auto receivedAt = [&](bool (*match)(const CtrlSim::RecordedMessage&)) -> std::optional<SteadyTime> {
        const auto found = std::find_if(received.begin(), received.end(), match);
        return found == received.end() ? std::nullopt : std::optional<SteadyTime>(found->received);
    };
    const std::vector<std::pair<const char*, std::optional<SteadyTime>>> order = {
        {"the data path's first message", dataPathSpoke},
        {"the host's Open", open->received},
        {"Open ACK", sentAt([](const auto& m) { return IsControl(m, 257, 2); })},
        {"the sharding assignment",
         sentAt([](const auto& m) { return IsSessionUpdate(m, config::CcpLcpZunConfigMsg::SHARDING_ASSIGNMENT); })},
        {"MASTER_CONTROLLER",
         sentAt([](const auto& m) { return IsSessionUpdate(m, config::CcpLcpZunConfigMsg::MASTER_CONTROLLER); })},
        {"the host's VIF state", receivedAt(IsVifState)},
        {"the host's FullSync End", hostEnd->received},
        {"the controller's configuration", sentAt([](const auto& m) { return m.Is(CtrlSim::MsgType::AppData, 256); })},
        {"the controller's FullSync End", sentAt([](const auto& m) { return IsControl(m, 256, 4); })},
        {"the data path's full sync", fullSync->received},
    };
    auto micros = [&](SteadyTime t) {
        return std::chrono::duration_cast<std::chrono::microseconds>(t - dataPathSpoke).count();
    };
    for (size_t i = 0; i < order.size(); ++i) {
        ASSERT_TRUE(order[i].second) << order[i].first << " is missing\n" << controller.Summary();
        if (i > 0) {
            EXPECT_TRUE(*order[i - 1].second <= *order[i].second)
                << order[i].first << " (" << micros(*order[i].second) << " us) came before " << order[i - 1].first
                << " (" << micros(*order[i - 1].second) << " us)";
        }
    }

    // One full sync, the first thing the data path got, with the
    // configuration and the session up.
    EXPECT_EQ(0u, fullSync->index);
    EXPECT_EQ(1, fullSync->headerType);
    EXPECT_EQ(1u, FullSyncCount(_dataPath->Messages())) << _dataPath->Summary();
    ASSERT_EQ(1, fullSync->msg.remote_config_update_size()) << fullSync->ToString();
    EXPECT_EQ(kVni, fullSync->msg.remote_config_update(0).property(0).ls_vni().vni());
    DpSim::DataPathView atFullSync;
    atFullSync.Apply(fullSync->msg, true);
    EXPECT_TRUE(SessionUpWith(atFullSync, controller.Address())) << fullSync->ToString();
    EXPECT_EQ(1u, controller.Config().State().view.count("vif-1")) << controller.Config().State().ToString();
    EXPECT_TRUE(controller.Violations().empty()) << controller.Summary();
    EXPECT_TRUE(_dataPath->Violations().empty()) << _dataPath->Summary();
}

TEST_F(EndToEndTest, SilentDataPathKeepsTheSessionClosed)
{
    StartAgent();
    ASSERT_TRUE(_dataPath->WaitForAccepted(1, kLong));
    ASSERT_TRUE(_agent.Daemon().WaitForStdout("Session: connection 127.0.0.1:0 is ready", kLong));
    EXPECT_FALSE(_agent.Controller(0).WaitForMessage(AgentHarness::IsOpen, 3s));
    EXPECT_TRUE(_dataPath->Messages().empty());
}

TEST_F(EndToEndTest, StateFlowsBothWaysAfterTheHandshake)
{
    StartAgent();
    ASSERT_EQ("", _dataPath->SetVif("vif-1", Vif(0x0A000001, 0x005056000001)));
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

    // Road back: a VIF seen by the data path reaches the controller, as a
    // delta of the session and not in a full sync.
    ASSERT_EQ("", _dataPath->SetVif("vif-9", Vif(0x0A000009, 0x005056000009)));
    ASSERT_TRUE(controller.Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.view.count("vif-9") == 1; }, kLong))
        << controller.Config().State().ToString();
    const auto state = controller.Config().State();
    EXPECT_TRUE(KnowsVifs(state.view, {{"vif-1", Vif(0x0A000001, 0x005056000001)},
                                       {"vif-9", Vif(0x0A000009, 0x005056000009)}}))
        << state.ToString();
    const auto update = std::find_if(state.updates.begin(), state.updates.end(), [](const auto& u) {
        return std::any_of(u.msg.entity_state().begin(), u.msg.entity_state().end(),
                           [](const auto& vif) { return vif.entity_id() == "vif-9"; });
    });
    ASSERT_NE(state.updates.end(), update);
    EXPECT_FALSE(update->inFullSync);
    // A full sync would state vif-1 again.
    EXPECT_TRUE(std::all_of(update->msg.entity_state().begin(), update->msg.entity_state().end(),
                            [](const auto& vif) { return vif.entity_id() == "vif-9"; }))
        << update->msg.ShortDebugString();
    EXPECT_TRUE(controller.Violations().empty()) << controller.Summary();
    EXPECT_TRUE(_dataPath->Violations().empty()) << _dataPath->Summary();
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
    const std::string outBytes = packetOut.SerializeAsString();
    ASSERT_TRUE(controller.Traceflow().SendPacketOut(CtrlSim::Bytes(outBytes.begin(), outBytes.end())));
    const auto out = _dataPath->WaitForMessage(
        [](const DpSim::ReceivedMessage& msg) { return msg.msg.has_traceflow_update(); }, kLong);
    ASSERT_TRUE(out) << _dataPath->Summary();
    EXPECT_EQ(outBytes, out->msg.traceflow_update().SerializeAsString());

    lcp::LcpDpMsg observation;
    auto* packetIn = observation.mutable_traceflow_update()->mutable_packet_in();
    packetIn->mutable_observation()->set_timestamp(42);
    packetIn->mutable_observation()->mutable_forwarded()->set_uplink_name("uplink-1");
    packetIn->mutable_meta()->mutable_round_id()->set_left(7);
    ASSERT_TRUE(_dataPath->SendMessage(1, observation));
    ASSERT_TRUE(controller.Traceflow().WaitForObservations(1, kLong)) << _agent.Daemon().Stdout();
    const auto observations = controller.Traceflow().Observations();
    ASSERT_EQ(1u, observations.size());
    const std::string inBytes = observation.traceflow_update().SerializeAsString();
    EXPECT_EQ(CtrlSim::Bytes(inBytes.begin(), inBytes.end()), observations[0].payload);
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
        [&](const DpSim::DataPathView& view) { return SessionUpWith(view, second.Address()); }, kLong))
        << _dataPath->Summary();
}

TEST_F(EndToEndTest, LosingTheDataPathEndsTheDaemonAndARestartResynchronises)
{
    StartAgent();
    Handshake();
    _dataPath->SetAutoFullSync(true);
    ASSERT_TRUE(_dataPath->CloseConnection());
    ASSERT_TRUE(_agent.Daemon().WaitExit(kLong, "signal " + std::to_string(SIGTERM)));

    // What a supervisor does: start it again.
    _agent.Restart();
    ASSERT_TRUE(_dataPath->WaitForAccepted(2, kLong)) << _agent.Daemon().Stdout() << _agent.Daemon().Stderr();
    EXPECT_TRUE(_dataPath->WaitForView([](const DpSim::DataPathView& view) { return view.FullSyncs() >= 2; }, kLong))
        << _dataPath->Summary() << _agent.Daemon().Stdout();
}

// The VMs a controller states for the VNI at `step`: one moves on, one stays.
std::vector<CtrlSim::L2Handler::Vm> VmsAt(int step)
{
    return {{0x005056AA0000u + static_cast<uint64_t>(step), 0x0A000100u + static_cast<uint32_t>(step),
             0xC0A80100u + static_cast<uint32_t>(step % 4)},
            {0x005056BB0000u, 0x0A000200u, 0xC0A80200u}};
}

// Each flap moves the session to the other controller, or, now and then,
// drops the connection, which the session app retries after its 5 s. Between
// flaps the cluster's configuration, the VNI's VMs and the host's VIFs change,
// and at every session the data path's view must come to equal what the
// controller stated on it, and the controller must know the host's VIFs.
TEST_F(EndToEndTest, HundredSessionFlapsLeaveTheDataPathInStepAndNoLeftovers)
{
    constexpr int kFlaps = 100;
    constexpr int kDropEvery = 30;  // each drop costs the retry's 5 s
    std::map<uint64_t, uint32_t> switches = {{1, kVni}};  // the cluster's configuration: VNI by switch
    std::map<std::string, DpSim::LocalState::Vif> vifs;    // the host's VIFs
    auto configuration = [&] {
        std::vector<config::ZunConfigDeltaMsg> deltas;
        for (const auto& [id, vni] : switches) {
            for (auto& delta : CreatedSwitch(id, vni)) {
                deltas.push_back(std::move(delta));
            }
        }
        return deltas;
    };
    auto configure = [&] {
        _agent.Controller(0).Config().SetConfiguration(configuration());
        _agent.Controller(1).Config().SetConfiguration(configuration());
    };
    StartAgent(2, [&](CtrlSim::ControllerSim& controller) { controller.Config().SetConfiguration(configuration()); });
    Handshake();
    CtrlSim::ControllerSim* current = _agent.SessionController();
    ASSERT_TRUE(current);
    DpSim::LocalState::L2UpdateMappingItemMsg vtep;
    vtep.mutable_vtep()->mutable_vtep_ip()->set_ipv4(0xC0A80001);
    ASSERT_EQ("", _dataPath->AddL2(kVni, 3, vtep));

    // The session on `controller` has run its full syncs: state the VNI and
    // change the configuration by a delta, then wait for both ends to agree.
    auto settle = [&](CtrlSim::ControllerSim& controller, int step) {
        // The session's own: a connection may outlive a session and serve the next.
        const auto session = controller.Config().State();
        const size_t connection = session.connection.value_or(SIZE_MAX);
        const uint32_t sessionId = session.sessionId.value_or(0);
        ASSERT_TRUE(controller.L2().WaitUntil(
            [&](const CtrlSim::L2Handler::HostState& s) {
                return s.connection == connection && s.sessionId == sessionId && s.view.vnis.count(kVni) > 0;
            },
            kLong))
            << "step " << step << "\n" << controller.L2().State().ToString();
        ASSERT_TRUE(controller.L2().PushFullSync(kVni, VmsAt(step)));
        ASSERT_TRUE(controller.L2().PushDelta(kVni, {{0x005056CC0000u + static_cast<uint64_t>(step), 0x0A000300u,
                                                      0xC0A80300u}},
                                              {}));
        // Switch 20 comes, changes its VNI and goes by deltas.
        config::CcpLcpZunConfigMsg delta;
        const uint32_t vni = 8000 + static_cast<uint32_t>(step);
        if (step % 3 == 2) {
            *delta.add_entity_property() = LogicalSwitch(20, vni);
            delta.mutable_entity_property(0)->set_operation(config::ZunConfigDeltaMsg::DELETE_OP);
            delta.mutable_entity_property(0)->clear_property();
            switches.erase(20);
        } else {
            const auto deltas = switches.count(20) > 0 ? std::vector<config::ZunConfigDeltaMsg>{LogicalSwitch(20, vni)}
                                                       : CreatedSwitch(20, vni);
            for (const auto& change : deltas) {
                *delta.add_entity_property() = change;
            }
            switches[20] = vni;
        }
        ASSERT_TRUE(controller.Config().Push(delta));
        configure();

        const ControllerState stated = StateSentIn(controller, connection, sessionId);
        ASSERT_TRUE(_dataPath->WaitForView(
            [&](const DpSim::DataPathView& view) {
                return view.Config().Describe() == stated.config && L2Text(view.L2()) == stated.l2 &&
                       SessionUpWith(view, controller.Address());
            },
            kLong))
            << "step " << step << "\nexpected\n" << stated.config << stated.l2 << "\ngot\n"
            << _dataPath->View().Describe();
        ASSERT_TRUE(controller.Config().WaitUntil(
            [&](const CtrlSim::ConfigHandler::HostState& s) { return KnowsVifs(s.view, vifs); }, kLong))
            << "step " << step << "\n" << controller.Config().State().ToString();
    };
    auto totalEnds = [&] {
        return _agent.Controller(0).Config().State().fullSyncEnds + _agent.Controller(1).Config().State().fullSyncEnds;
    };

    settle(*current, 0);
    ASSERT_FALSE(HasFatalFailure());
    const pid_t pid = _agent.Daemon().Pid();
    const auto before = FenRELTest::ProcessFootprint::Of(pid);

    for (int flap = 0; flap < kFlaps; ++flap) {
        SCOPED_TRACE("flap " + std::to_string(flap));
        const int step = flap + 1;
        // The configuration the next session's full sync states: a switch
        // changes its VNI, another comes and goes.
        switches[1] = kVni + static_cast<uint32_t>(step % 5);
        if (step % 2 == 0) {
            switches[2] = 6000 + static_cast<uint32_t>(step);
        } else {
            switches.erase(2);
        }
        configure();

        const size_t ends = totalEnds();
        const size_t endsOnFirst = _agent.Controller(0).Config().State().fullSyncEnds;
        CtrlSim::ControllerSim& other = current == &_agent.Controller(0) ? _agent.Controller(1) : _agent.Controller(0);
        if (flap % kDropEvery == kDropEvery - 1) {
            const size_t seen = _dataPath->Messages().size();
            const SteadyTime dropped = std::chrono::steady_clock::now();
            ASSERT_TRUE(current->CloseConnection());
            // The loss reaches the data path as the session going down, before
            // the retry that comes 5 s later.
            const auto down = _dataPath->WaitForMessage(
                [](const DpSim::ReceivedMessage& msg) {
                    return std::any_of(msg.msg.session_state().begin(), msg.msg.session_state().end(),
                                       [](const lcp::CcpSessionStateMsg& session) {
                                           return session.session_type() == lcp::CcpSessionStateMsg::CONFIG_SESSION &&
                                                  session.session_state() == lcp::CcpSessionStateMsg::SESSION_LINKDOWN;
                                       });
                },
                kLong, seen);
            ASSERT_TRUE(down) << _dataPath->Summary();
            EXPECT_TRUE(down->received - dropped < 5s)
                << "down after " << std::chrono::duration_cast<std::chrono::milliseconds>(down->received - dropped).count()
                << " ms";
        } else {
            ASSERT_TRUE(current->SendMessage(
                CtrlSim::SessionHandler::MasterUpdate(other.Address(), current->Session().LastSessionId())));
        }
        // The host's VIFs change meanwhile; what the session misses, the next full sync states.
        const std::string vif = "vif-" + std::to_string(flap % 3);
        if (flap % 4 == 3 && vifs.erase(vif) > 0) {
            ASSERT_EQ("", _dataPath->RemoveVif(vif));
        } else {
            vifs[vif] = Vif(0x0A000000u + static_cast<uint32_t>(flap), 0x005056000000u + static_cast<uint64_t>(flap));
            ASSERT_EQ("", _dataPath->SetVif(vif, vifs[vif]));
        }

        ASSERT_TRUE(WaitFor([&] { return totalEnds() > ends; }, kLong, "the next session's full sync"))
            << current->Summary() << other.Summary();
        // A move goes to the other controller; the retry after a drop to either.
        current = _agent.Controller(0).Config().State().fullSyncEnds > endsOnFirst ? &_agent.Controller(0)
                                                                                     : &_agent.Controller(1);
        settle(*current, step);
        ASSERT_FALSE(HasFatalFailure());
    }

    // One full sync in the link's life, the rest deltas; nobody saw a fault.
    EXPECT_EQ(1u, FullSyncCount(_dataPath->Messages()));
    EXPECT_TRUE(_agent.Controller(0).Violations().empty()) << _agent.Controller(0).Summary();
    EXPECT_TRUE(_agent.Controller(1).Violations().empty()) << _agent.Controller(1).Summary();
    EXPECT_TRUE(_dataPath->Violations().empty()) << _dataPath->Summary();
    EXPECT_TRUE(_agent.Daemon().IsRunning());
    EXPECT_TRUE(before.GrowsAtMost(FenRELTest::ProcessFootprint::Of(pid), 2, 8 * 1024));
}

}  // namespace
