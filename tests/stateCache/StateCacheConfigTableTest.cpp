#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogLevel.h"
#include "StateCacheConfigTable.h"
#include "ConfigSides.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {
namespace {

using com::corvid::zun::config::EntityPropertyMsg;
using com::corvid::zun::config::EntityStateMsg;
using com::corvid::zun::config::ZunConfigDeltaMsg;
using FenREL::LocalStateUpdate;
using FenREL::RemoteConfigItem;
using FenREL::RemotePropertyUpdate;
using FenREL::StateCacheConfigTable;
using testing::ElementsAre;
using testing::Field;
using testing::InSequence;
using testing::SizeIs;

constexpr int32_t DELETE_OP = ZunConfigDeltaMsg::DELETE_OP;
constexpr int32_t UPDATE_OP = ZunConfigDeltaMsg::UPDATE_OP;

template <typename Side>
class ConfigSideTest : public testing::Test {
protected:
    ConfigSideTest() { Side::Register(table, &observer); }
    static size_t Size(const StateCacheConfigTable& table) { return Side::QueryAll(table).size(); }

    bool Apply(std::vector<typename Side::Delta> deltas, bool fullSync)
    {
        return Side::Apply(table, deltas, fullSync);
    }
    const auto& Calls() { return Side::Told(observer); }
    // A cache of two entities: 1 with both types, 2 with the marker only.
    void Fill()
    {
        Apply({Side::Make(UPDATE_OP, 1, {}), Side::Make(UPDATE_OP, 1, {{Side::kTypes[0], 10}, {Side::kTypes[1], 11}}),
               Side::Make(UPDATE_OP, 2, {})},
              true);
        Side::Told(observer).clear();
    }
    std::vector<typename Side::Delta> FillAgain()
    {
        return {Side::Make(UPDATE_OP, 1, {}), Side::Make(UPDATE_OP, 1, {{Side::kTypes[0], 10}, {Side::kTypes[1], 11}}),
                Side::Make(UPDATE_OP, 2, {})};
    }

