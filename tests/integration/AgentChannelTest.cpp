#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AgentHarness.h"
#include "Hello.h"
#include "ProcessFootprint.h"
#include "WaitFor.h"

// The real daemon against simulated controllers over TLS on loopback.
namespace {

using namespace std::chrono_literals;
using FenRELTest::AgentHarness;
using FenRELTest::ProcessFootprint;
using FenRELTest::WaitFor;

TEST(AgentChannelTest, FirstFrameIsTheHelloWithTheNodeUuidAndTheSessionFeature)
{
    AgentHarness agent;
    auto& controller = agent.AddController(1);
    agent.WriteControllerInfo();
    agent.Start(AgentHarness::SessionOnlyConfig());

    auto first = controller.WaitForMessage([](const CtrlSim::RecordedMessage&) { return true; }, 20s);
    ASSERT_TRUE(first) << agent.Daemon().Stdout();
    const auto hello = CtrlSim::Hello::Decode(*first);
    ASSERT_TRUE(hello) << first->ToString();
    // 40 bytes and the session app's 5-byte feature, version 1.
    EXPECT_EQ(45u, first->raw.size());
    ASSERT_EQ(1u, hello->features.size());
    EXPECT_EQ(257, hello->features[0].appId);
    EXPECT_EQ(1, hello->features[0].version);
    ASSERT_TRUE(hello->nodeUuid);
    EXPECT_EQ(AgentHarness::NodeUuid(), CtrlSim::UuidToString(*hello->nodeUuid));
    EXPECT_TRUE(agent.Daemon().WaitForStdout("Core: Controller is ready: 127.0.0.1:0", 10s));
    EXPECT_TRUE(controller.Violations().empty()) << controller.Summary();
}

TEST(AgentChannelTest, ControllerWithAnotherCertificateIsRefused)
{
    AgentHarness agent;
    auto& controller = agent.AddController(1);
    const auto impostor = CtrlSim::SelfSignedCert::Make(agent.Root(), "impostor");
    agent.WriteControllerInfo(impostor.certPem);
    agent.Start(AgentHarness::SessionOnlyConfig());
    EXPECT_TRUE(agent.Daemon().WaitForStdout("errorCode=\"LCP00107\"] certificate verifying failed", 20s));
    EXPECT_TRUE(agent.Daemon().WaitForStdout("TCP connection retry: 127.0.0.1:0.", 10s));
    EXPECT_EQ(0u, controller.MessageCount());
}

TEST(AgentChannelTest, SilentControllerIsResetAfterThreeKeepAliveIntervalsAndReconnectedAfterASecond)
{
    AgentHarness agent;
    auto& controller = agent.AddController(1);
    auto hello = CtrlSim::Hello::ControllerDefault();
    hello.keepAliveInterval = 1;
    controller.Core().SetHello(hello);
    controller.Core().SetKeepAliveEnabled(false);
    agent.WriteControllerInfo();
    agent.Start(AgentHarness::SessionOnlyConfig());
    ASSERT_TRUE(controller.WaitForClosed(0, 20s)) << controller.Summary();
    EXPECT_TRUE(agent.Daemon().WaitForStdout("Core: no KeepAlive, connection 127.0.0.1:0 is reset by agent", 10s));
    ASSERT_TRUE(controller.WaitForUp(1, 10s)) << controller.Summary();
    const auto connections = controller.Connections();
    const auto silence = connections[0].closed.value() - connections[0].established.value();
    EXPECT_GE(silence, 2500ms);  // three intervals, sampled every quarter
    EXPECT_LT(silence, 5000ms);
    const auto gap = connections[1].accepted - connections[0].closed.value();
    EXPECT_GE(gap, 900ms);
    EXPECT_LT(gap, 2500ms);
}

TEST(AgentChannelTest, BadFramesResetTheConnectionWithTheirReason)
{
    AgentHarness agent;
    auto& controller = agent.AddController(1);
    agent.WriteControllerInfo();
    agent.Start(AgentHarness::SessionOnlyConfig());
    ASSERT_TRUE(agent.Daemon().WaitForStdout("Controller is ready: 127.0.0.1:0", 20s));

    ASSERT_TRUE(controller.SendRaw({1, 0xBA, 0xDB, 0xEF, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 2, 0, 15, 0, 0}));
    EXPECT_TRUE(agent.Daemon().WaitForStdout(
        "errorCode=\"LCP00016\"] Received bad message on 127.0.0.1:0: wrong marker 186:219:239", 10s));
    ASSERT_TRUE(controller.WaitForUp(1, 10s)) << controller.Summary();
    ASSERT_TRUE(FenRELTest::WaitFor([&] { return agent.Daemon().CountInStdout("Controller is ready: 127.0.0.1:0") >= 2; },
                                    10s, "the second ready"));

    ASSERT_TRUE(controller.SendRaw({1, 0xBA, 0xDB, 0xEE, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 7, 0x10, 0x01, 0, 0}));
    EXPECT_TRUE(agent.Daemon().WaitForStdout(
        "errorCode=\"LCP00016\"] Received bad message on 127.0.0.1:0: wrong message length 4097", 10s));
    EXPECT_TRUE(controller.WaitForUp(2, 10s)) << controller.Summary();
}

TEST(AgentChannelTest, FramesToAControllerKeepToTheRateOfItsHello)
{
    // Rate 15 gives a bucket of 30 frames, refilled by 15 / 10 = 1 frame
    // every 100 ms. The VIF changes go out as one frame each, far more than
    // the bucket holds.
    constexpr uint16_t kRate = 15;
    constexpr size_t kVifs = 90;
    constexpr double kMarginFrames = 10;  // a second of the simulator reading late, bunching frames
    AgentHarness agent;
    auto& controller = agent.AddController(1);
    auto hello = CtrlSim::Hello::ControllerDefault();
    hello.msgFrequency = kRate;
    controller.Core().SetHello(hello);
    agent.WriteControllerInfo();
    auto& dataPath = agent.AddDataPath(true);
    agent.Start(AgentHarness::FullConfig());
    ASSERT_TRUE(controller.Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.fullSyncEnds > 0 && !s.inFullSync; }, 30s))
        << controller.Summary() << agent.Daemon().Stdout();

    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < kVifs; ++i) {
        DpSim::LocalState::Vif vif;
        vif.ips.push_back(0x0A000000 + static_cast<uint32_t>(i));
        vif.macs.push_back(0x005056000000 + i);
        ASSERT_EQ("", dataPath.SetVif("vif-" + std::to_string(i), vif));
    }
    // Every change arrives: the bucket keeps being refilled.
    ASSERT_TRUE(controller.Config().WaitUntil(
        [](const CtrlSim::ConfigHandler::HostState& s) { return s.view.size() >= kVifs; }, 30s))
        << controller.Config().State().ToString();

    std::vector<CtrlSim::SteadyTime> times;
    for (const auto& frame : controller.Frames()) {
        if (frame.received >= start) {
            times.push_back(frame.received);
        }
    }
    ASSERT_GE(times.size(), kVifs) << "the changes were not sent one frame each";
    // In every stretch of time between two frames, no more frames than a full
    // bucket and its refills at the announced rate.
    for (size_t first = 0; first < times.size(); ++first) {
        for (size_t last = first; last < times.size(); ++last) {
            const double seconds = std::chrono::duration<double>(times[last] - times[first]).count();
            const double allowed = 2.0 * kRate + kRate * seconds + kMarginFrames;
            ASSERT_LE(static_cast<double>(last - first + 1), allowed)
                << "frames " << first << " to " << last << " within " << seconds << " s";
        }
    }
}

