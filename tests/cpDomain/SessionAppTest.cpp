#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CpDomainFixture.h"
#include "CtrlConnEvent.h"
#include "CtrlMsg.h"
#include "LogCapture.h"
#include "RemoteSessionUpdate.h"
#include "SessionApp.h"
#include "StateCacheRemoteSessionTable.h"
#include "ccp_lcp_config.pb.h"

namespace {

using namespace ZUNChannel;
using FenREL::SessionApp;
using FenRELTest::Frame;
namespace config = com::corvid::zun::config;

uint32_t Ip(const std::string& dotted)
{
    return ntohl(inet_addr(dotted.c_str()));
}

Frame Control(uint8_t type, uint32_t sessionId)
{
    Frame frame(16, 0);
    CtrlMsg::WriteHeader(frame.data(), 0, sessionId, CtrlMsg::kTypeSessionControl, 16, APP_ID_SESSION);
    frame[15] = type;
    return frame;
}

Frame Update(const config::CcpLcpZunConfigMsg& msg)
{
    const std::string body = msg.SerializeAsString();
    Frame frame(16 + body.size(), 0);
    CtrlMsg::WriteHeader(frame.data(), 0, 0xFFFFFFFF, CtrlMsg::kTypeData, static_cast<uint16_t>(frame.size()),
                         APP_ID_SESSION);
    memcpy(frame.data() + 16, body.data(), body.size());
    return frame;
}

config::CcpLcpZunConfigMsg Master(const std::string& ip)
{
    config::CcpLcpZunConfigMsg msg;
    msg.set_type(config::CcpLcpZunConfigMsg::MASTER_CONTROLLER);
    msg.mutable_master_controller()->mutable_ip()->set_ipv4(Ip(ip));
    return msg;
}

class SessionAppTest : public FenRELTest::CpDomainFixture {
protected:
    void SetUp() override
    {
        CpDomainFixture::SetUp();
        com::corvid::zun::ProductVersionMsg version;
        version.set_major(4);
        version.set_minor(2);
        version.set_suffix("demo");
        SessionApp::Init(version);
        _app = SessionApp::Instance();
        FenREL::CPDomainManager::Get()->RegisterPhysicalMasterSessionObserver(
            AppKey(APP_ID_CONFIG, 0), [this](const boost::intrusive_ptr<CtrlSession>& session, uint32_t state) {
                reports.push_back((state == 0 ? "up " : "down ") + session->GetKey().server);
            });
    }

    void TearDown() override
    {
        _app.reset();
        SessionApp::Destroy();
        CpDomainFixture::TearDown();
    }

    std::string Server() const { return _app->GetSession() ? _app->GetSession()->GetKey().server : ""; }

    void Ready(const std::string& server)
    {
        MakeReady(server);
        AppManager::Get()->PostEvent(new CtrlConnEvent(ConnKey(server, 0), false));
    }

    void Receive(const Frame& frame, const std::string& server)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ConnKey(server, 0));
    }

    // Runs the handshake on the first controller up to READY.
    void DriveToReady(const std::string& server)
    {
        _app->ProcessDPInitialSyncDone();
        Ready(server);
        Receive(Control(SessionApp::CONTROL_OPEN_ACK, _app->GetSession()->GetSessionID()), server);
        Receive(Update(Master(server)), server);
        ASSERT_EQ(SessionApp::READY, _app->GetSessionState());
    }

    FenREL::RemoteSessionUpdate ConfigSession()
    {
        std::vector<FenREL::RemoteSessionUpdate> sessions;
        FenREL::StateCache::GetInstance()->GetRemoteSessionTable()->QuerySessions(sessions);
        for (const auto& session : sessions) {
            if (session.sessionType == FenREL::RemoteSessionUpdate::CONFIG_SESSION) {
                return session;
            }
        }
        return FenREL::RemoteSessionUpdate();
    }

    boost::intrusive_ptr<SessionApp> _app;
    std::vector<std::string> reports;
};

