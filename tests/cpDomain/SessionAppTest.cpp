#include <arpa/inet.h>

#include <algorithm>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CpDomainFixture.h"
#include "CtrlConnEvent.h"
#include "CtrlMsg.h"
#include "LogCapture.h"
#include "SessionApp.h"
#include "ShardingMgr.h"
#include "ccp_lcp_config.pb.h"

namespace {

using namespace ZUNChannel;
using FenREL::RemoteSessionUpdate;
using FenREL::SessionApp;
using FenRELTest::Frame;
using FenRELTest::Contains;
using FenRELTest::Message;
namespace config = com::corvid::zun::config;

uint32_t Ip(const std::string& dotted)
{
    return ntohl(inet_addr(dotted.c_str()));
}

Frame Control(uint8_t type, uint32_t sessionId)
{
    return Message(CtrlMsg::kTypeSessionControl, APP_ID_SESSION, sessionId, std::string(1, static_cast<char>(type)));
}

Frame Update(const config::CcpLcpZunConfigMsg& msg)
{
    return Message(CtrlMsg::kTypeData, APP_ID_SESSION, 0xFFFFFFFF, '\0' + msg.SerializeAsString());
}

config::CcpLcpZunConfigMsg Master(const std::string& ip)
{
    config::CcpLcpZunConfigMsg msg;
    msg.set_type(config::CcpLcpZunConfigMsg::MASTER_CONTROLLER);
    msg.mutable_master_controller()->mutable_ip()->set_ipv4(Ip(ip));
    return msg;
}

// The session app over the domain manager; `reports` hears the physical
// master session go up and down as the other apps do.
class SessionAppTest : public FenRELTest::CpDomainFixture {
protected:
    void SetUp() override
    {
        CpDomainFixture::SetUp();
        com::corvid::zun::ProductVersionMsg version;
        version.set_major(4);
        version.set_suffix("demo");
        SessionApp::Init(version);
        _app = SessionApp::Instance();
        // Observers hear the session app's instance, whatever their application:
        // the one of instance 1 must stay silent.
        for (const uint32_t instance : {0u, 1u}) {
            FenREL::CPDomainManager::Get()->RegisterPhysicalMasterSessionObserver(
                AppKey(APP_ID_CONFIG, instance),
                [this, instance](const boost::intrusive_ptr<CtrlSession>& session, uint32_t state) {
                    reports.push_back((instance != 0 ? "instance 1 " : "") + std::string(state == 0 ? "up " : "down ") +
                                      session->GetKey().server);
                });
        }
    }

    void TearDown() override
    {
        _app.reset();
        SessionApp::Destroy();
        CpDomainFixture::TearDown();
    }

    std::string Server() const { return _app->GetSession() ? _app->GetSession()->GetKey().server : ""; }
    uint32_t Id() const { return _app->GetSession()->GetSessionID(); }

    void Ready(const std::string& server)
    {
        MakeReady(server);
        AppManager::Get()->PostEvent(new CtrlConnEvent(ConnKey(server, 0), false));
    }

    void Receive(const Frame& frame, const std::string& server)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ConnKey(server, 0));
    }

    void DriveToReady(const std::string& server)
    {
        _app->ProcessDPInitialSyncDone();
        Ready(server);
        Receive(Control(SessionApp::CONTROL_OPEN_ACK, Id()), server);
        Receive(Update(Master(server)), server);
        ASSERT_EQ(SessionApp::READY, _app->GetSessionState());
    }

    static RemoteSessionUpdate ConfigSession()
    {
        return RemoteSession(RemoteSessionUpdate::CONFIG_SESSION).value_or(RemoteSessionUpdate());
    }

    boost::intrusive_ptr<SessionApp> _app;
    std::vector<std::string> reports;
};

class SessionAppOpenTest : public SessionAppTest, public testing::WithParamInterface<bool> {};

TEST_P(SessionAppOpenTest, OpenWaitsForBothTheConnectionAndTheDataPath)
{
    const bool dataPathFirst = GetParam();  // either order: the Open waits for both
    SetControllers({"10.0.0.1"});
    _app->Start();
    for (int step = 0; step < 2; ++step) {
        EXPECT_TRUE(SentFrames("10.0.0.1").empty());
        EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
        if (dataPathFirst == (step == 0)) {
            _app->ProcessDPInitialSyncDone();
        } else {
            Ready("10.0.0.1");
        }
    }

    config::ConfigSessionMsg body;
    body.mutable_product_version()->set_major(4);
    body.mutable_product_version()->set_suffix("demo");
    const Frame open = Message(CtrlMsg::kTypeSessionControl, APP_ID_SESSION, Id(),
                               std::string(1, SessionApp::CONTROL_OPEN) + body.SerializeAsString());
    EXPECT_EQ(std::vector<Frame>{open}, SentFrames("10.0.0.1"));
    EXPECT_EQ(SessionApp::OPEN, _app->GetSessionState());
    EXPECT_EQ(RemoteSessionUpdate::STATE_INIT, ConfigSession().sessionState);
}

