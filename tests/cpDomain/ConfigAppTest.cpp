#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigAppFixture.h"
#include "LogCapture.h"
#include "SessionApp.h"

namespace {

using namespace ZUNChannel;
using FenREL::ConfigApp;
using FenREL::CPDomainManager;
using FenRELTest::Frame;
namespace config = com::corvid::zun::config;

using ConfigAppTest = FenRELTest::ConfigAppFixture;

config::ZunStateDeltaMsg Vif(const std::string& id, uint64_t mac = 0, int32_t entityType = config::VIF)
{
    config::ZunStateDeltaMsg delta;
    delta.set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
    delta.set_entity_id(id);
    delta.set_entity_type(static_cast<config::EntityType>(entityType));
    if (mac != 0) {
        auto* state = delta.add_state();
        state->set_state_type(config::EntityStateMsg::VIF_MAC);
        state->add_vif_macs()->set_mac(mac);
    }
    return delta;
}

config::CcpLcpZunConfigMsg Parse(const Frame& frame)
{
    config::CcpLcpZunConfigMsg msg;
    EXPECT_TRUE(msg.ParseFromArray(frame.data() + 16, static_cast<int>(frame.size() - 16)));
    return msg;
}

TEST_F(ConfigAppTest, NoVifsStillEndTheHostsFullSync)
{
    FenRELTest::LogCapture log(FenREL::LOGLEVEL_INFO);
    SessionUp();
    const std::vector<Frame> frames = TakeFrames();
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ(Control(SessionId()), frames[0]);
    EXPECT_NE(std::string::npos, log.Text().find("Config: no VIFs connected"));
}

TEST_F(ConfigAppTest, FullSyncStatesEveryLocalVifAndNothingElse)
{
    _table->AtomicUpdateLocalCache({Vif("vif-a"), Vif("vif-a", 0x0a0b0c0d0e0f), Vif("vif-b"), Vif("tor-1", 0, config::TOR)},
                                   true);
    FenRELTest::LogCapture log(FenREL::LOGLEVEL_INFO);
    SessionUp();
    const std::vector<Frame> frames = TakeFrames();
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ(0, frames[0][15]);
    EXPECT_EQ(Control(SessionId()), frames[1]);

    const config::CcpLcpZunConfigMsg msg = Parse(frames[0]);
    EXPECT_EQ(config::CcpLcpZunConfigMsg::ENTITY_STATE, msg.type());
    std::vector<std::string> seen;
    for (const auto& vif : msg.entity_state()) {
        EXPECT_EQ(config::ZunStateDeltaMsg::UPDATE_OP, vif.operation());
        EXPECT_EQ(config::VIF, vif.entity_type());
        ASSERT_LE(vif.state_size(), 1);
        seen.push_back(vif.entity_id() + (vif.state_size() ? " mac " + std::to_string(vif.state(0).vif_macs(0).mac())
                                                           : std::string()));
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ((std::vector<std::string>{"vif-a", "vif-a mac " + std::to_string(0x0a0b0c0d0e0f), "vif-b"}), seen);
    EXPECT_NE(std::string::npos, log.Text().find("Config: VIFs connected, id is vif-b"));
    EXPECT_NE(std::string::npos, log.Text().find("Config: VIF full sync message sent to ccp"));
}

// The full sync is one message while its protobuf fits max - 16 bytes; beyond,
// fragments of max - 15 bytes of [0x00, protobuf], the lead byte in the first only.
TEST_F(ConfigAppTest, VifFullSyncIsCutAtTheFrameLimit)
{
    std::vector<config::ZunStateDeltaMsg> vifs;
    for (int i = 0; i < 6; ++i) {
        vifs.push_back(Vif("vif-" + std::to_string(i), 0x1000 + i));
    }
    _table->AtomicUpdateLocalCache(vifs, true);
    SessionUp();
    const Frame whole = TakeFrames().at(0);
    const Frame payload(whole.begin() + 15, whole.end());  // 0x00 then the protobuf
    const size_t size = payload.size() - 1;
    SessionDown();

    struct Case {
        size_t max;
        size_t frames;
    };
    const Case cases[] = {{size + 16, 1}, {size + 15, 2}, {40, (size + 1 + 24) / 25}};
    for (const Case& c : cases) {
        SCOPED_TRACE("max " + std::to_string(c.max));
        CtrlConnPool::Get()->SetMaxPktLen(static_cast<uint16_t>(c.max));
        SessionUp();
        const std::vector<Frame> frames = TakeFrames();
        ASSERT_EQ(c.frames + 1, frames.size());
        Frame joined;
        for (size_t i = 0; i < c.frames; ++i) {
            const Frame& frame = frames[i];
            EXPECT_EQ(CtrlMsg::kTypeData, CtrlMsg::Type(frame.data()));
            EXPECT_EQ(APP_ID_CONFIG, CtrlMsg::ProtocolId(frame.data()));
            EXPECT_EQ(SessionId(), CtrlMsg::SessionId(frame.data()));
            EXPECT_EQ(frame.size(), CtrlMsg::Length(frame.data()));
            EXPECT_EQ(i + 1 < c.frames ? c.max : frame.size(), frame.size());
            EXPECT_EQ(i + 1 < c.frames ? CtrlMsg::kFlagMoreFragments : 0, CtrlMsg::Flags(frame.data()));
            joined.insert(joined.end(), frame.begin() + 15, frame.end());
        }
        EXPECT_EQ(payload, joined);
        EXPECT_EQ(Control(SessionId()), frames.back());
        SessionDown();
    }
}

TEST_F(ConfigAppTest, DeltasWaitForTheControllersFullSyncEndThenFlowAtOnce)
{
    SessionUp();
    Receive(Switches({1, 2}));
    Receive(Switches({3}));
    EXPECT_TRUE(RemoteEntities().empty());
    EXPECT_EQ(3u, _app->GetPendingDeltaCount());
    {
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_WARNING);
        Receive(Control(SessionId() + 7));
        EXPECT_NE(std::string::npos,
                  log.Text().find("Config: Session Control message is not from the curent session, current: " +
                                  std::to_string(SessionId()) + ", received: " + std::to_string(SessionId() + 7)));
    }
    EXPECT_EQ(3u, _app->GetPendingDeltaCount());
    EXPECT_EQ(0, _dataPathReleases);

    Receive(Control(SessionId()));
    EXPECT_EQ((std::set<uint64_t>{1, 2, 3}), RemoteEntities());
    EXPECT_EQ(0u, _app->GetPendingDeltaCount());
    EXPECT_EQ(1, _dataPathReleases);

    Receive(Switches({4}));
    EXPECT_EQ((std::set<uint64_t>{1, 2, 3, 4}), RemoteEntities());
    EXPECT_EQ(0u, _app->GetPendingDeltaCount());

    // A second FullSync End replaces the configuration by its empty queue.
    Receive(Control(SessionId()));
    EXPECT_TRUE(RemoteEntities().empty());
    EXPECT_EQ(1, _dataPathReleases);
}

TEST_F(ConfigAppTest, QueueOutlivesALostSessionAndTheDataPathIsReleasedOnce)
{
    SessionUp();
    TakeFrames();
    Receive(Switches({1}));
    SessionDown();
    SessionUp();
    EXPECT_EQ(1u, TakeFrames().size());  // the host's full sync again
    Receive(Switches({2}));
    Receive(Control(SessionId()));
    EXPECT_EQ((std::set<uint64_t>{1, 2}), RemoteEntities());
    EXPECT_EQ(1, _dataPathReleases);

    SessionDown();
    SessionUp();
    Receive(Switches({3}));
    EXPECT_EQ((std::set<uint64_t>{1, 2}), RemoteEntities());  // queued again until the end
    Receive(Control(SessionId()));
    EXPECT_EQ((std::set<uint64_t>{3}), RemoteEntities());
    EXPECT_EQ(1, _dataPathReleases);
}

TEST_F(ConfigAppTest, MessagesOutsideTheSessionAreSkippedWithAWarning)
{
    struct Case {
        bool withSession;
        bool control;
        std::string expected;
    };
    const Case cases[] = {
        {false, true, "Config: session ctrl msg from controller 10.0.0.2:0 is skipped, current connection is NULL"},
        {false, false, "Config: update msg from controller 10.0.0.2:0 is skipped, current connection is NULL"},
        {true, true, "Config: session ctrl msg from controller 10.0.0.2:0 is skipped, current connection is 10.0.0.1:0"},
        {true, false, "Config: update msg from controller 10.0.0.2:0 is skipped, current connection is 10.0.0.1:0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        if (c.withSession && !_session) {
            SessionUp();
        }
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_WARNING);
        Receive(c.control ? Control(_session ? SessionId() : 0) : Switches({9}), kOther);
        EXPECT_NE(std::string::npos, log.Text().find(c.expected));
        EXPECT_EQ(0u, _app->GetPendingDeltaCount());
        EXPECT_EQ(0, _dataPathReleases);
    }
}

