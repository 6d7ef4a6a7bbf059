#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "AgentHarness.h"
#include "Hello.h"
#include "WaitFor.h"

// The real daemon against simulated controllers over TLS on loopback.
namespace {

using namespace std::chrono_literals;
using FenRELTest::AgentHarness;

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

TEST(AgentChannelTest, SilentControllerIsResetAfterThreeKeepAliveIntervals)
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
    // And it comes back.
    EXPECT_TRUE(controller.WaitForUp(1, 10s)) << controller.Summary();
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

}  // namespace
