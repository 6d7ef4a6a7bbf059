#include <chrono>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>
#include <gtest/gtest.h>

#include "GlobalLock.h"
#include "LogLevel.h"
#include "StateCacheL2Table.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {
namespace {

using FenREL::L2CacheItem;
using FenREL::L2Side;
using FenREL::StateCacheL2Table;
using std::chrono::microseconds;
using std::chrono::seconds;

constexpr uint32_t kVni = 5001;

class L2TableTest : public testing::Test {
protected:
    L2TableTest() : table(new StateCacheL2Table([this] { return clock.Now(); }, &io))
    {
        table->RegisterRemoteObserver(&observer);
        table->RegisterLocalObserver(&observer);
    }

    // (type, serialised value) of the items of a VNI in one cache, in walk order.
    std::vector<std::pair<uint32_t, std::string>> Items(L2Side side, uint32_t vni = kVni)
    {
        std::vector<L2CacheItem> all;
        table->QueryAllL2Items(side, all);
        std::vector<std::pair<uint32_t, std::string>> items;
        for (const L2CacheItem& item : all) {
            if (item.kind == L2CacheItem::VNI_ITEM && item.vni == vni) {
                items.emplace_back(item.propertyType, item.value);
            }
        }
        return items;
    }
    L2CacheItem RemoteMac(uint64_t mac)
    {
        L2CacheItem item;
        EXPECT_TRUE(table->QueryRemoteL2ByKey(kVni, VM_MAC, mac, item)) << "mac " << mac;
        return item;
    }
    // Whether the removal timer was started again since the last look: a
    // start replaces the outstanding wait, which then completes as aborted.
    bool TimerRestarted() { return io.poll() > 0; }
    void CreateVniWithMacs(std::vector<uint64_t> macs)
    {
        std::vector<L2UpdateMappingItemMsg> items;
        for (uint64_t mac : macs) {
            items.push_back(MacItem(mac));
        }
        table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, items), true, false);
        observer.remote.clear();
    }
    L2UpdateMsg FullSyncOfMacs(std::vector<uint64_t> macs)
    {
        std::vector<L2UpdateMappingItemMsg> items;
        for (uint64_t mac : macs) {
            items.push_back(MacItem(mac));
        }
        return L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, items).Msg();
    }

    boost::asio::io_context io;  // never run: the tests fire the removal timer by hand
    FakeClock clock;
    L2Recorder observer;
    boost::intrusive_ptr<StateCacheL2Table> table;
};

// ---- remote VNIs ----

class L2CreationTest : public L2TableTest, public testing::WithParamInterface<bool> {};

TEST_P(L2CreationTest, FirstMessageOfVniIsItsWholeContentAtVersionZero)
{
    const L2UpdateMsg msg = L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1), MacItem(2)}).Msg();
    table->AtomicUpdateRemoteL2Cache(msg, GetParam(), false);

    ASSERT_EQ(1u, observer.remote.size());
    EXPECT_EQ(Changes(msg), Changes(observer.remote[0]));
    EXPECT_EQ(0u, RemoteMac(1).version);

    // The next full sync is version 1 and, restating the same, tells nobody.
    table->AtomicUpdateRemoteL2Cache(msg, true, false);
    EXPECT_EQ(1u, observer.remote.size());
    EXPECT_EQ(1u, RemoteMac(1).version);
    EXPECT_EQ(1u, RemoteMac(2).version);
}

INSTANTIATE_TEST_SUITE_P(FullSyncOrNot, L2CreationTest, testing::Bool());

