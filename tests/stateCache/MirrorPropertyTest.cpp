// Property tests: for random sequences of full syncs and deltas, what the
// observers are told, applied in order to an empty mirror, is exactly what
// the cache holds; and restating the cache's content tells nobody.
//
// Each seed is one sequence; a failure names its seed. FENREL_TEST_SEED=n
// runs that seed alone.

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>
#include <gtest/gtest.h>

#include "L2Group.h"
#include "LogLevel.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "ConfigSides.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {
namespace {

using FenREL::L2CacheItem;
using FenREL::L2Side;

constexpr int kSeeds = 40;
constexpr int kSteps = 60;

std::vector<uint32_t> Seeds()
{
    if (const char* one = getenv("FENREL_TEST_SEED")) {
        return {static_cast<uint32_t>(strtoul(one, nullptr, 10))};
    }
    std::vector<uint32_t> seeds;
    for (int i = 1; i <= kSeeds; ++i) {
        seeds.push_back(static_cast<uint32_t>(i));
    }
    return seeds;
}

// The logs of thousands of random steps say nothing a failure would need.
class QuietLog {
public:
    QuietLog() : _level(FenREL::g_logLevel.load()) { FenREL::g_logLevel.store(FenREL::LOGLEVEL_ERROR); }
    ~QuietLog() { FenREL::g_logLevel.store(_level); }

private:
    int _level;
};

// ---- L2 ----

using L2Key = std::tuple<std::string, uint32_t, std::string>;  // (VNI or domain, type, value)

class L2Property {
public:
    explicit L2Property(uint32_t seed)
        : _random(seed), _table(new FenREL::StateCacheL2Table([this] { return _clock.Now(); }, &_io))
    {
        _table->RegisterRemoteObserver(&_observer);
    }

    // How many ADDs and DELs the observers heard, to show that the random
    // steps did reach the cache.
    int Adds() const { return _adds; }
    int Dels() const { return _dels; }

    void Run()
    {
        for (int step = 0; step < kSteps; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            Step();
            TakeWhatWasTold();
            ASSERT_EQ(_mirror, Cache()) << "the observers' picture differs from the cache";
            if (Pick(4) == 0) {
                RestateEverything();
                ASSERT_TRUE(_observer.remote.empty()) << "restating the cache told something";
            }
        }
    }

private:
    static constexpr uint32_t kVnis[] = {5001, 5002};

    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(_random); }

    // A random item of a random type; few enough values to repeat often.
    std::pair<uint32_t, L2UpdateMappingItemMsg> RandomItem()
    {
        switch (Pick(3)) {
        case 0:
            return {VM_MAC, MacItem(1 + Pick(12), 0x0a000001 + Pick(2))};
        case 1:
            return {VM_IP, IpItem(1 + Pick(6), 1 + Pick(2))};
        default:
            return {VTEP, VtepItem(1 + Pick(4))};
        }
    }

    L2Msg RandomAdds(uint32_t vni, size_t count)
    {
        std::map<uint32_t, std::vector<L2UpdateMappingItemMsg>> byType;
        for (size_t i = 0; i < count; ++i) {
            auto [type, item] = RandomItem();
            byType[type].push_back(item);
        }
        L2Msg msg;
        msg.Entry(vni);
        for (auto& [type, items] : byType) {
            msg.Mapping(vni, type, items);
        }
        return msg;
    }

    void Step()
    {
        const uint32_t vni = kVnis[Pick(2)];
        const UuidMsg domain = Uuid(1, 1 + Pick(2));
        switch (Pick(7)) {
        case 0:
        case 1:
            _table->AtomicUpdateRemoteL2Cache(RandomAdds(vni, Pick(10)), true, Pick(2) == 0);
            break;
        case 2:
        case 3:
            _table->AtomicUpdateRemoteL2Cache(RandomDelta(vni), false, false);
            break;
        case 4:
            _clock.Advance(std::chrono::seconds(Pick(700)));
            _table->L2RemoteCacheTimeout();
            break;
        case 5:
            if (Pick(3) == 0) {
                _table->RemoveRemoteL2ForVni(vni);
            } else {
                _table->CancelL2Timeout(vni);
            }
            break;
        default:
            _table->AtomicUpdateRemoteL2Cache(RandomDomainUpdate(domain), Pick(2) == 0, false);
            break;
        }
    }