    StateCacheConfigTable table;
    ConfigRecorder observer;
};

using Sides = testing::Types<LocalSide, RemoteSide>;
TYPED_TEST_SUITE(ConfigSideTest, Sides);

TYPED_TEST(ConfigSideTest, FullSyncOfTheSameContentRaisesTheVersionAndTellsNothing)
{
    this->Fill();
    const uint32_t version = TypeParam::Version(this->table);
    EXPECT_TRUE(this->Apply(this->FillAgain(), true));
    EXPECT_TRUE(this->Calls().empty());
    EXPECT_EQ(version + 1, TypeParam::Version(this->table));
    EXPECT_EQ(4u, this->Size(this->table));
}

TYPED_TEST(ConfigSideTest, EmptyFullSyncEmptiesTheCacheAndKeepsTheVersion)
{
    this->Fill();
    const uint32_t version = TypeParam::Version(this->table);
    EXPECT_TRUE(this->Apply({}, true));
    ASSERT_EQ(1u, this->Calls().size());
    EXPECT_THAT(this->Calls()[0], SizeIs(4));
    for (const auto& update : this->Calls()[0]) {
        EXPECT_EQ(DELETE_OP, update.operation);
        EXPECT_EQ(update.type != 0, update.value != nullptr) << "a delete carries the value that was cached";
    }
    EXPECT_EQ(version, TypeParam::Version(this->table));
    EXPECT_EQ(0u, this->Size(this->table));

    this->Apply({}, false);
    EXPECT_EQ(1u, this->Calls().size()) << "an empty delta tells nobody";
}

TYPED_TEST(ConfigSideTest, CreateOfAKnownEntityStopsTheBatchAndTellsNobody)
{
    this->Fill();
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    EXPECT_FALSE(this->Apply({TypeParam::Make(UPDATE_OP, 3, {}), TypeParam::Make(UPDATE_OP, 1, {}),
                              TypeParam::Make(UPDATE_OP, 4, {})},
                             false));
    EXPECT_EQ(1, Count(log, "create existing entity operation!"));
    EXPECT_TRUE(this->Calls().empty());
    EXPECT_EQ(5u, this->Size(this->table)) << "entity 3 stays, entity 4 never came";

    // The same entity in a full sync only refreshes it.
    EXPECT_TRUE(this->Apply({TypeParam::Make(UPDATE_OP, 1, {})}, true));
}

TYPED_TEST(ConfigSideTest, UnsupportedOperationStopsTheBatchWithItsErrorCode)
{
#ifndef NDEBUG
    GTEST_SKIP() << "the generated setter rejects an unknown operation in a debug build";
#endif
    this->Fill();
    LogCapture log(FenREL::LOGLEVEL_ERROR);
    EXPECT_FALSE(this->Apply({TypeParam::Make(UPDATE_OP, 3, {}), TypeParam::Make(3, 1, {{TypeParam::kTypes[0], 1}}),
                              TypeParam::Make(UPDATE_OP, 4, {})},
                             false));
    EXPECT_EQ(1, Count(log, "errorCode=\"LCP00007\"] unsupported operation 3"));
    EXPECT_TRUE(this->Calls().empty());
    EXPECT_EQ(5u, this->Size(this->table));
}

TYPED_TEST(ConfigSideTest, ValuesChangeOnlyWhenTheirBytesDo)
{
    this->Fill();
    this->Apply({TypeParam::Make(UPDATE_OP, 1, {{TypeParam::kTypes[0], 10}}),
                 TypeParam::Make(DELETE_OP, 2, {{TypeParam::kTypes[1], 0}})},
                false);
    EXPECT_TRUE(this->Calls().empty()) << "an equal value, and the delete of what is not there, change nothing";

    this->Apply({TypeParam::Make(UPDATE_OP, 1, {{TypeParam::kTypes[0], 12}})}, false);
    ASSERT_EQ(1u, this->Calls().size());
    ASSERT_EQ(1u, this->Calls()[0].size());
    EXPECT_EQ(UPDATE_OP, this->Calls()[0][0].operation);
    EXPECT_EQ(12u, TypeParam::PayloadOf(this->Calls()[0][0]));

    this->Apply({TypeParam::Make(DELETE_OP, 1, {{TypeParam::kTypes[0], 0}})}, false);
    ASSERT_EQ(2u, this->Calls().size());
    EXPECT_EQ(DELETE_OP, this->Calls()[1][0].operation);
    EXPECT_EQ(12u, TypeParam::PayloadOf(this->Calls()[1][0])) << "the cached value, not the one in the delete";
}

TYPED_TEST(ConfigSideTest, DeleteOfAnEntityTellsItsValuesThenTheEntity)
{
    this->Fill();
    this->Apply({TypeParam::Make(DELETE_OP, 1, {}), TypeParam::Make(DELETE_OP, 9, {})}, false);
    ASSERT_EQ(1u, this->Calls().size());
    const auto& updates = this->Calls()[0];
    ASSERT_EQ(4u, updates.size());
    EXPECT_EQ(TypeParam::kTypes[0], updates[0].type);
    EXPECT_EQ(TypeParam::kTypes[1], updates[1].type);
    EXPECT_EQ(0u, updates[2].type);
    EXPECT_EQ(nullptr, updates[2].value);
    EXPECT_EQ(0u, updates[3].type) << "an unknown entity is still told gone";
    EXPECT_EQ(1u, this->Size(this->table));
}

// The sweep tells the two sides in opposite orders: the data path's states
// go before their entity, the controller's entities before their properties.
TEST(ConfigSweepOrderTest, LocalFullSyncTellsStatesBeforeTheEntity)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    LocalSide::Register(table, &observer);
    LocalSide::Apply(table, {LocalSide::Make(UPDATE_OP, 1, {}), LocalSide::Make(UPDATE_OP, 1, {{10, 1}, {11, 2}})},
                     true);
    LocalSide::Apply(table, {}, true);
    ASSERT_EQ(2u, observer.local.size());
    EXPECT_THAT(observer.local[1], ElementsAre(Field(&LocalStateUpdate::type, 10u),
                                               Field(&LocalStateUpdate::type, 11u), Field(&LocalStateUpdate::type, 0u)));
}