TEST_F(ConfigAppTest, HeaderOnlyMessagesAreDroppedWithAnError)
{
    SessionUp();
    Frame updateHeader = Update("");
    updateHeader.resize(15);
    updateHeader[12] = 15;
    struct Case {
        Frame frame;
        std::string expected;
    };
    const Case cases[] = {
        {Control(SessionId(), 0, false), "Config: Invalid Session Control message received from 10.0.0.1:0"},
        {updateHeader, "Config: Invalid Sharding Update message payload from 10.0.0.1:0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_ERROR);
        Receive(c.frame);
        EXPECT_NE(std::string::npos, log.Text().find(c.expected));
        EXPECT_NE(std::string::npos, log.Text().find("LCP00504"));
    }
    EXPECT_FALSE(_app->IsFullSyncDone());
}

// The controller sends nothing but FullSync End and configuration here: any
// other control type or update type contradicts it, and ends the process.
TEST_F(ConfigAppTest, OtherControlOrUpdateTypesAreFatal)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SessionUp();
    config::CcpLcpZunConfigMsg state;
    state.set_type(config::CcpLcpZunConfigMsg::ENTITY_STATE);
    EXPECT_DEATH(Receive(Control(SessionId(), 1)), "Panic: ASSERT .*cfgapp/ConfigApp.cpp");
    EXPECT_DEATH(Receive(Update(state.SerializeAsString())), "Panic: ASSERT .*cfgapp/ConfigApp.cpp");
    EXPECT_DEATH(Receive(Update("")), "Panic: ASSERT .*cfgapp/ConfigApp.cpp");
}