INSTANTIATE_TEST_SUITE_P(SessionApp, SessionAppOpenTest, testing::Bool());

TEST_F(SessionAppTest, HandshakeRefusesWhatComesOutOfOrder)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    Ready("10.0.0.1");
    {
        FenRELTest::LogCapture log;
        Receive(Control(SessionApp::CONTROL_OPEN_ACK, Id()), "10.0.0.1");  // before the Open
        EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
        Receive(Message(CtrlMsg::kTypeSessionControl, APP_ID_SESSION, Id(), ""), "10.0.0.1");  // no control type
        _app->ProcessDPInitialSyncDone();
        Receive(Update(Master("10.0.0.1")), "10.0.0.1");  // before the Open ACK
        EXPECT_TRUE(Contains(log.Text(), "errorCode=\"LCP00602\"] Session: Invalid Session Open ACK message from "
                                         "10.0.0.1:0, session is not opened now"));
        EXPECT_TRUE(Contains(log.Text(), "errorCode=\"LCP00602\"] Session: Invalid Session Control message received"));
        EXPECT_TRUE(Contains(log.Text(), "Session: Session is not ready, not allow to receive update messages"));
    }
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, Id() + 1), "10.0.0.1");  // another session's
    EXPECT_EQ(SessionApp::OPEN, _app->GetSessionState());
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, Id()), "10.0.0.1");
    EXPECT_EQ(SessionApp::OPEN_ACK, _app->GetSessionState());
    EXPECT_TRUE(reports.empty());

    Receive(Update(Master("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1"}), reports);
    EXPECT_EQ(RemoteSessionUpdate::STATE_UP, ConfigSession().sessionState);
    EXPECT_EQ("10.0.0.1", ConfigSession().controllerIp);
    Receive(Update(Master("10.0.0.1")), "10.0.0.1");  // a repeat changes nothing
    EXPECT_EQ(1u, reports.size());
}

// Where a master controller elsewhere takes the session, by the list read
// again at that moment.
struct MasterMove {
    const char* name;
    std::vector<std::string> list;
    std::vector<std::string> candidates;  // where the new session may go; none: no session
    bool selects;                         // the choice is a selection, with its log line
    const char* log;
};

void PrintTo(const MasterMove& move, std::ostream* os)
{
    *os << move.name;
}

class SessionAppMasterMoveTest : public SessionAppTest, public testing::WithParamInterface<MasterMove> {};

