#pragma once

#include <string>
#include <vector>

namespace CtrlSim {

class ControllerSim;

// The shell's commands for the L2 channel. Each takes the command's words
// after its name, returns "" or what is wrong, and may append lines to
// `output`. A VM is a MAC ("00:50:56:00:00:01"), its IP and its VTEP's IP.
class L2Commands {
public:
    using Args = std::vector<std::string>;

    // l2-push <vni> <mac> <ip> <vtep-ip> [del] [fragment N]: a delta adding
    // (or removing) one VM.
    static std::string Push(ControllerSim& sim, const Args& args, std::string& output);
    // l2-sync <vni> [<mac>/<ip>/<vtep-ip>]... [fragment N]: a full sync of
    // the VNI stating these VMs.
    static std::string Sync(ControllerSim& sim, const Args& args, std::string& output);
    // l2-notify <vni> [<error> <sub>]: a notification, by default 1/2 (invalid VNI).
    static std::string Notify(ControllerSim& sim, const Args& args, std::string& output);
    // l2-view: what the host told us: its VNIs, VMs and routing VTEPs.
    static std::string View(ControllerSim& sim, const Args& args, std::string& output);
};

}  // namespace CtrlSim
