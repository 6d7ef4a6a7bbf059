// Property tests: for random sequences of full syncs, deltas, removals and
// timer firings, what the observers are told, applied in order to an empty
// mirror, is exactly what the cache holds, and every change told is one (no
// ADD of what the mirror has, no DEL of what it lacks); restating the cache's
// content tells nobody. A failure names its seed: FENREL_TEST_SEED=n runs
// that seed alone.

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>
#include <gtest/gtest.h>

#include "ConfigSides.h"
#include "L2Group.h"
#include "LogLevel.h"
#include "StateCacheL2Table.h"

namespace FenRELTest {
namespace {

using FenREL::L2CacheItem;
using FenREL::L2Side;

constexpr int kSteps = 60;

// Runs `run` for seeds 1 to 40, or FENREL_TEST_SEED alone, up to the first
// that fails; returns how many seeds there were. The log stays quiet: that of
// thousands of random steps says nothing a failure would need.
template <typename Run>
int ForEachSeed(Run run)
{
    const int level = FenREL::g_logLevel.exchange(FenREL::LOGLEVEL_ERROR);
    const char* one = getenv("FENREL_TEST_SEED");
    const uint32_t first = one != nullptr ? static_cast<uint32_t>(strtoul(one, nullptr, 10)) : 1;
    const uint32_t last = one != nullptr ? first : 40;
    for (uint32_t seed = first; seed <= last && !testing::Test::HasFatalFailure(); ++seed) {
        SCOPED_TRACE("FENREL_TEST_SEED=" + std::to_string(seed));
        run(seed);
    }
    FenREL::g_logLevel.store(level);
    return static_cast<int>(last - first + 1);
}

// ---- L2 ----

using L2Key = std::tuple<std::string, uint32_t, std::string>;  // (VNI or domain, type, value)

class L2Property {
public:
    explicit L2Property(uint32_t seed)
        : _random(seed), _table(new FenREL::StateCacheL2Table([this] { return _clock.Now(); }, &_io))
    {
        _table->RegisterRemoteObserver(&_observer);
    }

    void Run()
    {
        for (int step = 0; step < kSteps; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            Step();
            ASSERT_NO_FATAL_FAILURE(TakeWhatWasTold());
            ASSERT_EQ(_mirror, Cache()) << "the observers' picture differs from the cache";
            if (Pick(4) == 0) {
                RestateEverything();
                ASSERT_TRUE(_observer.remote.empty()) << "restating the cache told something";
            }
        }
    }

    // How many ADDs and DELs were told, to show that the steps reached the cache.
    int adds = 0;
    int dels = 0;

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

    // The VNI entry and distinct ADDs: the whole content of a VNI.
    L2UpdateMsg RandomContent(uint32_t vni, size_t count)
    {
        std::map<uint32_t, std::vector<L2UpdateMappingItemMsg>> byType;
        std::set<std::string> seen;
        for (size_t i = 0; i < count; ++i) {
            auto [type, item] = RandomItem();
            if (seen.insert(item.SerializeAsString()).second) {
                byType[type].push_back(item);
            }
        }
        L2Msg msg;
        msg.Entry(vni);
        for (auto& [type, items] : byType) {
            msg.Mapping(vni, type, items);
        }
        return msg;
    }

    // The mirror's keys of a VNI or domain: while the steps pass, what the cache holds.
    std::vector<L2Key> Held(const std::string& scope)
    {
        std::vector<L2Key> held;
        std::copy_if(_mirror.begin(), _mirror.end(), std::back_inserter(held),
                     [&](const L2Key& key) { return std::get<0>(key) == scope; });
        std::shuffle(held.begin(), held.end(), _random);
        return held;
    }

    void Step()
    {
        const uint32_t vni = kVnis[Pick(2)];
        const UuidMsg domain = Uuid(1, 1 + Pick(2));
        switch (Pick(7)) {
        case 0:
        case 1:
            _table->AtomicUpdateRemoteL2Cache(RandomContent(vni, Pick(10)), true, Pick(2) == 0);
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
            } else if (Pick(3) == 0) {
                _table->RemoveRemoteL2ForRoutingDomain(domain);
            } else {
                _table->CancelL2Timeout(vni);
            }
            break;
        default:
            _table->AtomicUpdateRemoteL2Cache(RandomDomainUpdate(domain), Pick(2) == 0, false);
            break;
        }
    }

