// e2e_bench: the real fenrel between the two simulators, measured end to end.
//
//   e2e_bench [--smoke] [--repeat N] [--levels 4,3]
//             [--only throughput|sink|datapath|relay|fenrel|startup]
//
// Throughput: a controller streams pre-built L2 deltas (VM MACs, 100 per
// message, round-robin over the VNIs, each VNI joined by the data path and
// given its full sync first) and the clock stops when the data path holds
// every item. The same stream is also timed into a sink (the controller
// simulator's ceiling), straight into the data-path simulator (its ceiling)
// and through a minimal relay (the floor; once more with the small socket
// buffers of the agent's link). Beside each time: the CPU the relay or
// fenrel spent, and the CPU of the two simulators.
//
// Start-up: seconds from the daemon's fork to its full sync at the data path,
// with the controller's configuration and the data path's VIFs of the given
// sizes, and the steps on the way as the simulators recorded them.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AgentHarness.h"
#include "DataPathClient.h"
#include "DpFrame.h"
#include "L2Stream.h"
#include "ProcessFootprint.h"
#include "Relay.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using FenRELBench::L2Stream;
using FenRELBench::Relay;
using FenRELTest::AgentHarness;
using FenRELTest::ProcessFootprint;
namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
namespace lcp = com::corvid::zun::lcp;

constexpr uint32_t kFirstVni = 5000;
constexpr size_t kChunkBytes = 64 * 1024;
// The send and receive buffers of the agent's link to the data path.
constexpr int kAgentLinkBuffers = 4096;
constexpr auto kSetupTimeout = 120s;
constexpr auto kRunTimeout = 600s;

struct Sizes {
    uint32_t vnis = 100;
    size_t messages = 10000;
    size_t itemsPerMessage = 100;
    size_t entities = 10000;
    size_t vifs = 1000;
};

[[noreturn]] void Die(const std::string& why)
{
    fprintf(stderr, "e2e_bench: %s\n", why.c_str());
    exit(1);
}

void Check(bool ok, const std::string& what)
{
    if (!ok) {
        Die("failed: " + what);
    }
}

double Seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::string LoadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// CPU time of a process, all its threads, in seconds.
double CpuSeconds(pid_t pid)
{
    const std::chrono::nanoseconds cpu = ProcessFootprint::CpuTime(pid);
    if (cpu.count() == 0) {
        Die("no CPU clock for process " + std::to_string(pid));
    }
    return Seconds(cpu);
}

size_t MacItems(const DpSim::DataPathView& view, const L2Stream& stream)
{
    size_t items = 0;
    for (uint32_t vni = stream.FirstVni(); vni < stream.FirstVni() + stream.Vnis(); ++vni) {
        items += view.L2().ItemCount(vni, l2::L2MappingUpdateMsg::VM_MAC);
    }
    return items;
}

// Waits until the data path holds every item of the stream. The condition
// runs at every message under the simulator's lock, so it looks first at the
// VNI that the round-robin fills last.
void WaitForAllItems(DpSim::DataPathSim& dataPath, const L2Stream& stream)
{
    const uint32_t lastVni = stream.FirstVni() + stream.Vnis() - 1;
    const size_t lastVniItems = stream.Items() / stream.Vnis();
    const bool all = dataPath.WaitForView(
        [&](const DpSim::DataPathView& view) {
            return view.L2().ItemCount(lastVni, l2::L2MappingUpdateMsg::VM_MAC) == lastVniItems &&
                   MacItems(view, stream) == stream.Items();
        },
        kRunTimeout);
    if (!all) {
        Die("the data path holds " + std::to_string(MacItems(dataPath.View(), stream)) + " items of " +
            std::to_string(stream.Items()));
    }
}

// The data path of the throughput runs, on the daemon's default socket under
// the harness's root. It counts L2 items instead of keeping them, so that it
// stays out of the way of what is measured (see its ceiling).
std::unique_ptr<DpSim::DataPathSim> CountingDataPath(const AgentHarness& harness)
{
    DpSim::DataPathSim::Options options;
    options.path = harness.Root() + DpSim::DataPathSim::kDefaultPath;
    options.countL2Only = true;
    auto dataPath = std::make_unique<DpSim::DataPathSim>(options);
    dataPath->Start();
    return dataPath;
}