TEST_F(SessionAppTest, OpenWaitsForBothTheConnectionAndTheDataPath)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    ASSERT_EQ("10.0.0.1", Server());

    FenRELTest::LogCapture log;
    _app->ProcessDPInitialSyncDone();
    EXPECT_NE(std::string::npos, log.Text().find("Session: control session is not ready, delay full sync with controller"));
    EXPECT_TRUE(SentFrames("10.0.0.1").empty());

    Ready("10.0.0.1");
    const auto frames = SentFrames("10.0.0.1");
    ASSERT_EQ(1u, frames.size());
    const Frame& open = frames[0];
    EXPECT_EQ(CtrlMsg::kTypeSessionControl, CtrlMsg::Type(open.data()));
    EXPECT_EQ(APP_ID_SESSION, CtrlMsg::ProtocolId(open.data()));
    EXPECT_EQ(_app->GetSession()->GetSessionID(), CtrlMsg::SessionId(open.data()));
    EXPECT_EQ(SessionApp::CONTROL_OPEN, open[15]);
    EXPECT_EQ(open.size(), CtrlMsg::Length(open.data()));
    config::ConfigSessionMsg body;
    ASSERT_TRUE(body.ParseFromArray(open.data() + 16, static_cast<int>(open.size() - 16)));
    EXPECT_EQ(4u, body.product_version().major());
    EXPECT_EQ("demo", body.product_version().suffix());
    EXPECT_EQ(SessionApp::OPEN, _app->GetSessionState());
    EXPECT_EQ(FenREL::RemoteSessionUpdate::STATE_INIT, ConfigSession().sessionState);
}

TEST_F(SessionAppTest, ReadyConnectionIdlesUntilTheDataPathIsSynced)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    Ready("10.0.0.1");
    EXPECT_TRUE(SentFrames("10.0.0.1").empty());
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
    _app->ProcessDPInitialSyncDone();
    EXPECT_EQ(1u, SentFrames("10.0.0.1").size());
    EXPECT_EQ(SessionApp::OPEN, _app->GetSessionState());
}