    // DELs of some of what the VNI has, then ADDs of anything. A VNI that
    // does not exist yet is created: with ADDs only.
    L2UpdateMsg RandomDelta(uint32_t vni)
    {
        std::vector<L2Key> held = Held(VniKey(vni));
        if (held.empty()) {
            return RandomContent(vni, 1 + Pick(4));
        }
        held.resize(std::min<size_t>(held.size(), Pick(4)));
        L2Msg msg;
        for (const auto& [scope, type, value] : held) {
            L2UpdateMappingItemMsg del;
            del.set_op(DEL);
            if (type != VNI_ENTRY) {
                del.GetReflection()->MutableMessage(&del, ValueField(type))->ParseFromString(value);
                msg.Mapping(vni, type, {del});
            }
        }
        for (uint32_t i = Pick(4); i > 0; --i) {
            auto [type, item] = RandomItem();
            msg.Mapping(vni, type, {item});
        }
        return msg;
    }

    // Sometimes DELs of VTEPs held, then distinct ADDs, also of what is held.
    L2UpdateMsg RandomDomainUpdate(const UuidMsg& domain)
    {
        std::vector<std::pair<uint32_t, bool>> items;
        for (const auto& [scope, type, value] : Held(domain.SerializeAsString())) {
            L2UpdateVtepMsg vtep;
            if (!value.empty() && vtep.ParseFromString(value) && Pick(3) == 0) {
                items.emplace_back(vtep.vtep_ip().ipv4(), false);
            }
        }
        std::set<uint32_t> adds;
        for (uint32_t i = Pick(4); i > 0; --i) {
            adds.insert(Pick(5));  // 0 is the domain itself
        }
        for (uint32_t ip : adds.empty() ? std::set<uint32_t>{0} : adds) {
            items.emplace_back(ip, true);
        }
        return L2Msg().Routing(&domain, items);
    }

    std::set<L2Key> Cache()
    {
        std::vector<L2CacheItem> items;
        _table->QueryAllL2Items(L2Side::Remote, items);
        std::set<L2Key> cache;
        for (const L2CacheItem& item : items) {
            const bool vni = item.kind == L2CacheItem::VNI_ITEM;
            cache.emplace(vni ? VniKey(item.vni) : item.routingDomain, vni ? item.propertyType : ROUTING, item.value);
        }
        return cache;
    }

    void TakeWhatWasTold()
    {
        std::vector<L2UpdateMsg> told;
        told.swap(_observer.remote);
        for (const L2UpdateMsg& delta : told) {
            for (const auto& [scope, type, op, value] : Changes(delta)) {
                const L2Key key(scope, type, value);
                if (op == ADD) {
                    ASSERT_TRUE(_mirror.insert(key).second) << "told the ADD of what it has: " << delta.ShortDebugString();
                    ++adds;
                    continue;
                }
                // A removed domain is told gone whether or not it held itself as an item.
                const bool domainItself = type == ROUTING && value.empty();
                ASSERT_TRUE(_mirror.erase(key) == 1 || domainItself)
                    << "told the DEL of what it lacks: " << delta.ShortDebugString();
                ++dels;
            }
        }
    }

    void RestateEverything()
    {
        L2UpdateMsg all;
        _table->ReadAllRemote(all);
        for (uint32_t vni : kVnis) {
            L2UpdateMsg content;
            if (_table->QueryRemoteL2FullCacheByVNI(vni, content)) {
                _table->AtomicUpdateRemoteL2Cache(content, true, Pick(2) == 0);
            }
        }
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
};

TEST(L2MirrorPropertyTest, ObserversDeltasReproduceTheRemoteCache)
{
    int adds = 0;
    int dels = 0;
    const int seeds = ForEachSeed([&](uint32_t seed) {
        L2Property property(seed);
        property.Run();
        adds += property.adds;
        dels += property.dels;
    });
    EXPECT_GT(adds, 10 * seeds);
    EXPECT_GT(dels, 5 * seeds);
}

// ---- config ----

template <typename Side>
class ConfigProperty {
public:
    explicit ConfigProperty(uint32_t seed) : _random(seed) { Side::Register(_table, &_observer); }

    void Run()
    {
        for (int step = 0; step < kSteps; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            const bool fullSync = Pick(3) == 0;
            ASSERT_TRUE(Side::Apply(_table, fullSync ? RandomFullSync() : RandomDeltas(), fullSync));
            ASSERT_NO_FATAL_FAILURE(TakeWhatWasTold());
            ASSERT_EQ(_mirror, Cache()) << "the observers' picture differs from the cache";
            if (Pick(4) == 0) {
                std::vector<typename Side::Delta> same;
                for (const auto& item : Side::QueryAll(_table)) {
                    same.push_back(Side::FromItem(item));
                }
                std::shuffle(same.begin(), same.end(), _random);
                ASSERT_TRUE(Side::Apply(_table, same, true));
                ASSERT_TRUE(Side::Told(_observer).empty()) << "restating the cache told something";
                ASSERT_EQ(_mirror, Cache());
            }
        }
    }

