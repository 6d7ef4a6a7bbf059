#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChannelFixture.h"
#include "CtrlConn.h"
#include "CtrlMsg.h"
#include "MultiControllerApp.h"
#include "ShardingElemID.h"
#include "ShardingMgr.h"

namespace {

using namespace ZUNChannel;

class TestElem : public ShardingElemID {
public:
    using ShardingElemID::ShardingElemID;
    void Dump() const override {}
};

// Records what the framework tells the application about its elements.
class TestMultiApp : public MultiControllerApp {
public:
    TestMultiApp() : MultiControllerApp(APP_ID_VXLAN, 0, "TestMulti") {}
    void HandleMsg(const uint8_t*, uint32_t, const ConnKey&) override {}

    std::vector<std::string> calls;

protected:
    boost::intrusive_ptr<ShardingElemID> CreateShardingElem(uint32_t id) override { return new TestElem(id); }
    void OnElemSessionState(const boost::intrusive_ptr<ShardingElemID>& elem, bool down) override
    {
        calls.push_back(std::to_string(elem->GetId()) + (down ? " down" : " up"));
    }
    void OnElemControllerChanged(const boost::intrusive_ptr<ShardingElemID>& elem, const ConnKey* oldKey) override
    {
        calls.push_back(std::to_string(elem->GetId()) + " moved from " + (oldKey ? oldKey->server : "none"));
    }
    void OnElemSessionLost(const boost::intrusive_ptr<ShardingElemID>& elem) override
    {
        calls.push_back(std::to_string(elem->GetId()) + " lost");
    }
};

class MultiControllerAppTest : public FenRELTest::ChannelFixture {
protected:
    void SetUp() override
    {
        ChannelFixture::SetUp();
        _app = new TestMultiApp();
        AppManager::Get()->RegisterApp(_app);
        ASSERT_TRUE(ShardingMgr::Get()->SetSliceLength(1u << 31));  // slice 0 and slice 1
    }

    void TearDown() override
    {
        // Sessions and their app hold each other for the life of the daemon; a
        // test ends it.
        _app->DeleteAllElems();
        _app.reset();
        ChannelFixture::TearDown();
    }

    void Assign(const std::string& controller, uint32_t start, uint32_t num)
    {
        std::vector<boost::intrusive_ptr<ShardingSegment>> segments = {new ShardingSegment(controller, start, num)};
        ASSERT_TRUE(ShardingMgr::Get()->UpdateSegments(segments));
        AppManager::Get()->UpdateSharding(segments, controller, 0);
    }

    // Plays the pool's connection event for `controller`.
    void ConnEvent(const std::string& controller, bool lost)
    {
        AppManager::Get()->PostEvent(new CtrlConnEvent(ConnKey(controller, 0), lost));
    }

    int Users(const std::string& controller)
    {
        auto conn = CtrlConnPool::Get()->FindConn(ConnKey(controller, 0));
        return conn ? conn->GetUsers() : 0;
    }

