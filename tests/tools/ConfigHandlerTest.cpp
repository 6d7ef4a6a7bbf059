#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ControllerSim.h"
#include "config_entity_properties.pb.h"

namespace CtrlSim {
namespace {

namespace config = com::corvid::zun::config;

// One connection as the handlers see it, keeping what they send and report.
class FakePeer : public Peer {
public:
    size_t Index() const override { return 0; }
    bool IsOpen() const override { return true; }
    void Send(const OutMessage& msg) override { sent.push_back(msg); }
    void SendRaw(Bytes) override {}
    void Close(const std::string&) override {}
    std::chrono::steady_clock::time_point LastSendTime() const override { return {}; }
    void RunAfter(std::chrono::milliseconds, std::function<void()>) override {}
    void ReportViolation(const std::string& text) override { violations.push_back(text); }

    std::vector<OutMessage> sent;
    std::vector<std::string> violations;
};

RecordedMessage FromHost(uint16_t type, uint32_t sessionId, Bytes body)
{
    RecordedMessage msg;
    msg.header.type = type;
    msg.header.protocolId = ConfigHandler::ProtocolId;
    msg.header.sessionId = sessionId;
    msg.body = std::move(body);
    msg.frameCount = 1;
    return msg;
}

RecordedMessage Update(uint32_t sessionId, const config::CcpLcpZunConfigMsg& msg)
{
    const std::string bytes = msg.SerializeAsString();
    Bytes body(1, 0);
    body.insert(body.end(), bytes.begin(), bytes.end());
    return FromHost(MsgType::AppData, sessionId, body);
}

// ENTITY_STATE of VIFs (op '+' or '-', id, MAC or 0 for none).
RecordedMessage Vifs(uint32_t sessionId, const std::vector<std::tuple<char, std::string, uint64_t>>& vifs)
{
    config::CcpLcpZunConfigMsg msg;
    msg.set_type(config::CcpLcpZunConfigMsg::ENTITY_STATE);
    for (const auto& [op, id, mac] : vifs) {
        auto* vif = msg.add_entity_state();
        vif->set_operation(op == '+' ? config::ZunStateDeltaMsg::UPDATE_OP : config::ZunStateDeltaMsg::DELETE_OP);
        vif->set_entity_id(id);
        vif->set_entity_type(config::VIF);
        if (mac != 0) {
            auto* state = vif->add_state();
            state->set_state_type(config::EntityStateMsg::VIF_MAC);
            state->add_vif_macs()->set_mac(mac);
        }
    }
    return Update(sessionId, msg);
}

RecordedMessage HostEnd(uint32_t sessionId)
{
    return FromHost(MsgType::SessionControl, sessionId, {ConfigHandler::FullSyncEnd});
}

// "id:mac,mac;id:" for each VIF of the view.
std::string View(const ConfigHandler& handler)
{
    std::string text;
    for (const auto& [id, states] : handler.State().view) {
        text += id + ":";
        for (const auto& entry : states) {
            text += std::to_string(entry.second.vif_macs(0).mac()) + ",";
        }
        text += ";";
    }
    return text;
}

TEST(ConfigHandlerTest, ViewIsReplacedByEachFullSyncAndChangedAfterIt)
{
    ControllerSim sim;
    ConfigHandler& handler = sim.Config();
    FakePeer peer;
    handler.SetConfiguration({config::ZunConfigDeltaMsg()});
    handler.OnMessage(peer, Vifs(5, {{'+', "a", 0}, {'+', "a", 7}, {'+', "b", 0}}));
    EXPECT_EQ("", View(handler));  // not before the host's FullSync End
    handler.OnMessage(peer, HostEnd(5));
    EXPECT_EQ("a:7,;b:;", View(handler));
    // Answered with the configuration, then our FullSync End, in session 5.
    ASSERT_EQ(2u, peer.sent.size());
    EXPECT_EQ(MsgType::AppData, peer.sent[0].type);
    EXPECT_EQ(MsgType::SessionControl, peer.sent[1].type);
    EXPECT_EQ(Bytes{ConfigHandler::FullSyncEnd}, peer.sent[1].body);
    EXPECT_EQ(5u, peer.sent[1].sessionId);

    handler.OnMessage(peer, Vifs(5, {{'-', "a", 7}, {'-', "b", 0}}));
    EXPECT_EQ("a:;", View(handler));
    handler.OnMessage(peer, Vifs(6, {{'+', "c", 9}}));  // a new session's full sync
    EXPECT_EQ("a:;", View(handler));
    handler.OnMessage(peer, HostEnd(6));
    EXPECT_EQ("c:9,;", View(handler));
    handler.OnMessage(peer, HostEnd(7));  // no VIF at all
    EXPECT_EQ("", View(handler));
    EXPECT_EQ(3u, handler.State().fullSyncEnds);
    EXPECT_TRUE(peer.violations.empty());
}

// What the agent must not send is recorded against it, and not answered.
TEST(ConfigHandlerTest, WhatTheHostMustNotSendIsAViolation)
{
    config::CcpLcpZunConfigMsg property;
    property.set_type(config::CcpLcpZunConfigMsg::ENTITY_PROPERTY);
    config::CcpLcpZunConfigMsg tor;
    tor.set_type(config::CcpLcpZunConfigMsg::ENTITY_STATE);
    tor.add_entity_state()->set_entity_type(config::TOR);
    for (const RecordedMessage& msg :
         {FromHost(MsgType::KeepAlive, 5, {}), FromHost(MsgType::SessionControl, 5, {1}),
          FromHost(MsgType::SessionControl, 5, {4, 0}), FromHost(MsgType::SessionControl, FrameHeader::NoSession, {4}),
          FromHost(MsgType::AppData, 5, {1, 8, 6}), Update(5, property), Update(5, tor)}) {
        SCOPED_TRACE(msg.ToString());
        ControllerSim sim;
        FakePeer peer;
        sim.Config().OnMessage(peer, msg);
        EXPECT_EQ(1u, peer.violations.size());
        EXPECT_TRUE(peer.sent.empty());
    }
    ControllerSim sim;
    FakePeer peer;
    sim.Config().SetAutoAnswer(false);
    sim.Config().OnMessage(peer, HostEnd(5));
    sim.Config().OnMessage(peer, HostEnd(5));
    EXPECT_EQ(std::vector<std::string>{"config: second FullSync End in session 5"}, peer.violations);
}

}  // namespace
}  // namespace CtrlSim
