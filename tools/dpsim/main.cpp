// fenrel-dpsim: a data-path agent for the demo and for trying the agent by
// hand. Prints "listening <path>" first, then one line per event, and takes
// the commands of CommandShell on standard input ("help" lists them). Ends on
// "quit", SIGINT or SIGTERM; the end of standard input does not end it.

#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "CommandShell.h"
#include "DataPathSim.h"

namespace {

std::mutex g_stdoutMutex;

void Print(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_stdoutMutex);
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

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

    // SIGINT and SIGTERM are taken by sigwait below; the threads started from
    // here on inherit the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    DpSim::DataPathSim sim(options);
    sim.SetEventLog([](const std::string& line) { Print(line + "\n"); });
    try {
        sim.Start();
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    Print("listening " + sim.Path() + "\n");

    // Blocked in a read until the process ends, so it is left behind.
    std::thread([&sim] {
        DpSim::CommandShell shell(sim);
        for (std::string line; std::getline(std::cin, line);) {
            Print(shell.Execute(line));
            if (shell.QuitRequested()) {
                kill(getpid(), SIGTERM);
                return;
            }
        }
    }).detach();

    int signum = 0;
    sigwait(&stopSignals, &signum);
    sim.Stop();
    return 0;
}