void SendChunks(CtrlSim::ControllerSim& controller, const std::vector<CtrlSim::Bytes>& chunks)
{
    for (const CtrlSim::Bytes& chunk : chunks) {
        Check(controller.SendRaw(chunk), "the controller's connection is up");
    }
}

struct Result {
    std::string road;
    double seconds = 0;
    size_t items = 0;
    double middleCpu = -1;      // seconds of CPU of the relay or of fenrel, where one took part
    double simulatorsCpu = -1;  // seconds of CPU of the two simulators, where measured

    double Rate() const { return static_cast<double>(items) / seconds; }
    double MicrosPerItem(double cpu) const { return cpu * 1e6 / static_cast<double>(items); }
};

void Print(const Result& result, const Result* floor)
{
    printf("  %-58s %7.3f s %10.0f items/s", result.road.c_str(), result.seconds, result.Rate());
    if (floor != nullptr) {
        printf("  %5.2fx the floor's time", result.seconds / floor->seconds);
    }
    printf("\n");
    if (result.middleCpu >= 0) {
        printf("      CPU: %s %.2f s (%.2f us/item)", floor != nullptr ? "fenrel" : "relay", result.middleCpu,
               result.MicrosPerItem(result.middleCpu));
        if (floor != nullptr && floor->middleCpu > 0) {
            printf(", %.1fx the relay's", result.middleCpu / floor->middleCpu);
        }
        if (result.simulatorsCpu >= 0) {
            printf("; simulators %.2f s (%.2f us/item)", result.simulatorsCpu,
                   result.MicrosPerItem(result.simulatorsCpu));
        }
        printf("\n");
    }
    fflush(stdout);
}

// The controller simulator and TLS alone: frames counted by a sink.
Result ControllerCeiling(const L2Stream& stream)
{
    AgentHarness harness;
    CtrlSim::ControllerSim& controller = harness.AddController(1);
    Relay sink(Relay::Mode::Discard);
    sink.Start(controller.Address(), controller.Port(), "");
    Check(controller.WaitForUp(0, kSetupTimeout), "the sink's connection is up");
    const auto chunks = stream.ControllerChunks(1, CtrlSim::ConfigHandler::AgentFrameLimit(controller), kChunkBytes);

    const auto start = Clock::now();
    SendChunks(controller, chunks);
    const auto deadline = start + kRunTimeout;
    while (sink.Messages() < stream.Deltas().size() && Clock::now() < deadline && sink.Error().empty()) {
        std::this_thread::sleep_for(200us);
    }
    const auto end = Clock::now();
    Check(sink.Messages() == stream.Deltas().size(), "the sink got every message " + sink.Error());
    return {"controller sim -> TLS -> sink", Seconds(end - start), stream.Items()};
}

// The data-path simulator alone: the data path's frames written straight to it.
Result DataPathCeiling(const L2Stream& stream)
{
    AgentHarness harness;
    const auto counting = CountingDataPath(harness);
    DpSim::DataPathSim& dataPath = *counting;
    FenRELBench::DataPathClient client(dataPath.Path());
    lcp::LcpDpMsg fullSync;
    fullSync.set_atomic_update_end(true);
    const CtrlSim::Bytes first = DpSim::DpFrame::Encode(1, fullSync.SerializeAsString());
    Check(client.Write(first.data(), first.size()), "the full sync went to the data path");
    Check(dataPath.WaitForMessageCount(1, kSetupTimeout), "the data path took the full sync");
    const auto chunks = stream.DataPathChunks(kChunkBytes);

    const auto start = Clock::now();
    for (const CtrlSim::Bytes& chunk : chunks) {
        Check(client.Write(chunk.data(), chunk.size()), "the data path takes what is written");
    }
    WaitForAllItems(dataPath, stream);
    return {"pre-built frames -> data-path sim", Seconds(Clock::now() - start), stream.Items()};
}