TEST_F(SessionAppTest, HandshakeRefusesWhatComesOutOfOrder)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    Ready("10.0.0.1");
    const uint32_t id = _app->GetSession()->GetSessionID();
    {
        FenRELTest::LogCapture log;
        Receive(Control(SessionApp::CONTROL_OPEN_ACK, id), "10.0.0.1");  // before the Open
        Receive(Update(Master("10.0.0.1")), "10.0.0.1");                 // before OPEN_ACK
        Frame bare(15, 0);
        CtrlMsg::WriteHeader(bare.data(), 0, id, CtrlMsg::kTypeSessionControl, 15, APP_ID_SESSION);
        Receive(bare, "10.0.0.1");
        EXPECT_NE(std::string::npos,
                  log.Text().find("errorCode=\"LCP00602\"] Session: Invalid Session Open ACK message from 10.0.0.1:0, "
                                  "session is not opened now"));
        EXPECT_NE(std::string::npos,
                  log.Text().find("Session: Session is not ready, not allow to receive update messages from 10.0.0.1:0"));
        EXPECT_NE(std::string::npos,
                  log.Text().find("errorCode=\"LCP00602\"] Session: Invalid Session Control message received from"));
    }
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());

    _app->ProcessDPInitialSyncDone();
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, id + 1), "10.0.0.1");  // another session's
    EXPECT_EQ(SessionApp::OPEN, _app->GetSessionState());
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, id), "10.0.0.1");
    EXPECT_EQ(SessionApp::OPEN_ACK, _app->GetSessionState());
    EXPECT_TRUE(reports.empty());

    Receive(Update(Master("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1"}), reports);
    EXPECT_EQ(FenREL::RemoteSessionUpdate::STATE_UP, ConfigSession().sessionState);
    EXPECT_EQ("10.0.0.1", ConfigSession().controllerIp);

    // A repeat in READY changes nothing.
    Receive(Update(Master("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(1u, reports.size());
}

TEST_F(SessionAppTest, MasterControllerElsewhereMovesTheSession)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    DriveToReady("10.0.0.1");
    SetControllers({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    Receive(Update(Master("10.0.0.3")), "10.0.0.1");
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1", "down 10.0.0.1"}), reports);
    EXPECT_EQ("10.0.0.3", Server());
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
    EXPECT_FALSE(_app->GetSession()->IsReady());

    // The new master's own update finishes the move; the old one's is skipped.
    Ready("10.0.0.3");
    Receive(Control(SessionApp::CONTROL_OPEN_ACK, _app->GetSession()->GetSessionID()), "10.0.0.3");
    Receive(Update(Master("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(SessionApp::OPEN_ACK, _app->GetSessionState());
    Receive(Update(Master("10.0.0.3")), "10.0.0.3");
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ("up 10.0.0.3", reports.back());
}

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
    auto* segment = share->add_segments();
    segment->set_start_slice_id(1);
    segment->set_num_slices(1);

    Receive(Update(assignment), other);
    EXPECT_EQ("", ShardingMgr::Get()->GetController(0x80000000));
    Receive(Update(assignment), session);
    EXPECT_EQ("10.0.0.9", ShardingMgr::Get()->GetController(0x80000000));

    config::CcpLcpZunConfigMsg revocation;
    revocation.set_type(config::CcpLcpZunConfigMsg::SHARDING_REVOCATION);
    revocation.mutable_sharding_revocation()->add_segments()->set_start_slice_id(1);
    FenRELTest::LogCapture log;
    Receive(Update(revocation), other);
    EXPECT_NE(std::string::npos, log.Text().find("Session: Sharding Invalid Slices Update message: server " + other));
    // The slice table keeps its owner until an assignment replaces it.
    EXPECT_EQ("10.0.0.9", ShardingMgr::Get()->GetController(0x80000000));
}

TEST_F(SessionAppTest, SilentCandidateTimesOutAndTheNextIsTried)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    const boost::intrusive_ptr<CtrlSession> first = _app->GetSession();
    _app->OnConnectTimeout(0);  // a stale time-out: no effect
    EXPECT_EQ(first, _app->GetSession());

    _app->OnConnectTimeout(1);
    EXPECT_EQ("connection_refused", CtrlConnPool::Get()->GetConnStatus(ConnKey("10.0.0.1", 0)));
    EXPECT_EQ(FenREL::RemoteSessionUpdate::STATE_DOWN, ConfigSession().sessionState);
    // The only candidate failed: the list is read again and it is tried anew.
    ASSERT_TRUE(_app->GetSession());
    EXPECT_NE(first, _app->GetSession());
    EXPECT_EQ("10.0.0.1", Server());
}

TEST_F(SessionAppTest, LostReadySessionWaitsThenChoosesAgain)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    DriveToReady("10.0.0.1");
    AppManager::Get()->PostEvent(new CtrlConnEvent(ConnKey("10.0.0.1", 0), true));
    EXPECT_EQ((std::vector<std::string>{"up 10.0.0.1", "down 10.0.0.1"}), reports);
    EXPECT_FALSE(_app->GetSession());
    EXPECT_EQ(SessionApp::INIT, _app->GetSessionState());
    EXPECT_EQ(FenREL::RemoteSessionUpdate::STATE_DOWN, ConfigSession().sessionState);
    _app->OnRetryTimer();
    EXPECT_EQ("10.0.0.1", Server());
}

TEST_F(SessionAppTest, ControllerListChangesLeaveAnUnchangedSessionAlone)
{
    SetControllers({"10.0.0.1"});
    _app->Start();
    DriveToReady("10.0.0.1");
    std::vector<ConnConfig> reordered = {ConnConfig("10.0.0.2", 1, "", nullptr, false),
                                         ConnConfig("10.0.0.1", 1, "", nullptr, false)};
    _app->ReceiveControllerList(reordered);
    EXPECT_EQ(SessionApp::READY, _app->GetSessionState());
    EXPECT_EQ(1u, reports.size());

    // The session's controller changed: torn down as by a real disconnection.
    _app->ReceiveControllerList({ConnConfig("10.0.0.1", 2, "", nullptr, false)});
    EXPECT_FALSE(_app->GetSession());
    EXPECT_EQ("down 10.0.0.1", reports.back());
}

TEST_F(SessionAppTest, RandomChoiceStaysInTheCluster)
{
    SetControllers({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    _app->Start();
    const std::string chosen = Server();
    EXPECT_TRUE(chosen == "10.0.0.1" || chosen == "10.0.0.2" || chosen == "10.0.0.3") << chosen;
}

}  // namespace