TEST_F(L2TableTest, FullSyncReplacesWhatItLeavesOutAtOnce)
{
    CreateVniWithMacs({1, 2, 3});
    table->AtomicUpdateRemoteL2Cache(FullSyncOfMacs({2, 3, 4}), true, false);

    ASSERT_EQ(1u, observer.remote.size());
    const std::vector<L2Change> expected = {
        {VniKey(kVni), VM_MAC, ADD, MacItem(4).vm_mac().SerializeAsString()},
        {VniKey(kVni), VM_MAC, DEL, MacItem(1).vm_mac().SerializeAsString()}};
    EXPECT_EQ(expected, Changes(observer.remote[0]));
    const std::vector<std::pair<uint32_t, std::string>> left = {{VNI_ENTRY, ""},
                                                                {VM_MAC, MacItem(2).vm_mac().SerializeAsString()},
                                                                {VM_MAC, MacItem(3).vm_mac().SerializeAsString()},
                                                                {VM_MAC, MacItem(4).vm_mac().SerializeAsString()}};
    EXPECT_EQ(left, Items(L2Side::Remote));
    EXPECT_FALSE(table->IsRemovalTimerPending());
}

TEST_F(L2TableTest, FullSyncOfOneVniLeavesOthersAlone)
{
    CreateVniWithMacs({1});
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni + 1).Mapping(kVni + 1, VM_MAC, {MacItem(9)}), true, false);
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni + 1), true, false);
    EXPECT_EQ(2u, Items(L2Side::Remote).size());
    EXPECT_EQ(1u, Items(L2Side::Remote, kVni + 1).size());
}

TEST_F(L2TableTest, DeferredRemovalTellsNothingUntilTheTimerTakesTheItem)
{
    CreateVniWithMacs({1, 2});
    table->AtomicUpdateRemoteL2Cache(FullSyncOfMacs({2}), true, true);

    EXPECT_TRUE(observer.remote.empty());
    EXPECT_EQ(clock.Now(), RemoteMac(1).removalTime);
    EXPECT_EQ(0u, RemoteMac(1).version) << "a stale item keeps its version";
    EXPECT_FALSE(RemoteMac(2).removalTime.has_value());
    EXPECT_TRUE(table->IsRemovalTimerPending());

    clock.Advance(seconds(600) + microseconds(1000));
    table->L2RemoteCacheTimeout();

    ASSERT_EQ(1u, observer.remote.size());
    const std::vector<L2Change> expected = {{VniKey(kVni), VM_MAC, DEL, MacItem(1).vm_mac().SerializeAsString()}};
    EXPECT_EQ(expected, Changes(observer.remote[0]));
    EXPECT_EQ(2u, Items(L2Side::Remote).size());
    EXPECT_FALSE(TimerRestarted()) << "nothing stale is left";
}

TEST_F(L2TableTest, ReAddInADeltaRescuesAStaleItemSilently)
{
    CreateVniWithMacs({1, 2});
    table->AtomicUpdateRemoteL2Cache(FullSyncOfMacs({2}), true, true);
    table->AtomicUpdateRemoteL2Cache(L2Msg().Mapping(kVni, VM_MAC, {MacItem(1)}), false, false);

    EXPECT_TRUE(observer.remote.empty());
    EXPECT_FALSE(RemoteMac(1).removalTime.has_value());
    EXPECT_EQ(1u, RemoteMac(1).version);

    clock.Advance(seconds(1200));
    table->L2RemoteCacheTimeout();
    EXPECT_TRUE(observer.remote.empty());
    EXPECT_EQ(3u, Items(L2Side::Remote).size());
}

TEST_F(L2TableTest, CancelL2TimeoutRescuesEveryStaleItemOfTheVni)
{
    CreateVniWithMacs({1, 2, 3});
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni), true, true);
    EXPECT_TRUE(RemoteMac(3).removalTime.has_value());

    LogCapture log(FenREL::LOGLEVEL_INFO);
    EXPECT_TRUE(table->CancelL2Timeout(kVni));
    EXPECT_FALSE(table->CancelL2Timeout(kVni + 1));
    clock.Advance(seconds(1200));
    table->L2RemoteCacheTimeout();

    EXPECT_TRUE(observer.remote.empty());
    EXPECT_EQ(4u, Items(L2Side::Remote).size());
    EXPECT_EQ(1, Count(log, "Cancel L2 timeout for VNI 5001"));
    EXPECT_EQ(1, Count(log, "Cancel L2 timeout for non-existing vni : 5002"));
}

