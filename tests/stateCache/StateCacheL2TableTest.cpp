// The L2 table's cases that the seeded mirror tests do not see: versions,
// deferred removal by the clock, the shape of what is told, the local side,
// queries, and the faults against the mirror.

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

L2Msg Macs(std::vector<uint64_t> macs, bool withEntry = true)
{
    std::vector<L2UpdateMappingItemMsg> items;
    for (uint64_t mac : macs) {
        items.push_back(MacItem(mac));
    }
    L2Msg msg;
    return (withEntry ? msg.Entry(kVni) : msg).Mapping(kVni, VM_MAC, items);
}

class L2TableTest : public testing::Test {
protected:
    L2TableTest() : table(new StateCacheL2Table([this] { return clock.Now(); }, &io))
    {
        table->RegisterRemoteObserver(&observer);
        table->RegisterLocalObserver(&observer);
    }

    size_t Size(L2Side side)
    {
        std::vector<L2CacheItem> all;
        table->QueryAllL2Items(side, all);
        return all.size();
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
    // The VNI with MACs 1 and 2, then a full sync that leaves MAC 1 stale.
    void MakeMacOneStale()
    {
        table->AtomicUpdateRemoteL2Cache(Macs({1, 2}), true, false);
        table->AtomicUpdateRemoteL2Cache(Macs({2}), true, true);
    }

    boost::asio::io_context io;  // never run: the tests fire the removal timer by hand
    FakeClock clock;
    L2Recorder observer;
    boost::intrusive_ptr<StateCacheL2Table> table;
};

// ---- remote VNIs ----

TEST_F(L2TableTest, DeferredRemovalTellsNothingUntilTheTimerTakesTheItem)
{
    MakeMacOneStale();
    EXPECT_EQ(1u, observer.remote.size()) << "only the creation was told";
    EXPECT_EQ(clock.Now(), RemoteMac(1).removalTime);
    EXPECT_EQ(0u, RemoteMac(1).version) << "a stale item keeps the version of the VNI's creation";
    EXPECT_EQ(1u, RemoteMac(2).version) << "the second full sync is version 1";
    EXPECT_FALSE(RemoteMac(2).removalTime.has_value());
    EXPECT_TRUE(table->IsRemovalTimerPending());

    clock.Advance(seconds(600) + microseconds(1000));
    table->L2RemoteCacheTimeout();
    ASSERT_EQ(2u, observer.remote.size());
    EXPECT_EQ((std::vector<L2Change>{{VniKey(kVni), VM_MAC, DEL, Mac(1)}}), Changes(observer.remote[1]));
    EXPECT_EQ(2u, Size(L2Side::Remote));
    EXPECT_FALSE(TimerRestarted()) << "nothing stale is left";
}

class L2RemovalAgeTest : public L2TableTest, public testing::WithParamInterface<std::pair<microseconds, bool>> {};

// An item marked just before the timer was started may be a little younger
// than the delay when it fires: it goes at the next firing, ten minutes on.
TEST_P(L2RemovalAgeTest, ItemYoungerThanTheLimitSurvivesAndKeepsTheTimerRunning)
{
    const auto [age, removed] = GetParam();
    MakeMacOneStale();
    clock.Advance(age);
    table->L2RemoteCacheTimeout();
    EXPECT_EQ(removed ? 2u : 1u, observer.remote.size());
    EXPECT_EQ(removed ? 2u : 3u, Size(L2Side::Remote));
    EXPECT_EQ(!removed, TimerRestarted());
}

INSTANTIATE_TEST_SUITE_P(Ages, L2RemovalAgeTest,
                         testing::Values(std::make_pair(seconds(0), false), std::make_pair(seconds(600), false),
                                         std::make_pair(microseconds(600000999), false),
                                         std::make_pair(microseconds(600001000), true),
                                         std::make_pair(seconds(3600), true)),
                         [](const auto& info) { return std::to_string(info.param.first.count()) + "us"; });

// A re-ADD in a delta, or CancelL2Timeout of the VNI, rescues a stale item silently.
class L2RescueTest : public L2TableTest, public testing::WithParamInterface<bool> {};

TEST_P(L2RescueTest, RescuedItemOutlivesTheTimer)
{
    MakeMacOneStale();
    if (GetParam()) {
        EXPECT_TRUE(table->CancelL2Timeout(kVni));
        EXPECT_FALSE(table->CancelL2Timeout(kVni + 1));
    } else {
        table->AtomicUpdateRemoteL2Cache(Macs({1}, false), false, false);
        EXPECT_EQ(1u, RemoteMac(1).version);
    }
    EXPECT_FALSE(RemoteMac(1).removalTime.has_value());
    clock.Advance(seconds(1200));
    table->L2RemoteCacheTimeout();
    EXPECT_EQ(1u, observer.remote.size());
    EXPECT_EQ(3u, Size(L2Side::Remote));
}

INSTANTIATE_TEST_SUITE_P(CancelOrReAdd, L2RescueTest, testing::Bool());

TEST_F(L2TableTest, StaleVniEntryTimesOutAsTheVniItself)
{
    table->AtomicUpdateRemoteL2Cache(Macs({1}), true, false);
    table->AtomicUpdateRemoteL2Cache(Macs({1}, false), true, true);  // no VNI entry: the entry goes stale
    clock.Advance(seconds(601));
    table->L2RemoteCacheTimeout();
    ASSERT_EQ(2u, observer.remote.size());
    EXPECT_EQ((std::vector<L2Change>{{VniKey(kVni), VNI_ENTRY, DEL, ""}}), Changes(observer.remote[1]));
}

// Each item is kept as its sub-message, known by its IP, MAC or VTEP address.
TEST_F(L2TableTest, ItemIsKeptAsItsSubMessageWithItsKey)
{
    L2UpdateMappingItemMsg change;
    change.mutable_vtep_change()->mutable_new_vtep_ip()->set_ipv4(2);
    const std::tuple<uint32_t, L2UpdateMappingItemMsg, uint64_t> cases[] = {
        {VM_IP, IpItem(0x0a000005, 0x1234), 0x0a000005}, {VM_MAC, MacItem(0xaabbcc, 0x0a000009), 0xaabbcc},
        {VTEP, VtepItem(0x0a000003), 0x0a000003}, {VTEP_CHANGE, change, 0}};
    for (const auto& [type, sent, key] : cases) {
        SCOPED_TRACE(type);
        table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni + type).Mapping(kVni + type, type, {sent}), false, false);
        L2CacheItem item;
        ASSERT_TRUE(table->QueryRemoteL2ByKey(kVni + type, type, key, item));
        EXPECT_EQ(ValueOf(sent, type), item.value);
        EXPECT_EQ(key, item.valueKey);
        uint64_t parsed = 99;
        EXPECT_EQ(key != 0, table->GetL2PropertyValueKeyFromString(sent.SerializeAsString(), type, parsed));
        EXPECT_EQ(key, parsed);
    }
    std::vector<std::string> values;
    EXPECT_TRUE(table->QueryL2Values(kVni + VM_MAC, VM_MAC, L2Side::Remote, values));
    EXPECT_FALSE(table->QueryL2Values(kVni + VM_MAC, 99, L2Side::Remote, values)) << "a type beyond the known ones";
}