    // ADDs of anything, DELs of what the VNI has, each at most once. A VNI
    // that does not exist yet is created: with ADDs only.
    L2UpdateMsg RandomDelta(uint32_t vni)
    {
        std::vector<L2CacheItem> present;
        for (const L2CacheItem& item : Items()) {
            if (item.kind == L2CacheItem::VNI_ITEM && item.vni == vni && item.propertyType != 0) {
                present.push_back(item);
            }
        }
        if (present.empty() && !HasVni(vni)) {
            return RandomAdds(vni, 1 + Pick(4));
        }
        std::shuffle(present.begin(), present.end(), _random);
        present.resize(std::min<size_t>(present.size(), Pick(4)));
        L2Msg msg;
        for (const L2CacheItem& item : present) {
            L2UpdateMappingItemMsg del;
            del.set_op(DEL);
            const auto* field = del.GetDescriptor()->FindFieldByNumber(10 + static_cast<int>(item.propertyType));
            del.GetReflection()->MutableMessage(&del, field)->ParseFromString(item.value);
            msg.Mapping(vni, item.propertyType, {del});
        }
        for (uint32_t i = Pick(4); i > 0; --i) {
            auto [type, item] = RandomItem();
            msg.Mapping(vni, type, {item});
        }
        return msg.Msg();
    }

    L2UpdateMsg RandomDomainUpdate(const UuidMsg& domain)
    {
        std::vector<std::pair<uint32_t, bool>> items;
        std::set<uint32_t> held;
        std::vector<com::corvid::zun::l2::L2UpdateVtepMsg> vteps;
        if (_table->QueryRoutingDomainVteps(domain, vteps)) {
            for (const auto& vtep : vteps) {
                held.insert(vtep.vtep_ip().ipv4());
            }
            // Sometimes a DEL of one held; the rest ADDs, also of what is held.
            if (!held.empty() && Pick(2) == 0) {
                items.emplace_back(*held.begin(), false);
                held.erase(held.begin());
            }
        }
        for (uint32_t i = Pick(4); i > 0; --i) {
            items.emplace_back(Pick(5), true);  // 0 is the domain itself
        }
        if (items.empty()) {
            items.emplace_back(0, true);
        }
        return L2Msg().Routing(&domain, items).Msg();
    }

    std::vector<L2CacheItem> Items()
    {
        std::vector<L2CacheItem> items;
        _table->QueryAllL2Items(L2Side::Remote, items);
        return items;
    }

    bool HasVni(uint32_t vni)
    {
        std::vector<uint32_t> vnis;
        _table->ListVnis(L2Side::Remote, vnis);
        return std::find(vnis.begin(), vnis.end(), vni) != vnis.end();
    }

    std::set<L2Key> Cache()
    {
        std::set<L2Key> cache;
        for (const L2CacheItem& item : Items()) {
            if (item.kind == L2CacheItem::VNI_ITEM) {
                cache.emplace(VniKey(item.vni), item.propertyType, item.value);
            } else {
                cache.emplace(item.routingDomain, 10, item.value);
            }
        }
        return cache;
    }

    void TakeWhatWasTold()
    {
        for (const L2UpdateMsg& delta : _observer.remote) {
            for (const auto& [scope, type, op, value] : Changes(delta)) {
                if (op == ADD) {
                    _mirror.emplace(scope, type, value);
                    ++_adds;
                } else {
                    _mirror.erase(L2Key(scope, type, value));
                    ++_dels;
                }
            }
        }
        _observer.remote.clear();
    }