struct TimerCase {
    microseconds age;
    bool removed;
};

void PrintTo(const TimerCase& c, std::ostream* os)
{
    *os << c.age.count() << " us";
}

class L2RemovalAgeTest : public L2TableTest, public testing::WithParamInterface<TimerCase> {};

// An item marked just before the timer was started may be a little younger
// than the delay when it fires: it goes at the next firing, ten minutes on.
TEST_P(L2RemovalAgeTest, ItemYoungerThanTheLimitSurvivesAndKeepsTheTimerRunning)
{
    CreateVniWithMacs({1, 2});
    table->AtomicUpdateRemoteL2Cache(FullSyncOfMacs({2}), true, true);
    clock.Advance(GetParam().age);
    table->L2RemoteCacheTimeout();

    EXPECT_EQ(GetParam().removed ? 1u : 0u, observer.remote.size());
    EXPECT_EQ(GetParam().removed ? 2u : 3u, Items(L2Side::Remote).size());
    EXPECT_EQ(!GetParam().removed, TimerRestarted());
}

INSTANTIATE_TEST_SUITE_P(Ages, L2RemovalAgeTest,
                         testing::Values(TimerCase{seconds(0), false}, TimerCase{seconds(600), false},
                                         TimerCase{microseconds(600000999), false},
                                         TimerCase{microseconds(600001000), true}, TimerCase{seconds(3600), true}));

TEST_F(L2TableTest, TimerWithNothingStaleDoesNothing)
{
    CreateVniWithMacs({1});
    clock.Advance(seconds(3600));
    table->L2RemoteCacheTimeout();
    EXPECT_TRUE(observer.remote.empty());
    EXPECT_FALSE(TimerRestarted());
    EXPECT_EQ(2u, Items(L2Side::Remote).size());
}

TEST_F(L2TableTest, StaleVniEntryTimesOutAsTheVniItself)
{
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1)}), true, false);
    observer.remote.clear();
    // A full sync without the VNI entry leaves the entry itself stale.
    table->AtomicUpdateRemoteL2Cache(L2Msg().Mapping(kVni, VM_MAC, {MacItem(1)}), true, true);
    clock.Advance(seconds(601));
    table->L2RemoteCacheTimeout();

    ASSERT_EQ(1u, observer.remote.size());
    const L2MappingUpdateMsg& mapping = observer.remote[0].mapping_update(0);
    EXPECT_FALSE(mapping.has_type());
    EXPECT_EQ(kVni, mapping.vn_instance().vni());
    EXPECT_EQ(DEL, mapping.items(0).op());
}

TEST_F(L2TableTest, DeltaThatChangesNothingTellsNobody)
{
    CreateVniWithMacs({1, 2});
    table->AtomicUpdateRemoteL2Cache(L2Msg().Mapping(kVni, VM_MAC, {MacItem(1), MacItem(2)}), false, false);
    table->AtomicUpdateRemoteL2Cache(L2UpdateMsg(), false, false);
    EXPECT_TRUE(observer.remote.empty());
}

TEST_F(L2TableTest, DeltaTellsOnlyWhatChanged)
{
    CreateVniWithMacs({1, 2});
    table->AtomicUpdateRemoteL2Cache(
        L2Msg().Mapping(kVni, VM_MAC, {MacItem(1), MacItem(3), MacItem(2, 0x0a000001, DEL)}), false, false);
    ASSERT_EQ(1u, observer.remote.size());
    const std::vector<L2Change> expected = {{VniKey(kVni), VM_MAC, ADD, MacItem(3).vm_mac().SerializeAsString()},
                                            {VniKey(kVni), VM_MAC, DEL, MacItem(2).vm_mac().SerializeAsString()}};
    EXPECT_EQ(expected, Changes(observer.remote[0]));
    EXPECT_EQ(0u, RemoteMac(3).version);
}

struct KeyCase {
    uint32_t type;
    L2UpdateMappingItemMsg item;
    uint64_t key;
    std::string value;
};

