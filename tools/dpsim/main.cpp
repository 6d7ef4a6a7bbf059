// fenrel-dpsim: a data-path agent for the demo and for trying the agent by
// hand. Prints "listening <path>" first, then one line per event, and takes
// the commands of CommandShell on standard input ("help" lists them). Ends on
// "quit", SIGINT or SIGTERM; the end of standard input does not end it.

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "CommandShell.h"
#include "DataPathSim.h"
#include "SimulatorMain.h"

namespace {

void Usage(const char* program)
{
    fprintf(stderr,
            "usage: %s [options]\n"
            "  --path P             the socket to listen on ($FENREL_ROOT%s)\n"
            "  --no-auto-fullsync   send the first message only on the fullsync command\n",
            program, DpSim::DataPathSim::kDefaultPath);
}

// The agent's default socket, under the same root as the agent's files.
std::string DefaultPath()
{
    const char* root = getenv("FENREL_ROOT");
    std::string prefix = root != nullptr ? root : "";
    while (!prefix.empty() && prefix.back() == '/') {
        prefix.pop_back();
    }
    return prefix + DpSim::DataPathSim::kDefaultPath;
}

}  // namespace

int main(int argc, char** argv)
{
    DpSim::DataPathSim::Options options;
    options.path = DefaultPath();

    enum { Path = 256, NoAutoFullSync };
    static const option longOptions[] = {
        {"path", required_argument, nullptr, Path},
        {"no-auto-fullsync", no_argument, nullptr, NoAutoFullSync},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int opt; (opt = getopt_long(argc, argv, "h", longOptions, nullptr)) != -1;) {
        switch (opt) {
        case Path:
            options.path = optarg;
            break;
        case NoAutoFullSync:
            options.autoFullSync = false;
            break;
        default:
            Usage(argv[0]);
            return opt == 'h' ? 0 : 2;
        }
    }

    DpSim::DataPathSim sim(options);
    sim.SetEventLog([](const std::string& line) { SimShell::Print(line + "\n"); });
    DpSim::CommandShell shell(sim);
    return SimShell::RunSimulator(
        argv[0],
        [&sim] {
            sim.Start();
            return "listening " + sim.Path();
        },
        shell, [&sim] { sim.Stop(); });
}
