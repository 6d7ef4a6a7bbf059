#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "CPDomainManager.h"
#include "DPAdapter.h"
#include "DPDomainManager.h"
#include "DpDomainFixture.h"
#include "GlobalLock.h"
#include "MsgDispatcher.h"
#include "RemoteSessionUpdate.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "ccp_lcp_l3.pb.h"
#include "traceflow.pb.h"

namespace FenRELTest {
namespace {

namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
using com::corvid::zun::lcp::CcpSessionStateMsg;
using FenREL::DPDomainManager;
using FenREL::MsgDispatcher;
using FenREL::RemoteSessionUpdate;

// Keeps what the manager hands over, one line per call.
class RecordingAdapter : public FenREL::DPAdapter {
public:
    bool Init(DPDomainManager*) override { return true; }
    void CPDomainInitFullSyncDone() override { calls.push_back("full sync"); }
    void RemoteConfigPropObserverImpl(const config::CcpLcpZunConfigMsg& msg) override
    {
        calls.push_back("config " + msg.ShortDebugString());
    }
    void RemoteL2Update(const l2::L2UpdateMsg& msg) override { calls.push_back("l2 " + msg.ShortDebugString()); }
    void RemoteSessionUpdate(const std::vector<CcpSessionStateMsg>& sessions) override
    {
        for (const auto& session : sessions) {
            calls.push_back("session " + session.ShortDebugString());
        }
    }
    void CPMsgProcessorImpl(uint32_t type, const google::protobuf::Message& msg) override
    {
        calls.push_back(std::to_string(type) + " " + msg.GetTypeName() + " " + msg.ShortDebugString());
    }

    std::vector<std::string> calls;
};

class DPDomainManagerTest : public DpDomainFixture {
protected:
    void SetUp() override { _manager = DPDomainManager::Init(&_adapter); }