TEST(ConfigSweepOrderTest, RemoteFullSyncTellsTheEntityBeforeItsProperties)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    RemoteSide::Register(table, &observer);
    RemoteSide::Apply(table,
                      {RemoteSide::Make(UPDATE_OP, 1, {}), RemoteSide::Make(UPDATE_OP, 1, {{10, 1}, {13, 2}}),
                       RemoteSide::Make(UPDATE_OP, 2, {})},
                      true);
    // Entity 2 stays; entity 1 is left out.
    RemoteSide::Apply(table, {RemoteSide::Make(UPDATE_OP, 2, {})}, true);
    ASSERT_EQ(2u, observer.remote.size());
    EXPECT_THAT(observer.remote[1],
                ElementsAre(Field(&RemotePropertyUpdate::type, 0u), Field(&RemotePropertyUpdate::type, 10u),
                            Field(&RemotePropertyUpdate::type, 13u)));
    EXPECT_EQ(1u, observer.remote[1][0].entityId.right());
}

class MockConfigObserver : public FenREL::SCConfigTableObserver {
public:
    MOCK_METHOD(void, ProcessRemotePropertyUpdate, (const FenREL::RemotePropertyUpdateList&), (override));
    MOCK_METHOD(void, ProcessLocalStateUpdate, (const FenREL::LocalStateUpdateList&), (override));
};

TEST(ConfigObserverTest, OneCallPerObserverAndBatchWithItsTypesInOrder)
{
    using com::corvid::zun::config::LOG_ROUTER;
    using com::corvid::zun::config::LOG_SWITCH;
    StateCacheConfigTable table;
    MockConfigObserver both;
    MockConfigObserver routers;
    table.RegisterRemoteCacheObserver(LOG_SWITCH, &both);
    table.RegisterRemoteCacheObserver(LOG_ROUTER, &both);
    table.RegisterRemoteCacheObserver(LOG_ROUTER, &routers);

    const auto entityType = &RemotePropertyUpdate::entityType;
    EXPECT_CALL(both, ProcessRemotePropertyUpdate(ElementsAre(Field(entityType, LOG_SWITCH), Field(entityType, LOG_ROUTER),
                                                              Field(entityType, LOG_SWITCH))));
    EXPECT_CALL(routers, ProcessRemotePropertyUpdate(ElementsAre(Field(entityType, LOG_ROUTER))));
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {}, LOG_SWITCH),
                                   RemoteSide::Make(UPDATE_OP, 2, {}, LOG_ROUTER),
                                   RemoteSide::Make(UPDATE_OP, 3, {}, com::corvid::zun::config::TRANSPORT_NODE),
                                   RemoteSide::Make(UPDATE_OP, 4, {}, LOG_SWITCH)},
                                  false);
}

TEST(ConfigObserverTest, RegistrationRules)
{
    using com::corvid::zun::config::LOG_ROUTER;
    using com::corvid::zun::config::LOG_SWITCH;
    StateCacheConfigTable table;
    MockConfigObserver observer;
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    EXPECT_FALSE(table.RegisterRemoteCacheObserver(LOG_SWITCH, nullptr));
    EXPECT_TRUE(table.RegisterRemoteCacheObserver(LOG_SWITCH, &observer));
    EXPECT_TRUE(table.RegisterRemoteCacheObserver(LOG_ROUTER, &observer));
    EXPECT_FALSE(table.RegisterRemoteCacheObserver(LOG_SWITCH, &observer));
    EXPECT_TRUE(table.RegisterLocalCacheObserver(com::corvid::zun::config::VIF, &observer));
    EXPECT_FALSE(table.UnRegisterLocalCacheObserver(nullptr));
    EXPECT_EQ(1, Count(log, "In RegisterRemoteCacheObserver, observer is NULL!"));
    EXPECT_EQ(1, Count(log, "In RegisterRemoteCacheObserver, observer exist for entityType 1 !"));
    EXPECT_EQ(1, Count(log, "In UnRegisterLocalCacheObserver, observer is NULL!"));

    // A remote observer goes for every type; a local one stays registered.
    EXPECT_TRUE(table.UnRegisterRemoteCacheObserver(&observer));
    EXPECT_TRUE(table.UnRegisterLocalCacheObserver(&observer));
    EXPECT_CALL(observer, ProcessRemotePropertyUpdate).Times(0);
    EXPECT_CALL(observer, ProcessLocalStateUpdate).Times(1);
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {}, LOG_SWITCH),
                                   RemoteSide::Make(UPDATE_OP, 2, {}, LOG_ROUTER)},
                                  false);
    table.AtomicUpdateLocalCache({LocalSide::Make(UPDATE_OP, 2, {})}, false);
}

