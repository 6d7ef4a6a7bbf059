// idle_cost_bench: the CPU an idle fenrel spends on its controllers.
//
//   idle_cost_bench [--seconds N]     (default 60)
//
// The real daemon at the packaged log level, connected to three simulated
// controllers over TLS on loopback, and the data-path simulator, all in this
// process. Once the connections are up and the session's full syncs are over,
// nothing but keep-alives passes; the daemon's user and system time
// (/proc/PID/stat) over N seconds is printed as a share of one core.


#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "AgentHarness.h"
#include "ProcessFootprint.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using FenRELTest::AgentHarness;
using FenRELTest::ProcessFootprint;

constexpr int kControllers = 3;
constexpr auto kSetupTimeout = 60s;

[[noreturn]] void Die(const std::string& why)
{
    fprintf(stderr, "idle_cost_bench: %s\n", why.c_str());
    exit(1);
}

size_t KeepAlives(CtrlSim::ControllerSim& controller)
{
    const auto isKeepAlive = CtrlSim::ControllerSim::MessageOf(CtrlSim::MsgType::KeepAlive, 0);
    size_t count = 0;
    for (const auto& msg : controller.Messages()) {
        count += isKeepAlive(msg);
    }
    return count;
}

}  // namespace

int main(int argc, char** argv)
{
    int seconds = 60;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc) {
            seconds = std::atoi(argv[++i]);
        } else {
            Die("usage: idle_cost_bench [--seconds N]");
        }
    }
    if (seconds <= 0) {
        Die("--seconds takes a positive number");
    }

    AgentHarness agent;
    for (int i = 0; i < kControllers; ++i) {
        agent.AddController(i + 1);
    }
    agent.WriteControllerInfo();
    agent.AddDataPath(true);
    auto config = AgentHarness::FullConfig();
    config.logLevel = 4;  // the packaged level
    agent.Start(config);

    // The start-up is over when the data path has its full sync.
    if (!agent.DataPath().WaitForMessage(DpSim::DataPathSim::IsFullSync(), kSetupTimeout)) {
        Die("no full sync reached the data path\n" + agent.Daemon().Stdout());
    }
    // The agent connects to the controller of its session. Walking the
    // session over the others connects them too: a connection the session
    // leaves is kept by the controller list.
    CtrlSim::ControllerSim* current = agent.SessionController();
    if (current == nullptr) {
        Die("no session\n" + agent.Daemon().Stdout());
    }
    for (int i = 0; i < kControllers; ++i) {
        CtrlSim::ControllerSim& next = agent.Controller(i);
        if (&next != current) {
            const auto moved = agent.MoveSession(*current, next, kSetupTimeout);
            if (!moved) {
                Die(moved.message());
            }
            current = &next;
        }
    }
    // Whatever the start-up left in flight settles first.
    std::this_thread::sleep_for(2s);

    const pid_t pid = agent.Daemon().Pid();
    size_t keepAlivesBefore = 0;
    for (int i = 0; i < kControllers; ++i) {
        keepAlivesBefore += KeepAlives(agent.Controller(i));
    }
    const auto cpuBefore = ProcessFootprint::Of(pid).cpu;
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const auto cpuAfter = ProcessFootprint::Of(pid).cpu;
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    size_t keepAlives = 0;
    size_t connections = 0;
    for (int i = 0; i < kControllers; ++i) {
        keepAlives += KeepAlives(agent.Controller(i));
        connections += agent.Controller(i).AcceptedCount();
    }
    if (!agent.Daemon().IsRunning()) {
        Die("the daemon ended\n" + agent.Daemon().Stderr());
    }
    if (connections != kControllers) {
        Die("a controller connection was lost during the measurement");
    }

    const double cpu = std::chrono::duration<double>(cpuAfter - cpuBefore).count();
    printf("idle fenrel, %d controllers over TLS, %.1f s: CPU %.3f s = %.3f%% of one core "
           "(%zu keep-alives from the agent)\n",
           kControllers, wall, cpu, 100.0 * cpu / wall, keepAlives - keepAlivesBefore);
    return 0;
}