// The floor: both simulators with the minimal relay between them, the data
// path's socket buffers as the system gives them or, with `socketBuffers`,
// as small as the agent's link sets them.
Result RelayFloor(const L2Stream& stream, int socketBuffers = 0)
{
    AgentHarness harness;
    CtrlSim::ControllerSim& controller = harness.AddController(1);
    const auto counting = CountingDataPath(harness);
    DpSim::DataPathSim& dataPath = *counting;
    Relay relay(Relay::Mode::Forward, socketBuffers);
    relay.Start(controller.Address(), controller.Port(), dataPath.Path());
    Check(controller.WaitForUp(0, kSetupTimeout), "the relay's connection is up");
    Check(dataPath.WaitForMessage(DpSim::DataPathSim::IsFullSync(), kSetupTimeout).has_value(),
          "the relay's full sync reached the data path");
    const auto chunks = stream.ControllerChunks(1, CtrlSim::ConfigHandler::AgentFrameLimit(controller), kChunkBytes);

    const double relayCpuBefore = relay.CpuSeconds();
    const double ownCpuBefore = CpuSeconds(getpid());
    const auto start = Clock::now();
    SendChunks(controller, chunks);
    WaitForAllItems(dataPath, stream);
    const auto end = Clock::now();
    const double relayCpu = relay.CpuSeconds() - relayCpuBefore;
    const double ownCpu = CpuSeconds(getpid()) - ownCpuBefore;
    Check(relay.Error().empty(), relay.Error());
    return {socketBuffers == 0 ? "controller sim -> relay -> data-path sim (floor)"
                               : "  the same, with the agent link's 4 KiB socket buffers",
            Seconds(end - start), stream.Items(), relayCpu, ownCpu - relayCpu};
}

// The daemon on the road, after the start-up handshake, the data path's joins
// and each VNI's full sync.
Result ThroughFenrel(const L2Stream& stream, int logLevel)
{
    AgentHarness harness;
    CtrlSim::ControllerSim& controller = harness.AddController(1);
    harness.WriteControllerInfo();
    const auto counting = CountingDataPath(harness);
    DpSim::DataPathSim& dataPath = *counting;
    DpSim::LocalState::L2UpdateMappingItemMsg vtep;
    vtep.mutable_vtep()->mutable_vtep_ip()->set_ipv4(0xC0A80001);
    for (uint32_t vni = stream.FirstVni(); vni < stream.FirstVni() + stream.Vnis(); ++vni) {
        Check(dataPath.AddL2(vni, l2::L2MappingUpdateMsg::VTEP, vtep).empty(), "the data path joins its VNIs");
    }
    FenRELTest::MainConfigXml mainConfig = AgentHarness::FullConfig();
    mainConfig.logLevel = logLevel;
    harness.Start(mainConfig);

    Check(dataPath.WaitForMessage(DpSim::DataPathSim::IsFullSync(), kSetupTimeout).has_value(),
          "fenrel's full sync reached the data path\n" + harness.Daemon().Stdout().substr(0, 4000));
    Check(controller.L2().WaitUntil(
              [&](const CtrlSim::L2Handler::HostState& state) { return state.view.vnis.size() == stream.Vnis(); },
              kSetupTimeout),
          "the controller saw the host join every VNI");
    for (uint32_t vni = stream.FirstVni(); vni < stream.FirstVni() + stream.Vnis(); ++vni) {
        Check(controller.L2().PushFullSync(vni, {}), "the VNI's full sync went out");
    }
    Check(dataPath.WaitForView(
              [&](const DpSim::DataPathView& view) {
                  size_t up = 0;
                  for (const auto& [key, session] : view.Sessions()) {
                      up += session.session_type() == lcp::CcpSessionStateMsg::L2_SESSION &&
                            session.session_state() == lcp::CcpSessionStateMsg::SESSION_LINKUP;
                  }
                  return up == stream.Vnis();
              },
              kSetupTimeout),
          "every VNI's session is up at the data path");
    const auto sessionId = controller.L2().State().sessionId;
    Check(sessionId.has_value(), "the host's session id is known");
    const auto chunks =
        stream.ControllerChunks(*sessionId, CtrlSim::ConfigHandler::AgentFrameLimit(controller), kChunkBytes);

    const pid_t pid = harness.Daemon().Pid();
    const double cpuBefore = CpuSeconds(pid);
    const double ownCpuBefore = CpuSeconds(getpid());
    const auto start = Clock::now();
    SendChunks(controller, chunks);
    WaitForAllItems(dataPath, stream);
    const auto end = Clock::now();
    const double ownCpu = CpuSeconds(getpid()) - ownCpuBefore;
    Check(harness.Daemon().IsRunning(), "fenrel still runs");
    return {"controller sim -> fenrel -> data-path sim, log level " + std::to_string(logLevel),
            Seconds(end - start), stream.Items(), CpuSeconds(pid) - cpuBefore, ownCpu};
}

