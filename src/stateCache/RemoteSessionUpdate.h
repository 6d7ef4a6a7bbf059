#pragma once

#include <cstdint>
#include <string>

namespace FenREL {

// One session with a controller, as StateCacheRemoteSessionTable keeps it and
// tells it to its observers.
struct RemoteSessionUpdate {
    enum SessionType : int32_t { CONFIG_SESSION = 1, L2_SESSION = 2, L3_SESSION = 3 };
    enum SessionState : int32_t { STATE_INIT = 0, STATE_DOWN = 1, STATE_UP = 2 };

    int32_t sessionType = 0;
    uint32_t index = 0;  // VNI of an L2 session, router id of an L3 session, 0 for the config session
    int32_t sessionState = STATE_INIT;
    std::string controllerIp;  // dotted IPv4 text, empty until known
};

}  // namespace FenREL