    RecordingAdapter _adapter;
    DPDomainManager* _manager = nullptr;
};

TEST_F(DPDomainManagerTest, RemoteStateBeforeTheFirstConfigurationWaitsForTheFullSync)
{
    AddRemoteSwitch(1, 5001);
    AddRemoteVtep(5001, 0x0A000001);
    SetRemoteSession(RemoteSessionUpdate::CONFIG_SESSION, 0, RemoteSessionUpdate::STATE_UP, "10.1.2.3");
    EXPECT_TRUE(_adapter.calls.empty());

    // The config app's first complete update, through the control plane's end.
    FenREL::CPDomainManager::Get()->CPDomainInitFullSyncDone();
    EXPECT_TRUE(_manager->IsCPInitFullSyncDone());
    EXPECT_EQ(std::vector<std::string>{"full sync"}, _adapter.calls);

    config::CcpLcpZunConfigMsg config;
    l2::L2UpdateMsg l2;
    std::vector<CcpSessionStateMsg> sessions;
    {
        ZUNChannel::GlobalLockGuard lock;
        _manager->ReadAllCPData(config, l2, sessions);
    }
    EXPECT_EQ(config::CcpLcpZunConfigMsg::ENTITY_PROPERTY, config.type());
    // The entity as such, then its one property, each a full UPDATE_OP.
    ASSERT_EQ(2, config.entity_property_size()) << config.DebugString();
    for (const auto& delta : config.entity_property()) {
        EXPECT_EQ(config::ZunConfigDeltaMsg::UPDATE_OP, delta.operation());
        EXPECT_EQ(1u, delta.entity_id().left());
        EXPECT_EQ(~1ull, delta.entity_id().right());
        EXPECT_EQ(config::LOG_SWITCH, delta.entity_type());
    }
    EXPECT_EQ(0, config.entity_property(0).property_size());
    ASSERT_EQ(1, config.entity_property(1).property_size());
    EXPECT_EQ(config::EntityPropertyMsg::LS_VNI, config.entity_property(1).property(0).property_type());
    EXPECT_EQ(5001u, config.entity_property(1).property(0).ls_vni().vni());
    EXPECT_NE(std::string::npos, l2.ShortDebugString().find("ipv4: 167772161")) << l2.DebugString();
    ASSERT_EQ(1u, sessions.size());
    EXPECT_EQ(CcpSessionStateMsg::SESSION_LINKUP, sessions[0].session_state());

    // From now on every change goes to the adapter as it happens.
    _adapter.calls.clear();
    AddRemoteSwitch(2, 5002);
    SetRemoteSession(RemoteSessionUpdate::L2_SESSION, 5002, RemoteSessionUpdate::STATE_DOWN, "10.1.2.4");
    ASSERT_EQ(3u, _adapter.calls.size());
    EXPECT_EQ(0u, _adapter.calls[0].find("config type: ENTITY_PROPERTY")) << _adapter.calls[0];
    EXPECT_NE(std::string::npos, _adapter.calls[0].find("vni: 5002")) << _adapter.calls[0];
    EXPECT_EQ(0u, _adapter.calls[1].find("session session_type: L2_SESSION vni: 5002")) << _adapter.calls[1];
}

TEST_F(DPDomainManagerTest, OnlyTheRealisedEntityTypesReachTheAdapter)
{
    _manager->CPDomainInitFullSyncDone();
    _adapter.calls.clear();
    config::ZunConfigDeltaMsg rule;
    rule.set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
    *rule.mutable_entity_id() = Uuid(9);
    rule.set_entity_type(config::RULE);
    config::ZunConfigDeltaMsg port = rule;
    *port.mutable_entity_id() = Uuid(10);
    port.set_entity_type(config::LOG_SWITCH_PORT);
    {
        ZUNChannel::GlobalLockGuard lock;
        FenREL::StateCache::GetInstance()->GetConfigTable()->AtomicUpdateRemoteCache(
            std::vector<config::ZunConfigDeltaMsg>{rule}, false);
        FenREL::StateCache::GetInstance()->GetConfigTable()->AtomicUpdateRemoteCache(
            std::vector<config::ZunConfigDeltaMsg>{port}, false);
    }
    ASSERT_EQ(1u, _adapter.calls.size());
    EXPECT_NE(std::string::npos, _adapter.calls[0].find("entity_type: LOG_SWITCH_PORT")) << _adapter.calls[0];
}

struct SessionCase {
    int32_t type;
    uint32_t index;
    int32_t state;
    const char* ip;
    const char* expected;  // the message's short debug string
};

class SessionTranslationTest : public testing::TestWithParam<SessionCase> {};

TEST_P(SessionTranslationTest, RecordBecomesTheDataPathsSessionMessage)
{
    const SessionCase& c = GetParam();
    RemoteSessionUpdate update;
    update.sessionType = c.type;
    update.index = c.index;
    update.sessionState = c.state;
    update.controllerIp = c.ip;
    EXPECT_EQ(c.expected, DPDomainManager::ToSessionStateMsg(update).ShortDebugString());
}

// 10.1.2.3 in host order is 167838211; only state 2 is up.
INSTANTIATE_TEST_SUITE_P(
    Sessions, SessionTranslationTest,
    testing::Values(
        SessionCase{1, 0, 2, "10.1.2.3",
                    "session_type: CONFIG_SESSION session_state: SESSION_LINKUP controller_ip { ip { ipv4: 167838211 } }"},
        SessionCase{2, 5001, 1, "10.1.2.3",
                    "session_type: L2_SESSION vni: 5001 session_state: SESSION_LINKDOWN controller_ip { ip { ipv4: "
                    "167838211 } }"},
        SessionCase{3, 77, 0, "1.0.0.0",
                    "session_type: L3_SESSION vdr_id: 77 session_state: SESSION_LINKDOWN controller_ip { ip { ipv4: "
                    "16777216 } }"},
        SessionCase{9, 5, 2, "10.1.2.3", "controller_ip { ip { ipv4: 167838211 } }"},
        SessionCase{1, 0, 2, "", "session_type: CONFIG_SESSION session_state: SESSION_LINKUP controller_ip { ip { "
                                 "ipv4: 0 } }"}));

TEST_F(DPDomainManagerTest, DispatchedMessagesReachTheAdapterParsedByType)
{
    com::corvid::zun::l3::L3UpdateMsg l3;
    l3.add_cfg_msg()->set_router_id(42);
    const std::string l3Bytes = l3.SerializeAsString();
    const std::string empty;
    auto dispatch = [](uint32_t type, const std::string& bytes) {
        MsgDispatcher::Get().Dispatch(MsgDispatcher::DP_DOMAIN, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                                      static_cast<uint32_t>(bytes.size()));
    };
    dispatch(2, l3Bytes);
    for (uint32_t type : {1u, 3u, 4u, 5u}) {
        dispatch(type, empty);
    }
    // Without a sink, and by a direct call, type 6 does nothing; bytes that
    // do not parse are dropped.
    dispatch(6, l3Bytes);
    _manager->Process(6, reinterpret_cast<const uint8_t*>(l3Bytes.data()), static_cast<uint32_t>(l3Bytes.size()));
    dispatch(1, "\xff\xff\xff");

    EXPECT_EQ((std::vector<std::string>{
                  "2 com.corvid.zun.l3.L3UpdateMsg cfg_msg { router_id: 42 }",
                  "1 com.corvid.zun.traceflow.TraceflowMsg ",
                  "3 com.corvid.zun.firewall.LcpFirewallUpdateMsg ",
                  "4 com.corvid.zun.dne.LcpDneUpdateMsg ",
                  "5 com.corvid.zun.service.LcpEdgeServicesUpdateMsg ",
              }),
              _adapter.calls);
}

TEST_F(DPDomainManagerTest, SendMsgToCPDispatchesTheSerialisedMessage)
{
    CpSinkStandIn sink(MsgDispatcher::DP_MSG_L3);
    com::corvid::zun::l3::L3UpdateMsg l3;
    l3.add_cfg_msg()->set_router_id(7);
    _manager->SendMsgToCP(MsgDispatcher::DP_MSG_L3, &l3);
    _manager->SendMsgToCP(MsgDispatcher::DP_MSG_L3, nullptr);
    EXPECT_EQ(std::vector<std::string>{"2:" + l3.SerializeAsString()}, sink.Received());
}

TEST_F(DPDomainManagerTest, LocalStateFromTheDataPathGoesIntoTheLocalCache)
{
    _manager->LocalConfigUpdate({Vif("vif-a", 0x0A000002)}, true);
    EXPECT_EQ(0x0A000002u, LocalVifIp("vif-a"));
    // A full sync without it removes it.
    _manager->LocalConfigUpdate({Vif("vif-b", 0x0A000003)}, true);
    EXPECT_EQ(0u, LocalVifIp("vif-a"));
    EXPECT_EQ(0x0A000003u, LocalVifIp("vif-b"));
}

}  // namespace
}  // namespace FenRELTest