TEST(ConfigRemoteInputTest, InvalidEntityOrPropertyIsSkippedWithALine)
{
    StateCacheConfigTable table;
    ConfigRecorder observer;
    RemoteSide::Register(table, &observer);
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    EXPECT_TRUE(table.AtomicUpdateRemoteCache(
        {RemoteSide::Make(UPDATE_OP, 1, {{10, 5}}, com::corvid::zun::config::INVALID_ENTITY),
         RemoteSide::Make(UPDATE_OP, 2, {{0, 5}, {10, 6}})},
        false));
    EXPECT_EQ(1, Count(log, "Received invalid entity from controller"));
    EXPECT_EQ(1, Count(log, "Received invalid property from controller"));
    ASSERT_EQ(1u, observer.remote.size());
    EXPECT_THAT(observer.remote[0], ElementsAre(Field(&RemotePropertyUpdate::type, 10u)));
}

TEST(ConfigRemoteInputTest, MissingEntityIdIsKeyedAsItsDefault)
{
    StateCacheConfigTable table;
    ZunConfigDeltaMsg delta = RemoteSide::Make(UPDATE_OP, 1, {{10, 5}});
    delta.clear_entity_id();
    table.AtomicUpdateRemoteCache({delta}, false);
    EntityPropertyMsg value;
    EXPECT_TRUE(table.GetRemoteProperty(com::corvid::zun::UuidMsg(), 10, value));
}

TEST(ConfigLocalInputDeathTest, EntityOfNoTypeStops)
{
    StateCacheConfigTable table;
    EXPECT_DEATH(table.AtomicUpdateLocalCache({LocalSide::Make(UPDATE_OP, 1, {}, 0)}, false),
                 "Panic: ASSERT src/stateCache/ConfigCache.cpp");
}

// ---- queries ----

class ConfigQueryTest : public testing::Test {
protected:
    ConfigQueryTest()
    {
        table.AtomicUpdateLocalCache({LocalSide::Make(UPDATE_OP, 1, {}), LocalSide::Make(UPDATE_OP, 1, {{10, 7}})},
                                     true);
        ZunConfigDeltaMsg port = RemoteSide::Make(UPDATE_OP, 5, {}, com::corvid::zun::config::LOG_SWITCH_PORT);
        port.add_property()->CopyFrom(Attachment("vif-aa"));
        ZunConfigDeltaMsg other = RemoteSide::Make(UPDATE_OP, 6, {}, com::corvid::zun::config::LOG_SWITCH_PORT);
        other.add_property()->CopyFrom(Attachment("vif-aabb"));
        table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {}), RemoteSide::Make(UPDATE_OP, 1, {{13, 100}}),
                                       other, port},
                                      true);
    }
    static EntityPropertyMsg Attachment(const std::string& vif)
    {
        EntityPropertyMsg property;
        property.set_property_type(EntityPropertyMsg::LSP_ATTACHMENT);
        property.mutable_lsp_attachment()->mutable_vif_attachment()->set_vif_id(vif);
        return property;
    }

    StateCacheConfigTable table;
};

TEST_F(ConfigQueryTest, LookUpsTellAMissingEntityFromAMissingValue)
{
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    EntityStateMsg state;
    EXPECT_TRUE(table.GetLocalState("vif-1", 10, state));
    EXPECT_EQ(7u, state.vif_ips(0).ipv4());
    EXPECT_FALSE(table.GetLocalState("vif-1", 11, state));
    EXPECT_FALSE(table.GetLocalState("vif-9", 10, state));
    EntityPropertyMsg property;
    EXPECT_FALSE(table.GetRemoteProperty(Uuid(0xabc, 1), 10, property));
    EXPECT_FALSE(table.GetRemoteProperty(Uuid(0xabc, 9), 10, property));
    EXPECT_EQ(1, Count(log, "entity exists, but state does not exist: vif-1, 11"));
    EXPECT_EQ(1, Count(log, "state does not exist: vif-9, 10"));
    EXPECT_EQ(1, Count(log, "entity exists, but property does not exist: 2748, 1, 10"));
    EXPECT_EQ(1, Count(log, "property does not exist: 2748, 9 with type: 10"));

    uint32_t vlan = 0;
    EXPECT_TRUE(table.GetLogSwitchVlan(Uuid(0xabc, 1), vlan));
    EXPECT_EQ(100u, vlan);
    EXPECT_FALSE(table.GetLogSwitchVlan(Uuid(0xabc, 5), vlan));
}

