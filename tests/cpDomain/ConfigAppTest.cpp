#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigAppFixture.h"
#include "LogCapture.h"
#include "SessionApp.h"
#include "StateCache.h"

namespace {

using namespace ZUNChannel;
using FenRELTest::Frame;
using FenRELTest::Message;
namespace config = com::corvid::zun::config;

using ConfigAppTest = FenRELTest::ConfigAppFixture;

config::ZunStateDeltaMsg Vif(const std::string& id, uint64_t mac = 0, config::EntityType type = config::VIF)
{
    config::ZunStateDeltaMsg delta;
    delta.set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
    delta.set_entity_id(id);
    delta.set_entity_type(type);
    if (mac != 0) {
        auto* state = delta.add_state();
        state->set_state_type(config::EntityStateMsg::VIF_MAC);
        state->add_vif_macs()->set_mac(mac);
    }
    return delta;
}

// The host's full sync states every local VIF, and nothing else, in one
// message while its protobuf fits max - 16 bytes; beyond, in fragments of
// max - 15 bytes of [0x00, protobuf]. FullSync End follows either way.
TEST_F(ConfigAppTest, VifFullSyncIsCutAtTheFrameLimit)
{
    std::vector<config::ZunStateDeltaMsg> local = {Vif("vif-a"), Vif("tor-1", 0, config::TOR)};
    for (int i = 0; i < 6; ++i) {
        local.push_back(Vif("vif-" + std::to_string(i), 0x1000 + i));
    }
    _table->AtomicUpdateLocalCache(local, true);
    SessionUp();
    const Frame whole = TakeFrames().at(0);
    const Frame payload(whole.begin() + 15, whole.end());  // 0x00 then the protobuf
    config::CcpLcpZunConfigMsg msg;
    ASSERT_TRUE(msg.ParseFromArray(payload.data() + 1, static_cast<int>(payload.size() - 1)));
    EXPECT_EQ(config::CcpLcpZunConfigMsg::ENTITY_STATE, msg.type());
    std::vector<std::string> seen;
    for (const auto& vif : msg.entity_state()) {
        EXPECT_EQ(config::ZunStateDeltaMsg::UPDATE_OP, vif.operation());
        EXPECT_EQ(config::VIF, vif.entity_type());
        seen.push_back(vif.entity_id() + (vif.state_size() ? "+mac" : ""));
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ((std::vector<std::string>{"vif-0+mac", "vif-1+mac", "vif-2+mac", "vif-3+mac", "vif-4+mac", "vif-5+mac",
                                        "vif-a"}),
              seen);
    SessionDown();

    const size_t size = payload.size() - 1;
    for (const auto& [max, count] : std::vector<std::pair<size_t, size_t>>{
             {size + 16, 1}, {size + 15, 2}, {40, (size + 1 + 24) / 25}}) {
        SCOPED_TRACE("max " + std::to_string(max));
        CtrlConnPool::Get()->SetMaxPktLen(static_cast<uint16_t>(max));
        SessionUp();
        const std::vector<Frame> frames = TakeFrames();
        ASSERT_EQ(count + 1, frames.size());
        Frame joined;
        for (size_t i = 0; i < count; ++i) {
            const Frame& frame = frames[i];
            EXPECT_EQ(CtrlMsg::kTypeData, CtrlMsg::Type(frame.data()));
            EXPECT_EQ(APP_ID_CONFIG, CtrlMsg::ProtocolId(frame.data()));
            EXPECT_EQ(SessionId(), CtrlMsg::SessionId(frame.data()));
            EXPECT_EQ(frame.size(), CtrlMsg::Length(frame.data()));
            EXPECT_EQ(i + 1 < count ? max : frame.size(), frame.size());
            EXPECT_EQ(i + 1 < count ? CtrlMsg::kFlagMoreFragments : 0, CtrlMsg::Flags(frame.data()));
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
    Receive(Control(SessionId() + 7));  // another session's end
    EXPECT_TRUE(RemoteEntities().empty());
    EXPECT_EQ(0, _dataPathReleases);

    Receive(Control(SessionId()));
    EXPECT_EQ((std::set<uint64_t>{1, 2, 3}), RemoteEntities());
    EXPECT_EQ(1, _dataPathReleases);
    Receive(Switches({4}));
    EXPECT_EQ((std::set<uint64_t>{1, 2, 3, 4}), RemoteEntities());

    // A second FullSync End replaces the configuration by its empty queue.
    Receive(Control(SessionId()));
    EXPECT_TRUE(RemoteEntities().empty());
    EXPECT_EQ(1, _dataPathReleases);
}

TEST_F(ConfigAppTest, QueueOutlivesALostSessionAndTheDataPathIsReleasedOnce)
{
    SessionUp();
    Receive(Switches({1}));
    SessionDown();
    SessionUp();
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

// A local change goes out as one message that keeps each element's
// operation, and only on a ready session: without one it is dropped, not
// kept, since the next full sync states the whole table.
TEST_F(ConfigAppTest, LocalStateGoesOutAsItIsOnlyOnAReadySession)
{
    FenREL::LocalStateUpdateList updates(2);
    auto mac = std::make_shared<config::EntityStateMsg>();
    mac->set_state_type(config::EntityStateMsg::VIF_MAC);
    mac->add_vif_macs()->set_mac(0x005056000001);
    updates[0] = {config::VIF, "vif-a", config::ZunStateDeltaMsg::DELETE_OP, config::EntityStateMsg::VIF_MAC, mac};
    updates[1] = {config::VIF, "vif-b", config::ZunStateDeltaMsg::UPDATE_OP, 0, nullptr};
    {
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_WARNING);
        _app->SendLocalState(updates);
        EXPECT_NE(std::string::npos,
                  log.Text().find("Config: Cannot send local state update to CCP, session is not ready now"));
    }
    SessionUp();
    EXPECT_EQ(std::vector<Frame>{Control(SessionId())}, TakeFrames());  // no VIF: the FullSync End alone

    _app->SendLocalState(updates);
    config::CcpLcpZunConfigMsg expected;
    expected.set_type(config::CcpLcpZunConfigMsg::ENTITY_STATE);
    *expected.add_entity_state() = Vif("vif-a", 0x005056000001);
    expected.mutable_entity_state(0)->set_operation(config::ZunStateDeltaMsg::DELETE_OP);
    *expected.add_entity_state() = Vif("vif-b");
    EXPECT_EQ(std::vector<Frame>{Message(CtrlMsg::kTypeData, APP_ID_CONFIG, SessionId(),
                                         std::string(1, '\0') + expected.SerializeAsString())},
              TakeFrames());
}

// Local VIF changes reach the controller through the domain manager only
// once the data path's full sync is done; earlier ones stay in the cache.
// The flag never goes back, so this runs in a process of its own.
TEST_F(ConfigAppTest, LocalChangesWaitForTheDataPathsFullSync)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto localChange = [](const std::string& id) {
        FenREL::StateCache::GetInstance()->GetConfigTable()->AtomicUpdateLocalCache(
            std::vector<config::ZunStateDeltaMsg>{Vif(id)}, false);
    };
    EXPECT_EXIT(
        {
            SessionUp();
            TakeFrames();
            FenRELTest::LogCapture log;
            localChange("vif-early");
            const size_t early = TakeFrames().size();
            FenREL::SessionApp::Init(com::corvid::zun::ProductVersionMsg());
            FenREL::CPDomainManager::Get()->DPDomainInitFullSyncDone();
            localChange("vif-late");
            const std::vector<Frame> late = TakeFrames();
            const bool gated = log.Text().find("CPDomainManager receive local update before fullSync") !=
                               std::string::npos;
            fprintf(stderr, "before: %zu messages, gate logged %d; after: %zu messages%s\n", early, gated,
                    late.size(),
                    late.size() == 1 && std::string(late[0].begin(), late[0].end()).find("vif-late") !=
                                            std::string::npos
                        ? " with vif-late"
                        : "");
            _exit(0);
        },
        testing::ExitedWithCode(0), "before: 0 messages, gate logged 1; after: 1 messages with vif-late");
}

TEST_F(ConfigAppTest, MessagesFromElsewhereOrHeaderOnlyAreDropped)
{
    Receive(Switches({9}));  // no session yet
    Receive(Control(0));
    SessionUp();
    Receive(Switches({9}), "10.0.0.2");
    Receive(Control(SessionId()), "10.0.0.2");
    EXPECT_EQ(0u, _app->GetPendingDeltaCount());
    EXPECT_EQ(0, _dataPathReleases);

    FenRELTest::LogCapture log(FenREL::LOGLEVEL_ERROR);
    Receive(Message(CtrlMsg::kTypeSessionControl, APP_ID_CONFIG, SessionId(), ""));
    Receive(Message(CtrlMsg::kTypeData, APP_ID_CONFIG, 0xFFFFFFFF, ""));
    EXPECT_NE(std::string::npos,
              log.Text().find("errorCode=\"LCP00504\"] Config: Invalid Session Control message received from"));
    EXPECT_NE(std::string::npos,
              log.Text().find("errorCode=\"LCP00504\"] Config: Invalid Sharding Update message payload from"));
    EXPECT_EQ(0, _dataPathReleases);
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

}  // namespace