// Runs `road` `repeat` times, each in a fresh set of processes and
// simulators; the run of median time stands for all.
Result Median(size_t repeat, const std::function<Result()>& road)
{
    std::vector<Result> results;
    for (size_t i = 0; i < repeat; ++i) {
        results.push_back(road());
    }
    std::sort(results.begin(), results.end(),
              [](const Result& a, const Result& b) { return a.seconds < b.seconds; });
    return results[results.size() / 2];
}

void Throughput(const Sizes& sizes, const std::vector<int>& levels, const std::string& only, size_t repeat)
{
    const L2Stream stream(kFirstVni, sizes.vnis, sizes.messages, sizes.itemsPerMessage);
    printf("== controller to data path: %zu MAC items, %zu L2UpdateMsg of %zu, %u VNIs; median of %zu\n",
           stream.Items(), sizes.messages, sizes.itemsPerMessage, sizes.vnis, repeat);
    const auto wanted = [&](const char* road) { return only.empty() || only == "throughput" || only == road; };
    if (wanted("sink")) {
        Print(Median(repeat, [&] { return ControllerCeiling(stream); }), nullptr);
    }
    if (wanted("datapath")) {
        Print(Median(repeat, [&] { return DataPathCeiling(stream); }), nullptr);
    }
    std::optional<Result> floor;
    if (wanted("relay") || wanted("fenrel")) {
        floor = Median(repeat, [&] { return RelayFloor(stream); });
        Print(*floor, nullptr);
        // What the agent's small socket buffers alone cost a relay.
        Print(Median(repeat, [&] { return RelayFloor(stream, kAgentLinkBuffers); }), nullptr);
    }
    if (wanted("fenrel")) {
        for (const int level : levels) {
            Print(Median(repeat, [&] { return ThroughFenrel(stream, level); }), &*floor);
        }
    }
}

std::vector<config::ZunConfigDeltaMsg> LogicalSwitches(size_t count)
{
    std::vector<config::ZunConfigDeltaMsg> switches(count);
    for (size_t i = 0; i < count; ++i) {
        config::ZunConfigDeltaMsg& delta = switches[i];
        delta.set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
        delta.mutable_entity_id()->set_left(0x1111);
        delta.mutable_entity_id()->set_right(i + 1);
        delta.set_entity_type(config::LOG_SWITCH);
        auto* property = delta.add_property();
        property->set_property_type(config::EntityPropertyMsg::LS_VNI);
        property->mutable_ls_vni()->set_vni(static_cast<uint32_t>(10000 + i));
    }
    return switches;
}

// Seconds from the fork of the daemon to each step, as the peers saw it.
struct StartUpSteps {
    double hello = 0;
    double open = 0;
    double hostFullSyncEnd = 0;  // after READY and the host's VIF state
    double dataPathFullSync = 0;
};

