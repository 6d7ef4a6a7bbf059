#pragma once

namespace FenREL {

// The daemon's start-up, in the one order that works: signals, main
// configuration, work framework and channel singletons, applications, the
// controller list last, then the main loop. Returns -1 on a failed start and
// never returns otherwise.
class Startup {
public:
    static int Run(int argc, char** argv);

private:
    static bool ParseOptions(int argc, char** argv);
    static void ApplyMainConfig();
    static void StartChannelCore();
    static void StopChannelCore();
    // Reads the controller list and opens the first connections.
    static void LoadControllers();
    [[noreturn]] static void MainLoop();
};

}  // namespace FenREL
