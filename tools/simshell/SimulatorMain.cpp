#include "SimulatorMain.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <thread>

#include "CommandTable.h"

namespace SimShell {

namespace {

std::mutex g_stdoutMutex;

}  // namespace

void Print(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_stdoutMutex);
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

int RunSimulator(const char* program, const std::function<std::string()>& start, CommandTable& commands,
                 const std::function<void()>& stop)
{
    // SIGINT and SIGTERM are taken by sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::string firstLine;
    try {
        firstLine = start();
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: %s\n", program, e.what());
        return 1;
    }
    Print(firstLine + "\n");

    // Blocked in a read until the process ends, so it is left behind.
    std::thread([&commands] {
        for (std::string line; std::getline(std::cin, line);) {
            Print(commands.Execute(line));
            if (commands.QuitRequested()) {
                kill(getpid(), SIGTERM);
                return;
            }
        }
    }).detach();

    int signum = 0;
    sigwait(&stopSignals, &signum);
    stop();
    return 0;
}

}  // namespace SimShell