    int told = 0;

private:
    static constexpr uint32_t kEntities = 6;

    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(_random); }

    typename Side::Delta WithValues(int32_t op, uint32_t entity)
    {
        std::vector<ConfigValue> values;
        for (uint32_t type : Side::kTypes) {
            if (Pick(2) == 0 || (type == Side::kTypes[2] && values.empty())) {
                values.emplace_back(type, 1 + Pick(3));
            }
        }
        return Side::Make(op, entity, values);
    }

    // Sometimes empty, sometimes cut short.
    std::vector<typename Side::Delta> RandomFullSync()
    {
        std::vector<typename Side::Delta> deltas;
        for (uint32_t entity = 1; entity <= kEntities && Pick(8) != 0; ++entity) {
            if (Pick(2) == 0) {
                deltas.push_back(Side::Make(Side::kUpdate, entity));
            }
            if (Pick(2) == 0) {
                deltas.push_back(WithValues(Side::kUpdate, entity));
            }
        }
        std::shuffle(deltas.begin(), deltas.end(), _random);
        return deltas;
    }

    // Any mix but a create of what exists, which would stop the batch.
    std::vector<typename Side::Delta> RandomDeltas()
    {
        std::set<std::string> existing;
        for (const auto& [key, value] : _mirror) {
            existing.insert(key.first);
        }
        std::vector<typename Side::Delta> deltas;
        for (uint32_t i = Pick(5); i > 0; --i) {
            const uint32_t entity = 1 + Pick(kEntities);
            const uint32_t kind = Pick(4);
            if (kind == 0 && existing.insert(Side::Key(entity)).second) {
                deltas.push_back(Side::Make(Side::kUpdate, entity));
            } else if (kind == 1) {
                deltas.push_back(Side::Make(Side::kDelete, entity));
            } else if (kind > 1) {
                deltas.push_back(WithValues(kind == 2 ? Side::kDelete : Side::kUpdate, entity));
            }
            existing.insert(Side::Key(entity));
        }
        return deltas;
    }

    using Key = std::pair<std::string, uint32_t>;

    std::map<Key, std::string> Cache()
    {
        std::map<Key, std::string> cache;
        for (const auto& item : Side::QueryAll(_table)) {
            cache[Key(item.entityId, item.type)] = item.value ? item.value->SerializeAsString() : std::string();
        }
        return cache;
    }

    void TakeWhatWasTold()
    {
        std::vector<std::vector<typename Side::Update>> lists;
        lists.swap(Side::Told(_observer));
        for (const auto& updates : lists) {
            for (const auto& update : updates) {
                ++told;
                const Key key(Side::Key(update.entityId), update.type);
                const std::string value = update.value ? update.value->SerializeAsString() : std::string();
                const auto held = _mirror.find(key);
                if (update.operation != Side::kDelete) {
                    ASSERT_TRUE(held == _mirror.end() || held->second != value) << "told what changed nothing";
                    _mirror[key] = value;
                } else if (held != _mirror.end()) {
                    ASSERT_EQ(held->second, value) << "a delete carries the value that was cached";
                    _mirror.erase(held);
                } else {
                    ASSERT_EQ(0u, update.type) << "told the delete of a value it lacks";  // an unknown entity is told gone
                }
            }
        }
    }

    std::mt19937 _random;
    FenREL::StateCacheConfigTable _table;
    ConfigRecorder _observer;
    std::map<Key, std::string> _mirror;
};

template <typename Side>
class ConfigMirrorPropertyTest : public testing::Test {};

using Sides = testing::Types<LocalSide, RemoteSide>;
TYPED_TEST_SUITE(ConfigMirrorPropertyTest, Sides);

TYPED_TEST(ConfigMirrorPropertyTest, ObserversUpdatesReproduceTheCache)
{
    int told = 0;
    const int seeds = ForEachSeed([&](uint32_t seed) {
        ConfigProperty<TypeParam> property(seed);
        property.Run();
        told += property.told;
    });
    EXPECT_GT(told, 20 * seeds);
}

// ---- the group under the L2 cache ----

// Many inserts and erases in a random order grow and shrink the group's
// hash index; every look-up must still find what is there and only that,
// and each type must keep its order of insertion.
TEST(L2GroupPropertyTest, FindsExactlyWhatIsInAndKeepsTheOrderOfEachType)
{
    ForEachSeed([](uint32_t seed) {
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
        group.ForEach([&](const FenREL::L2Entry* entry) { walked.emplace_back(entry->type, entry->Value()); });
        std::stable_sort(model.begin(), model.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        ASSERT_EQ(model, walked);
        for (const auto& [type, value] : model) {
            ASSERT_NE(nullptr, group.Find(type, value));
        }
    });
}

}  // namespace
}  // namespace FenRELTest
