// The config table's cases that the seeded mirror tests do not reach.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigSides.h"
#include "LogLevel.h"

namespace FenRELTest {
namespace {

using config::EntityPropertyMsg;
using config::LOG_ROUTER;
using config::LOG_SWITCH;
using FenREL::RemoteConfigItem;
using FenREL::RemotePropertyUpdate;
using testing::ElementsAre;
using testing::Field;

constexpr int32_t DELETE_OP = config::ZunConfigDeltaMsg::DELETE_OP;
constexpr int32_t UPDATE_OP = config::ZunConfigDeltaMsg::UPDATE_OP;

template <typename Side>
class ConfigSideTest : public testing::Test {
protected:
    // Entity 1 with two values, entity 2 with its marker only: four items, told to nobody yet.
    ConfigSideTest()
    {
        Side::Register(table, &observer);
        Apply(Content(), true);
        Told().clear();
    }
    size_t Size() const { return Side::QueryAll(table).size(); }
    bool Apply(std::vector<typename Side::Delta> deltas, bool fullSync) { return Side::Apply(table, deltas, fullSync); }
    auto& Told() { return Side::Told(observer); }
    std::vector<typename Side::Delta> Content()
    {
        return {Side::Make(UPDATE_OP, 1), Side::Make(UPDATE_OP, 1, {{Side::kTypes[0], 10}, {Side::kTypes[1], 11}}),
                Side::Make(UPDATE_OP, 2)};
    }

    StateCacheConfigTable table;
    ConfigRecorder observer;
};

using Sides = testing::Types<LocalSide, RemoteSide>;
TYPED_TEST_SUITE(ConfigSideTest, Sides);

TYPED_TEST(ConfigSideTest, FullSyncRaisesTheVersionUnlessItIsEmpty)
{
    const uint32_t version = TypeParam::Version(this->table);
    EXPECT_TRUE(this->Apply(this->Content(), true));
    EXPECT_EQ(version + 1, TypeParam::Version(this->table));
    EXPECT_TRUE(this->Apply({}, true));
    EXPECT_EQ(version + 1, TypeParam::Version(this->table));
    EXPECT_EQ(0u, this->Size());
}

TYPED_TEST(ConfigSideTest, CreateOfAKnownEntityStopsTheBatchAndTellsNobody)
{
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    EXPECT_FALSE(this->Apply(
        {TypeParam::Make(UPDATE_OP, 3), TypeParam::Make(UPDATE_OP, 1), TypeParam::Make(UPDATE_OP, 4)}, false));
    EXPECT_EQ(1, Count(log, "create existing entity operation!"));
    EXPECT_TRUE(this->Told().empty());
    EXPECT_EQ(5u, this->Size()) << "entity 3 stays, entity 4 never came";
    EXPECT_TRUE(this->Apply({TypeParam::Make(UPDATE_OP, 1)}, true)) << "in a full sync it refreshes the entity";
}

TYPED_TEST(ConfigSideTest, DeleteOfAnEntityTellsItsValuesThenTheEntity)
{
    this->Apply({TypeParam::Make(DELETE_OP, 1), TypeParam::Make(DELETE_OP, 9)}, false);
    ASSERT_EQ(1u, this->Told().size());
    const auto type = &TypeParam::Update::type;
    EXPECT_THAT(this->Told()[0], ElementsAre(Field(type, TypeParam::kTypes[0]), Field(type, TypeParam::kTypes[1]),
                                             Field(type, 0u), Field(type, 0u)))
        << "an unknown entity is still told gone";
}

// A full sync's sweep tells the two sides in opposite orders: the data path's
// states before their entity, the controller's entities before their properties.
TEST(ConfigSweepOrderTest, LocalStatesGoFirstRemoteEntitiesGoFirst)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    LocalSide::Register(table, &observer);
    RemoteSide::Register(table, &observer);
    LocalSide::Apply(table, {LocalSide::Make(UPDATE_OP, 1), LocalSide::Make(UPDATE_OP, 1, {{10, 1}, {11, 2}})}, true);
    LocalSide::Apply(table, {}, true);
    RemoteSide::Apply(table, {RemoteSide::Make(UPDATE_OP, 1), RemoteSide::Make(UPDATE_OP, 1, {{10, 1}, {13, 2}})},
                      true);
    RemoteSide::Apply(table, {}, true);
    ASSERT_EQ(2u, observer.local.size());
    ASSERT_EQ(2u, observer.remote.size());
    const auto local = &FenREL::LocalStateUpdate::type;
    const auto remote = &RemotePropertyUpdate::type;
    EXPECT_THAT(observer.local[1], ElementsAre(Field(local, 10u), Field(local, 11u), Field(local, 0u)));
    EXPECT_THAT(observer.remote[1], ElementsAre(Field(remote, 0u), Field(remote, 10u), Field(remote, 13u)));
}

class MockConfigObserver : public FenREL::SCConfigTableObserver {
public:
    MOCK_METHOD(void, ProcessRemotePropertyUpdate, (const FenREL::RemotePropertyUpdateList&), (override));
    MOCK_METHOD(void, ProcessLocalStateUpdate, (const FenREL::LocalStateUpdateList&), (override));
};

TEST(ConfigObserverTest, OneCallPerObserverAndBatchWithItsTypesInOrder)
{
    StateCacheConfigTable table;
    MockConfigObserver both;
    MockConfigObserver routers;
    EXPECT_FALSE(table.RegisterRemoteCacheObserver(LOG_SWITCH, nullptr));
    EXPECT_TRUE(table.RegisterRemoteCacheObserver(LOG_SWITCH, &both));
    EXPECT_FALSE(table.RegisterRemoteCacheObserver(LOG_SWITCH, &both));
    table.RegisterRemoteCacheObserver(LOG_ROUTER, &both);
    table.RegisterRemoteCacheObserver(LOG_ROUTER, &routers);

    const auto entityType = &RemotePropertyUpdate::entityType;
    EXPECT_CALL(both, ProcessRemotePropertyUpdate(ElementsAre(
                          Field(entityType, LOG_SWITCH), Field(entityType, LOG_ROUTER), Field(entityType, LOG_SWITCH))));
    EXPECT_CALL(routers, ProcessRemotePropertyUpdate(ElementsAre(Field(entityType, LOG_ROUTER))));
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {}, LOG_SWITCH),
                                   RemoteSide::Make(UPDATE_OP, 2, {}, LOG_ROUTER),
                                   RemoteSide::Make(UPDATE_OP, 3, {}, config::TRANSPORT_NODE),
                                   RemoteSide::Make(UPDATE_OP, 4, {}, LOG_SWITCH)},
                                  false);
}