void PrintTo(const KeyCase& c, std::ostream* os)
{
    *os << "type " << c.type;
}

class L2ValueKeyTest : public L2TableTest, public testing::WithParamInterface<KeyCase> {};

TEST_P(L2ValueKeyTest, ItemIsKeptAsItsSubMessageWithItsKey)
{
    const KeyCase& c = GetParam();
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni).Mapping(kVni, c.type, {c.item}), false, false);

    L2CacheItem item;
    ASSERT_TRUE(table->QueryRemoteL2ByKey(kVni, c.type, c.key, item));
    EXPECT_EQ(c.value, item.value);
    EXPECT_EQ(c.key, item.valueKey);
    uint64_t key = 99;
    EXPECT_EQ(c.key != 0, table->GetL2PropertyValueKeyFromString(c.item.SerializeAsString(), c.type, key));
    EXPECT_EQ(c.key, key);
    EXPECT_EQ(c.type == VTEP_CHANGE ? 2 : 0, Count(log, "GetL2PropertyValueKeyFromString: invalid property type 4"));
}

INSTANTIATE_TEST_SUITE_P(
    Types, L2ValueKeyTest,
    testing::Values(KeyCase{VM_IP, IpItem(0x0a000005, 0x1234), 0x0a000005, IpItem(0x0a000005, 0x1234).vm_ip().SerializeAsString()},
                    KeyCase{VM_MAC, MacItem(0xaabbcc, 0x0a000009), 0xaabbcc,
                            MacItem(0xaabbcc, 0x0a000009).vm_mac().SerializeAsString()},
                    KeyCase{VTEP, VtepItem(0x0a000003), 0x0a000003, VtepItem(0x0a000003).vtep().SerializeAsString()},
                    KeyCase{VTEP_CHANGE, VtepChangeItem(1, 2), 0, VtepChangeItem(1, 2).vtep_change().SerializeAsString()}));

TEST_F(L2TableTest, RemoveRemoteL2ForVniTellsEachItemThenTheVni)
{
    table->AtomicUpdateRemoteL2Cache(
        L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1), MacItem(2)}).Mapping(kVni, VTEP, {VtepItem(3)}), false,
        false);
    observer.remote.clear();

    EXPECT_TRUE(table->RemoveRemoteL2ForVni(kVni));
    ASSERT_EQ(1u, observer.remote.size());
    const L2UpdateMsg& gone = observer.remote[0];
    ASSERT_EQ(4, gone.mapping_update_size()) << "one mapping per item, then the VNI";
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(gone.mapping_update(i).has_type());
        EXPECT_EQ(kVni, gone.mapping_update(i).vn_instance().vni());
        EXPECT_EQ(7u, gone.mapping_update(i).vn_instance().transport_switch_id());
        ASSERT_EQ(1, gone.mapping_update(i).items_size());
        EXPECT_EQ(DEL, gone.mapping_update(i).items(0).op());
    }
    EXPECT_EQ(VtepItem(3).vtep().SerializeAsString(), gone.mapping_update(2).items(0).vtep().SerializeAsString());
    EXPECT_FALSE(gone.mapping_update(3).has_type());
    EXPECT_EQ(DEL, gone.mapping_update(3).items(0).op());
    EXPECT_TRUE(Items(L2Side::Remote).empty());

    // Gone means gone: the next message creates the VNI afresh.
    EXPECT_FALSE(table->RemoveRemoteL2ForVni(kVni));
    EXPECT_EQ(1u, observer.remote.size());
}

// ---- remote routing domains ----