    void RestateEverything()
    {
        for (uint32_t vni : kVnis) {
            L2UpdateMsg content;
            if (_table->QueryRemoteL2FullCacheByVNI(vni, content)) {
                _table->AtomicUpdateRemoteL2Cache(content, true, Pick(2) == 0);
            }
        }
        L2UpdateMsg all;
        _table->ReadAllRemote(all);
        for (const auto& update : all.routing_vtep_update()) {
            L2UpdateMsg domain;
            domain.add_routing_vtep_update()->CopyFrom(update);
            _table->AtomicUpdateRemoteL2Cache(domain, true, false);
        }
    }

    std::mt19937 _random;
    boost::asio::io_context _io;
    FakeClock _clock;
    L2Recorder _observer;
    boost::intrusive_ptr<FenREL::StateCacheL2Table> _table;
    std::set<L2Key> _mirror;
    int _adds = 0;
    int _dels = 0;
};

TEST(L2MirrorPropertyTest, ObserversDeltasReproduceTheRemoteCache)
{
    QuietLog quiet;
    int adds = 0;
    int dels = 0;
    for (uint32_t seed : Seeds()) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (FENREL_TEST_SEED=" + std::to_string(seed) + ")");
        L2Property property(seed);
        property.Run();
        if (HasFatalFailure()) {
            return;
        }
        adds += property.Adds();
        dels += property.Dels();
    }
    EXPECT_GT(adds, 10 * static_cast<int>(Seeds().size()));
    EXPECT_GT(dels, 5 * static_cast<int>(Seeds().size()));
}

// ---- config ----

template <typename Traits>
class ConfigProperty {
public:
    explicit ConfigProperty(uint32_t seed) : _random(seed) { Traits::Register(_table, &_observer); }

    int Told() const { return _told; }

    void Run()
    {
        for (int step = 0; step < kSteps; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            const bool fullSync = Pick(3) == 0;
            ASSERT_TRUE(Traits::Apply(_table, fullSync ? RandomFullSync() : RandomDeltas(), fullSync));
            TakeWhatWasTold();
            ASSERT_EQ(_mirror, Cache()) << "the observers' picture differs from the cache";
            if (Pick(4) == 0) {
                std::vector<typename Traits::Delta> same;
                for (const auto& item : Traits::QueryAll(_table)) {
                    same.push_back(Traits::FromItem(item));
                }
                std::shuffle(same.begin(), same.end(), _random);
                ASSERT_TRUE(Traits::Apply(_table, same, true));
                ASSERT_TRUE(Traits::Told(_observer).empty()) << "restating the cache told something";
                ASSERT_EQ(_mirror, Cache());
            }
        }
    }

private:
    static constexpr uint32_t kEntities = 6;

    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(_random); }

    typename Traits::Delta WithValues(int32_t op, uint32_t entity)
    {
        std::vector<ConfigValue> values;
        for (uint32_t type : Traits::kTypes) {
            if (Pick(2) == 0) {
                values.emplace_back(type, 1 + Pick(3));
            }
        }
        if (values.empty()) {
            values.emplace_back(Traits::kTypes[0], 1);
        }
        return Traits::Make(op, entity, values);
    }

    std::vector<typename Traits::Delta> RandomFullSync()
    {
        std::vector<typename Traits::Delta> deltas;
        for (uint32_t entity = 1; entity <= kEntities; ++entity) {
            if (Pick(3) == 0) {
                continue;
            }
            if (Pick(4) != 0) {
                deltas.push_back(Traits::Make(Traits::kUpdate, entity));
            }
            if (Pick(4) != 0) {
                deltas.push_back(WithValues(Traits::kUpdate, entity));
            }
        }
        std::shuffle(deltas.begin(), deltas.end(), _random);
        return deltas;
    }

    // Any mix but a create of what exists, which would stop the batch.
    std::vector<typename Traits::Delta> RandomDeltas()
    {
        std::set<std::string> existing;
        for (const auto& [key, value] : Cache()) {
            existing.insert(key.first);
        }
        std::set<uint32_t> mentioned;
        std::vector<typename Traits::Delta> deltas;
        for (uint32_t i = Pick(5); i > 0; --i) {
            const uint32_t entity = 1 + Pick(kEntities);
            switch (Pick(4)) {
            case 0:
                if (existing.count(Traits::Key(entity)) == 0 && mentioned.count(entity) == 0) {
                    deltas.push_back(Traits::Make(Traits::kUpdate, entity));
                }
                break;
            case 1:
                deltas.push_back(Traits::Make(Traits::kDelete, entity));
                break;
            case 2:
                deltas.push_back(WithValues(Traits::kDelete, entity));
                break;
            default:
                deltas.push_back(WithValues(Traits::kUpdate, entity));
                break;
            }
            mentioned.insert(entity);
        }
        return deltas;
    }

    using Key = std::pair<std::string, uint32_t>;

    std::map<Key, std::string> Cache()
    {
        std::map<Key, std::string> cache;
        for (const auto& item : Traits::QueryAll(_table)) {
            cache[Key(item.entityId, item.type)] = item.value ? item.value->SerializeAsString() : std::string();
        }
        return cache;
    }

    void TakeWhatWasTold()
    {
        for (const auto& updates : Traits::Told(_observer)) {
            for (const auto& update : updates) {
                ++_told;
                const Key key(Traits::Key(update.entityId), update.type);
                if (update.operation == Traits::kDelete) {
                    _mirror.erase(key);
                } else {
                    _mirror[key] = update.value ? update.value->SerializeAsString() : std::string();
                }
            }
        }
        Traits::Told(_observer).clear();
    }

    std::mt19937 _random;
    FenREL::StateCacheConfigTable _table;
    ConfigRecorder _observer;
    std::map<Key, std::string> _mirror;
    int _told = 0;
};