// One message of a VNI and a domain is one delta; a removal tells one mapping
// per item, the VNI or domain itself last.
TEST_F(L2TableTest, ShapeOfWhatIsTold)
{
    const UuidMsg domain = Uuid(1, 2);
    table->AtomicUpdateRemoteL2Cache(Macs({1, 2}).Routing(&domain, {{0, true}, {0x0a000004, true}}), false, false);
    ASSERT_EQ(1u, observer.remote.size());
    L2UpdateMsg all;
    ASSERT_TRUE(table->ReadAllRemote(all));
    EXPECT_EQ(Changes(observer.remote[0]), Changes(all));

    EXPECT_TRUE(table->RemoveRemoteL2ForVni(kVni));
    EXPECT_TRUE(table->RemoveRemoteL2ForRoutingDomain(domain));
    ASSERT_EQ(3u, observer.remote.size());
    const L2UpdateMsg& vni = observer.remote[1];
    ASSERT_EQ(3, vni.mapping_update_size());
    for (const L2MappingUpdateMsg& mapping : vni.mapping_update()) {
        EXPECT_EQ(7u, mapping.vn_instance().transport_switch_id());
        ASSERT_EQ(1, mapping.items_size());
        EXPECT_EQ(DEL, mapping.items(0).op());
    }
    EXPECT_FALSE(vni.mapping_update(2).has_type());
    const L2UpdateMsg& routing = observer.remote[2];
    ASSERT_EQ(2, routing.routing_vtep_update_size());
    EXPECT_EQ(0x0a000004u, routing.routing_vtep_update(0).items(0).vtep().vtep_ip().ipv4());
    EXPECT_FALSE(routing.routing_vtep_update(1).items(0).has_vtep());
    EXPECT_FALSE(table->RemoveRemoteL2ForVni(kVni));
    EXPECT_FALSE(table->RemoveRemoteL2ForRoutingDomain(domain));
}

