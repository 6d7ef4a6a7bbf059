// The state cache under the loads of a large host: a million remote MACs in
// one VNI, and a hundred thousand configuration entities. Each benchmark
// runs once and reports its figures as counters; bench/README.md keeps them.
//
// The memory benchmarks come first so that they start in a fresh process:
// memory that an earlier benchmark freed would otherwise be reused and hide
// the growth.

#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>

#include "LogLevel.h"
#include "SCConfigTableObserver.h"
#include "SCL2TableObserver.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"

namespace {

using com::corvid::zun::config::EntityPropertyMsg;
using com::corvid::zun::config::ZunConfigDeltaMsg;
using com::corvid::zun::l2::L2MappingUpdateMsg;
using com::corvid::zun::l2::L2UpdateMappingItemMsg;
using com::corvid::zun::l2::L2UpdateMsg;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kVni = 5001;
constexpr int kMacs = 1000000;
constexpr int kItemsPerMessage = 100;
constexpr int kEntities = 100000;
constexpr int kPropertiesPerEntity = 5;

double Seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

double ThreadSeconds()
{
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The cost of the table, not of writing log lines.
void Quiet()
{
    FenREL::g_logLevel.store(FenREL::LOGLEVEL_ERROR);
    FenREL::g_logToConsole.store(false);
}

double ResidentBytes()
{
    long pages = 0;
    long resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        fclose(statm);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// MAC i of the VNI, behind one of 256 VTEPs.
L2UpdateMappingItemMsg Mac(int i)
{
    L2UpdateMappingItemMsg item;
    item.set_op(L2UpdateMappingItemMsg::ADD);
    item.mutable_vm_mac()->mutable_vm_mac()->set_mac(0x005056000000ull + static_cast<uint64_t>(i));
    item.mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0x0a010000u + static_cast<uint32_t>(i % 256));
    item.mutable_vm_mac()->mutable_vtep_mac()->set_mac(0x00aa00000000ull + static_cast<uint64_t>(i % 256));
    return item;
}

L2UpdateMsg VniEntry()
{
    L2UpdateMsg msg;
    L2MappingUpdateMsg* mapping = msg.add_mapping_update();
    mapping->mutable_vn_instance()->set_vni(kVni);
    mapping->mutable_vn_instance()->set_transport_switch_id(1);
    mapping->add_items()->set_op(L2UpdateMappingItemMsg::ADD);
    return msg;
}

// A delta of MACs first to first + count.
L2UpdateMsg MacDelta(int first, int count)
{
    L2UpdateMsg msg;
    L2MappingUpdateMsg* mapping = msg.add_mapping_update();
    mapping->set_type(L2MappingUpdateMsg::VM_MAC);
    mapping->mutable_vn_instance()->set_vni(kVni);
    mapping->mutable_vn_instance()->set_transport_switch_id(1);
    for (int i = first; i < first + count; ++i) {
        mapping->add_items()->CopyFrom(Mac(i));
    }
    return msg;
}

// Counts what it is told; with `measure` also the size of the deltas.
class CountingL2Observer : public FenREL::SCL2TableObserver {
public:
    void ProcessRemoteL2Update(const L2UpdateMsg& delta) override
    {
        ++calls;
        for (const auto& mapping : delta.mapping_update()) {
            for (const auto& item : mapping.items()) {
                (item.op() == L2UpdateMappingItemMsg::ADD ? adds : dels) += 1;
            }
        }
        if (measure) {
            bytes += delta.ByteSizeLong();
        }
    }
    void ProcessLocalL2Update(const L2UpdateMsg&) override {}

    bool measure = false;
    long calls = 0;
    long adds = 0;
    long dels = 0;
    size_t bytes = 0;
};

class CountingConfigObserver : public FenREL::SCConfigTableObserver {
public:
    void ProcessRemotePropertyUpdate(const FenREL::RemotePropertyUpdateList& updates) override
    {
        ++calls;
        this->updates += static_cast<long>(updates.size());
    }
    void ProcessLocalStateUpdate(const FenREL::LocalStateUpdateList&) override {}

    long calls = 0;
    long updates = 0;
};

struct L2Table {
    L2Table() : table(new FenREL::StateCacheL2Table(Clock::now, &io))
    {
        table->RegisterRemoteObserver(&observer);
        table->AtomicUpdateRemoteL2Cache(VniEntry(), false, false);
    }

    boost::asio::io_context io;
    CountingL2Observer observer;
    boost::intrusive_ptr<FenREL::StateCacheL2Table> table;
};

// Logical switch port i: its switch, its attachment, admin state, and the
// switch's VNI and VLAN, five properties of the sizes the controllers send.
ZunConfigDeltaMsg Entity(int i, bool withProperties)
{
    ZunConfigDeltaMsg delta;
    delta.set_operation(ZunConfigDeltaMsg::UPDATE_OP);
    delta.mutable_entity_id()->set_left(0x5eed000000000000ull);
    delta.mutable_entity_id()->set_right(static_cast<uint64_t>(i));
    delta.set_entity_type(com::corvid::zun::config::LOG_SWITCH_PORT);
    if (!withProperties) {
        return delta;
    }
    EntityPropertyMsg* p = delta.add_property();
    p->set_property_type(EntityPropertyMsg::LSP_SWITCH_ID);
    p->mutable_lsp_switch_id()->set_left(0x5171c4000000000ull);
    p->mutable_lsp_switch_id()->set_right(static_cast<uint64_t>(i % 1000));
    p = delta.add_property();
    p->set_property_type(EntityPropertyMsg::LSP_ATTACHMENT);
    char vif[40];
    snprintf(vif, sizeof(vif), "5%07d-0000-4000-8000-%012d", i, i);
    p->mutable_lsp_attachment()->mutable_vif_attachment()->set_vif_id(vif);
    p = delta.add_property();
    p->set_property_type(EntityPropertyMsg::LSP_ADMIN_STATE_UP);
    p->set_lsp_admin_state_up(true);
    p = delta.add_property();
    p->set_property_type(EntityPropertyMsg::LS_VNI);
    p->mutable_ls_vni()->set_vni(5000 + static_cast<uint32_t>(i % 1000));
    p = delta.add_property();
    p->set_property_type(EntityPropertyMsg::LS_VLAN);
    p->mutable_ls_vlan()->set_vlan_id(static_cast<uint32_t>(i % 4094));
    return delta;
}

std::vector<ZunConfigDeltaMsg> ConfigFullSync()
{
    std::vector<ZunConfigDeltaMsg> deltas;
    deltas.reserve(2 * kEntities);
    for (int i = 0; i < kEntities; ++i) {
        deltas.push_back(Entity(i, false));
        deltas.push_back(Entity(i, true));
    }
    return deltas;
}

// ---- memory ----

void BM_MemoryPerRemoteMacItem(benchmark::State& state)
{
    Quiet();
    for (auto _ : state) {
        malloc_trim(0);
        const double before = ResidentBytes();
        L2Table l2;
        for (int first = 0; first < kMacs; first += kItemsPerMessage) {
            l2.table->AtomicUpdateRemoteL2Cache(MacDelta(first, kItemsPerMessage), false, false);
        }
        malloc_trim(0);
        const double perItem = (ResidentBytes() - before) / kMacs;
        const double itemSize = static_cast<double>(Mac(kMacs / 2).ByteSizeLong());
        state.counters["rss_bytes_per_item"] = perItem;
        state.counters["item_serialised_bytes"] = itemSize;
        state.counters["goal_bytes_per_item"] = 3 * itemSize + 100;
    }
}
BENCHMARK(BM_MemoryPerRemoteMacItem)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_MemoryPerConfigProperty(benchmark::State& state)
{
    Quiet();
    for (auto _ : state) {
        malloc_trim(0);
        const double before = ResidentBytes();
        FenREL::StateCacheConfigTable table;
        double propertyBytes = 0;
        for (int first = 0; first < kEntities; first += 1000) {
            std::vector<ZunConfigDeltaMsg> batch;
            for (int i = first; i < first + 1000; ++i) {
                batch.push_back(Entity(i, false));
                batch.push_back(Entity(i, true));
                for (const EntityPropertyMsg& property : batch.back().property()) {
                    propertyBytes += static_cast<double>(property.ByteSizeLong());
                }
            }
            table.AtomicUpdateRemoteCache(batch, false);
        }
        malloc_trim(0);
        const double properties = kEntities * kPropertiesPerEntity;
        const double perProperty = (ResidentBytes() - before) / properties;
        state.counters["rss_bytes_per_property"] = perProperty;
        state.counters["property_serialised_bytes"] = propertyBytes / properties;
        state.counters["goal_bytes_per_property"] = 3 * propertyBytes / properties + 100;
    }
}
BENCHMARK(BM_MemoryPerConfigProperty)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- time ----
//
// Times are on the thread's CPU clock, so that other load on a shared
// machine does not count; where it matters the wall time is given beside.

// A million MACs arriving as deltas of a hundred: the table's cost beside
// the floor of only parsing and re-serialising the same messages.
void BM_RemoteL2DeltaThroughput(benchmark::State& state)
{
    Quiet();
    std::vector<std::string> wire;
    wire.reserve(kMacs / kItemsPerMessage);
    for (int first = 0; first < kMacs; first += kItemsPerMessage) {
        wire.push_back(MacDelta(first, kItemsPerMessage).SerializeAsString());
    }
    for (auto _ : state) {
        // Message by message, the floor and then the table on the same parsed
        // message, each on the thread's CPU clock: the two see the same
        // caches, and other load on the machine counts in neither.
        L2Table l2;
        double floor = 0;
        double table = 0;
        std::string out;
        for (const std::string& bytes : wire) {
            const double start = ThreadSeconds();
            L2UpdateMsg msg;
            msg.ParseFromString(bytes);
            msg.SerializeToString(&out);
            const double parsed = ThreadSeconds();
            benchmark::DoNotOptimize(out.data());
            l2.table->AtomicUpdateRemoteL2Cache(msg, false, false);
            const double applied = ThreadSeconds();
            floor += parsed - start;
            table += applied - parsed;
        }
        state.SetIterationTime(table);
        state.counters["table_items_per_s"] = kMacs / table;
        state.counters["floor_items_per_s"] = kMacs / floor;
        state.counters["table_over_floor"] = table / floor;
        state.counters["items_told"] = static_cast<double>(l2.observer.adds);
    }
}
BENCHMARK(BM_RemoteL2DeltaThroughput)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// A full sync of a VNI of a million MACs in which 1% changed: 10,000 MACs
// gone and 10,000 new ones. Argument: deferred removal.
void BM_RemoteL2FullSyncOnePercentChanged(benchmark::State& state)
{
    Quiet();
    const bool deferRemoval = state.range(0) != 0;
    const int changed = kMacs / 100;
    L2UpdateMsg fullSync = VniEntry();
    L2MappingUpdateMsg* macs = fullSync.add_mapping_update();
    macs->set_type(L2MappingUpdateMsg::VM_MAC);
    macs->mutable_vn_instance()->CopyFrom(fullSync.mapping_update(0).vn_instance());
    macs->mutable_items()->Reserve(kMacs);
    for (int i = changed; i < kMacs + changed; ++i) {
        macs->add_items()->CopyFrom(Mac(i));
    }
    for (auto _ : state) {
        L2Table l2;
        for (int first = 0; first < kMacs; first += kItemsPerMessage) {
            l2.table->AtomicUpdateRemoteL2Cache(MacDelta(first, kItemsPerMessage), false, false);
        }
        l2.observer = CountingL2Observer();
        l2.observer.measure = true;
        const Clock::time_point start = Clock::now();
        const double cpuStart = ThreadSeconds();
        l2.table->AtomicUpdateRemoteL2Cache(fullSync, true, deferRemoval);
        state.SetIterationTime(ThreadSeconds() - cpuStart);
        state.counters["wall_s"] = Seconds(Clock::now() - start);
        state.counters["delta_adds"] = static_cast<double>(l2.observer.adds);
        state.counters["delta_dels"] = static_cast<double>(l2.observer.dels);
        state.counters["delta_bytes"] = static_cast<double>(l2.observer.bytes);
        state.counters["full_sync_bytes"] = static_cast<double>(fullSync.ByteSizeLong());
    }
}
BENCHMARK(BM_RemoteL2FullSyncOnePercentChanged)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("defer")
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// A full sync of 100,000 entities of five properties each, then the same
// again, which must tell nobody.
void BM_ConfigFullSyncThenRepeat(benchmark::State& state)
{
    Quiet();
    const std::vector<ZunConfigDeltaMsg> deltas = ConfigFullSync();
    for (auto _ : state) {
        FenREL::StateCacheConfigTable table;
        CountingConfigObserver observer;
        table.RegisterRemoteCacheObserver(com::corvid::zun::config::LOG_SWITCH_PORT, &observer);
        double start = ThreadSeconds();
        table.AtomicUpdateRemoteCache(deltas, true);
        const double first = ThreadSeconds() - start;
        const long firstUpdates = observer.updates;
        observer = CountingConfigObserver();
        const Clock::time_point wallStart = Clock::now();
        start = ThreadSeconds();
        table.AtomicUpdateRemoteCache(deltas, true);
        const double repeat = ThreadSeconds() - start;
        state.SetIterationTime(repeat);
        state.counters["first_s"] = first;
        state.counters["first_updates"] = static_cast<double>(firstUpdates);
        state.counters["repeat_s"] = repeat;
        state.counters["repeat_wall_s"] = Seconds(Clock::now() - wallStart);
        state.counters["repeat_observer_calls"] = static_cast<double>(observer.calls);
    }
}
BENCHMARK(BM_ConfigFullSyncThenRepeat)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
