#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChannelFixture.h"
#include "CtrlConn.h"
#include "CtrlMsg.h"

namespace {

using namespace ZUNChannel;

ConnConfig Controller(const std::string& server, int32_t port, bool ssl = false)
{
    return ConnConfig(server, port, "", nullptr, ssl);
}

class CtrlConnPoolTest : public FenRELTest::ChannelFixture {
protected:
    void SetUp() override
    {
        ChannelFixture::SetUp();
        _first = new FenRELTest::RecordingApp(APP_ID_L2, 0);
        _second = new FenRELTest::RecordingApp(APP_ID_VDRB, 0);
        AppManager::Get()->RegisterApp(_first);
        AppManager::Get()->RegisterApp(_second);
        Configuration::SetConnList({Controller("10.0.0.1", 1234), Controller("10.0.0.2", 1234)});
    }
    boost::intrusive_ptr<CtrlConn> Conn(const std::string& server)
    {
        return CtrlConnPool::Get()->FindConn(ConnKey(server, 0));
    }

    boost::intrusive_ptr<FenRELTest::RecordingApp> _first;
    boost::intrusive_ptr<FenRELTest::RecordingApp> _second;
};

TEST_F(CtrlConnPoolTest, OneConnectionPerKeySharedByItsUsers)
{
    auto pool = CtrlConnPool::Get();
    pool->RegisterConn(ConnKey("10.0.0.1", 0), _first->GetKey());
    auto conn = Conn("10.0.0.1");
    ASSERT_TRUE(conn);
    EXPECT_EQ(CtrlConn::CONN_CONNECTING, conn->GetState());
    EXPECT_EQ(1234, conn->GetConfig().port);
    pool->RegisterConn(ConnKey("10.0.0.1", 0), _second->GetKey());
    EXPECT_EQ(conn, Conn("10.0.0.1"));
    EXPECT_EQ(3, conn->GetUsers());

    EXPECT_TRUE(pool->UnregisterConn(ConnKey("10.0.0.1", 0), _second->GetKey()));
    EXPECT_FALSE(pool->UnregisterConn(ConnKey("10.0.0.9", 0), _second->GetKey()));
    EXPECT_EQ(2, conn->GetUsers());
}

TEST_F(CtrlConnPoolTest, LateJoinerOfAReadyConnectionHearsAtOnce)
{
    auto pool = CtrlConnPool::Get();
    pool->RegisterConn(ConnKey("10.0.0.1", 0), _first->GetKey());
    pool->SetHelloFlag(ConnKey("10.0.0.1", 0), CtrlConn::kReady);
    pool->RegisterConn(ConnKey("10.0.0.1", 0), _second->GetKey());
    EXPECT_TRUE(_first->events.empty());
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:0 ready"}), _second->events);
}

TEST_F(CtrlConnPoolTest, ControllerListChangesFollowEachConnection)
{
    auto pool = CtrlConnPool::Get();
    pool->RegisterConn(ConnKey("10.0.0.1", 0), _first->GetKey());
    pool->RegisterConn(ConnKey("10.0.0.2", 0), _first->GetKey());
    pool->RegisterConn(ConnKey("10.0.0.2", 0), _second->GetKey());
    auto kept = Conn("10.0.0.1");
    auto shared = Conn("10.0.0.2");

    // The same list again changes nothing.
    Configuration::SetConnList({Controller("10.0.0.1", 1234), Controller("10.0.0.2", 1234)});
    EXPECT_EQ(1234, kept->GetConfig().port);
    EXPECT_EQ(3, shared->GetUsers());

    // A changed port is taken over; a removed controller gives up the list's
    // share, once however many lists leave it out, and stays while
    // applications still use it.
    for (int reload = 0; reload < 3; ++reload) {
        Configuration::SetConnList({Controller("10.0.0.1", 4321)});
    }
    EXPECT_EQ(4321, kept->GetConfig().port);
    ASSERT_EQ(shared, Conn("10.0.0.2"));
    EXPECT_EQ(2, shared->GetUsers());
    EXPECT_EQ("", shared->GetConfig().server);

    // Back in the list, it takes the share back; out again, it gives it up.
    Configuration::SetConnList({Controller("10.0.0.1", 4321), Controller("10.0.0.2", 1234)});
    EXPECT_EQ("10.0.0.2", shared->GetConfig().server);
    EXPECT_EQ(3, shared->GetUsers());
    Configuration::SetConnList({Controller("10.0.0.1", 4321)});
    EXPECT_EQ(2, shared->GetUsers());

    EXPECT_TRUE(pool->UnregisterConn(ConnKey("10.0.0.2", 0), _first->GetKey()));
    EXPECT_TRUE(pool->UnregisterConn(ConnKey("10.0.0.2", 0), _second->GetKey()));
    EXPECT_FALSE(Conn("10.0.0.2"));
    EXPECT_EQ(CtrlConn::CONN_END, shared->GetState());

    // Without any application, leaving the list removes the connection.
    pool->UnregisterConn(ConnKey("10.0.0.1", 0), _first->GetKey());
    Configuration::SetConnList({});
    EXPECT_FALSE(Conn("10.0.0.1"));
}

TEST_F(CtrlConnPoolTest, UnknownKeysAreNoOps)
{
    auto pool = CtrlConnPool::Get();
    const ConnKey unknown("10.9.9.9", 0);
    // The message is freed: ASan reports a leak otherwise.
    EXPECT_FALSE(pool->SendMsg(unknown, CtrlMsg::BuildKeepAlive()));
    bool exists = true;
    EXPECT_FALSE(pool->IsConnected(unknown, &exists));
    EXPECT_FALSE(exists);
    EXPECT_EQ(0u, pool->GetMsgRate(unknown));
    EXPECT_TRUE(pool->GetControllerUuid(unknown).IsNil());
    pool->Reset(unknown);

    pool->SetConnStatus(unknown, "connection_refused");
    EXPECT_EQ("connection_refused", pool->GetConnStatus(unknown));
    pool->SetConnStatus(unknown, "");
    EXPECT_EQ("", pool->GetConnStatus(unknown));
}

}  // namespace