// ---- local ----

TEST_F(L2TableTest, LocalDeltaJoinsAndLeavesVnisAndGoesOnAsItCame)
{
    const L2UpdateMsg join = Macs({1, 1});
    table->AtomicUpdateLocalL2Cache(join, false);
    ASSERT_EQ(1u, observer.local.size());
    EXPECT_EQ(join.SerializeAsString(), observer.local[0].SerializeAsString());
    EXPECT_EQ(2u, Size(L2Side::Local));
    uint32_t switchId = 0;
    EXPECT_TRUE(table->GetLocalSwitchId(kVni, VM_MAC, switchId));
    EXPECT_EQ(7u, switchId);

    table->AtomicUpdateLocalL2Cache(L2Msg().Entry(kVni, DEL), false);
    EXPECT_EQ(0u, Size(L2Side::Local));
    EXPECT_EQ(2u, observer.local.size());
    EXPECT_TRUE(observer.remote.empty());
}

TEST_F(L2TableTest, LocalFullSyncSweepsEveryVniNotOnlyThoseItNames)
{
    table->AtomicUpdateLocalL2Cache(Macs({1, 2}).Entry(kVni + 1).Mapping(kVni + 1, VM_IP, {IpItem(5, 6)}), true);
    table->AtomicUpdateLocalL2Cache(Macs({2, 3}), true);
    ASSERT_EQ(2u, observer.local.size());
    std::vector<L2Change> changes = Changes(observer.local[1]);
    std::sort(changes.begin(), changes.end());
    const std::vector<L2Change> expected = {{VniKey(kVni), VM_MAC, ADD, Mac(3)},
                                            {VniKey(kVni), VM_MAC, DEL, Mac(1)},
                                            {VniKey(kVni + 1), VNI_ENTRY, DEL, ""},
                                            {VniKey(kVni + 1), VM_IP, DEL, ValueOf(IpItem(5, 6), VM_IP)}};
    EXPECT_EQ(expected, changes);

    L2UpdateMsg local;
    ASSERT_TRUE(table->QueryLocalL2FullCacheByVNI(kVni, local));
    EXPECT_EQ(Changes(Macs({2, 3})), Changes(local)) << "the local VNI entry comes as an ADD";
    table->AtomicUpdateLocalL2Cache(Macs({2, 3}), true);
    EXPECT_EQ(2u, observer.local.size()) << "restating it all tells nobody";
}