template <typename Traits>
class ConfigMirrorPropertyTest : public testing::Test {};

using ConfigSides = testing::Types<LocalSide, RemoteSide>;
TYPED_TEST_SUITE(ConfigMirrorPropertyTest, ConfigSides);

TYPED_TEST(ConfigMirrorPropertyTest, ObserversUpdatesReproduceTheCache)
{
    QuietLog quiet;
    int told = 0;
    for (uint32_t seed : Seeds()) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (FENREL_TEST_SEED=" + std::to_string(seed) + ")");
        ConfigProperty<TypeParam> property(seed);
        property.Run();
        if (this->HasFatalFailure()) {
            return;
        }
        told += property.Told();
    }
    EXPECT_GT(told, 20 * static_cast<int>(Seeds().size()));
}

// ---- the group under the L2 cache ----

// Many inserts and erases in a random order grow and shrink the group's
// hash index; every look-up must still find what is there and only that,
// and each type must keep its order of insertion.
TEST(L2GroupPropertyTest, FindsExactlyWhatIsInAndKeepsTheOrderOfEachType)
{
    for (uint32_t seed : Seeds()) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (FENREL_TEST_SEED=" + std::to_string(seed) + ")");
        std::mt19937 random(seed);
        FenREL::L2Group group;
        std::vector<std::pair<uint32_t, std::string>> model;  // in order of insertion
        for (int step = 0; step < 3000; ++step) {
            const uint32_t type = random() % FenREL::L2Group::kTypeCount;
            const std::string value = "v" + std::to_string(random() % (step < 2000 ? 600 : 40));
            const auto at = std::find(model.begin(), model.end(), std::make_pair(type, value));
            FenREL::L2Entry* entry = group.Find(type, value);
            ASSERT_EQ(at != model.end(), entry != nullptr) << type << " " << value;
            if (entry != nullptr) {
                group.Erase(entry);
                model.erase(at);
            } else if (step < 2000 || random() % 4 == 0) {
                group.Insert(type, value, 0, 0, 0);
                model.emplace_back(type, value);
            }
        }
        ASSERT_EQ(model.size(), group.Size());
        std::vector<std::pair<uint32_t, std::string>> walked;
        group.ForEach([&](const FenREL::L2Entry* entry) { walked.emplace_back(entry->type, std::string(entry->Value())); });
        std::stable_sort(model.begin(), model.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        ASSERT_EQ(model, walked);
        for (const auto& [type, value] : model) {
            ASSERT_NE(nullptr, group.Find(type, value));
        }
    }
}

}  // namespace
}  // namespace FenRELTest