TEST(AgentChannelTest, DroppedConnectionsComeBackAfterASecondAndLeaveNothingBehind)
{
    // 200 drops, spread over controllers in parallel: each one reconnects a
    // second after its drop.
    constexpr size_t kControllers = 8;
    constexpr size_t kRounds = 25;
    AgentHarness agent;
    for (size_t i = 0; i < kControllers; ++i) {
        // Our hello goes out first, so the agent is ready by the time its own
        // hello arrives here and the connection is dropped.
        agent.AddController(static_cast<int>(i + 1)).Core().SetHelloMode(CtrlSim::HelloMode::SendFirst);
    }
    agent.WriteControllerInfo();
    agent.AddDataPath(true);
    agent.Start(AgentHarness::FullConfig());
    // The session walks over every controller; each one it leaves keeps its
    // connection.
    ASSERT_TRUE(WaitFor([&] { return agent.SessionController() != nullptr; }, 30s, "the session"))
        << agent.Daemon().Stdout();
    CtrlSim::ControllerSim* current = agent.SessionController();
    for (size_t i = 0; i < kControllers; ++i) {
        if (&agent.Controller(i) != current) {
            ASSERT_TRUE(agent.MoveSession(*current, agent.Controller(i), 30s));
            current = &agent.Controller(i);
        }
    }

    // The newest connection of every controller: up, the agent's hello in, dropped.
    const auto isHello = CtrlSim::ControllerSim::MessageOf(CtrlSim::MsgType::Hello, 0);
    std::vector<size_t> drops(kControllers);
    const auto dropRound = [&] {
        for (size_t i = 0; i < kControllers; ++i) {
            auto& controller = agent.Controller(i);
            const size_t index = drops[i];
            const bool helloIn = controller.WaitUntil(
                [&](const CtrlSim::Recording& r) {
                    return std::any_of(r.messages.begin(), r.messages.end(), [&](const CtrlSim::RecordedMessage& m) {
                        return m.connection == index && isHello(m);
                    });
                },
                20s);
            if (!helloIn || !controller.CloseConnection(index)) {
                return testing::AssertionFailure() << "connection " << index << "\n" << controller.Summary();
            }
            ++drops[i];
        }
        return testing::AssertionSuccess();
    };
    // The reconnection after each drop, and the agent ready on it.
    const auto allReady = [&] {
        size_t connections = 0;
        for (size_t i = 0; i < kControllers; ++i) {
            if (!agent.Controller(i).WaitForUp(drops[i], 20s)) {
                return testing::AssertionFailure() << "connection " << drops[i] << "\n"
                                                   << agent.Controller(i).Summary();
            }
            connections += drops[i] + 1;
        }
        return WaitFor([&] { return agent.Daemon().CountInStdout("Core: Controller is ready") >= connections; }, 20s,
                       std::to_string(connections) + " ready connections");
    };

    // One round first, so that what a reconnection allocates once is in the
    // starting figures.
    ASSERT_TRUE(dropRound());
    ASSERT_TRUE(allReady());
    const pid_t pid = agent.Daemon().Pid();
    const auto before = ProcessFootprint::Of(pid);
    for (size_t round = 0; round < kRounds; ++round) {
        ASSERT_TRUE(dropRound());
    }
    // Every connection became ready before its drop, and again after it.
    ASSERT_TRUE(allReady());
    EXPECT_TRUE(before.GrowsAtMost(ProcessFootprint::Of(pid), 2, 3 * 1024));

    for (size_t i = 0; i < kControllers; ++i) {
        const auto connections = agent.Controller(i).Connections();
        for (size_t index = 0; index < drops[i]; ++index) {
            // The simulator stamps its close just after the FIN went out.
            const double gapMs = std::chrono::duration<double, std::milli>(connections.at(index + 1).accepted -
                                                                           connections[index].closed.value())
                                     .count();
            EXPECT_GE(gapMs, 995) << agent.Controller(i).Address() << " connection " << index;
            EXPECT_LT(gapMs, 3000) << agent.Controller(i).Address() << " connection " << index;
        }
    }
    EXPECT_TRUE(agent.Daemon().IsRunning());
}

}  // namespace