// Local VIF changes reach the controller through the domain manager once the
// data path's initial sync is over, and only while the session is up.
TEST_F(ConfigAppTest, LocalStateIsSentWhileTheSessionIsUpAndDroppedOtherwise)
{
    FenREL::SessionApp::Init(com::corvid::zun::ProductVersionMsg());
    CPDomainManager::Get()->DPDomainInitFullSyncDone();
    auto mac = std::make_shared<config::EntityStateMsg>(Vif("vif-a", 0x42).state(0));
    FenREL::LocalStateUpdateList updates(2);
    updates[0] = {config::VIF, "vif-a", config::ZunStateDeltaMsg::DELETE_OP, config::EntityStateMsg::VIF_MAC, mac};
    updates[1] = {config::VIF, "vif-a", config::ZunStateDeltaMsg::DELETE_OP, 0, nullptr};
    {
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_WARNING);
        CPDomainManager::Get()->ProcessLocalStateUpdate(updates);
        EXPECT_NE(std::string::npos,
                  log.Text().find("Config: Cannot send local state update to CCP, session is not ready now"));
    }
    SessionUp();
    TakeFrames();
    CPDomainManager::Get()->ProcessLocalStateUpdate(updates);
    const std::vector<Frame> frames = TakeFrames();
    FenREL::SessionApp::Destroy();
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ(frames[0].size(), CtrlMsg::Length(frames[0].data()));
    EXPECT_EQ(SessionId(), CtrlMsg::SessionId(frames[0].data()));
    EXPECT_EQ(0, frames[0][15]);
    const config::CcpLcpZunConfigMsg msg = Parse(frames[0]);
    ASSERT_EQ(2, msg.entity_state_size());
    EXPECT_EQ(config::ZunStateDeltaMsg::DELETE_OP, msg.entity_state(0).operation());
    ASSERT_EQ(1, msg.entity_state(0).state_size());
    EXPECT_EQ(mac->SerializeAsString(), msg.entity_state(0).state(0).SerializeAsString());
    EXPECT_EQ(config::ZunStateDeltaMsg::DELETE_OP, msg.entity_state(1).operation());
    EXPECT_EQ(0, msg.entity_state(1).state_size());
}

}  // namespace