TEST_F(L2TableTest, DrVtepFollowsTheDataPath)
{
    L2UpdateVtepMsg vtep;
    EXPECT_FALSE(table->GetDRVtep(vtep));
    table->AtomicUpdateLocalL2Cache(L2Msg().Routing(nullptr, {{0x0a000001, true}}), true);
    ASSERT_EQ(1u, observer.local.size());
    const std::vector<L2Change> swapped = {{"", ROUTING, DEL, ""}, {"", ROUTING, ADD, Vtep(0x0a000001).SerializeAsString()}};
    EXPECT_EQ(swapped, Changes(observer.local[0])) << "the old DR VTEP goes, the new one comes";
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
}

// ---- lifetime and threads ----

TEST_F(L2TableTest, TimerFiringAfterTheTableIsGoneDoesNothing)
{
    MakeMacOneStale();
    ASSERT_TRUE(table->IsRemovalTimerPending());
    table.reset();
    // The stopped wait completes now; under the sanitizers a call into the dead table would show.
    EXPECT_EQ(1u, io.poll());
}

TEST(L2TableDeathTest, OperationWhileAnotherThreadHoldsTheLockStops)
{
    boost::asio::io_context io;
    boost::intrusive_ptr<StateCacheL2Table> table(new StateCacheL2Table(std::chrono::steady_clock::now, &io));
    EXPECT_DEATH(
        {
            std::thread holder([] { ZUNChannel::GlobalLock::Mutex().lock(); });
            holder.join();  // the lock stays with the thread that ended
            table->AtomicUpdateRemoteL2Cache(L2Msg().Entry(kVni), false, false);
        },
        "Panic: ASSERT src/stateCache/StateCacheL2Table.cpp");
}

// ---- faults against the mirror: the line with its error code, the dump of the cache, the stop ----

TEST(L2MirrorFaultDeathTest, LogsDumpsAndStops)
{
    const UuidMsg domain = Uuid(8, 9);
    const struct {
        bool remote;
        L2UpdateMsg setup;
        L2UpdateMsg fault;
        const char* line;
    } cases[] = {
        {true, Macs({1}), L2Msg().Mapping(kVni, VM_MAC, {MacItem(2, 1, DEL)}),
         "VNIBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing {22}property: update msg received is"},
        {true, L2Msg().Entry(kVni).Routing(&domain, {{1, true}}), L2Msg().Routing(&domain, {{2, false}}),
         "RoutingDomainBaseAtomicUpdateRemoteL2CacheByZunL2 DEL non-existing {23}property: update msg"},
        {false, L2Msg().Entry(kVni), L2Msg().Entry(kVni), "add duplicated vni entry: 5001"},
        {false, L2Msg().Entry(kVni), L2Msg().Entry(kVni + 1, DEL), "leave non-existing vni entry: 5002"},
        {false, L2Msg().Entry(kVni), L2Msg().Mapping(kVni, VM_IP, {IpItem(1, 2, DEL)}), "delete non-existing vni entry:"},
        {false, L2Msg().Entry(kVni).Routing(nullptr, {{1, true}}), L2Msg().Routing(nullptr, {{2, false}}),
         "delete no-existing DR VTEP:"},
        {false, L2Msg().Entry(kVni).Routing(nullptr, {{1, true}}), L2Msg().Routing(nullptr, {{1, true}}),
         "add existing DR VTEP:"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        boost::asio::io_context io;
        boost::intrusive_ptr<StateCacheL2Table> table(new StateCacheL2Table(std::chrono::steady_clock::now, &io));
        const auto apply = [&](const L2UpdateMsg& msg) {
            c.remote ? table->AtomicUpdateRemoteL2Cache(msg, false, false) : table->AtomicUpdateLocalL2Cache(msg, false);
        };
        apply(c.setup);
        EXPECT_DEATH(
            {
                LogToStderr(FenREL::LOGLEVEL_VERBOSE);
                apply(c.fault);
            },
            std::string("errorCode=\"LCP00020\"[^\n]*") + c.line + ".*Dump L2 " + (c.remote ? "remote" : "local") +
                " StateCache.*vni is : 5001.*Panic: ASSERT src/stateCache/StateCacheL2Table.cpp");
    }
}

}  // namespace
}  // namespace FenRELTest
