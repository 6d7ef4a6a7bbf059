#pragma once

#include <cstdint>
#include <map>

#include "MsgSink.h"

namespace FenREL {

// Carries the messages that are not cached between the control-plane and the
// data-plane domains, by domain and message type, on the caller's thread.
// The sinks are registered at start-up and only read afterwards, so dispatch
// takes no lock.
class MsgDispatcher {
public:
    enum Domain : uint32_t { DP_DOMAIN = 0, CP_DOMAIN = 1 };
    enum DpMsgType : uint32_t {
        DP_MSG_TRACEFLOW = 1,
        DP_MSG_L3 = 2,
        DP_MSG_FIREWALL = 3,
        DP_MSG_ENCRYPTION = 4,
        DP_MSG_EDGE_SERVICES = 5,
    };

    static MsgDispatcher& Get();

    // The first sink of a type stays.
    bool RegisterSink(Domain domain, uint32_t type, MsgSink* sink);
    bool UnRegisterSink(Domain domain, uint32_t type);
    // A type without sink is dropped without a word.
    void Dispatch(Domain domain, uint32_t type, const uint8_t* data, uint32_t length) const;

private:
    std::map<uint32_t, MsgSink*> _sinks[2];
};

}  // namespace FenREL