TEST_F(ConfigQueryTest, EntityQueriesCopyEveryItem)
{
    std::vector<RemoteConfigItem> items;
    ASSERT_TRUE(table.QueryRemoteEntity(Uuid(0xabc, 1), items));
    ASSERT_EQ(2u, items.size());
    EXPECT_EQ(nullptr, items[0].value);
    EXPECT_EQ(100u, items[1].value->ls_vlan().vlan_id());
    EXPECT_EQ(Uuid(0xabc, 1).SerializeAsString(), items[1].entityId);

    // A delta leaves its items at the version they had; this query stamps the table's.
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {{10, 3}})}, false);
    table.AtomicUpdateRemoteCache({RemoteSide::Make(UPDATE_OP, 1, {}), RemoteSide::Make(UPDATE_OP, 1, {{10, 3}})}, true);
    items.clear();
    ASSERT_TRUE(table.QueryRemoteEntityProperties(Uuid(0xabc, 1), items));
    ASSERT_EQ(2u, items.size()) << "the property the full sync left out went";
    EXPECT_EQ(2u, items[1].version);
    EXPECT_FALSE(table.QueryRemoteEntity(Uuid(0xabc, 77), items));
}

TEST_F(ConfigQueryTest, LogicalPortIsFoundByItsWholeAttachmentId)
{
    com::corvid::zun::UuidMsg port;
    ASSERT_TRUE(table.FindLogicalPortByAttachment("vif-aa", port));
    EXPECT_EQ(5u, port.right()) << "a port whose id only contains it is not the one";
    ASSERT_TRUE(table.FindLogicalPortByAttachment("vif-aabb", port));
    EXPECT_EQ(6u, port.right());
    EXPECT_FALSE(table.FindLogicalPortByAttachment("vif-a", port));
}

TEST_F(ConfigQueryTest, DeleteTransportNodeRemovesWhatTheLastFullSyncBrought)
{
    ConfigRecorder observer;
    RemoteSide::Register(table, &observer);
    table.DeleteTransportNode();
    std::vector<RemoteConfigItem> items;
    EXPECT_FALSE(table.QueryAllRemote(items));
    ASSERT_EQ(1u, observer.remote.size());
    EXPECT_THAT(observer.remote[0], ElementsAre(Field(&RemotePropertyUpdate::type, 0u),
                                                Field(&RemotePropertyUpdate::type, 13u)));

    table.DeleteTransportNode();
    EXPECT_EQ(1u, observer.remote.size()) << "on an empty cache it tells no one";
}

TEST(ConfigVifInfoTest, DeltasInsertAndEraseAndAFullSyncReplaces)
{
    StateCacheConfigTable table;
    table.UpdateLocalVifInfoTable({{"vif-2", "lp-2", "eth2"}, {"vif-1", "lp-1", "eth1"}}, UPDATE_OP, false);
    table.UpdateLocalVifInfoTable({{"vif-1", "lp-x", "ethx"}}, UPDATE_OP, false);
    std::vector<std::string> ports;
    table.ListVifLogicalPorts(ports);
    EXPECT_EQ((std::vector<std::string>{"lp-1", "lp-2"}), ports) << "ordered and unique by the first string";

    table.UpdateLocalVifInfoTable({{"vif-1", "", ""}, {"vif-9", "", ""}}, DELETE_OP, false);
    std::string name;
    EXPECT_FALSE(table.GetVifNameByLogicalPort("lp-1", name));
    EXPECT_TRUE(table.GetVifNameByLogicalPort("lp-2", name));
    EXPECT_EQ("eth2", name);

    table.UpdateLocalVifInfoTable({{"vif-3", "lp-3", "eth3"}}, DELETE_OP, true);
    EXPECT_TRUE(table.GetVifNameByLogicalPort("lp-2", name)) << "a full sync must be an update";
    table.UpdateLocalVifInfoTable({{"vif-3", "lp-3", "eth3"}}, UPDATE_OP, true);
    ports.clear();
    table.ListVifLogicalPorts(ports);
    EXPECT_EQ(std::vector<std::string>{"lp-3"}, ports);
}

}  // namespace
}  // namespace FenRELTest