StartUpSteps StartUp(size_t entities, size_t vifs)
{
    AgentHarness harness;
    CtrlSim::ControllerSim& controller = harness.AddController(1);
    controller.Config().SetConfiguration(LogicalSwitches(entities));
    harness.WriteControllerInfo();
    DpSim::DataPathSim& dataPath = harness.AddDataPath(true);
    for (size_t i = 0; i < vifs; ++i) {
        const uint32_t ip = 0x0A000000 + static_cast<uint32_t>(i + 1);
        Check(dataPath.SetVif("vif-" + std::to_string(i), DpSim::LocalState::Vif{{ip}, {0x005056000000 + i}}).empty(),
              "the data path plugs its VIFs");
    }
    FenRELTest::MainConfigXml mainConfig = AgentHarness::FullConfig();
    mainConfig.logLevel = 4;

    const auto start = Clock::now();
    harness.Start(mainConfig);
    const auto fullSync = dataPath.WaitForMessage(DpSim::DataPathSim::IsFullSync(), kRunTimeout);
    Check(fullSync.has_value(), "fenrel's full sync reached the data path");
    Check(static_cast<size_t>(fullSync->msg.remote_config_update_size()) == entities,
          "the full sync holds the configuration");
    const auto hello = controller.WaitForMessage(CtrlSim::ControllerSim::MessageOf(1, 0), 0ms);
    const auto open = controller.WaitForMessage(
        [](const CtrlSim::RecordedMessage& msg) {
            return msg.Is(CtrlSim::MsgType::SessionControl, 257) && !msg.body.empty() && msg.body[0] == 1;
        },
        0ms);
    const auto hostEnd = controller.WaitForMessage(
        [](const CtrlSim::RecordedMessage& msg) {
            return msg.Is(CtrlSim::MsgType::SessionControl, 256) && !msg.body.empty() && msg.body[0] == 4;
        },
        0ms);
    Check(hello && open && hostEnd, "hello, Open and the host's FullSync End reached the controller");
    Check(controller.Config().State().view.size() == vifs, "the controller knows every VIF");
    return {Seconds(hello->received - start), Seconds(open->received - start), Seconds(hostEnd->received - start),
            Seconds(fullSync->received - start)};
}

// The median run by the time of the data path's full sync.
void PrintStartUp(size_t entities, size_t vifs, size_t repeat)
{
    std::vector<StartUpSteps> runs;
    for (size_t i = 0; i < repeat; ++i) {
        runs.push_back(StartUp(entities, vifs));
    }
    std::sort(runs.begin(), runs.end(), [](const StartUpSteps& a, const StartUpSteps& b) {
        return a.dataPathFullSync < b.dataPathFullSync;
    });
    const StartUpSteps& median = runs[runs.size() / 2];
    printf("  %6zu entities, %5zu VIFs: hello %.3f s, Open %.3f s, VIFs and FullSync End %.3f s, "
           "data path full sync %.3f s\n",
           entities, vifs, median.hello, median.open, median.hostFullSyncEnd, median.dataPathFullSync);
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    Sizes sizes;
    std::string only;
    std::vector<int> levels{4, 3};
    size_t repeat = 3;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--smoke") {
            sizes = Sizes{10, 100, 100, 100, 10};
            levels = {3};
            repeat = 1;
        } else if (arg == "--repeat" && i + 1 < argc) {
            repeat = std::max(1, std::stoi(argv[++i]));
        } else if (arg == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (arg == "--levels" && i + 1 < argc) {
            levels.clear();
            std::istringstream list(argv[++i]);
            for (std::string level; std::getline(list, level, ',');) {
                levels.push_back(std::stoi(level));
            }
        } else {
            fprintf(stderr,
                    "usage: %s [--smoke] [--repeat N] [--levels 4,3]\n"
                    "          [--only throughput|sink|datapath|relay|fenrel|startup]\n",
                    argv[0]);
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    printf("machine: nproc %ld, load average %s\n", sysconf(_SC_NPROCESSORS_ONLN), LoadAverage().c_str());
    try {
        if (only != "startup") {
            Throughput(sizes, levels, only, repeat);
        }
        if (only.empty() || only == "startup") {
            printf("== start-up, from the fork of fenrel (log level 4); median of %zu\n", repeat);
            PrintStartUp(0, 0, repeat);
            PrintStartUp(sizes.entities, sizes.vifs, repeat);
        }
    } catch (const std::exception& e) {
        Die(e.what());
    }
    printf("load average at the end %s\n", LoadAverage().c_str());
    return 0;
}
