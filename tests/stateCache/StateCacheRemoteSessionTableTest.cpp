#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SCRemoteSessionTableObserver.h"
#include "StateCacheRemoteSessionTable.h"

namespace FenRELTest {
namespace {

using FenREL::RemoteSessionUpdate;
using testing::AllOf;
using testing::Field;

constexpr int32_t L2 = RemoteSessionUpdate::L2_SESSION;
constexpr int32_t L3 = RemoteSessionUpdate::L3_SESSION;
constexpr int32_t CONFIG = RemoteSessionUpdate::CONFIG_SESSION;

class MockSessionObserver : public FenREL::SCRemoteSessionTableObserver {
public:
    MOCK_METHOD(void, ProcessRemoteSessionUpdate, (const RemoteSessionUpdate&), (override));
};

testing::Matcher<const RemoteSessionUpdate&> Session(int32_t type, uint32_t index, int32_t state, const std::string& ip)
{
    return AllOf(Field(&RemoteSessionUpdate::sessionType, type), Field(&RemoteSessionUpdate::index, index),
                 Field(&RemoteSessionUpdate::sessionState, state), Field(&RemoteSessionUpdate::controllerIp, ip));
}

class SessionTableTest : public testing::Test {
protected:
    SessionTableTest() { EXPECT_TRUE(table.RegisterObserver(&observer)); }

    FenREL::StateCacheRemoteSessionTable table;
    testing::StrictMock<MockSessionObserver> observer;
};

TEST_F(SessionTableTest, EveryChangeIsToldAlsoOneThatChangesNothing)
{
    testing::InSequence order;
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate(Session(L2, 5001, 2, ""))).Times(2);
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate(Session(L2, 5001, 2, "10.0.0.1")));
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate(Session(L2, 5001, 1, "10.0.0.1")));
    // A removal looks like an update of the item as it was.
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate(Session(L2, 5001, 1, "10.0.0.1")));

    EXPECT_TRUE(table.UpdateSessionState(L2, 5001, 2));
    EXPECT_TRUE(table.UpdateSessionState(L2, 5001, 2));
    EXPECT_TRUE(table.UpdateControllerIp(L2, 5001, "10.0.0.1"));
    EXPECT_TRUE(table.UpdateSessionState(L2, 5001, 1));
    EXPECT_TRUE(table.RemoveSession(L2, 5001));

    std::vector<RemoteSessionUpdate> sessions;
    table.QuerySessions(sessions);
    EXPECT_TRUE(sessions.empty());
}

TEST_F(SessionTableTest, UnknownSessionsAreRefusedAndToldToNobody)
{
    EXPECT_FALSE(table.UpdateControllerIp(L2, 5001, "10.0.0.1")) << "an IP before the first state";
    EXPECT_FALSE(table.RemoveSession(L3, 7));
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate(Session(L3, 7, 2, "")));
    table.UpdateSessionState(L3, 7, 2);
    EXPECT_FALSE(table.UpdateControllerIp(L3, 8, "10.0.0.1"));
    EXPECT_FALSE(table.UpdateControllerIp(L2, 7, "10.0.0.1")) << "the key is the type and the index";
}

TEST_F(SessionTableTest, ObserverThatUnregistersFromItsCallIsNotCalledAgain)
{
    EXPECT_FALSE(table.RegisterObserver(&observer));
    EXPECT_CALL(observer, ProcessRemoteSessionUpdate).WillOnce([this](const RemoteSessionUpdate&) {
        EXPECT_TRUE(table.UnRegisterObserver(&observer));
    });
    table.UpdateSessionState(CONFIG, 0, 2);
    table.UpdateSessionState(CONFIG, 0, 1);
    EXPECT_FALSE(table.UnRegisterObserver(&observer));
}

}  // namespace
}  // namespace FenRELTest