TEST_F(L2TableTest, RoutingDomainLifecycle)
{
    const UuidMsg domain = Uuid(1, 2);
    table->AtomicUpdateRemoteL2Cache(L2Msg().Routing(&domain, {{0, true}, {0x0a000001, true}}), true, false);
    ASSERT_EQ(1u, observer.remote.size()) << "creation tells the whole message";
    EXPECT_EQ(2u, Changes(observer.remote[0]).size());

    // A full sync that drops one VTEP and brings another.
    table->AtomicUpdateRemoteL2Cache(L2Msg().Routing(&domain, {{0, true}, {0x0a000002, true}}), true, false);
    ASSERT_EQ(2u, observer.remote.size());
    const std::string key = domain.SerializeAsString();
    const std::vector<L2Change> swapped = {{key, 10, ADD, Vtep(0x0a000002).SerializeAsString()},
                                           {key, 10, DEL, Vtep(0x0a000001).SerializeAsString()}};
    EXPECT_EQ(swapped, Changes(observer.remote[1]));

    // A delta: re-adding is ignored, a removal is told.
    table->AtomicUpdateRemoteL2Cache(L2Msg().Routing(&domain, {{0x0a000002, true}}), false, false);
    EXPECT_EQ(2u, observer.remote.size());
    table->AtomicUpdateRemoteL2Cache(L2Msg().Routing(&domain, {{0x0a000002, false}, {0x0a000004, true}}), false,
                                     false);
    ASSERT_EQ(3u, observer.remote.size());

    std::vector<L2UpdateVtepMsg> vteps;
    ASSERT_TRUE(table->QueryRoutingDomainVteps(domain, vteps));
    ASSERT_EQ(1u, vteps.size());
    EXPECT_EQ(0x0a000004u, vteps[0].vtep_ip().ipv4());
    std::vector<UuidMsg> domains;
    table->ListRoutingDomains(domains);
    ASSERT_EQ(1u, domains.size());
    EXPECT_EQ(2u, domains[0].right());

    EXPECT_TRUE(table->RemoveRemoteL2ForRoutingDomain(domain));
    ASSERT_EQ(4u, observer.remote.size());
    const auto& gone = observer.remote[3];
    ASSERT_EQ(2, gone.routing_vtep_update_size()) << "the VTEP, then the domain";
    EXPECT_EQ(0x0a000004u, gone.routing_vtep_update(0).items(0).vtep().vtep_ip().ipv4());
    EXPECT_FALSE(gone.routing_vtep_update(1).items(0).has_vtep());
    EXPECT_FALSE(table->QueryRoutingDomainVteps(domain, vteps));
    EXPECT_FALSE(table->RemoveRemoteL2ForRoutingDomain(domain));
}

TEST_F(L2TableTest, VniAndRoutingDomainInOneMessageMakeOneDelta)
{
    const UuidMsg domain = Uuid(3, 4);
    table->AtomicUpdateRemoteL2Cache(
        L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1)}).Routing(&domain, {{0x0a000001, true}}), false, false);
    ASSERT_EQ(1u, observer.remote.size());
    EXPECT_EQ(3u, Changes(observer.remote[0]).size());

    L2UpdateMsg all;
    ASSERT_TRUE(table->ReadAllRemote(all));
    EXPECT_EQ(Changes(observer.remote[0]), Changes(all)) << "the image of the cache is what was told";
}

// ---- local ----

TEST_F(L2TableTest, LocalDeltaJoinsAndLeavesVnisAndGoesOnAsItCame)
{
    const L2UpdateMsg join = L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1), MacItem(1)}).Msg();
    table->AtomicUpdateLocalL2Cache(join, false);
    ASSERT_EQ(1u, observer.local.size());
    EXPECT_EQ(join.SerializeAsString(), observer.local[0].SerializeAsString());
    EXPECT_EQ(2u, Items(L2Side::Local).size());

    uint32_t switchId = 0;
    EXPECT_TRUE(table->GetLocalSwitchId(kVni, VM_MAC, switchId));
    EXPECT_EQ(7u, switchId);

    table->AtomicUpdateLocalL2Cache(L2Msg().Entry(kVni, DEL), false);
    EXPECT_TRUE(Items(L2Side::Local).empty());
    EXPECT_EQ(2u, observer.local.size());
    EXPECT_FALSE(table->GetLocalSwitchId(kVni, VM_MAC, switchId));
    EXPECT_TRUE(observer.remote.empty());
}