TEST_P(SessionAppMasterMoveTest, MasterControllerElsewhereMovesTheSession)
{
    const MasterMove& move = GetParam();
    SetControllers({"10.0.0.1"});
    _app->Start();
    DriveToReady("10.0.0.1");
    SetControllers(move.list);
    {
        FenRELTest::LogCapture log;
        Receive(Update(Master("10.0.0.3")), "10.0.0.1");
        EXPECT_TRUE(Contains(log.Text(), move.log)) << log.Text();
        EXPECT_EQ(move.selects, Contains(log.Text(), "Session: Select a session connection")) << log.Text();
    }
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1", "down 10.0.0.1"}), reports);
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
    if (move.candidates.empty()) {
        // Nothing until the next controller list.
        EXPECT_FALSE(_app->GetSession());
        SetControllers({"10.0.0.2"});
        _app->ReceiveControllerList({ConnConfig("10.0.0.2", 1, "", nullptr, false)});
        EXPECT_EQ("10.0.0.2", Server());
        return;
    }
    const std::string next = Server();
    ASSERT_NE(move.candidates.end(), std::find(move.candidates.begin(), move.candidates.end(), next)) << next;
    EXPECT_FALSE(_app->GetSession()->IsReady());

    // The new controller's own update finishes the move; the old one's is skipped.
    Ready(next);
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, Id()), next);
    Receive(Update(Master("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(SessionApp::OPEN_ACK, _app->GetSessionState());
    Receive(Update(Master(next)), next);
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ("up " + next, reports.back());
}

INSTANTIATE_TEST_SUITE_P(
    SessionApp, SessionAppMasterMoveTest,
    testing::Values(MasterMove{"InTheList", {"10.0.0.1", "10.0.0.2", "10.0.0.3"}, {"10.0.0.3"}, false,
                               "Session: Changing master controller from 10.0.0.1 to 10.0.0.3"},
                    MasterMove{"NotInTheList", {"10.0.0.2", "10.0.0.4"}, {"10.0.0.2", "10.0.0.4"}, true,
                               "errorCode=\"LCP00601\"] Session: Did not find master 10.0.0.3 in config list"},
                    MasterMove{"NoList", {}, {}, false, "Session: Get empty controller list"}),
    [](const testing::TestParamInfo<MasterMove>& info) { return std::string(info.param.name); });

TEST_F(SessionAppTest, ShardingComesOnlyFromTheSessionButRevocationsFromAnyone)
{
    SetControllers({"10.0.0.1", "10.0.0.2"});
    ShardingMgr::Get()->SetSliceLength(1u << 31);
    _app->Start();
    const std::string session = Server();
    const std::string other = session == "10.0.0.1" ? "10.0.0.2" : "10.0.0.1";
    DriveToReady(session);

    config::CcpLcpZunConfigMsg assignment;
    assignment.set_type(config::CcpLcpZunConfigMsg::SHARDING_ASSIGNMENT);
    auto* share = assignment.mutable_sharding_assignment()->add_assignments();
    share->mutable_controller()->mutable_ip()->set_ipv4(Ip("10.0.0.9"));
    share->add_segments()->set_start_slice_id(1);
    share->mutable_segments(0)->set_num_slices(1);
    Receive(Update(assignment), other);
    EXPECT_EQ("", ShardingMgr::Get()->GetController(0x80000000));
    Receive(Update(assignment), session);
    EXPECT_EQ("10.0.0.9", ShardingMgr::Get()->GetController(0x80000000));

    config::CcpLcpZunConfigMsg revocation;
    revocation.set_type(config::CcpLcpZunConfigMsg::SHARDING_REVOCATION);
    revocation.mutable_sharding_revocation()->add_segments()->set_start_slice_id(1);
    FenRELTest::LogCapture log;
    Receive(Update(revocation), other);
    EXPECT_TRUE(Contains(log.Text(), "Session: Sharding Invalid Slices Update message: server " + other));
    // The slice table keeps its owner until an assignment replaces it.
    EXPECT_EQ("10.0.0.9", ShardingMgr::Get()->GetController(0x80000000));
}

// A candidate that fails while it is tried, silent until its time-out or
// lost before it was ready, gives way at once to the next; each is tried once.
class SessionAppCandidateTest : public SessionAppTest, public testing::WithParamInterface<bool> {};

TEST_P(SessionAppCandidateTest, FailingCandidateGivesWayToTheNextAtOnce)
{
    const bool timeOut = GetParam();
    const std::vector<std::string> servers = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"};
    SetControllers(servers);
    _app->Start();
    const boost::intrusive_ptr<CtrlSession> session = _app->GetSession();
    _app->OnConnectTimeout(0);  // a stale time-out
    EXPECT_EQ(session, _app->GetSession());

    std::set<std::string> tried;
    for (int64_t serial = 1; serial <= 5; ++serial) {
        const std::string server = Server();
        ASSERT_FALSE(server.empty()) << serial;
        tried.insert(server);
        if (timeOut) {
            _app->OnConnectTimeout(serial);
        } else {
            AppManager::Get()->PostEvent(new CtrlConnEvent(ConnKey(server, 0), true));
        }
        EXPECT_EQ(timeOut, CtrlConnPool::Get()->GetConnStatus(ConnKey(server, 0)) == "connection_refused");
        EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, ConfigSession().sessionState);
    }
    EXPECT_EQ(std::set<std::string>(servers.begin(), servers.end()), tried);
    EXPECT_TRUE(reports.empty());
    // After the last time-out the list is read again at once; after a loss
    // the retry timer does it.
    EXPECT_EQ(timeOut, !Server().empty());
    _app->OnRetryTimer();
    EXPECT_FALSE(Server().empty());
}

INSTANTIATE_TEST_SUITE_P(SessionApp, SessionAppCandidateTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "TimeOut" : "LostBeforeReady");
                         });

// A reloaded list that keeps the session's controller leaves it alone; one
// that changes it tears the session down as a lost connection does, and the
// retry chooses again.
TEST_F(SessionAppTest, ControllerListChangeOrLossEndsAReadySessionUntilTheRetry)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    DriveToReady("10.0.0.1");
    _app->ReceiveControllerList(
        {ConnConfig("10.0.0.2", 1, "", nullptr, false), ConnConfig("10.0.0.1", 1, "", nullptr, false)});
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ(1u, reports.size());

    _app->ReceiveControllerList({ConnConfig("10.0.0.1", 2, "", nullptr, false)});
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1", "down 10.0.0.1"}), reports);
    EXPECT_FALSE(_app->GetSession());
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
    EXPECT_EQ(RemoteSessionUpdate::STATE_DOWN, ConfigSession().sessionState);
    _app->OnRetryTimer();
    EXPECT_EQ("10.0.0.1", Server());
}

}  // namespace