    boost::intrusive_ptr<TestMultiApp> _app;
};

TEST_F(MultiControllerAppTest, ElementWaitsForShardingThenTheCheckPlacesIt)
{
    auto elem = _app->AddShardingElem(7);
    ASSERT_TRUE(elem);
    EXPECT_FALSE(elem->GetSession());
    EXPECT_TRUE(_app->GetSessions().empty());
    // Adding it again gives the same element.
    EXPECT_EQ(elem, _app->AddShardingElem(7));

    ASSERT_TRUE(ShardingMgr::Get()->UpdateSegments({new ShardingSegment("10.0.0.1", 0, 2)}));
    ShardingMgr::Get()->OnCheckTimer();
    ASSERT_TRUE(elem->GetSession());
    EXPECT_EQ("10.0.0.1", elem->GetController()->server);
    // The session registered the connection: the list's share plus this user.
    EXPECT_EQ(2, Users("10.0.0.1"));
    EXPECT_EQ((std::vector<std::string>{"7 moved from none"}), _app->calls);
}

TEST_F(MultiControllerAppTest, ReadinessReachesMembersAndEachReadyTakesANewSessionId)
{
    Assign("10.0.0.1", 0, 2);
    auto a = _app->AddShardingElem(1);
    auto b = _app->AddShardingElem(2);
    auto session = a->GetSession();
    ASSERT_EQ(session, b->GetSession());
    EXPECT_EQ(2, Users("10.0.0.1"));  // one registration per session, not per member

    ConnEvent("10.0.0.1", false);
    EXPECT_TRUE(session->IsReady());
    const uint32_t first = session->GetSessionID();
    ConnEvent("10.0.0.1", true);
    EXPECT_FALSE(session->IsReady());
    ConnEvent("10.0.0.1", false);
    EXPECT_NE(first, session->GetSessionID());
    EXPECT_EQ((std::vector<std::string>{"1 up", "2 up", "1 down", "2 down", "1 up", "2 up"}), _app->calls);

    // An event for a controller without session reaches nobody.
    _app->calls.clear();
    ConnEvent("10.0.0.9", false);
    EXPECT_TRUE(_app->calls.empty());
}

TEST_F(MultiControllerAppTest, TakeoverMovesOnlyTheMembersOfTheMovedSlice)
{
    Assign("10.0.0.1", 0, 2);
    auto low = _app->AddShardingElem(0x00000010);   // slice 0
    auto high = _app->AddShardingElem(0x80000010);  // slice 1
    ConnEvent("10.0.0.1", false);
    _app->calls.clear();

    Assign("10.0.0.2", 1, 1);
    EXPECT_EQ("10.0.0.1", low->GetController()->server);
    EXPECT_EQ("10.0.0.2", high->GetController()->server);
    EXPECT_EQ((std::vector<std::string>{std::to_string(0x80000010u) + " down",
                                        std::to_string(0x80000010u) + " moved from 10.0.0.1"}),
              _app->calls);
    EXPECT_EQ(2u, _app->GetSessions().size());
    // The first session kept its readiness: no reconnect of the others.
    EXPECT_TRUE(low->GetSession()->IsReady());
    EXPECT_EQ(2, Users("10.0.0.1"));
    EXPECT_EQ(2, Users("10.0.0.2"));
}

TEST_F(MultiControllerAppTest, RemovingTheLastMemberReleasesTheConnection)
{
    Assign("10.0.0.1", 0, 2);
    _app->AddShardingElem(1);
    EXPECT_EQ(2, Users("10.0.0.1"));
    _app->RemoveShardingElem(1);
    EXPECT_TRUE(_app->GetSessions().empty());
    EXPECT_FALSE(_app->GetShardingElem(1));
    // Only the controller list's share remains.
    EXPECT_EQ(1, Users("10.0.0.1"));
    _app->RemoveShardingElem(1);  // unknown: logged, nothing else
}

TEST_F(MultiControllerAppTest, SendsFailWithoutAReadySessionAndFreeTheMessage)
{
    // Each refused message is freed; ASan would report a leak otherwise.
    EXPECT_FALSE(_app->SendMsgById(CtrlMsg::Build(CtrlMsg::kTypeData, APP_ID_VXLAN, "x", 1), 5, true, true));
    _app->AddShardingElem(5);
    EXPECT_FALSE(_app->SendMsgById(CtrlMsg::Build(CtrlMsg::kTypeData, APP_ID_VXLAN, "x", 1), 5, true, true));
    Assign("10.0.0.1", 0, 2);
    EXPECT_FALSE(_app->SendMsgById(CtrlMsg::Build(CtrlMsg::kTypeData, APP_ID_VXLAN, "x", 1), 5, true, true));
    // A broadcast to no session at all counts as sent.
    _app->DeleteAllElems();
    EXPECT_TRUE(_app->BroadcastMsg(CtrlMsg::Build(CtrlMsg::kTypeData, APP_ID_VXLAN, "x", 1)));
}

TEST_F(MultiControllerAppTest, ElementInSegmentsCountsTheSliceJustBehindASegment)
{
    Assign("10.0.0.1", 0, 1);
    auto elem = _app->AddShardingElem(0x80000001);  // slice 1, no controller yet
    ShardingMgr::Get()->UpdateSegments({new ShardingSegment("10.0.0.1", 1, 1)});
    ShardingMgr::Get()->OnCheckTimer();
    ASSERT_TRUE(elem->GetSession());
    auto mgr = ShardingMgr::Get();
    EXPECT_TRUE(mgr->IsElemInSegments({new ShardingSegment("10.0.0.1", 1, 1)}, *elem));
    EXPECT_TRUE(mgr->IsElemInSegments({new ShardingSegment("10.0.0.1", 0, 1)}, *elem));
    EXPECT_FALSE(mgr->IsElemInSegments({new ShardingSegment("10.0.0.2", 1, 1)}, *elem));
    EXPECT_FALSE(mgr->IsElemInSegments({}, *elem));
}

}  // namespace