TEST_F(L2TableTest, LocalFullSyncSweepsEveryVniNotOnlyThoseItNames)
{
    table->AtomicUpdateLocalL2Cache(L2Msg()
                                        .Entry(kVni)
                                        .Mapping(kVni, VM_MAC, {MacItem(1), MacItem(2)})
                                        .Entry(kVni + 1)
                                        .Mapping(kVni + 1, VM_IP, {IpItem(5, 6)}),
                                    true);
    observer.local.clear();

    table->AtomicUpdateLocalL2Cache(L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(2), MacItem(3)}), true);
    ASSERT_EQ(1u, observer.local.size());
    std::vector<L2Change> changes = Changes(observer.local[0]);
    std::sort(changes.begin(), changes.end());
    std::vector<L2Change> expected = {{VniKey(kVni), VM_MAC, ADD, MacItem(3).vm_mac().SerializeAsString()},
                                      {VniKey(kVni), VM_MAC, DEL, MacItem(1).vm_mac().SerializeAsString()},
                                      {VniKey(kVni + 1), VNI_ENTRY, DEL, ""},
                                      {VniKey(kVni + 1), VM_IP, DEL, IpItem(5, 6).vm_ip().SerializeAsString()}};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, changes);
    std::vector<uint32_t> vnis;
    table->ListVnis(L2Side::Local, vnis);
    EXPECT_EQ(std::vector<uint32_t>{kVni}, vnis);

    // Restating it all tells nobody.
    table->AtomicUpdateLocalL2Cache(L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(2), MacItem(3)}), true);
    EXPECT_EQ(1u, observer.local.size());
}

TEST_F(L2TableTest, DrVtepFollowsTheDataPath)
{
    L2UpdateVtepMsg vtep;
    EXPECT_FALSE(table->GetDRVtep(vtep));

    table->AtomicUpdateLocalL2Cache(L2Msg().Routing(nullptr, {{0x0a000001, true}}), true);
    ASSERT_EQ(1u, observer.local.size());
    const auto& update = observer.local[0].routing_vtep_update(0);
    ASSERT_EQ(2, update.items_size()) << "the old DR VTEP goes, the new one comes";
    EXPECT_EQ(DEL, update.items(0).op());
    EXPECT_EQ(ADD, update.items(1).op());
    EXPECT_EQ(0x0a000001u, update.items(1).vtep().vtep_ip().ipv4());
    ASSERT_TRUE(table->GetDRVtep(vtep));
    EXPECT_EQ(0x0a000001u, vtep.vtep_ip().ipv4());

    table->AtomicUpdateLocalL2Cache(L2Msg().Routing(nullptr, {{0x0a000001, true}}), true);
    EXPECT_EQ(1u, observer.local.size()) << "the same DR VTEP again changes nothing";

    // A second VTEP replaces the first without a DEL; a DEL of the one held clears it.
    table->AtomicUpdateLocalL2Cache(L2Msg().Routing(nullptr, {{0x0a000002, true}}), false);
    ASSERT_TRUE(table->GetDRVtep(vtep));
    EXPECT_EQ(0x0a000002u, vtep.vtep_ip().ipv4());
    table->AtomicUpdateLocalL2Cache(L2Msg().Routing(nullptr, {{0x0a000002, false}}), false);
    EXPECT_FALSE(table->GetDRVtep(vtep));
    EXPECT_EQ(3u, observer.local.size());
}

// ---- queries ----

