#pragma once

#include <string>
#include <vector>

namespace CtrlSim {

class ControllerSim;

// The shell's commands for the config channel and traceflow. Each takes the
// command's words after its name, returns "" or what is wrong, and may append
// lines to `output`. A configuration is given as a file holding a
// CcpLcpZunConfigMsg in protobuf text form, for example
//
//   entity_property { operation: UPDATE_OP entity_id { left: 1 right: 2 } entity_type: LOG_SWITCH
//                     property { property_type: LS_VNI ls_vni { vni: 5001 } } }
//
// or as the hexadecimal bytes of a serialised one.
class ConfigCommands {
public:
    using Args = std::vector<std::string>;

    // config-push <file|hex>: an update to the host now.
    static std::string Push(ControllerSim& sim, const Args& args, std::string& output);
    // config-end [session]: our FullSync End, by default with the host's session id.
    static std::string End(ControllerSim& sim, const Args& args, std::string& output);
    // config-auto on|off [file]: answer the host's FullSync End, with that configuration.
    static std::string Auto(ControllerSim& sim, const Args& args, std::string& output);
    // config-view: what the host told us of its VIFs.
    static std::string View(ControllerSim& sim, const Args& args, std::string& output);
    // traceflow-out <hex> [conn]: a packet-out request.
    static std::string TraceflowOut(ControllerSim& sim, const Args& args, std::string& output);
    // traceflow-view: the observations received, one line each.
    static std::string TraceflowView(ControllerSim& sim, const Args& args, std::string& output);
};

}  // namespace CtrlSim