TEST(ConfigObserverTest, RemoteUnregisterLeavesEveryTypeLocalUnregisterKeepsTheObserver)
{
    StateCacheConfigTable table;
    MockConfigObserver observer;
    RemoteSide::Register(table, &observer);
    LocalSide::Register(table, &observer);
    EXPECT_TRUE(table.UnRegisterRemoteCacheObserver(&observer));
    EXPECT_TRUE(table.UnRegisterLocalCacheObserver(&observer));
    EXPECT_CALL(observer, ProcessRemotePropertyUpdate).Times(0);
    EXPECT_CALL(observer, ProcessLocalStateUpdate).Times(1);
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1), RemoteSide::Make(UPDATE_OP, 2)}, false);
    table.AtomicUpdateLocalCache({LocalSide::Make(UPDATE_OP, 2)}, false);
}

TEST(ConfigRemoteInputTest, InvalidEntityOrPropertyIsDroppedWithALineAndNoIdIsTheDefaultId)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    RemoteSide::Register(table, &observer);
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    config::ZunConfigDeltaMsg noId = RemoteSide::Make(UPDATE_OP, 3, {{10, 7}});
    noId.clear_entity_id();
    EXPECT_TRUE(table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {{10, 5}}, config::INVALID_ENTITY),
                                               RemoteSide::Make(UPDATE_OP, 2, {{0, 5}, {10, 6}}), noId},
                                              false));
    EXPECT_EQ(1, Count(log, "Received invalid entity from controller"));
    EXPECT_EQ(1, Count(log, "Received invalid property from controller"));
    ASSERT_EQ(1u, observer.remote.size());
    const auto type = &RemotePropertyUpdate::type;
    EXPECT_THAT(observer.remote[0], ElementsAre(Field(type, 10u), Field(type, 10u)));
    EntityPropertyMsg value;
    EXPECT_TRUE(table.GetRemoteProperty(UuidMsg(), 10, value));
}