TEST_F(L2TableTest, FullCacheOfAVniGroupsItemsByType)
{
    const L2UpdateMsg msg = L2Msg()
                                .Entry(kVni)
                                .Mapping(kVni, VM_MAC, {MacItem(1), MacItem(2)})
                                .Mapping(kVni, VM_IP, {IpItem(3, 1)})
                                .Msg();
    table->AtomicUpdateRemoteL2Cache(msg, false, false);
    table->AtomicUpdateLocalL2Cache(msg, false);

    L2UpdateMsg remote;
    ASSERT_TRUE(table->QueryRemoteL2FullCacheByVNI(kVni, remote));
    ASSERT_EQ(3, remote.mapping_update_size());
    EXPECT_FALSE(remote.mapping_update(0).has_type());
    EXPECT_EQ(0, remote.mapping_update(0).items_size()) << "the remote VNI entry has no item";
    EXPECT_EQ(VM_IP, static_cast<uint32_t>(remote.mapping_update(1).type()));
    EXPECT_EQ(2, remote.mapping_update(2).items_size());

    L2UpdateMsg local;
    ASSERT_TRUE(table->QueryLocalL2FullCacheByVNI(kVni, local));
    ASSERT_EQ(1, local.mapping_update(0).items_size()) << "the local VNI entry is an ADD";
    std::vector<L2Change> fromMsg = Changes(msg);
    std::vector<L2Change> fromCache = Changes(local);
    std::sort(fromMsg.begin(), fromMsg.end());
    std::sort(fromCache.begin(), fromCache.end());
    EXPECT_EQ(fromMsg, fromCache);

    std::vector<std::string> values;
    EXPECT_TRUE(table->QueryL2Values(kVni, VM_MAC, L2Side::Remote, values));
    EXPECT_EQ((std::vector<std::string>{MacItem(1).vm_mac().SerializeAsString(),
                                        MacItem(2).vm_mac().SerializeAsString()}),
              values);
    std::vector<L2UpdateMappingItemMsg> items;
    EXPECT_TRUE(table->QueryL2Items(kVni, VM_IP, L2Side::Local, items));
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ(IpItem(3, 1).SerializeAsString(), items[0].SerializeAsString());
}

TEST_F(L2TableTest, QueriesOfWhatIsNotThereFailWithALine)
{
    CreateVniWithMacs({1});
    LogCapture log(FenREL::LOGLEVEL_VERBOSE);
    L2UpdateMsg msg;
    L2CacheItem item;
    std::vector<std::string> values;
    EXPECT_FALSE(table->QueryRemoteL2FullCacheByVNI(kVni + 1, msg));
    EXPECT_FALSE(table->QueryLocalL2FullCacheByVNI(kVni, msg));
    EXPECT_FALSE(table->QueryRemoteL2ByKey(kVni, VM_MAC, 2, item));
    EXPECT_FALSE(table->QueryL2Values(kVni, VTEP, L2Side::Remote, values));
    EXPECT_FALSE(table->QueryL2Values(kVni, 99, L2Side::Remote, values));
    EXPECT_FALSE(table->ReadAllLocal(msg));
    EXPECT_EQ(1, Count(log, "property does not exist: vni : 5002"));
    EXPECT_EQ(1, Count(log, "property does not exist: vni : 5001 , type: 2, valueKey: 2"));
    EXPECT_EQ(1, Count(log, "property does not exist: vni : 5001 , type: 3"));
    EXPECT_EQ(1, Count(log, "property does not exist: vni : 5001 , type: 99"));
}

// ---- lifetime and threads ----

TEST_F(L2TableTest, TimerFiringAfterTheTableIsGoneDoesNothing)
{
    CreateVniWithMacs({1});
    table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni), true, true);
    ASSERT_TRUE(table->IsRemovalTimerPending());
    table.reset();
    // The stopped wait completes now; under the sanitizers a call into the
    // dead table would show.
    EXPECT_EQ(1u, io.poll());
}

TEST(L2TableDeathTest, OperationWhileAnotherThreadHoldsTheLockStops)
{
    boost::asio::io_context io;
    boost::intrusive_ptr<StateCacheL2Table> table(
        new StateCacheL2Table(std::chrono::steady_clock::now, &io));
    EXPECT_DEATH(
        {
            std::thread holder([] { ZUNChannel::GlobalLock::Mutex().lock(); });
            holder.join();  // the lock stays with the thread that ended
            table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni), false, false);
        },
        "Panic: ASSERT src/stateCache/StateCacheL2Table.cpp");
}