TEST(ConfigLocalInputDeathTest, EntityOfNoTypeStops)
{
    StateCacheConfigTable table;
    EXPECT_DEATH(table.AtomicUpdateLocalCache({LocalSide::Make(UPDATE_OP, 1, {}, 0)}, false),
                 "Panic: ASSERT src/stateCache/ConfigCache.cpp");
}

// ---- queries ----

config::ZunConfigDeltaMsg Port(uint32_t entity, const std::string& vif)
{
    config::ZunConfigDeltaMsg port = RemoteSide::Make(UPDATE_OP, entity, {}, config::LOG_SWITCH_PORT);
    EntityPropertyMsg* attachment = port.add_property();
    attachment->set_property_type(EntityPropertyMsg::LSP_ATTACHMENT);
    attachment->mutable_lsp_attachment()->mutable_vif_attachment()->set_vif_id(vif);
    return port;
}

TEST(ConfigQueryTest, LogicalPortIsFoundByItsWholeAttachmentId)
{
    StateCacheConfigTable table;
    table.AtomicUpdateRemoteCache({Port(6, "vif-aabb"), Port(5, "vif-aa")}, false);
    UuidMsg port;
    ASSERT_TRUE(table.FindLogicalPortByAttachment("vif-aa", port));
    EXPECT_EQ(5u, port.right());
    ASSERT_TRUE(table.FindLogicalPortByAttachment("vif-aabb", port));
    EXPECT_EQ(6u, port.right());
    EXPECT_FALSE(table.FindLogicalPortByAttachment("vif-a", port));
}

TEST(ConfigQueryTest, DeleteTransportNodeEmptiesTheRemoteCache)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    RemoteSide::Register(table, &observer);
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1), RemoteSide::Make(UPDATE_OP, 1, {{13, 100}})}, true);
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {{10, 3}})}, false);
    observer.remote.clear();
    table.DeleteTransportNode();
    std::vector<RemoteConfigItem> items;
    EXPECT_FALSE(table.QueryAllRemote(items));
    ASSERT_EQ(1u, observer.remote.size());
    EXPECT_EQ(3u, observer.remote[0].size());
    table.DeleteTransportNode();
    EXPECT_EQ(1u, observer.remote.size()) << "on an empty cache it tells no one";
}

TEST(ConfigVifInfoTest, DeltasInsertAndEraseAndOnlyAFullSyncUpdateReplaces)
{
    StateCacheConfigTable table;
    table.UpdateLocalVifInfoTable({{"vif-2", "lp-2", "eth2"}, {"vif-1", "lp-1", "eth1"}}, UPDATE_OP, false);
    table.UpdateLocalVifInfoTable({{"vif-1", "lp-x", "ethx"}, {"vif-2", "", ""}}, UPDATE_OP, false);
    table.UpdateLocalVifInfoTable({{"vif-2", "", ""}, {"vif-9", "", ""}}, DELETE_OP, false);
    table.UpdateLocalVifInfoTable({{"vif-3", "lp-3", "eth3"}}, DELETE_OP, true);
    std::vector<std::string> ports;
    table.ListVifLogicalPorts(ports);
    EXPECT_EQ(std::vector<std::string>{"lp-1"}, ports) << "unique by the VIF id, the first record stays";
    std::string name;
    EXPECT_TRUE(table.GetVifNameByLogicalPort("lp-1", name));
    EXPECT_EQ("eth1", name);
    table.UpdateLocalVifInfoTable({{"vif-3", "lp-3", "eth3"}}, UPDATE_OP, true);
    EXPECT_FALSE(table.GetVifNameByLogicalPort("lp-1", name));
    EXPECT_TRUE(table.GetVifNameByLogicalPort("lp-3", name));
}

}  // namespace
}  // namespace FenRELTest