// ---- faults against the mirror ----

struct FaultCase {
    const char* name;
    L2Side side;
    L2UpdateMsg setup;
    L2UpdateMsg fault;
    const char* line;
};

void PrintTo(const FaultCase& c, std::ostream* os)
{
    *os << c.name;
}

class L2MirrorFaultDeathTest : public testing::TestWithParam<FaultCase> {};

TEST_P(L2MirrorFaultDeathTest, LogsDumpsAndStops)
{
    const FaultCase& c = GetParam();
    boost::asio::io_context io;
    boost::intrusive_ptr<StateCacheL2Table> table(new StateCacheL2Table(std::chrono::steady_clock::now, &io));
    if (c.side == L2Side::Remote) {
        table->AtomicUpdateRemoteL2Cache(c.setup, false, false);
    } else {
        table->AtomicUpdateLocalL2Cache(c.setup, false);
    }
    const std::string dump = c.side == L2Side::Remote ? "Dump L2 remote StateCache" : "Dump L2 local StateCache";
    // The line with its error code, then the dump of the cache concerned,
    // then the stop.
    EXPECT_DEATH(
        {
            LogToStderr(FenREL::LOGLEVEL_VERBOSE);
            if (c.side == L2Side::Remote) {
                table->AtomicUpdateRemoteL2Cache(c.fault, false, false);
            } else {
                table->AtomicUpdateLocalL2Cache(c.fault, false);
            }
        },
        std::string("errorCode=\"LCP00020\"[^\n]*") + c.line + ".*" + dump +
            ".*vni is : 5001.*Panic: ASSERT src/stateCache/StateCacheL2Table.cpp");
}

const UuidMsg kDomain = Uuid(8, 9);

INSTANTIATE_TEST_SUITE_P(
    Faults, L2MirrorFaultDeathTest,
    testing::Values(
        FaultCase{"RemoteDelOfWhatIsNotThere", L2Side::Remote,
                  L2Msg().Entry(kVni).Mapping(kVni, VM_MAC, {MacItem(1)}),
                  L2Msg().Mapping(kVni, VM_MAC, {MacItem(2, 0x0a000001, DEL)}),
                  "VNIBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing {22}property: update msg received is"},
        FaultCase{"RemoteRoutingDelOfWhatIsNotThere", L2Side::Remote,
                  L2Msg().Entry(kVni).Routing(&kDomain, {{0x0a000001, true}}),
                  L2Msg().Routing(&kDomain, {{0x0a000002, false}}),
                  "RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing {23}property: update msg "
                  "received is"},
        FaultCase{"LocalSecondJoin", L2Side::Local, L2Msg().Entry(kVni), L2Msg().Entry(kVni),
                  "add duplicated vni entry: 5001"},
        FaultCase{"LocalLeaveOfUnknownVni", L2Side::Local, L2Msg().Entry(kVni), L2Msg().Entry(kVni + 1, DEL),
                  "leave non-existing vni entry: 5002"},
        FaultCase{"LocalDelOfWhatIsNotThere", L2Side::Local, L2Msg().Entry(kVni),
                  L2Msg().Mapping(kVni, VM_IP, {IpItem(1, 2, DEL)}), "delete non-existing vni entry:"},
        FaultCase{"LocalDelOfAnotherDrVtep", L2Side::Local,
                  L2Msg().Entry(kVni).Routing(nullptr, {{0x0a000001, true}}),
                  L2Msg().Routing(nullptr, {{0x0a000002, false}}), "delete no-existing DR VTEP:"},
        FaultCase{"LocalAddOfTheSameDrVtep", L2Side::Local,
                  L2Msg().Entry(kVni).Routing(nullptr, {{0x0a000001, true}}),
                  L2Msg().Routing(nullptr, {{0x0a000001, true}}), "add existing DR VTEP:"}),
    [](const testing::TestParamInfo<FaultCase>& info) { return info.param.name; });

}  // namespace
}  // namespace FenRELTest
